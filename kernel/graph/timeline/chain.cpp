// Collecting a timeline's chain and moving its cursor. The ring may turn at any moment: what is
// read from a slot counts only if the slot still holds the same event afterwards.
#include <algorithm>

#include "kernel/core/string.h"
#include "kernel/graph/timeline/format.h"
#include "kernel/graph/timeline/internal.h"

namespace {

/// Lets `read` see event `id` in the ring; false when it is not there, or left meanwhile.
template <typename read_fn>
bool read_in_ring(uint32_t id, read_fn read) {
    const causal_event_t* ev = causal_get_ring(id);
    if (ev == nullptr)
        return false;
    read(*ev);
    asm volatile("" : : : "memory");
    return causal_get_ring(id) == ev;
}

/// Walks the parents back from the head and gives each event that is no continuation to `take`,
/// until that is false, the first event is reached, or the rest has left the ring.
template <typename take_fn>
void walk_back(const timeline_chain_t& chain, take_fn take) {
    uint32_t id = chain.tl.head_id;
    while (id != 0) {
        uint32_t parent = 0;
        bool is_shown = false;
        const bool found = read_in_ring(id, [&](const causal_event_t& ev) {
            parent = ev.parents[0];
            is_shown = strcmp(ev.desc, "(cont)") != 0;
        });
        if (!found || (is_shown && !take(id)) || id == chain.first_id)
            return;
        id = parent < id ? parent : 0;
    }
}

/// Copies the record; false for a bad number.
bool copy_record(int tl_id, timeline_chain_t* out) {
    const irq_guard guard;
    const timeline_slot_t* slot = timeline_active(tl_id);
    if (slot == nullptr)
        return false;
    out->tl = slot->tl;
    out->first_id = slot->first_id;
    return true;
}

/// Moves the cursor, unless another timeline has got the slot; 0 or -1.
int set_cursor(int tl_id, const timeline_chain_t& chain, uint32_t id) {
    const irq_guard guard;
    timeline_slot_t* slot = timeline_active(tl_id);
    if (slot == nullptr || slot->first_id != chain.first_id)
        return -1;
    slot->tl.cursor_id = id;
    return 0;
}

/// The last position up to `until` whose tick is at most `tick`, or -1.
int last_up_to(const timeline_chain_t& chain, uint32_t tick) {
    uint32_t at = 0;
    for (int i = chain.count - 1; i >= 0; --i) {
        if (timeline_tick_of(chain.ids[i], &at) && at <= tick)
            return i;
    }
    return -1;
}

/// Moves the cursor by `steps` events within the chain.
int step(int tl_id, int64_t steps) {
    timeline_chain_t chain;
    if (!timeline_collect(tl_id, &chain) || chain.count == 0)
        return -1;
    const int last = chain.count - 1;
    const int cursor = chain.cursor_position();
    int64_t to = (cursor < 0 ? last : cursor) + steps;
    to = to < 0 ? 0 : to;
    return set_cursor(tl_id, chain, chain.ids[to < last ? static_cast<int>(to) : last]);
}

/// Calls `fn` with the events of `chain` up to position `end`, as long as `wanted` says so.
template <typename wanted_fn>
int replay(const timeline_chain_t& chain, int end, timeline_replay_fn fn, void* ctx,
           wanted_fn wanted) {
    int calls = 0;
    causal_event_t ev;
    for (int i = 0; i <= end; ++i) {
        if (!causal_copy(chain.ids[i], &ev))
            continue;
        if (!wanted(ev))
            break;
        fn(&ev, ctx);
        ++calls;
    }
    return calls;
}

/// Reads a number that is the whole text.
bool parse_number(const char* text, uint32_t* value) {
    return text[0] != '+' && safe_parse_uint(text, value) == 0;
}

/// Reads an identifier that is in the chain.
bool parse_id(const timeline_chain_t& chain, const char* text, uint32_t* id) {
    if (!parse_number(text, id))
        return false;
    const uint32_t* begin = chain.ids.get();
    const uint32_t* end = begin + chain.count;
    return std::find(begin, end, *id) != end;
}

}  // namespace

int timeline_chain_t::cursor_position() const {
    for (int i = count - 1; i >= 0; --i) {
        if (ids[i] <= tl.cursor_id)
            return i;
    }
    return -1;
}

