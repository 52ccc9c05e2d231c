// The ways to end the system in an orderly manner from outside: the power button halts it,
// Ctrl+Alt+Del on the PS/2 keyboard restarts it. A task of its own does the work; the interrupt
// handlers only wake it.
#pragma once

/// Creates the "power" task and takes the button and the key chord. `shutdown` is called by that
/// task, once: true to restart. Prints a "[boot] " line when there is no memory for the task.
/// Start-up, after acpi and keyboard.
void power_init(void (*shutdown)(bool reboot));
