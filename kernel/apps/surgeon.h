// The fault inspector: what a kernel-mode exception ends in. It shows what happened, where and
// after which events, and then answers one-letter commands on the serial line and the PS/2 keyboard
// until the machine is switched off.
//
// It trusts nothing: it takes no lock, no heap and no interrupt, polls the ports itself, prints to
// the local console whatever captures or sessions were in force, and reads no address that is not
// mapped. It never returns into the fault.
#pragma once

#include "kernel/core/interrupt.h"

/// The kernel-mode fault hook. `regs` is the frame of the exception. Masks interrupts for good and
/// does not return; an exception inside it prints one line and halts. Any context.
[[noreturn]] void surgeon_enter(registers_t* regs);

/// Forgets an earlier fault. For start-up and for whoever drives the inspector step by step.
void surgeon_init(void);
