// What the journal holds: status, segments, single events.
#include "kernel/apps/cmd_journal/internal.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/cjournal/internal.h"

namespace {

constexpr int CHILDREN_SHOWN = 20;

/// Copies the entry at `position`; false behind the last one.
bool copy_entry(int32_t position, cjournal_entry_t* out) {
    const mutex_guard guard(cjournal_lock);
    if (position >= cjournal.index_count)
        return false;
    *out = cjournal.index[position];
    return true;
}

/// What all entries say together.
struct totals_t {
    int segments;
    uint32_t events, first_id, last_id, first_tick, last_tick;
};

totals_t add_up() {
    totals_t t = {};
    cjournal_entry_t entry;
    for (int32_t i = 0; copy_entry(i, &entry); i++) {
        if (!entry.active)
            continue;
        const bool first = t.segments++ == 0;
        t.events += entry.event_count;
        t.first_id = first || entry.first_id < t.first_id ? entry.first_id : t.first_id;
        t.last_id = entry.last_id > t.last_id ? entry.last_id : t.last_id;
        t.first_tick = first || entry.first_tick < t.first_tick ? entry.first_tick : t.first_tick;
        t.last_tick = entry.last_tick > t.last_tick ? entry.last_tick : t.last_tick;
    }
    return t;
}

uint32_t last_spill_tick() {
    const mutex_guard guard(cjournal_lock);
    return cjournal_writer.last_spill_tick;
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

}  // namespace

uint32_t journal_parse_archived(int argc, char** argv) {
    if (argc < 2) {
        kprintf("Usage: journal %s <id|first|last>\n", argv[0]);
        return 0;
    }
    const uint32_t id = cjournal_resolve_archived_event_arg(argv[1]);
    if (id == 0)
        kprintf("journal %s: no archived event '%s'\n", argv[0], argv[1]);
    return id;
}

void journal_print_record(const cjournal_event_t& record) {
    causal_event_t ev;
    cjournal_expand_event(record, &ev);
    kprintf("  [%u] T+%u %s %s: %s\n", ev.id, ev.time.wall_ticks, causal_type_name(ev.type),
            ev.subsystem, ev.desc);
}

void journal_status() {
    const totals_t t = add_up();
    kprintf("Causal Journal:\n");
    kprintf("  Segments:   %u / %d max\n", static_cast<uint32_t>(t.segments),
            static_cast<int>(CJOURNAL_SEGMENTS_MAX));
    kprintf("  Persisted:  %u events\n", t.events);
    kprintf("  ID range:   %u -- %u (on disk) | %u -- %u (in ring)\n", t.first_id, t.last_id,
            causal_oldest_event_id(), causal_total_events());
    kprintf("  Tick range: T+%u -- T+%u (on disk)\n", t.first_tick, t.last_tick);
    kprintf("  Ring:       %u / %u\n", causal_ring_used(), CAUSAL_RING_SLOTS);
    kprintf("  Last spill: T+%u\n", last_spill_tick());
    kprintf("  Disk usage: ~%u KB\n", t.events * CJOURNAL_EVENT_SIZE / 1024);
}

void journal_segments(int, char**) {
    cjournal_entry_t entry;
    kprintf("  SEGMENT   EVENTS      FIRST       LAST  HASHES  ROOT        FLAGS\n");
    for (int32_t i = 0; copy_entry(i, &entry); i++) {
        if (!entry.active)
            continue;
        const bool hashed = entry.hash_version != 0 && entry.hash_version != CJOURNAL_BAD_VERSION;
        kprintf("  %7u  %7u  %9u  %9u  %s%u      0x%08x  %s\n", entry.segment_num,
                entry.event_count, entry.first_id, entry.last_id, hashed ? "v" : "-",
                hashed ? entry.hash_version : 0, entry.root_prefix,
                (entry.flags & CJOURNAL_FLAG_IMPORTED) != 0 ? "imported" : "-");
    }
}

void journal_lookup(int argc, char** argv) {
    cjournal_event_t record;
    uint32_t segment = 0;
    if (!record_of_argument(argc, argv, &record))
        return;
    journal_print_record(record);
    for (uint32_t i = 0; i < record.num_parents && i < CAUSAL_PARENTS_MAX; i++)
        kprintf("    parent %u\n", record.parents[i]);
    if (cjournal_segment_for_event(record.id, &segment) == 0)
        kprintf("    segment %u, lamport %llu, payload %u bytes, schema %u v%u\n", segment,
                static_cast<unsigned long long>(record.lamport), record.payload_len,
                static_cast<uint32_t>(record.schema_id),
                static_cast<uint32_t>(record.schema_version));
}

void journal_hash(int argc, char** argv) {
    cjournal_event_t record;
    cjournal_hash_t hash;
    char hex[65];
    if (!record_of_argument(argc, argv, &record))
        return;
    cjournal_record_hash(CAUSAL_HASH_VERSION, record, &hash);
    causal_hash_hex(hash.bytes, hex);
    kprintf("event #%u hash v%u %s\n", static_cast<uint32_t>(record.id), CAUSAL_HASH_VERSION, hex);
}

void journal_children(int argc, char** argv) {
    const uint32_t id = journal_parse_archived(argc, argv);
    int wanted = CHILDREN_SHOWN;
    if (id == 0)
        return;
    if (argc >= 3 && (safe_atoi(argv[2], &wanted) != 0 || wanted < 1)) {
        kprintf("journal children: invalid count '%s'\n", argv[2]);
        return;
    }
    wanted = wanted < CJOURNAL_QUERY_MAX ? wanted : CJOURNAL_QUERY_MAX;
    const auto records = cjournal_records_t::make(static_cast<size_t>(wanted));
    const int count = records ? cjournal_query_children(id, records.get(), wanted) : 0;
    for (int i = 0; i < count; i++)
        journal_print_record(records[static_cast<size_t>(i)]);
    kprintf("%d archived children of event #%u\n", count, id);
}
