// The subcommands of `journal`, between its dispatcher and the files that carry them out. argv[0]
// is the subcommand's word, argc counts it; each prints its own lines and checks its arguments.
#pragma once

#include <stdint.h>

#include "kernel/graph/cjournal/format.h"

/// A subcommand.
using journal_subcommand_fn = void (*)(int argc, char** argv);

// The writing side (writer.cpp).
void journal_spill(int argc, char** argv);          ///< spill [n]
void journal_spill_through(int argc, char** argv);  ///< spill-through <id|last>
void journal_import_legacy(int argc, char** argv);  ///< import-legacy
void journal_rebuild(int argc, char** argv);        ///< rebuild
void journal_retention(int argc, char** argv);      ///< retention [set ...|reset]
void journal_pubkey(int argc, char** argv);         ///< pubkey
void journal_sign(int argc, char** argv);           ///< sign <n>
void journal_sign_all(int argc, char** argv);       ///< sign-all
void journal_sign_test(int argc, char** argv);      ///< sign-test

// The checking side (checks.cpp).
void journal_verify(int argc, char** argv);           ///< verify
void journal_verify_segment(int argc, char** argv);   ///< verify-segment <n>
void journal_verify_sig(int argc, char** argv);       ///< verify-sig <n>
void journal_trust_health(int argc, char** argv);     ///< trust-health
void journal_read_retry_test(int argc, char** argv);  ///< read-retry-test [n]
void journal_epoch_proof(int argc, char** argv);      ///< epoch-proof <n> <event|first|last> [full]

// The reading side (views.cpp).
void journal_status();
void journal_segments(int argc, char** argv);  ///< segments
void journal_lookup(int argc, char** argv);    ///< lookup <id|first|last>
void journal_hash(int argc, char** argv);      ///< hash <id|first|last>
void journal_children(int argc, char** argv);  ///< children <id|first|last> [n]

// The searching side (search.cpp).
void journal_query(int argc, char** argv);      ///< query <start> <end>
void journal_lrange(int argc, char** argv);     ///< lrange <start> <end> [n]
void journal_type(int argc, char** argv);       ///< type <type> [n]
void journal_schema(int argc, char** argv);     ///< schema <id|name> [n]
void journal_subsystem(int argc, char** argv);  ///< subsystem <name> [n]
void journal_recent(int argc, char** argv);     ///< recent [n]
void journal_find(int argc, char** argv);       ///< find <text> [n]
void journal_effects(int argc, char** argv);    ///< effects <id|first|last> [depth] [n]
void journal_count(int argc, char** argv);      ///< count <all|...> ... [--json-ish]

/// The archived event that argv[1] names; prints what is wrong and gives 0 otherwise.
[[nodiscard]] uint32_t journal_parse_archived(int argc, char** argv);

/// Prints a record as one line.
void journal_print_record(const cjournal_event_t& record);

/// Reads the segment number in argv[1], or the newest one when `optional` and it is missing; prints
/// what is wrong otherwise.
[[nodiscard]] bool journal_parse_segment(int argc, char** argv, bool optional, uint32_t* segment);
