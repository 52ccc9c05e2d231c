#include "arch/x86/switch.h"

#include <sanitizer/common_interface_defs.h>
#include <ucontext.h>

#include <list>
#include <vector>

namespace {

struct coroutine_t {
    ucontext_t context = {};
    std::vector<char> stack;
    void* asan_stack = nullptr;
    const void* bottom = nullptr;
    size_t size = 0;
};

std::list<coroutine_t> coroutines(1);  // the first is the test itself
coroutine_t* running = &coroutines.front();
coroutine_t* left = nullptr;

void arrived(void* asan_stack) {
    __sanitizer_finish_switch_fiber(asan_stack, &left->bottom, &left->size);
}

void start() {
    arrived(nullptr);
    task_enter();
}

/// The coroutine whose address was saved as `esp`; a new one for a first frame.
coroutine_t* coroutine_at(uintptr_t esp) {
    for (coroutine_t& c : coroutines)
        if (reinterpret_cast<uintptr_t>(&c) == esp)
            return &c;
    coroutine_t& c = coroutines.emplace_back();
    c.stack.resize(256 * 1024);
    c.bottom = c.stack.data();
    c.size = c.stack.size();
    getcontext(&c.context);
    c.context.uc_stack.ss_sp = c.stack.data();
    c.context.uc_stack.ss_size = c.stack.size();
    makecontext(&c.context, start, 0);
    return &c;
}

}  // namespace

void fake_switch_reset() {
    fake_switch = {};
    while (coroutines.size() > 1)
        coroutines.pop_back();
    running = &coroutines.front();
}

void context_switch(uintptr_t* save_esp, uintptr_t load_esp) {
    if (fake_switch.on_switch)
        fake_switch.on_switch();
    if (!fake_switch.coroutines)
        return;
    coroutine_t* self = running;
    coroutine_t* to = coroutine_at(load_esp);
    *save_esp = reinterpret_cast<uintptr_t>(self);
    running = to;
    left = self;
    __sanitizer_start_switch_fiber(&self->asan_stack, to->bottom, to->size);
    swapcontext(&self->context, &to->context);
    arrived(self->asan_stack);
}
