// Start-up and shutdown of the whole system.
#pragma once

#include <stdint.h>

#include "kernel/core/multiboot.h"

/// The start-up sequence: initialises every subsystem in a fixed order and prints a "[boot] " line
/// for each, then becomes the boot task. Called by _start on the bootstrap processor with
/// interrupts masked. `magic` is the loader's; any but MULTIBOOT_LOADER_MAGIC prints an error and
/// halts. `info` is the loader's boot information. Never returns.
extern "C" [[noreturn]] void kernel_main(uint32_t magic, multiboot_info_t* info);

/// Ends the system in an orderly manner, then powers the machine off, or resets it. Other tasks may
/// go on writing meanwhile: what they have not finished is lost as in a power cut. A second call
/// while the first is at work only waits. Records "shutdown type=%s" (CAUSAL_SCHED, "kernel").
/// Task context; no lock held.
[[noreturn]] void kernel_shutdown(bool reboot);
