// What the system is and how it fares: version, time, terminal, interrupts, log.
#include "arch/x86/hal.h"
#include "arch/x86/vga.h"
#include "kernel/apps/cmd_system.h"
#include "kernel/apps/shell.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/core/tempcap.h"
#include "kernel/core/version.h"
#include "kernel/drivers/console.h"
#include "kernel/drivers/dmesg.h"
#include "kernel/graph/causal.h"

namespace {

constexpr uint32_t TICKS_PER_SECOND = 100;
constexpr uint32_t TICKS_PER_MINUTE = 60 * TICKS_PER_SECOND;

constexpr const char* IRQ_DEVICES[IRQ_LINES] = {
    "PIT Timer",  "Keyboard",      "Cascade",     "COM2",          "COM1", "LPT2",
    "Floppy",     "LPT1/Spurious", "RTC",         "Free",          "Free", "Free",
    "PS/2 Mouse", "FPU",           "ATA Primary", "ATA Secondary",
};

/// The start of the last `lines` lines of a text of `length` bytes.
const char* last_lines(const char* text, int length, uint32_t lines) {
    int at = length;
    // The line feed that ends the last line separates nothing.
    if (at > 0 && text[at - 1] == '\n')
        --at;
    while (at > 0 && (text[at - 1] != '\n' || --lines != 0))
        --at;
    return text + at;
}

}  // namespace

void cmd_echo(int argc, char** argv) {
    char text[SHELL_LINE_BYTES];
    shell_concat_args(text, sizeof text, argc, argv, 1);
    kprintf("%s\n", text);
}

void cmd_clear(int, char**) { console_clear(); }

void cmd_uname(int, char**) { kprintf("Vorn %s (%s) — i686 x86\n", VORN_VERSION, VORN_LONG_NAME); }

void cmd_termsize(int, char**) {
    int rows = 0;
    int columns = 0;
    task_t* task = task_current();
    if (task == nullptr || !task_get_term_size(task, &rows, &columns)) {
        rows = VGA_ROWS;
        columns = VGA_COLUMNS;
    }
    kprintf("Terminal size: %dx%d\n", columns, rows);
}

void cmd_uptime(int, char**) {
    const uint32_t ticks = system_ticks;
    kprintf("Uptime: %um %us (%u ticks)\n", ticks / TICKS_PER_MINUTE, ticks / TICKS_PER_SECOND % 60,
            ticks);
}

void cmd_irqstat(int, char**) {
    const uint32_t ticks = system_ticks;
    const uint32_t seconds = ticks < TICKS_PER_SECOND ? 1 : ticks / TICKS_PER_SECOND;
    console_set_color(CONSOLE_BRIGHT_CYAN, CONSOLE_BLACK);
    kprintf("IRQ Statistics (uptime: %u sec)\n", seconds);
    console_set_color(CONSOLE_GREY, CONSOLE_BLACK);
    kprintf("IRQ  COUNT        RATE/s   DEVICE\n");
    kprintf("---  -----------  -------  ------\n");
    uint32_t sum = 0;
    for (int line = 0; line < IRQ_LINES; ++line) {
        const uint32_t count = irq_counts[line];
        sum += count;
        if (count == 0)
            continue;
        const bool busy = count >= seconds;
        console_set_color(busy ? CONSOLE_BRIGHT_GREEN : CONSOLE_DARK_GREY, CONSOLE_BLACK);
        kprintf("%3d  %11u  %7u  %s\n", line, count, count / seconds, IRQ_DEVICES[line]);
    }
    console_set_color(CONSOLE_YELLOW, CONSOLE_BLACK);
    kprintf("---  -----------  -------\n");
    kprintf("     %11u  %7u  TOTAL\n", sum, sum / seconds);
    console_set_color(CONSOLE_GREY, CONSOLE_BLACK);
}

void cmd_halt(int, char**) {
    constexpr uint32_t WAIT_TICKS = 50;
    if (!tempcap_require(CAP_ADMIN, "power off")) {
        kprintf("halt: permission denied (need admin)\n");
        return;
    }
    console_set_color(CONSOLE_BRIGHT_CYAN, CONSOLE_BLACK);
    kprintf("\n  Powering off Vorn...\n");
    kprintf("  Thank you for exploring!\n\n");
    console_set_color(CONSOLE_GREY, CONSOLE_BLACK);
    task_sleep_unrecorded(WAIT_TICKS);
    causal_emit(CAUSAL_SHELL, "system", "ACPI poweroff", nullptr, 0);
    hal_shutdown();
}

void cmd_dmesg(int argc, char** argv) {
    uint32_t lines = 0;  // all
    if (argc > 2 || (argc == 2 && (safe_parse_uint(argv[1], &lines) != 0 || lines == 0))) {
        kprintf("Usage: dmesg [lines]\n");
        return;
    }
    char text[DMESG_BYTES];
    const int length = dmesg_read(text, sizeof text);
    if (length == 0)
        console_write("(dmesg buffer empty)\n");
    else
        console_write(lines == 0 ? text : last_lines(text, length, lines));
}
