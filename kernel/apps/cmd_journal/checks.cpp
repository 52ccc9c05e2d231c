// The checking side of the `journal` command.
#include "kernel/apps/cmd_journal/internal.h"
#include "kernel/core/noise.h"
#include "kernel/core/string.h"

namespace {

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

/// A missing signature, or a root that does not match, leaves nothing to compare.
void print_seal(journal_form_t form, uint32_t segment, const seal_t& seal) {
    journal_line_t line(form, "verify-sig", "signature_verify");
    line.verdict(segment, journal_pass_fail(seal.verified));
    if (seal.verified)
        line.add("root", "0x%x", cjournal_hash_prefix(seal.root)).add("algo", "ed25519");
    line.add_yes("root_match", seal.has_root);
    if (!seal.verified)
        line.add_yes("sig_present", seal.has_signature);
    const bool compared = seal.has_root && seal.has_signature;
    line.add("sig_match", "%s", compared ? journal_yes_no(seal.verified) : "n/a").end();
}

/// Numbers of the active segments, as the index has them; their count.
int list_segments(uint32_t numbers[CJOURNAL_SEGMENTS_MAX]) {
    int count = 0;
    journal_each_entry([numbers, &count](const cjournal_entry_t& entry) {
        if (count < static_cast<int>(CJOURNAL_SEGMENTS_MAX))
            numbers[count++] = entry.segment_num;
    });
    return count;
}

/// How many segments are signed, and well.
struct trust_t {
    int segments, with_signature, verified;

    int failed() const { return with_signature - verified; }
    const char* status() const {
        if (failed() > 0)
            return "FAIL";
        return with_signature > 0 ? "PASS" : "UNSIGNED";
    }
};

trust_t judge_trust(const uint8_t key[32]) {
    uint32_t segments[CJOURNAL_SEGMENTS_MAX];
    trust_t trust = {list_segments(segments), 0, 0};
    for (int i = 0; i < trust.segments; i++) {
        const seal_t seal = read_seal(segments[i], key);
        trust.with_signature += seal.has_signature ? 1 : 0;
        trust.verified += seal.verified ? 1 : 0;
    }
    return trust;
}

/// How many segments verify, and how their companions are.
struct proofs_t {
    int segments, verified;
    int hashes[3], roots[3];  ///< bad, missing, ok
    int signatures;

    const char* status() const {
        if (verified < segments)
            return "FAIL";
        return hashes[1] + roots[1] > 0 ? "PARTIAL" : "PASS";
    }
};

proofs_t judge_proofs() {
    uint32_t segments[CJOURNAL_SEGMENTS_MAX];
    proofs_t proofs = {};
    proofs.segments = list_segments(segments);
    for (int i = 0; i < proofs.segments; i++) {
        cjournal_seg_verdict_t verdict;
        uint8_t signature[CJOURNAL_SIGNATURE_BYTES];
        cjournal_verify_segment_verdict(segments[i], &verdict);
        proofs.verified += verdict.ok ? 1 : 0;
        proofs.hashes[verdict.hash_status + 1]++;
        proofs.roots[verdict.root_status + 1]++;
        const mutex_guard guard(cjournal_lock);
        proofs.signatures += cjournal_read_signature_locked(segments[i], signature) ? 1 : 0;
    }
    return proofs;
}

void print_siblings(journal_form_t form, const cjournal_epoch_proof_t& proof,
                    const cjournal_hash_t* siblings) {
    for (uint32_t level = 0; level < proof.depth; level++) {
        journal_line_t line(form, "epoch-proof", "epoch_proof_sibling");
        line.add_number("segment", proof.segment_num).add_number("event", proof.event_id);
        line.add_number("level", level).add_hash("sibling", siblings[level].bytes).end();
    }
}

const char* proof_error(int error) {
    switch (error) {
        case CJEP_ERR_SEGMENT:
            return "no such segment";
        case CJEP_ERR_EVENT:
            return "not an event";
        case CJEP_ERR_MEMORY:
            return "out of memory";
        case CJEP_ERR_NOT_IN_SEGMENT:
            return "not in the segment";
        case CJEP_ERR_ROOT_MISSING:
            return "the segment has no root file";
        case CJEP_ERR_ROOT_INVALID:
            return "the segment's root file is not valid";
        default:
            return "cannot be read";
    }
}

/// The form and fullness that epoch-proof's last word asks for; prints what is wrong with it.
bool parse_proof_form(int argc, char** argv, journal_form_t* form, bool* full) {
    *full = *form == journal_form_t::full;
    if (argc < 4)
        return true;
    if (strcmp(argv[3], "full") == 0) {
        *full = true;
    } else if (strcmp(argv[3], "json-ish") != 0) {
        kprintf("journal epoch-proof: '%s' is neither 'full' nor 'json-ish'\n", argv[3]);
        return false;
    } else if (*form == journal_form_t::text) {
        *form = journal_form_t::record;
    }
    return true;
}

}  // namespace

void journal_verify(int, char**) {
    kprintf("journal verify: %s\n", cjournal_verify() == 0 ? "ok" : "failed");
}

