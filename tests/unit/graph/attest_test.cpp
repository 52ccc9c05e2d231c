#include "kernel/graph/attest.h"

#include "kernel/graph/capsule.h"
#include "kernel/graph/integrity.h"
#include "tests/unit/graph/journal.h"

namespace {

class Receipts : public JournalVolume {
protected:
    void SetUp() override {
        JournalVolume::SetUp();
        boot();
    }
    static std::string attest(const std::string& event) { return run(cmd_attest, {event}); }
    static std::string verify(uint32_t id) {
        return run(cmd_attest, {"verify", std::to_string(id)});
    }
    static std::string capsule(uint32_t id) { return run(cmd_capsule, {std::to_string(id)}); }
    /// Lets so many events pass that `id` leaves the ring.
    static void push_out(uint32_t id) {
        while (causal_get_ring(id) != nullptr)
            causal_event_fmt(CAUSAL_USER, "test", "later");
    }
    /// Spills everything and signs it; the segment of `id`.
    static uint32_t seal(uint32_t id) {
        uint32_t segment = 0;
        cjournal_spill(100000);
        EXPECT_EQ(cjournal_sign_all(), 0);
        EXPECT_EQ(cjournal_segment_for_event(id, &segment), 0);
        return segment;
    }
};

TEST_F(Receipts, FollowAnEventFromTheRingIntoASignedSegmentAndOutOfTheRing) {
    causal_set_current(0);
    system_ticks = 76;
    const uint32_t parent = causal_emit(CAUSAL_NET, "net", "arrived", nullptr, 0);
    system_ticks = 77;
    const uint32_t id = causal_emit(CAUSAL_NET, "net", "sent 12 bytes", &parent, 1);
    const std::string number = std::to_string(id);
    uint8_t hash[32];
    char hex[65];
    causal_event_hash(causal_get_ring(id), hash);
    causal_hash_hex(hash, hex);
    const std::string fresh = attest("last");
    EXPECT_TRUE(has(fresh, "CAUSAL RECEIPT for event #" + number +
                               "\n  identity:  [net] net: sent 12 bytes (tick 77, lamport "));
    EXPECT_TRUE(has(fresh, std::string("  hash:      ") + hex + "\n  source:    ring\n"));
    EXPECT_TRUE(has(fresh, "  VERDICT:   UNSIGNED -- ")) << fresh;
    EXPECT_EQ(verify(id), "RECEIPT INVALID: event #" + number + " not in a durable segment\n");

    cjournal_spill(100000);
    EXPECT_EQ(verify(id), "RECEIPT INVALID: segment 1 not signed or root mismatch\n");
    EXPECT_EQ(seal(id), 1u);
    const std::string sealed = attest(number);
    // The public key of a seed of 32 sevens, by python3-cryptography.
    EXPECT_TRUE(has(sealed,
                    "  node:      ea4a6c63e29c520a...   (Ed25519 node identity)\n"
                    "  segment:   1\n  epoch:     leaf "));
    EXPECT_TRUE(has(sealed, "VERDICT:   SIGNED & VERIFIABLE   (run: attest verify " + number));
    EXPECT_TRUE(has(verify(id), "RECEIPT VALID: event #" + number + " in signed segment 1; "));

    push_out(id);
    const std::string archived = attest(number);
    // By hashlib: type 3, "net", "sent 12 bytes", tick 77, and the same of the parent, or zeros.
    EXPECT_TRUE(
        has(archived,
            "  hash:      46163dbef0e56a069eecf835e64e327001d525b6648cdf654682df7bd1b50fa5\n"
            "  source:    journal\n"));
    integrity_init();
    EXPECT_TRUE(
        has(attest(number), "6c3e10d69a91ff3b033e61b1ee83027a49cdcb18370936889e77baac1d603748"));
    EXPECT_TRUE(has(verify(id), "RECEIPT VALID: "));
    EXPECT_TRUE(has(attest("4000000"),
                    "event #4000000 (not present in ring or journal)\n  hash: "
                    "     " +
                        std::string(64, '0') + "\n  source:    missing\n"));
    EXPECT_TRUE(has(attest("first"), "CAUSAL RECEIPT for event #1\n"));
    for (const char* bad : {"0", "foo", "", "-1", "4294967296"})
        EXPECT_EQ(attest(bad), std::string("attest: cannot resolve event '") + bad + "'\n");
    EXPECT_TRUE(has(attest("verify"), "usage: attest <event-id|first|last> | "));
}

TEST_F(Receipts, AreInvalidWhereSignatureRootOrRecordIsNotThisEvents) {
    const uint32_t id = causal_event_fmt(CAUSAL_USER, "test", "thing");
    const uint32_t segment = seal(id);
    const auto damaged = [&](cjournal_file_t kind, size_t byte) {
        const std::string name = path(segment, kind);
        const bytes_t sound = read(name.c_str());
        bytes_t file = sound;
        file.at(byte) ^= 1;
        write(name.c_str(), file);
        const std::string said = verify(id);
        write(name.c_str(), sound);
        EXPECT_TRUE(has(verify(id), "RECEIPT VALID"));
        return said;
    };
    const char* unsealed = "RECEIPT INVALID: segment 1 not signed or root mismatch\n";
    EXPECT_EQ(damaged(cjournal_file_t::signature, 9),
              "RECEIPT INVALID: signature does not verify\n");
    EXPECT_EQ(damaged(cjournal_file_t::root, 40), unsealed);
    EXPECT_EQ(damaged(cjournal_file_t::segment, 44 + 38), unsealed) << "another event's text";
    // The record of this very event is another one's: the ring's hash tells.
    const cjournal_header_t header = JournalVolume::segment(segment).header;
    EXPECT_EQ(damaged(cjournal_file_t::segment, 44 + (id - header.first_id) * 175 + 38),
              "RECEIPT INVALID: event #" + std::to_string(id) + " not in a durable segment\n");
    EXPECT_EQ(blockfs_remove(path(segment, cjournal_file_t::signature).c_str()), 0);
    EXPECT_EQ(verify(id), unsealed);
}

TEST_F(Receipts, CapsulesHoldCausesEffectsAndProofAndAreReplaced) {
    causal_set_current(0);
    const uint32_t root = causal_emit(CAUSAL_USER, "test", "\x1B[31mred\xFF\n", nullptr, 0);
    const uint32_t child = causal_emit(CAUSAL_FS, "fs", "write x", &root, 1);
    causal_set_current(0);
    const std::string file = "/capsule/" + std::to_string(root) + ".txt";
    const std::string first = capsule(root);
    EXPECT_TRUE(has(first, "  identity: [user] test: ?[31mred??\n"));
    EXPECT_TRUE(has(first,
                    "  durability: ring\n== Causes (ancestors, up to 8) ==\n"
                    "  (none -- root event)\n== Effects (children, up to 8) ==\n  #" +
                        std::to_string(child) + " [fs] fs: write x\n== Proof ==\n"));
    EXPECT_TRUE(has(first, "  not in a signed durable segment"));
    EXPECT_TRUE(has(capsule(child), "(ancestors, up to 8) ==\n  #" + std::to_string(root) +
                                        " [user] test: ?[31mred??\n== Effects (children, up to "
                                        "8) ==\n  (none)\n"));
    seal(root);
    push_out(child);
    const std::string second = capsule(root);
    EXPECT_TRUE(has(second, "  durability: journal segment 1 signed\n"));
    EXPECT_TRUE(has(second, "== Effects (children, up to 8) ==\n  #" + std::to_string(child)));
    EXPECT_TRUE(has(second, ".. node ea4a6c63e29c520a.. -> VERIFIABLE (attest verify "));
    const bytes_t saved = read(file.c_str());
    const std::string text(saved.begin(), saved.end());
    EXPECT_EQ(second, text + "saved to " + file + " (" + std::to_string(text.size()) + " bytes)\n");

    const std::string missing = run(cmd_capsule, {"4000000"});
    EXPECT_TRUE(has(missing,
                    "CAUSAL CAPSULE for event #4000000  (tick 0, node 00000000)\n"
                    "  identity: event #4000000 (not present in ring or journal)\n"));
    EXPECT_TRUE(has(missing, "  schema:   id 0 v0\n  durability: journal segment unavailable\n"));
    EXPECT_EQ(run(cmd_capsule, {"x"}), "capsule: cannot resolve event 'x'\n");
    cjournal_init_without_volume();
    EXPECT_TRUE(has(capsule(causal_total_events()),
                    "(disk unavailable -- capsule shown on console only)\n"));
    EXPECT_EQ(verify(child),
              "RECEIPT INVALID: event #" + std::to_string(child) + " not in a durable segment\n");
}

TEST(Attest, HexStaysWithinItsBuffer) {
    const uint8_t bytes[] = {0x00, 0xAB, 0xFF};
    char out[8];
    const auto hex = [&](const uint8_t* from, size_t n, size_t size) {
        memset(out, '#', sizeof out);
        attest_hex(from, n, out, size);
        return std::string(out, sizeof out);
    };
    using std::string;
    EXPECT_EQ(hex(bytes, 3, 8), string("00abff\0#", 8));
    EXPECT_EQ(hex(bytes, 3, 6), string("00ab\0###", 8));
    EXPECT_EQ(hex(bytes, 3, 2), string("\0#######", 8));
    EXPECT_EQ(hex(bytes, 3, 1), string("\0#######", 8));
    EXPECT_EQ(hex(bytes, 3, 0), "########");
    EXPECT_EQ(hex(nullptr, 3, 8), string("\0#######", 8));
    attest_hex(bytes, 3, nullptr, 8);
}

}  // namespace
