// The shell task: what start-up shows last, then the interactive loop.
#include <initializer_list>

#include "kernel/apps/shell.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/liveness.h"
#include "kernel/core/memory.h"
#include "kernel/core/smp.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/core/version.h"
#include "kernel/drivers/console.h"
#include "kernel/graph/actor.h"

namespace {

constexpr uint32_t CHECKLIST_TICKS = 50;  // that the checklist stays on the screen
constexpr uint32_t FRAME_KB = PAGE_SIZE / 1024;

// Nothing registers programs.
constexpr int PROGRAMS = 0;

constexpr int CAPTURE_BYTES = 512;

constexpr const char* LOGO =
    "    ##   ##   #####   ######   ##   ##\n"
    "    ##   ##  ##   ##  ##   ##  ###  ##\n"
    "    ##   ##  ##   ##  ######   ## # ##\n"
    "     ## ##   ##   ##  ##  ##   ##  ###\n"
    "      ###     #####   ##   ##  ##   ##\n";
constexpr char FULL_BLOCK = '\xdb';  // of code page 437; '#' above

void set_color(uint8_t color) { console_set_color(color, CONSOLE_BLACK); }

/// Prints `label` in `color`, then makes white the colour of the value.
void print_label(uint8_t color, const char* label) {
    set_color(color);
    kprintf("%s", label);
    set_color(CONSOLE_WHITE);
}

void check_off(const char* item) {
    set_color(CONSOLE_GREY);
    kprintf("  [ ");
    set_color(CONSOLE_BRIGHT_GREEN);
    kprintf(" OK ");
    set_color(CONSOLE_GREY);
    kprintf(" ] %s\n", item);
}

/// Runs commands whose output nobody needs to see.
void run_unseen(std::initializer_list<const char*> lines) {
    char output[CAPTURE_BYTES];
    console_start_capture(output, sizeof output);
    for (const char* line : lines)
        shell_exec(line);
    console_stop_capture();
}

void start_services() {
    set_color(CONSOLE_WHITE);
    kprintf("\n  Vorn %s — booting services...\n\n", VORN_VERSION);
    check_off("Memory manager (PMM + VMM)");
    check_off("Interrupt controller (PIC/PIT @ 100Hz)");
    check_off("Task scheduler (8 priorities, preemptive)");
    check_off("RAM filesystem mounted at /");
    run_unseen({"mkdir /tmp/test", "write /tmp/test/hello.txt Hello, world!"});
    check_off("Initial filesystem populated");
    if (smp_cpu_count() == 1)
        run_unseen(
            {"note add Hello from Vorn boot", "mail send admin Welcome First mail in Vorn!"});
    check_off("Causal event graph started");
    check_off("Timeline framework initialized");
    char actors[40];
    ksnprintf(actors, sizeof actors, "Actor system (%d actors registered)", actor_count());
    check_off(actors);
    run_unseen({"run /home/demo.sl"});
    check_off("Boot scripts executed");
    set_color(CONSOLE_WHITE);
    kprintf("\n  Boot complete.\n\n");
}

void print_logo() {
    set_color(CONSOLE_BRIGHT_CYAN);
    for (const char* c = LOGO; *c != '\0'; ++c)
        kprintf("%c", *c == '#' ? FULL_BLOCK : *c);
}

void print_banner() {
    console_clear();
    kprintf("\n");
    print_logo();
    set_color(CONSOLE_BRIGHT_GREEN);
    kprintf("\n    Distributed Actor Operating System\n\n");
    print_label(CONSOLE_GREY, "  Kernel: ");
    kprintf("Vorn x86-32");
    print_label(CONSOLE_GREY, "    Memory: ");
    kprintf("%u MB", pmm_total_frames() / (1024 / FRAME_KB));
    print_label(CONSOLE_GREY, "    Programs: ");
    kprintf("%d\n", PROGRAMS);
    print_label(CONSOLE_GREY, "  Actors: ");
    kprintf("%d", actor_count());
    print_label(CONSOLE_GREY, "             Uptime: ");
    kprintf("%u ticks", system_ticks);
    print_label(CONSOLE_GREY, "   Type ");
    kprintf("'help'");
    set_color(CONSOLE_GREY);
    kprintf(" for commands\n\n");
    print_label(CONSOLE_BRIGHT_GREEN, "  Identity  ");
    kprintf("(initializing...)\n");
    print_label(CONSOLE_BRIGHT_GREEN, "  Actors    ");
    kprintf("%d registered", actor_count());
    if (actor_route_count() > 0) {
        print_label(CONSOLE_BRIGHT_GREEN, "    Routes  ");
        kprintf("%d active", actor_route_count());
    }
    kprintf("\n");
    set_color(CONSOLE_GREY);
}

}  // namespace

void shell_task(void) {
    constexpr uint32_t BEAT_TICKS = 300;
    liveness_register_task("shell", BEAT_TICKS);
    shell_init();
    start_services();
    if (smp_cpu_count() == 1)
        task_sleep_unrecorded(CHECKLIST_TICKS);
    print_banner();
    shell_run();
}
