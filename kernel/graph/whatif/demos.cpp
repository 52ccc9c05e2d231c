// Demonstrations: each records a small history of the kind that its name says, drops one event of
// it, and compares what is gone with what anybody can read off the table.
#include <algorithm>

#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/whatif/internal.h"

namespace {

constexpr int8_t OUTSIDE = -1;  // follows what the task did before
constexpr uint32_t STEPS_MAX = 8;
constexpr uint32_t REMOTE_NODE = 0x5EED0001;

/// An event of the history, and the steps that it follows.
struct step_t {
    causal_type_t type;
    const char* subsystem;
    const char* desc;
    int8_t first_parent;
    int8_t second_parent;  ///< OUTSIDE: none
};

/// The first step is the one that is dropped.
struct demo_t {
    const char* name;
    bool remote;  ///< the first step came from another node
    uint32_t eliminated;
    uint32_t subsystems;
    uint32_t pid;  ///< the one task that is named; 0: none is
    uint32_t depth;
    whatif_verdict_t verdict;
    uint32_t count;
    step_t steps[STEPS_MAX];
};

constexpr demo_t DEMOS[] = {
    {"actordemo",
     false,
     3,
     2,
     0,
     2,
     WHATIF_LOW_IMPACT,
     5,
     {{CAUSAL_ACTOR, "actor", "send to=worker", OUTSIDE, OUTSIDE},
      {CAUSAL_ACTOR, "actor", "recv name=worker", 0, OUTSIDE},
      {CAUSAL_FS, "fs", "write job.out", 1, OUTSIDE},
      {CAUSAL_ACTOR, "actor", "send to=shell", 1, OUTSIDE},
      {CAUSAL_ACTOR, "actor", "send to=another", OUTSIDE, OUTSIDE}}},
    {"fsdemo",
     false,
     6,
     3,
     0,
     4,
     WHATIF_MEDIUM_IMPACT,
     8,
     {{CAUSAL_FS, "fs", "create report.txt", OUTSIDE, OUTSIDE},
      {CAUSAL_FS, "fs", "write report.txt", 0, OUTSIDE},
      {CAUSAL_FS, "fs", "read report.txt", 1, OUTSIDE},
      {CAUSAL_IO, "blk", "flush report.txt", 1, OUTSIDE},
      {CAUSAL_USER, "mail", "report sent", 2, 3},
      {CAUSAL_USER, "mail", "report archived", 3, OUTSIDE},
      {CAUSAL_FS, "fs", "create other.txt", OUTSIDE, OUTSIDE},
      {CAUSAL_FS, "fs", "delete report.txt", 4, 6}}},
    {"delaydemo",
     false,
     3,
     2,
     0,
     3,
     WHATIF_LOW_IMPACT,
     5,
     {{CAUSAL_SCHED, "sched", "sleep ticks=50", OUTSIDE, OUTSIDE},
      {CAUSAL_SCHED, "sched", "wake from sleep", 0, OUTSIDE},
      {CAUSAL_USER, "job", "deadline missed", 1, OUTSIDE},
      {CAUSAL_USER, "job", "job run again", 2, OUTSIDE},
      {CAUSAL_SCHED, "sched", "sleep ticks=1", OUTSIDE, OUTSIDE}}},
    {"capdemo",
     false,
     2,
     2,
     77,
     2,
     WHATIF_LOW_IMPACT,
     4,
     {{CAUSAL_USER, "cap", "grant to PID 77", OUTSIDE, OUTSIDE},
      {CAUSAL_USER, "cap", "PID 77 authorized fs write", 0, OUTSIDE},
      {CAUSAL_FS, "fs", "write by pid=77", 1, OUTSIDE},
      {CAUSAL_USER, "cap", "PID 78 authorized fs read", OUTSIDE, OUTSIDE}}},
    {"netdemo",
     false,
     4,
     3,
     0,
     3,
     WHATIF_LOW_IMPACT,
     6,
     {{CAUSAL_NET, "net", "frame received", OUTSIDE, OUTSIDE},
      {CAUSAL_NET, "net", "datagram delivered", 0, OUTSIDE},
      {CAUSAL_USER, "service", "request served", 1, OUTSIDE},
      {CAUSAL_NET, "net", "reply sent", 2, OUTSIDE},
      {CAUSAL_SCHED, "sched", "reader woken", 1, OUTSIDE},
      {CAUSAL_NET, "net", "another frame received", OUTSIDE, OUTSIDE}}},
    {"remotedemo",
     true,
     3,
     2,
     0,
     2,
     WHATIF_LOW_IMPACT,
     5,
     {{CAUSAL_MESH, "mesh", "message of another node", OUTSIDE, OUTSIDE},
      {CAUSAL_ACTOR, "actor", "recv name=remote", 0, OUTSIDE},
      {CAUSAL_MESH, "mesh", "acknowledged", 0, OUTSIDE},
      {CAUSAL_ACTOR, "actor", "answer made", 1, 2},
      {CAUSAL_MESH, "mesh", "another message", OUTSIDE, OUTSIDE}}},
};

uint32_t record_step(const demo_t& demo, const step_t& step, const uint32_t* ids,
                     uint32_t outside) {
    uint32_t parents[2] = {outside, 0};
    int count = 1;
    if (step.first_parent != OUTSIDE)
        parents[0] = ids[step.first_parent];
    if (step.second_parent != OUTSIDE)
        parents[count++] = ids[step.second_parent];
    if (demo.remote && &step == demo.steps)
        return causal_emit_remote(step.type, step.subsystem, step.desc, parents, count, nullptr, 0,
                                  REMOTE_NODE);
    return causal_emit(step.type, step.subsystem, step.desc, parents, count);
}

/// Records the history and returns its first event. The task goes on from what it did before.
uint32_t record_history(const demo_t& demo) {
    uint32_t ids[STEPS_MAX] = {};
    const uint32_t outside = causal_get_current();
    for (uint32_t i = 0; i < demo.count; i++)
        ids[i] = record_step(demo, demo.steps[i], ids, outside);
    causal_set_current(outside);
    return ids[0];
}

bool as_expected(const demo_t& demo, const whatif_impact_t& impact) {
    const bool task =
        demo.pid == 0 ? impact.num_pids == 0 : impact.num_pids == 1 && impact.pids[0] == demo.pid;
    return task && impact.eliminated == demo.eliminated && impact.verdict == demo.verdict &&
           impact.num_subsystems == demo.subsystems && impact.deepest_depth == demo.depth;
}

bool run(const demo_t& demo) {
    static whatif_impact_t impact;
    mutex_guard lock(whatif_lock);
    const uint32_t root = record_history(demo);
    const bool passed =
        whatif_run_drop_locked(root, true, &impact) == 0 && as_expected(demo, impact);
    kprintf("whatif %s: %s root=%u eliminated=%u expected=%u verdict=%s\n", demo.name,
            passed ? "PASS" : "FAIL", root, impact.eliminated, demo.eliminated,
            verdict_label(impact.verdict));
    return passed;
}

}  // namespace

bool whatif_demo(const char* name) {
    const bool all = strcmp(name, "demos") == 0;
    uint32_t total = 0;
    uint32_t passed = 0;
    for (const demo_t& demo : DEMOS) {
        if (!all && strcmp(name, demo.name) != 0)
            continue;
        ++total;
        passed += run(demo) ? 1 : 0;
    }
    if (all)
        kprintf("whatif demos: %s passed=%u total=%u\n", passed == total ? "PASS" : "FAIL", passed,
                total);
    return total != 0;
}
