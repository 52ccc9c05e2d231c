#include "kernel/core/interrupt.h"

#include "arch/x86/cpu.h"
#include "arch/x86/hal.h"
#include "arch/x86/lapic.h"
#include "arch/x86/ports.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/record.h"
#include "kernel/core/string.h"

volatile uint32_t system_ticks;
uint32_t irq_counts[IRQ_LINES];
uint8_t lapic_to_cpu[256];

const char* const exc_names[EXCEPTION_COUNT] = {
    "Division By Zero",  // 0
    "Debug",
    "NMI",
    "Breakpoint",
    "Overflow",
    "Bound Range",
    "Invalid Opcode",
    "Device N/A",
    "Double Fault",  // 8
    "Coproc Seg",
    "Invalid TSS",
    "Seg Not Present",
    "Stack Fault",
    "General Protection",
    "Page Fault",
    "Reserved",
    "x87 FPU",  // 16
    "Alignment Check",
    "Machine Check",
    "SIMD FP",
    "Virtualization",
    "Control Protection",
    "Rsv",
    "Rsv",
    "Rsv",  // 24
    "Rsv",
    "Rsv",
    "Rsv",
    "Rsv",
    "VMM Communication",
    "Security",
    "Rsv",
};

namespace {

constexpr uint16_t PIC_MASTER = 0x20;
constexpr uint16_t PIC_SLAVE = 0xA0;
constexpr uint8_t PIC_EOI = 0x20;
constexpr uint32_t VECTOR_SLAVE_BASE = 40;

constexpr uint16_t PIT_CHANNEL_0 = 0x40;
constexpr uint16_t PIT_COMMAND = 0x43;
constexpr uint8_t PIT_SQUARE_WAVE = 0x36;  // channel 0, low byte then high byte, mode 3, binary
constexpr uint32_t PIT_CLOCK_HZ = 1193180;
constexpr uint32_t PIT_DIVISOR_MAX = 0xFFFF;

constexpr uint32_t PRIVILEGE_MASK = 3;

struct dispatch_t {
    irq_handler_fn irq_handlers[IRQ_LINES];
    fault_hook_fn fault_hook;
    syscall_hook_fn syscall_hook;
    interrupt_hook_fn tick_hook;
    interrupt_hook_fn reschedule_hook;
    interrupt_hook_fn user_fault_hook;
    bool lapic_eoi_needed;
    bool recording_fault;
};
dispatch_t dispatch;

uint32_t lapic_cpu_id() {
    const uint32_t cpu = lapic_to_cpu[lapic_read(LAPIC_ID) >> 24];
    return cpu < CPU_MAX ? cpu : 0;
}

/// A store so damaged that recording faults itself must not hide the first fault.
void record_fault(const registers_t* regs) {
    if (dispatch.recording_fault)
        return;
    dispatch.recording_fault = true;
    record_event(CAUSAL_SCHED, "fault", "exception %u (%s) pid=%d eip=0x%x", regs->int_no,
                 exc_names[regs->int_no], running().pid, regs->eip);
    dispatch.recording_fault = false;
}

void handle_user_fault(const registers_t* regs, uint32_t cr2) {
    kprintf("\n[FAULT] %s in task '%s' (pid %d) EIP=0x%x CR2=0x%x ESP=0x%x err=0x%x\n",
            exc_names[regs->int_no], running().name, running().pid, regs->eip, cr2, regs->user_esp,
            regs->err_code);
    if (dispatch.user_fault_hook != nullptr)
        dispatch.user_fault_hook();
    cpu_halt_forever();  // the task cannot go on, and nobody ended it
}

void handle_kernel_fault(registers_t* regs) {
    if (dispatch.fault_hook != nullptr) {
        dispatch.fault_hook(regs);
        return;
    }
    kprintf("\n[FAULT] Kernel exception: %s EIP=0x%x err=0x%x\n", exc_names[regs->int_no],
            regs->eip, regs->err_code);
    cpu_halt_forever();
}

void handle_ipi() {
    lapic_write(LAPIC_EOI, 0);
    if (cpu_id() != 0 && dispatch.reschedule_hook != nullptr)
        dispatch.reschedule_hook();
}

}  // namespace

