// The integrity tools' own hash of an event, which outlives its place in the ring: it covers what
// the event says and, through its parents' hashes, what led to it. The journal's writer fills the
// table as events leave the ring for the disk, in the order of their numbers, so that parents come
// first; a parent that is older than the table counts as 32 zero bytes.
#pragma once

#include <stdint.h>

#include "kernel/graph/cjournal/format.h"

/// Forgets all hashes.
void integrity_init();

/// Of a record whose texts are terminated: BLAKE2s-256 over the type (4 bytes, little-endian),
/// subsystem and description without their terminators, the tick (4 bytes) and, for each parent,
/// its hash in the table.
void integrity_hash(const cjournal_event_t& event, uint8_t out[CAUSAL_HASH_SIZE]);

/// The event leaves the ring: its hash goes into the table, over that of the event that is as many
/// numbers older as the ring has slots.
void integrity_take(const cjournal_event_t& event);
