// The regular spill: unspilled events in runs, each a segment. A run ends at 512 records, where
// the ring has lost events, and where Lamport time steps back (restored events keep their old one):
// so the records of a segment are consecutive and lie in the range that its header gives. An event
// that names lost ones is spilled alone, ahead of the rest, before the segment behind the gap: a
// machine that is killed leaves no gap that the journal does not account for.
#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/liveness.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/graph/causal_persist.h"
#include "kernel/graph/cjournal/internal.h"
#include "kernel/graph/integrity.h"

namespace {

constexpr int TASK_PRIORITY = 6;
constexpr int SPILL_PRIORITY = 2;  // a busy shell must not keep the writer from the ring

/// Set by emission when the threshold is passed; taken by the writer's task.
volatile bool spill_wanted;

uint32_t unspilled_locked() REQUIRES(cjournal_lock) {
    const uint32_t total = causal_total_events();
    const uint32_t cursor = cjournal_cursor_locked();
    return total > cursor ? total - cursor : 0;
}

/// The last event that is on disk, or belongs to an earlier boot.
uint32_t written_locked() REQUIRES(cjournal_lock) {
    const uint32_t base = causal_numbering_base();
    return cjournal.last_spilled_id < base ? base : cjournal.last_spilled_id;
}

/// Names the events up to `last` that the ring lost before they were spilled, as one range: also
/// those that were named before, if nothing was written since.
void ring_lost_locked(uint32_t last) REQUIRES(cjournal_lock) {
    const bool earlier = cjournal_writer.account.event != 0;
    cjournal_writer.lost_through = last;
    cjournal_record_lost_locked(earlier ? cjournal_writer.account.first : written_locked() + 1,
                                last);
}

/// Fills the draft with up to `limit` consecutive events from the cursor on. What is missing before
/// the first one is lost.
void fill_draft_locked(cjournal_draft_t* draft, uint32_t limit, uint32_t end)
    REQUIRES(cjournal_lock) {
    const uint32_t start = cjournal_cursor_locked() + 1;
    const uint32_t oldest = causal_oldest_event_id();
    uint32_t id = start < oldest ? oldest : start;
    draft->count = 0;
    for (; id <= end && draft->count < limit; id++) {
        cjournal_event_t* record = &draft->records()[draft->count];
        const bool found = cjournal_ring_record(id, record);
        if (draft->count == 0 && !found)
            continue;
        if (!found || (draft->count > 0 && !cjournal_may_follow(record[-1], *record)))
            break;
        draft->count++;
    }
    const uint32_t first = draft->count > 0 ? draft->records()[0].id : id;
    if (first != start)
        ring_lost_locked(first - 1);
}

/// Makes room, writes the draft as the next segment and enters it; false when one of it fails. Room
/// comes first: on a full volume it is what makes the write possible. But the last segment goes
/// only when there is a newer one, so that the volume always tells which numbers were used.
bool append_draft_locked(cjournal_draft_t* draft) REQUIRES(cjournal_lock) {
    const uint32_t stay = cjournal_writer.retention_max_segments - 1;
    if (!apply_retention_limit_locked(stay > 0 ? stay : 1))
        return false;
    const uint32_t segment = cjournal.segments_written + 1;  // an eviction may have written one
    if (segment == 0 || write_segment_locked(segment, draft, 0) != 0)
        return false;
    apply_retention_limit_locked(stay);
    index_add_segment_locked(segment, draft, 0);
    return true;
}

/// Writes event `id` alone; 1, or -1 when it is not in the ring or that fails.
int append_alone_locked(uint32_t id) REQUIRES(cjournal_lock) {
    const auto draft = heap_ptr<cjournal_draft_t>::make();
    if (!draft || !cjournal_ring_record(id, draft->records()))
        return -1;
    draft->count = 1;
    return append_draft_locked(draft.get()) ? 1 : -1;
}

/// Appends a run, after what accounts for the gap before it.
bool append_run_locked(cjournal_draft_t* draft) REQUIRES(cjournal_lock) {
    const uint32_t account = cjournal_writer.account.event;
    const uint32_t first = draft->records()[0].id;
    const bool within = first <= account && account - first < draft->count;
    if (account != 0 && !within && append_alone_locked(account) != 1)
        return false;
    if (!within)
        cjournal_writer.account = {};
    if (!append_draft_locked(draft))
        return false;
    cjournal_writer.account = {};
    return true;
}

/// Where a spill began.
struct before_t {
    uint32_t segments_written, last_spilled_id;
    cjournal_account_t account;
};

before_t begin_locked() REQUIRES(cjournal_lock) {
    return {cjournal.segments_written, cjournal.last_spilled_id, cjournal_writer.account};
}

/// Takes back what the newest segment, whose files are gone, changed; the number of events that the
/// regular spill has to write again.
uint32_t take_back_locked(const before_t& before) REQUIRES(cjournal_lock) {
    cjournal_entry_t* newest = cjournal_find_entry_locked(cjournal.segments_written);
    const cjournal_entry_t gone = *newest;
    cjournal_remove_entry_locked(newest);
    cjournal.segments_written--;
    cjournal_writer.account = before.account;
    cjournal_writer.lost_through = 0;  // what was named may have gone with it
    if (gone.last_id > cjournal.last_spilled_id)
        return 0;
    cjournal.last_spilled_id = before.last_spilled_id;
    for (int32_t i = 0; i < cjournal.index_count; i++) {
        const cjournal_entry_t& entry = cjournal.index[i];
        if (entry.segment_num > before.segments_written && entry.last_id < gone.first_id &&
            entry.last_id > cjournal.last_spilled_id)
            cjournal.last_spilled_id = entry.last_id;
    }
    return gone.event_count;
}

/// Saves the index with what was written since; the number of events that had to be taken back,
/// newest first, because a full volume had no room left for it. What was evicted meanwhile cannot
/// be.
uint32_t save_written_locked(const before_t& before) REQUIRES(cjournal_lock) {
    uint32_t taken = 0;
    while (save_index_file_locked() != 0) {
        const uint32_t newest = cjournal.segments_written;
        if (newest == before.segments_written || cjournal_find_entry_locked(newest) == nullptr ||
            !cjournal_remove_segment_locked(newest))
            return taken;
        taken += take_back_locked(before);
    }
    cjournal_writer.index_source = "live";
    return taken;
}

uint32_t smaller(uint32_t a, uint32_t b) { return a < b ? a : b; }

/// The event that makes the unspilled ones too many.
void set_mark_locked() REQUIRES(cjournal_lock) {
    const uint32_t cursor = cjournal_cursor_locked();
    const uint32_t room = UINT32_MAX - cursor;
    causal_set_spill_mark(cursor + smaller(room, CJOURNAL_SPILL_THRESHOLD + 1));
}

/// How many events the periodic check has to write.
uint32_t due_locked() REQUIRES(cjournal_lock) {
    const uint32_t waiting = unspilled_locked();
    return waiting > CJOURNAL_SPILL_THRESHOLD ? waiting - CJOURNAL_SPILL_TARGET : 0;
}

bool check_is_due() {
    const mutex_guard guard(cjournal_lock);
    return cjournal_running_locked() && due_locked() != 0;
}

}  // namespace

