// A numbered list that is kept on a timeline of its own, as mail and notes are: adding, marking and
// removing an item are events of the timeline, and the list is what they add up to. So the list as
// it was at a past tick can be had from a replay, and saving the timeline saves the list.
//
// An item is a few texts, each with its terminator. The list changes under its sleeping mutex; task
// context. Items read from a saved timeline may be damaged: those that are no texts are left out.
#pragma once

#include <stdint.h>

#include <span>

#include "kernel/core/guards.h"
#include "kernel/core/mutex.h"

constexpr int LIST_ITEMS_MAX = 64;
constexpr uint32_t LIST_DATA_MAX = 400;  ///< bytes of an item's texts with their terminators
constexpr int LIST_TEXTS_MAX = 4;

struct list_item_t {
    uint32_t number;  ///< counts from 1 and is not used again
    uint32_t tick;    ///< when it was added
    bool marked;
    uint32_t size;  ///< bytes of `data`
    char data[LIST_DATA_MAX];

    /// Text `index` of the item; "" when it has fewer.
    const char* text(int index) const;
};

/// The items, oldest first.
struct list_items_t {
    list_item_t items[LIST_ITEMS_MAX];
    int count;
    uint32_t last_number;

    const list_item_t* find(uint32_t number) const;
};

/// A list. Its sub-types are `sub_type` (add), `sub_type` + 1 (mark) and `sub_type` + 2 (remove).
struct timeline_list_t {
    const char* name;  ///< of the timeline and its application
    uint32_t sub_type;
    int texts;  ///< of each item
    mutex_t lock;
    list_items_t now GUARDED_BY(lock);
};

/// Empties the list and creates its timeline.
void list_init(timeline_list_t* list);

/// Adds an item of `list->texts` texts, which fit LIST_DATA_MAX. Its number; -1 when the list is
/// full or nothing could be recorded. The event's description is `desc`.
int list_add(timeline_list_t* list, const char* const* texts, const char* desc);

/// Marks or removes an item: 0, or -1 when there is no such item. What is marked stays so.
int list_mark(timeline_list_t* list, uint32_t number, const char* desc);
int list_remove(timeline_list_t* list, uint32_t number, const char* desc);

/// Copies an item; false when there is none.
[[nodiscard]] bool list_get(timeline_list_t* list, uint32_t number, list_item_t* out);

/// Copies the item that stands at `index` (0: the oldest); false behind the last one.
[[nodiscard]] bool list_at(timeline_list_t* list, int index, list_item_t* out);

/// Fills `out` with the list as it was at `tick`, as far as its events are still in the ring; 0 or
/// -1.
[[nodiscard]] int list_then(timeline_list_t* list, uint32_t tick, list_items_t* out);

/// Saves the list's timeline, with every item in it: 0, or -1.
int list_save(timeline_list_t* list);

/// Replaces the list by the saved one: 0; -1, with the list as it was, when there is none or it
/// cannot be read.
int list_load(timeline_list_t* list);
