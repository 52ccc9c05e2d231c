#include "kernel/graph/search.h"

#include <algorithm>
#include <functional>

#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/mutex.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal.h"
#include "kernel/graph/event_walk.h"

namespace {

constexpr int WORDS_MAX = 16;  // of one description
constexpr uint32_t BUCKETS = 512;
constexpr uint16_t NO_TERM = 0xFFFF;
static_assert(BUCKETS >= 2 * CSEARCH_TERMS && (BUCKETS & (BUCKETS - 1)) == 0);

struct index_t {
    csearch_term_t terms[CSEARCH_TERMS];
    uint16_t buckets[BUCKETS];  ///< open addressing: the place of a term, or NO_TERM
    int term_count;
    int indexed_events;
    uint32_t last_rebuild_tick;
};

mutex_t index_lock;
index_t search_index GUARDED_BY(index_lock);

bool is_word_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

char to_lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

/// A word as the index knows it, zero-filled.
struct word_t {
    char text[CSEARCH_TERM_SIZE] = {};
    uint32_t hash = 2166136261;  // FNV-1a

    /// Takes the next character; what does not fit is left out.
    void add(uint32_t at, char c) {
        constexpr uint32_t PRIME = 16777619;
        if (at >= sizeof text - 1)
            return;
        text[at] = to_lower(c);
        hash = (hash ^ static_cast<uint8_t>(text[at])) * PRIME;
    }
};

word_t make_word(const char* text) {
    word_t word;
    for (uint32_t i = 0; text[i] != '\0'; i++)
        word.add(i, text[i]);
    return word;
}

/// The bucket of a word: its own, or the free one where it belongs.
uint16_t& bucket_of(const word_t& word) REQUIRES(index_lock) {
    uint32_t at = word.hash & (BUCKETS - 1);
    while (search_index.buckets[at] != NO_TERM &&
           memcmp(search_index.terms[search_index.buckets[at]].term, word.text,
                  CSEARCH_TERM_SIZE) != 0)
        at = (at + 1) & (BUCKETS - 1);
    return search_index.buckets[at];
}

void index_word(const word_t& word, uint32_t event_id) REQUIRES(index_lock) {
    uint16_t& bucket = bucket_of(word);
    if (bucket == NO_TERM) {
        if (search_index.term_count == CSEARCH_TERMS)
            return;
        bucket = static_cast<uint16_t>(search_index.term_count++);
        csearch_term_t& fresh = search_index.terms[bucket];
        memcpy(fresh.term, word.text, sizeof fresh.term);
        fresh.count = 0;
        fresh.active = true;
    }
    csearch_term_t& term = search_index.terms[bucket];
    // Events come in the order of their numbers: only the last one can be this one.
    const bool listed = term.count > 0 && term.event_ids[term.count - 1] == event_id;
    if (!listed && term.count < CSEARCH_EVENTS)
        term.event_ids[term.count++] = event_id;
}

void csearch_index_event(const event_facts_t& event) REQUIRES(index_lock) {
    const char* at = event.desc;
    for (int words = 0; words < WORDS_MAX; words++) {
        while (*at != '\0' && !is_word_char(*at))
            ++at;
        if (*at == '\0')
            return;
        word_t word;
        for (uint32_t length = 0; is_word_char(*at); ++at)
            word.add(length++, *at);
        index_word(word, event.id);
    }
}

void clear() REQUIRES(index_lock) {
    for (csearch_term_t& term : search_index.terms)
        term.active = false;
    std::fill_n(search_index.buckets, BUCKETS, NO_TERM);
    search_index.term_count = 0;
    search_index.indexed_events = 0;
}

/// What a term was found in.
struct hits_t {
    const uint32_t* ids = nullptr;
    int count = 0;
    bool holds(uint32_t id) const { return std::binary_search(ids, ids + count, id); }
};

hits_t hits_of(const char* term) REQUIRES(index_lock) {
    const uint16_t at = bucket_of(make_word(term));
    if (at == NO_TERM)
        return {};
    return {search_index.terms[at].event_ids, search_index.terms[at].count};
}

/// Copies a text up to `end`, cut to a term's size, without spaces at its end if `trimmed`.
void copy_term(char* term, const char* text, const char* end, bool trimmed) {
    size_t length = std::min<size_t>(static_cast<size_t>(end - text), CSEARCH_TERM_SIZE - 1);
    while (trimmed && length > 0 && text[length - 1] == ' ')
        --length;
    memset(term, 0, CSEARCH_TERM_SIZE);
    memcpy(term, text, length);
}

void split(const char* query, const char* word_at, const char* word, csearch_query_t* out) {
    const char* right = word_at + strlen(word);
    copy_term(out->left, query, word_at, true);
    copy_term(out->right, right, right + strlen(right), false);
}

int answer(const csearch_query_t& query, uint32_t* out, int max) REQUIRES(index_lock) {
    const hits_t left = hits_of(query.left);
    const hits_t right = query.kind == csearch_query_t::ONE ? hits_t{} : hits_of(query.right);
    int count = 0;
    for (int i = 0; i < left.count && count < max; i++) {
        if (query.kind != csearch_query_t::AND || right.holds(left.ids[i]))
            out[count++] = left.ids[i];
    }
    for (int i = 0; query.kind == csearch_query_t::OR && i < right.count && count < max; i++) {
        if (!left.holds(right.ids[i]))
            out[count++] = right.ids[i];
    }
    return count;
}

}  // namespace

void csearch_parse(const char* query, csearch_query_t* out) {
    constexpr const char* AND = " AND ";
    constexpr const char* OR = " OR ";
    *out = {};
    if (const char* at = strstr(query, AND)) {
        out->kind = csearch_query_t::AND;
        split(query, at, AND, out);
    } else if (const char* or_at = strstr(query, OR)) {
        out->kind = csearch_query_t::OR;
        split(query, or_at, OR, out);
    } else {
        out->kind = csearch_query_t::ONE;
        copy_term(out->left, query, query + strlen(query), false);
    }
}

void csearch_rebuild() {
    mutex_guard lock(index_lock);
    clear();
    event_walk_each([](const event_facts_t& event) NO_THREAD_SAFETY_ANALYSIS {
        ++search_index.indexed_events;
        csearch_index_event(event);
        return true;
    });
    search_index.last_rebuild_tick = system_ticks;
    kprintf("csearch: indexed %d events, %d unique terms\n", search_index.indexed_events,
            search_index.term_count);
}

void csearch_init() {
    csearch_rebuild();
    causal_event_fmt(CAUSAL_USER, "csearch", "search index ready: %d terms", csearch_stats().terms);
}

int csearch_query(const char* query, uint32_t* out, int max) {
    if (query == nullptr || out == nullptr || max < 1)
        return 0;
    csearch_query_t parsed;
    csearch_parse(query, &parsed);
    mutex_guard lock(index_lock);
    const int count = answer(parsed, out, max);
    std::sort(out, out + count, std::greater<uint32_t>());
    return count;
}

csearch_stats_t csearch_stats() {
    mutex_guard lock(index_lock);
    return {search_index.term_count, search_index.indexed_events, search_index.last_rebuild_tick};
}
