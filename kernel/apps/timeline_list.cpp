#include "kernel/apps/timeline_list.h"

#include "kernel/core/endian.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/string.h"
#include "kernel/graph/timeline.h"

namespace {

constexpr uint32_t NUMBER_BYTES = 4;  // an event's data: the item's number, then its texts
static_assert(NUMBER_BYTES + LIST_DATA_MAX <= TIMELINE_DATA_MAX);

enum class change_t : uint32_t { add, mark, remove };

/// A replay that builds the items up.
struct rebuild_t {
    uint32_t sub_type;
    int texts;
    list_items_t* items;
};

int index_of(const list_items_t& items, uint32_t number) {
    for (int i = 0; i < items.count; ++i) {
        if (items.items[i].number == number)
            return i;
    }
    return -1;
}

void put(list_items_t* items, uint32_t number, uint32_t tick, std::span<const uint8_t> texts) {
    int at = index_of(*items, number);
    if (at < 0 && items->count == LIST_ITEMS_MAX)
        return;
    if (at < 0)
        at = items->count++;
    list_item_t& item = items->items[at];
    item = {};
    item.number = number;
    item.tick = tick;
    item.size = static_cast<uint32_t>(texts.size());
    memcpy(item.data, texts.data(), texts.size());
    if (number > items->last_number)
        items->last_number = number;
}

void take(list_items_t* items, uint32_t number) {
    const int at = index_of(*items, number);
    if (at < 0)
        return;
    --items->count;
    for (int i = at; i < items->count; ++i)
        items->items[i] = items->items[i + 1];
}

/// Whether `data` is exactly `texts` texts, each terminated and without control characters.
bool are_texts(std::span<const uint8_t> data, int texts) {
    if (data.empty() || data.size() > LIST_DATA_MAX || data.back() != 0)
        return false;
    int ends = 0;
    for (const uint8_t byte : data) {
        if (byte != 0 && byte < ' ')
            return false;
        ends += byte == 0 ? 1 : 0;
    }
    return ends == texts;
}

void apply(const causal_event_t* event, void* ctx) {
    const auto* rebuild = static_cast<rebuild_t*>(ctx);
    uint32_t sub_type;
    const uint8_t* data;
    uint16_t len;
    if (!timeline_parse_payload(event, &sub_type, &data, &len) || len < NUMBER_BYTES)
        return;
    const uint32_t number = load_le32(data);
    const std::span<const uint8_t> texts(data + NUMBER_BYTES, len - NUMBER_BYTES);
    switch (static_cast<change_t>(sub_type - rebuild->sub_type)) {
        case change_t::add:
            if (number != 0 && number != UINT32_MAX && are_texts(texts, rebuild->texts))
                put(rebuild->items, number, event->time.wall_ticks, texts);
            break;
        case change_t::mark:
            if (const int at = index_of(*rebuild->items, number); at >= 0)
                rebuild->items->items[at].marked = true;
            break;
        case change_t::remove:
            take(rebuild->items, number);
            break;
    }
}

/// Builds the items of a timeline up from its events until `tick`.
int rebuild(const timeline_list_t& list, int tl_id, uint32_t tick, list_items_t* out) {
    memset(out, 0, sizeof *out);
    rebuild_t ctx = {list.sub_type, list.texts, out};
    return timeline_replay_until(tl_id, tick, apply, &ctx) < 0 ? -1 : 0;
}

/// The list's timeline, which a user may have deleted.
int timeline_of(const timeline_list_t& list) {
    const int tl_id = timeline_find(list.name);
    return tl_id >= 0 ? tl_id : timeline_create(list.name, list.name);
}

/// Records a change of item `number`; false when that was not possible.
bool record(const timeline_list_t& list, change_t change, uint32_t number,
            std::span<const char> texts, const char* desc) {
    uint8_t data[NUMBER_BYTES + LIST_DATA_MAX];
    store_le32(data, number);
    if (!texts.empty())
        memcpy(data + NUMBER_BYTES, texts.data(), texts.size());
    const auto len = static_cast<uint32_t>(NUMBER_BYTES + texts.size());
    return timeline_emit(timeline_of(list), list.sub_type + static_cast<uint32_t>(change), data,
                         len, desc) != 0;
}

/// Begins the timeline anew with an event for each item that is there.
bool rewrite_locked(timeline_list_t* list) REQUIRES(list->lock) {
    timeline_destroy(timeline_find(list->name));
    for (int i = 0; i < list->now.count; ++i) {
        const list_item_t& item = list->now.items[i];
        if (!record(*list, change_t::add, item.number, {item.data, item.size}, item.data) ||
            (item.marked && !record(*list, change_t::mark, item.number, {}, item.data)))
            return false;
    }
    return timeline_of(*list) >= 0;
}

/// All items are in the ring, so that saving the timeline saves them all.
bool is_whole_locked(timeline_list_t* list) REQUIRES(list->lock) {
    const auto items = heap_ptr<list_items_t>::make();
    return items && rebuild(*list, timeline_find(list->name), UINT32_MAX, items.get()) == 0 &&
           items->count == list->now.count;
}

int change_item(timeline_list_t* list, uint32_t number, change_t change, const char* desc) {
    const mutex_guard guard(list->lock);
    const int at = index_of(list->now, number);
    if (at < 0)
        return -1;
    const bool is_done = change == change_t::mark && list->now.items[at].marked;
    if (!is_done && !record(*list, change, number, {}, desc))
        return -1;
    if (change == change_t::mark)
        list->now.items[at].marked = true;
    else
        take(&list->now, number);
    return 0;
}

}  // namespace

