// The workers: each kind uses one shared structure of the kernel and would notice if what it left
// there came back changed, twice or not at all.
#include <array>

#include "arch/x86/ports.h"
#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/memory.h"
#include "kernel/core/mutex.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/drivers/console.h"
#include "kernel/drivers/dmesg.h"
#include "kernel/drivers/keyboard.h"
#include "kernel/drivers/keyboard_ports.h"
#include "kernel/fs/blockfs.h"
#include "kernel/fs/ramfs.h"
#include "kernel/graph/actor.h"
#include "kernel/graph/causal.h"
#include "tests/stress/work.h"

uint32_t new_seed() {
    static volatile uint32_t seeds;
    return __atomic_add_fetch(&seeds, 0x9E3779B9u, __ATOMIC_RELAXED);
}

namespace {

constexpr const char* SUBSYSTEM = "stress";

void heap_worker() {
    struct block_t {
        uint8_t* at;
        uint32_t size;
        uint8_t fill;
    };
    std::array<block_t, 8> blocks = {};
    const auto release = [](block_t& b) {
        for (uint32_t i = 0; b.at != nullptr && i < b.size; ++i)
            if (b.at[i] != b.fill)
                stress_fail("a heap block changed", i, b.size);
        kfree(b.at);
        b.at = nullptr;
    };
    work([&](uint32_t* seed) {
        block_t& b = blocks[krng(seed) % blocks.size()];
        release(b);
        b.size = krng(seed) % 16 == 0 ? 4096 + krng(seed) : krng(seed) % 200;
        b.fill = static_cast<uint8_t>(krng(seed));
        b.at =
            static_cast<uint8_t*>(b.size % 3 == 0 ? kmalloc_aligned(b.size, 64) : kmalloc(b.size));
        if (b.at == nullptr)
            stress_fail("the heap is exhausted", b.size, 0);
        memset(b.at, b.fill, b.size);
    });
    for (block_t& b : blocks)
        release(b);
}

/// The event is one of ours and whole: its text is its payload, too.
void verify_event(const causal_event_t& event) {
    if (strcmp(event.subsystem, SUBSYSTEM) == 0 &&
        (event.payload_len != sizeof event.desc ||
         memcmp(event.payload, event.desc, sizeof event.desc) != 0))
        stress_fail("a torn event", event.id, event.payload_len);
}

void events_worker() {
    static causal_event_t copies[2];
    static volatile uint32_t workers;
    causal_event_t& copy = copies[__atomic_fetch_add(&workers, 1, __ATOMIC_RELAXED) % 2];
    work([&](uint32_t* seed) {
        char text[CAUSAL_DESC_SIZE] = {};
        memset(text, static_cast<int>('a' + *seed % 26), *seed % sizeof text);
        const uint32_t id =
            causal_emit_payload(CAUSAL_USER, SUBSYSTEM, text, nullptr, 0, text, sizeof text);
        const uint32_t back = id - krng(seed) % (id < 500 ? id : 500);
        if (causal_copy(back, &copy)) {
            if (copy.id != back)
                stress_fail("an event under another number", back, copy.id);
            verify_event(copy);
        }
    });
}

/// Counted wake-ups from one task to another: a lost one stops the taker for ever.
struct {
    volatile uint32_t waiting, given, taken;
    task_t* volatile taker;
} tokens;

void token_giver() {
    work([](uint32_t* seed) {
        {
            const irq_guard guard;
            tokens.waiting = tokens.waiting + 1;
            tokens.given = tokens.given + 1;
        }
        task_unblock_reason(tokens.taker, "token");
        if (krng(seed) % 4 == 0)
            task_yield();
    });
}

void token_taker() {
    tokens.taker = task_current();
    work([](uint32_t*) {
        const irq_guard guard;
        while (tokens.waiting == 0 && !stop_workers)
            task_block(task_current());
        tokens.taken = tokens.taken + tokens.waiting;
        tokens.waiting = 0;
    });
}

void sleep_worker() {
    work([](uint32_t* seed) {
        const uint32_t start = system_ticks;
        const uint32_t ticks = 1 + krng(seed) % 3;
        task_sleep(ticks);
        if (system_ticks - start < ticks)
            stress_fail("a sleep ended early", ticks, system_ticks - start);
    });
}

constexpr uint32_t CHILDREN_MAX = 6;
volatile uint32_t children_made, children_ended;

void child() {
    step_me();
    task_yield();
    __atomic_add_fetch(&children_ended, 1, __ATOMIC_RELAXED);
}

void children_worker() {
    work([](uint32_t*) {
        if (children_made - children_ended < CHILDREN_MAX &&
            task_create("child", child, WORKER_PRIORITY) != nullptr)
            children_made = children_made + 1;
        else
            task_sleep(1);
    });
}

mutex_t shared_mutex;
volatile uint32_t first_half, second_half;

void mutex_worker() {
    work([](uint32_t* seed) {
        const mutex_guard guard(shared_mutex);
        const uint32_t next = first_half + 1;
        first_half = next;
        if (krng(seed) % 8 == 0)
            task_sleep(1);
        second_half = second_half + 1;
        if (first_half != next || second_half != next)
            stress_fail("two tasks inside one mutex", first_half, second_half);
    });
}

constexpr uint32_t CAPTURED = 400;
volatile bool capturing;
mutex_t console_mutex;  // one capture, or one round on the screen

/// Captures what it and the other console worker write: none of its own characters may be lost.
void capture_worker() {
    static char text[4 * CAPTURED];
    work([](uint32_t*) {
        const mutex_guard no_drawing(console_mutex);
        console_start_capture(text, sizeof text);
        capturing = true;
        for (uint32_t i = 0; i < CAPTURED; ++i)
            console_putchar('x');
        capturing = false;
        const int len = console_stop_capture();
        uint32_t own = 0;
        for (const char* c = text; *c != '\0'; ++c)
            own += *c == 'x' ? 1 : 0;
        const bool cut = len == sizeof text - 1;
        if ((own != CAPTURED && !cut) || strlen(text) != static_cast<size_t>(len))
            stress_fail("captured characters were lost", own, static_cast<uint32_t>(len));
    });
}

constexpr int SCREEN_ROUND = 600;  // characters, less than a screenful
volatile int screen_left, screen_writers;

void draw() {
    __atomic_add_fetch(&screen_writers, 1, __ATOMIC_RELAXED);
    while (__atomic_sub_fetch(&screen_left, 1, __ATOMIC_RELAXED) >= 0)
        console_putchar('z');
    __atomic_sub_fetch(&screen_writers, 1, __ATOMIC_RELAXED);
}

/// Two tasks draw on a clear screen: every character must have got a cell of its own.
void screen_worker() {
    work([](uint32_t*) {
        constexpr uint32_t CELLS = 80 * 25;
        const mutex_guard no_capture(console_mutex);
        console_clear();
        screen_left = SCREEN_ROUND;
        draw();
        while (screen_writers > 0)
            task_yield();
        int shown = 0;
        for (uint32_t i = 0; i < CELLS; ++i)
            shown += reinterpret_cast<volatile uint8_t*>(0xB8000)[2 * i] == 'z' ? 1 : 0;
        if (shown != SCREEN_ROUND)
            stress_fail("characters were lost on the screen", static_cast<uint32_t>(shown), 0);
    });
}

/// Disturbs whichever of the two is at work.
void console_worker() {
    work([](uint32_t*) {
        if (capturing)
            console_putchar('y');
        else if (screen_left > 0)
            draw();
        task_yield();
    });
}

constexpr int MARK_LENGTH = 10;

/// The log holds nothing but whole marks, behind the rest of one that is half overwritten.
bool log_is_whole(const char* log) {
    for (const char* at = strchr(log, '<'); at != nullptr && *at != '\0'; at += MARK_LENGTH)
        if (strlen(at) < MARK_LENGTH || at[0] != '<' || at[MARK_LENGTH - 1] != '>')
            return false;
    return true;
}

void log_worker() {
    work([](uint32_t* seed) {
        static std::array<char, DMESG_BYTES + 1> log;
        static mutex_t log_mutex;
        const bool look = krng(seed) % 32 == 0;
        char mark[MARK_LENGTH + 1];
        ksnprintf(mark, sizeof mark, "<%08x>", *seed);
        dmesg_append(mark, MARK_LENGTH);
        if (!look)
            return;
        const mutex_guard one_reader(log_mutex);
        dmesg_read(log.data(), static_cast<int>(log.size()));
        if (!log_is_whole(log.data()))
            stress_fail("the kernel log is torn", *seed, 0);
    });
}

constexpr std::array<uint8_t, 8> SCANCODES = {0x1E, 0x30, 0x2E, 0x20, 0x12, 0x21, 0x22, 0x23};
constexpr uint32_t KEYS_UNDERWAY = 100;  // in a burst; else one at a time, at random
constexpr uint32_t KEY_RARITY = 32;
constexpr uint32_t BURST_BIT = 1u << 12;    // of the preemption count
constexpr uint8_t KBC_WRITE_OUTPUT = 0xD2;  // the next data byte arrives as if from the keyboard
volatile uint32_t keys_sent, keys_taken;
task_t* volatile key_reader;

void key_worker() {
    key_reader = task_current();
    work([](uint32_t*) {
        const char key = keyboard_getchar();
        if (key != static_cast<char>('a' + keys_taken % SCANCODES.size()))
            stress_fail("a key came out of order", keys_taken, static_cast<uint8_t>(key));
        keys_taken = keys_taken + 1;
    });
}

pid_t first_worker;  // the others follow

/// Moves other workers, wherever they are queued just now.
void queue_worker() {
    work([](uint32_t* seed) {
        task_t* t = task_find_by_pid(first_worker + static_cast<pid_t>(krng(seed) % 22));
        if (t == nullptr)
            return;
        task_set_priority(t->pid, WORKER_PRIORITY + static_cast<int>(krng(seed) % 2));
        task_set_ap_offloadable(t, krng(seed) % 2 == 0);
        task_yield();
    });
}

void file_worker() {
    std::array<uint8_t, SHARED_FILE_BYTES> data = {};
    fs_node_t* file = fs_resolve(SHARED_FILE);
    fs_write(file, data.data(), data.size());
    work([&](uint32_t* seed) {
        memset(data.data(), static_cast<int>(krng(seed)), data.size());
        if (fs_write(file, data.data(), krng(seed) % data.size()) != 0)
            stress_fail("a file took no data", 0, 0);
        verify_uniform(data.data(), fs_read(file, data.data(), data.size(), 0));
    });
}

/// Moves a directory to and fro; whoever looks sees it in one place.
void directory_worker() {
    work([](uint32_t*) {
        char names[128];
        if (fs_rename("/tmp", "/bin/tmp") != 0 || fs_rename("/bin/tmp", "/tmp") != 0)
            stress_fail("a directory could not move", 0, 0);
        if (fs_list_names("/", names, sizeof names) != 4)
            stress_fail("the tree lost an entry", 0, 0);
    });
}

volatile uint32_t messages_sent, messages_taken;

/// Takes a message from the shared mailbox, where every one holds a number twice.
void take_message() {
    actor_msg_t msg;
    if (actor_recv(actor_find(SHARED_ACTOR), &msg) != 0)
        return;
    if (msg.len != 8 || memcmp(msg.data, msg.data + 4, 4) != 0)
        stress_fail("a torn message", msg.len, msg.data[0]);
    __atomic_add_fetch(&messages_taken, 1, __ATOMIC_RELAXED);
}

/// Two of these send to one mailbox and take from it, and come and go as actors themselves.
void actor_worker() {
    char name[ACTOR_NAME_SIZE];
    ksnprintf(name, sizeof name, "w%d", task_getpid());
    work([&](uint32_t* seed) {
        const uint32_t number[] = {*seed, *seed};
        const int self = actor_register(name, task_getpid());
        if (self < 0 || actor_watch(self, actor_find(SHARED_ACTOR)) != 0)
            stress_fail("an actor found no place", static_cast<uint32_t>(self), 0);
        if (actor_send(actor_find(SHARED_ACTOR), 1, number, sizeof number) == 0)
            __atomic_add_fetch(&messages_sent, 1, __ATOMIC_RELAXED);
        if (krng(seed) % 8 != 0)
            take_message();
        if (actor_send_by_name(name, 1, nullptr, 0) != 0)
            stress_fail("an actor did not reach itself", static_cast<uint32_t>(self), 0);
        actor_unregister(self);
    });
}

/// Nothing but the shared actor is left, with the messages that nobody took.
void verify_actors() {
    actor_stats_t shared;
    actor_get_stats(actor_find(SHARED_ACTOR), &shared);
    if (messages_sent != messages_taken + shared.mailbox_depth)
        stress_fail("messages were lost", messages_sent, messages_taken);
    if (actor_count() != 2 || actor_route_count() != 2 ||
        actor_get(actor_find(SHARED_ACTOR))->watcher_count != 0)
        stress_fail("the registry is not level", static_cast<uint32_t>(actor_count()), 0);
}

worker_t workers[] = {
    {"taker", token_taker, 1, 100, false, 0},
    {"giver", token_giver, 1, 100, false, 0},
    {"heap", heap_worker, 3, 100, false, 0},
    {"events", events_worker, 2, 100, false, 0},
    {"sleeps", sleep_worker, 2, 100, false, 0},
    {"children", children_worker, 1, 100, false, 0},
    {"mutex", mutex_worker, 3, 100, false, 0},
    {"capture", capture_worker, 1, 20, false, 0},
    {"screen", screen_worker, 1, 10, false, 0},
    {"console", console_worker, 2, 100, false, 0},
    {"log", log_worker, 2, 100, false, 0},
    {"keys", key_worker, 1, 100, false, 0},
    {"queues", queue_worker, 2, 100, false, 0},
    {"files", file_worker, 2, 100, false, 0},
    {"directory", directory_worker, 1, 50, false, 0},
    {"actors", actor_worker, 2, 100, false, 0},
    {"timelines", timeline_worker, 2, 100, false, 0},
    {"volume", volume_worker, 2, 4, true, 0},
    {"journal", journal_worker, 1, 2, true, 0},
};

}  // namespace

