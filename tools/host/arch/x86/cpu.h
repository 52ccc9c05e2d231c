// The processor as a program without privileges may use it: the real instructions, but interrupts
// are nobody's business here.
#pragma once

#define cpu_cli cpu_cli_privileged
#define cpu_sti cpu_sti_privileged
#include "../../../../arch/x86/cpu.h"
#undef cpu_cli
#undef cpu_sti

inline void cpu_cli() { asm volatile("" : : : "memory"); }
inline void cpu_sti() { asm volatile("" : : : "memory"); }