bool timeline_collect(int tl_id, timeline_chain_t* out) {
    out->count = 0;
    if (!copy_record(tl_id, out))
        return false;
    uint32_t found = 0;
    walk_back(*out, [&found](uint32_t) { return ++found != 0; });
    out->ids = heap_ptr<uint32_t>::make(found + 1);
    if (!out->ids)
        return false;
    uint32_t left = found;
    walk_back(*out, [&](uint32_t id) {
        if (left == 0)
            return false;
        out->ids[--left] = id;
        return true;
    });
    // Between the two walks the oldest ones may have gone.
    out->count = static_cast<int>(found - left);
    memmove(out->ids.get(), out->ids.get() + left, (found - left) * sizeof(uint32_t));
    return true;
}

bool timeline_tick_of(uint32_t id, uint32_t* tick) {
    return read_in_ring(id, [tick](const causal_event_t& ev) { *tick = ev.time.wall_ticks; });
}

int timeline_rewind(int tl_id, uint32_t target_tick) {
    timeline_chain_t chain;
    if (!timeline_collect(tl_id, &chain))
        return -1;
    const int at = last_up_to(chain, target_tick);
    return at < 0 ? -1 : set_cursor(tl_id, chain, chain.ids[at]);
}

int timeline_forward(int tl_id, uint32_t target_tick) {
    timeline_chain_t chain;
    if (!timeline_collect(tl_id, &chain))
        return -1;
    const int cursor = chain.cursor_position();
    if (cursor < 0)
        return -1;
    uint32_t tick = 0;
    for (int i = cursor + 1; i < chain.count; ++i) {
        if (timeline_tick_of(chain.ids[i], &tick) && tick >= target_tick)
            return set_cursor(tl_id, chain, chain.ids[i]);
    }
    return set_cursor(tl_id, chain, chain.tl.head_id);
}

int timeline_rewind_steps(int tl_id, uint32_t steps) {
    return step(tl_id, -static_cast<int64_t>(steps));
}

int timeline_forward_steps(int tl_id, uint32_t steps) { return step(tl_id, steps); }

uint32_t timeline_cursor_tick(int tl_id) {
    timeline_chain_t chain = {};
    causal_event_t ev;
    const bool known = copy_record(tl_id, &chain) && causal_copy(chain.tl.cursor_id, &ev);
    return known ? ev.time.wall_ticks : 0;
}

int timeline_replay(int tl_id, timeline_replay_fn fn, void* ctx) {
    timeline_chain_t chain;
    if (fn == nullptr || !timeline_collect(tl_id, &chain))
        return -1;
    return replay(chain, chain.cursor_position(), fn, ctx,
                  [](const causal_event_t&) { return true; });
}

int timeline_replay_until(int tl_id, uint32_t until_tick, timeline_replay_fn fn, void* ctx) {
    timeline_chain_t chain;
    if (fn == nullptr || !timeline_collect(tl_id, &chain))
        return -1;
    return replay(chain, chain.count - 1, fn, ctx, [until_tick](const causal_event_t& ev) {
        return ev.time.wall_ticks <= until_tick;
    });
}

bool timeline_parse_endpoint(int tl_id, const char* text, uint32_t* event_id) {
    timeline_chain_t chain;
    if (!timeline_collect(tl_id, &chain))
        return false;
    const auto id_at = [&chain](int position) { return position < 0 ? 0 : chain.ids[position]; };
    const int last = chain.count - 1;
    uint32_t number;
    if (text[0] == '#')
        return parse_id(chain, text + 1, event_id);
    if (strncmp(text, "id=", 3) == 0)
        return parse_id(chain, text + 3, event_id);
    if (strcmp(text, "start") == 0 || strcmp(text, "origin") == 0 || strcmp(text, "0") == 0) {
        *event_id = 0;
    } else if (strcmp(text, "head") == 0) {
        *event_id = id_at(last);
    } else if (strcmp(text, "cursor") == 0) {
        const int cursor = chain.cursor_position();
        *event_id = id_at(cursor < 0 ? last : cursor);
    } else if ((text[0] == 'T' || text[0] == 't') && text[1] == '+') {
        if (!parse_number(text + 2, &number))
            return false;
        *event_id = id_at(last_up_to(chain, number));
    } else {
        if (!parse_number(text, &number) || number == 0 ||
            number > static_cast<uint32_t>(chain.count))
            return false;
        *event_id = chain.ids[number - 1];
    }
    return true;
}
