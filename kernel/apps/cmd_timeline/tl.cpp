// `tl`: its subcommands, and those of them that change something.
#include <iterator>

#include "kernel/apps/cmd_timeline.h"
#include "kernel/apps/cmd_timeline/common.h"
#include "kernel/apps/shell.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/fs/overlay.h"
#include "kernel/graph/causal_schema.h"
#include "kernel/graph/timeline/format.h"

namespace {

constexpr const char* USAGE =
    "Usage: tl "
    "[show|stats|diff|find|mark|marks|rewind|forward|at|create|emit|save|export|load|delete] "
    "...\n";
constexpr const char* SCRATCH_NAME = "__payload_test";

void list() {
    kprintf("Timelines: %d of %d\n", timeline_count(), TIMELINE_SLOTS);
    for (int i = 0; i < TIMELINE_SLOTS; ++i) {
        const timeline_t* tl = timeline_get(i);
        if (tl == nullptr)
            continue;
        kprintf("  [%d] %-20s %-12s %u events, cursor=T+%u\n", i, tl->name, tl->app,
                tl->event_count, timeline_cursor_tick(i));
    }
}

void create(char** argv, int argc) {
    const char* app = argc > 1 ? argv[1] : "shell";
    const int tl_id = timeline_create(argv[0], app);
    if (tl_id >= 0)
        kprintf("Created timeline %d: %s (%s)\n", tl_id, argv[0], app);
    else if (timeline_find(argv[0]) >= 0)
        kprintf("Timeline '%s' already exists\n", argv[0]);
    else
        kprintf("All %d timelines are in use\n", TIMELINE_SLOTS);
}

void load(const char* name) {
    const int tl_id = timeline_restore(name);
    if (tl_id >= 0)
        kprintf("Restored timeline %d: %s\n", tl_id, name);
    else
        kprintf("Restore failed\n");
}

void emit(int tl_id, int argc, char** argv) {
    char text[CAUSAL_DESC_SIZE];
    shell_concat_args(text, sizeof text, argc, argv, 0);
    const uint32_t id = timeline_emit(tl_id, TIMELINE_DATA, nullptr, 0, text);
    if (id != 0)
        kprintf("Emitted event %u\n", id);
    else
        kprintf("Emit failed\n");
}

void mark(int tl_id, int argc, char** argv) {
    const timeline_t* tl = timeline_get(tl_id);
    char label[CAUSAL_DESC_SIZE];
    char desc[CAUSAL_DESC_SIZE];
    const auto len = static_cast<uint32_t>(shell_concat_args(label, sizeof label, argc, argv, 0));
    ksnprintf(desc, sizeof desc, "mark: %s", label);
    const uint32_t id = timeline_emit(tl_id, TIMELINE_MARK, label, len + 1, desc);
    if (id != 0 && tl != nullptr)
        kprintf("Marked %s at event %u: %s\n", tl->name, id, label);
    else
        kprintf("Mark failed\n");
}

void rewind(int tl_id, int, char** argv) {
    const bool by_steps = argv[0][0] == '-';
    uint32_t to;
    if (!tl_parse_tick("tl", by_steps ? argv[0] + 1 : argv[0], &to))
        return;
    if ((by_steps ? timeline_rewind_steps(tl_id, to) : timeline_rewind(tl_id, to)) == 0)
        kprintf("Rewound to T+%u\n", timeline_cursor_tick(tl_id));
    else
        kprintf("Rewind failed: no event then\n");
}

void forward(int tl_id, int, char** argv) {
    const bool by_steps = argv[0][0] == '+';
    uint32_t to;
    if (!tl_parse_tick("tl", by_steps ? argv[0] + 1 : argv[0], &to))
        return;
    if ((by_steps ? timeline_forward_steps(tl_id, to) : timeline_forward(tl_id, to)) == 0)
        kprintf("Forwarded to T+%u\n", timeline_cursor_tick(tl_id));
    else
        kprintf("Forward failed: no event there\n");
}

void save(int tl_id, int, char**) {
    kprintf(timeline_persist(tl_id) == 0 ? "Saved\n" : "Save failed\n");
}

void delete_one(int tl_id, int, char**) {
    timeline_destroy(tl_id);
    kprintf("Deleted\n");
}

void write_out(int tl_id, int argc, char** argv) {
    uint32_t max = INT32_MAX;
    if (argc > 1 && (safe_parse_uint(argv[1], &max) != 0 || max > INT32_MAX)) {
        kprintf("tl: invalid count '%s'\n", argv[1]);
        return;
    }
    char path[SHELL_PATH_BYTES];
    shell_make_path(argv[0], path, sizeof path);
    // A relative name means the RAM filesystem, wherever the shell stands.
    const char* to = argv[0][0] == '/' ? path : path + 1;
    const int bytes = timeline_export_recent(tl_id, to, static_cast<int>(max));
    if (bytes >= 0)
        kprintf("Exported %d bytes to %s\n", bytes, path);
    else
        kprintf("Export failed: %s\n", bytes == -1 ? "no memory" : overlay_error_text(bytes));
}

/// A subcommand on an existing timeline, which needs `args` words behind the name.
struct subcommand_t {
    const char* name;
    int args;
    void (*run)(int tl_id, int argc, char** argv);
};

constexpr subcommand_t SUBCOMMANDS[] = {
    {"show", 0, tl_show},      {"stats", 0, tl_stats},   {"diff", 2, tl_diff},
    {"find", 1, tl_find},      {"mark", 1, mark},        {"marks", 0, tl_marks},
    {"tail", 0, tl_tail},      {"rewind", 1, rewind},    {"forward", 1, forward},
    {"at", 1, tl_at},          {"emit", 1, emit},        {"save", 0, save},
    {"delete", 0, delete_one}, {"export", 1, write_out},
};

void run_subcommand(const subcommand_t& sub, int argc, char** argv) {
    const int tl_id = timeline_find(argv[0]);
    if (tl_id < 0)
        kprintf("Timeline '%s' not found\n", argv[0]);
    else
        sub.run(tl_id, argc - 1, argv + 1);
}

bool is_mark(const causal_event_t* ev, const char* label) {
    uint32_t sub_type;
    const uint8_t* data;
    uint16_t len;
    return timeline_parse_payload(ev, &sub_type, &data, &len) && sub_type == TIMELINE_MARK &&
           len == strlen(label) + 1 && memcmp(data, label, len) == 0;
}

}  // namespace

