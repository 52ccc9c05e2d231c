// Start-up: numbering, state, index, task and hooks.
#include <string_view>

#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/cjournal/internal.h"
#include "kernel/graph/integrity.h"

cjournal_state_t cjournal;
cjournal_writer_t cjournal_writer;

namespace {

// Files are written with the journal's lock held: VoFS tells nobody of those.
static_assert(std::string_view(CJOURNAL_DIR) == BLOCKFS_RECORDS);

constexpr int TASK_PRIORITY = 6;
constexpr int CHILDREN_MAX = 32;

/// The store's hook: an archived event.
bool fetch_archived(uint32_t id, causal_event_t* out) {
    cjournal_event_t record;
    if (cjournal_query_by_id_disk(id, &record) != 0)
        return false;
    cjournal_expand_event(record, out);
    return true;
}

/// The store's hook: archived events that name a parent.
int find_archived_children(uint32_t id, uint32_t* ids, int max) {
    const int wanted = max < CHILDREN_MAX ? max : CHILDREN_MAX;
    const auto records = cjournal_records_t::make(CHILDREN_MAX);
    const int count = records ? cjournal_query_children(id, records.get(), wanted) : 0;
    for (int i = 0; i < count; i++)
        ids[i] = records[static_cast<size_t>(i)].id;
    return count;
}

constexpr causal_archive_hooks_t ARCHIVE_HOOKS = {fetch_archived, find_archived_children};

bool volume_is_there() { return blockfs_resolve("/") >= 0; }

void reset_locked() REQUIRES(cjournal_lock) {
    memset(&cjournal, 0, sizeof cjournal);
    memset(&cjournal_writer, 0, sizeof cjournal_writer);
    cjournal_writer.retention_max_segments = CJOURNAL_SEGMENTS_MAX;
    cjournal_writer.index_source = "none";
}

/// The last event of the regular spill without a gap before it that only this boot can name: the
/// end of the newest segment of several records. What single ones leave open behind it, they leave
/// open because they were spilled ahead of the rest.
uint32_t regular_end_locked() REQUIRES(cjournal_lock) {
    uint32_t end = 0;
    uint32_t first = 0;
    bool from_the_start = cjournal.index_count == 0;
    for (int32_t i = 0; i < cjournal.index_count; i++) {
        const cjournal_entry_t& entry = cjournal.index[i];
        from_the_start = from_the_start || entry.segment_num == 1;
        if ((entry.flags & CJOURNAL_FLAG_IMPORTED) != 0)
            continue;
        if (entry.event_count > 1)
            end = entry.last_id > end ? entry.last_id : end;
        else if (first == 0 || entry.first_id < first)
            first = entry.first_id;
    }
    return end == 0 && !from_the_start ? first : end;
}

/// The first event behind `id` that was spilled alone; 0 without one.
uint32_t next_alone_locked(uint32_t id) REQUIRES(cjournal_lock) {
    uint32_t next = 0;
    for (int32_t i = 0; i < cjournal.index_count; i++) {
        const cjournal_entry_t& entry = cjournal.index[i];
        if ((entry.flags & CJOURNAL_FLAG_IMPORTED) == 0 && entry.first_id > id &&
            (next == 0 || entry.first_id < next))
            next = entry.first_id;
    }
    return next;
}

/// Names the events that the last boot lost: it ended while the spill lagged behind what it had
/// spilled singly, or what it had put into the snapshot. One range, from the first to the last.
void record_lost_with_last_boot_locked() REQUIRES(cjournal_lock) {
    const uint32_t base = causal_numbering_base();
    uint32_t before = regular_end_locked();
    uint32_t first = 0;
    uint32_t last = 0;
    while (before < base) {
        const uint32_t next = next_alone_locked(before);
        const uint32_t behind = next == 0 || next > base ? base + 1 : next;
        if (behind != before + 1) {
            first = first == 0 ? before + 1 : first;
            last = behind - 1;
        }
        before = behind;
    }
    if (first != 0)
        cjournal_record_lost_locked(first, last);
}

bool start_locked() REQUIRES(cjournal_lock) {
    reset_locked();
    if (!volume_is_there()) {
        kprintf("[cjournal] no block filesystem — journal disabled\n");
        cjournal.initialized = true;
        return false;
    }
    cjournal.disk_available = true;
    cjournal_make_directory();
    const bool unnamed = cjournal_recover_locked();
    if ((unnamed || !cjournal_load_index_locked()) && rebuild_index_locked() < 0) {
        kprintf("[cjournal] WARNING: the segments cannot be read — journal disabled\n");
        reset_locked();
        cjournal.initialized = true;
        return false;
    }
    record_lost_with_last_boot_locked();
    cjournal.last_check_tick = system_ticks;
    cjournal.initialized = true;
    return true;
}

/// What is said of the index at start-up.
struct summary_t {
    int32_t segments;
    uint32_t events;
};

bool start(summary_t* summary) {
    const mutex_guard guard(cjournal_lock);
    const bool started = start_locked();
    *summary = {cjournal.index_count, cjournal.events_spilled};
    return started;
}

}  // namespace

void cjournal_continue_numbering() {
    uint32_t highest = 0;
    if (!volume_is_there())
        return;
    {
        const mutex_guard guard(cjournal_lock);
        reset_locked();
        static_cast<void>(cjournal_recover_locked());
        highest = cjournal_highest_archived_locked();
    }
    if (!causal_renumber(highest))
        kprintf("[cjournal] WARNING: the numbers of events are used up\n");
}

void cjournal_init() {
    summary_t summary = {};
    integrity_init();
    causal_set_archive_hooks(nullptr);
    causal_set_spill_hook(nullptr);
    if (!start(&summary))
        return;
    causal_set_archive_hooks(&ARCHIVE_HOOKS);
    causal_set_spill_hook(cjournal_wake);
    cjournal_wake();
    if (task_create("cjournal", cjournal_task_fn, TASK_PRIORITY) == nullptr)
        kprintf("[cjournal] WARNING: no memory for the task\n");
    causal_event_fmt(CAUSAL_IO, "cjournal", "%s",
                     summary.segments == 0 ? "journal init: empty"
                                           : "journal init: recovered segments from disk");
    kprintf("[cjournal] initialized — %d segments, %u events on disk\n", summary.segments,
            summary.events);
}
