#include "kernel/apps/cmd_journal/internal.h"
#include "tests/unit/graph/journal.h"

namespace {

class JournalCommand : public JournalVolume {
protected:
    void SetUp() override {
        JournalVolume::SetUp();
        boot();
    }
};

TEST_F(JournalCommand, SpillsRebuildsAndImports) {
    wait_for(600);
    EXPECT_EQ(run(journal_spill), "Spilled 256 events to disk.\n");
    EXPECT_EQ(run(journal_spill, {"7"}), "Spilled 7 events to disk.\n");
    const std::string last = std::to_string(causal_total_events());
    EXPECT_EQ(run(journal_spill_through), "Usage: journal spill-through <event-id>\n");
    EXPECT_EQ(run(journal_spill_through, {"last"}),
              "journal spill-through: event #" + last + " archived (spilled 1)\n");
    EXPECT_EQ(run(journal_spill_through, {"99999"}),
              "journal spill-through: event #99999 unavailable\n");
    EXPECT_EQ(run(journal_spill_through, {"0"}), "journal spill-through: invalid event '0'\n");
    EXPECT_EQ(run(journal_rebuild), "journal rebuild: 3 segments, 264 events, index saved\n");
    EXPECT_EQ(run(journal_import_legacy), "journal import-legacy: no legacy journal\n");
    write(CJOURNAL_SNAPSHOT_PATH, {1});
    EXPECT_EQ(run(journal_import_legacy), "journal import-legacy: failed\n");
}

TEST_F(JournalCommand, ShowsAndSetsTheRetention) {
    wait_for(30);
    cjournal_spill(20);
    EXPECT_EQ(run(journal_retention),
              "Retention policy:\n"
              "  Max segment files: 32 / 32 hard\n"
              "  Events per file:   512\n"
              "  Max persistent:    16384 events\n"
              "  Current segments:  1 / 32\n"
              "  Current events:    20 / 16384\n"
              "  Approx bytes:      3 KB\n"
              "  Max bytes:         unlimited\n"
              "  Eviction:          oldest segment when full\n"
              "  Keep proofs:       sidecar hashes retained with segment\n"
              "  Keep timelines:    not pinned yet\n"
              "  Spill threshold:   12288 / 16384 ring slots\n"
              "  Check interval:    100 ticks\n");
    EXPECT_EQ(run(journal_retention, {"set", "segments", "9"}),
              "journal retention: max segments set to 9 (runtime)\n");
    EXPECT_EQ(run(journal_retention, {"set", "segments", "33"}),
              "journal retention: invalid segment cap '33'\n");
    EXPECT_EQ(run(journal_retention, {"set", "bytes", "64"}),
              "journal retention: max bytes set to 64 KB (runtime)\n");
    EXPECT_EQ(run(journal_retention, {"set", "bytes", "0"}),
              "journal retention: invalid byte cap '0' (KiB, >=1)\n");
    EXPECT_NE(run(journal_retention).find("  Max bytes:         64 KB (runtime)\n"),
              std::string::npos);
    EXPECT_EQ(run(journal_retention, {"reset"}),
              "journal retention: reset to 32 segments, unlimited bytes\n");
    EXPECT_EQ(run(journal_retention, {"set", "segments"}),
              "Usage: journal retention [set <segments <1-32>|bytes <KiB>>|reset]\n");
}

TEST_F(JournalCommand, ShowsAndTriesTheKey) {
    EXPECT_EQ(run(journal_sign_test),
              "journal sign-test: PASS signed=yes verified=yes "
              "root_tamper=detected sig_tamper=detected\n");
    // The public key of a seed of 32 sevens, by python3-cryptography.
    EXPECT_EQ(run(journal_pubkey),
              "node_pubkey{algo=ed25519,source=journal,key="
              "ea4a6c63e29c520abef5507b132ec5f9954776aebebe7b92421eea691446d22c"
              ",key_file=/causal/node-sign.key}\n");
    EXPECT_EQ(run(journal_sign), "Usage: journal sign <segment>\n");
    cjournal_init_without_volume();
    EXPECT_EQ(run(journal_pubkey), "journal pubkey: signing key unavailable\n");
    EXPECT_EQ(run(journal_sign_all), "journal sign-all: signing key unavailable\n");
    EXPECT_EQ(run(journal_sign_test), "journal sign-test: FAIL signing key unavailable\n");
    EXPECT_EQ(run(journal_rebuild), "journal rebuild: failed\n");
}

}  // namespace