void journal_verify_segment(journal_form_t form, int argc, char** argv) {
    uint32_t segment;
    cjournal_seg_verdict_t verdict;
    if (!journal_parse_segment(argc, argv, &segment))
        return;
    cjournal_verify_segment_verdict(segment, &verdict);
    if (!verdict.indexed) {
        kprintf("journal verify-segment: segment %u is not in the index\n", segment);
        return;
    }
    journal_line_t line(form, "verify-segment", "segment_verify");
    line.verdict(segment, journal_pass_fail(verdict.ok)).add_yes("footer", verdict.footer);
    line.add_yes("checksum", verdict.checksum).add_yes("layout", verdict.layout);
    line.add_yes("chain", verdict.chain);
    line.add("hash", "%s", journal_status_word(verdict.hash_status));
    line.add_number("hashv", verdict.hash_version);
    line.add("root", "%s", journal_status_word(verdict.root_status)).end();
}

void journal_verify_sig(journal_form_t form, int argc, char** argv) {
    uint32_t segment;
    uint8_t key[CRYPTO_KEY_BYTES];
    if (!journal_parse_segment(argc, argv, &segment))
        return;
    if (cjournal_node_pubkey(key) != 0) {
        kprintf("journal verify-sig: segment %u signing key unavailable\n", segment);
        return;
    }
    seal_t seal = {};
    if (segment != 0 && segment <= cjournal_state()->segments_written)
        seal = read_seal(segment, key);
    print_seal(form, segment, seal);
}

void journal_trust_health(journal_form_t form, int, char**) {
    uint8_t key[CRYPTO_KEY_BYTES];
    char hex[2 * CRYPTO_KEY_BYTES + 1];
    if (cjournal_node_pubkey(key) != 0) {
        kprintf("journal trust-health: signing key unavailable\n");
        return;
    }
    causal_hash_hex(key, hex);
    const trust_t trust = judge_trust(key);
    if (form != journal_form_t::text) {
        kprintf(
            "trust_health{source=journal,transport=syscall,algo=ed25519,node_key=%s,segments=%d,"
            "signed=%d,verified=%d,failed=%d,status=%s,sign_cmd=\"journal sign <seg>\","
            "verify_cmd=\"journal verify-sig <seg>\"}\n",
            hex, trust.segments, trust.with_signature, trust.verified, trust.failed(),
            trust.status());
        return;
    }
    kprintf("Journal trust health:\n");
    kprintf("  node_key=%s (ed25519)\n", hex);
    kprintf("  segments=%d signed=%d verified=%d failed=%d\n", trust.segments, trust.with_signature,
            trust.verified, trust.failed());
    kprintf("  status=%s\n", trust.status());
    kprintf("  sign a segment:  journal sign <seg>\n");
    kprintf("  verify one:      journal verify-sig <seg>\n");
}

void journal_proof_health(journal_form_t form, int, char**) {
    const proofs_t p = judge_proofs();
    if (form != journal_form_t::text) {
        kprintf(
            "proof_health{source=journal,transport=syscall,segments=%d,verified=%d,failed=%d,"
            "hashes_ok=%d,hashes_missing=%d,hashes_bad=%d,roots_ok=%d,roots_missing=%d,"
            "roots_bad=%d,signed=%d,status=%s}\n",
            p.segments, p.verified, p.segments - p.verified, p.hashes[2], p.hashes[1], p.hashes[0],
            p.roots[2], p.roots[1], p.roots[0], p.signatures, p.status());
        return;
    }
    kprintf("Journal proof health:\n");
    kprintf("  segments=%d verified=%d failed=%d\n", p.segments, p.verified,
            p.segments - p.verified);
    kprintf("  hash sidecars: ok=%d missing=%d bad=%d\n", p.hashes[2], p.hashes[1], p.hashes[0]);
    kprintf("  epoch roots:   ok=%d missing=%d bad=%d\n", p.roots[2], p.roots[1], p.roots[0]);
    kprintf("  signatures:    %d of %d\n", p.signatures, p.segments);
    kprintf("  status=%s\n", p.status());
}

void journal_read_retry_test(journal_form_t form, int argc, char** argv) {
    uint32_t segment;
    cjournal_retry_probe_t probe;
    if (!journal_parse_segment(argc, argv, &segment))
        return;
    const bool pass = cjournal_read_retry_probe(segment, &probe);
    journal_line_t line(form, "read-retry-test", "read_retry");
    line.verdict(segment, journal_pass_fail(pass)).add_yes("header", probe.header_ok);
    line.add_yes("hash", probe.hash_ok).add_yes("root", probe.root_ok);
    line.add_yes("index", probe.index_ok).add_yes("footer", probe.footer_ok).end();
}

void journal_epoch_proof(journal_form_t form, int argc, char** argv) {
    uint32_t segment;
    bool full;
    cjournal_epoch_proof_t proof;
    cjournal_hash_t siblings[CJOURNAL_PROOF_DEPTH];
    if (!journal_parse_segment(argc, argv, &segment) || !parse_proof_form(argc, argv, &form, &full))
        return;
    const int failed = cjournal_segment_proof(segment, argv[2], &proof, siblings);
    if (failed != 0) {
        kprintf("journal epoch-proof: segment %u event '%s': %s (%d)\n", segment, argv[2],
                proof_error(failed), failed);
        return;
    }
    journal_line_t line(form, "epoch-proof", "epoch_proof");
    line.verdict(segment, journal_pass_fail(proof.ok)).add_number("event", proof.event_id);
    line.add_number("leaf", proof.leaf_index).add_number("depth", proof.depth);
    line.add("root", "0x%x", proof.root_prefix).add_number("hashv", proof.hash_version);
    line.add("leaf_hash", "0x%x", proof.leaf_hash_prefix).end();
    if (full)
        print_siblings(form, proof, siblings);
}
