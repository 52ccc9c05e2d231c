// Replay: what the system looked like at a past tick, told from the events in the ring alone, and
// what changed between two ticks. The picture is approximate: it counts what descriptions say, and
// events that left the ring no longer take part.
#pragma once

#include <stdint.h>

#include "kernel/graph/causal.h"

constexpr uint32_t REPLAY_RECENT = 8;
constexpr int REPLAY_TASKS = 16;
constexpr int REPLAY_ACTORS = 8;
constexpr uint32_t REPLAY_NAME_SIZE = 32;  ///< with the terminator

struct replay_task_t {
    uint32_t pid;
    char name[REPLAY_NAME_SIZE];
};

/// The system at `tick`.
struct replay_snapshot_t {
    uint32_t tick;
    uint32_t tasks_created, tasks_exited, tasks_alive;
    uint32_t net_tx, net_rx;              ///< events that speak of sending and receiving
    uint32_t net_bytes_tx, net_bytes_rx;  ///< estimates: 64 bytes an event
    uint32_t disk_reads, disk_writes, fs_ops, actor_msgs, syscalls;
    uint32_t total_events;               ///< at or before `tick`
    uint32_t recent_ids[REPLAY_RECENT];  ///< the last events counted, oldest first
    uint32_t recent_count;
    int32_t active_task_count;
    replay_task_t active_tasks[REPLAY_TASKS];
    int32_t active_actor_count;
    char active_actors[REPLAY_ACTORS][REPLAY_NAME_SIZE];
    int32_t conn_events;  ///< open TCP connections, by their events
};

/// Prints the start-up line.
void replay_init();

/// Fills `snap` with the system at `tick`. 0, or -1 for a null `snap`. Task context.
int replay_at(uint32_t tick, replay_snapshot_t* snap);

/// Prints a snapshot. Task context.
void replay_print(const replay_snapshot_t* snap);

/// Prints what changed from the earlier of two ticks to the later one. Task context.
void replay_diff(uint32_t tick_a, uint32_t tick_b);

/// `replay <tick> [tick2]`.
void cmd_replay(int argc, char** argv);
