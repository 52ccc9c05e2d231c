// The command table and its dispatcher.
#include <algorithm>
#include <array>
#include <string_view>

#include "kernel/apps/cmd_crypto.h"
#include "kernel/apps/cmd_graph.h"
#include "kernel/apps/cmd_schema.h"
#include "kernel/apps/cmd_system.h"
#include "kernel/apps/shell.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal.h"

const command_t commands[] = {
    {"help", cmd_help},       {"echo", cmd_echo},       {"exit", cmd_exit},
    {"logout", cmd_exit},     {"clear", cmd_clear},     {"free", cmd_free},
    {"memmap", cmd_memmap},   {"uname", cmd_uname},     {"termsize", cmd_termsize},
    {"uptime", cmd_uptime},   {"irqstat", cmd_irqstat}, {"crash", cmd_crash},
    {"events", cmd_events},   {"effects", cmd_effects}, {"blast", cmd_blast},
    {"autopsy", cmd_autopsy}, {"trace", cmd_trace},     {"cpath", cmd_cpath},
    {"cdot", cmd_cdot},       {"graph", cmd_graph},     {"graph-health", cmd_graph_health},
    {"orphans", cmd_orphans}, {"crypto", cmd_crypto},   {"hexdump", cmd_hexdump},
    {"random", cmd_random},   {"schema", cmd_schema},   {"dmesg", cmd_dmesg},
    {"heap", cmd_heap},       {"memleak", cmd_memleak}, {nullptr, nullptr},
};

namespace {

// Commands that read the graph record nothing, so that looking does not change what is looked at.
constexpr std::array<std::string_view, 72> UNRECORDED = {
    "events",     "graph",    "trace",     "why",         "effects",  "blast",   "autopsy",
    "tl",         "timeline", "observe",   "meshview",    "demo",     "top",     "prov",
    "journal",    "flame",    "waterfall", "prove",       "cproof",   "suptree", "elect",
    "contract",   "cell",     "ghost",     "diagnose",    "kv",       "capflow", "patch",
    "trigger",    "triggers", "energy",    "clusterview", "annotate", "cbreak",  "cascade",
    "search",     "narrate",  "tldiff",    "heal",        "sysrec",   "sysplay", "actver",
    "policy",     "blame",    "entropy",   "snapshot",    "critpath", "cbisect", "cdb",
    "cprof",      "attest",   "capsule",   "context",     "tempcap",  "kvwatch", "liveness",
    "whatif",     "digest",   "eset",      "merkle",      "verify",   "pattern", "mood",
    "barrier",    "diffuse",  "explore",   "actormap",    "query",    "dag",     "dagview",
    "dagexplore", "memtrace",
};

constexpr int SUGGESTION_NAME_MAX = 20;
constexpr int SUGGESTION_DISTANCE_MAX = 2;
constexpr int DISTANCE_FAR = 99;

void record_command(const char* name) {
    if (std::find(UNRECORDED.begin(), UNRECORDED.end(), name) != UNRECORDED.end())
        return;
    char text[KPRINTF_BYTES];
    ksprintf(text, "cmd: %s", name);
    // What the handler does follows this event: emission has made it the task's current one.
    causal_emit(CAUSAL_SHELL, "shell", text, nullptr, 0);
}

/// Levenshtein distance; DISTANCE_FAR when either name is too long to compare.
int edit_distance(std::string_view a, std::string_view b) {
    if (a.size() > SUGGESTION_NAME_MAX || b.size() > SUGGESTION_NAME_MAX)
        return DISTANCE_FAR;
    int row[SUGGESTION_NAME_MAX + 1];
    for (size_t j = 0; j <= b.size(); ++j)
        row[j] = static_cast<int>(j);
    for (size_t i = 1; i <= a.size(); ++i) {
        int diagonal = row[0];
        row[0] = static_cast<int>(i);
        for (size_t j = 1; j <= b.size(); ++j) {
            const int substituted = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, substituted});
        }
    }
    return row[b.size()];
}

}  // namespace

int dispatch(int argc, char** argv) {
    for (const command_t* command = commands; command->name != nullptr; ++command) {
        if (strcmp(argv[0], command->name) != 0)
            continue;
        record_command(command->name);
        command->func(argc, argv);
        return 1;
    }
    return 0;
}

void suggest_command(const char* name) {
    const char* nearest = nullptr;
    int least = SUGGESTION_DISTANCE_MAX + 1;
    for (const command_t* command = commands; command->name != nullptr; ++command) {
        const int distance = edit_distance(name, command->name);
        if (distance >= least)
            continue;
        least = distance;
        nearest = command->name;
    }
    if (nearest != nullptr)
        kprintf("  Did you mean: %s?\n", nearest);
}
