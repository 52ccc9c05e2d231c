// Tests of reading through: what the store gives of events that have left the ring must be what the
// journal's files hold of them. The newest such events are tried; the journal's mutex is free while
// the store is asked, which takes it itself.
#include "kernel/apps/cmd_journal/internal.h"
#include "kernel/core/string.h"

namespace {

constexpr int CHILDREN_MAX = 32;

/// A record, in its place.
struct place_t {
    uint32_t segment, position;
    cjournal_event_t record;
};

/// Reads a segment's records; their number.
uint32_t read_records(uint32_t segment, const cjournal_records_t& records) {
    const int count =
        cjournal_query_segment(segment, records.get(), static_cast<int>(CJOURNAL_SEGMENT_EVENTS));
    return static_cast<uint32_t>(count);
}

bool has_left_the_ring(uint32_t id) { return causal_get_ring(id) == nullptr; }

/// The newest archived record outside the ring for which fits(record) holds: false when there is
/// none.
template <typename fits_fn>
bool find_place(place_t* out, fits_fn fits) {
    const auto records = cjournal_records_t::make(CJOURNAL_SEGMENT_EVENTS);
    bool found = false;
    if (!records)
        return false;
    journal_each_entry([&](const cjournal_entry_t& entry) {
        for (uint32_t i = read_records(entry.segment_num, records); i-- > 0;) {
            const cjournal_event_t& record = records[i];
            if (found && record.id <= out->record.id)
                return;
            if (!has_left_the_ring(record.id) || !fits(record))
                continue;
            *out = {entry.segment_num, i, record};
            found = true;
            return;
        }
    });
    return found;
}

bool any_record(const cjournal_event_t&) { return true; }

/// The first parent of the record that the journal holds and the ring does not; 0 without one.
uint32_t archived_parent(const cjournal_event_t& record) {
    cjournal_event_t parent;
    for (uint32_t i = 0; i < record.num_parents && i < CAUSAL_PARENTS_MAX; i++) {
        if (has_left_the_ring(record.parents[i]) &&
            cjournal_query_by_id_disk(record.parents[i], &parent) == 0)
            return record.parents[i];
    }
    return 0;
}

bool has_archived_parent(const cjournal_event_t& record) { return archived_parent(record) != 0; }

void print_skip(const char* command, const char* with) {
    kprintf("journal %s: SKIP no archived event%s has left the ring\n", command, with);
}

bool same_texts(const cjournal_event_t& a, const cjournal_event_t& b) {
    return memcmp(a.subsystem, b.subsystem, sizeof a.subsystem) == 0 &&
           memcmp(a.desc, b.desc, sizeof a.desc) == 0;
}

bool same_parents(const cjournal_event_t& a, const cjournal_event_t& b) {
    return a.num_parents == b.num_parents && memcmp(a.parents, b.parents, sizeof a.parents) == 0;
}

/// The stored hash of a record, and its version, out of its segment's sidecar.
bool read_stored_hash(const place_t& place, uint32_t* version, cjournal_hash_t* out) {
    const uint32_t size = cjournal_sidecar_bytes(place.position + 1);
    const auto file = heap_ptr<uint8_t>::make(size);
    cjournal_hash_header_t header;
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(place.segment, cjournal_file_t::sidecar, path);
    const mutex_guard guard(cjournal_lock);
    if (!file || cjournal_read_file(path, file.get(), size, true) != 1)
        return false;
    memcpy(&header, file.get(), sizeof header);
    memcpy(out, file.get() + size - sizeof *out, sizeof *out);
    *version = header.version;
    return cjournal_hash_header_valid(header, place.segment);
}

}  // namespace

