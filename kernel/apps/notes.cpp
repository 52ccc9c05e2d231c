#include "kernel/apps/notes.h"

#include "kernel/apps/shell.h"
#include "kernel/apps/timeline_list.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

constexpr const char* USAGE =
    "Usage: note add TEXT... | list | show N | rm N | at TICK | save | load\n";

constinit timeline_list_t notes = {"note", 16, 1, {}, {}};
static_assert(NOTES_MAX == LIST_ITEMS_MAX && NOTE_TEXT_SIZE <= LIST_DATA_MAX);

void print_line(const list_item_t& note) {
    kprintf("  [%u] T+%u %s\n", note.number, note.tick, note.text(0));
}

void list() {
    list_item_t note;
    int i = 0;
    for (; list_at(&notes, i, &note); ++i)
        print_line(note);
    if (i == 0)
        kprintf("No notes\n");
}

void add(int argc, char** argv) {
    char text[NOTE_TEXT_SIZE];
    shell_concat_args(text, sizeof text, argc, argv, 2);
    const int number = notes_add(text);
    if (number > 0)
        kprintf("Note %d added\n", number);
    else
        kprintf("note: no room, %d notes are the most\n", NOTES_MAX);
}

void on_one(const char* word, const char* arg) {
    uint32_t number;
    list_item_t note;
    if (safe_parse_uint(arg, &number) != 0 || !list_get(&notes, number, &note)) {
        kprintf("note: no note '%s'\n", arg);
        return;
    }
    if (strcmp(word, "show") == 0)
        print_line(note);
    else if (list_remove(&notes, number, "note removed") == 0)
        kprintf("Note %u removed\n", number);
}

void show_then(const char* arg) {
    uint32_t tick;
    const auto items = heap_ptr<list_items_t>::make();
    if (safe_parse_uint(arg, &tick) != 0) {
        kprintf("note: invalid tick '%s'\n", arg);
        return;
    }
    if (!items || list_then(&notes, tick, items.get()) != 0) {
        kprintf("note: no history\n");
        return;
    }
    kprintf("Notes at T+%u: %d\n", tick, items->count);
    for (int i = 0; i < items->count; ++i)
        print_line(items->items[i]);
}

}  // namespace

void notes_init() { list_init(&notes); }

int notes_add(const char* text) {
    char cut[NOTE_TEXT_SIZE];
    string_clean(cut, text, sizeof cut);
    const char* texts[] = {cut};
    return list_add(&notes, texts, cut);
}

void cmd_note(int argc, char** argv) {
    const char* word = argc > 1 ? argv[1] : "list";
    if (strcmp(word, "list") == 0)
        list();
    else if (strcmp(word, "save") == 0)
        kprintf(list_save(&notes) == 0 ? "Notes saved\n" : "note: save failed (no disk?)\n");
    else if (strcmp(word, "load") == 0)
        kprintf(list_load(&notes) == 0 ? "Notes loaded\n" : "note: nothing to load\n");
    else if (argc > 2 && strcmp(word, "add") == 0)
        add(argc, argv);
    else if (argc > 2 && strcmp(word, "at") == 0)
        show_then(argv[2]);
    else if (argc > 2 && (strcmp(word, "show") == 0 || strcmp(word, "rm") == 0))
        on_one(word, argv[2]);
    else
        kprintf("%s", USAGE);
}
