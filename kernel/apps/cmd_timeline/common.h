// What the timeline commands share. Private to kernel/apps/cmd_timeline/.
#pragma once

#include <stdint.h>

#include "kernel/graph/timeline.h"

/// One line of an event, with a mark before it.
void tl_print_event(char mark, const timeline_cached_event_t& event);

/// What a line shows of an event in a replay.
timeline_cached_event_t tl_shown(const causal_event_t& event);

/// "create" ... "delete", or "unknown".
const char* tl_sub_type_name(uint32_t sub_type);

/// Reads "N" or "T+N"; false after a line that says what is wrong.
[[nodiscard]] bool tl_parse_tick(const char* command, const char* text, uint32_t* tick);

/// The subcommands of `tl` that only look. Each gets an existing timeline and the arguments behind
/// its name.
void tl_show(int tl_id, int argc, char** argv);
void tl_stats(int tl_id, int argc, char** argv);
void tl_diff(int tl_id, int argc, char** argv);
void tl_find(int tl_id, int argc, char** argv);
void tl_marks(int tl_id, int argc, char** argv);
void tl_tail(int tl_id, int argc, char** argv);
void tl_at(int tl_id, int argc, char** argv);

/// `tl payload-test`.
void tl_payload_test();
