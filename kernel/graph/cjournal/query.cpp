// Queries over archived records. The index says which segments cannot hold a match; the others are
// read whole, one after the other, into one buffer. Records come from a disk: texts are terminated
// before they are compared.
#include <algorithm>

#include "kernel/core/string.h"
#include "kernel/graph/cjournal/internal.h"

namespace {

constexpr uint32_t BITMAP_BITS = 32;
constexpr uint32_t CONDITION_LAMPORT = 1u << 31;
constexpr int DEPTH_MAX = 16;

/// All conditions that are asked for hold together.
struct conditions_t {
    uint32_t flags;  ///< CJOURNAL_FILTER_*, CONDITION_LAMPORT
    uint32_t type, schema;
    const char* subsystem;
    const char* needle;
    uint32_t start_tick, end_tick;
    uint64_t start_lamport, end_lamport;

    bool asks(uint32_t flag) const { return (flags & flag) != 0; }
};

/// A record's texts with their ends.
struct texts_t {
    char subsystem[CAUSAL_SUBSYSTEM_SIZE + 1];
    char desc[CAUSAL_DESC_SIZE + 1];

    explicit texts_t(const cjournal_event_t& record) {
        memcpy(subsystem, record.subsystem, sizeof record.subsystem);
        memcpy(desc, record.desc, sizeof record.desc);
        subsystem[CAUSAL_SUBSYSTEM_SIZE] = '\0';
        desc[CAUSAL_DESC_SIZE] = '\0';
    }
};

bool bit_is_set(uint32_t bitmap, uint32_t bit) {
    return bit < BITMAP_BITS && (bitmap >> bit & 1) != 0;
}

/// Whether a segment can hold a match.
bool may_match(const cjournal_entry_t& e, const conditions_t& c) {
    if (!e.active)
        return false;
    if (c.asks(CJOURNAL_FILTER_TYPE) && !bit_is_set(e.type_bitmap, c.type))
        return false;
    if (c.asks(CJOURNAL_FILTER_SCHEMA) && !bit_is_set(e.schema_bitmap, c.schema))
        return false;
    if (c.asks(CJOURNAL_FILTER_SUBSYSTEM) &&
        !bit_is_set(e.subsystem_bitmap, cjournal_subsystem_bit(c.subsystem)))
        return false;
    if (c.asks(CJOURNAL_FILTER_TICKS) && (e.last_tick < c.start_tick || e.first_tick > c.end_tick))
        return false;
    return !c.asks(CONDITION_LAMPORT) ||
           (e.last_lamport >= c.start_lamport && e.first_lamport <= c.end_lamport);
}

bool text_matches(const cjournal_event_t& record, const char* needle) {
    if (needle == nullptr || *needle == '\0')
        return true;
    const texts_t texts(record);
    return strstr(texts.desc, needle) != nullptr || strstr(texts.subsystem, needle) != nullptr ||
           strstr(causal_type_name(record.type), needle) != nullptr;
}

bool subsystem_is(const cjournal_event_t& record, const char* name) {
    return strcmp(texts_t(record).subsystem, name != nullptr ? name : "") == 0;
}

bool matches(const cjournal_event_t& r, const conditions_t& c) {
    if (c.asks(CJOURNAL_FILTER_TYPE) && r.type != c.type)
        return false;
    if (c.asks(CJOURNAL_FILTER_SCHEMA) && r.schema_id != c.schema)
        return false;
    if (c.asks(CJOURNAL_FILTER_TICKS) && (r.wall_ticks < c.start_tick || r.wall_ticks > c.end_tick))
        return false;
    if (c.asks(CONDITION_LAMPORT) && (r.lamport < c.start_lamport || r.lamport > c.end_lamport))
        return false;
    if (c.asks(CJOURNAL_FILTER_SUBSYSTEM) && !subsystem_is(r, c.subsystem))
        return false;
    return !c.asks(CJOURNAL_FILTER_TEXT) || text_matches(r, c.needle);
}

int read_entry_locked(const cjournal_entry_t& entry, const cjournal_records_t& records)
    REQUIRES(cjournal_lock) {
    return std::max(0, read_segment_events_locked(entry.segment_num, records.get(),
                                                  static_cast<int>(CJOURNAL_SEGMENT_EVENTS)));
}

/// Calls visit(record) for each match in index and record order until it returns false.
template <typename visit_fn>
void each_match(const conditions_t& c, visit_fn visit) {
    const mutex_guard guard(cjournal_lock);
    const auto records = cjournal_records_t::make(CJOURNAL_SEGMENT_EVENTS);
    if (!records || !cjournal_running_locked())
        return;
    for (int32_t at = 0; at < cjournal.index_count; at++) {
        if (!may_match(cjournal.index[at], c))
            continue;
        const int count = read_entry_locked(cjournal.index[at], records);
        for (int i = 0; i < count; i++) {
            const cjournal_event_t& record = records[static_cast<size_t>(i)];
            if (matches(record, c) && !visit(record))
                return;
        }
    }
}

/// The first `max` matches in index and record order.
int collect_in_order(const conditions_t& c, cjournal_event_t* out, int max) {
    int count = 0;
    if (max <= 0)
        return 0;
    each_match(c, [&count, out, max](const cjournal_event_t& record) {
        out[count++] = record;
        return count < max;
    });
    return count;
}

/// The positions of all entries, newest last identifier first; their count.
int newest_first_locked(int32_t order[CJOURNAL_SEGMENTS_MAX]) REQUIRES(cjournal_lock) {
    const cjournal_entry_t* index = cjournal.index;
    for (int32_t i = 0; i < cjournal.index_count; i++) {
        int32_t at = i;
        for (; at > 0 && index[order[at - 1]].last_id < index[i].last_id; at--)
            order[at] = order[at - 1];
        order[at] = i;
    }
    return cjournal.index_count;
}

/// The newest `max` matches, oldest first.
int collect_newest(const conditions_t& c, cjournal_event_t* out, int max) {
    const mutex_guard guard(cjournal_lock);
    const auto records = cjournal_records_t::make(CJOURNAL_SEGMENT_EVENTS);
    if (max <= 0 || !records || !cjournal_running_locked())
        return 0;
    max = std::min(max, CJOURNAL_QUERY_MAX);
    int32_t order[CJOURNAL_SEGMENTS_MAX];
    const int entries = newest_first_locked(order);
    int found = 0;
    for (int at = 0; at < entries && found < max; at++) {
        const cjournal_entry_t& entry = cjournal.index[order[at]];
        const int count = may_match(entry, c) ? read_entry_locked(entry, records) : 0;
        for (int i = count - 1; i >= 0 && found < max; i--) {
            const cjournal_event_t& record = records[static_cast<size_t>(i)];
            if (matches(record, c))
                out[found++] = record;
        }
    }
    std::reverse(out, out + found);
    return found;
}

/// Matches counted, without a limit.
uint32_t count_matches(const conditions_t& c) {
    uint32_t count = 0;
    each_match(c, [&count](const cjournal_event_t&) {
        count++;
        return true;
    });
    return count;
}

// --- Descendants ---

/// The results so far; those from `level` on are the level whose children are looked for.
struct walk_t {
    cjournal_event_t* out;
    int max;
    int count;
    uint32_t root;  ///< the first level is this one event alone
    int level, level_end;

