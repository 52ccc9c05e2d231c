// The ways to end the system in an orderly manner from outside: the power button halts it,
// Ctrl+Alt+Del on the PS/2 keyboard restarts it. A task of its own does the work; the interrupt
// handlers only wake it.
#pragma once

#include "kernel/drivers/acpi.h"

/// Creates the "power" task and takes the button, if there is one, and the key chord. That task
/// calls `shutdown` for the first of them that is used: true to restart. Without memory for the
/// task both do nothing. Start-up, after keyboard and task manager.
void power_init(const acpi_button_t& button, void (*shutdown)(bool reboot));
