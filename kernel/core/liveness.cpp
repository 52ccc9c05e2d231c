#include "kernel/core/liveness.h"

#include <bit>

#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/graph/causal.h"

namespace {

constexpr int TASK_PRIORITY = 6;
constexpr uint32_t LOOK_TICKS = 50;
constexpr uint32_t HASH_SEED = 0x5A5A5A5A;
constexpr uint32_t HASH_FACTOR = 0x9E3779B1;
constexpr pid_t NO_TASK = -1;

struct {
    liveness_entry_t entries[LIVENESS_ENTRIES];
    pid_t task[LIVENESS_ENTRIES];  ///< whom the looks beat for
    int entry_count;
} state GUARDED_BY(irq_mask);

/// The component whose name begins as `name` does, as far as names are kept; null: none.
liveness_entry_t* find(const char* name) REQUIRES(irq_mask) {
    for (int i = 0; name != nullptr && i < state.entry_count; ++i) {
        if (strncmp(state.entries[i].name, name, LIVENESS_NAME_SIZE - 1) == 0)
            return &state.entries[i];
    }
    return nullptr;
}

int add(const char* name, uint32_t interval, pid_t task) {
    if (name == nullptr || interval == 0)
        return -1;
    const irq_guard guard;
    if (find(name) != nullptr)
        return -2;
    if (state.entry_count == LIVENESS_ENTRIES)
        return -3;
    state.task[state.entry_count] = task;
    liveness_entry_t* entry = &state.entries[state.entry_count++];
    *entry = {{}, interval, system_ticks, LIVENESS_ALIVE, true};
    string_copy(entry->name, name, sizeof entry->name);
    char text[CAUSAL_DESC_SIZE];  // causal_event_fmt would cut the longest
    ksnprintf(text, sizeof text, "register name=%s interval=%u", entry->name, interval);
    causal_emit(CAUSAL_USER, "liveness", text, nullptr, 0);
    return 0;
}

void beat(liveness_entry_t* entry) REQUIRES(irq_mask) {
    entry->last_beat = system_ticks;
    if (entry->state == LIVENESS_ALIVE)
        return;
    causal_event_fmt(CAUSAL_USER, "liveness", "recovered name=%s", entry->name);
    entry->state = LIVENESS_ALIVE;
}

/// Whether the task goes on, or waits only for time or for somebody to type.
bool task_is_well(pid_t pid) {
    const task_t* task = pid != NO_TASK ? task_find_by_pid(pid) : nullptr;
    if (task == nullptr)
        return false;
    if (task->state == TASK_BLOCKED)
        return !task_waits_for_other(task);
    return task->state == TASK_RUNNING || task->state == TASK_READY;
}

liveness_state_t state_at_age(uint32_t elapsed, uint32_t interval) {
    if (elapsed < interval)
        return LIVENESS_ALIVE;
    return elapsed < uint64_t{2} * interval ? LIVENESS_SUSPECT : LIVENESS_DEAD;
}

void age(liveness_entry_t* entry) REQUIRES(irq_mask) {
    const uint32_t elapsed = system_ticks - entry->last_beat;
    const liveness_state_t found = state_at_age(elapsed, entry->interval);
    if (found != entry->state && found != LIVENESS_ALIVE)
        causal_event_fmt(CAUSAL_USER, "liveness", "%s name=%s elapsed=%u",
                         found == LIVENESS_DEAD ? "dead" : "suspect", entry->name, elapsed);
    entry->state = found;
}

uint32_t hash_of(const liveness_proof_t& token) {
    uint32_t h = token.tick ^ HASH_SEED;
    for (uint32_t i = 0; i < LIVENESS_NAME_SIZE && token.name[i] != '\0'; ++i)
        h = std::rotl(h, 5) ^ static_cast<uint8_t>(token.name[i]);
    return token.tick * HASH_FACTOR ^ h;
}

void liveness_task() {
    for (;;) {
        task_sleep_unrecorded(LOOK_TICKS);
        liveness_tick();
    }
}

}  // namespace

void liveness_init() {
    {
        const irq_guard guard;
        memset(&state, 0, sizeof state);
    }
    task_create("liveness", liveness_task, TASK_PRIORITY);
    kprintf("liveness: proof token system ready\n");
}

int liveness_register(const char* name, uint32_t interval) { return add(name, interval, NO_TASK); }

int liveness_register_task(const char* name, uint32_t interval) {
    return add(name, interval, task_getpid());
}

int liveness_heartbeat(const char* name) {
    const irq_guard guard;
    liveness_entry_t* entry = find(name);
    if (entry == nullptr)
        return -1;
    beat(entry);
    return 0;
}

liveness_state_t liveness_check(const char* name) {
    const irq_guard guard;
    const liveness_entry_t* entry = find(name);
    return entry != nullptr ? entry->state : LIVENESS_DEAD;
}

void liveness_tick() {
    const irq_guard guard;
    for (int i = 0; i < state.entry_count; ++i) {
        if (task_is_well(state.task[i]))
            beat(&state.entries[i]);
        age(&state.entries[i]);
    }
}

int liveness_proof(const char* name, liveness_proof_t* out) {
    const irq_guard guard;
    const liveness_entry_t* entry = find(name);
    if (entry == nullptr || out == nullptr)
        return -1;
    memset(out, 0, sizeof *out);
    string_copy(out->name, entry->name, sizeof out->name);
    out->tick = system_ticks;
    out->hash = hash_of(*out);
    return 0;
}

bool liveness_verify(const liveness_proof_t* p) { return p != nullptr && p->hash == hash_of(*p); }

int liveness_count() {
    const irq_guard guard;
    return state.entry_count;
}

bool liveness_describe(int index, liveness_entry_t* out) {
    const irq_guard guard;
    if (index < 0 || index >= state.entry_count)
        return false;
    *out = state.entries[index];
    return true;
}
