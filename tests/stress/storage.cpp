// Workers on timelines, volume and journal.
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/drivers/virtio_blk.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/causal.h"
#include "kernel/graph/cjournal.h"
#include "kernel/graph/timeline.h"
#include "tests/stress/work.h"

namespace {

constexpr const char* TIMELINE = "stress";
constexpr const char* TIMELINE_EVENTS = "stress-tl";  // their subsystem
constexpr const char* DIRECTORY = "/stress";
constexpr const char* SHARED = "/stress/shared";
constexpr uint32_t FILE_BYTES = 12 * 512 + 700;  // past the direct blocks
constexpr int SEGMENT_EVENTS = 32;

volatile uint32_t timeline_emissions;

bool is_ours(const causal_event_t& ev) { return strcmp(ev.subsystem, TIMELINE_EVENTS) == 0; }

/// Every event of the timeline that the ring holds is on the way back from its head.
void verify_timeline() {
    const timeline_t* tl = timeline_get(timeline_find(TIMELINE));
    if (tl == nullptr || tl->event_count != timeline_emissions + 1)
        stress_fail("the timeline lost count", timeline_emissions, 0);
    uint32_t next = tl->head_id;
    for (uint32_t id = causal_total_events(); id >= causal_oldest_event_id(); --id) {
        const causal_event_t* ev = causal_get_ring(id);
        if (ev == nullptr || !is_ours(*ev))
            continue;
        if (id != next)
            stress_fail("the timeline forks", id, next);
        next = ev->parents[0];
    }
}

uint8_t byte_at(uint32_t seed, uint32_t at) { return static_cast<uint8_t>(seed * 31 + at * at); }

void check(const uint8_t* data, int count, uint32_t size, uint32_t seed) {
    if (count != static_cast<int>(size))
        stress_fail("a file has another size", static_cast<uint32_t>(count), size);
    for (uint32_t i = 0; i < size; ++i)
        if (data[i] != byte_at(seed, i))
            stress_fail("a file holds other bytes", i, data[i]);
}

void share_file(uint8_t* data, uint32_t seed) {
    memset(data, static_cast<int>(seed), FILE_BYTES);
    if (blockfs_replace_file(SHARED, data, 1 + seed % FILE_BYTES) != 0)
        stress_fail("the shared file took no data", seed, 0);
    verify_uniform(data, blockfs_read_file(blockfs_resolve(SHARED), data, 0, FILE_BYTES));
}

}  // namespace

/// Two of these append to one timeline.
void timeline_worker() {
    work([](uint32_t* seed) {
        const uint32_t size = krng(seed) % 500;
        uint8_t data[500] = {};
        if (timeline_emit(timeline_find(TIMELINE), TIMELINE_DATA, data, size, "x") == 0)
            stress_fail("the timeline took no event", size, 0);
        __atomic_add_fetch(&timeline_emissions, 1, __ATOMIC_RELAXED);
    });
}

/// Each has a file of its own, beside the one they share.
void volume_worker() {
    static uint8_t buffers[2][FILE_BYTES];
    static volatile uint32_t workers;
    uint8_t* data = buffers[__atomic_fetch_add(&workers, 1, __ATOMIC_RELAXED) % 2];
    char path[32];
    char other[32];
    ksnprintf(path, sizeof path, "%s/%d", DIRECTORY, task_getpid());
    ksnprintf(other, sizeof other, "%s/%d.new", DIRECTORY, task_getpid());
    work([&](uint32_t* seed) {
        const uint32_t size = krng(seed) % FILE_BYTES;
        const uint32_t value = *seed;
        for (uint32_t i = 0; i < size; ++i)
            data[i] = byte_at(value, i);
        const int inode = blockfs_create(path, BLOCKFS_FILE);
        if (blockfs_write_file(inode, data, size) != static_cast<int>(size) ||
            blockfs_rename(path, other) != 0)
            stress_fail("a file was not written", size, 0);
        memset(data, 0, FILE_BYTES);
        check(data, blockfs_read_file(blockfs_resolve(other), data, 0, FILE_BYTES), size, value);
        share_file(data, krng(seed));
        if (blockfs_remove(other) != 0)
            stress_fail("a file could not be removed", size, 0);
    });
}

/// Spills, and compares what the journal says of an event with what the ring says.
void journal_worker() {
    work([](uint32_t* seed) {
        static cjournal_event_t record;
        static causal_event_t event;
        cjournal_spill(SEGMENT_EVENTS);
        const uint32_t last = cjournal_state()->last_spilled_id;
        const uint32_t id = last - krng(seed) % SEGMENT_EVENTS;
        if (!causal_copy(id, &event) || cjournal_query_by_id_disk(id, &record) != 0)
            return;
        if (record.id != id || record.lamport != event.time.lamport ||
            strcmp(record.desc, event.desc) != 0)
            stress_fail("the journal holds another event", id, record.id);
    });
}

void storage_start() {
    timeline_init();
    timeline_create(TIMELINE, TIMELINE_EVENTS);
    if (blk_init() != 0)
        return;
    if (blockfs_init() != 0 || blockfs_mkdir_p(DIRECTORY) != 0 ||
        blockfs_replace_file(SHARED, DIRECTORY, 1) != 0)
        stress_fail("no volume on the disk", 0, 0);
    cjournal_continue_numbering();
    cjournal_init();
    // Its task is the first one. Below the workers it would get every boost that they need.
    task_set_priority(1, WORKER_PRIORITY + 1);
}

void verify_storage() {
    verify_timeline();
    if (!blockfs_mounted())
        return;
    if (blockfs_fsck() != 0)
        stress_fail("the volume is not sound", 0, 0);
    char names[64];
    if (blockfs_list(DIRECTORY, names, sizeof names) != 1)
        stress_fail("a removed file is still there", 0, 0);
    if (cjournal_verify() != 0 || cjournal_total_persisted() == 0)
        stress_fail("the journal does not verify", cjournal_total_persisted(), 0);
}