void feed_key() {
    static uint32_t seed = 1;
    const bool burst = (preemptions() & BURST_BIT) != 0;
    if (keys_sent - keys_taken >= (burst ? KEYS_UNDERWAY : 1) || kbc_has_byte() ||
        (!burst && krng(&seed) % KEY_RARITY != 0))
        return;
    outb(KBC_STATUS, KBC_WRITE_OUTPUT);
    outb(KBC_DATA, SCANCODES[keys_sent % SCANCODES.size()]);
    keys_sent = keys_sent + 1;
}

void verify_keys() {
    const irq_guard guard;
    if (key_reader != nullptr && key_reader->state == TASK_BLOCKED && keyboard_has_input())
        stress_fail("a key waits, and so does its reader", keys_sent, keys_taken);
}

worker_t& this_worker() {
    worker_t* one = workers;
    while (strcmp(one->name, task_current()->name) != 0)
        ++one;
    return *one;
}

void workers_start() {
    for (const worker_t& w : workers) {
        for (uint32_t i = 0; i < w.tasks && (blockfs_mounted() || !w.on_disk); ++i) {
            __atomic_add_fetch(&workers_alive, 1, __ATOMIC_RELAXED);
            const task_t* task = task_create(w.name, w.entry, WORKER_PRIORITY);
            if (task == nullptr)
                stress_fail("no task for a worker", i, 0);
            if (first_worker == 0)
                first_worker = task->pid;
        }
    }
}

