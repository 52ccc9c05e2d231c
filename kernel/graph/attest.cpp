#include "kernel/graph/attest.h"

#include <algorithm>

#include "kernel/core/kprintf.h"
#include "kernel/core/noise.h"
#include "kernel/core/string.h"
#include "kernel/graph/cjournal/format.h"
#include "kernel/graph/integrity.h"

namespace {

constexpr size_t SHORT_HEX = 2 * ATTEST_PREFIX_BYTES + 1;
constexpr size_t NUMBER_SIZE = 12;

/// Whether the journal's record of `event` is of this very event.
bool journal_agrees(const attest_facts_t& facts) {
    cjournal_event_t record;
    cjournal_hash_t hash;
    if (cjournal_query_by_id_disk(facts.event.id, &record) != 0)
        return false;
    if (facts.source != attest_source::ring)
        return true;
    return cjournal_record_hash(CAUSAL_HASH_VERSION, record, &hash) &&
           memcmp(hash.bytes, facts.hash, sizeof hash.bytes) == 0;
}

void hash_archived(const causal_event_t& event, uint8_t out[CAUSAL_HASH_SIZE]) {
    cjournal_event_t record;
    compact_event(event, &record);
    integrity_hash(record, out);
}

void gather_proof(uint32_t id, attest_facts_t* facts) {
    char number[NUMBER_SIZE];
    ksnprintf(number, sizeof number, "%u", id);
    facts->proven = cjournal_epoch_proof(number, &facts->proof) == 0 && facts->proof.ok;
}

void print_identity(uint32_t id, const attest_facts_t& facts) {
    const causal_event_t& ev = facts.event;
    if (facts.source == attest_source::missing)
        kprintf("  identity:  event #%u (not present in ring or journal)\n", id);
    else
        kprintf("  identity:  [%s] %s: %s (tick %u, lamport %llu)\n", causal_type_name(ev.type),
                ev.subsystem, ev.desc, ev.time.wall_ticks, ev.time.lamport);
}

const char* name_of(attest_source source) {
    switch (source) {
        case attest_source::ring:
            return "ring";
        case attest_source::journal:
            return "journal";
        case attest_source::missing:
            break;
    }
    return "missing";
}

void print_short(const char* fmt, const uint8_t* bytes) VORN_PRINTF(1, 0);

/// Prints `fmt`, whose one "%s" is the first bytes of a key, root or signature.
void print_short(const char* fmt, const uint8_t* bytes) {
    char hex[SHORT_HEX];
    attest_hex(bytes, ATTEST_PREFIX_BYTES, hex, sizeof hex);
    kprintf(fmt, hex);
}

void print_seal(uint32_t id, const attest_facts_t& facts) {
    kprintf("  segment:   %u\n", facts.segment);
    if (facts.proven)
        kprintf("  epoch:     leaf %u depth %u root_prefix 0x%x\n", facts.proof.leaf_index,
                facts.proof.depth, facts.proof.root_prefix);
    print_short("  root:      %s...\n", facts.root);
    print_short("  signature: %s...  (Ed25519, 64 bytes)\n", facts.signature);
    kprintf("  VERDICT:   SIGNED & VERIFIABLE   (run: attest verify %u)\n", id);
}

/// The event that `arg` stands for; prints what is wrong and gives 0 otherwise.
uint32_t resolve_or_tell(const char* arg) {
    const uint32_t id = attest_resolve_event_id(arg);
    if (id == 0)
        kprintf("attest: cannot resolve event '%s'\n", arg != nullptr ? arg : "");
    return id;
}

void verify(const char* arg) {
    const uint32_t id = resolve_or_tell(arg);
    if (id == 0)
        return;
    attest_facts_t facts;
    attest_gather(id, &facts);
    if (!facts.in_segment)
        kprintf("RECEIPT INVALID: event #%u not in a durable segment\n", id);
    else if (!facts.is_signed)
        kprintf("RECEIPT INVALID: segment %u not signed or root mismatch\n", facts.segment);
    else if (!facts.has_key)
        kprintf("RECEIPT INVALID: node key unavailable\n");
    else if (ed25519_verify(facts.signature, facts.root, sizeof facts.root, facts.key) != 0)
        kprintf("RECEIPT INVALID: signature does not verify\n");
    else
        kprintf(
            "RECEIPT VALID: event #%u in signed segment %u; Ed25519 signature verifies against "
            "node key\n",
            id, facts.segment);
}

}  // namespace

