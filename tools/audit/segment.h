// The check of one segment with its companions.
#pragma once

#include <string>

#include "kernel/graph/cjournal/format.h"
#include "tools/audit/journal.h"

/// What is wrong; the first fault of a segment ends its check.
struct fault_t {
    std::string what;
};

/// A segment taken apart and found sound.
struct segment_t {
    cjournal_header_t header;
    cjournal_layout_t layout;
    cjournal_footer_t footer;  ///< fields that its version lacks are 0
    std::vector<cjournal_event_t> records;
    std::vector<cjournal_hash_t> hashes;  ///< version 4's
    cjournal_hash_t root;                 ///< recomputed from them
    uint32_t checksum;
    bool is_signed = false;

    bool current_layout() const;
    bool imported() const { return (footer.flags & CJOURNAL_FLAG_IMPORTED) != 0; }
    bool has_chain() const;  ///< its footer has a place for the previous checksum
};

/// Checks segment `number` among `files`; its signature, if it has one, against `key`. Throws
/// fault_t.
segment_t check_segment(uint32_t number, const files_t& files, const std::optional<key_t32>& key);

/// The name of a segment's file, without the folder.
std::string segment_file_name(uint32_t segment, cjournal_file_t file);
