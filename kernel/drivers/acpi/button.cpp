// The power button's registers and interrupt.
#include "arch/x86/hal.h"
#include "arch/x86/ports.h"
#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/drivers/acpi.h"

namespace {

constexpr uint16_t POWER_BUTTON = 1u << 8;  // in status, where writing it clears it, and enable
constexpr uint16_t ACPI_MODE = 1u << 0;     // in control
constexpr int MODE_POLLS = 100000;
constexpr uint32_t STRAYS_MAX = 1000;

struct {
    acpi_button_t button;
    void (*pressed)();
    uint32_t strays;  ///< interrupts in a row that were not the button's
} state GUARDED_BY(irq_mask);

/// The line may belong to other devices, too. If one of them holds it for ever, masking it costs
/// the button, not the machine.
void sci_handler(registers_t*) {
    const irq_guard guard;
    if ((inw(state.button.status_port) & POWER_BUTTON) == 0) {
        if (++state.strays == STRAYS_MAX)
            hal_irq_enable(state.button.line, false);
        return;
    }
    state.strays = 0;
    outw(state.button.status_port, POWER_BUTTON);
    state.pressed();
}

/// Takes the button from the firmware, which has it until ACPI mode is on.
void enter_acpi_mode(const acpi_button_t& button) {
    if (button.command_port == 0 || button.enable_command == 0 || button.control_port == 0 ||
        (inw(button.control_port) & ACPI_MODE) != 0)
        return;
    outb(button.command_port, button.enable_command);
    for (int i = 0; i < MODE_POLLS && (inw(button.control_port) & ACPI_MODE) == 0; ++i)
        cpu_pause();
}

}  // namespace

int acpi_button_init(const acpi_button_t& button, void (*pressed)()) {
    const irq_guard guard;
    if (button.status_port == 0)
        return -1;
    state.button = button;
    state.pressed = pressed;
    state.strays = 0;
    if (irq_install_handler(button.line, sci_handler) != 0)
        return -1;
    enter_acpi_mode(button);
    outw(button.status_port, POWER_BUTTON);
    outw(button.enable_port, POWER_BUTTON);
    hal_irq_enable(button.line, true);
    return 0;
}
