// The shell task: what start-up ends in.
#include "kernel/apps/shell.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"
#include "kernel/core/task.h"
#include "kernel/core/version.h"
#include "kernel/drivers/console.h"

namespace {

constexpr uint32_t WELCOME_PAUSE_TICKS = 50;

constexpr const char* LOGO =
    "    \xDB\xDB    \xDB\xDB  \xDB\xDB\xDB\xDB\xDB\xDB  \xDB\xDB\xDB\xDB\xDB\xDB  \xDB\xDB\xDB   "
    "\xDB\xDB\n"
    "    \xDB\xDB    \xDB\xDB \xDB\xDB    \xDB\xDB \xDB\xDB   \xDB\xDB \xDB\xDB\xDB\xDB  \xDB\xDB\n"
    "    \xDB\xDB    \xDB\xDB \xDB\xDB    \xDB\xDB \xDB\xDB\xDB\xDB\xDB\xDB  \xDB\xDB \xDB\xDB "
    "\xDB\xDB\n"
    "     \xDB\xDB  \xDB\xDB  \xDB\xDB    \xDB\xDB \xDB\xDB   \xDB\xDB \xDB\xDB  \xDB\xDB\xDB\xDB\n"
    "      \xDB\xDB\xDB\xDB    \xDB\xDB\xDB\xDB\xDB\xDB  \xDB\xDB   \xDB\xDB \xDB\xDB   "
    "\xDB\xDB\xDB\n";

void colored(console_color_t color, const char* text) {
    console_set_color(color, CONSOLE_BLACK);
    kprint_text(text);
}

void checklist(const char* item) {
    colored(CONSOLE_GREY, "  [ ");
    colored(CONSOLE_BRIGHT_GREEN, " OK ");
    console_set_color(CONSOLE_GREY, CONSOLE_BLACK);
    kprintf(" ] %s\n", item);
}

void print_checklist() {
    console_set_color(CONSOLE_WHITE, CONSOLE_BLACK);
    kprintf("\n  Vorn %s — booting services...\n\n", VORN_VERSION);
    checklist("Memory manager (PMM + VMM)");
    checklist("Interrupt controller (PIC/PIT @ 100Hz)");
    checklist("Task scheduler (8 priorities, preemptive)");
    checklist("Causal event graph started");
    colored(CONSOLE_WHITE, "\n  Boot complete.\n\n");
}

/// Leaves the checklist on the screen for half a second.
void pause_before_banner() {
    const uint32_t start = system_ticks;
    while (system_ticks - start < WELCOME_PAUSE_TICKS)
        task_sleep(1);
}

void print_banner() {
    constexpr uint32_t FRAMES_PER_MB = (1u << 20) / PAGE_SIZE;
    console_clear();
    kprintf("\n");
    colored(CONSOLE_BRIGHT_CYAN, LOGO);
    kprintf("\n");
    colored(CONSOLE_BRIGHT_GREEN, "    Distributed Actor Operating System\n");
    kprintf("\n");
    colored(CONSOLE_GREY, "  Kernel: ");
    colored(CONSOLE_WHITE, "Vorn x86-32");
    colored(CONSOLE_GREY, "    Memory: ");
    console_set_color(CONSOLE_WHITE, CONSOLE_BLACK);
    kprintf("%u MB", pmm_total_frames() / FRAMES_PER_MB);
    colored(CONSOLE_GREY, "    Programs: ");
    colored(CONSOLE_WHITE, "0\n");
    colored(CONSOLE_GREY, "  Actors: ");
    colored(CONSOLE_WHITE, "0");
    colored(CONSOLE_GREY, "             Uptime: ");
    console_set_color(CONSOLE_WHITE, CONSOLE_BLACK);
    kprintf("%u ticks", system_ticks);
    colored(CONSOLE_GREY, "   Type ");
    colored(CONSOLE_WHITE, "'help'");
    colored(CONSOLE_GREY, " for commands\n\n");
    colored(CONSOLE_BRIGHT_GREEN, "  Identity  ");
    colored(CONSOLE_WHITE, "(initializing...)\n");
    colored(CONSOLE_BRIGHT_GREEN, "  Actors    ");
    colored(CONSOLE_WHITE, "0 registered\n");
    console_set_color(CONSOLE_GREY, CONSOLE_BLACK);
}

}  // namespace

void shell_task(void) {
    print_checklist();
    pause_before_banner();
    print_banner();
    shell_run();
}