void tl_payload_test() {
    static constexpr char LABEL[] = "payload-test";
    timeline_destroy(timeline_find(SCRATCH_NAME));
    const int tl_id = timeline_create(SCRATCH_NAME, "timeline");
    const auto ev = heap_ptr<causal_event_t>::make();
    const uint32_t id = timeline_emit(tl_id, TIMELINE_MARK, LABEL, sizeof LABEL, "mark");
    bool has_envelope = false;
    bool has_legacy = false;
    const char* schema = "none";
    if (ev && causal_copy(id, ev.get())) {
        has_envelope = is_mark(ev.get(), LABEL);
        const causal_schema_def_t* def = causal_schema_get(ev->schema_id);
        schema = def != nullptr ? def->name : schema;
        // The older form is the body alone.
        ev->payload_len -= TL_PAYLOAD_BODY_OFFSET;
        memmove(ev->payload, ev->payload + TL_PAYLOAD_BODY_OFFSET, ev->payload_len);
        has_legacy = is_mark(ev.get(), LABEL);
    }
    timeline_destroy(tl_id);
    kprintf("timeline payload-test: %s legacy=%s envelope=%s schema=%s\n",
            has_legacy && has_envelope ? "PASS" : "FAIL", has_legacy ? "yes" : "no",
            has_envelope ? "yes" : "no", schema);
}

void cmd_timeline(int argc, char** argv) {
    if (argc < 2) {
        list();
        return;
    }
    const char* word = argv[1];
    if (strcmp(word, "payload-test") == 0) {
        tl_payload_test();
        return;
    }
    if (argc >= 3 && strcmp(word, "create") == 0) {
        create(argv + 2, argc - 2);
        return;
    }
    if (argc >= 3 && strcmp(word, "load") == 0) {
        load(argv[2]);
        return;
    }
    for (const subcommand_t& sub : SUBCOMMANDS) {
        if (argc < 3 + sub.args || strcmp(word, sub.name) != 0)
            continue;
        run_subcommand(sub, argc - 2, argv + 2);
        return;
    }
    kprintf("%s", USAGE);
}
