// Tasks and the preemptive, causal-aware scheduler.
//
// A fixed pool of 64 tasks; slot 0 is the start-up context ("boot", pid 0). Eight run queues, first
// come first served within a priority. The timer takes the processor away when the quantum is used
// up; every 10 ticks the oldest waiting task of priority 6..0 gets a turn (starvation boost), and a
// waiting task with markedly more recent events than the chosen one overtakes it.
//
//             create                picked
//   (free) ------------> READY <------------> RUNNING ----> ZOMBIE ---+ parent waits or exits
//      ^                 ^   |  quantum, yield   |   exit             |
//      |         unblock |   | block             | block, sleep       v
//      +--- reap --- DEAD|   +---> BLOCKED <-----+                   DEAD
//
// Invariants: a task is in a queue exactly when it is READY; READY and RUNNING tasks have a stack;
// only a task's own processor (cpu_affinity) resumes it. The queues, their counters and the states
// are guarded by sched_lock with interrupts masked; the lock itself is taken only once further
// processors run. A function below may be called from tasks and interrupt handlers unless it says
// otherwise; none waits unless it says so.
//
// A switch is recorded ("switch %s->%s") when the task that leaves was preempted, or had recorded
// an event since it got the processor. All events are CAUSAL_SCHED "sched".
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/core/memory.h"
#include "kernel/core/running.h"

using pid_t = int32_t;

constexpr int TASK_MAX = 64;
constexpr int TASK_PRIORITIES = 8;
constexpr uint32_t TASK_NAME_SIZE = 32;  ///< with the terminator
constexpr uint32_t TASK_STACK_BYTES = 32768;
constexpr uint32_t TASK_STACK_CANARY = 0xDEADCAFE;
constexpr int TASK_SIGNALS = 32;
constexpr int TASK_TERM_SIZE_MAX = 1000;
constexpr uint32_t TASK_USER_STACK_BASE = 0x4FFF0000;
constexpr uint32_t TASK_USER_STACK_END = 0x50000000;

enum task_state_t : uint32_t {
    TASK_RUNNING = 0,
    TASK_READY = 1,
    TASK_BLOCKED = 2,
    TASK_DEAD = 3,
    TASK_ZOMBIE = 4,
    TASK_STOPPED = 5,
};

/// By state.
inline constexpr const char* task_state_names[] = {"running", "ready",  "blocked",
                                                   "dead",    "zombie", "stopped"};

using task_entry_fn = void (*)();
using sig_handler_t = void (*)(int sig);

/// Terminal output and input of an I/O session: a count, negative on failure.
using io_write_fn = int (*)(const uint8_t* buf, uint32_t len, void* ctx);
using io_read_fn = int (*)(uint8_t* buf, uint32_t len, void* ctx);

/// A user page that a task owns.
struct user_page_mapping_t {
    virt_addr_t virt;
    phys_addr_t phys;
};

struct mutex_t;

struct task_t {
    pid_t pid;  ///< 0: the boot task, or a free slot (then DEAD)
    char name[TASK_NAME_SIZE];
    task_state_t state;
    int priority;               ///< 0 (highest) .. 7
    uint8_t quantum_remaining;  ///< ticks
    uint8_t cpu_affinity;       ///< the processor it runs on
    uint8_t last_cpu;
    uintptr_t esp;           ///< saved stack pointer while switched out
    uintptr_t stack_bottom;  ///< heap block of TASK_STACK_BYTES; its first word is the canary
    uint32_t* page_dir;
    task_entry_fn entry;
    task_t* next;         ///< link in a ready queue
    uint32_t causal_ctx;  ///< its current event: the parent of what it does next
    bool is_user;
    uintptr_t user_stack;      ///< base of the user stack; kernel task: block freed at reaping
    uintptr_t user_entry_esp;  ///< 0: user_stack + 0x10000
    uint32_t heap_base;        ///< user: break area; kernel task: block freed at reaping
    uint32_t heap_brk, heap_limit;
    bool trace_syscalls;
    bool detached;        ///< exits without becoming a zombie
    bool ap_offloadable;  ///< may be moved to another processor
    int errno_val;
    pid_t parent_pid;  ///< 0: none
    int exit_status;
    uint32_t sig_pending, sig_mask;  ///< bit n = signal n
    sig_handler_t sig_handlers[TASK_SIGNALS];
    uint32_t sig_delivering;
    pid_t pgid;
    io_write_fn io_write;  ///< null: the console
    io_read_fn io_read;
    void* io_ctx;
    uint16_t term_rows, term_cols;  ///< 0: unknown
    uint32_t sleep_until;           ///< tick; 0: not sleeping
    uint32_t sleep_event;           ///< its "sleep" event, 0: none
    pid_t waiting_for_pid;          ///< -1: any child, 0: none
    bool waiting_for_input;
    const char* elf_name;
    user_page_mapping_t* user_pages;  ///< heap block
    uint32_t user_page_count, user_page_cap;

