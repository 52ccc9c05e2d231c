// The writing side of the `journal` command.
#include "kernel/apps/cmd_journal/internal.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/noise.h"
#include "kernel/core/string.h"
#include "kernel/graph/cjournal/internal.h"

namespace {

constexpr int SPILL_DEFAULT = 256;
constexpr uint32_t SELFTEST_BYTES = 32;
constexpr uint8_t SELFTEST_FIRST = 16;

/// What the retention display shows, copied under the mutex.
struct retention_t {
    uint32_t max_segments, max_kb, segments, events, kb;
};

retention_t read_retention() {
    const mutex_guard guard(cjournal_lock);
    return {cjournal_writer.retention_max_segments, cjournal_writer.retention_max_kb,
            static_cast<uint32_t>(cjournal.index_count), cjournal_indexed_events_locked(),
            cjournal_indexed_kb_locked()};
}

void print_retention() {
    const retention_t now = read_retention();
    const uint32_t max_events = now.max_segments * CJOURNAL_SEGMENT_EVENTS;
    kprintf("Retention policy:\n");
    kprintf("  Max segment files: %u / %u hard\n", now.max_segments, CJOURNAL_SEGMENTS_MAX);
    kprintf("  Events per file:   %u\n", CJOURNAL_SEGMENT_EVENTS);
    kprintf("  Max persistent:    %u events\n", max_events);
    kprintf("  Current segments:  %u / %u\n", now.segments, now.max_segments);
    kprintf("  Current events:    %u / %u\n", now.events, max_events);
    kprintf("  Approx bytes:      %u KB\n", now.kb);
    if (now.max_kb != 0)
        kprintf("  Max bytes:         %u KB (runtime)\n", now.max_kb);
    else
        kprintf("  Max bytes:         unlimited\n");
    kprintf("  Eviction:          oldest segment when full\n");
    kprintf("  Keep proofs:       sidecar hashes retained with segment\n");
    kprintf("  Keep timelines:    not pinned yet\n");
    kprintf("  Spill threshold:   %u / %u ring slots\n", CJOURNAL_SPILL_THRESHOLD,
            CAUSAL_RING_SLOTS);
    kprintf("  Check interval:    %u ticks\n", CJOURNAL_CHECK_TICKS);
}

void set_segments(const char* text) {
    uint32_t cap = 0;
    if (safe_parse_uint(text, &cap) != 0 || cap < 1 || cap > CJOURNAL_SEGMENTS_MAX) {
        kprintf("journal retention: invalid segment cap '%s'\n", text);
        return;
    }
    cjournal_set_retention(cap, read_retention().max_kb);
    kprintf("journal retention: max segments set to %u (runtime)\n", cap);
}

void set_bytes(const char* text) {
    uint32_t cap = 0;
    if (safe_parse_uint(text, &cap) != 0 || cap < 1) {
        kprintf("journal retention: invalid byte cap '%s' (KiB, >=1)\n", text);
        return;
    }
    cjournal_set_retention(read_retention().max_segments, cap);
    kprintf("journal retention: max bytes set to %u KB (runtime)\n", cap);
}

bool verifies(const uint8_t* signature, const uint8_t* message, const uint8_t* key) {
    return ed25519_verify(signature, message, SELFTEST_BYTES, key) == 0;
}

}  // namespace

void journal_spill(int argc, char** argv) {
    int count = argc > 1 ? atoi(argv[1]) : 0;
    if (count <= 0)
        count = SPILL_DEFAULT;
    const int spilled = cjournal_spill(count);
    kprintf("Spilled %d events to disk.\n", spilled);
    // The command itself left an event to write.
    if (spilled == 0)
        kprintf("journal spill: %s\n",
                cjournal_state()->disk_available
                    ? "no segment could be written: the disk is full, read-only or fails"
                    : "no disk");
}

void journal_spill_through(int argc, char** argv) {
    if (argc < 2) {
        kprintf("Usage: journal spill-through <event-id>\n");
        return;
    }
    uint32_t id = 0;
    if (strcmp(argv[1], "last") == 0)
        id = causal_total_events();
    else if (safe_parse_uint(argv[1], &id) != 0)
        id = 0;
    if (id == 0) {
        kprintf("journal spill-through: invalid event '%s'\n", argv[1]);
        return;
    }
    const int spilled = cjournal_spill_through(id);
    if (spilled < 0)
        kprintf("journal spill-through: event #%u unavailable\n", id);
    else
        kprintf("journal spill-through: event #%u archived (spilled %d)\n", id, spilled);
}

