// `journal`'s searches: each prints the records it finds, oldest first, and their number.
#include "kernel/apps/cmd_journal/internal.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal_schema.h"
#include "kernel/graph/cjournal/internal.h"

namespace {

constexpr int SHOWN_DEFAULT = 20;
constexpr int DEPTH_DEFAULT = 3;

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
bool parse_range(int argc, char** argv, const char* usage, uint32_t* start, uint32_t* end) {
    if (argc < 3) {
        kprintf("Usage: journal %s\n", usage);
        return false;
    }
    if (safe_parse_uint(argv[1], start) == 0 && safe_parse_uint(argv[2], end) == 0)
        return true;
    kprintf("journal %s: invalid range '%s' '%s'\n", argv[0], argv[1], argv[2]);
    return false;
}

bool has_word(int argc, const char* usage) {
    if (argc >= 2)
        return true;
    kprintf("Usage: journal %s\n", usage);
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
void show(int max, query_fn query) {
    const auto records = cjournal_records_t::make(static_cast<size_t>(max));
    const int count = records ? query(records.get(), max) : 0;
    for (int i = 0; i < count; i++)
        journal_print_record(records[static_cast<size_t>(i)]);
    kprintf("%d archived events\n", count);
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

/// Counts as the arguments say; prints what is wrong otherwise.
bool count_by(int argc, char** argv, uint32_t* result) {
    const char* mode = argc >= 2 ? argv[1] : "";
    uint32_t a = 0;
    uint32_t b = 0;
    if (strcmp(mode, "all") == 0) {
        *result = cjournal_count_matching(CJOURNAL_COUNT_ALL, 0, 0, nullptr);
        return true;
    }
    const bool ranged = strcmp(mode, "range") == 0 || strcmp(mode, "lrange") == 0;
    if (ranged) {
        if (!parse_range(argc - 1, argv + 1, "count <range|lrange> <start> <end>", &a, &b))
            return false;
        *result = cjournal_count_matching(
            *mode == 'l' ? CJOURNAL_COUNT_LRANGE : CJOURNAL_COUNT_RANGE, a, b, nullptr);
        return true;
    }
    if (argc < 3) {
        kprintf(
            "Usage: journal count <all|range|lrange|segment|type|schema|subsystem|find> ... "
            "[--json-ish]\n");
        return false;
    }
    return count_by_word(mode, argv[2], result);
}

}  // namespace

void journal_query(int argc, char** argv) {
    uint32_t start, end;
    if (!parse_range(argc, argv, "query <start> <end>", &start, &end))
        return;
    show(CJOURNAL_QUERY_MAX, [start, end](cjournal_event_t* out, int max) {
        return cjournal_query_range(start, end, out, max);
    });
}

void journal_lrange(int argc, char** argv) {
    uint32_t start, end;
    int count;
    if (!parse_range(argc, argv, "lrange <start> <end> [n]", &start, &end) ||
        !parse_count(argc, argv, 3, &count))
        return;
    show(count, [start, end](cjournal_event_t* out, int max) {
        return cjournal_query_lamport(start, end, out, max);
    });
}

void journal_type(int argc, char** argv) {
    uint32_t type;
    int count;
    if (!has_word(argc, "type <type> [n]") || !parse_type("type", argv[1], &type) ||
        !parse_count(argc, argv, 2, &count))
        return;
    show(count,
         [type](cjournal_event_t* out, int max) { return cjournal_query_type(type, out, max); });
}

void journal_schema(int argc, char** argv) {
    uint32_t schema;
    int count;
    if (!has_word(argc, "schema <id|name> [n]") || !parse_schema("schema", argv[1], &schema) ||
        !parse_count(argc, argv, 2, &count))
        return;
    show(count, [schema](cjournal_event_t* out, int max) {
        return cjournal_query_schema(schema, out, max);
    });
}

void journal_subsystem(int argc, char** argv) {
    int count;
    if (!has_word(argc, "subsystem <name> [n]") || !parse_count(argc, argv, 2, &count))
        return;
    show(count, [name = argv[1]](cjournal_event_t* out, int max) {
        return cjournal_query_subsystem(name, out, max);
    });
}

void journal_recent(int argc, char** argv) {
    int count;
    if (parse_count(argc, argv, 1, &count))
        show(count, [](cjournal_event_t* out, int max) { return cjournal_query_recent(out, max); });
}

void journal_find(int argc, char** argv) {
    int count;
    if (!has_word(argc, "find <text> [n]") || !parse_count(argc, argv, 2, &count))
        return;
    show(count, [needle = argv[1]](cjournal_event_t* out, int max) {
        return cjournal_query_text(needle, out, max);
    });
}

void journal_effects(int argc, char** argv) {
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
    show(count, [id, depth](cjournal_event_t* out, int max) {
        return cjournal_query_descendants(id, depth, out, max);
    });
}

void journal_count(int argc, char** argv) {
    uint32_t count;
    if (!count_by(argc, argv, &count))
        return;
    if (strcmp(argv[argc - 1], "--json-ish") == 0)
        kprintf("journal_count{source=journal,by=%s,count=%u}\n", argv[1], count);
    else
        kprintf("%u archived events\n", count);
}