    // The scheduler's own.
    bool idler;          ///< it waits in task_idle_wait when nothing else is ready
    bool idle_waiting;   ///< it is there now
    bool quantum_spent;  ///< it used its quantum up and went on, because nothing was ready
    bool end_pending;    ///< ends as soon as it holds no mutex
    uint32_t mutexes_held;
    mutex_t* waits_for_mutex;
    task_t* next_waiter;  ///< link in that mutex's queue
};

/// What the floors above do when a task ends. Called with interrupts masked; must not wait.
struct task_lifecycle_hooks_t {
    void (*exiting)(const task_t* t);  ///< before "exit" is recorded
    void (*reaped)(pid_t pid);         ///< its slot is free
};

/// Who decides what a task may do. Called with interrupts masked; must not wait.
struct task_capability_hooks_t {
    void (*created)(pid_t pid, pid_t parent);  ///< after the creation was recorded
    bool (*may_renice)(pid_t pid);             ///< whether the running task may
};

// --- Start ---------------------------------------------------------------------------------------

/// Resets everything; the caller becomes the boot task of this processor. Installs the tick, the
/// reschedule and the user-fault hooks of interrupt.h. Start-up only.
void task_init(void);

/// Lets the scheduler switch tasks from now on.
void sched_start(void);

/// From now on the scheduler takes sched_lock. Start-up, before a further processor runs tasks.
void sched_enable_smp_locking(void);

/// Makes the caller the idle record of processor `cpu`, 1..15; for others nothing happens. Called
/// on that processor as it starts.
void ap_sched_init(uint32_t cpu);

/// Installs the hooks (null: none).
void task_set_lifecycle_hooks(const task_lifecycle_hooks_t* hooks);

/// Installs the hooks (null: everything is allowed).
void task_set_capability_hooks(const task_capability_hooks_t* hooks);

// --- Creation: task context ----------------------------------------------------------------------

/// task_create_pinned on processor 0.
task_t* task_create(const char* name, task_entry_fn entry, int priority);

/// A new ready kernel task that runs `entry` on processor `cpu`, 0..15, and exits when that
/// returns. It inherits the caller's I/O session. Null when `entry` is null, `priority` is not
/// 0..7, `cpu` is not 0..15, the pool is full or there is no memory for its stack.
/// Records "pid=%d name=%s pri=%d", which becomes its first current event.
task_t* task_create_pinned(const char* name, task_entry_fn entry, int priority, uint32_t cpu);

/// A new ring 3 task, child of the caller, with an address space and a 64 KiB user stack of its
/// own; blocked until task_make_ready. Null as for task_create, or without memory for the pages.
/// Records "pid=%d name=%s pri=%d ring=3", which becomes its first current event.
[[nodiscard]] task_t* task_create_user(const char* name, task_entry_fn entry, int priority);

/// Maps one zeroed frame at `virt` (rounded down to a page) in the task's directory with `flags`
/// plus user, and records it as the task's. Returns the frame; 0 when memory is out.
[[nodiscard]] phys_addr_t task_alloc_user_page(task_t* t, virt_addr_t virt, uint32_t flags);

/// Copies `len` bytes to `dst` in the task's own pages; false if one of them is not the task's (the
/// pages before it are then written).
[[nodiscard]] bool task_write_user(task_t* t, virt_addr_t dst, const void* src, size_t len);

// --- Scheduling ----------------------------------------------------------------------------------

/// One scheduling pass: gives the processor to the next task, if there is one to give it to. Before
/// sched_start nothing happens. May be called with interrupts masked; they are masked again when
/// the caller goes on. Records "switch %s->%s", "offload pid=%d to=cpu%u", "stack_overflow pid=%d
/// name=%s" as they happen.
void schedule(void);

/// The caller goes to the tail of its queue. Task context.
void task_yield(void);