void interrupt_init(void) {
    dispatch = {};
    system_ticks = 0;
    memset(irq_counts, 0, sizeof irq_counts);
    memset(lapic_to_cpu, 0, sizeof lapic_to_cpu);
    cpu_id_query = nullptr;
}

void pit_init(uint32_t frequency_hz) {
    uint32_t divisor = PIT_DIVISOR_MAX;
    if (frequency_hz > PIT_CLOCK_HZ / PIT_DIVISOR_MAX)
        divisor = PIT_CLOCK_HZ / frequency_hz;
    outb(PIT_COMMAND, PIT_SQUARE_WAVE);
    outb(PIT_CHANNEL_0, static_cast<uint8_t>(divisor));
    outb(PIT_CHANNEL_0, static_cast<uint8_t>(divisor >> 8));
    dispatch.irq_handlers[0] = timer_handler;
}

// The platform layer's name for it; it lies below and cannot call up.
void hal_timer_init(uint32_t hz) { pit_init(hz); }

int irq_install_handler(int irq, irq_handler_fn handler) {
    if (irq < 0 || irq >= IRQ_LINES) {
        kprintf("[irq] invalid handler slot %d\n", irq);
        record_event(CAUSAL_IO, "irq", "invalid irq handler slot=%d", irq);
        return -1;
    }
    dispatch.irq_handlers[irq] = handler;
    return 0;
}

void interrupt_set_fault_hook(fault_hook_fn hook) { dispatch.fault_hook = hook; }
void interrupt_set_tick_hook(interrupt_hook_fn hook) { dispatch.tick_hook = hook; }
void interrupt_set_reschedule_hook(interrupt_hook_fn hook) { dispatch.reschedule_hook = hook; }
void interrupt_set_user_fault_hook(interrupt_hook_fn hook) { dispatch.user_fault_hook = hook; }
void interrupt_set_syscall_hook(syscall_hook_fn hook) { dispatch.syscall_hook = hook; }
void interrupt_enable_lapic_eoi(void) { dispatch.lapic_eoi_needed = true; }
void interrupt_enable_cpu_id(void) { cpu_id_query = lapic_cpu_id; }

void isr_handler(registers_t* regs) {
    if (regs->int_no == VECTOR_SYSCALL) {
        if (dispatch.syscall_hook != nullptr)
            dispatch.syscall_hook(regs);
        return;
    }
    if (regs->int_no >= EXCEPTION_COUNT)
        return;
    const uint32_t cr2 = cpu_read_cr2();
    record_fault(regs);
    if ((regs->cs & PRIVILEGE_MASK) == PRIVILEGE_MASK) {
        handle_user_fault(regs, cr2);
        return;
    }
    handle_kernel_fault(regs);
}

void irq_handler(registers_t* regs) {
    if (regs->int_no == VECTOR_IPI) {
        handle_ipi();
        return;
    }
    const uint32_t line = regs->int_no - VECTOR_IRQ_BASE;
    const bool known = line < IRQ_LINES;
    if (known)
        ++irq_counts[line];
    // Acknowledged first: the handler may switch to another task and come back much later.
    if (regs->int_no >= VECTOR_SLAVE_BASE)
        outb(PIC_SLAVE, PIC_EOI);
    outb(PIC_MASTER, PIC_EOI);
    if (dispatch.lapic_eoi_needed)
        lapic_write(LAPIC_EOI, 0);
    if (!known || dispatch.irq_handlers[line] == nullptr)
        return;
    irq_context_scope context;
    dispatch.irq_handlers[line](regs);
}

void timer_handler(registers_t*) {
    if (cpu_id() != 0)
        return;
    system_ticks = system_ticks + 1;
    if (dispatch.tick_hook != nullptr)
        dispatch.tick_hook();
}
