#include "kernel/apps/surgeon.h"

#include <cstring>

#include "arch/x86/cpu.h"
#include "arch/x86/tables.h"
#include "kernel/core/kprintf.h"
#include "tests/machine/input.h"
#include "tests/machine/kernel.h"

namespace {

constexpr uint32_t RAM = 0x07000000;  // free frames: ours to lay a stack in

std::string shown;

uint32_t& word(uint32_t address) { return *reinterpret_cast<uint32_t*>(address); }

void fill(registers_t* regs, uint32_t eip, uint32_t ebp) {
    *regs = {};
    regs->int_no = VECTOR_PAGE_FAULT;
    regs->err_code = 2;
    regs->eip = eip;
    regs->ebp = ebp;
}

/// Input arrives at the first pause, once the report is out.
class late_input : public input_ports {
public:
    bool arrived = false;

    uint32_t read(uint16_t port, unsigned bytes) override {
        if (!arrived && (port == 0x64 || port == 0x3FD))
            return port == 0x64 ? 0 : 0x20;
        return input_ports::read(port, bytes);
    }
};

class Surgeon : public ::testing::Test {
protected:
    void SetUp() override {
        boot_kernel();
        kprintf_set_console([](const char* text) { shown += text; });
        machine().cr0 = 1u << 31;
        machine().on_pause = [this] {
            if (ports.arrived && ports.serial.empty() && ports.keys.empty())
                throw machine_halted();
            ports.arrived = true;
        };
        ports.attach();
        map(task_current());
        fill(regs, 0x101234, 0);
    }
    void TearDown() override {
        surgeon_init();
        kprintf_set_console(nullptr);
    }

    /// The kernel's own data is not at its identity-mapped place here; its pages count as mapped.
    static void map(const void* object) {
        const uint32_t page = reinterpret_cast<uintptr_t>(object) & ~(PAGE_SIZE - 1);
        for (uint32_t i = 0; i < 2; ++i)
            vmm_map_page(vmm_get_kernel_dir(), page + i * PAGE_SIZE, RAM, 0);
    }
    /// What is shown until the inspector halts or the input is used up.
    void inspect(const std::string& typed = "") {
        ports.serial.assign(typed.begin(), typed.end());
        machine().interrupts_on = true;
        shown.clear();
        EXPECT_THROW(surgeon_enter(regs), machine_halted);
        EXPECT_FALSE(machine().interrupts_on);
    }
    bool has(const std::string& text) { return shown.find(text) != std::string::npos; }

    late_input ports;
    registers_t* regs = reinterpret_cast<registers_t*>(RAM + 0x100);
};

TEST_F(Surgeon, ReportSaysWhatHappenedAndAfterWhat) {
    machine().cr2 = 0xDEADBEEF;
    for (int i = 1; i <= 10; ++i)
        causal_event_fmt(CAUSAL_SCHED, "test", "step %d", i);
    irq_context_scope handler;  // it faults in an interrupt handler
    map(running().causal_ctx);
    causal_event_fmt(CAUSAL_IO, "test", "of the handler");
    inspect();
    EXPECT_TRUE(has("\n[FAULT] Kernel exception: Page Fault (vector 14, error 0x2)\n"));
    EXPECT_TRUE(has("write to 0xdeadbeef (not mapped) by ring 0"));
    EXPECT_TRUE(has("io/test: of the handler\n"));
    EXPECT_TRUE(has("sched/test: step 10\n"));
    EXPECT_TRUE(has("sched/test: step 3\n"));
    EXPECT_FALSE(has("sched/test: step 2\n")) << "eight events";
}

TEST_F(Surgeon, BacktraceCrossesInterruptsAndStopsAtBadFrames) {
    for (uint32_t bad : {0u, RAM + 0x200, RAM + 0x402, 0xFFFFFFFCu, IDENTITY_MAP_BYTES - 4}) {
        surgeon_init();
        fill(regs, 0x0BAD0000, RAM + 0x200);
        word(RAM + 0x100 + offsetof(registers_t, user_esp)) = 0x105555;  // called nowhere from here
        word(RAM + 0x200) = RAM + 0x300;
        word(RAM + 0x204) = 0x105000;
        word(RAM + 0x304) = FAKE_STUB_RETURN;  // the dispatcher's frame
        fill(reinterpret_cast<registers_t*>(RAM + 0x30C), 0x106000, RAM + 0x400);
        word(RAM + 0x400) = bad;
        word(RAM + 0x404) = 0x107000;
        inspect();
        EXPECT_TRUE(has(
            "#0 0x0bad0000\n #1 0x00105555\n #2 0x00105000\n #3 0x00123450\n -- interrupt 14 --\n"
            " #4 0x00106000\n #5 0x00107000\nThe"))
            << shown;
    }
}

TEST_F(Surgeon, MemoryIsShownUnlessItIsNotMapped) {
    std::memcpy(reinterpret_cast<void*>(IDENTITY_MAP_BYTES - 16), "sixteen bytes..\xFF", 16);
    inspect("m7fffff0\r  m 0xfffffff8\rm zz\rz\rm\x08r\r");
    EXPECT_TRUE(
        has("07fffff0  73 69 78 74 65 65 6e 20 62 79 74 65 73 2e 2e ff  sixteen bytes...\n"
            "0x08000000 is not mapped\n"));
    EXPECT_TRUE(has("0xfffffff8 is not mapped"));
    EXPECT_LT(shown.find("EIP="), shown.rfind("EIP=")) << "backspace took the m away";
}

TEST_F(Surgeon, KeysWorkAndWhatWasTypedBeforeIsDropped) {
    ports.arrived = true;
    inspect("h\r");
    EXPECT_FALSE(has("halted"));
    surgeon_init();
    ports.arrived = false;
    // A release, an arrow (E0 48), '?' with shift, Enter; "h", the keypad's Enter (E0 1C).
    ports.keys = {0x9C, 0xE0, 0x48, 0x2A, 0x35, 0xB5, 0xAA, 0x1C, 0x23, 0xE0, 0x1C};
    inspect();
    EXPECT_TRUE(has(" b  backtrace\n"));
    EXPECT_TRUE(has("halted\n"));
}

TEST_F(Surgeon, FaultInsideTheInspectorPrintsOneLineThenNothing) {
    inspect();
    inspect();
    EXPECT_TRUE(has("Page Fault inside the fault inspector EIP=0x101234, halted\n"));
    EXPECT_LT(shown.size(), 100u);
    inspect();
    EXPECT_EQ(shown, "");
}

}  // namespace
