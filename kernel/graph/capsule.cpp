#include "kernel/graph/capsule.h"

#include <stdarg.h>

#include <algorithm>

#include "kernel/core/kprintf.h"
#include "kernel/core/mutex.h"
#include "kernel/core/string.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/attest.h"

namespace {

constexpr uint32_t BUNDLE_SIZE = 4096;
constexpr size_t PIECE_SIZE = 256;
constexpr uint32_t PRINTED_AT_ONCE = 479;
constexpr int RELATIVES = 8;
constexpr size_t SHORT_HEX = 2 * ATTEST_PREFIX_BYTES + 1;
constexpr const char* FOLDER = "/capsule";
constexpr size_t FILE_NAME_SIZE = 32;

/// The text under construction, always terminated.
struct bundle_t {
    char buf[BUNDLE_SIZE];
    uint32_t len;
    bool truncated;  // a piece did not fit whole; what follows is dropped
};

mutex_t lock;  // above the journal's: gathering and saving go to the disk
bundle_t bundle GUARDED_BY(lock);

void capsule_append_text(const char* text) REQUIRES(lock) {
    if (bundle.truncated)
        return;
    const auto wanted = static_cast<uint32_t>(strlen(text));
    const uint32_t fits = std::min(wanted, BUNDLE_SIZE - 1 - bundle.len);
    memcpy(bundle.buf + bundle.len, text, fits);
    bundle.len += fits;
    bundle.buf[bundle.len] = '\0';
    bundle.truncated = fits < wanted;
}

void append(const char* fmt, ...) VORN_PRINTF(1, 2) REQUIRES(lock);

/// Appends a formatted piece; no line of a capsule is longer than PIECE_SIZE.
void append(const char* fmt, ...) {
    char piece[PIECE_SIZE];
    va_list args;
    va_start(args, fmt);
    kvsnprintf(piece, sizeof piece, fmt, args);
    va_end(args);
    capsule_append_text(piece);
}

/// Copies a field of an event; what cannot be printed becomes "?".
template <size_t size>
void capsule_copy_field(char (&out)[size], const char* field) {
    size_t n = 0;
    for (; n < size - 1 && field[n] != '\0'; ++n)
        out[n] = field[n] >= ' ' && field[n] <= '~' ? field[n] : '?';
    out[n] = '\0';
}

struct printable_t {
    char subsystem[CAUSAL_SUBSYSTEM_SIZE + 1];
    char desc[CAUSAL_DESC_SIZE + 1];

    explicit printable_t(const causal_event_t& ev) {
        capsule_copy_field(subsystem, ev.subsystem);
        capsule_copy_field(desc, ev.desc);
    }
};

void capsule_event_line(uint32_t id) REQUIRES(lock) {
    causal_event_t ev;
    if (!causal_copy(id, &ev)) {
        append("  (missing)\n");
        return;
    }
    const printable_t text(ev);
    append("  #%u [%s] %s: %s\n", id, causal_type_name(ev.type), text.subsystem, text.desc);
}

void append_relatives(const char* title, const char* none, const uint32_t* ids, int count)
    REQUIRES(lock) {
    append("%s", title);
    for (int i = 0; i < count; ++i)
        capsule_event_line(ids[i]);
    if (count == 0)
        append("%s", none);
}

void append_head(uint32_t id, const attest_facts_t& facts, const char* hash) REQUIRES(lock) {
    const causal_event_t& ev = facts.event;
    append("CAUSAL CAPSULE for event #%u  (tick %u, node %08x)\n", id, ev.time.wall_ticks,
           ev.node_hash);
    if (facts.source == attest_source::missing) {
        append("  identity: event #%u (not present in ring or journal)\n", id);
    } else {
        const printable_t text(ev);
        append("  identity: [%s] %s: %s\n", causal_type_name(ev.type), text.subsystem, text.desc);
    }
    append("  hash:     %s\n", hash);
    append("  schema:   id %u v%u\n", static_cast<uint32_t>(ev.schema_id),
           static_cast<uint32_t>(ev.schema_version));
    if (facts.in_segment)
        append("  durability: journal segment %u%s\n", facts.segment,
               facts.is_signed ? " signed" : "");
    else if (facts.source == attest_source::ring)
        append("  durability: ring\n");
    else
        append("  durability: journal segment unavailable\n");
}

void append_proof(uint32_t id, const attest_facts_t& facts, const char* hash) REQUIRES(lock) {
    append("== Proof ==\n");
    append("  event hash: %s\n", hash);
    if (!facts.is_signed || !facts.has_key) {
        append("  not in a signed durable segment (run journal spill/sign to seal)\n");
        return;
    }
    char root[SHORT_HEX];
    char signature[SHORT_HEX];
    char key[SHORT_HEX];
    attest_hex(facts.root, ATTEST_PREFIX_BYTES, root, sizeof root);
    attest_hex(facts.signature, ATTEST_PREFIX_BYTES, signature, sizeof signature);
    attest_hex(facts.key, ATTEST_PREFIX_BYTES, key, sizeof key);
    append("  segment %u root %s.. sig %s.. node %s.. -> VERIFIABLE (attest verify %u)\n",
           facts.segment, root, signature, key, id);
}

void build(uint32_t id) REQUIRES(lock) {
    bundle.len = 0;
    bundle.buf[0] = '\0';
    bundle.truncated = false;
    attest_facts_t facts;
    attest_gather(id, &facts);
    char hash[2 * CAUSAL_HASH_SIZE + 1];
    attest_hex(facts.hash, sizeof facts.hash, hash, sizeof hash);
    append_head(id, facts, hash);
    uint32_t ids[RELATIVES];
    append_relatives("== Causes (ancestors, up to 8) ==\n", "  (none -- root event)\n", ids,
                     causal_ancestor_ids(id, ids, RELATIVES));
    append_relatives("== Effects (children, up to 8) ==\n", "  (none)\n", ids,
                     causal_children_ids(id, ids, RELATIVES));
    append_proof(id, facts, hash);
}

void print_bundle() REQUIRES(lock) {
    char piece[PRINTED_AT_ONCE + 1];
    for (uint32_t at = 0; at < bundle.len; at += PRINTED_AT_ONCE) {
        string_copy(piece, bundle.buf + at, sizeof piece);
        kprintf("%s", piece);
    }
}

void save(uint32_t id) REQUIRES(lock) {
    char path[FILE_NAME_SIZE];
    ksnprintf(path, sizeof path, "%s/%u.txt", FOLDER, id);
    (void)blockfs_create(FOLDER, BLOCKFS_DIRECTORY);  // it may be there
    if (blockfs_replace_file(path, bundle.buf, bundle.len) == 0)
        kprintf("saved to %s (%d bytes)\n", path, static_cast<int>(bundle.len));
    else
        kprintf("(disk unavailable -- capsule shown on console only)\n");
}

}  // namespace

void cmd_capsule(int argc, char** argv) {
    if (argc < 2) {
        kprintf("usage: capsule <event-id|first|last>\n");
        kprintf("Produces a portable causal incident bundle with proof metadata.\n");
        return;
    }
    const uint32_t id = attest_resolve_event_id(argv[1]);
    if (id == 0) {
        kprintf("capsule: cannot resolve event '%s'\n", argv[1]);
        return;
    }
    const mutex_guard guard(lock);
    build(id);
    print_bundle();
    save(id);
}
