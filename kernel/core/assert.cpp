#include "kernel/core/assert.h"

#include "arch/x86/cpu.h"
#include "kernel/core/kprintf.h"

namespace {
void (*output_hook)(void);
}

void kassert_set_output_hook(void (*hook)(void)) { output_hook = hook; }

void kassert_fail(const char* expr, const char* file, int line) {
    cpu_cli();
    // Taken before its call: an assertion that fails on the way out must not come here again.
    void (*const to_local_machine)(void) = output_hook;
    output_hook = nullptr;
    if (to_local_machine != nullptr)
        to_local_machine();
    kprintf("[ASSERT] %s %s:%d\n", expr, file, line);
    cpu_halt_forever();
}