const char* list_item_t::text(int index) const {
    uint32_t at = 0;
    for (; index > 0 && at < size; --index)
        at += static_cast<uint32_t>(strlen(data + at)) + 1;
    return at < size ? data + at : "";
}

const list_item_t* list_items_t::find(uint32_t number) const {
    const int at = index_of(*this, number);
    return at < 0 ? nullptr : &items[at];
}

void list_init(timeline_list_t* list) {
    list->lock = {};
    const mutex_guard guard(list->lock);
    memset(&list->now, 0, sizeof list->now);
    timeline_of(*list);
}

int list_add(timeline_list_t* list, const char* const* texts, const char* desc) {
    char data[LIST_DATA_MAX];
    uint32_t size = 0;
    for (int i = 0; i < list->texts; ++i)
        size += static_cast<uint32_t>(string_copy(data + size, texts[i], sizeof data - size)) + 1;
    const mutex_guard guard(list->lock);
    const uint32_t number = list->now.last_number + 1;
    if (list->now.count == LIST_ITEMS_MAX ||
        !record(*list, change_t::add, number, {data, size}, desc))
        return -1;
    put(&list->now, number, causal_now().wall_ticks,
        {reinterpret_cast<const uint8_t*>(data), size});
    return static_cast<int>(number);
}

int list_mark(timeline_list_t* list, uint32_t number, const char* desc) {
    return change_item(list, number, change_t::mark, desc);
}

int list_remove(timeline_list_t* list, uint32_t number, const char* desc) {
    return change_item(list, number, change_t::remove, desc);
}

bool list_get(timeline_list_t* list, uint32_t number, list_item_t* out) {
    const mutex_guard guard(list->lock);
    const list_item_t* item = list->now.find(number);
    if (item != nullptr)
        *out = *item;
    return item != nullptr;
}

bool list_at(timeline_list_t* list, int index, list_item_t* out) {
    const mutex_guard guard(list->lock);
    if (index < 0 || index >= list->now.count)
        return false;
    *out = list->now.items[index];
    return true;
}

int list_then(timeline_list_t* list, uint32_t tick, list_items_t* out) {
    return rebuild(*list, timeline_find(list->name), tick, out);
}

int list_save(timeline_list_t* list) {
    const mutex_guard guard(list->lock);
    if (!is_whole_locked(list) && !rewrite_locked(list))
        return -1;
    return timeline_persist(timeline_find(list->name));
}

int list_load(timeline_list_t* list) {
    const mutex_guard guard(list->lock);
    const auto items = heap_ptr<list_items_t>::make();
    uint32_t events;
    uint32_t chunks;
    if (!items || timeline_saved(list->name, &events, &chunks) == 0)
        return -1;
    timeline_destroy(timeline_find(list->name));
    const int tl_id = timeline_restore(list->name);
    if (tl_id < 0 || rebuild(*list, tl_id, UINT32_MAX, items.get()) != 0) {
        rewrite_locked(list);
        return -1;
    }
    list->now = *items;
    return 0;
}
