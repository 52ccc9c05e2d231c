#include "kernel/graph/replay.h"

#include <algorithm>

#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/ring_read.h"

namespace {

constexpr uint32_t BYTES_AN_EVENT = 64;

bool says(const char* desc, const char* word) { return strstr(desc, word) != nullptr; }

bool starts(const char* text, const char* word) {
    while (*word != '\0' && *text == *word) {
        ++text;
        ++word;
    }
    return *word == '\0';
}

/// At most 32 words to look for in a description, and which of them begin with a letter (or with
/// the few other characters that share its place).
template <size_t count>
struct words_t {
    const char* words[count];
    uint32_t by_initial[32] = {};

    template <typename... word_t>
    consteval explicit words_t(word_t... list) : words{list...} {
        static_assert(count <= 32);
        for (size_t i = 0; i < count; ++i)
            by_initial[words[i][0] & 31] |= 1u << i;
    }
    /// Which of them stand in `desc`, word i as bit i. In one pass, because a replay asks it of
    /// most events.
    uint32_t in(const char* desc) const {
        uint32_t found = 0;
        for (; *desc != '\0'; ++desc) {
            for (uint32_t left = by_initial[*desc & 31]; left != 0; left &= left - 1) {
                const auto i = static_cast<uint32_t>(__builtin_ctz(left));
                if (starts(desc, words[i]))
                    found |= 1u << i;
            }
        }
        return found;
    }
};
template <typename... word_t>
words_t(word_t...) -> words_t<sizeof...(word_t)>;

/// Copies what stands behind `key` up to the next space; false when `key` is not there.
bool field_value(const char* desc, const char* key, char (&out)[REPLAY_NAME_SIZE]) {
    const char* at = strstr(desc, key);
    if (at == nullptr)
        return false;
    at += strlen(key);
    uint32_t n = 0;
    for (; n < REPLAY_NAME_SIZE - 1 && at[n] != '\0' && at[n] != ' '; ++n)
        out[n] = at[n];
    out[n] = '\0';
    return true;
}

/// The number behind "pid="; false when there is none.
bool field_pid(const char* desc, uint32_t* pid) {
    char value[REPLAY_NAME_SIZE];
    return field_value(desc, "pid=", value) && safe_parse_uint(value, pid) == 0;
}

int find_task(const replay_snapshot_t& snap, uint32_t pid) {
    for (int i = 0; i < snap.active_task_count; ++i) {
        if (snap.active_tasks[i].pid == pid)
            return i;
    }
    return -1;
}

void add_task(replay_snapshot_t& snap, const char* desc) {
    replay_task_t task;
    if (snap.active_task_count == REPLAY_TASKS || !field_pid(desc, &task.pid) ||
        !field_value(desc, "name=", task.name) || task.name[0] == '\0')
        return;
    if (find_task(snap, task.pid) < 0)
        snap.active_tasks[snap.active_task_count++] = task;
}

void remove_task(replay_snapshot_t& snap, const char* desc) {
    uint32_t pid;
    const int at = field_pid(desc, &pid) ? find_task(snap, pid) : -1;
    if (at < 0)
        return;
    --snap.active_task_count;
    for (int i = at; i < snap.active_task_count; ++i)
        snap.active_tasks[i] = snap.active_tasks[i + 1];
}

void count_sched(replay_snapshot_t& snap, const char* desc) {
    static constexpr words_t WORDS("pri=", "create", "spawn", "exit", "dead", "reap");
    constexpr uint32_t BIRTHS = 0b000111;
    const uint32_t said = WORDS.in(desc);
    if ((said & BIRTHS) != 0) {
        ++snap.tasks_created;
        add_task(snap, desc);
    }
    if ((said & ~BIRTHS) != 0) {
        ++snap.tasks_exited;
        remove_task(snap, desc);
    }
}

void count_mem(replay_snapshot_t& snap, const char* desc) {
    static constexpr words_t WRITES("write", "store");
    if (WRITES.in(desc) != 0)
        ++snap.disk_writes;
    else
        ++snap.disk_reads;
}

void count_net(replay_snapshot_t& snap, const char* desc) {
    if (says(desc, "tx") || says(desc, "send"))
        ++snap.net_tx;
    else if (says(desc, "rx") || says(desc, "recv"))
        ++snap.net_rx;
    if (says(desc, "tcp connect") || says(desc, "tcp accept"))
        ++snap.conn_events;
    else if (says(desc, "tcp close") && snap.conn_events > 0)
        --snap.conn_events;
}

void add_actor(replay_snapshot_t& snap, const char* desc) {
    char name[REPLAY_NAME_SIZE];
    if (!says(desc, "register") || !field_value(desc, "name=", name))
        return;
    if (snap.active_actor_count == REPLAY_ACTORS)
        return;
    for (int i = 0; i < snap.active_actor_count; ++i) {
        if (strcmp(snap.active_actors[i], name) == 0)
            return;
    }
    memcpy(snap.active_actors[snap.active_actor_count++], name, sizeof name);
}

/// What a replay looks at.
struct seen_t {
    bool counts;  ///< it happened at or before the tick
    causal_type_t type;
    char desc[CAUSAL_DESC_SIZE];  ///< of the types that tell by it
};

bool tells_by_text(causal_type_t type) {
    return type == CAUSAL_SCHED || type == CAUSAL_MEM || type == CAUSAL_NET || type == CAUSAL_ACTOR;
}

/// The recent identifiers stay in a circle until all are there.
void count_event(replay_snapshot_t& snap, uint32_t id, const seen_t& ev) {
    snap.recent_ids[snap.total_events++ % REPLAY_RECENT] = id;
    switch (ev.type) {
        case CAUSAL_SCHED:
            count_sched(snap, ev.desc);
            break;
        case CAUSAL_MEM:
            count_mem(snap, ev.desc);
            break;
        case CAUSAL_FS:
            ++snap.fs_ops;
            break;
        case CAUSAL_NET:
            count_net(snap, ev.desc);
            break;
        case CAUSAL_SYSCALL:
            ++snap.syscalls;
            break;
        case CAUSAL_ACTOR:
            ++snap.actor_msgs;
            add_actor(snap, ev.desc);
            break;
        default:
            break;
    }
}

void straighten_recent(replay_snapshot_t& snap) {
    snap.recent_count = std::min(snap.total_events, REPLAY_RECENT);
    if (snap.total_events > REPLAY_RECENT)
        std::rotate(snap.recent_ids, snap.recent_ids + snap.total_events % REPLAY_RECENT,
                    snap.recent_ids + REPLAY_RECENT);
}

void print_people(const replay_snapshot_t& snap) {
    if (snap.active_task_count > 0) {
        kprintf("  Active:");
        for (int i = 0; i < snap.active_task_count; ++i)
            kprintf("  [%d] %s", static_cast<int>(snap.active_tasks[i].pid),
                    snap.active_tasks[i].name);
        kprintf("\n");
    }
    if (snap.active_actor_count > 0) {
        kprintf("  Actors:");
        for (int i = 0; i < snap.active_actor_count; ++i)
            kprintf("  %s", snap.active_actors[i]);
        kprintf("\n");
    }
}

void print_recent(const replay_snapshot_t& snap) {
    if (snap.recent_count == 0)
        return;
    kprintf("Recent:\n");
    causal_event_t ev;
    for (uint32_t i = snap.recent_count; i > 0; --i) {
        if (causal_copy(snap.recent_ids[i - 1], &ev))
            kprintf("  [%u] T+%u %s %s: %s\n", ev.id, ev.time.wall_ticks, causal_type_name(ev.type),
                    ev.subsystem, ev.desc);
    }
}

/// A difference with its sign, as a text.
struct signed_text_t {
    char text[12];

