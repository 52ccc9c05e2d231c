// The search index: from the words of event descriptions to the events. A word is a run of letters,
// digits and "_", in lower case (ASCII letters only), cut at 15 characters; an event gives its
// first 16. The index holds 256 words, the first ones met, and for each the 64 oldest events that
// have it; what comes later is not found. It is built at start-up and when asked for, not kept up.
//
// Task context. One mutex guards the index; it stands above the journal's.
#pragma once

#include <stdint.h>

constexpr int CSEARCH_TERMS = 256;
constexpr int CSEARCH_EVENTS = 64;  ///< identifiers for a word
constexpr uint32_t CSEARCH_TERM_SIZE = 16;

struct csearch_term_t {
    char term[CSEARCH_TERM_SIZE];
    uint32_t event_ids[CSEARCH_EVENTS];  ///< in the order of their numbers
    int count;
    bool active;
};

/// Clears and builds the index. Records CAUSAL_USER "csearch" "search index ready: %d terms".
/// Start-up.
void csearch_init();

/// Builds the index anew from every event that ring or journal still hold and prints "csearch:
/// indexed %d events, %d unique terms".
void csearch_rebuild();

/// Stores the events that match `query`, newest first, at most `max`; their number. A query is one
/// word, or "a AND b": the oldest `max` events with both, or "a OR b": the oldest `max` with a,
/// then those with b. 0 for a null argument or a `max` below 1.
int csearch_query(const char* query, uint32_t* out, int max);

/// What the index holds.
struct csearch_stats_t {
    int terms;
    int events;             ///< seen by the last build
    uint32_t rebuild_tick;  ///< of the last build
};
csearch_stats_t csearch_stats();

/// A query taken apart.
struct csearch_query_t {
    enum kind_t : uint8_t { ONE, AND, OR } kind;
    char left[CSEARCH_TERM_SIZE];  ///< as typed, cut at 15 characters
    char right[CSEARCH_TERM_SIZE];
};

/// Takes `query` apart.
void csearch_parse(const char* query, csearch_query_t* out);
