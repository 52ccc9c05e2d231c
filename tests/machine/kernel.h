// What tests above the store share: a booted kernel without devices, its events, its commands.
#pragma once

#include <string>
#include <vector>

#include "arch/x86/switch.h"
#include "kernel/apps/shell.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/task.h"
#include "kernel/graph/causal.h"
#include "tests/machine/memory.h"

/// Memory, interrupts, an event store and tasks, all anew; port accesses are not logged.
inline void boot_kernel(uint32_t megabytes = 128) {
    machine_boot_memory(megabytes);
    machine().log_ports = false;
    fake_switch_reset();
    interrupt_init();
    running() = {};
    causal_init();
    task_init();
    machine_texts().clear();
}

/// The text of the newest event, or of one before it.
inline std::string newest(uint32_t before = 0) {
    return causal_get_ring(causal_total_events() - before)->desc;
}

/// What a command prints for these arguments.
inline std::string run(void (*command)(int, char**), std::vector<std::string> args = {}) {
    args.insert(args.begin(), "name");
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    machine_texts().clear();
    command(static_cast<int>(argv.size()), argv.data());
    return machine_texts();
}

/// What a command prints for a line as it is typed.
inline std::string run_line(command_fn command, std::string line) {
    char* argv[SHELL_ARGS_MAX];
    machine_texts().clear();
    command(parse_args(line.data(), argv), argv);
    return machine_texts();
}
