// The subcommands of `journal`, between its dispatcher and the files that carry them out. argv[0]
// is the subcommand's word, argc counts it; the dispatcher has seen to their number, each checks
// what its arguments say and prints its own lines.
//
// A view tells something in one of three forms: as a text, or as records "name{key=value,...}", one
// item a line, with the fields that matter or with all of them. What a disk said is printed with
// "?" for every character that a terminal might obey.
#pragma once

#include <stdint.h>

#include "kernel/core/kprintf.h"
#include "kernel/graph/cjournal/internal.h"

enum class journal_form_t : uint8_t { text, record, full };

using journal_subcommand_fn = void (*)(int argc, char** argv);
using journal_view_fn = void (*)(journal_form_t form, int argc, char** argv);

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
void journal_verify(int argc, char** argv);                                ///< verify
void journal_verify_segment(journal_form_t form, int argc, char** argv);   ///< <n>
void journal_verify_sig(journal_form_t form, int argc, char** argv);       ///< <n>
void journal_trust_health(journal_form_t form, int argc, char** argv);     ///< trust-health
void journal_proof_health(journal_form_t form, int argc, char** argv);     ///< proof-health
void journal_read_retry_test(journal_form_t form, int argc, char** argv);  ///< [n]
void journal_epoch_proof(journal_form_t form, int argc, char** argv);      ///< <n> <event> [...]

// The files of a segment (files.cpp).
void journal_footer(journal_form_t form, int argc, char** argv);        ///< <n>
void journal_hash_sidecar(journal_form_t form, int argc, char** argv);  ///< <n> [full]
void journal_epoch_root(journal_form_t form, int argc, char** argv);    ///< <n> [full]

// The tests of formats and of reading through, on what the journal holds (selftest.cpp,
// readthrough.cpp): each ends in PASS, FAIL or, when there is nothing to try it on, SKIP.
void journal_checksum_test(int argc, char** argv);      ///< [n]
void journal_hash_sidecar_test(int argc, char** argv);  ///< [n]
void journal_hash_legacy_test(int argc, char** argv);   ///< [n]
void journal_record_compat_test(int argc, char** argv);
void journal_readthrough_test(int argc, char** argv);
void journal_hash_readthrough_test(int argc, char** argv);
void journal_readthrough_effects_test(int argc, char** argv);
void journal_readthrough_parents_test(int argc, char** argv);

// The reading side (views.cpp).
void journal_status(journal_form_t form, int argc, char** argv);
void journal_segments(journal_form_t form, int argc, char** argv);  ///< segments
void journal_index(journal_form_t form, int argc, char** argv);     ///< index
void journal_lookup(journal_form_t form, int argc, char** argv);    ///< <id|first|last>
void journal_hash(journal_form_t form, int argc, char** argv);      ///< <id|first|last>
void journal_trace(journal_form_t form, int argc, char** argv);     ///< <id|first|last>

// The searching side (search.cpp).
void journal_children(journal_form_t form, int argc, char** argv);   ///< <id|first|last> [n]
void journal_effects(journal_form_t form, int argc, char** argv);    ///< <id|...> [depth] [n]
void journal_query(journal_form_t form, int argc, char** argv);      ///< <start> <end>
void journal_lrange(journal_form_t form, int argc, char** argv);     ///< <start> <end> [n]
void journal_type(journal_form_t form, int argc, char** argv);       ///< <type> [n]
void journal_schema(journal_form_t form, int argc, char** argv);     ///< <id|name> [n]
void journal_subsystem(journal_form_t form, int argc, char** argv);  ///< <name> [n]
void journal_recent(journal_form_t form, int argc, char** argv);     ///< [n]
void journal_find(journal_form_t form, int argc, char** argv);       ///< <text> [n]
void journal_count(journal_form_t form, int argc, char** argv);      ///< <all|...> ... [--json-ish]

// --- What they share (records.cpp) ---------------------------------------------------------------

inline const char* journal_yes_no(bool yes) { return yes ? "yes" : "no"; }
inline const char* journal_pass_fail(bool pass) { return pass ? "PASS" : "FAIL"; }

/// A status of 1, 0 or -1 as "ok", "missing" or "bad".
const char* journal_status_word(int status);

/// A companion's hash version as the index keeps it: "missing", "ok-v1" to "ok-v4", or "bad".
const char* segment_hash_status_cached(uint32_t version);

/// A line of results under construction: "journal WORD: PASS segment=3 key=value ...", or the
/// record "name{source=journal,transport=syscall,segment=3,status=PASS,key=value,...}".
class journal_line_t {
public:
    journal_line_t(journal_form_t form, const char* word, const char* record_name);
    /// Adds the segment and what was found of it.
    journal_line_t& verdict(uint32_t segment, const char* status);
    /// Adds a value.
    journal_line_t& add(const char* key, const char* fmt, ...) VORN_PRINTF(3, 4);
    journal_line_t& add_yes(const char* key, bool yes) {
        return add(key, "%s", journal_yes_no(yes));
    }
    /// Adds a number, or a hash as 64 digits.
    journal_line_t& add_number(const char* key, uint32_t value) { return add(key, "%u", value); }
    journal_line_t& add_hash(const char* key, const uint8_t hash[32]);
    /// Prints it.
    void end();

private:
    void put(const char* piece);

    char buf_[480];  // what is not printed yet
    uint32_t len_ = 0;
    bool is_record_;
};

/// The texts of a record, terminated and fit for a terminal; `quoted`: also fit for a place
/// between quotation marks.
struct journal_text_t {
    char subsystem[2 * CAUSAL_SUBSYSTEM_SIZE + 1];
    char desc[2 * CAUSAL_DESC_SIZE + 1];

    journal_text_t(const cjournal_event_t& record, bool quoted);
};

/// Prints a record of an event as one line, as a text behind `indent` spaces.
void journal_print_record(journal_form_t form, const cjournal_event_t& record, int indent = 2);

/// The archived event that argv[1] names; prints what is wrong and gives 0 otherwise.
[[nodiscard]] uint32_t journal_parse_archived(int argc, char** argv);

/// Reads the segment number in argv[1], or the newest one in the index when it is missing; prints
/// what is wrong otherwise.
[[nodiscard]] bool journal_parse_segment(int argc, char** argv, uint32_t* segment);

/// An optional last word that asks for `form`; prints what is wrong with another one.
[[nodiscard]] bool journal_parse_full(int argc, char** argv, int at, bool* full);

/// Copies the index entry at `position`; false behind the last one.
[[nodiscard]] bool journal_copy_entry(int32_t position, cjournal_entry_t* out);

/// Calls visit(entry) for each active index entry. The mutex is free meanwhile.
template <typename visit_fn>
void journal_each_entry(visit_fn visit) {
    cjournal_entry_t entry;
    for (int32_t i = 0; journal_copy_entry(i, &entry); i++) {
        if (entry.active)
            visit(entry);
    }
}
