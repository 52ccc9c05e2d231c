// Loading a saved timeline: its events are emitted anew into a slot that nobody sees before it is
// whole. Nothing of the files is trusted but what timeline/format.h reads out of them.
#include "kernel/core/interrupt.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/timeline/format.h"
#include "kernel/graph/timeline/internal.h"

namespace {

/// The file of version 1, or the header and one chunk of version 2.
constexpr uint32_t BUFFER_BYTES = TIMELINE_OLD_BYTES;
static_assert(BUFFER_BYTES >= TIMELINE_CHUNK_BYTES);

/// Reads exactly `len` bytes from the beginning of a regular file.
bool read_exactly(const char* path, void* buf, uint32_t len) {
    int inode;
    uint32_t size;
    return timeline_find_file(path, &inode, &size) && size >= len &&
           blockfs_read_file(inode, buf, 0, len) == static_cast<int>(len);
}

uint32_t records_of_chunk(uint32_t events, uint32_t chunk) {
    const uint32_t left = events - chunk * TIMELINE_CHUNK_EVENTS;
    return left < TIMELINE_CHUNK_EVENTS ? left : TIMELINE_CHUNK_EVENTS;
}

/// All chunks are there and long enough, so that nothing is emitted of a history that is not whole.
bool chunks_present(const char* name, uint32_t events) {
    char path[TIMELINE_PATH_SIZE];
    for (uint32_t chunk = 0; chunk < timeline_chunks(events); ++chunk) {
        int inode;
        uint32_t size;
        timeline_chunk_path(name, chunk, path);
        if (!timeline_find_file(path, &inode, &size) ||
            size < records_of_chunk(events, chunk) * TIMELINE_RECORD_SIZE)
            return false;
    }
    return true;
}

/// Emits one saved event as an event of slot `tl_id`.
bool emit_record(int tl_id, const uint8_t* stored) {
    timeline_record_t record;
    timeline_decode_record(stored, &record);
    record.payload_len =
        timeline_readdress(record.payload, record.payload_len, static_cast<uint32_t>(tl_id));
    timeline_envelope_t envelope = {};
    const std::span<const uint8_t> payload(record.payload, record.payload_len);
    if (!timeline_decode_envelope(payload, &envelope))
        return false;
    const irq_guard guard;
    timeline_slot_t& slot = timeline_slots[tl_id];
    ++slot.tl.event_count;
    return timeline_append(&slot, record.desc, payload, &envelope.sub_type) != 0;
}

bool emit_records(int tl_id, const uint8_t* stored, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        if (!emit_record(tl_id, stored + i * TIMELINE_RECORD_SIZE))
            return false;
    }
    return true;
}

bool emit_chunks(int tl_id, const char* name, uint32_t events, uint8_t* buffer) {
    char path[TIMELINE_PATH_SIZE];
    for (uint32_t chunk = 0; chunk < timeline_chunks(events); ++chunk) {
        const uint32_t records = records_of_chunk(events, chunk);
        timeline_chunk_path(name, chunk, path);
        if (!read_exactly(path, buffer, records * TIMELINE_RECORD_SIZE) ||
            !emit_records(tl_id, buffer, records))
            return false;
    }
    return true;
}

/// Takes a slot, lets `emit` fill it and shows it, or gives it up.
template <typename emit_fn>
int fill_slot(const char* name, const timeline_saved_t& saved, emit_fn emit) {
    char app[TIMELINE_APP_SIZE];
    string_clean(app, saved.app, sizeof app);
    int tl_id;
    {
        const irq_guard guard;
        tl_id = timeline_take_slot({name, app, saved.create_tick});
    }
    if (tl_id < 0)
        return -1;
    const bool whole = emit(tl_id);
    const irq_guard guard;
    if (whole)
        timeline_publish(tl_id);
    else
        timeline_release(tl_id);
    return whole ? tl_id : -1;
}

int restore_current(const char* name, uint8_t* buffer) {
    timeline_persist_header_t header;
    memcpy(&header, buffer, sizeof header);
    if (!chunks_present(name, header.event_count))
        return -1;
    return fill_slot(name, header.timeline, [&](int tl_id) {
        return emit_chunks(tl_id, name, header.event_count, buffer);
    });
}

/// `size` bytes of a version 1 file are in `buffer`; it carries its timeline's own name.
int restore_older(const char* name, const uint8_t* buffer, uint32_t size) {
    timeline_saved_t saved;
    memcpy(&saved, buffer, sizeof saved);
    if (strncmp(saved.name, name, sizeof saved.name) != 0)
        return -1;
    const uint32_t records = (size - static_cast<uint32_t>(sizeof saved)) / TIMELINE_RECORD_SIZE;
    return fill_slot(name, saved, [&](int tl_id) {
        return emit_records(tl_id, buffer + sizeof saved, records);
    });
}

int restore_locked(const char* name) REQUIRES(timeline_lock) {
    char path[TIMELINE_PATH_SIZE];
    int inode;
    uint32_t size;
    timeline_header_path(name, path);
    const auto buffer = heap_ptr<uint8_t>::make(BUFFER_BYTES);
    if (!buffer || timeline_find(name) >= 0 || !timeline_find_file(path, &inode, &size))
        return -1;
    const int count = blockfs_read_file(inode, buffer.get(), 0, BUFFER_BYTES);
    if (count < 0)
        return -1;
    const auto bytes = static_cast<uint32_t>(count);
    switch (timeline_recognise({buffer.get(), bytes})) {
        case timeline_form_t::current:
            return restore_current(name, buffer.get());
        case timeline_form_t::older:
            return restore_older(name, buffer.get(), bytes);
        case timeline_form_t::damaged:
            break;
    }
    return -1;
}

}  // namespace

int timeline_restore(const char* name) {
    if (name == nullptr || strlen(name) >= TIMELINE_NAME_SIZE || cpu_id() != 0)
        return -1;
    const mutex_guard guard(timeline_lock);
    return blockfs_mounted() ? restore_locked(name) : -1;
}