void cjournal_wake() { spill_wanted = true; }

uint32_t cjournal_cursor_locked() {
    const uint32_t written = written_locked();
    return written < cjournal_writer.lost_through ? cjournal_writer.lost_through : written;
}

bool cjournal_ring_record(uint32_t id, cjournal_event_t* out) {
    causal_event_t copy;
    {
        const irq_guard guard;
        const causal_event_t* ev = causal_get_ring(id);
        if (ev == nullptr)
            return false;
        memcpy(&copy, ev, sizeof copy);
    }
    compact_event(copy, out);
    return true;
}

void cjournal_record_lost_locked(uint32_t first, uint32_t last) {
    const uint32_t event = causal_event_fmt(CAUSAL_IO, "cjournal", "lost %u..%u", first, last);
    cjournal_writer.account = {first, last, event};
}

int cjournal_spill_locked(uint32_t count) {
    if (!cjournal_running_locked())
        return 0;
    const uint32_t end = causal_total_events();
    count = smaller(count, unspilled_locked());
    if (count == 0)
        return 0;
    const auto draft = heap_ptr<cjournal_draft_t>::make();
    if (!draft)
        return 0;
    const before_t before = begin_locked();
    uint32_t written = 0;
    while (written < count) {
        fill_draft_locked(draft.get(), smaller(count - written, CJOURNAL_SEGMENT_EVENTS), end);
        if (draft->count == 0 || !append_run_locked(draft.get()))
            break;
        cjournal.last_spilled_id = draft->header()->last_id;
        for (uint32_t i = 0; i < draft->count; i++)
            integrity_take(draft->records()[i]);
        written += draft->count;
    }
    if (cjournal.segments_written == before.segments_written)
        return 0;
    cjournal_writer.last_spill_tick = system_ticks;
    written -= save_written_locked(before);
    set_mark_locked();
    return static_cast<int>(written);
}

int cjournal_spill(int count) {
    const mutex_guard guard(cjournal_lock);
    return count < 1 ? 0 : cjournal_spill_locked(static_cast<uint32_t>(count));
}

int cjournal_shutdown() {
    const mutex_guard guard(cjournal_lock);
    return cjournal_spill_locked(UINT32_MAX);
}

void cjournal_tick() {
    const mutex_guard guard(cjournal_lock);
    if (!cjournal_running_locked())
        return;
    const uint32_t now = system_ticks;
    if (!spill_wanted && now - cjournal.last_check_tick < CJOURNAL_CHECK_TICKS)
        return;
    spill_wanted = false;
    cjournal.last_check_tick = now;
    const uint32_t due = due_locked();
    if (due != 0)
        cjournal_spill_locked(due);
    else
        set_mark_locked();
}

void cjournal_task_fn() {
    constexpr uint32_t BEAT_TICKS = 500;
    liveness_register("cjournal", BEAT_TICKS);
    for (;;) {
        liveness_heartbeat("cjournal");
        const bool hurry = spill_wanted && check_is_due();
        if (hurry)
            task_set_priority(task_getpid(), SPILL_PRIORITY);
        cjournal_tick();
        if (hurry)
            task_set_priority(task_getpid(), TASK_PRIORITY);
        causal_auto_flush();
        task_sleep(1);
    }
}

int cjournal_spill_through(uint32_t event_id) {
    cjournal_event_t found;
    if (event_id == 0)
        return -1;
    if (cjournal_query_by_id_disk(event_id, &found) == 0)
        return 0;
    const mutex_guard guard(cjournal_lock);
    if (!cjournal_running_locked())
        return -1;
    const before_t before = begin_locked();
    if (append_alone_locked(event_id) != 1)
        return -1;
    static_cast<void>(save_written_locked(before));
    return cjournal.segments_written != before.segments_written ? 1 : -1;
}

const cjournal_state_t* cjournal_state() NO_THREAD_SAFETY_ANALYSIS { return &cjournal; }

uint32_t cjournal_total_persisted() NO_THREAD_SAFETY_ANALYSIS { return cjournal.events_spilled; }
