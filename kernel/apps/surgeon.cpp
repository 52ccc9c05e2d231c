#include "kernel/apps/surgeon.h"

#include <stddef.h>

#include <array>

#include "arch/x86/cpu.h"
#include "arch/x86/image.h"
#include "arch/x86/tables.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/ksyms.h"
#include "kernel/core/memory.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/drivers/console.h"
#include "kernel/drivers/keyboard_ports.h"
#include "kernel/graph/causal.h"

namespace {

constexpr int MAX_FRAMES = 16;
constexpr int MAX_EVENTS = 8;
constexpr int STACK_WORDS = 16;
constexpr int DUMP_LINES = 8;
constexpr uint32_t DUMP_BYTES = 16;  // per line
constexpr uint32_t CR0_PAGING = 1u << 31;
constexpr size_t LINE_BYTES = 32;
constexpr size_t NAME_BYTES = 32;
constexpr int STALE_INPUT = 256;  // more than the controllers' buffers hold

// Scan code set 1 without shift, which no command needs: the key of '/' counts as '?'. Behind the
// prefix E0 the keypad's Enter and '/' have the codes of their twins, the rest have no character.
constexpr char KEYS[] =
    "\0\0"
    "1234567890-=\b\0"
    "qwertyuiop[]\n\0"
    "asdfghjkl;'`\0\\"
    "zxcvbnm,.?\0\0\0 ";
static_assert(KEYS[0x0E] == '\b' && KEYS[0x1C] == '\n' && KEYS[0x32] == 'm' && KEYS[0x39] == ' ');

struct inspector_t {
    uint32_t entries;  ///< exceptions taken, the first included
    uint32_t cpu;      ///< the processor that owns the inspector
    registers_t* regs;
    uint32_t cr2;
    uint32_t next_dump;
};
inspector_t state;

// --- What may be read ---

/// Whether [address, address + bytes) may be read; at most two pages.
bool readable(uint32_t address, uint32_t bytes) {
    const uint32_t last = address + bytes - 1;
    if (last < address)
        return false;
    if ((cpu_read_cr0() & CR0_PAGING) == 0)
        return last < IDENTITY_MAP_BYTES;
    return vmm_is_mapped(address) && vmm_is_mapped(last);
}

uint32_t word_at(uint32_t address) { return *reinterpret_cast<const volatile uint32_t*>(address); }

uint8_t byte_at(uint32_t address) { return *reinterpret_cast<const volatile uint8_t*>(address); }

uint32_t address_of(const void* object) { return reinterpret_cast<uintptr_t>(object); }

/// Copies a text that may be damaged or not there at all.
void copy_name(const char* text, char (&out)[NAME_BYTES]) {
    size_t length = 0;
    while (length < NAME_BYTES - 1 && readable(address_of(text + length), 1)) {
        const char c = text[length];
        if (c == '\0')
            break;
        out[length++] = c >= ' ' && c <= '~' ? c : '?';
    }
    out[length] = '\0';
}

/// The interrupted stack pointer: the processor pushed it only on the way up from ring 3.
uint32_t stack_pointer(const registers_t* regs) {
    return (regs->cs & 3) == 3 ? regs->user_esp : address_of(&regs->user_esp);
}

bool in_image(uint32_t address) {
    return address >= image_start() && address < image_readonly_end();
}

// --- Views ---

void print_code_address(uint32_t address) {
    uint32_t offset = 0;
    const char* name = ksym_lookup(address, &offset);
    if (name == nullptr)
        kprintf("0x%08x\n", address);
    else
        kprintf("0x%08x %s+0x%x\n", address, name, offset);
}

void show_registers(const char*) {
    const registers_t& r = *state.regs;
    kprintf("EIP=%08x EFLAGS=%08x CS=%04x DS=%04x ES=%04x FS=%04x GS=%04x\n", r.eip, r.eflags,
            r.cs & 0xFFFF, r.ds & 0xFFFF, r.es & 0xFFFF, r.fs & 0xFFFF, r.gs & 0xFFFF);
    kprintf("EAX=%08x EBX=%08x ECX=%08x EDX=%08x\n", r.eax, r.ebx, r.ecx, r.edx);
    kprintf("ESI=%08x EDI=%08x EBP=%08x ESP=%08x\n", r.esi, r.edi, r.ebp, stack_pointer(&r));
    kprintf("CR0=%08x CR2=%08x CR3=%08x\n", cpu_read_cr0(), state.cr2, cpu_read_cr3());
}

void print_frame(int number, uint32_t address) {
    kprintf(" #%d ", number);
    print_code_address(address);
}

/// Follows the frame pointers. Each must be aligned, readable and above the one before; behind the
/// dispatcher of an interrupt the walk goes on with what was interrupted.
void show_backtrace(const char*) {
    kprintf("backtrace:\n");
    uint32_t frame = state.regs->ebp;
    uint32_t lowest = stack_pointer(state.regs);
    int number = 0;
    print_frame(number++, state.regs->eip);
    // A call to nowhere leaves its return address on top of the stack.
    if (!in_image(state.regs->eip) && readable(lowest, sizeof(uint32_t)))
        print_frame(number++, word_at(lowest));
    while (number < MAX_FRAMES && frame >= lowest && frame % sizeof(uint32_t) == 0 &&
           readable(frame, 2 * sizeof(uint32_t))) {
        const uint32_t return_address = word_at(frame + 4);
        const uint32_t caller = word_at(frame);
        if (return_address == 0)
            return;
        print_frame(number++, return_address);
        lowest = frame + 2 * sizeof(uint32_t);
        frame = caller;
        // Behind the return address stand the dispatcher's argument and the saved registers.
        const uint32_t saved = lowest + sizeof(uint32_t);
        if (!stub_returns_to(return_address) || !readable(saved, offsetof(registers_t, user_esp)))
            continue;
        const auto* regs = reinterpret_cast<const registers_t*>(saved);
        kprintf(" -- interrupt %u --\n", regs->int_no);
        print_frame(number++, regs->eip);
        frame = regs->ebp;
        lowest = stack_pointer(regs);
    }
}

void show_stack(const char*) {
    uint32_t address = stack_pointer(state.regs);
    for (int i = 0; i < STACK_WORDS; ++i, address += sizeof(uint32_t)) {
        if (address % sizeof(uint32_t) != 0 || !readable(address, sizeof(uint32_t))) {
            kprintf(" 0x%08x cannot be read\n", address);
            return;
        }
        kprintf(" 0x%08x: ", address);
        print_code_address(word_at(address));
    }
}

/// An event and those that led to it, each through its first parent.
void print_chain(const char* title, const uint32_t* current) {
    if (current == nullptr || !readable(address_of(current), sizeof *current) || *current == 0) {
        kprintf("%s: none\n", title);
        return;
    }
    kprintf("%s, latest first:\n", title);
    uint32_t id = *current;
    for (int i = 0; i < MAX_EVENTS && id != 0; ++i) {
        const causal_event_t* event = causal_get_ring(id);
        if (event == nullptr) {
            kprintf(" #%u left the ring\n", id);
            return;
        }
        kprintf(" #%u T%u %s/%s: %s\n", id, event->time.wall_ticks, causal_type_name(event->type),
                event->subsystem, event->desc);
        id = event->num_parents > 0 ? event->parents[0] : 0;
    }
}

/// The current task, null where it cannot be read.
const task_t* readable_task() {
    const task_t* task = task_current();
    return task != nullptr && readable(address_of(task), sizeof *task) ? task : nullptr;
}

/// An interrupt handler has a context of its own; the task's stands beside it.
void show_events(const char*) {
    const task_t* task = readable_task();
    const uint32_t* current = running().causal_ctx;
    if (task != nullptr && current != &task->causal_ctx) {
        print_chain("events of the interrupt handler", current);
        current = &task->causal_ctx;
    }
    print_chain("events of the task", current);
}

void print_dump_line(uint32_t address) {
    char text[DUMP_BYTES + 1] = {};
    kprintf("%08x ", address);
    for (uint32_t i = 0; i < DUMP_BYTES; ++i) {
        const uint8_t byte = byte_at(address + i);
        kprintf(" %02x", byte);
        text[i] = byte >= ' ' && byte <= '~' ? static_cast<char>(byte) : '.';
    }
    kprintf("  %s\n", text);
}

void dump_memory(const char* argument) {
    uint32_t address = state.next_dump;
    if (hexval(*argument) >= 0)
        address = parse_hex(argument);
    else if (*argument != '\0') {
        kprintf("m ADDRESS: a hexadecimal number\n");
        return;
    }
    for (int line = 0; line < DUMP_LINES; ++line, address += DUMP_BYTES) {
        if (!readable(address, DUMP_BYTES)) {
            kprintf("0x%08x is not mapped\n", address);
            break;
        }
        print_dump_line(address);
    }
    state.next_dump = address;
}

void halt(const char*) {
    kprintf("halted\n");
    cpu_halt_forever();
}

void show_help(const char*);

struct inspector_command_t {
    char letter;
    void (*run)(const char* argument);
    const char* help;
};

constexpr std::array COMMANDS = {
    inspector_command_t{'r', show_registers, "registers"},
    inspector_command_t{'m', dump_memory, "memory at a hexadecimal ADDRESS; alone: the next bytes"},
    inspector_command_t{'s', show_stack, "stack"},
    inspector_command_t{'e', show_events, "events of the task"},
    inspector_command_t{'b', show_backtrace, "backtrace"},
    inspector_command_t{'h', halt, "halt"},
    inspector_command_t{'?', show_help, "this list"},
};

void show_help(const char*) {
    for (const inspector_command_t& command : COMMANDS)
        kprintf(" %c  %s\n", command.letter, command.help);
}

// --- Entry ---

void print_error_code(const registers_t* regs) {
    const uint32_t code = regs->err_code;
    if (regs->int_no == VECTOR_PAGE_FAULT) {
        const char* access = state.cr2 == regs->eip ? "fetch from" : "read of";
        if ((code & 0x2) != 0)
            access = "write to";
        const char* why = (code & 0x1) != 0 ? "protected" : "not mapped";
        if ((code & 0x8) != 0)
            why = "reserved bits in the page tables";
        kprintf("%s 0x%08x (%s) by ring %d\n", access, state.cr2, why, (code & 0x4) != 0 ? 3 : 0);
    } else if (code != 0) {
        const char* table = (code & 0x4) != 0 ? "LDT" : "GDT";
        if ((code & 0x2) != 0)
            table = "IDT";
        kprintf("%s entry %u%s\n", table, code >> 3, (code & 0x1) != 0 ? ", external" : "");
    }
}

void print_report(const registers_t* regs) {
    console_set_color(CONSOLE_BRIGHT_RED, CONSOLE_BLACK);
    kprintf("\n[FAULT] Kernel exception: %s (vector %u, error 0x%x)\n", exc_names[regs->int_no],
            regs->int_no, regs->err_code);
    console_set_color(CONSOLE_GREY, CONSOLE_BLACK);
    print_error_code(regs);
    char name[NAME_BYTES];
    copy_name(running().name, name);
    kprintf("task '%s' (pid %d), processor %u, tick %u\n", name, running().pid, state.cpu,
            system_ticks);
    const task_t* task = readable_task();
    if (task != nullptr && readable(task->stack_bottom, sizeof(uint32_t)) && task->pid != 0 &&
        word_at(task->stack_bottom) != TASK_STACK_CANARY)
        kprintf("the task has overrun its stack, which ends at 0x%08x\n", task->stack_bottom);
    show_registers("");
    show_events("");
    show_backtrace("");
}

/// Output goes to the local machine from here on, and nowhere else.
void take_console() {
    console_force_local();
    kprintf_set_log(nullptr);
}

/// A character if the serial line has one, else '\0'.
char poll_serial() { return serial_has_byte() ? static_cast<char>(inb(SERIAL_DATA)) : '\0'; }

/// A character if a key went down that makes one, else '\0'.
char poll_keyboard() {
    const bool from_mouse = (inb(KBC_STATUS) & KBC_FROM_MOUSE) != 0;
    if (!kbc_has_byte())
        return '\0';
    const uint8_t code = inb(KBC_DATA);
    return !from_mouse && code < sizeof KEYS ? KEYS[code] : '\0';
}

char wait_key() {
    for (;;) {
        char c = poll_serial();
        if (c == '\0')
            c = poll_keyboard();
        if (c != '\0')
            return c == '\r' ? '\n' : c;
        cpu_pause();
    }
}

/// What was typed before the fault was not meant for the inspector.
void drop_input() {
    for (int i = 0; i < STALE_INPUT; ++i) {
        poll_serial();
        poll_keyboard();
    }
}

/// Reads up to Enter; printable characters and backspace only.
void read_line(char (&line)[LINE_BYTES]) {
    size_t length = 0;
    for (;;) {
        const char c = wait_key();
        if (c == '\n')
            break;
        if ((c == '\b' || c == 0x7F) && length > 0) {
            --length;
            kprintf("\b \b");
        } else if (c >= ' ' && c <= '~' && length < LINE_BYTES - 1) {
            line[length++] = c;
            console_putchar(c);
        }
    }
    line[length] = '\0';
    kprintf("\n");
}

void run_line(const char* line) {
    while (*line == ' ')
        ++line;
    if (*line == '\0')
        return;
    const char* argument = line + 1;
    while (*argument == ' ')
        ++argument;
    for (const inspector_command_t& command : COMMANDS) {
        if (command.letter == *line) {
            command.run(argument);
            return;
        }
    }
    kprintf("no such command; ? lists them\n");
}

}  // namespace

void surgeon_init(void) { state = {}; }

void surgeon_enter(registers_t* regs) {
    cpu_cli();
    const uint32_t cpu = cpu_id();
    if (state.entries > 0 && cpu != state.cpu)
        cpu_halt_forever();
    if (++state.entries > 1) {
        if (state.entries == 2)
            kprintf("\n[FAULT] Kernel exception: %s inside the fault inspector EIP=0x%x, halted\n",
                    exc_names[regs->int_no % EXCEPTION_COUNT], regs->eip);
        cpu_halt_forever();
    }
    state.cpu = cpu;
    state.regs = regs;
    state.cr2 = cpu_read_cr2();
    state.next_dump = stack_pointer(regs);
    take_console();
    drop_input();
    print_report(regs);
    kprintf("The system is stopped. Letter, then Enter; ? for help.\n");
    for (;;) {
        char line[LINE_BYTES];
        kprintf("surgeon> ");
        read_line(line);
        run_line(line);
    }
}