    signed_text_t(uint32_t later, uint32_t earlier) {
        const auto by = static_cast<int32_t>(later - earlier);
        ksnprintf(text, sizeof text, "%s%d", by >= 0 ? "+" : "", by);
    }
};

void print_changes(const replay_snapshot_t& a, const replay_snapshot_t& b) {
    kprintf("=== Changes from T+%u to T+%u ===\n", a.tick, b.tick);
    kprintf("Tasks: %s created, %s exited\n", signed_text_t(b.tasks_created, a.tasks_created).text,
            signed_text_t(b.tasks_exited, a.tasks_exited).text);
    kprintf("Network: %s TX / %s RX\n", signed_text_t(b.net_tx, a.net_tx).text,
            signed_text_t(b.net_rx, a.net_rx).text);
    kprintf("Disk: %s reads / %s writes\n", signed_text_t(b.disk_reads, a.disk_reads).text,
            signed_text_t(b.disk_writes, a.disk_writes).text);
    kprintf("FS ops: %s  Actor msgs: %s  Syscalls: %s\n", signed_text_t(b.fs_ops, a.fs_ops).text,
            signed_text_t(b.actor_msgs, a.actor_msgs).text,
            signed_text_t(b.syscalls, a.syscalls).text);
    kprintf("Total events: %s\n", signed_text_t(b.total_events, a.total_events).text);
}

/// Reads the tick `arg`; says what is wrong with it otherwise.
bool parse_tick(const char* arg, uint32_t* tick) {
    if (safe_parse_uint(arg, tick) == 0)
        return true;
    kprintf("replay: invalid tick '%s'\n", arg);
    return false;
}

}  // namespace

