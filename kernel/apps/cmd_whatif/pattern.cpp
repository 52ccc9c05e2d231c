// `pattern`: causal sequences among the newest events.
#include "kernel/apps/cmd_whatif.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/text_line.h"
#include "kernel/graph/epattern.h"

namespace {

constexpr const char* USAGE =
    "usage: pattern <command> <pattern>\n"
    "  match <pattern> [within <N>]  — find matching event sequences\n"
    "  count <pattern>               — count matches\n"
    "  watch <pattern>               — set up persistent watcher\n"
    "  watchers                      — list active watchers\n"
    "pattern syntax: TYPE/subsystem -> TYPE/subsystem [within N]\n"
    "  TYPE: sched, mem, fs, net, syscall, shell, actor, mesh, io, user, *\n"
    "  subsystem: string match or * for any\n"
    "  TYPE+       — one or more consecutive events of TYPE\n"
    "  TYPE|ALT    — match TYPE or ALT\n"
    "  !TYPE       — match anything except TYPE\n"
    "  pattern match sched sched+ net      — sched, then 1+ sched, then net\n"
    "  pattern match net|actor sched       — net or actor, then sched\n"
    "  pattern match sched !net sched      — sched, not net, then sched\n";
constexpr int MATCHES_MAX = 32;
constexpr size_t PATTERN_SIZE = 127;

using line_t = text_line_t<KPRINTF_BYTES>;

/// Joins the words; one that does not fit any more is left out.
void join(char (&text)[PATTERN_SIZE], int argc, char** argv) {
    size_t length = 0;
    text[0] = '\0';
    for (int i = 2; i < argc; i++) {
        const size_t gap = length == 0 ? 0 : 1;
        if (length + gap + strlen(argv[i]) > PATTERN_SIZE - 1)
            continue;
        if (gap != 0)
            text[length++] = ' ';
        length += string_copy(text + length, argv[i], PATTERN_SIZE - length);
    }
}

const char* ending(int count) { return count == 1 ? "" : "es"; }

void print_match(const epattern_match_t& match) {
    line_t line;
    line.add("  match:");
    causal_event_t ev;
    for (int i = 0; i < match.num_events; i++) {
        if (causal_copy(match.event_ids[i], &ev))
            line.add(" [%u] %s/%s", ev.id, causal_type_name(ev.type), ev.subsystem);
    }
    line.add("\n");
    line.print();
}

void do_match(const epattern_t& pattern, const char* text) {
    const auto matches = heap_ptr<epattern_match_t>::make(MATCHES_MAX);
    if (!matches) {
        kprintf("error: out of memory\n");
        return;
    }
    const int count = epattern_match(&pattern, matches.get(), MATCHES_MAX);
    if (count == 0)
        kprintf("no matches found\n");
    else
        kprintf("%d match%s:\n", count, ending(count));
    for (int i = 0; i < count; i++)
        print_match(matches[static_cast<size_t>(i)]);
    causal_event_fmt(CAUSAL_USER, "epattern", "pattern match '%s': %d results", text, count);
}

void do_count(const epattern_t& pattern, const char*) {
    const int count = epattern_match(&pattern, nullptr, MATCHES_MAX);
    kprintf("%d match%s\n", count, ending(count));
}

void do_watch(const epattern_t& pattern, const char* text) {
    const int slot = epattern_watch(pattern, text);
    if (slot >= 0)
        kprintf("watcher %d installed\n", slot);
    else if (slot == EPATTERN_NO_SLOT)
        kprintf("error: max watchers reached (%d)\n", EPATTERN_WATCHERS);
    else
        kprintf("error: no memory for the watchers' task\n");
}

void add_step(line_t& line, const epattern_step_t& step) {
    const bool any = step.type_filter == EPATTERN_ANY;
    line.add("%s%s", (step.flags & EPATTERN_NEGATED) != 0 ? "!" : "",
             any ? "*" : causal_type_name(static_cast<uint32_t>(step.type_filter)));
    if (step.alt_type != EPATTERN_ANY)
        line.add("|%s", causal_type_name(static_cast<uint32_t>(step.alt_type)));
    line.add("%s/%s", (step.flags & EPATTERN_REPEAT) != 0 ? "+" : "", step.subsystem);
    if (step.max_gap != 0)
        line.add(" [within %u]", step.max_gap);
}

void list_watchers() {
    bool any = false;
    epattern_watcher_t watcher;
    for (int slot = 0; slot < EPATTERN_WATCHERS; slot++) {
        if (!epattern_get_watcher(slot, &watcher))
            continue;
        any = true;
        line_t line;
        line.add("  watcher %d: ", slot);
        for (int i = 0; i < watcher.pattern.num_steps; i++) {
            line.add("%s", i == 0 ? "" : " -> ");
            add_step(line, watcher.pattern.steps[i]);
        }
        line.add("  (%u matches)\n", watcher.match_count);
        line.print();
    }
    if (!any)
        kprintf("no active watchers\n");
}

struct form_t {
    const char* word;
    void (*act)(const epattern_t& pattern, const char* text);
};

constexpr form_t FORMS[] = {{"match", do_match}, {"count", do_count}, {"watch", do_watch}};

void run(const form_t& form, int argc, char** argv) {
    char text[PATTERN_SIZE];
    epattern_t pattern;
    join(text, argc, argv);
    if (epattern_compile(text, &pattern) != 0)
        kprintf("error: invalid pattern '%s'\n", text);
    else
        form.act(pattern, text);
}

}  // namespace

void cmd_pattern(int argc, char** argv) {
    if (argc >= 2 && strcmp(argv[1], "watchers") == 0) {
        list_watchers();
        return;
    }
    for (const form_t& form : FORMS) {
        if (argc < 3 || strcmp(argv[1], form.word) != 0)
            continue;
        run(form, argc, argv);
        return;
    }
    kprint_text(USAGE);
}
