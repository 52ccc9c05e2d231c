// The checks of the whole: each segment on its own, then the row that they make, then what the
// other files say of them.
#include "tools/audit/journal.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>

#include "kernel/core/noise.h"
#include "tools/audit/segment.h"

namespace {

constexpr size_t FOLDER_LENGTH = 8;  // "/causal/"

const char* name_in_folder(const char* path) { return path + FOLDER_LENGTH; }

const bytes_t* find(const files_t& files, const char* path) {
    const auto at = files.find(name_in_folder(path));
    return at != files.end() ? &at->second : nullptr;
}

/// A name out of the volume may hold anything.
std::string printable(std::string name) {
    for (char& c : name)
        c = c >= ' ' && c <= '~' ? c : '?';
    return name;
}

std::string range_text(uint32_t first, uint32_t last) {
    const std::string from = std::to_string(first);
    return first == last ? from : from + ".." + std::to_string(last);
}

// --- The key ---

void take_key(const files_t& files, const std::optional<key_t32>& expected, audit_t* audit) {
    const bytes_t* seed = find(files, CJOURNAL_KEY_PATH);
    audit->key = expected;
    if (seed == nullptr)
        return;
    if (seed->size() != CJOURNAL_SEED_BYTES) {
        audit->notes.push_back("the key file has not 32 bytes");
        return;
    }
    uint8_t secret[64];
    std::copy(seed->begin(), seed->end(), secret);
    key_t32 own;
    ed25519_keypair(own.data(), secret);
    crypto_wipe(secret, sizeof secret);
    if (expected && own != *expected)
        audit->faults.push_back("the key on this disk is another one than --key");
    if (!expected)
        audit->key = own;
}

// --- What the journal says of its own gaps ---

struct range_t {
    uint32_t first, last;
};

/// Events by which the journal's writer accounts for what is not there.
struct accounts_t {
    std::vector<range_t> lost;   ///< events that the ring lost before they could be written
    std::set<uint32_t> evicted;  ///< segments

    /// One after the other, if need be.
    bool covers(uint64_t first, uint32_t last) const {
        while (first <= last) {
            const auto next = std::ranges::find_if(lost, [first](const range_t& range) {
                return range.first <= first && first <= range.last;
            });
            if (next == lost.end())
                return false;
            first = uint64_t{next->last} + 1;
        }
        return true;
    }
};

void read_account(const cjournal_event_t& record, accounts_t* accounts) {
    if (std::strcmp(record.subsystem, "cjournal") != 0)
        return;
    unsigned first, last;
    if (std::sscanf(record.desc, "lost %u..%u", &first, &last) == 2)
        accounts->lost.push_back({first, last});
    else if (std::sscanf(record.desc, "evict %u ", &first) == 1)
        accounts->evicted.insert(first);
}

// --- The row ---

class row_t {
public:
    row_t(const accounts_t& accounts, audit_t* audit) : accounts_(accounts), audit_(audit) {}

    /// A journal that still has its first segment has its first event.
    void begin(uint32_t first_number) { front_next_ = first_number == 1 ? 1 : 0; }

    /// Takes the next segment, by rising number; null: it is not sound.
    void take(uint32_t number, const segment_t* segment) {
        if (last_number_ != 0 && number != last_number_ + 1)
            take_gap(last_number_ + 1, number - 1);
        const bool follows = last_ != nullptr && number == last_number_ + 1;
        if (segment != nullptr && follows && segment->has_chain() &&
            segment->footer.prev_checksum != last_->checksum)
            fault(number, "does not follow the segment before it");
        if (segment != nullptr)
            take_layout(number, segment->layout);
        if (segment == nullptr)
            next_ids_.clear();
        else if (!segment->imported())
            take_identifiers(number, *segment);
        last_number_ = number;
        last_ = segment;
    }

private:
    void fault(uint32_t number, const std::string& what) {
        audit_->faults.push_back("segment " + std::to_string(number) + " " + what);
    }

    /// Who cuts a segment's end off may get one that an older system could have written.
    void take_layout(uint32_t number, const cjournal_layout_t& layout) {
        if (layout.event_size < newest_.event_size || layout.footer_size < newest_.footer_size)
            fault(number, "is in an older layout than one before it");
        newest_.event_size = std::max(newest_.event_size, layout.event_size);
        newest_.footer_size = std::max(newest_.footer_size, layout.footer_size);
    }

