#include "arch/x86/hal.h"

#include "arch/x86/cpu.h"
#include "arch/x86/ports.h"

namespace {

// The 16550's registers, by port.
constexpr uint16_t COM1 = 0x3F8;
constexpr uint16_t COM1_DATA = COM1;
constexpr uint16_t COM1_DIVISOR_LOW = COM1;
constexpr uint16_t COM1_DIVISOR_HIGH = COM1 + 1;
constexpr uint16_t COM1_INTERRUPTS = COM1 + 1;
constexpr uint16_t COM1_FIFO = COM1 + 2;
constexpr uint16_t COM1_LINE = COM1 + 3;
constexpr uint16_t COM1_MODEM = COM1 + 4;
constexpr uint16_t COM1_STATUS = COM1 + 5;

constexpr uint8_t LINE_DIVISOR_LATCH = 0x80;
constexpr uint8_t LINE_8N1 = 0x03;
constexpr uint8_t FIFO_ON_CLEARED = 0xC7;
constexpr uint8_t MODEM_DTR_RTS_OUT2 = 0x0B;
constexpr uint8_t RECEIVE_INTERRUPT = 0x01;
constexpr uint8_t STATUS_RECEIVED = 0x01;
constexpr uint8_t STATUS_TRANSMITTER_EMPTY = 0x20;
constexpr uint8_t DIVISOR_38400 = 3;

// The two 8259 controllers.
constexpr uint16_t MASTER_COMMAND = 0x20;
constexpr uint16_t MASTER_DATA = 0x21;
constexpr uint16_t SLAVE_COMMAND = 0xA0;
constexpr uint16_t SLAVE_DATA = 0xA1;
constexpr uint8_t INITIALISE = 0x11;
constexpr uint8_t MASTER_VECTORS = 0x20;
constexpr uint8_t SLAVE_VECTORS = 0x28;
constexpr uint8_t MASTER_CASCADE = 0x04;  // a bit: the slave hangs on line 2
constexpr uint8_t SLAVE_CASCADE = 0x02;   // a number: the same line
constexpr uint8_t MODE_8086 = 0x01;
constexpr uint8_t MASTER_MASK = 0xE8;
constexpr uint8_t SLAVE_MASK = 0xFF;
constexpr uint8_t END_OF_INTERRUPT = 0x20;
constexpr uint32_t MASTER_LINES = 8;

// The two ways to a reset: the line that the 8042 drives, and the chipset's own register.
constexpr uint16_t KBC_COMMAND = 0x64;
constexpr uint8_t KBC_INPUT_FULL = 0x02;
constexpr uint8_t KBC_PULSE_RESET = 0xFE;
constexpr uint16_t RESET_CONTROL = 0xCF9;
constexpr uint8_t RESET_HARD = 0x02;
constexpr uint8_t RESET_NOW = 0x04;
constexpr int RESET_POLLS = 100000;  // far longer than either takes

constexpr uint16_t POWER_PORTS[] = {0x604, 0xB004};
constexpr uint16_t POWER_OFF = 0x2000;

}  // namespace

void hal_serial_setup(void) {
    outb(COM1_INTERRUPTS, 0);
    outb(COM1_LINE, LINE_DIVISOR_LATCH);
    outb(COM1_DIVISOR_LOW, DIVISOR_38400);
    outb(COM1_DIVISOR_HIGH, 0);
    outb(COM1_LINE, LINE_8N1);
    outb(COM1_FIFO, FIFO_ON_CLEARED);
    outb(COM1_MODEM, MODEM_DTR_RTS_OUT2);
}

void hal_serial_init(void) {
    hal_serial_setup();
    outb(COM1_INTERRUPTS, RECEIVE_INTERRUPT);
}

void hal_serial_putc(char c) {
    while ((inb(COM1_STATUS) & STATUS_TRANSMITTER_EMPTY) == 0)
        cpu_pause();
    outb(COM1_DATA, static_cast<uint8_t>(c));
}

int hal_serial_getc(void) { return hal_serial_has_data() != 0 ? inb(COM1_DATA) : -1; }

int hal_serial_has_data(void) { return inb(COM1_STATUS) & STATUS_RECEIVED; }

void hal_irq_init(void) {
    outb(MASTER_COMMAND, INITIALISE);
    outb(SLAVE_COMMAND, INITIALISE);
    outb(MASTER_DATA, MASTER_VECTORS);
    outb(SLAVE_DATA, SLAVE_VECTORS);
    outb(MASTER_DATA, MASTER_CASCADE);
    outb(SLAVE_DATA, SLAVE_CASCADE);
    outb(MASTER_DATA, MODE_8086);
    outb(SLAVE_DATA, MODE_8086);
    outb(MASTER_DATA, MASTER_MASK);
    outb(SLAVE_DATA, SLAVE_MASK);
}

void hal_irq_enable(uint32_t irq, bool on) {
    const uint16_t port = irq < MASTER_LINES ? MASTER_DATA : SLAVE_DATA;
    const auto line = static_cast<uint8_t>(1u << irq % MASTER_LINES);
    const uint8_t mask = inb(port);
    outb(port, static_cast<uint8_t>(on ? mask & ~line : mask | line));
}

void hal_irq_eoi(uint32_t irq) {
    if (irq >= MASTER_LINES)
        outb(SLAVE_COMMAND, END_OF_INTERRUPT);
    outb(MASTER_COMMAND, END_OF_INTERRUPT);
}

void hal_shutdown(void) {
    for (const uint16_t port : POWER_PORTS)
        outw(port, POWER_OFF);
    cpu_halt_forever();
}

void hal_reboot(void) {
    for (int i = 0; i < RESET_POLLS && (inb(KBC_COMMAND) & KBC_INPUT_FULL) != 0; ++i)
        cpu_pause();
    outb(KBC_COMMAND, KBC_PULSE_RESET);
    for (int i = 0; i < RESET_POLLS; ++i)
        inb(KBC_COMMAND);
    outb(RESET_CONTROL, RESET_HARD);
    outb(RESET_CONTROL, RESET_HARD | RESET_NOW);
    cpu_halt_forever();
}

void hal_mmu_init(void) {}

void hal_early_init(void) {}
