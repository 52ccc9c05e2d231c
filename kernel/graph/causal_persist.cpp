#include "kernel/graph/causal_persist.h"

#include "kernel/core/guards.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/mutex.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/causal.h"
#include "kernel/graph/cjournal/format.h"

namespace {

/// Fewer new events than these are the echo of the last flush.
constexpr uint32_t AUTO_FLUSH_NEW_EVENTS = 16;
constexpr uint64_t LAMPORT_MAX = INT64_MAX;  ///< a higher clock is a damaged one

/// A snapshot file.
struct [[gnu::packed]] snapshot_t {
    persist_header_t header;
    persist_event_t events[CJOURNAL_SNAPSHOT_EVENTS];
};

uint32_t snapshot_bytes(uint32_t events) {
    return static_cast<uint32_t>(sizeof(persist_header_t) + events * sizeof(persist_event_t));
}

mutex_t persist_lock;
uint32_t last_flush_tick;
uint32_t last_flush_id;  ///< the newest event when the last flush was done

/// The store at a moment; what a flush itself records comes later.
struct moment_t {
    uint32_t next_id;
    uint32_t in_ring;
    uint64_t lamport;
};

/// Takes the newest events of that moment; their number.
uint32_t collect_newest(const moment_t& then, persist_event_t* out) {
    uint32_t left =
        then.in_ring < CJOURNAL_SNAPSHOT_EVENTS ? then.in_ring : CJOURNAL_SNAPSHOT_EVENTS;
    uint32_t count = 0;
    causal_event_t ev;
    for (; left > 0; --left) {
        const uint32_t id = then.next_id - left;
        if (causal_get_ring(id) != nullptr && causal_copy(id, &ev))
            cjournal_snapshot_record(ev, &out[count++]);
    }
    return count;
}

/// Writes the file; the number of events, or -1.
int write_snapshot(const moment_t& then) {
    const auto file = heap_ptr<snapshot_t>::make();
    if (!file)
        return -1;
    memset(file.get(), 0, sizeof *file);
    const uint32_t count = collect_newest(then, file->events);
    if (count == 0)
        return 0;
    file->header = {CJOURNAL_SNAPSHOT_MAGIC, CJOURNAL_SNAPSHOT_VERSION, count, then.next_id,
                    then.lamport};
    blockfs_mkdir_p(CJOURNAL_DIR);
    const int error =
        blockfs_replace_file(CJOURNAL_SNAPSHOT_PATH, file.get(), snapshot_bytes(count));
    return error != 0 ? -1 : static_cast<int>(count);
}

int flush_locked() REQUIRES(persist_lock) {
    moment_t now;
    {
        const irq_guard guard;
        now = {causal_get_next_id(), causal_ring_used(), causal_get_lamport()};
    }
    const int count = write_snapshot(now);
    if (count <= 0)
        return count;
    causal_event_fmt(CAUSAL_FS, "causal", "flushed %d events to disk", count);
    last_flush_tick = system_ticks;
    last_flush_id = causal_total_events();
    return count;
}

/// Reads the snapshot file into `file`: its number of events, 0 when it is missing or empty, -1
/// when it is damaged.
int read_snapshot(snapshot_t* file) {
    const int inode = blockfs_resolve(CJOURNAL_SNAPSHOT_PATH);
    if (inode < 0)
        return 0;
    constexpr int HEADER_BYTES = sizeof file->header;
    if (blockfs_read_file(inode, &file->header, 0, HEADER_BYTES) != HEADER_BYTES ||
        file->header.magic != CJOURNAL_SNAPSHOT_MAGIC ||
        file->header.version != CJOURNAL_SNAPSHOT_VERSION ||
        file->header.lamport_clock > LAMPORT_MAX)
        return -1;
    const uint32_t count = file->header.event_count < CJOURNAL_SNAPSHOT_EVENTS
                               ? file->header.event_count
                               : CJOURNAL_SNAPSHOT_EVENTS;
    const uint32_t len = snapshot_bytes(count) - HEADER_BYTES;
    if (count > 0 &&
        blockfs_read_file(inode, file->events, HEADER_BYTES, len) != static_cast<int>(len))
        return -1;
    cjournal_event_t record;
    for (uint32_t i = 0; i < count; ++i) {
        if (!cjournal_convert_snapshot(file->events[i], &record) || record.lamport > LAMPORT_MAX)
            return -1;
    }
    return static_cast<int>(count);
}

/// Emits a stored event anew, then gives it its old time and node back.
void emit_again(const persist_event_t& stored) {
    char subsystem[CAUSAL_SUBSYSTEM_SIZE];
    char old_desc[CAUSAL_DESC_SIZE];
    char desc[CAUSAL_DESC_SIZE];
    string_clean(subsystem, stored.subsystem, sizeof subsystem);
    string_clean(old_desc, stored.desc, sizeof old_desc);
    ksnprintf(desc, sizeof desc, "[R] %s", old_desc);
    const irq_guard guard;
    const auto type = static_cast<causal_type_t>(stored.type);
    causal_event_t* ev = causal_get_ring(causal_emit(type, subsystem, desc, nullptr, 0));
    if (ev == nullptr)
        return;
    ev->time = {stored.lamport, stored.wall_ticks, stored.tsc_lo};
    ev->node_hash = stored.node_hash;
}

int emit_snapshot() {
    const auto file = heap_ptr<snapshot_t>::make();
    if (!file)
        return -1;
    const int count = read_snapshot(file.get());
    if (count <= 0)
        return count;
    causal_set_lamport(file->header.lamport_clock);
    for (int i = 0; i < count; ++i)
        emit_again(file->events[i]);
    return count;
}

int restore_locked() REQUIRES(persist_lock) {
    const int count = emit_snapshot();
    if (count > 0)
        causal_event_fmt(CAUSAL_FS, "causal", "restored %d events from disk", count);
    return count;
}

}  // namespace

