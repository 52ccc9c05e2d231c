#include "kernel/apps/cmd_journal.h"

#include <iterator>

#include "tests/unit/graph/journal.h"

namespace {

class JournalViews : public JournalVolume {
protected:
    void SetUp() override {
        JournalVolume::SetUp();
        boot();
    }
    static std::string run(const std::string& line) {
        std::istringstream words(line);
        return JournalVolume::run(cmd_journal, {std::istream_iterator<std::string>(words), {}});
    }
    /// Whether a self-test ends so.
    static bool ends(const std::string& line, const std::string& verdict) {
        return has(run(line), "journal " + line.substr(0, line.find(' ')) + ": " + verdict);
    }
    static void change(const std::string& name, size_t byte, uint8_t by = 1) {
        bytes_t file = read(name.c_str());
        file.at(byte) ^= by;
        write(name.c_str(), file);
    }
    /// Two segments whose events have left the ring, each event but the first with one cause.
    static void archive() {
        wait_for(100);
        ASSERT_EQ(cjournal_spill(60) + cjournal_spill(40), 100);
        while (causal_oldest_event_id() <= cjournal_state()->last_spilled_id)
            causal_event_fmt(CAUSAL_USER, "test", "later");
    }
    static constexpr size_t place(uint32_t position) { return 44 + position * 175; }
};

TEST_F(JournalViews, ArgumentsAreCountedAndUnderstood) {
    EXPECT_EQ(run("footer"), "Usage: journal footer <n>\n");
    EXPECT_EQ(run("query 1 2 3"), "Usage: journal query <start> <end>\n");
    EXPECT_EQ(run("verify all"), "Usage: journal verify\n");
    EXPECT_EQ(run("checksum-test"), "journal checksum-test: there is no segment yet\n");
    EXPECT_TRUE(has(run("json spill"), "Usage: journal json <status|segments|"));
    EXPECT_TRUE(has(run("nonsense"), "Usage: journal [segments|index|"));
    archive();
    EXPECT_EQ(run("footer 4294967296"), "journal footer: invalid segment '4294967296'\n");
    EXPECT_EQ(run("epoch-root 7"), "journal epoch-root: segment 7 has no root\n");
    EXPECT_EQ(run("epoch-root 1 all"), "journal epoch-root: 'all' is not 'full'\n");
    EXPECT_TRUE(has(run("epoch-proof 1 99"), "event '99': not in the segment (-5)\n"));
    EXPECT_EQ(run("count range 9 1"), "journal count: invalid range '9' '1'\n");
    EXPECT_TRUE(has(run("count all --json-ish"), "by=all,count=100}\n"));
    EXPECT_EQ(run("count type user --json-ish").substr(0, 14), "journal_count{");
    EXPECT_TRUE(has(run("count --json-ish"), "Usage: journal count <all|"));
    cjournal_init_without_volume();
    EXPECT_EQ(run("json segments"), "journal segments: no disk\n");
    EXPECT_EQ(run("trust-health"), "journal trust-health: signing key unavailable\n");
}

TEST_F(JournalViews, RecordsHaveTheirFormAndTracesTheirCauses) {
    archive();
    const std::string head = "{source=journal,transport=syscall,segment=2,status=PASS,";
    EXPECT_EQ(run("json verify-segment 2"),
              "segment_verify" + head +
                  "footer=yes,checksum=yes,layout=yes,chain=yes,hash=ok,hashv=4,root=ok}\n");
    EXPECT_EQ(run("json read-retry-test 2"),
              "read_retry" + head + "header=yes,hash=yes,root=yes,index=yes,footer=yes}\n");
    EXPECT_TRUE(has(run("long lookup 50"),
                    "event{source=journal,transport=syscall,id=50,"
                    "type=user,tick=0,lamport=50,subsystem=\"test\",desc="
                    "\"event 50\",parents=49,segment=1,node=00000000,"));
    EXPECT_EQ(run("trace 60").substr(0, 70),
              "  [60] T+0 user test: event 60\n"
              "    [59] T+0 user test: event 59\n      ");
    EXPECT_EQ(run("sign-all"), "journal sign-all: signed=2 already=0 failed=0 status=PASS\n");
    EXPECT_TRUE(has(run("json trust-health"),
                    "segments=2,signed=2,verified=2,failed=0,status=PASS,sign_cmd=\"journal sign "
                    "<seg>\",verify_cmd=\"journal verify-sig <seg>\"}\n"));
    EXPECT_EQ(blockfs_remove(path(1, cjournal_file_t::sidecar).c_str()), 0);
    EXPECT_TRUE(has(run("proof-health"), "hash sidecars: ok=1 missing=1 bad=0\n"));
    change(path(1, cjournal_file_t::root), 40);
    EXPECT_TRUE(has(run("proof-health"), "epoch roots:   ok=1 missing=0 bad=1\n"));
    EXPECT_TRUE(has(run("json verify-sig 1"), "status=FAIL,root_match=no,sig_present=yes,"));
    EXPECT_TRUE(has(run("epoch-root 1"), ": FAIL segment=1 "));
}

TEST_F(JournalViews, SelfTestsPassOnWhatIsSoundAndFailOnDamage) {
    archive();
    for (const char* test : {"checksum-test", "hash-sidecar-test", "hash-legacy-test"})
        EXPECT_TRUE(ends(test, "PASS segment=2 ") && ends(std::string(test) + " 1", "PASS"));
    EXPECT_TRUE(ends("record-compat-test", "PASS segment=2 records=3 v1=6/6 v3=6/6 current=6/6"));
    change(path(1), place(3) + 40);
    EXPECT_TRUE(ends("checksum-test 1", "FAIL segment=1 match=no"));
    EXPECT_TRUE(ends("hash-sidecar-test 1", "FAIL segment=1 events=60 match=no"));
    change(path(1), place(3) + 40);
    change(path(1, cjournal_file_t::sidecar), 24 + 59 * 32);
    EXPECT_TRUE(ends("checksum-test 1", "PASS"));
    EXPECT_TRUE(ends("hash-sidecar-test 1", "FAIL"));
    EXPECT_TRUE(ends("read-retry-test 1", "PASS"));
    EXPECT_EQ(blockfs_remove(path(1, cjournal_file_t::sidecar).c_str()), 0);
    EXPECT_TRUE(ends("hash-sidecar-test 1", "SKIP segment=1"));
    EXPECT_TRUE(ends("read-retry-test 1", "FAIL segment=1 header=yes hash=no root=yes"));
    change(path(1), 8);
    for (const char* test : {"checksum-test 1", "hash-legacy-test 1"})
        EXPECT_TRUE(ends(test, "segment 1 cannot be read"));
}

TEST_F(JournalViews, ReadThroughTestsCompareTheStoreWithTheDisk) {
    const char* tests[] = {"readthrough-test", "hash-readthrough-test", "readthrough-effects-test",
                           "readthrough-parents-test"};
    wait_for(20);
    cjournal_spill(20);
    for (const char* test : tests)
        EXPECT_TRUE(ends(test, "SKIP no archived event")) << test;
    archive();
    for (const char* test : tests)
        EXPECT_TRUE(ends(test, "PASS segment=3 ")) << run(test);
    // The store keeps what it fetched; the disk now says something else.
    const uint32_t last = segment(3).header.event_count - 1;
    change(path(3), place(last) + 40);
    EXPECT_TRUE(ends("readthrough-test", "FAIL"));
    EXPECT_TRUE(ends("hash-readthrough-test", "PASS"));
    change(path(3, cjournal_file_t::sidecar), 24 + last * 32);
    EXPECT_TRUE(ends("hash-readthrough-test", "FAIL"));
    change(path(3), place(last) + 117, 2);
    EXPECT_TRUE(ends("readthrough-parents-test", "FAIL"));
    EXPECT_TRUE(ends("readthrough-effects-test", "FAIL")) << run("readthrough-effects-test");
}

}  // namespace
