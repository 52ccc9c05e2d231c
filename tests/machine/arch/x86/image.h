// The kernel image of the fake machine: 4 MiB at 1 MiB, as far as memory management is concerned.
#pragma once

#include <stdint.h>

inline uintptr_t image_start() { return 0x100000; }
inline uintptr_t image_readonly_end() { return 0x200000; }
inline uintptr_t image_end() { return 0x500000; }
