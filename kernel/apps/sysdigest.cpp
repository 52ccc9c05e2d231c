#include "kernel/apps/sysdigest.h"

#include <iterator>

#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"
#include "kernel/core/mutex.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/graph/actor.h"
#include "kernel/graph/causal.h"

namespace {

constexpr uint32_t TICKS_PER_SECOND = 100;
constexpr uint32_t TICKS_PER_MINUTE = 60 * TICKS_PER_SECOND;
constexpr uint32_t KB = 1024;
constexpr uint32_t USAGE_LIMIT = 90;  // percent
constexpr uint32_t RING_LIMIT = 81;   // percent
constexpr int BLOCKED_LIMIT = 5;
constexpr int TASKS_SHOWN = 5;
constexpr int ACTORS_SHOWN = 8;
constexpr const char* RULE = "--------------------------------------------\n";
constexpr const char* DOUBLE_RULE = "============================================\n";

void (*network_hook)(sysdigest_network_t* out);

mutex_t report_lock;
char report[SYSDIGEST_BYTES] GUARDED_BY(report_lock);

/// A text that takes whole pieces only.
class page_t {
public:
    page_t(char* out, uint32_t size) : out_(out), room_(size) { *out_ = '\0'; }

    void append(const char* fmt, ...) VORN_PRINTF(2, 3) {
        va_list args;
        va_start(args, fmt);
        const auto length = static_cast<uint32_t>(kvsnprintf(out_, room_, fmt, args));
        va_end(args);
        // A piece that fills the room may have been cut.
        if (length + 1 >= room_) {
            *out_ = '\0';
            return;
        }
        out_ += length;
        room_ -= length;
        length_ += static_cast<int>(length);
    }

