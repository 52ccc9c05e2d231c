// Who runs: the health snapshot and the lists of tasks and processors.
#include <algorithm>
#include <iterator>
#include <span>
#include <string_view>

#include "kernel/apps/cmd_system.h"
#include "kernel/apps/shell.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"
#include "kernel/core/smp.h"
#include "kernel/core/task.h"
#include "kernel/drivers/console.h"
#include "kernel/graph/actor.h"
#include "kernel/graph/causal.h"

namespace {

constexpr uint32_t TICKS_PER_SECOND = 100;
constexpr uint32_t TICKS_PER_MINUTE = 60 * TICKS_PER_SECOND;
constexpr uint32_t TICKS_PER_HOUR = 60 * TICKS_PER_MINUTE;
constexpr uint32_t FRAME_KB = PAGE_SIZE / 1024;
constexpr uint32_t KB_PER_MB = 1024;

constexpr const char* SHORT_STATES[] = {"run", "rdy", "blk", "dead", "zomb", "stop"};
static_assert(std::size(SHORT_STATES) == std::size(task_state_names));

// Nothing makes system calls.
constexpr uint32_t SYSTEM_CALLS = 0;

void set_color(uint8_t color) { console_set_color(color, CONSOLE_BLACK); }

std::span<const task_t> task_slots() {
    return {task_get_list(), static_cast<size_t>(task_pool_count())};
}

const char* state_name(const task_t& task) {
    return task.state < std::size(task_state_names) ? task_state_names[task.state] : "???";
}

struct task_counts_t {
    int total, running, ready, blocked;
    int ended_or_stopped;
};

/// The live tasks but `left_out`.
task_counts_t count_tasks(const task_t* left_out) {
    task_counts_t counts = {};
    for (const task_t& task : task_slots()) {
        const task_state_t state = task.state;
        if (state == TASK_DEAD || &task == left_out)
            continue;
        ++counts.total;
        if (state == TASK_RUNNING)
            ++counts.running;
        else if (state == TASK_READY)
            ++counts.ready;
        else
            ++(state == TASK_BLOCKED ? counts.blocked : counts.ended_or_stopped);
    }
    return counts;
}

/// Prints `label` in bright green, then makes white the colour of the value.
void print_label(const char* label) {
    set_color(CONSOLE_BRIGHT_GREEN);
    kprintf("%s", label);
    set_color(CONSOLE_WHITE);
}

/// A box of the code page's double lines; 45 columns lie within.
void print_title_box() {
    constexpr const char* EDGE =
        "\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd"
        "\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd"
        "\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd\xcd";
    set_color(CONSOLE_BRIGHT_CYAN);
    kprintf("\xc9%s\xbb\n", EDGE);
    kprintf("\xba%-45s\xba\n", "  Vorn System Status");
    kprintf("\xc8%s\xbc\n", EDGE);
}

void print_top_head(const task_t* self) {
    const uint32_t ticks = system_ticks;
    const task_counts_t live = count_tasks(nullptr);
    const task_counts_t others = count_tasks(self);
    set_color(CONSOLE_BRIGHT_CYAN);
    kprintf("Vorn - Top    Uptime: %um %us    Tasks: %d  (R:%d  W:%d  B:%d)\n",
            ticks / TICKS_PER_MINUTE, ticks / TICKS_PER_SECOND % 60, 1 + live.total,
            1 + others.running, others.ready, others.blocked);
    set_color(CONSOLE_GREY);
    kprintf("Mem: %uKB used / %uKB total    Ticks: %u\n", pmm_used_frames() * FRAME_KB,
            pmm_total_frames() * FRAME_KB, ticks);
    kprintf("-----------------------------------------------------\n");
    set_color(CONSOLE_YELLOW);
    kprintf("  PID  NAME                 STATE     PRI\n");
}

uint8_t color_of(task_state_t state) {
    switch (state) {
        case TASK_READY:
            return CONSOLE_YELLOW;
        case TASK_BLOCKED:
            return CONSOLE_RED;
        case TASK_RUNNING:
            return CONSOLE_BRIGHT_GREEN;
        default:
            return CONSOLE_DARK_GREY;
    }
}

void draw_top() {
    const task_t* self = task_current();
    console_clear();
    print_top_head(self);
    if (self != nullptr) {
        set_color(CONSOLE_BRIGHT_GREEN);
        kprintf("  %3d  %-20s running   %3d\n", self->pid, self->name, self->priority);
    }
    for (const task_t& task : task_slots()) {
        if (task.state == TASK_DEAD || &task == self)
            continue;
        set_color(color_of(task.state));
        kprintf("  %3d  %-20s %-7s   %3d\n", task.pid, task.name, state_name(task), task.priority);
    }
    set_color(CONSOLE_DARK_GREY);
    kprintf("\n  Press 'q' to exit\n");
    set_color(CONSOLE_GREY);
}

/// The links from a task to its oldest parent; a parent that is gone ends them.
int level_of(const task_t& task) {
    constexpr int LINKS_MAX = 10;
    int level = 0;
    const task_t* at = &task;
    while (at != nullptr && at->parent_pid > 0 && level < LINKS_MAX) {
        ++level;
        at = task_find_by_pid(at->parent_pid);
    }
    return level;
}

}  // namespace

