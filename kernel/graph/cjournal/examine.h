// The examination of one segment: everything that verification, proofs and signatures ask, with
// each file read once and each record hashed once. Private to kernel/graph/cjournal/.
#pragma once

#include "kernel/graph/cjournal/internal.h"

/// What was found of a segment whose check passed.
struct cjournal_examined_t {
    cjournal_header_t header;
    bool footer;    ///< it has one
    bool checksum;  ///< its footer carries one
    bool layout;    ///< its footer carries the sizes
    bool chain;     ///< checked against the segment before
    uint32_t own_checksum;
    cjournal_records_t records;        ///< header.event_count of them
    heap_ptr<cjournal_hash_t> hashes;  ///< of the current version, once asked for
    int hash_status;                   ///< 1 sidecar verified, 0 missing, -1 bad
    uint32_t hash_version;             ///< the sidecar's, when verified
    int root_status;                   ///< 1 root verified, 0 missing, -1 bad
};

/// A segment whose checksum is known, so that its successor's link needs no second reading.
struct cjournal_known_t {
    uint32_t segment;  ///< 0: none
    uint32_t checksum;
};

/// Checks segment `segment` and prints the first failure; false then. `before` may be null.
[[nodiscard]] bool cjournal_examine_locked(uint32_t segment, const cjournal_known_t* before,
                                           cjournal_examined_t* out) REQUIRES(cjournal_lock);

/// Hashes the records of an examined segment and checks sidecar and root against them; false
/// without memory.
[[nodiscard]] bool cjournal_examine_hashes_locked(uint32_t segment, cjournal_examined_t* examined)
    REQUIRES(cjournal_lock);
