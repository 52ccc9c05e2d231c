// The polling keyboard reader of full-screen programs: reads PS/2 and serial port directly, between
// kbpoll_begin and kbpoll_end. The keyboard interrupt stays on, but its handler leaves the bytes to
// the poll meanwhile. One program at a time; task context.
#pragma once

#include <stdint.h>

#include "kernel/drivers/keymap.h"

// Codes beside the printable characters, Backspace (8), Tab (9), Enter (10), the cursor keys and
// KEY_DELETE.
constexpr int KBPOLL_CTRL_S = 0x90;
constexpr int KBPOLL_CTRL_Q = 0x91;
constexpr int KBPOLL_CTRL_Z = 0x92;
constexpr int KBPOLL_CTRL_Y = 0x93;
constexpr int KBPOLL_CTRL_H = 0x94;
constexpr int KBPOLL_CTRL_G = 0x95;
constexpr int KBPOLL_ESCAPE = 0x96;

/// Clears the modifiers, turns the serial receive interrupt off and has the 8042 for itself.
void kbpoll_begin(void);

/// Gives both devices back to their interrupts.
void kbpoll_end(void);

/// One look at both devices: a key code, or -1. After an escape byte it waits a few milliseconds at
/// most for the rest of the sequence.
int kbpoll_poll(void);

/// Polls until there is a key; gives way to other tasks when nothing came for a while.
int kbpoll_getchar(void);
