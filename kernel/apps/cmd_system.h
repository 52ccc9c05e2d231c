// Commands about the machine and the kernel itself. They read counters and tables without locks, so
// that figures can be a moment out of date. All run in the task of the shell that dispatched them;
// what is not described by an argument is ignored.
#pragma once

#include <stddef.h>
#include <stdint.h>

/// Writes the text of up to 16 bytes that stand at `addr`: address, hexadecimal, characters.
/// `out` holds HEXDUMP_LINE_BYTES.
constexpr size_t HEXDUMP_LINE_BYTES = 80;
void hexdump_line(char* out, uint32_t addr, const uint8_t* bytes, uint32_t count);

/// `echo [text...]`: the arguments, joined with spaces.
void cmd_echo(int argc, char** argv);

/// `clear`: blanks the screen.
void cmd_clear(int argc, char** argv);

/// `free`: physical frames in use.
void cmd_free(int argc, char** argv);

/// `memmap`: the layout of physical memory, as a list and a bar.
void cmd_memmap(int argc, char** argv);

/// `uname`: name and version.
void cmd_uname(int argc, char** argv);

/// `termsize`: columns and rows of the session's terminal, or of the console.
void cmd_termsize(int argc, char** argv);

/// `status`: uptime, memory, tasks, interrupts, actors and events on one screen.
void cmd_status(int argc, char** argv);

/// `ps`: the tasks, the caller first.
void cmd_ps(int argc, char** argv);

/// `top`: tasks and memory, drawn anew every half second until somebody presses q; once only
/// where nobody can.
void cmd_top(int argc, char** argv);

/// `ptree`: tasks by their distance from the root, eight levels.
void cmd_ptree(int argc, char** argv);

/// `cpu`: what each processor runs.
void cmd_cpu(int argc, char** argv);

/// `uptime`: minutes, seconds and ticks since the timer started.
void cmd_uptime(int argc, char** argv);

/// `irqstat`: hardware interrupts by line.
void cmd_irqstat(int argc, char** argv);

/// `halt`: says goodbye, waits half a second and switches the machine off. Nothing is written out
/// first: the disk is sound after it as after any other end of power. Needs admin; then it does not
/// return. Records CAUSAL_SHELL "system" "ACPI poweroff".
void cmd_halt(int argc, char** argv);

/// `crash <kind>`: raises a processor exception in the kernel, which needs admin; without a known
/// kind it prints a list.
void cmd_crash(int argc, char** argv);

/// `hexdump <addr> [len]`: memory at a hexadecimal address, 1..4096 bytes (decimal, 128 without the
/// argument), as far as it is mapped.
void cmd_hexdump(int argc, char** argv);

/// `dmesg [lines]`: the kernel log, or its last lines. Its output is not logged again.
void cmd_dmesg(int argc, char** argv);

/// `heap [selftest]`: the heap's report, or its self-test.
void cmd_heap(int argc, char** argv);

/// `memleak`: allocations among the most recent 128 that were not freed.
void cmd_memleak(int argc, char** argv);
