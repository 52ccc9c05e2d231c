// The table of `journal`'s subcommands.
#include "kernel/apps/cmd_journal.h"

#include "kernel/apps/cmd_journal/internal.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

constexpr const char* USAGE =
    "Usage: journal [segments|index|proof-health|footer <n>|hash-sidecar <n> [full]|"
    "epoch-root <n> [full]|epoch-proof <n> <event|first|last> [full|json-ish]|pubkey|sign <n>|"
    "verify-sig <n>|sign-test|sign-all|trust-health|hash-sidecar-test [n]|checksum-test [n]|"
    "read-retry-test [n]|hash-legacy-test [n]|record-compat-test|readthrough-test|"
    "hash-readthrough-test|readthrough-effects-test|readthrough-parents-test|"
    "hash <id|first|last>|lookup <id|first|last>|trace <id|first|last>|"
    "children <id|first|last> [n]|effects <id|first|last> [depth] [n]|query <start> <end>|"
    "lrange <start> <end> [n]|type <type> [n]|schema <id|name> [n]|subsystem <name> [n]|"
    "recent [n]|find <text> [n]|count <all|range|lrange|segment|type|schema|subsystem|find> ... "
    "[--json-ish]|spill [n]|spill-through <id>|import-legacy|rebuild|verify|verify-segment <n>|"
    "retention]\n";

/// A name with its arguments, how many of them there are, and whether nothing works without a disk.
struct usage_t {
    const char* name;
    const char* arguments;
    uint8_t least, most;
    bool needs_disk;
};

struct subcommand_t {
    usage_t usage;
    journal_subcommand_fn run;
};

struct view_t {
    usage_t usage;
    journal_view_fn show;
};

constexpr subcommand_t SUBCOMMANDS[] = {
    {{"pubkey", "", 0, 0, false}, journal_pubkey},
    {{"sign", "<segment>", 1, 1, false}, journal_sign},
    {{"sign-test", "", 0, 0, false}, journal_sign_test},
    {{"sign-all", "", 0, 0, false}, journal_sign_all},
    {{"hash-sidecar-test", "[n]", 0, 1, true}, journal_hash_sidecar_test},
    {{"checksum-test", "[n]", 0, 1, true}, journal_checksum_test},
    {{"hash-legacy-test", "[n]", 0, 1, true}, journal_hash_legacy_test},
    {{"record-compat-test", "", 0, 0, true}, journal_record_compat_test},
    {{"readthrough-test", "", 0, 0, true}, journal_readthrough_test},
    {{"hash-readthrough-test", "", 0, 0, true}, journal_hash_readthrough_test},
    {{"readthrough-effects-test", "", 0, 0, true}, journal_readthrough_effects_test},
    {{"readthrough-parents-test", "", 0, 0, true}, journal_readthrough_parents_test},
    {{"spill", "[n]", 0, 1, false}, journal_spill},
    {{"spill-through", "<event-id>", 1, 1, false}, journal_spill_through},
    {{"import-legacy", "", 0, 0, false}, journal_import_legacy},
    {{"rebuild", "", 0, 0, false}, journal_rebuild},
    {{"verify", "", 0, 0, false}, journal_verify},
    {{"retention", "[set <segments <1-32>|bytes <KiB>>|reset]", 0, 3, false}, journal_retention},
};