    /// The oldest may be evicted. Older in number, but not in its events, is what was imported or
    /// spilled alone: it may be left alone at the front.
    void take_gap(uint32_t first, uint32_t last) {
        if (!begun_) {
            audit_->notes.push_back("segments " + range_text(first, last) +
                                    " are gone, and with them all before them but what was spilled "
                                    "alone or imported");
            front_next_ = 0;
            return;
        }
        for (uint32_t number = first; number <= last; ++number) {
            if (accounts_.evicted.contains(number)) {
                audit_->notes.push_back("segment " + std::to_string(number) +
                                        " was evicted, as the journal says");
                continue;
            }
            audit_->faults.push_back("segments " + range_text(number, last) + " are missing");
            next_ids_.clear();
            return;
        }
    }

    /// An event that was spilled alone runs ahead of the regular spill, which writes it again.
    void take_identifiers(uint32_t number, const segment_t& segment) {
        const uint32_t first = segment.header.first_id;
        const uint32_t last = segment.header.last_id;
        const bool alone = segment.records.size() == 1;
        if (segment.current_layout())
            take_inner_gaps(number, segment);
        if (!begun_) {
            take_leading(number, segment);
            return;
        }
        if (next_ids_.empty() || next_ids_.contains(first)) {
            if (!alone)
                next_ids_.clear();
            next_ids_.insert(last + 1);
            return;
        }
        if (alone) {
            alone_.insert(first);
            return;
        }
        const uint32_t expected = *next_ids_.rbegin();
        if (first < expected)
            fault(number, "goes back to event " + std::to_string(first));
        else
            take_missing(number, expected, first - 1);
        next_ids_ = {last + 1};
    }

    /// The regular row begins, at or before what was spilled alone just before it; events alone go
    /// before it in any order.
    void take_leading(uint32_t number, const segment_t& segment) {
        const uint32_t first = segment.header.first_id;
        if (segment.records.size() == 1) {
            alone_.insert(first);
            if (front_next_ == 0 || first == front_next_)
                front_next_ = first + 1;
            return;
        }
        if (front_next_ != 0 && first > front_next_)
            take_missing(number, front_next_, first - 1);
        begun_ = true;
        next_ids_ = {segment.header.last_id + 1};
    }

    void take_inner_gaps(uint32_t number, const segment_t& segment) {
        for (size_t i = 1; i < segment.records.size(); ++i) {
            const uint32_t before = segment.records[i - 1].id;
            if (segment.records[i].id != before + 1)
                take_missing(number, before + 1, segment.records[i].id - 1);
        }
    }

    /// What of a gap was not spilled alone before must be accounted for.
    void take_missing(uint32_t number, uint32_t first, uint32_t last) {
        for (const uint32_t id : alone_) {
            if (id < first || id > last)
                continue;
            if (id > first)
                take_missing_run(number, first, id - 1);
            first = id + 1;
        }
        if (first <= last && first != 0)
            take_missing_run(number, first, last);
    }

    void take_missing_run(uint32_t number, uint32_t first, uint32_t last) {
        const std::string events = "events " + range_text(first, last);
        if (accounts_.covers(first, last))
            audit_->notes.push_back(events +
                                    " were lost before they could be written, as the journal says");
        else
            audit_->faults.push_back(events + " are missing before segment " +
                                     std::to_string(number));
    }

