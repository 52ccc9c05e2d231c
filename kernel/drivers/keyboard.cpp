#include "kernel/drivers/keyboard.h"

#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/ring.h"
#include "kernel/core/task.h"
#include "kernel/drivers/keyboard_ports.h"
#include "kernel/drivers/reset_chord.h"
#include "kernel/drivers/serial_keys.h"
#include "kernel/graph/causal.h"

namespace {

constexpr int KEYBOARD_LINE = 1;
constexpr int SERIAL_LINE = 4;
constexpr uint32_t KEY_SLOTS = 256;
constexpr uint32_t SCANCODE_SLOTS = 64;

// Commands and configuration bits of the 8042.
constexpr uint8_t KBC_ENABLE_FIRST_PORT = 0xAE;
constexpr uint8_t KBC_READ_CONFIG = 0x20;
constexpr uint8_t KBC_WRITE_CONFIG = 0x60;
constexpr uint8_t CONFIG_FIRST_CLOCK_OFF = 0x10;
constexpr uint8_t CONFIG_FIRST_INTERRUPT = 0x01;
constexpr uint8_t CONFIG_TRANSLATE = 0x40;

// Bounds, all far above what working hardware needs.
constexpr int KBC_WAIT_POLLS = 100000;
constexpr int KBC_DRAIN_BYTES = 1024;
constexpr int SERIAL_DRAIN_BYTES = 256;

struct keyboard_t {
    ring_t<uint8_t, KEY_SLOTS> keys;
    ring_t<uint8_t, SCANCODE_SLOTS> scancodes;
    keymap_t keymap;
    serial_keys_t serial;
    reset_chord_t chord;
    void (*reset_hook)();
    bool suppress;
    bool polled;  ///< somebody else reads the 8042
};

keyboard_t kb GUARDED_BY(irq_mask);

void wake_waiters_locked() REQUIRES(irq_mask) {
    task_t* tasks = task_get_list();
    for (int i = 0; i < task_pool_count(); ++i) {
        task_t* task = &tasks[i];
        if (task->state != TASK_BLOCKED || !task->waiting_for_input)
            continue;
        task->waiting_for_input = false;
        task_unblock_reason(task, "input");
    }
}

void watch_locked(uint8_t scancode) REQUIRES(irq_mask) {
    if (reset_chord_step(&kb.chord, scancode) && kb.reset_hook != nullptr)
        kb.reset_hook();
}

void take_scancode_locked() REQUIRES(irq_mask) {
    // Whoever polls the controller may have been first.
    if (!kbc_has_byte())
        return;
    const uint8_t scancode = inb(KBC_DATA);
    watch_locked(scancode);
    if (kb.suppress)
        return;
    kb.scancodes.push(scancode);
    const keymap_result_t key = keymap_step(&kb.keymap, scancode);
    if (key.code == 0 || !kb.keys.push(key.code))
        return;
    if (!key.extended)
        causal_event_fmt(CAUSAL_IO, "keyboard", "key pressed scancode=0x%x", scancode);
    wake_waiters_locked();
}

void drain_serial_locked() REQUIRES(irq_mask) {
    for (int i = 0; i < SERIAL_DRAIN_BYTES; ++i) {
        if (!serial_has_byte())
            return;
        const uint8_t code = serial_keys_step(&kb.serial, inb(SERIAL_DATA));
        if (code != 0 && kb.keys.push(code))
            wake_waiters_locked();
    }
    // The line is triggered by its edge: raise it anew for what is left.
    const uint8_t enabled = inb(SERIAL_INTERRUPTS);
    outb(SERIAL_INTERRUPTS, 0);
    outb(SERIAL_INTERRUPTS, enabled);
}

/// Serial input has no cause in the task that happens to fetch it.
void fetch_serial_locked() REQUIRES(irq_mask) {
    irq_context_scope context;
    drain_serial_locked();
}

void kbc_drain() {
    for (int i = 0; i < KBC_DRAIN_BYTES && kbc_has_byte(); ++i)
        inb(KBC_DATA);
}

/// Waits until the status bits `mask` read as `wanted`.
bool kbc_wait(uint8_t mask, uint8_t wanted) {
    for (int i = 0; i < KBC_WAIT_POLLS; ++i) {
        const uint8_t status = inb(KBC_STATUS);
        if (status == PORT_ABSENT)
            return false;
        if ((status & mask) == wanted)
            return true;
    }
    return false;
}

bool kbc_write(uint16_t port, uint8_t value) {
    if (!kbc_wait(KBC_INPUT_FULL, 0))
        return false;
    outb(port, value);
    return true;
}

void kbc_setup() {
    kbc_drain();
    if (!kbc_write(KBC_STATUS, KBC_ENABLE_FIRST_PORT) || !kbc_write(KBC_STATUS, KBC_READ_CONFIG))
        return;
    if (!kbc_wait(KBC_OUTPUT_FULL, KBC_OUTPUT_FULL))
        return;
    uint8_t config = inb(KBC_DATA);
    config &= static_cast<uint8_t>(~CONFIG_FIRST_CLOCK_OFF);
    config |= CONFIG_TRANSLATE | CONFIG_FIRST_INTERRUPT;
    if (kbc_write(KBC_STATUS, KBC_WRITE_CONFIG))
        kbc_write(KBC_DATA, config);
}

}  // namespace