void cmd_status(int, char**) {
    const task_counts_t tasks = count_tasks(nullptr);
    const uint32_t ticks = system_ticks;
    const uint32_t total_mb = pmm_total_frames() * FRAME_KB / KB_PER_MB;
    const uint32_t used_mb = pmm_used_frames() * FRAME_KB / KB_PER_MB;
    uint32_t interrupts = 0;
    for (const uint32_t count : irq_counts)
        interrupts += count;
    print_title_box();
    print_label("  Uptime:      ");
    kprintf("%uh %um %us (%u ticks)\n", ticks / TICKS_PER_HOUR, ticks / TICKS_PER_MINUTE % 60,
            ticks / TICKS_PER_SECOND % 60, ticks);
    print_label("  Memory:      ");
    kprintf("%u MB used / %u MB total (%u MB free)\n", used_mb, total_mb, total_mb - used_mb);
    print_label("  Tasks:       ");
    kprintf("%d total (%d run, %d ready, %d blocked)\n", tasks.total, tasks.running, tasks.ready,
            tasks.blocked + tasks.ended_or_stopped);
    print_label("  Syscalls:    ");
    kprintf("%u total\n", SYSTEM_CALLS);
    print_label("  Interrupts:  ");
    kprintf("%u total (timer: %u, kbd: %u)\n", interrupts, irq_counts[0], irq_counts[1]);
    print_label("  Actors:      ");
    kprintf("%d registered\n", actor_count());
    print_label("  Events:      ");
    kprintf("%u causal graph nodes\n", causal_total_events());
    set_color(CONSOLE_GREY);
}

void cmd_ps(int, char**) {
    const task_t* self = task_current();
    kprintf("PID  PRI  STATE    NAME\n");
    kprintf("---  ---  -------  ----\n");
    if (self != nullptr)
        kprintf("%3d  %3d  running  %s\n", self->pid, self->priority, self->name);
    for (const task_t& task : task_slots()) {
        if (task.state != TASK_DEAD && &task != self)
            kprintf("%3d  %3d  %7s  %s\n", task.pid, task.priority, state_name(task), task.name);
    }
}

void cmd_top(int, char**) {
    constexpr uint32_t REFRESH_TICKS = 50;
    draw_top();
    if (!shell_is_attended())
        return;
    uint32_t drawn = system_ticks;
    for (;;) {
        const int key = shell_poll_key();
        if (key == 'q' || key == 'Q')
            break;
        if (key < 0)
            task_sleep(1);
        if (system_ticks - drawn < REFRESH_TICKS)
            continue;
        drawn = system_ticks;
        draw_top();
    }
    console_clear();
}

void cmd_ptree(int, char**) {
    constexpr int LEVELS = 8;
    constexpr const char* INDENT = "              ";  // of the deepest level
    static_assert(std::string_view(INDENT).size() == 2 * (LEVELS - 1));
    if (task_pool_count() == 0) {
        kprintf("ptree: no tasks\n");
        return;
    }
    kprintf("PID  PPID  STATE  NAME\n");
    for (int level = 0; level < LEVELS; ++level) {
        const char* indent = INDENT + 2 * (LEVELS - 1 - level);
        for (const task_t& task : task_slots()) {
            const task_state_t state = task.state;
            if ((state == TASK_DEAD && task.pid == 0) || level_of(task) != level)
                continue;
            kprintf("%s%-4d %-4d  %-5s %s\n", indent, task.pid, task.parent_pid,
                    state < std::size(SHORT_STATES) ? SHORT_STATES[state] : "???", task.name);
        }
    }
}

void cmd_cpu(int, char**) {
    kprintf("Per-CPU scheduler snapshot\n");
    const uint32_t count = std::clamp(smp_cpu_count(), 1u, CPU_MAX);
    for (uint32_t cpu = 0; cpu < count; ++cpu) {
        const cpu_state_t* record = smp_cpu_state(cpu);
        const bool active = cpu == 0 || (record != nullptr && record->active);
        kprintf("CPU %u: active=%c  current=%s(%d)  switches=%u  %s\n", cpu, active ? 'Y' : 'N',
                task_cpu_current_name(cpu), task_cpu_current_pid(cpu), task_cpu_switches(cpu),
                task_cpu_is_idle(cpu) ? "[idle]" : "[busy]");
    }
}
