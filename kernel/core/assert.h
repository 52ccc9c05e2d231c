// Assertions on the kernel's own invariants. A broken one stops the machine loudly. Never for what
// comes from disk, wire, user program or keyboard: that is checked and refused.
#pragma once

/// Installs what brings output back to the local machine before the text is printed, so that no
/// capture or session swallows it (null: nothing).
void kassert_set_output_hook(void (*hook)(void));

/// Prints "[ASSERT] EXPR FILE:LINE" and halts for good. Any context.
[[noreturn]] void kassert_fail(const char* expr, const char* file, int line);

/// Stops the machine unless `expr` holds; a macro for the sake of the expression's text.
#define KASSERT(expr) \
    (static_cast<bool>(expr) ? static_cast<void>(0) : kassert_fail(#expr, __FILE__, __LINE__))
