#include "kernel/apps/cmd_liveness.h"

#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/liveness.h"
#include "kernel/core/string.h"

namespace {

constexpr const char* STATE_NAMES[] = {"ALIVE", "SUSPECT", "DEAD"};

void print_usage() {
    kprintf("Usage: liveness <list|register|check|proofs>\n");
    kprintf("  liveness list                 — show all components\n");
    kprintf("  liveness register <name> <N>  — register (heartbeat every N ticks)\n");
    kprintf("  liveness check <name>         — check component state\n");
    kprintf("  liveness proofs               — generate proof tokens\n");
}

void list() {
    kprintf("%-20s %-8s %-10s %-10s\n", "NAME", "STATE", "INTERVAL", "LAST_BEAT");
    liveness_entry_t entry;
    for (int i = 0; liveness_describe(i, &entry); ++i) {
        if (entry.active)
            kprintf("%-20s %-8s %-10u %-10u\n", entry.name, STATE_NAMES[entry.state],
                    entry.interval, entry.last_beat);
    }
    kprintf("%d/%d registered\n", liveness_count(), LIVENESS_ENTRIES);
}

void register_component(int argc, char** argv) {
    uint32_t interval = 0;
    if (argc != 4) {
        kprintf("Usage: liveness register <name> <interval>\n");
        return;
    }
    const char* name = argv[2];
    if (safe_parse_uint(argv[3], &interval) != 0 || interval == 0) {
        kprintf("liveness: interval must be > 0\n");
        return;
    }
    const int result = liveness_register(name, interval);
    if (result == 0)
        kprintf("registered '%s' (interval %u ticks)\n", name, interval);
    else if (result == -2)
        kprintf("liveness: '%s' already registered\n", name);
    else if (result == -3)
        kprintf("liveness: table full (%d/%d)\n", liveness_count(), LIVENESS_ENTRIES);
    else
        kprintf("liveness: register failed (%d)\n", result);
}

/// The entry of a name, as far as names are kept.
bool find(const char* name, liveness_entry_t* out) {
    for (int i = 0; liveness_describe(i, out); ++i) {
        if (strncmp(out->name, name, LIVENESS_NAME_SIZE - 1) == 0)
            return true;
    }
    return false;
}

void check(int argc, char** argv) {
    liveness_entry_t entry;
    if (argc != 3)
        kprintf("Usage: liveness check <name>\n");
    else if (!find(argv[2], &entry))
        kprintf("liveness: '%s' not registered\n", argv[2]);
    else
        kprintf("%s: %s (last beat %u ticks ago)\n", entry.name, STATE_NAMES[entry.state],
                system_ticks - entry.last_beat);
}

void prove() {
    kprintf("%-20s %-10s %-10s\n", "NAME", "TICK", "HASH");
    liveness_entry_t entry;
    liveness_proof_t token;
    for (int i = 0; liveness_describe(i, &entry); ++i) {
        if (entry.active && liveness_proof(entry.name, &token) == 0)
            kprintf("%-20s %-10u 0x%08x  %s\n", token.name, token.tick, token.hash,
                    liveness_verify(&token) ? "VALID" : "INVALID");
    }
}

}  // namespace

void cmd_liveness(int argc, char** argv) {
    const char* word = argc > 1 ? argv[1] : nullptr;
    if (word == nullptr)
        print_usage();
    else if (strcmp(word, "list") == 0)
        list();
    else if (strcmp(word, "register") == 0)
        register_component(argc, argv);
    else if (strcmp(word, "check") == 0)
        check(argc, argv);
    else if (strcmp(word, "proofs") == 0)
        prove();
    else
        kprintf("liveness: unknown subcommand '%s'\n", word);
}
