// Faulting instructions of the fake machine: each stops the program under test.
#pragma once

#include <stdint.h>

#include "tests/machine/machine.h"

inline void fault_divide() { machine_halt(); }
inline void fault_breakpoint() { machine_halt(); }
inline void fault_opcode() { machine_halt(); }
inline void fault_protection() { machine_halt(); }
inline void fault_page(uintptr_t) { machine_halt(); }
