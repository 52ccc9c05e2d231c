#include "kernel/core/interrupt.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "arch/x86/cpu.h"
#include "arch/x86/lapic.h"
#include "arch/x86/ports.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/record.h"
#include "tests/machine/machine.h"

namespace {

std::string printed;
std::vector<std::string> events;
int calls;
uint32_t this_cpu;
uint32_t task_context;
uint32_t other_context;

uint32_t keep_event(uint8_t type, const char* subsystem, const char* fmt, va_list args) {
    char text[96];
    vsnprintf(text, sizeof text, fmt, args);
    events.push_back(std::to_string(type) + "/" + subsystem + "/" + text);
    return static_cast<uint32_t>(events.size());
}

void count_call() { ++calls; }
void count_frame(registers_t*) { ++calls; }

registers_t frame(uint32_t vector, uint32_t cs = 0x08) {
    registers_t regs = {};
    regs.int_no = vector;
    regs.cs = cs;
    regs.eip = 0x101234;
    regs.err_code = 2;
    regs.user_esp = 0x4FFF0000;
    return regs;
}

void interrupt(uint32_t vector) {
    registers_t regs = frame(vector);
    irq_handler(&regs);
}

class Interrupt : public ::testing::Test {
protected:
    void SetUp() override {
        machine_reset();
        interrupt_init();
        fake_lapic = {};
        printed.clear();
        events.clear();
        calls = 0;
        this_cpu = 0;
        running() = {.pid = 7, .name = "shell"};
        kprintf_set_console([](const char* text) { printed += text; });
        record_set_hook(keep_event);
    }
    void TearDown() override {
        interrupt_init();
        running() = {};
        kprintf_set_console(nullptr);
        record_set_hook(nullptr);
    }
};

TEST_F(Interrupt, TimerIsProgrammedAndCountsTicksOnProcessor0Only) {
    pit_init(100);
    const std::vector<port_access_t> writes = {
        {true, 0x43, 0x36, 1}, {true, 0x40, 0x9B, 1}, {true, 0x40, 0x2E, 1}};
    EXPECT_EQ(machine().ports, writes);
    interrupt_set_tick_hook(count_call);
    for (int i = 0; i < 100; ++i)
        interrupt(32);
    EXPECT_EQ(system_ticks, 100u);
    EXPECT_EQ(calls, 100);
    EXPECT_EQ(irq_counts[0], 100u);
    cpu_id_query = [] { return 1u; };
    interrupt(32);
    EXPECT_EQ(system_ticks, 100u);
    EXPECT_EQ(calls, 100);
}

TEST_F(Interrupt, TimerFrequencyBelowItsRangeGivesTheLongestPeriod) {
    for (uint32_t hz : {0u, 18u}) {
        machine_reset();
        pit_init(hz);
        EXPECT_EQ(machine().ports[1].value, 0xFFu);
        EXPECT_EQ(machine().ports[2].value, 0xFFu);
    }
}

TEST_F(Interrupt, LinesAreAcknowledgedBeforeTheirHandlerRuns) {
    irq_install_handler(12, [](registers_t*) { outb(0x80, 1); });
    interrupt(44);
    interrupt(33);  // no handler: acknowledged all the same
    const std::vector<port_access_t> expected = {
        {true, 0xA0, 0x20, 1}, {true, 0x20, 0x20, 1}, {true, 0x80, 1, 1}, {true, 0x20, 0x20, 1}};
    EXPECT_EQ(machine().ports, expected);
    EXPECT_TRUE(fake_lapic.writes.empty());
    interrupt_enable_lapic_eoi();
    interrupt(33);
    EXPECT_EQ(fake_lapic.writes, (decltype(fake_lapic.writes){{0xB0, 0}}));
    EXPECT_EQ(irq_counts[1], 2u);
    EXPECT_EQ(irq_counts[12], 1u);
}

TEST_F(Interrupt, OnlyTheSixteenLinesTakeHandlers) {
    EXPECT_EQ(irq_install_handler(0, count_frame), 0);
    EXPECT_EQ(irq_install_handler(15, count_frame), 0);
    EXPECT_EQ(irq_install_handler(16, count_frame), -1);
    EXPECT_EQ(irq_install_handler(-1, count_frame), -1);
    EXPECT_EQ(printed, "[irq] invalid handler slot 16\n[irq] invalid handler slot -1\n");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0], "8/irq/invalid irq handler slot=16");
    interrupt(48);  // beyond the lines: nobody is called
    EXPECT_EQ(calls, 0);
}