/// What an idle task does between its yields: halts the processor until the next interrupt, unless
/// a task that does not idle is ready. A switch out of it is not a preemption. Task context.
void task_idle_wait(void);

/// The tick of processor 0: wakes sleepers and takes the processor away when the quantum is used up
/// or the stack is overrun. Interrupt context.
void task_tick(void);

/// Ready tasks leave their queue, running ones lose the processor: a caller that blocks itself
/// switches away and returns when it was unblocked. To wait without losing a wake-up, test the
/// condition and block in one irq_guard. Tasks in other states are left alone, as is the caller
/// before sched_start.
void task_block(task_t* t);

/// A blocked task becomes ready; others, and null, are left alone. A sleep ends with it. Records
/// "unblock pid=%d reason=%s" ("unknown" without a reason), which follows the task's and the
/// caller's current events and becomes the task's.
void task_unblock_reason(task_t* t, const char* reason);

/// task_unblock_reason without a reason.
void task_unblock(task_t* t);

/// A blocked, stopped or zombie task, or a dead one that was not reaped, becomes ready.
void task_make_ready(task_t* t);

/// Sleeps for `ticks` ticks of 10 ms; 0 is a yield. Before sched_start it halts until the tick is
/// reached, or returns at once when interrupts are masked. Task context. From 2 ticks on it records
/// "sleep pid=%d ticks=%u until=%u", and "wake pid=%d from sleep" at the end, which follows it.
void task_sleep(uint32_t ticks);

/// task_sleep that records nothing: for tasks that look around at intervals, so that a quiet system
/// stays quiet.
void task_sleep_unrecorded(uint32_t ticks);

/// Wakes the tasks whose sleep is over. Part of task_tick.
void task_wake_sleepers(void);

/// Sets the priority, 0..7, of a task that is not dead and that the caller may renice, else -1. A
/// ready one goes to the tail of its new queue. Records "renice pid=%d priority=%d".
int task_set_priority(pid_t pid, int priority);

/// Whether processor 0 may hand the task to an idle further processor.
void task_set_ap_offloadable(task_t* t, bool offloadable);

// --- End -----------------------------------------------------------------------------------------

/// Ends the running task: a zombie if its parent lives and it is not detached, else dead. Its
/// children go to pid 1. Task context; not the boot task. Records "exit pid=%d status=%d name=%s"
/// and "reparent child=%d to=%d".
extern "C" [[noreturn]] void task_exit(void);

/// Frees the slots and all memory of the dead tasks that no processor runs. The scheduler does it
/// every 100 ticks. Records "reap pid=%d" for each.
void task_reap(void);

/// Sets the status that the running task leaves.
void task_set_exit_status(int status);

// --- I/O sessions --------------------------------------------------------------------------------

/// Sets the task's session (null functions: console and keyboard).
void task_set_io(task_t* t, io_write_fn write, io_read_fn read, void* ctx);

/// Sets the task's terminal size; both must be positive (else nothing happens) and are at most
/// 1000.
void task_set_term_size(task_t* t, int rows, int cols);

/// The task's terminal size, else that of the first live task of its session that has one; false
/// and nothing stored when there is none.
[[nodiscard]] bool task_get_term_size(task_t* t, int* rows, int* cols);

/// Takes the session from all tasks that have `ctx` (not null), ends them except the caller, and
/// yields. One that holds a mutex ends when it has released it. Task context.
void task_end_io_session(void* ctx);

/// Whether the task is blocked and neither time nor input ends that, but another task or a device.
bool task_waits_for_other(const task_t* t);

// --- Who is there --------------------------------------------------------------------------------

/// The running task of this processor; null before task_init.
task_t* task_current(void);

/// Its pid, 0 without one.
pid_t task_getpid(void);

/// Its parent's pid, 0 without one.
pid_t task_getppid(void);

/// The first slot with `pid` (0: the boot task); null when there is none.
task_t* task_find_by_pid(pid_t pid);

/// All slots; the first task_pool_count() have been in use. A free one has pid 0 and is DEAD.
task_t* task_get_list(void);
int task_pool_count(void);

/// What processor `cpu` runs: "none", -1, 0 and true beyond 15 or when it runs nothing. Processor 0
/// is never idle; another one is while it runs its idle record.
const char* task_cpu_current_name(uint32_t cpu);
pid_t task_cpu_current_pid(uint32_t cpu);
uint32_t task_cpu_switches(uint32_t cpu);
bool task_cpu_is_idle(uint32_t cpu);