    bool in_level(uint32_t id) const {
        if (level_end == 0)
            return id == root;
        return std::any_of(out + level, out + level_end,
                           [id](const cjournal_event_t& record) { return record.id == id; });
    }
    bool holds(uint32_t id) const {
        return std::any_of(out, out + count,
                           [id](const cjournal_event_t& record) { return record.id == id; });
    }
    bool names_level(const cjournal_event_t& record) const {
        const uint32_t parents = std::min<uint32_t>(record.num_parents, CAUSAL_PARENTS_MAX);
        for (uint32_t i = 0; i < parents; i++) {
            if (record.parents[i] != 0 && in_level(record.parents[i]))
                return true;
        }
        return false;
    }
    /// Whether records of the entry may name an event of the level.
    bool may_name_level(const cjournal_entry_t& e) const {
        if (!e.active)
            return false;
        if (e.parent_edge_count == CJOURNAL_STATS_UNKNOWN.parent_edge_count)
            return true;
        const auto in_range = [&e](uint32_t id) {
            return id >= e.parent_min_id && id <= e.parent_max_id;
        };
        if (level_end == 0)
            return in_range(root);
        return std::any_of(out + level, out + level_end,
                           [&in_range](const cjournal_event_t& r) { return in_range(r.id); });
    }
};

void add_level_locked(walk_t* walk, const cjournal_records_t& records) REQUIRES(cjournal_lock) {
    for (int32_t at = 0; at < cjournal.index_count && walk->count < walk->max; at++) {
        if (!walk->may_name_level(cjournal.index[at]))
            continue;
        const int count = read_entry_locked(cjournal.index[at], records);
        for (int i = 0; i < count && walk->count < walk->max; i++) {
            const cjournal_event_t& record = records[static_cast<size_t>(i)];
            if (walk->names_level(record) && !walk->holds(record.id))
                walk->out[walk->count++] = record;
        }
    }
}

conditions_t conditions_of(uint32_t flags, uint32_t type, uint32_t schema_id, const char* subsystem,
                           const char* needle, uint32_t start_tick, uint32_t end_tick) {
    return {flags, type, schema_id, subsystem, needle, start_tick, end_tick, 0, 0};
}

constexpr uint32_t clamped(uint64_t value) {
    return value < UINT32_MAX ? static_cast<uint32_t>(value) : UINT32_MAX;
}

}  // namespace