TEST_F(Interrupt, HandlerHasACausalContextOfItsOwn) {
    task_context = 41;
    running().causal_ctx = &task_context;
    irq_install_handler(1, [](registers_t*) {
        EXPECT_EQ(*running().causal_ctx, 0u);
        *running().causal_ctx = 99;
        running().recorded = true;
    });
    interrupt(33);
    EXPECT_EQ(running().causal_ctx, &task_context);
    EXPECT_EQ(task_context, 41u);
    EXPECT_FALSE(running().recorded);
    irq_install_handler(1, [](registers_t*) { running().causal_ctx = &other_context; });
    interrupt(33);
    EXPECT_EQ(running().causal_ctx, &other_context) << "the handler switched tasks";
}

TEST_F(Interrupt, InterprocessorInterruptReschedulesFurtherProcessors) {
    interrupt_set_reschedule_hook(count_call);
    interrupt(0xFE);
    EXPECT_EQ(calls, 0);
    cpu_id_query = [] { return 3u; };
    interrupt(0xFE);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(fake_lapic.writes.size(), 2u);
    EXPECT_TRUE(machine().ports.empty()) << "the 8259 had no part in it";
}

TEST_F(Interrupt, ProcessorIndexComesFromTheLocalApic) {
    fake_lapic.registers[LAPIC_ID] = 5u << 24;
    lapic_to_cpu[5] = 15;
    EXPECT_EQ(cpu_id(), 0u);
    interrupt_enable_cpu_id();
    EXPECT_EQ(cpu_id(), 15u);
    lapic_to_cpu[5] = 16;
    EXPECT_EQ(cpu_id(), 0u);
}

TEST_F(Interrupt, KernelFaultIsRecordedAndGivenToItsHook) {
    registers_t regs = frame(13);
    interrupt_set_fault_hook([](registers_t* r) { r->eip += 2; });
    isr_handler(&regs);
    EXPECT_EQ(regs.eip, 0x101236u);
    EXPECT_EQ(
        events,
        (std::vector<std::string>{"0/fault/exception 13 (General Protection) pid=7 eip=0x101234"}));
    interrupt_set_fault_hook(nullptr);
    EXPECT_THROW(isr_handler(&regs), machine_halted);
    EXPECT_NE(printed.find("General Protection"), std::string::npos);
}

TEST_F(Interrupt, FaultWhileRecordingAFaultStillReachesTheHook) {
    record_set_hook([](uint8_t, const char*, const char*, va_list) {
        registers_t nested = frame(14);
        isr_handler(&nested);
        return 0u;
    });
    interrupt_set_fault_hook(count_frame);
    registers_t regs = frame(0);
    isr_handler(&regs);
    EXPECT_EQ(calls, 2);
}

TEST_F(Interrupt, UserFaultPrintsItsLineAndEndsTheTask) {
    interrupt_set_fault_hook(count_frame);
    interrupt_set_user_fault_hook([] { throw 1; });
    machine().cr2 = 0xBAD0;
    registers_t regs = frame(0, 0x1B);
    EXPECT_THROW(isr_handler(&regs), int);
    EXPECT_EQ(printed,
              "\n[FAULT] Division By Zero in task 'shell' (pid 7) EIP=0x101234 CR2=0xbad0 "
              "ESP=0x4fff0000 err=0x2\n");
    EXPECT_EQ(calls, 0) << "the kernel's fault hook is not for user tasks";
    EXPECT_EQ(events.size(), 1u);
}

TEST_F(Interrupt, SystemCallTrapReturnsThroughTheFrame) {
    registers_t regs = frame(0x80, 0x1B);
    isr_handler(&regs);
    interrupt_set_syscall_hook([](registers_t* r) { r->eax = 42; });
    isr_handler(&regs);
    EXPECT_EQ(regs.eax, 42u);
    regs = frame(0x55);
    isr_handler(&regs);
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(printed, "");
}

}  // namespace
