// Where the linker put the kernel image. The host tests replace this header with the image of the
// fake machine.
#pragma once

#include <stdint.h>

extern "C" {
extern const char kernel_start[];
extern const char kernel_readonly_end[];
extern const char kernel_end[];
}

/// The image's first byte.
inline uintptr_t image_start() { return reinterpret_cast<uintptr_t>(kernel_start); }

/// The page boundary behind text and constants, where writable data starts.
inline uintptr_t image_readonly_end() { return reinterpret_cast<uintptr_t>(kernel_readonly_end); }

/// The page boundary behind the image with its zero-initialised data.
inline uintptr_t image_end() { return reinterpret_cast<uintptr_t>(kernel_end); }
