// The input devices of the fake machine: an 8042 with a keyboard, and the first serial port.
#pragma once

#include <deque>
#include <string_view>

#include "kernel/core/interrupt.h"
#include "tests/machine/machine.h"

/// Bytes wait in `keys` and `serial` until the kernel reads them; an empty 8042 gives its last byte
/// again.
class input_ports : public port_device {
public:
    std::deque<uint8_t> keys, serial;
    uint8_t config = 0x30;  ///< of the 8042: clocks off, no interrupt, no translation
    uint8_t command = 0;
    uint8_t serial_interrupts = 0;
    int line_raised = 0;  ///< times the serial interrupt was turned on with bytes waiting

    void attach() {
        machine_attach(0x60, 0x64, this);
        machine_attach(0x3F8, 0x3FF, this);
    }
    uint32_t read(uint16_t port, unsigned) override {
        if (port == 0x64)
            return !keys.empty();
        if (port == 0x3FD)
            return 0x20u | !serial.empty();
        if (port == 0x3F9)
            return serial_interrupts;
        if (port == 0x60)
            return last_key_ = take(keys, last_key_);
        return take(serial, 0);
    }
    void write(uint16_t port, uint32_t value, unsigned) override {
        const auto byte = static_cast<uint8_t>(value);
        if (port == 0x64 && (command = byte) == 0x20)
            keys.push_back(config);
        if (port == 0x60 && command == 0x60)
            config = byte;
        if (port == 0x3F9)
            line_raised += (serial_interrupts = byte) != 0 && !serial.empty();
    }
    /// Puts scancodes into the 8042, one interrupt each.
    void press(std::initializer_list<uint8_t> scancodes) {
        for (const uint8_t scancode : scancodes) {
            keys.push_back(scancode);
            interrupt(1);
        }
    }
    /// Puts bytes into the serial port, one interrupt for all.
    void type(std::string_view bytes) {
        serial.insert(serial.end(), bytes.begin(), bytes.end());
        interrupt(4);
    }
    static void interrupt(uint32_t line) {
        registers_t regs = {};
        regs.int_no = VECTOR_IRQ_BASE + line;
        machine().interrupts_on = false;
        irq_handler(&regs);
        machine().interrupts_on = true;
    }

private:
    static uint8_t take(std::deque<uint8_t>& from, uint8_t otherwise) {
        if (from.empty())
            return otherwise;
        const uint8_t byte = from.front();
        from.pop_front();
        return byte;
    }
    uint8_t last_key_ = 0;
};
