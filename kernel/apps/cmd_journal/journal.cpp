// The table of `journal`'s subcommands.
#include "kernel/apps/cmd_journal.h"

#include "kernel/apps/cmd_journal/internal.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/cjournal.h"

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

struct subcommand_t {
    const char* name;
    journal_subcommand_fn run;
};

constexpr subcommand_t SUBCOMMANDS[] = {
    {"segments", journal_segments},
    {"epoch-proof", journal_epoch_proof},
    {"pubkey", journal_pubkey},
    {"sign", journal_sign},
    {"verify-sig", journal_verify_sig},
    {"sign-test", journal_sign_test},
    {"sign-all", journal_sign_all},
    {"trust-health", journal_trust_health},
    {"read-retry-test", journal_read_retry_test},
    {"hash", journal_hash},
    {"lookup", journal_lookup},
    {"children", journal_children},
    {"effects", journal_effects},
    {"query", journal_query},
    {"lrange", journal_lrange},
    {"type", journal_type},
    {"schema", journal_schema},
    {"subsystem", journal_subsystem},
    {"recent", journal_recent},
    {"find", journal_find},
    {"count", journal_count},
    {"spill", journal_spill},
    {"spill-through", journal_spill_through},
    {"import-legacy", journal_import_legacy},
    {"rebuild", journal_rebuild},
    {"verify", journal_verify},
    {"verify-segment", journal_verify_segment},
    {"retention", journal_retention},
};

}  // namespace

bool journal_parse_segment(int argc, char** argv, bool optional, uint32_t* segment) {
    if (argc < 2 && optional) {
        *segment = cjournal_state()->segments_written;
        return true;
    }
    if (argc < 2) {
        kprintf("Usage: journal %s <segment>\n", argv[0]);
        return false;
    }
    if (safe_parse_uint(argv[1], segment) == 0)
        return true;
    kprintf("journal %s: invalid segment '%s'\n", argv[0], argv[1]);
    return false;
}

void cmd_journal(int argc, char** argv) {
    if (!cjournal_state()->initialized) {
        kprintf("journal: not initialized\n");
        return;
    }
    if (argc < 2) {
        journal_status();
        return;
    }
    for (const subcommand_t& subcommand : SUBCOMMANDS) {
        if (strcmp(argv[1], subcommand.name) != 0)
            continue;
        subcommand.run(argc - 1, argv + 1);
        return;
    }
    kprint_text(USAGE);
}