void keyboard_init(void) {
    irq_guard guard;
    kb.keys.clear();
    kb.scancodes.clear();
    kb.keymap = {};
    kb.serial = serial_keys_t::idle;
    kb.chord = {};
    kb.reset_hook = nullptr;
    kb.suppress = false;
    kb.polled = false;
    kbc_setup();
    if (irq_install_handler(KEYBOARD_LINE, kb_irq_handler) != 0)
        kprintf("[kbd] failed to install keyboard IRQ handler\n");
    if (irq_install_handler(SERIAL_LINE, serial_irq_handler) != 0)
        kprintf("[kbd] failed to install serial IRQ handler\n");
    kbc_drain();
    outb(SERIAL_INTERRUPTS, SERIAL_RECEIVE_INTERRUPT);
}

char keyboard_getchar(void) {
    for (;;) {
        {
            irq_guard guard;
            if (kb.keys.empty())
                fetch_serial_locked();
            uint8_t code = 0;
            if (kb.keys.pop(&code))
                return static_cast<char>(code);
            task_t* self = task_current();
            if (self != nullptr) {
                self->waiting_for_input = true;
                task_block(self);
                self->waiting_for_input = false;
                continue;
            }
        }
        task_yield();
    }
}

bool keyboard_has_input(void) {
    irq_guard guard;
    fetch_serial_locked();
    return !kb.keys.empty();
}

int keyboard_poll_scancode(void) {
    irq_guard guard;
    {
        irq_context_scope context;
        take_scancode_locked();
    }
    uint8_t scancode = 0;
    return kb.scancodes.pop(&scancode) ? scancode : -1;
}

void keyboard_inject_scancode(uint8_t sc) {
    irq_guard guard;
    kb.scancodes.push(sc);
}

void keyboard_flush(void) {
    irq_guard guard;
    kbc_drain();
    kb.chord = {};
    kb.keys.clear();
    kb.scancodes.clear();
}

void keyboard_suppress(bool on) {
    irq_guard guard;
    kb.suppress = on;
}

void keyboard_set_reset_hook(void (*hook)()) {
    irq_guard guard;
    kb.reset_hook = hook;
}

void keyboard_watch(uint8_t scancode) {
    irq_guard guard;
    watch_locked(scancode);
}

void keyboard_leave_to_poll(bool on) {
    irq_guard guard;
    irq_context_scope context;
    kb.polled = on;
    // A byte that stays there would keep the line from rising again.
    if (!on)
        take_scancode_locked();
}

void kb_irq_handler(registers_t*) {
    irq_guard guard;
    if (!kb.polled)
        take_scancode_locked();
}

void serial_irq_handler(registers_t*) {
    irq_guard guard;
    drain_serial_locked();
}
