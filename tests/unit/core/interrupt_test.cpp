#include "kernel/core/interrupt.h"

#include "arch/x86/cpu.h"
#include "arch/x86/lapic.h"
#include "arch/x86/ports.h"
#include "tests/machine/kernel.h"

namespace {

int calls;

void count_call() { ++calls; }
void count_frame(registers_t*) { ++calls; }
port_access_t written(uint16_t port, uint32_t value) { return {true, port, value, 1}; }

class Interrupt : public ::testing::Test {
protected:
    Interrupt() {
        boot_kernel();
        interrupt_init();
        machine().log_ports = true;
        fake_lapic = {};
        calls = 0;
        running() = {.pid = 7, .name = "shell"};
        regs.cs = 0x08;
        regs.eip = 0x101234;
        regs.err_code = 2;
    }
    ~Interrupt() override {
        interrupt_init();
        running() = {};
        record_set_hook(nullptr);
    }
    void interrupt(uint32_t vector) {
        regs.int_no = vector;
        irq_handler(&regs);
    }
    registers_t regs = {};
};

TEST_F(Interrupt, TimerIsProgrammedAndTicksOnProcessor0Only) {
    pit_init(100);
    EXPECT_EQ(machine().ports,
              (std::vector{written(0x43, 0x36), written(0x40, 0x9B), written(0x40, 0x2E)}));
    interrupt_set_tick_hook(count_call);
    for (int i = 0; i < 100; ++i)
        interrupt(32);
    cpu_id_query = [] { return 1u; };
    interrupt(32);
    EXPECT_EQ(system_ticks, 100u);
    EXPECT_EQ(calls, 100);
}

TEST_F(Interrupt, LinesAreAcknowledgedBeforeTheirHandlerRuns) {
    irq_install_handler(12, [](registers_t*) { outb(0x80, 1); });
    interrupt(44);
    interrupt(33);  // no handler: acknowledged all the same
    EXPECT_EQ(machine().ports, (std::vector{written(0xA0, 0x20), written(0x20, 0x20),
                                            written(0x80, 1), written(0x20, 0x20)}));
    EXPECT_TRUE(fake_lapic.writes.empty());
    interrupt_enable_lapic_eoi();
    interrupt(33);
    EXPECT_EQ(fake_lapic.writes, (decltype(fake_lapic.writes){{0xB0, 0}}));
    EXPECT_EQ(irq_counts[1], 2u);
    EXPECT_EQ(irq_counts[12], 1u);
}

TEST_F(Interrupt, OnlyTheSixteenLinesTakeHandlers) {
    EXPECT_EQ(irq_install_handler(15, count_frame), 0);
    EXPECT_EQ(irq_install_handler(16, count_frame), -1);
    EXPECT_EQ(machine_texts(), "[irq] invalid handler slot 16\n");
    EXPECT_EQ(newest(), "invalid irq handler slot=16");
}

TEST_F(Interrupt, HandlerHasACausalContextOfItsOwn) {
    uint32_t task_context = 41;
    running().causal_ctx = &task_context;
    irq_install_handler(1, [](registers_t*) { *running().causal_ctx += 99; });
    interrupt(33);
    EXPECT_EQ(running().causal_ctx, &task_context);
    EXPECT_EQ(task_context, 41u);
}

TEST_F(Interrupt, FurtherProcessorsAreKnownByTheirApicAndRescheduled) {
    interrupt_set_reschedule_hook(count_call);
    fake_lapic.registers[LAPIC_ID] = 5u << 24;
    lapic_to_cpu[5] = 15;
    interrupt(0xFE);
    EXPECT_EQ(calls, 0) << "one processor: it is number 0";
    interrupt_enable_cpu_id();
    interrupt(0xFE);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(fake_lapic.writes.size(), 2u);
    EXPECT_TRUE(machine().ports.empty()) << "the 8259 had no part in it";
    lapic_to_cpu[5] = 16;
    EXPECT_EQ(cpu_id(), 0u);
}

TEST_F(Interrupt, KernelFaultIsRecordedAndGivenToItsHook) {
    regs.int_no = 13;
    EXPECT_THROW(isr_handler(&regs), machine_halted);
    EXPECT_EQ(newest(), "exception 13 (General Protection) pid=7 eip=0x101234");
    interrupt_set_fault_hook(count_frame);
    record_set_hook([](uint8_t, const char*, const char*, va_list) {
        registers_t nested = {};
        isr_handler(&nested);  // the store is broken, too
        return 0u;
    });
    isr_handler(&regs);
    EXPECT_EQ(calls, 2);
}

TEST_F(Interrupt, UserFaultEndsTheTaskAndTheTrapReachesItsHook) {
    interrupt_set_fault_hook(count_frame);
    interrupt_set_user_fault_hook([] { throw 1; });
    interrupt_set_syscall_hook([](registers_t* r) { r->eax = 42; });
    machine().cr2 = 0xBAD0;
    regs.cs = 0x1B;
    regs.user_esp = 0x4FFF0000;
    EXPECT_THROW(isr_handler(&regs), int);
    EXPECT_EQ(newest(), "exception 0 (Division By Zero) pid=7 eip=0x101234");
    EXPECT_EQ(machine_texts(),
              "\n[FAULT] Division By Zero in task 'shell' (pid 7) EIP=0x101234 CR2=0xbad0 "
              "ESP=0x4fff0000 err=0x2\n");
    EXPECT_EQ(calls, 0) << "the kernel's fault hook is not for user tasks";
    regs.int_no = 0x80;
    isr_handler(&regs);
    EXPECT_EQ(regs.eax, 42u);
}

}  // namespace
