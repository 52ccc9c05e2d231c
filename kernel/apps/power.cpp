#include "kernel/apps/power.h"

#include "kernel/core/guards.h"
#include "kernel/core/task.h"
#include "kernel/drivers/keyboard.h"

namespace {

constexpr int POWER_PRIORITY = 1;  // before the shells

enum class request : uint8_t { none, halt, reboot };

struct {
    task_t* task;
    void (*shutdown)(bool reboot);
    request wanted;  ///< the first one stands
} state GUARDED_BY(irq_mask);

void ask(request what) {
    const irq_guard guard;
    if (state.wanted != request::none)
        return;
    state.wanted = what;
    task_unblock_reason(state.task, "power");
}

void button_pressed() { ask(request::halt); }

void chord_pressed() { ask(request::reboot); }

request wait_for_request() {
    const irq_guard guard;
    while (state.wanted == request::none)
        task_block(task_current());
    return state.wanted;
}

void power_task() {
    const bool reboot = wait_for_request() == request::reboot;
    void (*shutdown)(bool) = nullptr;
    {
        const irq_guard guard;
        shutdown = state.shutdown;
    }
    shutdown(reboot);
}

}  // namespace

void power_init(const acpi_button_t& button, void (*shutdown)(bool reboot)) {
    task_t* task = task_create("power", power_task, POWER_PRIORITY);
    {
        const irq_guard guard;
        state = {task, shutdown, request::none};
    }
    if (task == nullptr)
        return;
    keyboard_set_reset_hook(chord_pressed);
    // Without a fixed button there is nothing to press.
    (void)acpi_button_init(button, button_pressed);
}
