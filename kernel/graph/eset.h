// Event sets: short lists of event identifiers, built by type, subsystem or range, combined, and
// filtered by text. Order is kept, each combination says which; what does not fit is left out.
//
// Sets are the caller's own. Task context: events that left the ring come from the archive.
#pragma once

#include <stdint.h>

#include "kernel/graph/causal.h"

constexpr int ESET_MAX = 128;

struct eset_t {
    uint32_t ids[ESET_MAX];
    int count;
};

/// Records nothing and keeps nothing; there for the order of start-up.
void eset_init();

/// Appends `id`.
void eset_add(eset_t* set, uint32_t id);

/// The newest events of a type in the ring, newest first.
void eset_by_type(causal_type_t type, eset_t* out);

/// The newest events of a subsystem that ring or journal hold, newest first.
void eset_by_subsystem(const char* name, eset_t* out);

/// Events from `start` to `end` that ring or journal hold, oldest first.
void eset_by_range(uint32_t start, uint32_t end, eset_t* out);

/// `a`, then what of `b` is not there yet.
void eset_union(const eset_t* a, const eset_t* b, eset_t* out);

/// What of `a` is in `b`, and what is not.
void eset_intersect(const eset_t* a, const eset_t* b, eset_t* out);
void eset_diff(const eset_t* a, const eset_t* b, eset_t* out);

/// What of `a` can be found and has `text` in its description.
void eset_filter_desc(const eset_t* a, const char* text, eset_t* out);

int eset_count(const eset_t* set);

/// Prints a line for each member that can be found, then the set's count.
void eset_print(const eset_t* set);

/// `eset`: see its usage lines.
void cmd_eset(int argc, char** argv);
