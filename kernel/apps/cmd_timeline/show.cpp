// The subcommands of `tl` that only look.
#include "kernel/apps/cmd_timeline/common.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

constexpr int TAIL_DEFAULT = 10;
constexpr int AT_SHOWN = 10;
constexpr int DIFF_SHOWN = 12;

using events_t = heap_ptr<timeline_cached_event_t>;

void print_newest(int tl_id, int max) {
    const auto events = events_t::make(TIMELINE_CACHE_EVENTS);
    const timeline_t* tl = timeline_get(tl_id);
    if (!events || tl == nullptr) {
        kprintf("tl: no memory\n");
        return;
    }
    const int count = timeline_recent(tl_id, events.get(), max);
    for (int i = 0; i < count; ++i)
        tl_print_event(events[i].id == tl->cursor_id ? '>' : ' ', events[i]);
}

/// What `diff` counts between two events.
struct diff_t {
    uint32_t after, up_to;  ///< identifiers
    char mark;
    int total, shown;
    int by_type[TIMELINE_DELETE + 1];  ///< 0: unknown
};

void count_between(const causal_event_t* event, void* ctx) {
    auto* diff = static_cast<diff_t*>(ctx);
    if (event->id <= diff->after || event->id > diff->up_to)
        return;
    const uint32_t sub_type = tl_shown(*event).sub_type;
    ++diff->total;
    ++diff->by_type[sub_type <= TIMELINE_DELETE ? sub_type : 0];
}

void show_between(const causal_event_t* event, void* ctx) {
    auto* diff = static_cast<diff_t*>(ctx);
    if (event->id <= diff->after || event->id > diff->up_to || diff->shown == DIFF_SHOWN)
        return;
    ++diff->shown;
    tl_print_event(diff->mark, tl_shown(*event));
}

/// Prints the events that match a text in their description, or are marks.
struct search_t {
    const char* text;  ///< null: marks
    int found;
};

void print_match(const causal_event_t* event, void* ctx) {
    auto* search = static_cast<search_t*>(ctx);
    const timeline_cached_event_t shown = tl_shown(*event);
    const bool matches = search->text == nullptr ? shown.sub_type == TIMELINE_MARK
                                                 : strstr(shown.desc, search->text) != nullptr;
    if (!matches)
        return;
    ++search->found;
    tl_print_event(' ', shown);
}

int search(int tl_id, const char* text) {
    search_t search = {text, 0};
    timeline_replay_until(tl_id, UINT32_MAX, print_match, &search);
    return search.found;
}

/// The last events that a replay met.
struct last_t {
    timeline_cached_event_t* events;
    int met;
};

void keep_last(const causal_event_t* event, void* ctx) {
    auto* last = static_cast<last_t*>(ctx);
    last->events[last->met++ % AT_SHOWN] = tl_shown(*event);
}

struct span_t {
    uint32_t first, last;
    bool any;
};

void measure(const causal_event_t* event, void* ctx) {
    auto* span = static_cast<span_t*>(ctx);
    if (!span->any)
        span->first = event->time.wall_ticks;
    span->any = true;
    span->last = event->time.wall_ticks;
}

void print_saved(const char* name) {
    uint32_t events;
    uint32_t chunks;
    const int saved = timeline_saved(name, &events, &chunks);
    if (saved > 0)
        kprintf("  persisted=yes events=%u chunks=%u\n", events, chunks);
    else
        kprintf("  persisted=%s\n", saved < 0 ? "legacy-or-invalid" : "no");
}

}  // namespace

void tl_print_event(char mark, const timeline_cached_event_t& event) {
    kprintf("  %c [%u] T+%u %-10s %s\n", mark, event.id, event.tick,
            tl_sub_type_name(event.sub_type), event.desc);
}

timeline_cached_event_t tl_shown(const causal_event_t& event) {
    timeline_cached_event_t shown = {};
    const uint8_t* data;
    uint16_t len;
    timeline_parse_payload(&event, &shown.sub_type, &data, &len);
    shown.valid = true;
    shown.id = event.id;
    shown.tick = event.time.wall_ticks;
    memcpy(shown.subsystem, event.subsystem, sizeof shown.subsystem);
    memcpy(shown.desc, event.desc, sizeof shown.desc);
    return shown;
}

const char* tl_sub_type_name(uint32_t sub_type) {
    constexpr const char* NAMES[] = {"unknown", "create", "data", "checkpoint", "mark", "delete"};
    return NAMES[sub_type <= TIMELINE_DELETE ? sub_type : 0];
}

