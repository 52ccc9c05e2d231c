// Scheduled commands: up to 16 command lines, each to be run once at its tick by the task
// "sched_app", one after another. The timeline "schedule" tells what was scheduled and what ran.
//
// A line runs with no more capabilities than the task had that scheduled it. Slots change under
// irq_guard; task context. A line that fires records CAUSAL_SHELL "sched" "fired: %s", which
// follows the scheduling.
#pragma once

#include <stdint.h>

constexpr int SCHED_APP_SLOTS = 16;
constexpr uint32_t SCHED_APP_COMMAND_SIZE = 128;  ///< with the terminator

struct sched_entry_t {
    uint32_t tick;  ///< when to run, counted as system_ticks
    char command[SCHED_APP_COMMAND_SIZE];
    bool active;
    uint32_t event_id;  ///< the timeline's event of the scheduling; in a copy, the slot's number
};

/// Makes the timeline "schedule", clears the slots and starts the task "sched_app". Start-up.
void sched_app_init();

/// A line that overruns the task's stack ends the task: gives the lines that wait a new one. Of the
/// boot task, whenever it idles.
void sched_app_revive();

/// Schedules a line, cut at 127 characters; one whose tick has passed runs at the next tick. The
/// slot's number; -1 without the timeline or, with a line about it, when all slots are in use.
[[nodiscard]] int sched_app_add(uint32_t tick, const char* command);

/// Frees a slot: 0; -1 when it is not in use or there is no such slot.
[[nodiscard]] int sched_app_remove(int slot);

/// Copies the slots in use, at most `max`; their number.
int sched_app_get_entries(sched_entry_t* out, int max);

/// Runs what is due. Part of the task "sched_app".
void sched_app_tick();

/// Prints the lines that wait.
void sched_app_list();

/// `schedule <tick> <command...>`: sched_app_add.
void cmd_schedule(int argc, char** argv);

/// `scheduled`: sched_app_list.
void cmd_scheduled(int argc, char** argv);
