// Live tests: they let the system do something and look whether what it records of that goes with
// the event that it followed from, while a bystander stays.
#include "kernel/core/cap.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/drivers/virtio_net.h"
#include "kernel/fs/ramfs.h"
#include "kernel/graph/whatif/internal.h"

namespace {

enum class outcome_t { done, failed, skipped };

/// One test: what is done, and how an event begins that it must have recorded.
struct live_t {
    const char* name;
    outcome_t (*act)();
    whatif_wanted_t wanted;
};

outcome_t sleep_a_little() {
    constexpr uint32_t TICKS = 2;  // one tick is not recorded
    task_sleep(TICKS);
    return outcome_t::done;
}

/// The file stays, because nodes of the RAM filesystem are used up for good.
outcome_t write_file() {
    constexpr const char* PATH = "/tmp/whatif";
    constexpr char TEXT[] = "what if";
    fs_node_t* node = fs_resolve(PATH);
    if (node == nullptr)
        node = fs_create_file(PATH);
    const bool written = node != nullptr && fs_write(node, TEXT, sizeof TEXT - 1) >= 0;
    return written ? outcome_t::done : outcome_t::failed;
}

/// The check records what it allows when it is asked in this name.
outcome_t use_capability() {
    return cap_require(CAP_FS, "whatif fs") ? outcome_t::done : outcome_t::failed;
}

/// A broadcast frame of the type that IEEE 802 leaves for experiments.
outcome_t send_frame() {
    constexpr uint32_t FRAME = 60;
    constexpr uint32_t ADDRESS = 6;
    if (!net_present())
        return outcome_t::skipped;
    uint8_t frame[FRAME] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    net_get_mac(frame + ADDRESS);
    frame[2 * ADDRESS] = 0x88;
    frame[2 * ADDRESS + 1] = 0xB5;
    if (net_send(frame, FRAME) != 0)
        return outcome_t::failed;
    causal_event_fmt(CAUSAL_NET, "net", "probe sent len=%u", FRAME);
    return outcome_t::done;
}

constexpr live_t TESTS[] = {
    {"sleeptest", sleep_a_little, {"sched", "wake pid="}},
    {"fstest", write_file, {"fs", "write whatif"}},
    {"captest", use_capability, {"cap", "ALLOW pid="}},
    {"nettest", send_frame, {"net", "probe sent"}},
};

/// Records a bystander and the event from which the task goes on, and acts.
outcome_t run(const live_t& test) {
    static whatif_impact_t impact;
    const uint32_t outside = causal_get_current();
    const uint32_t bystander =
        causal_emit(CAUSAL_USER, "whatif", "bystander of a live test", &outside, 1);
    const uint32_t root = causal_emit(CAUSAL_USER, "whatif", test.name, &outside, 1);
    const outcome_t outcome = test.act();
    causal_set_current(outside);
    if (outcome == outcome_t::skipped) {
        kprintf("whatif %s: SKIP no device\n", test.name);
        return outcome;
    }
    mutex_guard lock(whatif_lock);
    impact = {};
    const bool passed = outcome == outcome_t::done &&
                        whatif_takes_along_locked(root, test.wanted, bystander, &impact);
    kprintf("whatif %s: %s root=%u eliminated=%u verdict=%s\n", test.name, passed ? "PASS" : "FAIL",
            root, impact.eliminated, verdict_label(impact.verdict));
    return passed ? outcome_t::done : outcome_t::failed;
}

}  // namespace

bool whatif_live(const char* name) {
    const bool all = strcmp(name, "live") == 0;
    uint32_t found = 0;
    uint32_t passed = 0;
    uint32_t failed = 0;
    for (const live_t& test : TESTS) {
        if (!all && strcmp(name, test.name) != 0)
            continue;
        ++found;
        const outcome_t outcome = run(test);
        passed += outcome == outcome_t::done ? 1 : 0;
        failed += outcome == outcome_t::failed ? 1 : 0;
    }
    if (all)
        kprintf("whatif live: %s passed=%u total=%u\n", failed == 0 ? "PASS" : "FAIL", passed,
                passed + failed);
    return found != 0;
}