void journal_readthrough_test(int, char** argv) {
    place_t place;
    causal_event_t ev;
    cjournal_event_t got = {};
    if (!find_place(&place, any_record)) {
        print_skip(argv[0], "");
        return;
    }
    const cjournal_event_t& record = place.record;
    const bool found = causal_copy(record.id, &ev);
    if (found)
        compact_event(ev, &got);
    const bool time = got.lamport == record.lamport && got.wall_ticks == record.wall_ticks;
    const bool texts = same_texts(got, record);
    const bool parents = same_parents(got, record);
    const bool pass = found && got.id == record.id && got.type == record.type &&
                      got.node_hash == record.node_hash && time && texts && parents;
    journal_line_t line(journal_form_t::text, argv[0], "");
    line.verdict(place.segment, journal_pass_fail(pass)).add_number("event", record.id);
    line.add_yes("found", found).add_yes("time", time).add_yes("texts", texts);
    line.add_yes("parents", parents).end();
}

void journal_hash_readthrough_test(int, char** argv) {
    place_t place;
    causal_event_t ev;
    cjournal_hash_t stored;
    cjournal_hash_t own = {};
    uint32_t version = 0;
    if (!find_place(&place, any_record)) {
        print_skip(argv[0], "");
        return;
    }
    const bool found = causal_copy(place.record.id, &ev);
    const bool has_stored = read_stored_hash(place, &version, &stored);
    const bool hashed = found && has_stored && causal_event_hash_version(version, &ev, own.bytes);
    const bool match = hashed && memcmp(&own, &stored, sizeof own) == 0;
    journal_line_t line(journal_form_t::text, argv[0], "");
    line.verdict(place.segment, journal_pass_fail(match)).add_number("event", place.record.id);
    line.add_yes("found", found).add_yes("sidecar", has_stored).add_number("hashv", version);
    line.add_yes("match", match).end();
}

void journal_readthrough_effects_test(int, char** argv) {
    place_t place;
    uint32_t children[CHILDREN_MAX];
    if (!find_place(&place, has_archived_parent)) {
        print_skip(argv[0], " with an archived cause");
        return;
    }
    const uint32_t parent = archived_parent(place.record);
    const int count = causal_children_ids(parent, children, CHILDREN_MAX);
    bool holds_child = count == CHILDREN_MAX;  // then it may be among those left out
    bool all_name_parent = true;
    for (int i = 0; i < count; i++) {
        uint32_t parents[CAUSAL_PARENTS_MAX];
        const int named = causal_parents_of(children[i], parents);
        bool names = false;
        for (int p = 0; p < named; p++)
            names = names || parents[p] == parent;
        all_name_parent = all_name_parent && names;
        holds_child = holds_child || children[i] == place.record.id;
    }
    const bool pass = count > 0 && holds_child && all_name_parent;
    journal_line_t line(journal_form_t::text, argv[0], "");
    line.verdict(place.segment, journal_pass_fail(pass)).add_number("event", parent);
    line.add_number("effects", static_cast<uint32_t>(count > 0 ? count : 0));
    line.add_yes("known_effect", holds_child).add_yes("all_name_it", all_name_parent).end();
}

void journal_readthrough_parents_test(int, char** argv) {
    place_t place;
    causal_event_t ev;
    uint32_t parents[CAUSAL_PARENTS_MAX] = {};
    if (!find_place(&place, has_archived_parent)) {
        print_skip(argv[0], " with an archived cause");
        return;
    }
    const int count = causal_parents_of(place.record.id, parents);
    const bool match =
        count == place.record.num_parents &&
        memcmp(parents, place.record.parents, static_cast<size_t>(count) * sizeof parents[0]) == 0;
    const uint32_t parent = archived_parent(place.record);
    const bool reached = causal_copy(parent, &ev) && ev.id == parent;
    journal_line_t line(journal_form_t::text, argv[0], "");
    line.verdict(place.segment, journal_pass_fail(match && reached));
    line.add_number("event", place.record.id);
    line.add_number("parents", place.record.num_parents).add_yes("match", match);
    line.add_number("archived_parent", parent).add_yes("reached", reached).end();
}
