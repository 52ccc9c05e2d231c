// The checking side of the `journal` command.
#include "kernel/apps/cmd_journal/internal.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/noise.h"
#include "kernel/core/string.h"
#include "kernel/graph/attest.h"
#include "kernel/graph/cjournal/internal.h"

namespace {

const char* yes_no(bool yes) { return yes ? "yes" : "no"; }

/// A status of 1, 0 or -1.
const char* status_word(int status) {
    if (status > 0)
        return "ok";
    return status == 0 ? "missing" : "bad";
}

/// A segment's seal under the node's key.
struct seal_t {
    bool has_root, has_signature, verified;
    cjournal_hash_t root;
};

seal_t read_seal(uint32_t segment, const uint8_t key[32]) {
    seal_t seal = {};
    uint8_t signature[CJOURNAL_SIGNATURE_BYTES];
    {
        const mutex_guard guard(cjournal_lock);
        seal.has_signature = cjournal_read_signature_locked(segment, signature);
        seal.has_root = segment_verified_root_locked(segment, &seal.root) == 0;
    }
    seal.verified = seal.has_signature && seal.has_root &&
                    ed25519_verify(signature, seal.root.bytes, sizeof seal.root.bytes, key) == 0;
    return seal;
}

void print_seal(uint32_t segment, const seal_t& seal) {
    if (seal.verified) {
        kprintf(
            "journal verify-sig: PASS segment=%u root=0x%x algo=ed25519 root_match=yes "
            "sig_match=yes\n",
            segment, cjournal_hash_prefix(seal.root));
        return;
    }
    const bool compared = seal.has_root && seal.has_signature;
    kprintf("journal verify-sig: FAIL segment=%u root_match=%s sig_present=%s sig_match=%s\n",
            segment, yes_no(seal.has_root), yes_no(seal.has_signature), compared ? "no" : "n/a");
}

/// Numbers of the active segments, as the index has them; their count.
int list_segments(uint32_t numbers[CJOURNAL_SEGMENTS_MAX]) {
    const mutex_guard guard(cjournal_lock);
    int count = 0;
    for (int32_t i = 0; i < cjournal.index_count; i++) {
        if (cjournal.index[i].active)
            numbers[count++] = cjournal.index[i].segment_num;
    }
    return count;
}

}  // namespace

void journal_verify(int, char**) {
    kprintf("journal verify: %s\n", cjournal_verify() == 0 ? "ok" : "failed");
}

void journal_verify_segment(int argc, char** argv) {
    uint32_t segment;
    cjournal_seg_verdict_t verdict;
    if (!journal_parse_segment(argc, argv, false, &segment))
        return;
    cjournal_verify_segment_verdict(segment, &verdict);
    if (!verdict.indexed) {
        kprintf("journal verify-segment: segment %u is not in the index\n", segment);
        return;
    }
    kprintf(
        "journal verify-segment: %s segment=%u footer=%s checksum=%s layout=%s chain=%s hash=%s "
        "hashv=%u root=%s\n",
        verdict.ok ? "PASS" : "FAIL", segment, yes_no(verdict.footer), yes_no(verdict.checksum),
        yes_no(verdict.layout), yes_no(verdict.chain), status_word(verdict.hash_status),
        verdict.hash_version, status_word(verdict.root_status));
}

void journal_verify_sig(int argc, char** argv) {
    uint32_t segment;
    uint8_t key[32];
    if (!journal_parse_segment(argc, argv, false, &segment))
        return;
    if (cjournal_node_pubkey(key) != 0) {
        kprintf("journal verify-sig: segment %u signing key unavailable\n", segment);
        return;
    }
    seal_t seal = {};
    if (segment != 0 && segment <= cjournal_state()->segments_written)
        seal = read_seal(segment, key);
    print_seal(segment, seal);
}

void journal_trust_health(int, char**) {
    uint8_t key[32];
    uint32_t segments[CJOURNAL_SEGMENTS_MAX];
    if (cjournal_node_pubkey(key) != 0) {
        kprintf("journal trust-health: signing key unavailable\n");
        return;
    }
    int with_signature = 0;
    int verified = 0;
    const int count = list_segments(segments);
    for (int i = 0; i < count; i++) {
        const seal_t seal = read_seal(segments[i], key);
        with_signature += seal.has_signature ? 1 : 0;
        verified += seal.verified ? 1 : 0;
    }
    const char* status = with_signature > 0 ? "PASS" : "UNSIGNED";
    char hex[2 * sizeof key + 1];
    attest_hex(key, sizeof key, hex, sizeof hex);
    kprintf("Journal trust health:\n");
    kprintf("  node_key=%s (ed25519)\n", hex);
    kprintf("  segments=%d signed=%d verified=%d failed=%d\n", count, with_signature, verified,
            with_signature - verified);
    kprintf("  status=%s\n", with_signature > verified ? "FAIL" : status);
    kprintf("  sign a segment:  journal sign <seg>\n");
    kprintf("  verify one:      journal verify-sig <seg>\n");
}

void journal_read_retry_test(int argc, char** argv) {
    uint32_t segment;
    cjournal_retry_probe_t probe;
    if (!journal_parse_segment(argc, argv, true, &segment))
        return;
    const bool pass = cjournal_read_retry_probe(segment, &probe);
    kprintf("journal read-retry-test: %s segment=%u header=%s hash=%s root=%s index=%s footer=%s\n",
            pass ? "PASS" : "FAIL", segment, yes_no(probe.header_ok), yes_no(probe.hash_ok),
            yes_no(probe.root_ok), yes_no(probe.index_ok), yes_no(probe.footer_ok));
}

void journal_epoch_proof(int argc, char** argv) {
    uint32_t segment;
    cjournal_epoch_proof_t proof;
    cjournal_hash_t siblings[CJOURNAL_PROOF_DEPTH];
    if (argc < 3) {
        kprintf("Usage: journal epoch-proof <n> <event|first|last> [full]\n");
        return;
    }
    if (!journal_parse_segment(argc, argv, false, &segment))
        return;
    const int failed = cjournal_segment_proof(segment, argv[2], &proof, siblings);
    if (failed != 0) {
        kprintf("journal epoch-proof: segment %u event '%s' has no proof (%d)\n", segment, argv[2],
                failed);
        return;
    }
    kprintf(
        "journal epoch-proof: %s segment=%u event=%u leaf=%u depth=%u root=0x%x hashv=%u "
        "leaf_hash=0x%x\n",
        proof.ok ? "PASS" : "FAIL", segment, proof.event_id, proof.leaf_index, proof.depth,
        proof.root_prefix, proof.hash_version, proof.leaf_hash_prefix);
    const bool full = argc >= 4 && strcmp(argv[3], "full") == 0;
    for (uint32_t level = 0; full && level < proof.depth; level++) {
        char hex[2 * sizeof siblings[0] + 1];
        attest_hex(siblings[level].bytes, sizeof siblings[level].bytes, hex, sizeof hex);
        kprintf("  level %u sibling %s\n", level, hex);
    }
}
