// Single-stepping the kernel. With EFLAGS.TF set the processor raises the debug exception after
// each instruction; its handler runs without TF, so that a task switched to from inside goes on as
// it was, and each task keeps its own TF in its saved flags.
#include "arch/x86/cpu.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/string.h"
#include "kernel/core/task/sched.h"
#include "kernel/core/x86.h"
#include "tests/stress/stress.h"

namespace {

constexpr uint32_t EFLAGS_TF = 1u << 8;
constexpr uint32_t VECTOR_DEBUG = 1;
constexpr uint32_t PREEMPTIONS_A_TICK = 16;

pace_t pace;
uint32_t countdown;
uint32_t random_state;
uint32_t preemption_count;

uint32_t next_countdown() {
    return pace.random ? 1 + krng(&random_state) % (2 * pace.every) : pace.every;
}

/// What the timer interrupt would do here.
void preempt() {
    ++preemption_count;
    feed_key();
    const irq_context_scope context;
    if (preemption_count % PREEMPTIONS_A_TICK == 0) {
        system_ticks = system_ticks + 1;
        task_tick();
    }
    schedule_pass(true);
}

}  // namespace

asm(R"(
.globl stress_debug_stub
stress_debug_stub:
    pushl $0
    pushl $1
    pushal
    pushl %ds
    pushl %es
    pushl %fs
    pushl %gs
    cld
    pushl %esp
    call stress_debug_handler
    addl $20, %esp
    popal
    addl $8, %esp
    iret
)");

extern "C" const char stress_debug_stub[];
extern "C" void stress_debug_handler(registers_t* regs);

void stress_debug_handler(registers_t* regs) {
    if (!pace.step) {
        regs->eflags &= ~EFLAGS_TF;
        return;
    }
    if ((regs->eflags & EFLAGS_IF) == 0 || --countdown > 0)
        return;
    countdown = next_countdown();
    preempt();
}

void stepping_init(uint32_t seed) {
    random_state = seed;
    const auto stub = reinterpret_cast<uintptr_t>(stress_debug_stub);
    idt[VECTOR_DEBUG].offset_low = static_cast<uint16_t>(stub);
    idt[VECTOR_DEBUG].offset_high = static_cast<uint16_t>(stub >> 16);
}

void stepping_set(const pace_t& next) {
    const irq_guard masked;
    pace = next;
    countdown = next_countdown();
}

void step_me() {
    asm volatile("pushfl; orl %0, (%%esp); popfl" : : "i"(EFLAGS_TF) : "memory", "cc");
}

uint32_t preemptions() { return preemption_count; }
