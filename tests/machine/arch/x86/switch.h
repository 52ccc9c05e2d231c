// The task switch of the fake machine. As it is, a switch is only recorded and the caller goes on
// in the name of the other task; with `coroutines` every task runs its own body.
#pragma once

#include <stdint.h>

#include <functional>

struct fake_switch_t {
    bool coroutines = false;
    std::function<void()> on_switch;        ///< called at each switch
    uintptr_t stack_pointer = UINTPTR_MAX;  ///< what switch_stack_pointer says
};
inline fake_switch_t fake_switch;

/// Forgets all coroutines; the caller is the one context there is.
void fake_switch_reset();

extern "C" {
void context_switch(uintptr_t* save_esp, uintptr_t load_esp);
[[noreturn]] void task_enter();
uint64_t task_enter_user();
}

inline uintptr_t switch_trampoline() { return reinterpret_cast<uintptr_t>(task_enter); }
inline uintptr_t switch_trampoline_user() { return reinterpret_cast<uintptr_t>(task_enter_user); }
inline uintptr_t switch_stack_pointer() { return fake_switch.stack_pointer; }
