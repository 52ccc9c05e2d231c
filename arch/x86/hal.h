// The platform below the kernel: first serial port, interrupt controllers, timer, power-off.
// Serial and interrupt-controller calls may come from any context.
#pragma once

#include <stdint.h>

/// Programs COM1: 38400 baud, 8N1, FIFOs on and cleared, no interrupts.
void hal_serial_setup(void);

/// hal_serial_setup, then the received-data interrupt on.
void hal_serial_init(void);

/// Sends one byte; waits for the transmitter first. Without a port the line reads as ready.
void hal_serial_putc(char c);

/// One received byte (0..255), or -1 if none is waiting.
int hal_serial_getc(void);

/// Nonzero when a received byte is waiting.
int hal_serial_has_data(void);

/// Remaps the two 8259 controllers to vectors 32..47 and masks all lines but 0 (timer), 1
/// (keyboard), 2 (cascade) and 4 (COM1). Start-up, interrupts masked.
void hal_irq_init(void);

/// Lets line `irq` (0..15) through, or masks it. Interrupts masked.
void hal_irq_enable(uint32_t irq, bool on);

/// Ends the interrupt of line `irq` (0..15).
void hal_irq_eoi(uint32_t irq);

/// Programs the interval timer to `hz` interrupts a second. The timer's driver implements it
/// (kernel/core/interrupt.cpp, which forwards to pit_init): this floor includes nothing above it.
void hal_timer_init(uint32_t hz);

/// Powers the machine off through the ports of common virtual machines, then halts for good.
[[noreturn]] void hal_shutdown(void);

/// Resets the machine through the keyboard controller, else the reset control register of PC
/// chipsets (port 0xCF9), then halts for good.
[[noreturn]] void hal_reboot(void);

/// Nothing to do on this platform.
void hal_mmu_init(void);
void hal_early_init(void);
