// What the journal holds: status, segments, index, single events and their causes.
#include "kernel/apps/cmd_journal/internal.h"
#include "kernel/core/string.h"

namespace {

constexpr uint32_t TRACE_EVENTS = 64;
constexpr int INDENTED_LEVELS = 16;  // what lies deeper stands below the last of them

/// What all entries say together.
struct totals_t {
    uint32_t segments, events, first_id, last_id, first_tick, last_tick;
};

totals_t add_up() {
    totals_t t = {};
    journal_each_entry([&t](const cjournal_entry_t& entry) {
        const bool first = t.segments++ == 0;
        t.events += entry.event_count;
        t.first_id = first || entry.first_id < t.first_id ? entry.first_id : t.first_id;
        t.last_id = entry.last_id > t.last_id ? entry.last_id : t.last_id;
        t.first_tick = first || entry.first_tick < t.first_tick ? entry.first_tick : t.first_tick;
        t.last_tick = entry.last_tick > t.last_tick ? entry.last_tick : t.last_tick;
    });
    return t;
}

uint32_t last_spill_tick() {
    const mutex_guard guard(cjournal_lock);
    return cjournal_writer.last_spill_tick;
}

void print_status_record(const totals_t& t, uint32_t kb) {
    journal_line_t line(journal_form_t::record, "", "journal");
    line.add_number("segments", t.segments).add_number("max_segments", CJOURNAL_SEGMENTS_MAX);
    line.add_number("events", t.events).add_number("first", t.first_id);
    line.add_number("last", t.last_id).add_number("ring_first", causal_oldest_event_id());
    line.add_number("ring_last", causal_total_events()).add_number("first_tick", t.first_tick);
    line.add_number("last_tick", t.last_tick).add_number("ring_used", causal_ring_used());
    line.add_number("ring_slots", CAUSAL_RING_SLOTS).add_number("last_spill", last_spill_tick());
    line.add_number("kb", kb).end();
}

const char* root_word(const cjournal_entry_t& entry) {
    if (entry.root_valid)
        return "ok";
    return entry.root_hash_version == 0 ? "missing" : "bad";
}

const char* flags_word(const cjournal_entry_t& entry) {
    return (entry.flags & CJOURNAL_FLAG_IMPORTED) != 0 ? "imported" : "none";
}

void print_segment(const cjournal_entry_t& entry) {
    kprintf("  %7u  %6u  %10u  %10u  %-7s  %-7s  0x%08x  %s\n", entry.segment_num,
            entry.event_count, entry.first_id, entry.last_id,
            segment_hash_status_cached(entry.hash_version), root_word(entry), entry.root_prefix,
            flags_word(entry));
}

void print_segment_record(const cjournal_entry_t& entry) {
    journal_line_t line(journal_form_t::record, "", "segment");
    line.add_number("segment", entry.segment_num).add_number("events", entry.event_count);
    line.add_number("first", entry.first_id).add_number("last", entry.last_id);
    line.add("hash", "%s", segment_hash_status_cached(entry.hash_version));
    line.add("root", "%s", root_word(entry)).add("root_prefix", "0x%x", entry.root_prefix);
    line.add("flags", "%s", flags_word(entry)).end();
}

/// The statistics by which a search skips the segment.
void print_index_entry(journal_form_t form, const cjournal_entry_t& entry) {
    journal_line_t line(form, "index", "index_entry");
    line.add_number("segment", entry.segment_num).add_number("events", entry.event_count);
    line.add_number("first", entry.first_id).add_number("last", entry.last_id);
    line.add("ticks", "%u..%u", entry.first_tick, entry.last_tick);
    line.add("lamport", "%llu..%llu", static_cast<unsigned long long>(entry.first_lamport),
             static_cast<unsigned long long>(entry.last_lamport));
    line.add("types", "0x%x", entry.type_bitmap);
    line.add("subsystems", "0x%x", entry.subsystem_bitmap);
    line.add("schemas", "0x%x", entry.schema_bitmap);
    line.add_number("edges", entry.parent_edge_count);
    line.add("parents", "%u..%u", entry.parent_min_id, entry.parent_max_id).end();
}

/// What heads the index, in memory and on disk.
struct index_head_t {
    cjournal_index_header_t memory;
    bool file_valid;
    const char* source;
};

index_head_t read_index_head() {
    const mutex_guard guard(cjournal_lock);
    cjournal_index_header_t header;
    heap_ptr<cjournal_index_entry_t> entries;
    return {
        {CJOURNAL_INDEX_MAGIC, CJOURNAL_INDEX_VERSION, static_cast<uint32_t>(cjournal.index_count),
         cjournal.events_spilled, cjournal.last_spilled_id, cjournal.segments_written},
        cjournal_read_index_locked(&header, &entries),
        cjournal_writer.index_source};
}

/// Reads the record that argv[1] names; prints what is wrong otherwise.
bool record_of_argument(int argc, char** argv, cjournal_event_t* record) {
    const uint32_t id = journal_parse_archived(argc, argv);
    if (id == 0)
        return false;
    if (cjournal_query_by_id_disk(id, record) == 0)
        return true;
    kprintf("journal %s: event #%u is not on disk\n", argv[0], id);
    return false;
}

/// Events met on the way back to the roots, each once; level by level.
struct trace_t {
    uint32_t ids[TRACE_EVENTS];
    uint32_t count;
    bool cut;  ///< there was no room for some