void workers_release() {
    constexpr uint32_t PATIENCE = 2000;  // calls
    static uint32_t calls;
    if (++calls > PATIENCE)
        stress_fail("a worker waits for ever", workers_alive, keys_sent - keys_taken);
    const irq_guard guard;
    task_unblock_reason(tokens.taker, "stop");
    if (keys_sent == keys_taken)
        feed_key();
}

void workers_verify() {
    for (const worker_t& w : workers) {
        kprintf("STRESS %s: %u\n", w.name, w.done);
        if (w.done < w.expected && (blockfs_mounted() || !w.on_disk))
            stress_fail("too little work was done", w.done, w.expected);
    }
    if (tokens.given != tokens.taken + tokens.waiting)
        stress_fail("tokens were lost", tokens.given, tokens.taken);
    if (children_made != children_ended)
        stress_fail("children were lost", children_made, children_ended);
    verify_actors();
    verify_storage();
}

void verify_events() {
    uint64_t lamport = 0;
    const uint32_t newest = causal_total_events();
    for (uint32_t id = causal_oldest_event_id(); id <= newest; ++id) {
        const causal_event_t* event = causal_get_ring(id);
        if (event == nullptr || event->id != id || event->time.lamport <= lamport)
            stress_fail("the event ring is out of order", id, newest);
        lamport = event->time.lamport;
        verify_event(*event);
    }
}