    const accounts_t& accounts_;
    audit_t* audit_;
    uint32_t last_number_ = 0;
    cjournal_layout_t newest_ = {};  ///< so far, of records and footers
    const segment_t* last_ = nullptr;
    bool begun_ = false;           ///< a segment of the regular row was there
    uint32_t front_next_ = 0;      ///< behind the events alone at the front; 0: none
    std::set<uint32_t> alone_;     ///< events that were spilled alone
    std::set<uint32_t> next_ids_;  ///< where the next regular segment may begin; empty: anywhere
};

/// No two live records of one number may differ.
void check_twins(const std::map<uint32_t, segment_t>& segments, audit_t* audit) {
    std::map<uint32_t, const cjournal_hash_t*> alone;
    for (const auto& [number, s] : segments) {
        if (s.records.size() == 1 && !s.imported())
            alone[s.records[0].id] = &s.hashes[0];
    }
    for (const auto& [number, s] : segments) {
        for (size_t i = 0; i < s.records.size() && !s.imported(); ++i) {
            const auto twin = alone.find(s.records[i].id);
            if (twin != alone.end() &&
                std::memcmp(twin->second, &s.hashes[i], sizeof(cjournal_hash_t)) != 0)
                audit->faults.push_back("two records of event " + std::to_string(twin->first) +
                                        " differ");
        }
    }
}

// --- The other files ---

/// An import that did not end is taken back at the next start: the index does not name it yet.
void check_import(const cjournal_index_header_t& index, audit_t* audit) {
    for (segment_report_t& s : audit->segments) {
        s.settled = !s.imported || s.number <= index.segments_written;
        if (!s.settled)
            audit->notes.push_back("the import of segment " + std::to_string(s.number) +
                                   " did not end; the next start takes it back");
    }
}

void check_index(const files_t& files, uint32_t newest, audit_t* audit) {
    const bytes_t* file = find(files, CJOURNAL_INDEX_PATH);
    cjournal_index_header_t header = {};
    if (file != nullptr && file->size() >= sizeof header)
        std::memcpy(&header, file->data(), sizeof header);
    if (file == nullptr || !cjournal_index_valid(header, static_cast<uint32_t>(file->size()))) {
        audit->notes.push_back("there is no valid index; the system rebuilds it");
        return;
    }
    check_import(header, audit);
    uint32_t highest = 0;
    for (uint32_t i = 0; i < header.entry_count; ++i) {
        cjournal_index_entry_t entry;
        std::memcpy(&entry, file->data() + cjournal_index_bytes(i), sizeof entry);
        highest = std::max<uint32_t>(highest, entry.segment_num);
    }
    if (highest > newest)
        audit->faults.push_back("the index speaks of segment " + std::to_string(highest) +
                                ", the newest is " + std::to_string(newest) +
                                ": its tail was removed");
}

/// Notes what belongs to no segment; returns the numbers of the segments.
std::vector<uint32_t> sort_files(const files_t& files, audit_t* audit) {
    std::vector<uint32_t> numbers;
    const std::set<std::string> known = {
        name_in_folder(CJOURNAL_INDEX_PATH), name_in_folder(CJOURNAL_KEY_PATH),
        name_in_folder(CJOURNAL_SNAPSHOT_PATH), name_in_folder(CJOURNAL_MIGRATED_PATH)};
    for (const auto& [name, bytes] : files) {
        uint32_t number;
        cjournal_file_t kind;
        if (!cjournal_parse_name(name.c_str(), static_cast<uint32_t>(name.size()), &number,
                                 &kind)) {
            if (!known.contains(name))
                audit->notes.push_back("'" + printable(name) + "' is no file of a journal");
        } else if (kind == cjournal_file_t::segment) {
            numbers.push_back(number);
        } else if (!files.contains(segment_file_name(number, cjournal_file_t::segment))) {
            audit->notes.push_back("'" + name + "' belongs to no segment");
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

segment_report_t report_of(uint32_t number, const segment_t& s) {
    segment_report_t report;
    report.number = number;
    report.events = s.header.event_count;
    report.first_id = s.header.first_id;
    report.last_id = s.header.last_id;
    report.current_layout = s.current_layout();
    report.imported = s.imported();
    report.is_signed = s.is_signed;
    std::copy(std::begin(s.root.bytes), std::end(s.root.bytes), report.root.begin());
    return report;
}

}  // namespace

bool audit_t::sealed() const {
    return !segments.empty() && std::all_of(segments.begin(), segments.end(),
                                            [](const segment_report_t& s) { return s.is_signed; });
}

audit_t audit_journal(const files_t& files, const std::optional<key_t32>& expected) {
    audit_t audit;
    take_key(files, expected, &audit);
    const std::vector<uint32_t> numbers = sort_files(files, &audit);
    std::map<uint32_t, segment_t> segments;
    accounts_t accounts;
    for (const uint32_t number : numbers) {
        try {
            const auto& s = segments[number] = check_segment(number, files, audit.key);
            for (const cjournal_event_t& record : s.records)
                read_account(record, &accounts);
            audit.segments.push_back(report_of(number, s));
            audit.events += s.records.size();
        } catch (const fault_t& fault) {
            segments.erase(number);
            audit.faults.push_back(segment_file_name(number, cjournal_file_t::segment) + " has " +
                                   fault.what);
        }
    }
    row_t row(accounts, &audit);
    row.begin(numbers.empty() ? 0 : numbers.front());
    for (const uint32_t number : numbers) {
        const auto at = segments.find(number);
        row.take(number, at != segments.end() ? &at->second : nullptr);
    }
    check_twins(segments, &audit);
    check_index(files, numbers.empty() ? 0 : numbers.back(), &audit);
    return audit;
}

audit_verdict_t audit_verdict(const audit_t& audit) {
    if (!audit.faults.empty())
        return AUDIT_BAD;
    return audit.sealed() ? AUDIT_SOUND : AUDIT_UNSEALED;
}