int cjournal_query_range(uint32_t start_tick, uint32_t end_tick, cjournal_event_t* out, int max) {
    return collect_in_order(
        conditions_of(CJOURNAL_FILTER_TICKS, 0, 0, nullptr, nullptr, start_tick, end_tick), out,
        max);
}

int cjournal_query_lamport(uint64_t start, uint64_t end, cjournal_event_t* out, int max) {
    return collect_in_order({CONDITION_LAMPORT, 0, 0, nullptr, nullptr, 0, 0, start, end}, out,
                            max);
}

int cjournal_query_type(uint32_t type, cjournal_event_t* out, int max) {
    return cjournal_query_filter(CJOURNAL_FILTER_TYPE, type, 0, nullptr, nullptr, 0, 0, out, max);
}

int cjournal_query_schema(uint32_t schema_id, cjournal_event_t* out, int max) {
    return cjournal_query_filter(CJOURNAL_FILTER_SCHEMA, 0, schema_id, nullptr, nullptr, 0, 0, out,
                                 max);
}

int cjournal_query_subsystem(const char* name, cjournal_event_t* out, int max) {
    return cjournal_query_filter(CJOURNAL_FILTER_SUBSYSTEM, 0, 0, name, nullptr, 0, 0, out, max);
}

int cjournal_query_recent(cjournal_event_t* out, int max) {
    return cjournal_query_filter(0, 0, 0, nullptr, nullptr, 0, 0, out, max);
}

int cjournal_query_text(const char* needle, cjournal_event_t* out, int max) {
    return cjournal_query_filter(CJOURNAL_FILTER_TEXT, 0, 0, nullptr, needle, 0, 0, out, max);
}

int cjournal_query_filter(uint32_t flags, uint32_t type, uint32_t schema_id, const char* subsystem,
                          const char* needle, uint32_t start_tick, uint32_t end_tick,
                          cjournal_event_t* out, int max) {
    return collect_newest(
        conditions_of(flags, type, schema_id, subsystem, needle, start_tick, end_tick), out, max);
}

int cjournal_query_descendants(uint32_t id, int max_depth, cjournal_event_t* out, int max) {
    const mutex_guard guard(cjournal_lock);
    const auto records = cjournal_records_t::make(CJOURNAL_SEGMENT_EVENTS);
    if (id == 0 || max <= 0 || !records || !cjournal_running_locked())
        return 0;
    walk_t walk = {out, std::min(max, CJOURNAL_QUERY_MAX), 0, id, 0, 0};
    const int depth = std::clamp(max_depth, 1, DEPTH_MAX);
    for (int level = 1; level <= depth && walk.count < walk.max; level++) {
        const int before = walk.count;
        add_level_locked(&walk, records);
        if (walk.count == before)
            break;
        walk.level = before;
        walk.level_end = walk.count;
    }
    return walk.count;
}

uint32_t cjournal_count_filter(uint32_t flags, uint32_t type, uint32_t schema_id,
                               const char* subsystem, const char* needle, uint32_t start_tick,
                               uint32_t end_tick) {
    return count_matches(
        conditions_of(flags, type, schema_id, subsystem, needle, start_tick, end_tick));
}

uint32_t cjournal_count_matching(cjournal_count_mode_t mode, uint64_t start, uint64_t end,
                                 const char* text) {
    conditions_t c = {};
    c.type = c.schema = c.start_tick = clamped(start);
    c.end_tick = clamped(end);
    c.start_lamport = start;
    c.end_lamport = end;
    c.subsystem = c.needle = text;
    switch (mode) {
        case CJOURNAL_COUNT_ALL:
            break;
        case CJOURNAL_COUNT_RANGE:
            c.flags = CJOURNAL_FILTER_TICKS;
            break;
        case CJOURNAL_COUNT_LRANGE:
            c.flags = CONDITION_LAMPORT;
            break;
        case CJOURNAL_COUNT_TYPE:
            c.flags = CJOURNAL_FILTER_TYPE;
            break;
        case CJOURNAL_COUNT_SCHEMA:
            c.flags = CJOURNAL_FILTER_SCHEMA;
            break;
        case CJOURNAL_COUNT_SUBSYSTEM:
            c.flags = CJOURNAL_FILTER_SUBSYSTEM;
            break;
        case CJOURNAL_COUNT_TEXT:
            c.flags = CJOURNAL_FILTER_TEXT;
            break;
    }
    return count_matches(c);
}

void cjournal_type_histogram(uint32_t counts[CAUSAL_TYPE_COUNT]) {
    std::fill_n(counts, CAUSAL_TYPE_COUNT, 0u);
    each_match({}, [counts](const cjournal_event_t& record) {
        if (record.type < CAUSAL_TYPE_COUNT)
            counts[record.type]++;
        return true;
    });
}
