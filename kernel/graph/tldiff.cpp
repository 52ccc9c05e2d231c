#include "kernel/graph/tldiff.h"

#include <algorithm>

#include "kernel/core/endian.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/ring_read.h"
#include "kernel/graph/timeline/format.h"

namespace {

/// The events of a timeline, oldest first.
struct events_t {
    uint32_t ids[TLDIFF_EVENTS_MAX];
    int count;

    uint32_t at(int position) const { return position < count ? ids[position] : 0; }
    bool holds(uint32_t id) const { return std::find(ids, ids + count, id) != ids + count; }
};

/// An event of either, on the way into a merged timeline.
struct merged_t {
    uint32_t id;
    uint64_t lamport;  ///< 0: it cannot be fetched any more
};

struct work_t {
    events_t left, right;
    merged_t merged[2 * TLDIFF_EVENTS_MAX];
};

/// Whether an event is one of timeline `tl_id`, and whether one began with it.
bool belongs_to(const causal_event_t& ev, uint32_t tl_id, bool* first) {
    timeline_envelope_t envelope;
    if (ev.type != CAUSAL_USER || ev.payload_len > CAUSAL_PAYLOAD_MAX ||
        !timeline_decode_envelope({ev.payload, ev.payload_len}, &envelope) ||
        envelope.tl_id != tl_id || strcmp(ev.desc, "(cont)") == 0)
        return false;
    *first = envelope.sub_type == TIMELINE_CREATE;
    return true;
}

/// Events of an earlier timeline in the same slot are left out.
void collect_events(int tl_id, events_t* out) {
    out->count = 0;
    const uint32_t newest = causal_total_events();
    uint32_t id = causal_oldest_event_id();
    for (; id != 0 && id <= newest; ++id) {
        bool belongs = false;
        bool first = false;
        const bool found = causal_read_ring(id, [&](const causal_event_t& ev) {
            belongs = belongs_to(ev, static_cast<uint32_t>(tl_id), &first);
        });
        if (!found || !belongs)
            continue;
        if (first)
            out->count = 0;
        if (out->count < TLDIFF_EVENTS_MAX)
            out->ids[out->count++] = id;
    }
}

/// Collects both; false when one of them does not exist.
bool collect_both(const char* left, const char* right, work_t* work) {
    const int left_id = left != nullptr ? timeline_find(left) : -1;
    const int right_id = right != nullptr ? timeline_find(right) : -1;
    if (left_id < 0 || right_id < 0)
        return false;
    collect_events(left_id, &work->left);
    collect_events(right_id, &work->right);
    return true;
}

tldiff_type_t judge(uint32_t left, uint32_t right) {
    if (left == 0)
        return TLDIFF_ONLY_RIGHT;
    if (right == 0)
        return TLDIFF_ONLY_LEFT;
    return left == right ? TLDIFF_COMMON : TLDIFF_DIVERGE;
}

void count(tldiff_type_t type, tldiff_result_t* out) {
    switch (type) {
        case TLDIFF_COMMON:
            ++out->common_count;
            break;
        case TLDIFF_ONLY_LEFT:
            ++out->left_only;
            break;
        case TLDIFF_ONLY_RIGHT:
            ++out->right_only;
            break;
        case TLDIFF_DIVERGE:
            ++out->diverged;
            break;
    }
}

/// Both in Lamport order, each event once; their number.
int merge_events(work_t* work) {
    int total = 0;
    const auto take = [work, &total](uint32_t id) {
        merged_t& entry = work->merged[total++];
        entry = {id, 0};
        (void)causal_read_anywhere(
            id, [&entry](const causal_event_t& ev) { entry.lamport = ev.time.lamport; });
    };
    for (int i = 0; i < work->left.count; ++i)
        take(work->left.ids[i]);
    for (int i = 0; i < work->right.count; ++i) {
        if (!work->left.holds(work->right.ids[i]))
            take(work->right.ids[i]);
    }
    // Insertion keeps the order of equal times.
    for (int i = 1; i < total; ++i) {
        merged_t* entry = &work->merged[i];
        std::rotate(std::upper_bound(
                        work->merged, entry, *entry,
                        [](const merged_t& a, const merged_t& b) { return a.lamport < b.lamport; }),
                    entry, entry + 1);
    }
    return total;
}

void emit_merged(int tl_id, const merged_t& entry) {
    causal_event_t ev;
    uint8_t data[4];
    store_le32(data, entry.id);
    timeline_emit(tl_id, TIMELINE_DATA, data, sizeof data,
                  causal_copy(entry.id, &ev) ? ev.desc : "");
}

// --- The command ---

constexpr size_t CELL_BYTES = 48;

/// "= #12 description", or nothing without an event.
void make_cell(char (&cell)[CELL_BYTES], char mark, uint32_t id) {
    causal_event_t ev;
    cell[0] = '\0';
    if (id != 0)
        ksnprintf(cell, sizeof cell, "%c #%u %.18s", mark, id,
                  causal_copy(id, &ev) ? ev.desc : "?");
}

void print_entry(const tldiff_entry_t& entry) {
    constexpr char MARKS[] = {'=', '<', '>', '!'};
    char left[CELL_BYTES];
    char right[CELL_BYTES];
    make_cell(left, MARKS[entry.type], entry.left_event_id);
    make_cell(right, MARKS[entry.type], entry.right_event_id);
    kprintf("  %3d  %-30s  %-30s\n", entry.position, left, right);
}

void show_difference(const char* left, const char* right) {
    const auto result = heap_ptr<tldiff_result_t>::make();
    if (!result || tldiff_compare(left, right, result.get()) != 0) {
        kprintf("Diff failed (timeline '%s' or '%s' not found)\n", left, right);
        return;
    }
    kprintf("Timeline Diff: '%s' vs '%s'\n", left, right);
    kprintf("  Common:   %d events\n", result->common_count);
    kprintf("  Only in %s: %d events\n", left, result->left_only);
    kprintf("  Only in %s: %d events\n", right, result->right_only);
    kprintf("  Diverged: %d positions\n\n", result->diverged);
    kprintf("  Pos  %-30s  %-30s\n", "Left", "Right");
    kprintf("  ---- ------------------------------  ------------------------------\n");
    for (int i = 0; i < result->count; ++i)
        print_entry(result->entries[i]);
}

void list_timelines() {
    if (timeline_count() == 0) {
        kprintf("No active timelines\n");
        return;
    }
    kprintf("Available timelines:\n");
    for (int i = 0; i < TIMELINE_SLOTS; ++i) {
        const timeline_t* tl = timeline_get(i);
        if (tl != nullptr)
            kprintf("  %-24s (%s, %u events)\n", tl->name, tl->app, tl->event_count);
    }
}

void merge(int argc, char** argv) {
    if (argc < 5) {
        kprintf("Usage: tldiff merge <left> <right> <merged-name>\n");
        return;
    }
    const int events = tldiff_merge(argv[2], argv[3], argv[4]);
    if (events >= 0)
        kprintf("Merged '%s' + '%s' -> '%s' (%d events)\n", argv[2], argv[3], argv[4], events);
    else
        kprintf("Merge failed (timeline not found?)\n");
}

}  // namespace

