// Spilling under load, for as long as one likes: "rate=EVENTS seconds=N" on the command line. A
// task records events at that rate while the journal's task writes them, as on a machine at work.
// In the end everything is on disk; the line reads "bench sustained EVENTS LOST WAITING TENTHS":
// events in all, those that the ring lost before they were written, the most that ever waited, and
// the load's time in tenths of a second.
#include "arch/x86/cpu.h"
#include "arch/x86/hal.h"
#include "arch/x86/ports.h"
#include "bench/guest/measure.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/drivers/hwrng.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/causal.h"
#include "kernel/graph/cjournal.h"

namespace {

constexpr uint32_t TIMER_HZ = 100;
constexpr uint16_t PIC_MASTER_MASK = 0x21;
constexpr uint8_t ALL_BUT_TIMER = 0xFE;
constexpr uint32_t MULTIBOOT_INFO_CMDLINE = 1u << 2;

/// What the load was so far.
struct load_t {
    uint32_t looked_at = 0;  ///< every event up to this one
    uint32_t lost = 0;
    uint32_t waiting_max = 0;
};

/// The number behind `name` on the command line; 0 without one.
uint32_t number_given(const char* line, const char* name) {
    const char* at = strstr(line, name);
    char digits[11] = "";
    uint32_t length = 0, value = 0;
    if (at == nullptr)
        return 0;
    for (at += strlen(name); *at >= '0' && *at <= '9' && length < sizeof digits - 1; ++at)
        digits[length++] = *at;
    digits[length] = '\0';
    return safe_parse_uint(digits, &value) == 0 ? value : 0;
}

void idle_task() {
    for (;;) {
        task_yield();
        task_idle_wait();
    }
}

/// Adds what the journal says it lost: "lost FIRST..LAST", whole ranges.
void look(load_t* load) {
    const uint32_t newest = causal_total_events();
    for (uint32_t id = load->looked_at + 1; id <= newest; ++id) {
        const causal_event_t* ev = causal_get_ring(id);
        if (ev == nullptr || strcmp(ev->subsystem, "cjournal") != 0)
            continue;
        const uint32_t first = number_given(ev->desc, "lost ");
        if (first != 0)
            load->lost += number_given(ev->desc, "..") - first + 1;
    }
    load->looked_at = newest;
    load->waiting_max = std::max(load->waiting_max, newest - cjournal_state()->last_spilled_id);
}

/// Records what is due by the clock, each tick.
void run_load(uint32_t rate, uint32_t seconds, uint64_t second, load_t* load) {
    const uint64_t start = cpu_rdtsc(), span = seconds * second;
    uint64_t recorded = 0;
    for (uint64_t now = 0; now < span; now = cpu_rdtsc() - start) {
        for (; recorded * second < now * rate; ++recorded)
            causal_event_fmt(CAUSAL_FS, "bench", "write notes.txt (%u bytes) pid=%d",
                             static_cast<uint32_t>(recorded % 999), task_getpid());
        look(load);
        task_sleep(1);
    }
}

}  // namespace

sustained_t sustained_load_wanted(const multiboot_info_t* info) {
    if ((info->flags & MULTIBOOT_INFO_CMDLINE) == 0)
        return {};
    const char* line = reinterpret_cast<const char*>(uintptr_t{info->cmdline});
    return {number_given(line, "rate="), number_given(line, "seconds=")};
}

void measure_sustained(const sustained_t& wanted) {
    const uint64_t second = counts_a_second();
    check("sustained", blockfs_init());
    cjournal_init();
    outb(PIC_MASTER_MASK, ALL_BUT_TIMER);
    hal_timer_init(TIMER_HZ);
    cpu_sti();
    task_create("idle", idle_task, TASK_PRIORITIES - 1);
    sched_start();
    load_t load;
    const uint64_t start = cpu_rdtsc();
    run_load(wanted.rate, wanted.seconds, second, &load);
    const uint64_t tenths = (cpu_rdtsc() - start) * 10 / second;
    const uint32_t last = causal_total_events();
    cjournal_shutdown();
    look(&load);
    const cjournal_state_t* state = cjournal_state();
    check("sustained", state->last_spilled_id >= last ? 0 : -1);
    hwrng_init();
    check("sustained", cjournal_sign_all());
    kprintf("bench sustained %u %u %u %llu\n", state->last_spilled_id, load.lost, load.waiting_max,
            tenths);
}
