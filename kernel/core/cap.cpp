#include "kernel/core/cap.h"

#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal.h"

constinit const cap_name_t cap_names[] = {
    {CAP_NET, "net"},       {CAP_DISK, "disk"},   {CAP_ACTOR, "actor"},
    {CAP_MEMORY, "memory"}, {CAP_ADMIN, "admin"}, {CAP_CONSOLE, "console"},
    {CAP_FS, "fs"},         {CAP_MESH, "mesh"},   {CAP_SYSCALL, "syscall"},
    {0, nullptr},
};

namespace {

constexpr pid_t FIRST_LIMITED_PID = 5;
constexpr const char* NO_OPERATION = "?";

struct {
    uint32_t task_caps[CAP_PIDS];
    uint32_t withheld[CAP_PIDS];  ///< by the scopes that the task is in
    cap_audit_entry_t audit_log[CAP_AUDIT_SLOTS];
    uint32_t audit_head;   ///< the next slot to write
    uint32_t audit_total;  ///< valid entries
    uint32_t next_token_id;
} state GUARDED_BY(irq_mask);

bool has_mask(pid_t pid) { return pid >= 0 && pid < CAP_PIDS; }

void audit(pid_t pid, uint32_t cap, bool granted, const char* operation) {
    const irq_guard guard;
    cap_audit_entry_t* entry = &state.audit_log[state.audit_head];
    *entry = {system_ticks, pid, cap, granted, {}};
    string_copy(entry->operation, operation, sizeof entry->operation);
    state.audit_head = (state.audit_head + 1) % CAP_AUDIT_SLOTS;
    if (state.audit_total < CAP_AUDIT_SLOTS)
        ++state.audit_total;
}

void record(const char* text) { causal_emit(CAUSAL_USER, "cap", text, nullptr, 0); }

/// Records how a check of a pid with a mask ended, where that is worth an event.
void record_check(pid_t pid, uint32_t cap, bool granted, const char* operation) {
    if (granted && strncmp(operation, "whatif ", 7) != 0)
        return;
    char names[CAP_NAMES_SIZE];
    cap_format(cap, names);
    char text[CAUSAL_DESC_SIZE];
    ksnprintf(text, sizeof text,
              granted ? "ALLOW pid=%d has=%s op=%s" : "DENIED pid=%d needs=%s op=%s", pid, names,
              operation);
    record(text);
}

/// The mask becomes (mask & keep) | add, with admin.
bool change(const char* operation, int pid, uint32_t keep, uint32_t add) {
    if (!cap_require(CAP_ADMIN, operation) || !has_mask(pid))
        return false;
    const irq_guard guard;
    state.task_caps[pid] = (state.task_caps[pid] & keep) | add;
    return true;
}

bool descends(const task_t* task, pid_t ancestor) {
    for (int links = 0; task != nullptr && task->parent_pid > 0 && links < TASK_MAX; ++links) {
        if (task->parent_pid == ancestor)
            return true;
        task = task_find_by_pid(task->parent_pid);
    }
    return false;
}

bool may_renice(pid_t pid) { return cap_may_control(pid, "renice"); }

}  // namespace

void cap_init(void) {
    {
        const irq_guard guard;
        memset(&state, 0, sizeof state);
        state.task_caps[0] = CAP_ALL;
        state.task_caps[1] = CAP_ALL;
        state.next_token_id = 1;
    }
    static constexpr task_capability_hooks_t HOOKS = {cap_task_init, may_renice};
    task_set_capability_hooks(&HOOKS);
    causal_event_fmt(CAUSAL_USER, "cap", "security initialized — %d capability types", CAP_TYPES);
    kprintf("cap: capability security initialized\n");
}

void cap_task_init(int pid, int parent_pid) {
    if (!has_mask(pid))
        return;
    const uint32_t caps = pid < FIRST_LIMITED_PID ? CAP_ALL : CAP_CONSOLE | CAP_FS;
    {
        const irq_guard guard;
        state.task_caps[pid] = caps;
        state.withheld[pid] = 0;  // whoever had the pid may have died within a scope
    }
    char names[CAP_NAMES_SIZE];
    cap_format(caps, names);
    char text[CAUSAL_DESC_SIZE];
    ksnprintf(text, sizeof text, "task_init pid=%d parent=%d caps=%s", pid, parent_pid, names);
    record(text);
}

