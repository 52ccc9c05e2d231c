#include "kernel/apps/cmd_cap.h"

#include "kernel/core/cap.h"
#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/core/tempcap.h"

namespace {

constexpr int AUDIT_SHOWN = 20;

bool is_word(const char* given, const char* word) { return strcmp(given, word) == 0; }

/// A pid 0..63; otherwise one line says what is wrong.
bool parse_pid(const char* command, const char* text, int* pid) {
    if (safe_atoi(text, pid) == 0 && *pid >= 0 && *pid < CAP_PIDS)
        return true;
    kprintf("%s: bad pid '%s' (0..%d)\n", command, text, CAP_PIDS - 1);
    return false;
}

bool parse_capability(const char* name, uint32_t* caps) {
    *caps = cap_from_name(name);
    if (*caps == 0)
        kprintf("Unknown capability: %s\n", name);
    return *caps != 0;
}

void print_usage() {
    kprintf("Usage: cap [list|show <pid>|grant <pid> <cap>|revoke <pid> <cap>|audit|test <cap>]\n");
    kprintf("Capabilities: net disk actor memory admin console fs mesh syscall all\n");
}

void show_own() {
    const task_t* task = task_current();
    kprintf("Capabilities for pid %d (%s): ", task_getpid(), task != nullptr ? task->name : "none");
    cap_print(cap_get(task_getpid()));
    kprintf("\n");
}

void list_masks() {
    kprintf("PID  %-16s CAPABILITIES\n", "NAME");
    for (int i = 0; i < task_pool_count(); ++i) {
        const task_t* task = &task_get_list()[i];
        if (task->state == TASK_DEAD || task->pid >= CAP_PIDS)
            continue;
        kprintf("%3d  %-16s ", task->pid, task->name);
        cap_print(cap_get(task->pid));
        kprintf("\n");
    }
}

void show(const char* text) {
    int pid = 0;
    if (safe_atoi(text, &pid) != 0) {
        kprintf("cap: bad pid '%s'\n", text);
        return;
    }
    const task_t* task = task_find_by_pid(pid);
    if (task == nullptr || task->state == TASK_DEAD) {
        kprintf("cap: no task with pid %d\n", pid);
        return;
    }
    kprintf("PID %d (%s): ", pid, task->name);
    cap_print(cap_get(pid));
    kprintf("\n");
}

void change(bool grant, const char* pid_text, const char* name) {
    uint32_t caps = 0;
    int pid = 0;
    if (!parse_capability(name, &caps) || !parse_pid("cap", pid_text, &pid))
        return;
    const int result = grant ? cap_grant(pid, caps) : cap_revoke(pid, caps);
    if (result != 0)
        kprintf("cap: %s failed (need admin)\n", grant ? "grant" : "revoke");
    else if (grant)
        kprintf("Granted %s to pid %d\n", name, pid);
    else
        kprintf("Revoked %s from pid %d\n", name, pid);
}

/// Entry `index`, whole: the ring goes on meanwhile.
cap_audit_entry_t copy_audit(int index) {
    const irq_guard guard;
    return *cap_audit_get(index);
}

void show_audit() {
    const int count = cap_audit_count();
    if (count == 0) {
        kprintf("No capability audit entries.\n");
        return;
    }
    kprintf("Recent capability checks:\n");
    for (int i = count > AUDIT_SHOWN ? count - AUDIT_SHOWN : 0; i < count; ++i) {
        const cap_audit_entry_t entry = copy_audit(i);
        char names[CAP_NAMES_SIZE];
        cap_format(entry.cap_checked, names);
        kprintf("  T+%-6u pid=%-3d %-7s %-8s \"%s\"\n", entry.tick, entry.pid,
                entry.granted ? "GRANTED" : "DENIED", names, entry.operation);
    }
}

void test(const char* name) {
    uint32_t caps = 0;
    if (parse_capability(name, &caps))
        kprintf("%s: %s\n", name, cap_require(caps, "cap test") ? "GRANTED" : "DENIED");
}

void print_tempcap_usage() {
    kprintf(
        "Usage: tempcap <list [pid]|grant <pid> <cap> <duration_ticks>|revoke <pid> <token_id>|"
        "status>\n");
}

/// Whoever could hand out temporal grants without admin could hand out admin.
bool tempcap_allowed(const char* operation, const char* word) {
    if (cap_require(CAP_ADMIN, operation))
        return true;
    kprintf("tempcap: %s failed (need admin)\n", word);
    return false;
}

void list_temporal(int argc, char** argv) {
    int pid = -1;
    if (argc > 3)
        print_tempcap_usage();
    else if (argc < 3 || parse_pid("tempcap", argv[2], &pid))
        tempcap_list(pid);
}

void grant_temporal(char** argv) {
    const uint32_t caps = cap_from_name(argv[3]);
    int pid = 0;
    uint32_t duration = 0;
    if (!parse_pid("tempcap", argv[2], &pid))
        return;
    if (caps == 0) {
        kprintf("tempcap: unknown capability '%s'\n", argv[3]);
        return;
    }
    if (safe_parse_uint(argv[4], &duration) != 0 || duration == 0) {
        kprintf("tempcap: duration must be > 0\n");
        return;
    }
    if (!tempcap_allowed("tempcap grant", "grant"))
        return;
    const int token = tempcap_grant(pid, caps, duration);
    if (token < 0)
        kprintf("tempcap: grant failed\n");
    else
        kprintf("granted token %d to pid %d for %u ticks\n", token, pid, duration);
}

void revoke_temporal(char** argv) {
    int pid = 0;
    uint32_t token = 0;
    if (!parse_pid("tempcap", argv[2], &pid))
        return;
    if (safe_parse_uint(argv[3], &token) != 0) {
        kprintf("tempcap: bad token '%s'\n", argv[3]);
        return;
    }
    if (!tempcap_allowed("tempcap revoke", "revoke"))
        return;
    if (tempcap_revoke(pid, token) == 0)
        kprintf("revoked token %u from pid %d\n", token, pid);
    else
        kprintf("tempcap: token not found\n");
}

void show_status() {
    tempcap_status_t status;
    tempcap_status(&status);
    kprintf("Temporal capabilities status:\n");
    kprintf("  slots:   %d / %d in use\n", status.in_use, TEMPCAP_SLOTS);
    kprintf("  granted: %u\n", status.granted);
    kprintf("  expired: %u\n", status.expired);
    kprintf("  revoked: %u\n", status.revoked);
    kprintf("  tick:    %u\n", system_ticks);
}

}  // namespace

void cmd_cap(int argc, char** argv) {
    if (argc == 1)
        show_own();
    else if (argc == 2 && is_word(argv[1], "list"))
        list_masks();
    else if (argc == 2 && is_word(argv[1], "audit"))
        show_audit();
    else if (argc == 3 && is_word(argv[1], "show"))
        show(argv[2]);
    else if (argc == 3 && is_word(argv[1], "test"))
        test(argv[2]);
    else if (argc == 4 && (is_word(argv[1], "grant") || is_word(argv[1], "revoke")))
        change(is_word(argv[1], "grant"), argv[2], argv[3]);
    else
        print_usage();
}

void cmd_tempcap(int argc, char** argv) {
    const char* word = argc > 1 ? argv[1] : "";
    if (argc == 1)
        print_tempcap_usage();
    else if (is_word(word, "list"))
        list_temporal(argc, argv);
    else if (is_word(word, "grant"))
        argc == 5 ? grant_temporal(argv) : print_tempcap_usage();
    else if (is_word(word, "revoke"))
        argc == 4 ? revoke_temporal(argv) : print_tempcap_usage();
    else if (is_word(word, "status"))
        show_status();
    else
        kprintf("Unknown subcommand '%s'. Try: list, grant, revoke, status\n", word);
}
