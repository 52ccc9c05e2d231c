#include "arch/x86/hal.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/machine/machine.h"

namespace {

/// The port accesses since the last call, as "port=value" for bytes, in hexadecimal.
std::string accesses() {
    std::ostringstream text;
    for (const port_access_t& access : machine().ports)
        text << std::hex << access.port << (access.bytes == 1 ? "=" : "=w") << access.value << " ";
    machine().ports.clear();
    return text.str();
}

/// A serial port whose reads give these answers in turn.
struct uart_t : port_device {
    const char* answers;
    uint32_t read(uint16_t, unsigned) override { return static_cast<uint8_t>(*answers++); }
    void write(uint16_t, uint32_t, unsigned) override {}
};

}  // namespace

TEST(Hal, ProgramsSerialPortAndInterruptControllers) {
    machine_reset();
    hal_serial_init();
    EXPECT_EQ(accesses(), "3f9=0 3fb=80 3f8=3 3f9=0 3fb=3 3fa=c7 3fc=b 3f9=1 ");
    hal_irq_init();
    EXPECT_EQ(accesses(), "20=11 a0=11 21=20 a1=28 21=4 a1=2 21=1 a1=1 21=e8 a1=ff ");
    hal_irq_enable(9, true);
    hal_irq_enable(3, false);
    EXPECT_EQ(accesses(), "a1=ff a1=fd 21=ff 21=ff ") << "reads of absent ports, then writes";
    hal_irq_eoi(7);
    hal_irq_eoi(8);
    EXPECT_EQ(accesses(), "20=20 a0=20 20=20 ");
}

TEST(Hal, SendsWhenTheTransmitterIsEmptyAndReceivesWhatWaits) {
    machine_reset();
    hal_serial_putc('x');
    EXPECT_EQ(accesses(), "3fd=ff 3f8=78 ") << "without a port";
    uart_t uart;
    machine_attach(0x3F8, 0x3FD, &uart);
    uart.answers = "\x01\x40\x60\x7e\x61\xff";
    hal_serial_putc('\xfe');
    EXPECT_EQ(accesses(), "3fd=1 3fd=40 3fd=60 3f8=fe ");
    EXPECT_EQ(hal_serial_getc(), -1);
    EXPECT_EQ(hal_serial_getc(), 0xFF);
    EXPECT_EQ(accesses(), "3fd=7e 3fd=61 3f8=ff ");
}

TEST(Hal, PowersOffAndResetsByEveryWayAndHaltsWhereNothingAnswers) {
    machine_reset();
    EXPECT_THROW(hal_shutdown(), machine_halted);
    EXPECT_EQ(accesses(), "604=w2000 b004=w2000 ");
    EXPECT_THROW(hal_reboot(), machine_halted);
    const std::string reset = accesses();
    for (const char* way : {" 64=fe ", " cf9=2 ", " cf9=6 "})
        EXPECT_NE(reset.find(way), std::string::npos) << way;
}