void causal_persist_init() {
    persist_lock = {};
    last_flush_tick = system_ticks;
    last_flush_id = 0;
    if (!blockfs_mounted()) {
        kprintf("[cpersist] no block filesystem — persistence disabled\n");
        return;
    }
    blockfs_mkdir_p(CJOURNAL_DIR);
    const int count = causal_restore();
    if (count > 0)
        kprintf("[cpersist] restored %d events from disk\n", count);
    else if (count < 0)
        kprintf("[cpersist] restore failed\n");
    else
        kprintf("[cpersist] no journal found (first boot)\n");
}

int causal_flush() {
    if (!blockfs_mounted())
        return -1;
    const mutex_guard guard(persist_lock);
    return flush_locked();
}

int causal_restore() {
    if (!blockfs_mounted())
        return -1;
    const mutex_guard guard(persist_lock);
    return restore_locked();
}

void causal_auto_flush() {
    if (system_ticks - last_flush_tick < CAUSAL_AUTO_FLUSH_TICKS ||
        causal_ring_used() <= CAUSAL_AUTO_FLUSH_EVENTS ||
        causal_total_events() - last_flush_id < AUTO_FLUSH_NEW_EVENTS)
        return;
    // One that fails is not tried again at once.
    if (causal_flush() < 0)
        last_flush_tick = system_ticks;
}

void cmd_cflush(int, char**) {
    const int count = causal_flush();
    if (count >= 0)
        kprintf("flushed %d events to %s\n", count, CJOURNAL_SNAPSHOT_PATH);
    else
        kprintf("flush failed (no block filesystem?)\n");
}

void cmd_crestore(int, char**) {
    const int count = causal_restore();
    if (count > 0)
        kprintf("restored %d events from %s\n", count, CJOURNAL_SNAPSHOT_PATH);
    else if (count == 0)
        kprintf("no journal found on disk\n");
    else
        kprintf("restore failed\n");
}
