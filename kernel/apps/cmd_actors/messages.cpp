// Messages from the console.
#include <algorithm>

#include "kernel/apps/cmd_actors.h"
#include "kernel/apps/shell.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/graph/actor.h"

namespace {

constexpr uint32_t TEXT_MESSAGE = 1;
constexpr uint32_t PING_MESSAGE = 0;

/// A message of the shell counts for the shell's actor, whoever's terminal it is typed at; sending
/// counts for an actor of the running task by itself.
void count_for_shell() {
    const actor_t* shell = actor_get(shell_actor_id);
    if (shell != nullptr && shell->owner_pid != running().pid)
        actor_count_send(shell_actor_id);
}

/// Text as it is, other bytes so that they do the terminal no harm.
void print_data(const actor_msg_t& msg) {
    constexpr char SPACE = ' ';
    constexpr char DELETE = 0x7f;
    char text[ACTOR_DATA_MAX + 1];
    size_t len = 0;
    for (uint32_t i = 0; i < std::min(msg.len, ACTOR_DATA_MAX); ++i) {
        const char c = static_cast<char>(msg.data[i]);
        const bool control = static_cast<uint8_t>(c) < SPACE || c == DELETE;
        if (c != '\0')
            text[len++] = control ? '?' : c;
    }
    text[len] = '\0';
    kprintf("%s\n", text);
}

// --- aping ---

constexpr int PINGS_DEFAULT = 4;
constexpr int PINGS_MAX = 32;
constexpr uint32_t CALIBRATION_TICKS = 5;
constexpr uint64_t US_PER_TICK = 10000;

/// The time-stamp counter's steps in a tick, as it runs now.
uint32_t measure_cycles_per_tick() {
    task_sleep(1);
    const causal_time_t start = causal_now();
    task_sleep(CALIBRATION_TICKS - 1);
    task_sleep(1);
    const causal_time_t end = causal_now();
    return std::max(1u,
                    (end.tsc_lo - start.tsc_lo) / std::max(1u, end.wall_ticks - start.wall_ticks));
}

struct ping_figures_t {
    int delivered;
    uint32_t least, most;  ///< microseconds
    uint64_t sum;

    void add(uint32_t us) {
        least = delivered == 0 ? us : std::min(least, us);
        most = std::max(most, us);
        sum += us;
        ++delivered;
    }
};

/// Sends one message by name; false when nobody took it.
bool ping(const char* name, uint32_t cycles_per_tick, uint32_t* us) {
    const uint32_t start = causal_now().tsc_lo;
    const int result = actor_send_by_name(name, PING_MESSAGE, nullptr, 0);
    const uint32_t cycles = causal_now().tsc_lo - start;
    const uint32_t send_event = causal_get_current();
    if (result != 0)
        return false;
    *us = static_cast<uint32_t>(cycles * US_PER_TICK / cycles_per_tick);
    actor_take_back(actor_find(name), send_event);
    return true;
}

void ping_times(const char* name, int count) {
    const uint32_t cycles_per_tick = measure_cycles_per_tick();
    ping_figures_t figures = {};
    for (int i = 1; i <= count; ++i) {
        uint32_t us;
        if (ping(name, cycles_per_tick, &us)) {
            figures.add(us);
            kprintf("  seq=%d time=%u us\n", i, us);
        } else {
            kprintf("  seq=%d not delivered\n", i);
        }
        task_sleep(1);
    }
    kprintf("%d sent, %d delivered", count, figures.delivered);
    if (figures.delivered > 0)
        kprintf(", min/avg/max %u/%u/%u us", figures.least,
                static_cast<uint32_t>(figures.sum / static_cast<uint32_t>(figures.delivered)),
                figures.most);
    kprintf("\n");
}

}  // namespace

void cmd_send(int argc, char** argv) {
    if (argc < 3) {
        kprintf("Usage: send <actor_name> <message...>\n");
        return;
    }
    char text[ACTOR_DATA_MAX];
    const int len = shell_concat_args(text, sizeof text, argc, argv, 2);
    count_for_shell();
    switch (actor_send_by_name(argv[1], TEXT_MESSAGE, text, static_cast<uint32_t>(len) + 1)) {
        case 0:
            kprintf("Sent %d bytes to '%s'\n", len, argv[1]);
            return;
        case -1:
            kprintf("send: mailbox full for '%s'\n", argv[1]);
            return;
        default:
            kprintf("send: actor '%s' not found\n", argv[1]);
    }
}

void cmd_recv(int argc, char** argv) {
    if (argc < 2) {
        kprintf("Usage: recv <actor_name>\n");
        return;
    }
    const int actor_id = actor_find(argv[1]);
    if (actor_id < 0) {
        kprintf("recv: actor '%s' not found\n", argv[1]);
        return;
    }
    actor_msg_t msg;
    if (actor_recv(actor_id, &msg) != 0) {
        kprintf("recv: no messages for '%s'\n", argv[1]);
        return;
    }
    kprintf("[type=%u from=%u", msg.type, msg.sender_id);
    if (msg.sender_node != 0)
        kprintf("@%x", msg.sender_node);
    kprintf(" t=%u] ", msg.timestamp);
    print_data(msg);
}

void cmd_watch(int argc, char** argv) {
    if (argc < 2) {
        kprintf("usage: watch <actor_name>\n");
        return;
    }
    if (actor_get(shell_actor_id) == nullptr) {
        kprintf("shell actor not registered\n");
        return;
    }
    const int target = actor_find(argv[1]);
    if (target < 0)
        kprintf("actor '%s' not found\n", argv[1]);
    else if (actor_watch(shell_actor_id, target) == 0)
        kprintf("watching '%s' (id %d)\n", argv[1], target);
    else
        kprintf("failed to watch '%s'\n", argv[1]);
}

void cmd_aping(int argc, char** argv) {
    int count = PINGS_DEFAULT;
    if (argc < 2) {
        kprintf("Usage: aping <actor_name> [count]\n");
        return;
    }
    if (argc > 2 && (safe_atoi(argv[2], &count) != 0 || count < 1 || count > PINGS_MAX)) {
        kprintf("aping: invalid count '%s' (1 to %d)\n", argv[2], PINGS_MAX);
        return;
    }
    const actor_t* actor = actor_get(actor_find(argv[1]));
    if (actor == nullptr) {
        kprintf("aping: actor '%s' not found\n", argv[1]);
        return;
    }
    kprintf("aping %s (id %u, %s)\n", argv[1], actor->id, actor->remote ? "remote" : "local");
    ping_times(argv[1], count);
}
