// Capabilities: what the task with a process id may do, as a mask of nine bits. Checks that guard
// an operation are audited in a ring of the last 128; refusals, grants and revocations are events.
//
// Masks belong to pids 0..63; a later pid has none and is refused everything. Operations that may
// harm others are guarded where a command or a program asks for them: killing or renicing another
// owner's task, power-off, raw disk reads, processor exceptions on purpose, grants. The kernel's
// own code asks nobody.
//
// Guarded by irq_guard; any context unless it says otherwise. Events are CAUSAL_USER "cap".
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/core/task.h"

constexpr uint32_t CAP_NET = 0x001;
constexpr uint32_t CAP_DISK = 0x002;
constexpr uint32_t CAP_ACTOR = 0x004;
constexpr uint32_t CAP_MEMORY = 0x008;
constexpr uint32_t CAP_ADMIN = 0x010;
constexpr uint32_t CAP_CONSOLE = 0x020;
constexpr uint32_t CAP_FS = 0x040;
constexpr uint32_t CAP_MESH = 0x080;
constexpr uint32_t CAP_SYSCALL = 0x100;
constexpr uint32_t CAP_ALL = 0x1FF;

constexpr int CAP_TYPES = 9;
constexpr pid_t CAP_PIDS = 64;
constexpr int CAP_AUDIT_SLOTS = 128;
constexpr size_t CAP_OPERATION_SIZE = 48;  ///< with the terminator
constexpr size_t CAP_NAMES_SIZE = 64;      ///< of any mask's names, with the terminator

struct cap_name_t {
    uint32_t bit;
    const char* name;
};

/// In the order in which names are shown; a null name ends them.
extern const cap_name_t cap_names[];

/// One audited check.
struct cap_audit_entry_t {
    uint32_t tick;
    int pid;
    uint32_t cap_checked;
    bool granted;
    char operation[CAP_OPERATION_SIZE];
};

/// Clears masks and audit ring, gives pids 0 and 1 everything and has each new task get its mask
/// from now on. Records "security initialized — 9 capability types". Start-up.
void cap_init(void);

/// The mask of a new task: everything below pid 5, else console and fs; nothing for pids outside
/// 0..63. Records "task_init pid=%d parent=%d caps=%s".
void cap_task_init(int pid, int parent_pid);

/// Whether the running task's mask holds all of `cap`; true without a running task.
[[nodiscard]] bool cap_check(uint32_t cap);

/// The audited check, of pid 0 without a running task. A refusal records "DENIED pid=%d needs=%s
/// op=%s" ("?" without an operation), except for pids above 63; a granted operation that begins
/// with "whatif " records "ALLOW pid=%d has=%s op=%s".
[[nodiscard]] bool cap_require(uint32_t cap, const char* operation);

/// cap_require of a task that holds `extra` beside its mask.
[[nodiscard]] bool cap_require_with(uint32_t cap, uint32_t extra, const char* operation);

/// Adds bits to a pid's mask: 0; -1 without admin or for a pid outside 0..63. Records "grant pid=%d
/// +%s (token=%u)".
[[nodiscard]] int cap_grant(int pid, uint32_t caps);

/// Takes bits away, as cap_grant adds them. Records "revoke pid=%d -%s".
[[nodiscard]] int cap_revoke(int pid, uint32_t caps);

/// The mask, without what a cap_limit_scope withholds; 0 outside 0..63.
uint32_t cap_get(int pid);

/// Whether the running task may kill or renice `pid`: its own, a descendant, a task of its I/O
/// session, or any with admin, which is then an audited check of `operation`.
[[nodiscard]] bool cap_may_control(pid_t pid, const char* operation);

int cap_audit_count(void);

/// Entry 0 is the oldest kept; null outside 0..count-1. The slot is reused after 128 more checks.
const cap_audit_entry_t* cap_audit_get(int index);

/// Writes the names of the mask's bits, separated by spaces, or "(none)".
void cap_format(uint32_t caps, char (&out)[CAP_NAMES_SIZE]);

/// Prints what cap_format writes.
void cap_print(uint32_t caps);

/// The bit of a name, CAP_ALL for "all", 0 for an unknown one.
uint32_t cap_from_name(const char* name);

/// For its scope the running task has of its mask only `caps`: for a task that acts for somebody
/// who may do less. Scopes nest. Task context.
class cap_limit_scope {
public:
    explicit cap_limit_scope(uint32_t caps);
    ~cap_limit_scope();
    cap_limit_scope(const cap_limit_scope&) = delete;
    cap_limit_scope& operator=(const cap_limit_scope&) = delete;

private:
    pid_t pid_;
    uint32_t former_ = 0;
};
