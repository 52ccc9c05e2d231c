// The keyboard: PS/2 (8042 controller, line 1) and the first serial port (line 4) as one stream of
// key codes, and the raw scancodes beside it.
//
// Key codes are the characters 1..127 as typed (Enter 10, Backspace 8, Tab 9, Escape 27, control
// letters 1..26) and the KEY_ codes of keymap.h. Both rings drop the newest byte when full: 255
// keys and 63 scancodes wait at most. Rings and parsers are touched with interrupts masked only;
// all readers and both interrupt lines are on processor 0. A key wakes all tasks that wait for
// input, one of them gets it.
#pragma once

#include <stdint.h>

#include "kernel/drivers/keymap.h"

struct registers_t;

/// Forgets keys, scancodes, modifiers and suppression, programs the 8042 (first port and its
/// interrupt on, translation to set 1), installs the handlers of lines 1 and 4 and turns the serial
/// receive interrupt on. Prints "[kbd] failed to install ..." when a handler cannot be installed.
/// An absent controller is given up after a bounded wait. Start-up.
void keyboard_init(void);

/// The next key code, as a byte in a char; blocks the task until there is one. A task context, or
/// early start-up with nothing to read only if a key is sure to come.
char keyboard_getchar(void);

/// Takes what the serial port holds into the key ring, then tells whether a key waits. Task
/// context.
bool keyboard_has_input(void);

/// Takes a byte that the 8042 holds as its interrupt would, then returns the oldest raw scancode,
/// or -1. Task context.
int keyboard_poll_scancode(void);

/// Appends `sc` to the raw scancodes; dropped when the ring is full. Any context.
void keyboard_inject_scancode(uint8_t sc);

/// Discards what the 8042 holds and empties both rings. Any context.
void keyboard_flush(void);

/// While `on`, every scancode that arrives is discarded. Any context.
void keyboard_suppress(bool on);

/// Sets what Ctrl+Alt+Del on the PS/2 keyboard calls (null: nothing), also while scancodes are
/// suppressed or polled. The hook runs in the interrupt handler or with interrupts masked: it must
/// only wake. The keys count as keys all the same.
void keyboard_set_reset_hook(void (*hook)());

/// Follows a scancode for the hook above: for whoever takes bytes from the controller past this
/// driver. Interrupts masked.
void keyboard_watch(uint8_t scancode);

/// While `on`, line 1 leaves what the 8042 holds to whoever polls it; afterwards what is left there
/// is taken as its interrupt would take it. Any context.
void keyboard_leave_to_poll(bool on);

/// Line 1: takes one scancode, if the controller holds one. Records CAUSAL_IO "keyboard" "key
/// pressed scancode=0x%x" for each key that has a character and fits the ring. Interrupts masked.
void kb_irq_handler(registers_t* regs);

/// Line 4: takes the bytes that the serial port holds. Interrupts masked.
void serial_irq_handler(registers_t* regs);