void replay_init() { kprintf("[boot] Replay engine initialized\n"); }

int replay_at(uint32_t tick, replay_snapshot_t* snap) {
    if (snap == nullptr)
        return -1;
    memset(snap, 0, sizeof *snap);
    snap->tick = tick;
    const uint32_t newest = causal_total_events();
    const uint32_t oldest = causal_oldest_event_id();
    seen_t seen = {};
    const auto look = [&seen, tick](const causal_event_t& ev) {
        seen.counts = ev.time.wall_ticks <= tick;
        seen.type = ev.type;
        if (seen.counts && tells_by_text(ev.type))
            memcpy(seen.desc, ev.desc, sizeof seen.desc);
    };
    for (uint32_t left = oldest != 0 ? newest - oldest + 1 : 0, id = oldest; left > 0;
         --left, ++id) {
        if (causal_read_ring(id, look) && seen.counts)
            count_event(*snap, id, seen);
    }
    straighten_recent(*snap);
    if (snap->tasks_created > snap->tasks_exited)
        snap->tasks_alive = snap->tasks_created - snap->tasks_exited;
    snap->net_bytes_tx = snap->net_tx * BYTES_AN_EVENT;
    snap->net_bytes_rx = snap->net_rx * BYTES_AN_EVENT;
    return 0;
}

void replay_print(const replay_snapshot_t* snap) {
    kprintf("=== System State at T+%u ===\n", snap->tick);
    kprintf("Tasks: %u alive (%u created, %u exited)\n", snap->tasks_alive, snap->tasks_created,
            snap->tasks_exited);
    print_people(*snap);
    kprintf("Network: %u TX / %u RX (~%u / %u bytes), %d conn\n", snap->net_tx, snap->net_rx,
            snap->net_bytes_tx, snap->net_bytes_rx, snap->conn_events);
    kprintf("Disk: %u reads / %u writes\n", snap->disk_reads, snap->disk_writes);
    kprintf("FS ops: %u  Actor msgs: %u  Syscalls: %u\n", snap->fs_ops, snap->actor_msgs,
            snap->syscalls);
    kprintf("Total events: %u\n", snap->total_events);
    print_recent(*snap);
}

void replay_diff(uint32_t tick_a, uint32_t tick_b) {
    const auto snaps = heap_ptr<replay_snapshot_t>::make(2);
    if (!snaps) {
        kprintf("replay: no memory\n");
        return;
    }
    replay_at(tick_a < tick_b ? tick_a : tick_b, &snaps[0]);
    replay_at(tick_a < tick_b ? tick_b : tick_a, &snaps[1]);
    print_changes(snaps[0], snaps[1]);
}

void cmd_replay(int argc, char** argv) {
    uint32_t a;
    uint32_t b;
    if (argc < 2) {
        kprintf("Usage: replay <tick> [tick2]\n");
        return;
    }
    if (!parse_tick(argv[1], &a) || (argc >= 3 && !parse_tick(argv[2], &b)))
        return;
    if (argc >= 3) {
        replay_diff(a, b);
        return;
    }
    const auto snap = heap_ptr<replay_snapshot_t>::make();
    if (!snap || replay_at(a, snap.get()) != 0)
        kprintf("Replay failed for tick %u\n", a);
    else
        replay_print(snap.get());
}
