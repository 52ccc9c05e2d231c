// `journal`'s searches: each prints the records it finds, oldest first; as a text also their
// number.
#include "kernel/apps/cmd_journal/internal.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal_schema.h"

namespace {

constexpr int SHOWN_DEFAULT = 20;
constexpr int DEPTH_DEFAULT = 3;
constexpr const char* COUNT_ARGUMENTS =
    "<all|range|lrange|segment|type|schema|subsystem|find> ... [--json-ish]";

/// Reads an optional count of 1 to CJOURNAL_QUERY_MAX; prints what is wrong otherwise.
bool parse_count(int argc, char** argv, int at, int* count) {
    *count = SHOWN_DEFAULT;
    if (argc <= at)
        return true;
    if (safe_atoi(argv[at], count) == 0 && *count >= 1) {
        *count = *count < CJOURNAL_QUERY_MAX ? *count : CJOURNAL_QUERY_MAX;
        return true;
    }
    kprintf("journal %s: invalid count '%s'\n", argv[0], argv[at]);
    return false;
}

/// Reads two numbers; prints what is wrong otherwise.
bool parse_range(const char* command, char** words, uint32_t* start, uint32_t* end) {
    if (safe_parse_uint(words[0], start) == 0 && safe_parse_uint(words[1], end) == 0 &&
        *start <= *end)
        return true;
    kprintf("journal %s: invalid range '%s' '%s'\n", command, words[0], words[1]);
    return false;
}

/// The type or schema that a word names; prints what is wrong otherwise.
bool parse_type(const char* command, const char* word, uint32_t* type) {
    const int found = causal_type_from_name(word);
    *type = static_cast<uint32_t>(found);
    if (found < 0)
        kprintf("journal %s: unknown type '%s'\n", command, word);
    return found >= 0;
}

bool parse_schema(const char* command, const char* word, uint32_t* schema) {
    const causal_schema_def_t* named = causal_schema_find(word);
    if (named != nullptr) {
        *schema = named->id;
        return true;
    }
    if (safe_parse_uint(word, schema) == 0)
        return true;
    kprintf("journal %s: unknown schema '%s'\n", command, word);
    return false;
}

/// Runs query(out, max) and prints what it finds.
template <typename query_fn>
void show(journal_form_t form, int max, query_fn query) {
    const auto records = cjournal_records_t::make(static_cast<size_t>(max));
    if (!records) {
        kprintf("journal: out of memory\n");
        return;
    }
    const int count = query(records.get(), max);
    for (int i = 0; i < count; i++)
        journal_print_record(form, records[static_cast<size_t>(i)]);
    if (form == journal_form_t::text)
        kprintf("%d archived events%s\n", count, count == max ? " (there may be more)" : "");
}

/// Counts by one word: a segment, type, schema, subsystem or text; prints what is wrong otherwise.
bool count_by_word(const char* mode, const char* word, uint32_t* result) {
    uint32_t number = 0;
    cjournal_count_mode_t by = CJOURNAL_COUNT_TEXT;
    if (strcmp(mode, "segment") == 0) {
        const bool parsed = safe_parse_uint(word, &number) == 0;
        if (!parsed)
            kprintf("journal count: invalid segment '%s'\n", word);
        *result = cjournal_segment_event_count(number);
        return parsed;
    }
    if (strcmp(mode, "type") == 0) {
        by = CJOURNAL_COUNT_TYPE;
        if (!parse_type("count", word, &number))
            return false;
    } else if (strcmp(mode, "schema") == 0) {
        by = CJOURNAL_COUNT_SCHEMA;
        if (!parse_schema("count", word, &number))
            return false;
    } else if (strcmp(mode, "subsystem") == 0) {
        by = CJOURNAL_COUNT_SUBSYSTEM;
    } else if (strcmp(mode, "find") != 0) {
        kprintf("journal count: unknown way '%s'\n", mode);
        return false;
    }
    *result = cjournal_count_matching(by, number, 0, word);
    return true;
}

/// Counts as the words say, at least one; prints what is wrong otherwise.
bool count_by(int words, char** argv, uint32_t* result) {
    const bool all = strcmp(argv[1], "all") == 0;
    const bool lamport = strcmp(argv[1], "lrange") == 0;
    const bool ranged = lamport || strcmp(argv[1], "range") == 0;
    uint32_t start = 0;
    uint32_t end = 0;
    if (words != (all ? 1 : ranged ? 3 : 2)) {
        kprintf("Usage: journal count %s\n", COUNT_ARGUMENTS);
        return false;
    }
    if (!all && !ranged)
        return count_by_word(argv[1], argv[2], result);
    if (ranged && !parse_range("count", argv + 2, &start, &end))
        return false;
    cjournal_count_mode_t mode = CJOURNAL_COUNT_ALL;
    if (ranged)
        mode = lamport ? CJOURNAL_COUNT_LRANGE : CJOURNAL_COUNT_RANGE;
    *result = cjournal_count_matching(mode, start, end, nullptr);
    return true;
}

}  // namespace

