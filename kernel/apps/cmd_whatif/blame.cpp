// `blame`: the suspects for a fault.
#include "kernel/graph/blame.h"

#include "kernel/apps/cmd_graph/common.h"
#include "kernel/apps/cmd_whatif.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"

namespace {

constexpr int SHOWN = 10;

void print_suspects(const blame_suspect_t* suspects, int count) {
    kprintf("  %-7s  %-8s  %-6s  %-11s  %s\n", "BLAME", "EVENT", "FAULTS", "DESCENDANTS",
            "DESCRIPTION");
    for (int i = 0; i < count && i < SHOWN; i++) {
        const blame_suspect_t& one = suspects[i];
        kprintf("  %3d.%d%%   #%-7u  %-6u  %-11u  %s\n", one.score / 10, one.score % 10,
                one.event_id, one.faults, one.descendants, one.desc);
    }
    if (count > SHOWN)
        kprintf("  ... %d more\n", count - SHOWN);
}

}  // namespace

void cmd_blame(int argc, char** argv) {
    uint32_t id;
    causal_event_t ev;
    if (argc < 2) {
        kprintf("Usage: blame <event_id|last>\n");
        return;
    }
    if (!graph_parse_event(argv[1], &id) || id == 0) {
        kprintf("blame: invalid event id '%s'\n", argv[1]);
        return;
    }
    if (!causal_copy(id, &ev)) {
        kprintf("blame: event %u not found\n", id);
        return;
    }
    const auto suspects = heap_ptr<blame_suspect_t>::make(BLAME_SUSPECTS);
    const int count = suspects ? blame_analyze(id, suspects.get(), BLAME_SUSPECTS) : -1;
    if (count < 0) {
        kprintf("blame: out of memory\n");
        return;
    }
    if (count == 0) {
        kprintf("blame: event %u has no upstream cause (it is a root event)\n", id);
        return;
    }
    kprintf("blame: suspects for #%u \"%s\"\n", id, ev.desc);
    print_suspects(suspects.get(), count);
}
