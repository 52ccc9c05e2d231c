#include "kernel/core/tempcap.h"

#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal.h"

namespace {

constexpr int TASK_PRIORITY = 6;
constexpr uint32_t CHECK_TICKS = 100;

struct {
    tempcap_slot_t slots[TEMPCAP_SLOTS];
    uint32_t next_token;
    uint32_t total_granted, total_expired, total_revoked;
} state GUARDED_BY(irq_mask);

/// An event of a grant; its tail differs.
void record(const char* what, const tempcap_slot_t& slot, const char* tail) {
    char text[CAUSAL_DESC_SIZE];
    ksnprintf(text, sizeof text, "%s token=%u pid=%d caps=0x%x%s", what, slot.token_id,
              slot.owner_pid, slot.caps, tail);
    causal_emit(CAUSAL_USER, "tempcap", text, nullptr, 0);
}

tempcap_slot_t* free_slot() REQUIRES(irq_mask) {
    for (tempcap_slot_t& slot : state.slots) {
        if (!slot.active)
            return &slot;
    }
    return nullptr;
}

/// Takes a free slot for the grant; false when there is none.
bool take_slot(tempcap_slot_t* grant) {
    const irq_guard guard;
    tempcap_slot_t* slot = free_slot();
    if (slot == nullptr)
        return false;
    grant->token_id = state.next_token++;
    *slot = *grant;
    ++state.total_granted;
    return true;
}

/// The bits of the running task's valid grants that cover all of `cap`; 0 when none does.
uint32_t covering_grant(uint32_t cap) {
    const task_t* task = task_current();
    if (task == nullptr)
        return 0;
    const irq_guard guard;
    const uint32_t now = system_ticks;
    for (const tempcap_slot_t& slot : state.slots) {
        if (slot.active && slot.owner_pid == task->pid && slot.start_tick <= now &&
            now < slot.end_tick && (slot.caps & cap) == cap)
            return slot.caps;
    }
    return 0;
}

const char* status_of(const tempcap_slot_t& slot) {
    const uint32_t now = system_ticks;
    if (now < slot.start_tick)
        return "pending";
    return now < slot.end_tick ? "active" : "expired";
}

tempcap_slot_t slot_at(int index) {
    const irq_guard guard;
    return state.slots[index];
}

void tempcap_task() {
    for (;;) {
        tempcap_tick();
        task_sleep_unrecorded(CHECK_TICKS);
    }
}

}  // namespace

void tempcap_init(void) {
    {
        const irq_guard guard;
        memset(&state, 0, sizeof state);
        state.next_token = 1;
    }
    task_create("tempcap", tempcap_task, TASK_PRIORITY);
    kprintf("tempcap: temporal capabilities ready (%d slots)\n", TEMPCAP_SLOTS);
}

int tempcap_grant_window(int pid, uint32_t caps, uint32_t start_tick, uint32_t end_tick) {
    if (caps == 0 || start_tick >= end_tick || pid < 0 || pid >= CAP_PIDS)
        return -1;
    tempcap_slot_t grant = {true, pid, caps, start_tick, end_tick, 0};
    if (!take_slot(&grant)) {
        kprintf("tempcap: no free slots\n");
        return -1;
    }
    char window[CAUSAL_DESC_SIZE];
    ksnprintf(window, sizeof window, " start=%u end=%u", start_tick, end_tick);
    record("grant", grant, window);
    return static_cast<int>(grant.token_id);
}

int tempcap_grant(int pid, uint32_t caps, uint32_t duration_ticks) {
    const uint32_t now = system_ticks;
    return tempcap_grant_window(pid, caps, now, now + duration_ticks);
}

bool tempcap_check(uint32_t cap) { return cap_check(cap) || covering_grant(cap) != 0; }

bool tempcap_require(uint32_t cap, const char* operation) {
    return cap_require_with(cap, covering_grant(cap), operation);
}

int tempcap_revoke(int pid, uint32_t token_id) {
    const irq_guard guard;
    for (tempcap_slot_t& slot : state.slots) {
        if (!slot.active || slot.owner_pid != pid || slot.token_id != token_id)
            continue;
        record("revoke", slot, "");
        slot.active = false;
        ++state.total_revoked;
        return 0;
    }
    return -1;
}

void tempcap_tick(void) {
    const irq_guard guard;
    const uint32_t now = system_ticks;
    for (tempcap_slot_t& slot : state.slots) {
        if (!slot.active || now < slot.end_tick)
            continue;
        char at[CAUSAL_DESC_SIZE];
        ksnprintf(at, sizeof at, " tick=%u", now);
        record("expired", slot, at);
        slot.active = false;
        ++state.total_expired;
    }
}

void tempcap_list(int pid) {
    kprintf("TOKEN  PID  CAPS        START      END        STATUS\n");
    kprintf("-----  ---  ----------  ---------  ---------  ------\n");
    bool any = false;
    for (int i = 0; i < TEMPCAP_SLOTS; ++i) {
        const tempcap_slot_t slot = slot_at(i);
        if (!slot.active || (pid >= 0 && slot.owner_pid != pid))
            continue;
        any = true;
        kprintf("%5u  %3d  0x%08x  %9u  %9u  %s\n", slot.token_id, slot.owner_pid, slot.caps,
                slot.start_tick, slot.end_tick, status_of(slot));
    }
    if (!any)
        kprintf("(no temporal capabilities)\n");
}

void tempcap_status(tempcap_status_t* out) {
    const irq_guard guard;
    *out = {0, state.total_granted, state.total_expired, state.total_revoked};
    for (const tempcap_slot_t& slot : state.slots)
        out->in_use += slot.active ? 1 : 0;
}