bool tl_parse_tick(const char* command, const char* text, uint32_t* tick) {
    const bool has_prefix = (text[0] == 'T' || text[0] == 't') && text[1] == '+';
    if (safe_parse_uint(has_prefix ? text + 2 : text, tick) == 0)
        return true;
    kprintf("%s: invalid tick '%s'\n", command, text);
    return false;
}

void tl_show(int tl_id, int, char**) {
    const timeline_t* tl = timeline_get(tl_id);
    if (tl == nullptr)
        return;
    kprintf("Timeline '%s' (%s): %u events, cursor=T+%u\n", tl->name, tl->app, tl->event_count,
            timeline_cursor_tick(tl_id));
    print_newest(tl_id, TIMELINE_CACHE_EVENTS);
}

void tl_stats(int tl_id, int, char**) {
    span_t span = {};
    const int live = timeline_replay_until(tl_id, UINT32_MAX, measure, &span);
    const timeline_t* tl = timeline_get(tl_id);
    if (live < 0 || tl == nullptr) {
        kprintf("tl: no memory\n");
        return;
    }
    const timeline_t now = *tl;
    kprintf("Timeline '%s' (%s):\n", now.name, now.app);
    kprintf("  events=%u live=%d cursor=T+%u head=T+%u %s\n", now.event_count, live,
            timeline_cursor_tick(tl_id), span.last,
            now.cursor_id == now.head_id ? "at-head" : "rewound");
    kprintf("  span=%u ticks\n", span.last - span.first);
    print_saved(now.name);
}

void tl_diff(int tl_id, int, char** argv) {
    uint32_t from;
    uint32_t to;
    for (int i = 0; i < 2; ++i) {
        if (timeline_parse_endpoint(tl_id, argv[i], i == 0 ? &from : &to))
            continue;
        kprintf("tl: no endpoint '%s'\n", argv[i]);
        return;
    }
    const bool forward = from <= to;
    diff_t diff = {};
    diff.after = forward ? from : to;
    diff.up_to = forward ? to : from;
    diff.mark = forward ? '+' : '-';
    timeline_replay_until(tl_id, UINT32_MAX, count_between, &diff);
    kprintf("Timeline diff: %s -> %s\n", argv[0], argv[1]);
    kprintf(
        "  events_added=%d events_removed=%d changed=%d data=%d marks=%d checkpoints=%d "
        "deletes=%d creates=%d unknown=%d\n",
        forward ? diff.total : 0, forward ? 0 : diff.total, diff.total, diff.by_type[TIMELINE_DATA],
        diff.by_type[TIMELINE_MARK], diff.by_type[TIMELINE_CHECKPOINT],
        diff.by_type[TIMELINE_DELETE], diff.by_type[TIMELINE_CREATE], diff.by_type[0]);
    timeline_replay_until(tl_id, UINT32_MAX, show_between, &diff);
}

void tl_find(int tl_id, int, char** argv) {
    if (search(tl_id, argv[0]) == 0)
        kprintf("No event says '%s'\n", argv[0]);
}

void tl_marks(int tl_id, int, char**) {
    if (search(tl_id, nullptr) == 0)
        kprintf("No marks\n");
}

void tl_tail(int tl_id, int argc, char** argv) {
    uint32_t max = TAIL_DEFAULT;
    if (argc > 0 && (safe_parse_uint(argv[0], &max) != 0 || max == 0)) {
        kprintf("tl: invalid count '%s'\n", argv[0]);
        return;
    }
    print_newest(tl_id, max < TIMELINE_CACHE_EVENTS ? static_cast<int>(max)
                                                    : static_cast<int>(TIMELINE_CACHE_EVENTS));
}

void tl_at(int tl_id, int, char** argv) {
    uint32_t tick;
    if (!tl_parse_tick("tl", argv[0], &tick))
        return;
    const auto events = events_t::make(AT_SHOWN);
    last_t last = {events.get(), 0};
    const int count = events ? timeline_replay_until(tl_id, tick, keep_last, &last) : -1;
    if (count < 0) {
        kprintf("tl: no memory\n");
        return;
    }
    kprintf("At T+%u: %d events\n", tick, count);
    for (int i = count > AT_SHOWN ? count - AT_SHOWN : 0; i < count; ++i)
        tl_print_event(' ', events[i % AT_SHOWN]);
}