void journal_children(journal_form_t form, int argc, char** argv) {
    int count;
    const uint32_t id = journal_parse_archived(argc, argv);
    if (id == 0 || !parse_count(argc, argv, 2, &count))
        return;
    show(form, count,
         [id](cjournal_event_t* out, int max) { return cjournal_query_children(id, out, max); });
}

void journal_query(journal_form_t form, int, char** argv) {
    uint32_t start, end;
    if (!parse_range(argv[0], argv + 1, &start, &end))
        return;
    show(form, CJOURNAL_QUERY_MAX, [start, end](cjournal_event_t* out, int max) {
        return cjournal_query_range(start, end, out, max);
    });
}

void journal_lrange(journal_form_t form, int argc, char** argv) {
    uint32_t start, end;
    int count;
    if (!parse_range(argv[0], argv + 1, &start, &end) || !parse_count(argc, argv, 3, &count))
        return;
    show(form, count, [start, end](cjournal_event_t* out, int max) {
        return cjournal_query_lamport(start, end, out, max);
    });
}

void journal_type(journal_form_t form, int argc, char** argv) {
    uint32_t type;
    int count;
    if (!parse_type("type", argv[1], &type) || !parse_count(argc, argv, 2, &count))
        return;
    show(form, count,
         [type](cjournal_event_t* out, int max) { return cjournal_query_type(type, out, max); });
}

void journal_schema(journal_form_t form, int argc, char** argv) {
    uint32_t schema;
    int count;
    if (!parse_schema("schema", argv[1], &schema) || !parse_count(argc, argv, 2, &count))
        return;
    show(form, count, [schema](cjournal_event_t* out, int max) {
        return cjournal_query_schema(schema, out, max);
    });
}

void journal_subsystem(journal_form_t form, int argc, char** argv) {
    int count;
    if (!parse_count(argc, argv, 2, &count))
        return;
    show(form, count, [name = argv[1]](cjournal_event_t* out, int max) {
        return cjournal_query_subsystem(name, out, max);
    });
}

void journal_recent(journal_form_t form, int argc, char** argv) {
    int count;
    if (parse_count(argc, argv, 1, &count))
        show(form, count,
             [](cjournal_event_t* out, int max) { return cjournal_query_recent(out, max); });
}

void journal_find(journal_form_t form, int argc, char** argv) {
    int count;
    if (!parse_count(argc, argv, 2, &count))
        return;
    show(form, count, [needle = argv[1]](cjournal_event_t* out, int max) {
        return cjournal_query_text(needle, out, max);
    });
}

void journal_effects(journal_form_t form, int argc, char** argv) {
    int depth = DEPTH_DEFAULT;
    int count;
    const uint32_t id = journal_parse_archived(argc, argv);
    if (id == 0)
        return;
    if (argc >= 3 && (safe_atoi(argv[2], &depth) != 0 || depth < 1)) {
        kprintf("journal effects: invalid depth '%s'\n", argv[2]);
        return;
    }
    if (!parse_count(argc, argv, 3, &count))
        return;
    show(form, count, [id, depth](cjournal_event_t* out, int max) {
        return cjournal_query_descendants(id, depth, out, max);
    });
}

void journal_count(journal_form_t form, int argc, char** argv) {
    uint32_t count;
    const bool asked = strcmp(argv[argc - 1], "--json-ish") == 0;
    if (asked && form == journal_form_t::text)
        form = journal_form_t::record;
    const int words = argc - 1 - (asked ? 1 : 0);
    if (!count_by(words, argv, &count))
        return;
    if (form == journal_form_t::text) {
        kprintf("%u archived events\n", count);
        return;
    }
    journal_line_t line(form, "count", "journal_count");
    line.add("by", "%s", argv[1]).add_number("count", count).end();
}