constexpr view_t VIEWS[] = {
    {{"status", "", 0, 0, false}, journal_status},
    {{"segments", "", 0, 0, true}, journal_segments},
    {{"index", "", 0, 0, true}, journal_index},
    {{"proof-health", "", 0, 0, true}, journal_proof_health},
    {{"footer", "<n>", 1, 1, true}, journal_footer},
    {{"hash-sidecar", "<n> [full]", 1, 2, true}, journal_hash_sidecar},
    {{"epoch-root", "<n> [full]", 1, 2, true}, journal_epoch_root},
    {{"epoch-proof", "<n> <event|first|last> [full|json-ish]", 2, 3, true}, journal_epoch_proof},
    {{"verify-sig", "<n>", 1, 1, false}, journal_verify_sig},
    {{"trust-health", "", 0, 0, false}, journal_trust_health},
    {{"read-retry-test", "[n]", 0, 1, true}, journal_read_retry_test},
    {{"verify-segment", "<n>", 1, 1, true}, journal_verify_segment},
    {{"hash", "<id|first|last>", 1, 1, true}, journal_hash},
    {{"lookup", "<id|first|last>", 1, 1, true}, journal_lookup},
    {{"trace", "<id|first|last>", 1, 1, true}, journal_trace},
    {{"children", "<id|first|last> [n]", 1, 2, true}, journal_children},
    {{"effects", "<id|first|last> [depth] [n]", 1, 3, true}, journal_effects},
    {{"query", "<start> <end>", 2, 2, true}, journal_query},
    {{"lrange", "<start> <end> [n]", 2, 3, true}, journal_lrange},
    {{"type", "<type> [n]", 1, 2, true}, journal_type},
    {{"schema", "<id|name> [n]", 1, 2, true}, journal_schema},
    {{"subsystem", "<name> [n]", 1, 2, true}, journal_subsystem},
    {{"recent", "[n]", 0, 1, true}, journal_recent},
    {{"find", "<text> [n]", 1, 2, true}, journal_find},
    {{"count", "<all|range|lrange|segment|type|schema|subsystem|find> ... [--json-ish]", 1, 4,
      true},
     journal_count},
};

/// The arguments are as many as they must be, and there is a disk where one is needed; prints what
/// is wrong otherwise.
bool may_run(const usage_t& usage, int arguments) {
    if (arguments < usage.least || arguments > usage.most) {
        kprintf("Usage: journal %s%s%s\n", usage.name, *usage.arguments != '\0' ? " " : "",
                usage.arguments);
        return false;
    }
    const bool runs = !usage.needs_disk || cjournal_state()->disk_available;
    if (!runs)
        kprintf("journal %s: no disk\n", usage.name);
    return runs;
}

template <typename entry_t, size_t count>
const entry_t* find(const entry_t (&table)[count], const char* name) {
    for (const entry_t& entry : table) {
        if (strcmp(name, entry.usage.name) == 0)
            return &entry;
    }
    return nullptr;
}

/// Shows what argv[0] names, as the form says.
void show(const view_t& view, journal_form_t form, int argc, char** argv) {
    if (may_run(view.usage, argc - 1))
        view.show(form, argc, argv);
}

/// `journal json ...` and `journal long ...`.
void show_records(journal_form_t form, int argc, char** argv) {
    const view_t* view = argc >= 2 ? find(VIEWS, argv[1]) : nullptr;
    if (view != nullptr) {
        show(*view, form, argc - 1, argv + 1);
        return;
    }
    kprintf("Usage: journal %s <", argv[0]);
    const char* separator = "";
    for (const view_t& known : VIEWS) {
        kprintf("%s%s", separator, known.usage.name);
        separator = "|";
    }
    kprintf("> ...\n");
}

}  // namespace

void cmd_journal(int argc, char** argv) {
    if (!cjournal_state()->initialized) {
        kprintf("journal: not initialized\n");
        return;
    }
    if (argc < 2) {
        journal_status(journal_form_t::text, argc, argv);
        return;
    }
    argc--;
    argv++;
    if (strcmp(argv[0], "json") == 0 || strcmp(argv[0], "long") == 0) {
        show_records(*argv[0] == 'j' ? journal_form_t::record : journal_form_t::full, argc, argv);
    } else if (const view_t* view = find(VIEWS, argv[0])) {
        show(*view, journal_form_t::text, argc, argv);
    } else if (const subcommand_t* subcommand = find(SUBCOMMANDS, argv[0])) {
        if (may_run(subcommand->usage, argc - 1))
            subcommand->run(argc, argv);
    } else {
        kprint_text(USAGE);
    }
}