void tldiff_init() {
    causal_emit(CAUSAL_USER, "tldiff", "timeline diff/merge initialized", nullptr, 0);
}

int tldiff_compare(const char* left, const char* right, tldiff_result_t* out) {
    const auto work = heap_ptr<work_t>::make();
    if (out == nullptr || !work || !collect_both(left, right, work.get()))
        return -1;
    memset(out, 0, sizeof *out);
    string_copy(out->left_name, left, sizeof out->left_name);
    string_copy(out->right_name, right, sizeof out->right_name);
    out->count = std::min(std::max(work->left.count, work->right.count), TLDIFF_ENTRIES_MAX);
    for (int i = 0; i < out->count; ++i) {
        const uint32_t l = work->left.at(i);
        const uint32_t r = work->right.at(i);
        out->entries[i] = {judge(l, r), l, r, i};
        count(out->entries[i].type, out);
    }
    causal_event_fmt(CAUSAL_USER, "tldiff", "diff '%s' vs '%s': %d common, %d diverged", left,
                     right, out->common_count, out->diverged);
    return 0;
}

int tldiff_merge(const char* left, const char* right, const char* merged_name) {
    const auto work = heap_ptr<work_t>::make();
    if (merged_name == nullptr || !work || !collect_both(left, right, work.get()))
        return -1;
    const int total = merge_events(work.get());
    const int tl_id = timeline_create(merged_name, "tldiff");
    if (tl_id < 0)
        return -1;
    for (int i = 0; i < total; ++i)
        emit_merged(tl_id, work->merged[i]);
    causal_event_fmt(CAUSAL_USER, "tldiff", "merged '%s' + '%s' -> '%s' (%d events)", left, right,
                     merged_name, total);
    return total;
}

void cmd_tldiff(int argc, char** argv) {
    if (argc < 2)
        list_timelines();
    else if (strcmp(argv[1], "merge") == 0)
        merge(argc, argv);
    else if (argc < 3)
        kprintf("Usage: tldiff <left> <right> | tldiff merge <left> <right> <merged-name>\n");
    else
        show_difference(argv[1], argv[2]);
}
