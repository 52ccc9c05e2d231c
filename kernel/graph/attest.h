// Causal receipts: what one event was, what it hashes to, where it is held, and, once it lies in a
// signed segment of the journal, how anybody can check it. Everything here only reads; it may go to
// the disk and so belongs to tasks that hold no lock of journal or volume.
//
// An event of the ring counts as durable only when the journal's record of that number has the same
// hash: a number alone proves nothing.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/graph/causal.h"
#include "kernel/graph/cjournal.h"

constexpr uint32_t ATTEST_PREFIX_BYTES =
    8;  ///< of a root, signature or key, where one is shown short

/// Where an event was found.
enum class attest_source : uint8_t { ring, journal, missing };

/// What is known of one event.
struct attest_facts_t {
    attest_source source;
    causal_event_t event;            ///< zero when missing
    uint8_t hash[CAUSAL_HASH_SIZE];  ///< of a ring event its event hash, else integrity_hash
    bool in_segment;                 ///< `segment` holds the event
    uint32_t segment;
    bool is_signed;  ///< `root`, which agrees with the segment's records, has `signature`
    uint8_t root[32];
    uint8_t signature[64];
    bool proven;  ///< `proof` leads from the event to the stored root
    cjournal_epoch_proof_t proof;
    bool has_key;
    uint8_t key[32];  ///< the node's public key
};

/// Gathers what is known of event `id`.
void attest_gather(uint32_t id, attest_facts_t* facts);

/// The identifier that `arg` stands for: "last" the newest event, "first" the oldest in the journal
/// (in the ring when that is empty), else a decimal number; 0 for null and for anything else.
uint32_t attest_resolve_event_id(const char* arg);

/// Writes at most `n` bytes as lower-case hexadecimal pairs, never more than (out_size - 1) / 2,
/// always terminated. An `out_size` below 3 or null `bytes` give an empty text; nothing is written
/// for a null `out` or a size of 0.
void attest_hex(const uint8_t* bytes, size_t n, char* out, size_t out_size);

/// Prints the receipt of the event that `arg` stands for.
void attest_receipt(const char* arg);

/// `attest <event-id|first|last>`, `attest verify <event-id|first|last>`.
void cmd_attest(int argc, char** argv);