    void add(uint32_t id) {
        for (uint32_t i = 0; i < count; i++) {
            if (ids[i] == id)
                return;
        }
        cut = cut || count == TRACE_EVENTS;
        if (id != 0 && count < TRACE_EVENTS)
            ids[count++] = id;
    }
};

/// Prints an event of the trace and adds its causes.
void follow(journal_form_t form, uint32_t id, int level, trace_t* trace) {
    cjournal_event_t record;
    const int indent = 2 + 2 * (level < INDENTED_LEVELS ? level : INDENTED_LEVELS);
    if (cjournal_query_by_id(id, &record) == 0) {
        journal_print_record(form, record, indent);
        for (uint32_t i = 0; i < record.num_parents && i < CAUSAL_PARENTS_MAX; i++)
            trace->add(record.parents[i]);
    } else if (form == journal_form_t::text) {
        kprintf("  [%u] is neither in the ring nor on disk\n", id);
    }
}

}  // namespace

void journal_status(journal_form_t form, int, char**) {
    const totals_t t = add_up();
    const uint32_t kb = t.events * CJOURNAL_EVENT_SIZE / 1024;
    if (form != journal_form_t::text) {
        print_status_record(t, kb);
        return;
    }
    kprintf("Causal Journal:\n");
    kprintf("  Segments:   %u / %d max\n", t.segments, static_cast<int>(CJOURNAL_SEGMENTS_MAX));
    kprintf("  Persisted:  %u events\n", t.events);
    kprintf("  ID range:   %u -- %u (on disk) | %u -- %u (in ring)\n", t.first_id, t.last_id,
            causal_oldest_event_id(), causal_total_events());
    kprintf("  Tick range: T+%u -- T+%u (on disk)\n", t.first_tick, t.last_tick);
    kprintf("  Ring:       %u / %u\n", causal_ring_used(), CAUSAL_RING_SLOTS);
    kprintf("  Last spill: T+%u\n", last_spill_tick());
    kprintf("  Disk usage: ~%u KB\n", kb);
}

void journal_segments(journal_form_t form, int, char**) {
    if (form == journal_form_t::text)
        kprintf("  SEGMENT  EVENTS       FIRST        LAST  HASHES   ROOT     PREFIX      FLAGS\n");
    journal_each_entry([form](const cjournal_entry_t& entry) {
        if (form == journal_form_t::text)
            print_segment(entry);
        else
            print_segment_record(entry);
        if (form == journal_form_t::full)
            print_index_entry(form, entry);
    });
}

void journal_index(journal_form_t form, int, char**) {
    const index_head_t head = read_index_head();
    journal_line_t line(form, "index", "index");
    line.add("file", "%s", CJOURNAL_INDEX_PATH).add_yes("valid", head.file_valid);
    line.add("source", "%s", head.source).add_number("version", head.memory.version);
    line.add_number("entries", head.memory.entry_count);
    line.add_number("events", head.memory.events_spilled);
    line.add_number("last_spilled", head.memory.last_spilled_id);
    line.add_number("segments_written", head.memory.segments_written).end();
    journal_each_entry([form](const cjournal_entry_t& entry) { print_index_entry(form, entry); });
}

void journal_lookup(journal_form_t form, int argc, char** argv) {
    cjournal_event_t record;
    uint32_t segment = 0;
    if (!record_of_argument(argc, argv, &record))
        return;
    journal_print_record(form, record);
    if (form != journal_form_t::text)
        return;
    for (uint32_t i = 0; i < record.num_parents && i < CAUSAL_PARENTS_MAX; i++)
        kprintf("    parent %u\n", record.parents[i]);
    if (cjournal_segment_for_event(record.id, &segment) == 0)
        kprintf("    segment %u, lamport %llu, payload %u bytes, schema %u v%u\n", segment,
                static_cast<unsigned long long>(record.lamport), record.payload_len,
                static_cast<uint32_t>(record.schema_id),
                static_cast<uint32_t>(record.schema_version));
}

void journal_hash(journal_form_t form, int argc, char** argv) {
    cjournal_event_t record;
    if (!record_of_argument(argc, argv, &record))
        return;
    const uint32_t first =
        form == journal_form_t::full ? uint32_t{1} : static_cast<uint32_t>(CAUSAL_HASH_VERSION);
    for (uint32_t version = first; version <= CAUSAL_HASH_VERSION; version++) {
        cjournal_hash_t hash;
        cjournal_record_hash(version, record, &hash);
        journal_line_t line(form, "hash", "event_hash");
        line.add_number("event", record.id).add_number("hashv", version);
        line.add_hash("hash", hash.bytes).end();
    }
}

void journal_trace(journal_form_t form, int argc, char** argv) {
    trace_t trace = {};
    trace.add(journal_parse_archived(argc, argv));
    uint32_t at = 0;
    for (int level = 0; at < trace.count; level++) {
        for (const uint32_t end = trace.count; at < end; at++)
            follow(form, trace.ids[at], level, &trace);
    }
    if (form == journal_form_t::text && trace.cut)
        kprintf("  (more causes lie further back)\n");
}
