// Dispatch of exceptions, hardware interrupts and the system-call trap, and the timer tick.
//
// Every gate is an interrupt gate: handlers run with interrupts masked, on the stack of the task
// they interrupted. What belongs to the floors above (scheduling, system calls, ending a task, the
// fault inspector) is reached through the hooks below, which those floors install at their init.
// Each hook is one pointer; install them before the interrupts that use them are on.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/core/running.h"

constexpr int IRQ_LINES = 16;
constexpr uint32_t EXCEPTION_COUNT = 32;

constexpr uint32_t VECTOR_PAGE_FAULT = 14;
constexpr uint32_t VECTOR_IRQ_BASE = 32;  ///< line 0; the lines follow in order
constexpr uint32_t VECTOR_SYSCALL = 0x80;
constexpr uint32_t VECTOR_IPI = 0xFE;  ///< inter-processor interrupt: reschedule

/// The interrupted context as the entry stubs leave it on the stack, lowest address first. What a
/// handler changes is what the interrupted context gets back.
struct registers_t {
    uint32_t gs, fs, es, ds;
    uint32_t edi, esi, ebp;
    uint32_t _esp;  ///< saved by PUSHA, not restored
    uint32_t ebx, edx, ecx, eax;
    uint32_t int_no;
    uint32_t err_code;  ///< 0 where the processor gives none
    uint32_t eip, cs, eflags;
    uint32_t user_esp, user_ss;  ///< only there when the interrupt came from ring 3
};
static_assert(offsetof(registers_t, ds) == 12);
static_assert(offsetof(registers_t, ebp) == 24);
static_assert(offsetof(registers_t, eax) == 44);
static_assert(offsetof(registers_t, int_no) == 48);
static_assert(offsetof(registers_t, eip) == 56);
static_assert(offsetof(registers_t, user_esp) == 68);
static_assert(sizeof(registers_t) == 76);

using irq_handler_fn = void (*)(registers_t*);
using fault_hook_fn = void (*)(registers_t*);
using syscall_hook_fn = void (*)(registers_t*);
using interrupt_hook_fn = void (*)();

/// Ticks since the timer started, 100 a second; wraps. Counted on processor 0.
extern volatile uint32_t system_ticks;

/// Interrupts taken per hardware line; they wrap.
extern uint32_t irq_counts[IRQ_LINES];

/// Names of the exceptions 0..31.
extern const char* const exc_names[EXCEPTION_COUNT];

/// Local APIC id to processor index; the multiprocessor start-up fills it.
extern uint8_t lapic_to_cpu[256];

/// Forgets all handlers, hooks and counts, and says that one processor runs. idt_init calls it.
void interrupt_init(void);

// --- Set-up: start-up or task context ---

/// Programs the timer (8254 channel 0, mode 3) to `frequency_hz`, 19 or more, and makes it the
/// tick.
void pit_init(uint32_t frequency_hz);

/// Sets the handler of hardware line `irq`, 0..15 (null: none). It is called with interrupts masked
/// and the line acknowledged, in a causal context of its own. Returns 0; -1 for another line, after
/// printing "[irq] invalid handler slot %d". Records CAUSAL_IO "irq" in that case.
int irq_install_handler(int irq, irq_handler_fn handler);

/// Installs what takes kernel-mode exceptions; the interrupted context goes on when it returns.
/// Without one, a kernel-mode exception prints its name and halts.
void interrupt_set_fault_hook(fault_hook_fn hook);

/// Installs what is called on each tick of processor 0, after system_ticks has grown: the
/// scheduler's wake-ups and its quantum. It may switch tasks.
void interrupt_set_tick_hook(interrupt_hook_fn hook);

/// Installs what the inter-processor interrupt calls on the further processors. It may switch
/// tasks.
void interrupt_set_reschedule_hook(interrupt_hook_fn hook);

/// Installs what ends the running user task with status -1 after an exception; it must not return.
void interrupt_set_user_fault_hook(interrupt_hook_fn hook);

/// Installs what serves the system-call trap; results go into the frame. Without one the trap
/// returns at once.
void interrupt_set_syscall_hook(syscall_hook_fn hook);

/// From now on interrupts are acknowledged to the local APIC, too.
void interrupt_enable_lapic_eoi(void);

/// More than one processor runs from now on: cpu_id() asks the local APIC, with lapic_to_cpu
/// filled.
void interrupt_enable_cpu_id(void);

/// Index of the running processor, 0..15; 0 while one processor runs and for a local APIC that
/// lapic_to_cpu maps beyond 15. Any context.
inline uint32_t cpu_id(void) { return cpu_id_query == nullptr ? 0 : cpu_id_query(); }

// --- Dispatch: called by the entry stubs, interrupts masked ---

/// Exceptions and the system-call trap. An exception records CAUSAL_SCHED "fault"; one in ring 3
/// prints its "[FAULT]" line and ends the task, one in ring 0 goes to the fault hook. A ring 0
/// exception while the event of another is being recorded goes to the hook unrecorded.
extern "C" void isr_handler(registers_t* regs);

/// Hardware lines and the inter-processor interrupt: counts, acknowledges, then calls the line's
/// handler.
extern "C" void irq_handler(registers_t* regs);

/// The tick: the handler of line 0.
void timer_handler(registers_t* regs);