bool cap_check(uint32_t cap) {
    const task_t* task = task_current();
    if (task == nullptr)
        return true;
    return has_mask(task->pid) && (cap_get(task->pid) & cap) == cap;
}

bool cap_require(uint32_t cap, const char* operation) {
    return cap_require_with(cap, 0, operation);
}

bool cap_require_with(uint32_t cap, uint32_t extra, const char* operation) {
    const char* named = operation != nullptr ? operation : NO_OPERATION;
    const pid_t pid = task_getpid();
    const bool granted = has_mask(pid) && ((cap_get(pid) | extra) & cap) == cap;
    audit(pid, cap, granted, named);
    if (has_mask(pid))
        record_check(pid, cap, granted, named);
    return granted;
}

int cap_grant(int pid, uint32_t caps) {
    if (!change("cap_grant", pid, CAP_ALL, caps))
        return -1;
    uint32_t token = 0;
    {
        const irq_guard guard;
        token = state.next_token_id++;
    }
    char names[CAP_NAMES_SIZE];
    cap_format(caps, names);
    char text[CAUSAL_DESC_SIZE];
    ksnprintf(text, sizeof text, "grant pid=%d +%s (token=%u)", pid, names, token);
    record(text);
    return 0;
}

int cap_revoke(int pid, uint32_t caps) {
    if (!change("cap_revoke", pid, ~caps, 0))
        return -1;
    char names[CAP_NAMES_SIZE];
    cap_format(caps, names);
    char text[CAUSAL_DESC_SIZE];
    ksnprintf(text, sizeof text, "revoke pid=%d -%s", pid, names);
    record(text);
    return 0;
}

uint32_t cap_get(int pid) {
    const irq_guard guard;
    return has_mask(pid) ? state.task_caps[pid] & ~state.withheld[pid] : 0;
}

bool cap_may_control(pid_t pid, const char* operation) {
    const task_t* self = task_current();
    if (self == nullptr || self->pid == pid)
        return true;
    const task_t* target = task_find_by_pid(pid);
    if (target != nullptr && target->io_ctx != nullptr && target->io_ctx == self->io_ctx)
        return true;
    return descends(target, self->pid) || cap_require(CAP_ADMIN, operation);
}

int cap_audit_count(void) {
    const irq_guard guard;
    return static_cast<int>(state.audit_total);
}

const cap_audit_entry_t* cap_audit_get(int index) {
    const irq_guard guard;
    if (index < 0 || static_cast<uint32_t>(index) >= state.audit_total)
        return nullptr;
    const uint32_t oldest = state.audit_head + CAP_AUDIT_SLOTS - state.audit_total;
    return &state.audit_log[(oldest + static_cast<uint32_t>(index)) % CAP_AUDIT_SLOTS];
}

void cap_format(uint32_t caps, char (&out)[CAP_NAMES_SIZE]) {
    size_t at = 0;
    for (const cap_name_t* cap = cap_names; cap->name != nullptr; ++cap) {
        if ((caps & cap->bit) == 0)
            continue;
        if (at > 0)
            out[at++] = ' ';
        at += string_copy(out + at, cap->name, sizeof out - at);
    }
    if (at == 0)
        string_copy(out, "(none)", sizeof out);
}

void cap_print(uint32_t caps) {
    char names[CAP_NAMES_SIZE];
    cap_format(caps, names);
    kprintf("%s", names);
}

uint32_t cap_from_name(const char* name) {
    if (strcmp(name, "all") == 0)
        return CAP_ALL;
    for (const cap_name_t* cap = cap_names; cap->name != nullptr; ++cap) {
        if (strcmp(name, cap->name) == 0)
            return cap->bit;
    }
    return 0;
}

cap_limit_scope::cap_limit_scope(uint32_t caps) : pid_(task_getpid()) {
    const irq_guard guard;
    if (!has_mask(pid_))
        return;
    former_ = state.withheld[pid_];
    state.withheld[pid_] |= ~caps;
}

cap_limit_scope::~cap_limit_scope() {
    const irq_guard guard;
    if (has_mask(pid_))
        state.withheld[pid_] = former_;
}
