// The commands that browse the causal graph: lists, drawings, ancestry, effects, paths. They read
// the store and record nothing, but for the self-tests of `cpath` and `cdot`. All run in the task
// of the shell that dispatched them and work on copies of events, so that what they print is whole
// while others record. An event that is gone by then is left out or shown as evicted.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/graph/causal.h"

/// Names of the event types in these commands' output; they differ from the store's in "fs_op".
extern const char* const causal_type_names[CAUSAL_TYPE_COUNT];

/// Prints `ev` as one line, indented by twice `indent` spaces.
void causal_print_event(const causal_event_t* ev, int indent);

/// The newest identifiers in the ring, newest first, at most `max`; returns their count.
int causal_collect_recent_all(uint32_t* ids, int max);

/// Copies `src` for a quoted DOT label into `dst` of `size` bytes: quotes and backslashes escaped,
/// control characters dropped; cut once size - 2 characters are held. Always terminated.
void cdot_escape(const char* src, char* dst, size_t size);

/// `events [type|count]`: the newest events.
void cmd_events(int argc, char** argv);

/// `graph [count]`: counts by type and the newest events with their causes.
void cmd_graph(int argc, char** argv);

/// `effects <event_id>`: direct effects.
void cmd_effects(int argc, char** argv);

/// `blast <event_id>`: everything downstream, by routes.
void cmd_blast(int argc, char** argv);

/// `trace <event_id>`: causes, level by level.
void cmd_trace(int argc, char** argv);

/// `why <event_id>`, `why -r <event_id|last>`, `why remote_parent [actor]`: one cause a step back
/// to the root; with the nodes that the events came from; how the newest message of another node
/// got here.
void cmd_why(int argc, char** argv);

/// `autopsy <event-id|last>`: causes, effects and a summary.
void cmd_autopsy(int argc, char** argv);

/// `cpath <ancestor-id> <descendant-id>`, `cpath common <a> <b>`, `cpath selftest`.
void cmd_cpath(int argc, char** argv);

/// `cdot <event-id|last> [effects] [max-nodes]`, `cdot selftest`: the graph in the DOT language.
void cmd_cdot(int argc, char** argv);

/// `orphans`: events without a cause.
void cmd_orphans(int argc, char** argv);

/// `graph-health`: the graph in figures.
void cmd_graph_health(int argc, char** argv);
