// The task switch (switch.S). The host tests replace this header with one that records switches or
// runs tasks as coroutines.
#pragma once

#include <stdint.h>

extern "C" {
/// Saves flags and callee-saved registers on this stack and its pointer in `*save_esp`, then goes
/// on with the context that was saved at `load_esp`. Interrupts must be masked and stay masked:
/// whoever goes on restores its own flag. Returns when somebody switches back.
void context_switch(uintptr_t* save_esp, uintptr_t load_esp);

// Where new tasks start: kernel tasks go on in task_enter(), ring 3 tasks at the address and with
// the stack pointer that task_enter_user() returns. Not to be called.
extern const char task_entry_trampoline[];
extern const char task_entry_trampoline_user[];
}

inline uintptr_t switch_trampoline() { return reinterpret_cast<uintptr_t>(task_entry_trampoline); }
inline uintptr_t switch_trampoline_user() {
    return reinterpret_cast<uintptr_t>(task_entry_trampoline_user);
}

/// The present stack pointer, give or take a frame.
inline uintptr_t switch_stack_pointer() {
    return reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
}
