// What the graph commands share. Private to kernel/apps/cmd_graph/.
#pragma once

#include "kernel/apps/cmd_graph.h"
#include "kernel/core/compiler.h"

/// Most events that one walk of `cpath` or `cdot` holds.
constexpr int WALK_MAX = 512;

/// A line under construction: it goes out in one piece, so that no other task's text cuts into it.
class graph_line_t {
public:
    void add(const char* fmt, ...) VORN_PRINTF(2, 3);
    void print();

private:
    char text_[384] = {};
    uint32_t len_ = 0;
};

/// An event waiting in a walk over effects, and its distance from where the walk began.
struct graph_entry_t {
    uint32_t id;
    int depth;
};

/// The name of a type in these commands' output, "???" for one that does not exist.
const char* graph_type_name(uint32_t type);

/// Spaces for `indent` levels, two each.
const char* graph_indent(int indent);

/// Prints `ev` as the short line of `cpath` and `orphans`.
void graph_print_short(const causal_event_t& ev);

/// Whether `id` is among the first `count` of `ids`.
bool graph_holds(const uint32_t* ids, int count, uint32_t id);

/// Reads an identifier, or "last" for the newest one; false when it is neither.
[[nodiscard]] bool graph_parse_event(const char* arg, uint32_t* id);