    int length() const { return length_; }

private:
    char* out_;
    uint32_t room_;
    int length_ = 0;
};

uint32_t percent(uint32_t part, uint32_t whole) {
    return whole == 0 ? 0 : static_cast<uint32_t>(uint64_t{part} * 100 / whole);
}

bool slot_counts(int slot) { return slot == 0 || task_get_list()[slot].pid != 0; }

/// The tasks that wait for somebody else.
int count_waiting() {
    int count = 0;
    for (int slot = 0; slot < TASK_MAX; ++slot)
        count += slot_counts(slot) && task_waits_for_other(&task_get_list()[slot]) ? 1 : 0;
    return count;
}

int append_usage_warnings(page_t& page) {
    int warnings = 0;
    uint32_t heap_total = 0;
    uint32_t heap_used = 0;
    heap_get_stats(&heap_total, &heap_used);
    if (percent(heap_used, heap_total) > USAGE_LIMIT) {
        page.append("  [WARN] Heap usage above 90%%\n");
        ++warnings;
    }
    if (percent(pmm_used_frames(), pmm_total_frames()) > USAGE_LIMIT) {
        page.append("  [WARN] PMM usage above 90%%\n");
        ++warnings;
    }
    if (causal_ring_used() * 100 >= RING_LIMIT * CAUSAL_RING_SLOTS) {
        page.append("  [WARN] Causal ring >80%% full — events may be lost\n");
        ++warnings;
    }
    return warnings;
}

void append_health(page_t& page) {
    page.append(" HEALTH\n%s", RULE);
    const int warnings = append_usage_warnings(page);
    const int waiting = count_waiting();
    if (waiting > BLOCKED_LIMIT)
        page.append("  [WARN] %d tasks blocked — possible deadlock\n", waiting);
    else if (warnings == 0)
        page.append("  All systems nominal.\n");
    page.append("\n");
}

void append_memory(page_t& page) {
    const uint32_t total = pmm_total_frames();
    const uint32_t used = pmm_used_frames();
    uint32_t heap_total = 0;
    uint32_t heap_used = 0;
    heap_get_stats(&heap_total, &heap_used);
    page.append(" MEMORY\n%s", RULE);
    page.append("  PMM frames : %u total, %u used, %u free (%u%%)\n", total, used, total - used,
                percent(used, total));
    page.append("  Heap       : %u KB total, %u KB used, %u KB free (%u%%)\n\n", heap_total / KB,
                heap_used / KB, (heap_total - heap_used) / KB, percent(heap_used, heap_total));
}

void append_tasks(page_t& page) {
    int total = 0;
    int in_state[std::size(task_state_names)] = {};
    for (int slot = 0; slot < TASK_MAX; ++slot) {
        if (!slot_counts(slot))
            continue;
        ++total;
        ++in_state[task_get_list()[slot].state];
    }
    page.append(" TASKS\n%s", RULE);
    page.append("  Total : %-6d  Running : %d\n  Ready : %-6d  Blocked : %d\n  Dead  : %-6d\n",
                total, in_state[TASK_RUNNING], in_state[TASK_READY], in_state[TASK_BLOCKED],
                in_state[TASK_DEAD]);
    page.append("\n  PID  PRI  STATE    NAME\n");
    int shown = 0;
    for (int slot = 0; slot < TASK_MAX && shown < TASKS_SHOWN; ++slot) {
        const task_t& task = task_get_list()[slot];
        const task_state_t state = task.state;
        if (!slot_counts(slot) || state == TASK_DEAD)
            continue;
        ++shown;
        page.append("  %-4d %-4d %-8s %s\n", task.pid, task.priority, task_state_names[state],
                    task.name);
    }
    page.append("\n");
}

void append_actors(page_t& page) {
    const int count = actor_count();
    page.append(" ACTORS\n%s", RULE);
    page.append("  Active actors : %d\n\n", count);
    if (count > 0)
        page.append("  ID   RECV  SENT  NAME\n");
    int shown = 0;
    for (int slot = 0; slot < ACTOR_MAX && shown < ACTORS_SHOWN; ++slot) {
        actor_info_t actor;
        if (!actor_describe(slot, &actor))
            continue;
        ++shown;
        page.append("  %-4u %-5u %-5u %s\n", actor.id, actor.stats.recv_count,
                    actor.stats.send_count, actor.name);
    }
    page.append("\n");
}

void append_causal(page_t& page) {
    const uint32_t total = causal_total_events();
    const uint32_t seconds = system_ticks / TICKS_PER_SECOND;
    const uint32_t used = causal_ring_used();
    page.append(" CAUSAL GRAPH\n%s", RULE);
    page.append("  Total events : %u  (~%u events/sec)\n  Ring buffer  : %u / %u (%u%% full)\n\n",
                total, seconds == 0 ? total : total / seconds, used, CAUSAL_RING_SLOTS,
                used * 100 / CAUSAL_RING_SLOTS);
}

void append_network(page_t& page) {
    sysdigest_network_t net = {};
    if (network_hook != nullptr)
        network_hook(&net);
    page.append(" NETWORK\n%s", RULE);
    page.append("  Mesh peers : %d\n", net.mesh_peers);
    page.append("  TCP conns  : %d  (listen: %d, estab: %d)\n\n", net.tcp_used, net.tcp_listening,
                net.tcp_established);
}

struct section_t {
    const char* name;
    void (*append)(page_t& page);
};

/// In the order of the report.
constexpr section_t SECTIONS[] = {
    {"health", append_health}, {"memory", append_memory}, {"tasks", append_tasks},
    {"actors", append_actors}, {"causal", append_causal}, {"net", append_network},
};

const section_t* find_section(const char* name) {
    for (const section_t& section : SECTIONS) {
        if (strcmp(section.name, name) == 0)
            return &section;
    }
    return nullptr;
}

}  // namespace

void sysdigest_init() {
    network_hook = nullptr;
    report_lock = {};
    causal_emit(CAUSAL_USER, "sysdigest", "system digest initialized", nullptr, 0);
}

void sysdigest_set_network_hook(void (*fill)(sysdigest_network_t* out)) { network_hook = fill; }

int sysdigest_generate(char* out, uint32_t size) {
    page_t page(out, size);
    const uint32_t ticks = system_ticks;
    page.append("\n%s          Vorn SYSTEM DIGEST\n  Uptime: %um %us  Ticks: %u\n%s\n", DOUBLE_RULE,
                ticks / TICKS_PER_MINUTE, ticks / TICKS_PER_SECOND % 60, ticks, DOUBLE_RULE);
    for (const section_t& section : SECTIONS)
        section.append(page);
    page.append("%s", DOUBLE_RULE);
    return page.length();
}

void cmd_digest(int argc, char** argv) {
    const section_t* section = argc == 2 ? find_section(argv[1]) : nullptr;
    if (argc > 1 && section == nullptr) {
        kprintf("usage: digest [tasks|actors|net|memory|causal|health]\n");
        return;
    }
    const mutex_guard guard(report_lock);
    if (section == nullptr) {
        sysdigest_generate(report, sizeof report);
    } else {
        page_t page(report, sizeof report);
        section->append(page);
    }
    kprint_text(report);
}
