// Lines, names and arguments that the graph commands share.
#include "kernel/apps/cmd_graph/common.h"

#include <stdarg.h>

#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

constexpr int INDENT_MAX = 20;
constexpr char SPACES[2 * INDENT_MAX + 1] = "                                        ";

}  // namespace

const char* const causal_type_names[CAUSAL_TYPE_COUNT] = {
    "sched", "mem", "fs_op", "net", "syscall", "shell", "actor", "mesh", "io", "user"};

void graph_line_t::add(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    len_ += static_cast<uint32_t>(kvsnprintf(text_ + len_, sizeof text_ - len_, fmt, args));
    va_end(args);
}

void graph_line_t::print() { kprintf("%s\n", text_); }

const char* graph_type_name(uint32_t type) {
    return type < CAUSAL_TYPE_COUNT ? causal_type_names[type] : "???";
}

const char* graph_indent(int indent) {
    const int levels = indent < 0 ? 0 : indent > INDENT_MAX ? INDENT_MAX : indent;
    return SPACES + 2 * (INDENT_MAX - levels);
}

void causal_print_event(const causal_event_t* ev, int indent) {
    graph_line_t line;
    line.add("%s[%u] T+%u %s %s: %s", graph_indent(indent), ev->id, ev->time.wall_ticks,
             graph_type_name(ev->type), ev->subsystem, ev->desc);
    if (ev->child_count != 0)
        line.add(" [→%u]", static_cast<uint32_t>(ev->child_count));
    if (ev->num_parents != 0)
        line.add(" [←%u]", ev->parents[0]);
    if (ev->num_parents > 1) {
        line.add(" (parents:");
        for (uint32_t i = 0; i < ev->num_parents && i < CAUSAL_PARENTS_MAX; i++)
            line.add(" %u", ev->parents[i]);
        line.add(")");
    }
    line.print();
}

void graph_print_short(const causal_event_t& ev) {
    kprintf("  [%u] T+%u %s: %s\n", ev.id, ev.time.wall_ticks, ev.subsystem, ev.desc);
}

int causal_collect_recent_all(uint32_t* ids, int max) {
    const uint32_t oldest = causal_oldest_event_id();
    if (oldest == 0)
        return 0;
    int count = 0;
    for (uint32_t id = causal_total_events(); id >= oldest && count < max; id--) {
        if (causal_get(id) != nullptr)
            ids[count++] = id;
    }
    return count;
}

bool graph_holds(const uint32_t* ids, int count, uint32_t id) {
    for (int i = 0; i < count; i++) {
        if (ids[i] == id)
            return true;
    }
    return false;
}

bool graph_parse_event(const char* arg, uint32_t* id) {
    if (strcmp(arg, "last") != 0)
        return safe_parse_uint(arg, id) == 0;
    *id = causal_total_events();
    return true;
}