void attest_gather(uint32_t id, attest_facts_t* facts) {
    memset(facts, 0, sizeof *facts);
    const bool in_ring = causal_get_ring(id) != nullptr;
    facts->source = attest_source::missing;
    if (causal_copy(id, &facts->event)) {
        facts->source = in_ring ? attest_source::ring : attest_source::journal;
        if (in_ring)
            causal_event_hash(&facts->event, facts->hash);
        else
            hash_archived(facts->event, facts->hash);
        facts->in_segment =
            cjournal_segment_for_event(id, &facts->segment) == 0 && journal_agrees(*facts);
    }
    facts->is_signed = facts->in_segment &&
                       cjournal_segment_signed(facts->segment, facts->root, facts->signature) == 0;
    if (facts->in_segment)
        gather_proof(id, facts);
    facts->has_key = cjournal_node_pubkey(facts->key) == 0;
}

uint32_t attest_resolve_event_id(const char* arg) {
    if (arg == nullptr || *arg == '\0')
        return 0;
    if (strcmp(arg, "last") == 0)
        return causal_total_events();
    if (strcmp(arg, "first") == 0) {
        const uint32_t archived = cjournal_resolve_archived_event_arg(arg);
        return archived != 0 ? archived : causal_oldest_event_id();
    }
    uint32_t id;
    return safe_parse_uint(arg, &id) == 0 ? id : 0;
}

void attest_hex(const uint8_t* bytes, size_t n, char* out, size_t out_size) {
    constexpr char DIGITS[] = "0123456789abcdef";
    if (out == nullptr || out_size == 0)
        return;
    const size_t count = bytes != nullptr ? std::min(n, (out_size - 1) / 2) : 0;
    for (size_t i = 0; i < count; ++i) {
        out[2 * i] = DIGITS[bytes[i] >> 4];
        out[2 * i + 1] = DIGITS[bytes[i] & 15];
    }
    out[2 * count] = '\0';
}

void attest_receipt(const char* arg) {
    const uint32_t id = resolve_or_tell(arg);
    if (id == 0)
        return;
    attest_facts_t facts;
    attest_gather(id, &facts);
    char hex[2 * CAUSAL_HASH_SIZE + 1];
    attest_hex(facts.hash, sizeof facts.hash, hex, sizeof hex);
    kprintf("CAUSAL RECEIPT for event #%u\n", id);
    print_identity(id, facts);
    kprintf("  hash:      %s\n", hex);
    kprintf("  source:    %s\n", name_of(facts.source));
    if (facts.has_key)
        print_short("  node:      %s...   (Ed25519 node identity)\n", facts.key);
    if (facts.is_signed) {
        print_seal(id, facts);
        return;
    }
    kprintf("  VERDICT:   UNSIGNED -- event not in a durable signed segment yet\n");
    kprintf("             (run `journal spill <n>` then `journal sign <seg>`, then re-attest)\n");
}

void cmd_attest(int argc, char** argv) {
    const bool verifies = argc >= 2 && strcmp(argv[1], "verify") == 0;
    if (argc < (verifies ? 3 : 2)) {
        kprintf("usage: attest <event-id|first|last> | attest verify <event-id|first|last>\n");
        kprintf("Produces or verifies a signed causal receipt for a durable event.\n");
        return;
    }
    if (verifies)
        verify(argv[2]);
    else
        attest_receipt(argv[1]);
}