void journal_import_legacy(int, char**) {
    const int imported = cjournal_import_legacy();
    if (imported > 0)
        kprintf("journal import-legacy: imported %d events; migrated %s\n", imported,
                CJOURNAL_SNAPSHOT_PATH);
    else if (imported == 0)
        kprintf("journal import-legacy: no legacy journal\n");
    else if (imported == -2)
        kprintf("journal import-legacy: imported; rename pending\n");
    else
        kprintf("journal import-legacy: failed\n");
}

void journal_rebuild(int, char**) {
    const int entries = cjournal_rebuild_index();
    if (entries < 0)
        kprintf("journal rebuild: failed\n");
    else
        kprintf("journal rebuild: %d segments, %u events, index saved\n", entries,
                cjournal_total_persisted());
}

void journal_retention(int argc, char** argv) {
    const char* word = argc > 1 ? argv[1] : "";
    if (argc < 2) {
        print_retention();
    } else if (strcmp(word, "set") == 0 && argc > 3 && strcmp(argv[2], "segments") == 0) {
        set_segments(argv[3]);
    } else if (strcmp(word, "set") == 0 && argc > 3 && strcmp(argv[2], "bytes") == 0) {
        set_bytes(argv[3]);
    } else if (strcmp(word, "reset") == 0) {
        cjournal_set_retention(CJOURNAL_SEGMENTS_MAX, 0);
        kprintf("journal retention: reset to %u segments, unlimited bytes\n",
                CJOURNAL_SEGMENTS_MAX);
    } else {
        kprintf("Usage: journal retention [set <segments <1-%u>|bytes <KiB>>|reset]\n",
                CJOURNAL_SEGMENTS_MAX);
    }
}

void journal_pubkey(int, char**) {
    uint8_t key[CRYPTO_KEY_BYTES];
    if (cjournal_node_pubkey(key) != 0) {
        kprintf("journal pubkey: signing key unavailable\n");
        return;
    }
    char hex[2 * CRYPTO_KEY_BYTES + 1];
    causal_hash_hex(key, hex);
    kprintf("node_pubkey{algo=ed25519,source=journal,key=%s,key_file=%s}\n", hex,
            CJOURNAL_KEY_PATH);
}

void journal_sign(int argc, char** argv) {
    uint32_t segment = 0;
    if (argc < 2 || safe_parse_uint(argv[1], &segment) != 0) {
        kprintf("Usage: journal sign <segment>\n");
        return;
    }
    cjournal_sign_segment(segment);
}

void journal_sign_all(int, char**) { cjournal_sign_all(); }

void journal_sign_test(int, char**) {
    uint8_t message[SELFTEST_BYTES];
    uint8_t signature[CJOURNAL_SIGNATURE_BYTES];
    uint8_t key[CRYPTO_KEY_BYTES];
    for (uint32_t i = 0; i < SELFTEST_BYTES; i++)
        message[i] = static_cast<uint8_t>(SELFTEST_FIRST + i);
    if (cjournal_node_pubkey(key) != 0) {
        kprintf("journal sign-test: FAIL signing key unavailable\n");
        return;
    }
    if (cjournal_sign_message(signature, message, sizeof message) != 0) {
        kprintf("journal sign-test: FAIL sign error\n");
        return;
    }
    const bool verified = verifies(signature, message, key);
    for (int i = 0; i < 4; i++)
        message[i] = static_cast<uint8_t>(~message[i]);
    const bool root_caught = !verifies(signature, message, key);
    for (int i = 0; i < 4; i++)
        message[i] = static_cast<uint8_t>(~message[i]);
    signature[0] ^= 1;
    const bool sig_caught = !verifies(signature, message, key);
    const char* verdict = verified && root_caught && sig_caught ? "PASS" : "FAIL";
    kprintf("journal sign-test: %s signed=yes verified=%s root_tamper=%s sig_tamper=%s\n", verdict,
            verified ? "yes" : "no", root_caught ? "detected" : "missed",
            sig_caught ? "detected" : "missed");
}
