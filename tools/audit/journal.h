// What an auditor knows of a journal: its files, and what is wrong with them.
//
// The checks are stricter than the running system's. A segment in the current layout must have its
// companions; numbers and identifiers must follow each other without a gap, except where the oldest
// segments were evicted; every byte that has only one proper value must have it.
#pragma once

#include <stdint.h>

#include <array>
#include <map>
#include <optional>
#include <string>
#include <vector>

using bytes_t = std::vector<uint8_t>;
using key_t32 = std::array<uint8_t, 32>;
using root_t32 = std::array<uint8_t, 32>;

/// The files of the folder "/causal", by name.
using files_t = std::map<std::string, bytes_t>;

/// One segment as it was found.
struct segment_report_t {
    uint32_t number = 0;
    uint32_t events = 0;
    uint32_t first_id = 0;
    uint32_t last_id = 0;
    bool current_layout = false;
    bool imported = false;
    bool is_signed = false;
    bool settled = true;  ///< not of an import that was cut short
    root_t32 root = {};   ///< recomputed from the records
};

/// What an audit found. Faults make the journal bad; notes are worth knowing.
struct audit_t {
    std::optional<key_t32> key;  ///< the node's public key, by which signatures were checked
    std::vector<segment_report_t> segments;  ///< sound ones, by number
    uint64_t events = 0;
    std::vector<std::string> faults;
    std::vector<std::string> notes;

    bool sealed() const;
};

enum audit_verdict_t : int { AUDIT_SOUND = 0, AUDIT_BAD = 1, AUDIT_UNSEALED = 4 };

/// Checks the journal among `files`. With `expected` the node's key must be that one.
audit_t audit_journal(const files_t& files, const std::optional<key_t32>& expected);

/// Sound, bad, or sound as far as unsigned records can be.
audit_verdict_t audit_verdict(const audit_t& audit);
