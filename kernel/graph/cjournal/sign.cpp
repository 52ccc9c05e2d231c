// The node's signing key, and signatures of epoch roots. The mutex is released between segments, so
// that signing many does not keep the spill waiting.
#include "kernel/core/endian.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/noise.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/cjournal/internal.h"

static_assert(CJOURNAL_SEED_BYTES == CRYPTO_KEY_BYTES);
static_assert(CJOURNAL_SIGNATURE_BYTES == ED25519_SIGNATURE_BYTES);

namespace {

enum class signing_t : uint8_t { done, already, no_key, no_root, no_signature, not_stored };

struct signed_root_t {
    cjournal_hash_t root;
    uint8_t signature[CJOURNAL_SIGNATURE_BYTES];
};

signing_t sign_locked(uint32_t segment, signed_root_t* out) REQUIRES(cjournal_lock) {
    if (ensure_node_signing_key_locked() != 0)
        return signing_t::no_key;
    if (segment_verified_root_locked(segment, &out->root) != 0)
        return signing_t::no_root;
    if (ed25519_sign(out->signature, out->root.bytes, sizeof out->root.bytes,
                     cjournal_writer.node_sign_sk) != 0)
        return signing_t::no_signature;
    char path[CJOURNAL_PATH_SIZE];
    cjournal_path(segment, cjournal_file_t::signature, path);
    const int stored = blockfs_replace_file(path, out->signature, sizeof out->signature);
    return stored == 0 ? signing_t::done : signing_t::not_stored;
}

/// The indexed segment with the smallest number above `segment`; 0 when there is none.
uint32_t next_segment_locked(uint32_t segment) REQUIRES(cjournal_lock) {
    uint32_t next = 0;
    for (int32_t i = 0; i < cjournal.index_count; i++) {
        const cjournal_entry_t& entry = cjournal.index[i];
        if (entry.active && entry.segment_num > segment && (next == 0 || entry.segment_num < next))
            next = entry.segment_num;
    }
    return next;
}

/// Moves `segment` to the next one and signs that unless it has a signature; false at the end.
bool sign_next(uint32_t* segment, signing_t* result) {
    const mutex_guard guard(cjournal_lock);
    *segment = next_segment_locked(*segment);
    if (*segment == 0)
        return false;
    signed_root_t made;
    const bool has = cjournal_read_signature_locked(*segment, made.signature);
    *result = has ? signing_t::already : sign_locked(*segment, &made);
    return true;
}

void print_signed(uint32_t segment, const signed_root_t& made) {
    kprintf(
        "journal sign: PASS segment=%u root=0x%x sig=0x%x algo=ed25519 sig_file=%s/seg-%08u.sig\n",
        segment, cjournal_hash_prefix(made.root), load_le32(made.signature), CJOURNAL_DIR, segment);
}

const char* why_not(signing_t result) {
    switch (result) {
        case signing_t::no_key:
            return "signing key unavailable";
        case signing_t::no_root:
            return "root unavailable or mismatched";
        case signing_t::no_signature:
            return "signature failed";
        default:
            return "could not persist signature";
    }
}

}  // namespace

int ensure_node_signing_key_locked() {
    if (cjournal_writer.node_sign_ready)
        return 0;
    if (!cjournal_running_locked())
        return -1;
    uint8_t* sk = cjournal_writer.node_sign_sk;
    if (cjournal_read_file(CJOURNAL_KEY_PATH, sk, CJOURNAL_SEED_BYTES, true) != 1) {
        if (cjournal_file_size(CJOURNAL_KEY_PATH) >= CJOURNAL_SEED_BYTES)
            return -1;  // it is there, and cannot be read: a new one would put it out of use
        entropy_get(sk, CJOURNAL_SEED_BYTES);
        if (blockfs_replace_file(CJOURNAL_KEY_PATH, sk, CJOURNAL_SEED_BYTES) != 0) {
            crypto_wipe(sk, CJOURNAL_SEED_BYTES);
            return -1;
        }
    }
    ed25519_keypair(cjournal_writer.node_sign_pk, sk);
    cjournal_writer.node_sign_ready = true;
    return 0;
}

int cjournal_node_pubkey(uint8_t out[32]) {
    const mutex_guard guard(cjournal_lock);
    if (out == nullptr || ensure_node_signing_key_locked() != 0)
        return -1;
    memcpy(out, cjournal_writer.node_sign_pk, sizeof cjournal_writer.node_sign_pk);
    return 0;
}

int cjournal_sign_message(uint8_t signature[64], const void* message, uint32_t len) {
    const mutex_guard guard(cjournal_lock);
    if (ensure_node_signing_key_locked() != 0)
        return -1;
    return ed25519_sign(signature, message, len, cjournal_writer.node_sign_sk);
}

int cjournal_sign_segment(uint32_t segment) {
    signed_root_t made;
    signing_t result;
    {
        const mutex_guard guard(cjournal_lock);
        result = sign_locked(segment, &made);
    }
    if (result == signing_t::done) {
        print_signed(segment, made);
        return 0;
    }
    kprintf("journal sign: segment %u %s\n", segment, why_not(result));
    return -1;
}

int cjournal_sign_all() {
    uint8_t key[CRYPTO_KEY_BYTES];
    if (cjournal_node_pubkey(key) != 0) {
        kprintf("journal sign-all: signing key unavailable\n");
        return -1;
    }
    int made = 0;
    int already = 0;
    int failed = 0;
    uint32_t segment = 0;
    signing_t result;
    while (sign_next(&segment, &result)) {
        if (result == signing_t::done)
            made++;
        else if (result == signing_t::already)
            already++;
        else
            failed++;
    }
    kprintf("journal sign-all: signed=%d already=%d failed=%d status=%s\n", made, already, failed,
            failed == 0 ? "PASS" : "FAIL");
    return failed == 0 ? 0 : -1;
}
