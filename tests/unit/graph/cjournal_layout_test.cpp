// Segments that this system does not write: of older layouts, and of an attacker's making.
#include <algorithm>

#include "kernel/apps/cmd_journal.h"
#include "tests/unit/graph/journal.h"
#include "tests/unit/graph/journal_vectors.h"

namespace {

std::string digest(const bytes_t& data) {
    uint8_t hash[32];
    char hex[65];
    blake2s(hash, data.data(), static_cast<uint32_t>(data.size()));
    causal_hash_hex(hash, hex);
    return hex;
}

template <typename T>
void add_to(bytes_t* to, const T& what, size_t bytes = sizeof(T)) {
    const auto* from = reinterpret_cast<const uint8_t*>(&what);
    to->insert(to->end(), from, from + bytes);
}

class JournalLayouts : public JournalVolume {
protected:
    void SetUp() override {
        JournalVolume::SetUp();
        boot();
    }
    static bool says(const std::string& what) { return has(machine_texts(), what); }
    static int verify() {
        machine_texts().clear();
        return cjournal_verify();
    }
};

class OldLayouts : public JournalLayouts {
protected:
    static constexpr uint32_t RECORDS = 7;
    static constexpr uint32_t FOOTER_BYTES[] = {0, 24, 28, 40, 44, 48};
    using records_t = std::vector<cjournal_event_t>;

    /// The records that journal_answers.py makes too.
    static records_t make_records(uint32_t number) {
        constexpr struct {
            uint8_t type;
            const char *subsystem, *desc;
            uint16_t schema;
        } TEXTS[RECORDS] = {{9, "vofs", "create /x", 7},   {2, "disk", "append 3", 6},
                            {9, "tcp", "sent", 8},         {9, "tl", "tick", 10},
                            {6, "task", "recv name=a", 5}, {0, "cpu", "exit 3", 3},
                            {9, "x", "create", 0}};
        records_t records(RECORDS);
        for (uint32_t i = 0; i < RECORDS; i++) {
            cjournal_event_t& r = records[i];
            r.id = 1000 * number + i * (1 + number % 2);
            r.node_hash = 0xBEEF;
            r.lamport = 500 + i;
            r.wall_ticks = 90 + i;
            r.type = TEXTS[i].type;
            strcpy(r.subsystem, TEXTS[i].subsystem);
            strcpy(r.desc, TEXTS[i].desc);
            r.parents[r.num_parents++] = r.id - 1;
            r.child_count = static_cast<uint16_t>(i);
            r.payload_len = i % 2 * 7;
            if (i % 2 != 0)
                blake2s(r.payload_hash, "payload", 7);
            r.schema_id = TEXTS[i].schema;
            r.schema_version = 1;
        }
        return records;
    }

    /// Writes segment `number` with a sidecar and a root of an older version of the hash.
    void write_old(uint32_t number, const journal_old_answer_t& answer) {
        const records_t records = make_records(number);
        const cjournal_header_t header = cjournal_make_header(records);
        const uint32_t footer_bytes = FOOTER_BYTES[answer.footer_version];
        bytes_t file;
        add_to(&file, header);
        for (const cjournal_event_t& record : records)
            add_to(&file, record, answer.event_size);
        const uint32_t sum = cjournal_checksum(file);
        cjournal_footer_t footer = cjournal_make_footer(header, number, sum, previous, 0);
        previous = sum;
        footer.version = answer.footer_version;
        footer.event_size = answer.event_size;
        footer.footer_size = footer_bytes;
        add_to(&file, footer, footer_bytes);
        EXPECT_EQ(digest(file), answer.segment) << number;
        write(path(number).c_str(), file);
        write_companions(number, header);
    }
    void write_companions(uint32_t number, const cjournal_header_t& header) {
        const uint32_t version = 1 + number % 3;
        records_t stored(RECORDS);
        ASSERT_EQ(cjournal_query_segment(number, stored.data(), 512), 7) << number;
        cjournal_hash_header_t sidecar = cjournal_make_hash_header(header, number);
        sidecar.version = version;
        bytes_t file;
        add_to(&file, sidecar);
        std::vector<cjournal_hash_t> hashes(RECORDS);
        for (uint32_t i = 0; i < RECORDS; i++) {
            cjournal_record_hash(version, stored[i], &hashes[i]);
            add_to(&file, hashes[i]);
        }
        write(path(number, cjournal_file_t::sidecar).c_str(), file);
        auto root = cjournal_make_root(header, number, cjournal_merkle_root(hashes));
        root.hash_version = version;
        file.clear();
        add_to(&file, root);
        write(path(number, cjournal_file_t::root).c_str(), file);
    }
    void write_all() {
        uint32_t number = 0;
        for (const journal_old_answer_t& answer : JOURNAL_OLD_ANSWERS)
            write_old(++number, answer);
        ASSERT_EQ(number, 18u);
        ASSERT_EQ(cjournal_rebuild_index(), 18);
    }

    uint32_t previous = 0;
};

TEST_F(OldLayouts, VerifyAndConvertAndAreKeptByTheNextBoots) {
    write_all();
    ASSERT_EQ(verify(), 0) << machine_texts();
    EXPECT_TRUE(says("footer ok (15 segments)") && says("checksum ok (12 segments)") &&
                says("layout ok (9 segments)") && says("chain ok (6 links)") &&
                says("stored hash ok (126 events") && says("epoch root ok (18 segments)"));
    uint32_t number = 0;
    for (const journal_old_answer_t& answer : JOURNAL_OLD_ANSWERS) {
        records_t records(RECORDS);
        ASSERT_EQ(cjournal_query_segment(++number, records.data(), 512), 7);
        bytes_t hashes;
        for (const cjournal_event_t& record : records) {
            cjournal_hash_t hash;
            cjournal_event_t found;
            cjournal_record_hash(4, record, &hash);
            add_to(&hashes, hash);
            // Identifiers of every second segment have gaps: the place alone does not tell.
            ASSERT_EQ(cjournal_query_by_id_disk(record.id, &found), 0) << record.id;
            EXPECT_EQ(memcmp(&found, &record, sizeof found), 0);
            EXPECT_NE(cjournal_query_by_id_disk(record.id + 3000000, &found), 0);
        }
        EXPECT_EQ(digest(hashes), answer.hashes) << number;
        cjournal_event_t found;
        EXPECT_EQ(cjournal_query_by_id_disk(1000 * number + 1, &found), number % 2 ? -1 : 0);
    }
    for (const bool with_index : {true, false}) {
        if (!with_index) {
            EXPECT_EQ(blockfs_remove(CJOURNAL_INDEX_PATH), 0);
        }
        boot();
        EXPECT_GT(causal_get_next_id(), 18006u) << "numbers go on behind the old ones";
        EXPECT_EQ(cjournal_state()->index_count, 18);
        EXPECT_EQ(verify(), 0) << machine_texts();
    }
}

TEST_F(OldLayouts, DamageIsFoundByWhatTheLayoutHas) {
    write_all();
    for (uint32_t number = 1; number <= 18; number++) {
        const uint32_t version = JOURNAL_OLD_ANSWERS[number - 1].footer_version;
        const bytes_t sound = read(path(number).c_str());
        bytes_t damaged = sound;
        damaged[44 + 3 * JOURNAL_OLD_ANSWERS[number - 1].event_size + 40] ^= 1;
        write(path(number).c_str(), damaged);
        cjournal_seg_verdict_t verdict;
        machine_texts().clear();
        cjournal_verify_segment_verdict(number, &verdict);
        EXPECT_FALSE(verdict.ok) << number;
        EXPECT_EQ(says("bad footer"), version >= 2) << number;
        EXPECT_EQ(verdict.hash_status, -1);
        run(cmd_journal, {"footer", std::to_string(number)});
        EXPECT_TRUE(says(version == 0 ? "has no footer" : version == 1 ? "PASS" : "FAIL"));
        write(path(number).c_str(), sound);
        cjournal_verify_segment_verdict(number, &verdict);
        EXPECT_TRUE(verdict.ok);
        EXPECT_TRUE(verdict.footer == (version >= 1) && verdict.checksum == (version >= 2) &&
                    verdict.layout == (version >= 3) && verdict.hash_version == 1 + number % 3);
    }
}

class HostileSegments : public JournalLayouts {
protected:
    static constexpr uint32_t RECORDS = 8;

    void SetUp() override {
        JournalLayouts::SetUp();
        wait_for(RECORDS);
        ASSERT_EQ(cjournal_spill(RECORDS), 8);
        sound = read(path(1).c_str());
        ASSERT_EQ(sound.size(), 44u + 8 * 175 + 48);
    }

    /// Everything that reads segments, on the segment as it now is; whether it passes as sound.
    bool reads_as_sound() {
        cjournal_seg_verdict_t verdict;
        cjournal_retry_probe_t probe;
        cjournal_epoch_proof_t proof;
        uint32_t types[CAUSAL_TYPE_COUNT];
        uint8_t root[32], signature[64];
        machine_texts().clear();
        cjournal_verify_segment_verdict(1, &verdict);
        judged = machine_texts();
        (void)cjournal_read_retry_probe(1, &probe);
        std::vector<cjournal_event_t> out(512);
        for (uint32_t id = 1; id <= RECORDS; id++)
            EXPECT_TRUE(cjournal_query_by_id_disk(id, out.data()) != 0 || out[0].id == id);
        EXPECT_LE(cjournal_query_segment(1, out.data(), 512), 512);
        (void)cjournal_query_children(1, out.data(), 128);
        (void)cjournal_query_descendants(1, 16, out.data(), 128);
        (void)cjournal_query_text("event", out.data(), 128);
        cjournal_type_histogram(types);
        (void)cjournal_segment_proof(1, "last", &proof, nullptr);
        (void)cjournal_segment_signed(1, root, signature);
        for (const char* word : {"footer", "hash-sidecar", "epoch-root", "checksum-test",
                                 "hash-sidecar-test", "hash-legacy-test"})
            run(cmd_journal, {"long", word, "1"}), run(cmd_journal, {word, "1"});
        for (const char* word : {"recent", "index", "record-compat-test", "readthrough-test"})
            run(cmd_journal, {word});
        return verdict.ok;
    }
    template <typename T>
    static void set(bytes_t* file, size_t at, T value) {
        memcpy(&file->at(at), &value, sizeof value);
    }
    /// Header and footer both name `count` records of `size` bytes.
    static bytes_t lie(bytes_t file, uint32_t count, uint32_t size) {
        for (const size_t at : {size_t{8}, file.size() - 48 + 12})
            set(&file, at, count);
        set(&file, file.size() - 48 + 32, size);
        set(&file, file.size() - 48 + 24,
            cjournal_checksum(std::span(file).first(file.size() - 48)));
        return file;
    }

    bytes_t sound;
    std::string judged;
};

TEST_F(HostileSegments, AreRefusedWithALineWhateverTheyClaim) {
    EXPECT_TRUE(reads_as_sound()) << judged;
    const auto changed = [&](size_t at, uint32_t value) {
        bytes_t file = sound;
        set(&file, at, value);
        return file;
    };
    bytes_t longer = sound, overlong = sound;
    longer.push_back(0);
    overlong.resize(200000);
    const struct {
        bytes_t file;
        const char* line;
    } cases[] = {
        {changed(4, 2), "bad header in"},
        {changed(8, 0), "bad event count 0 in"},
        {changed(8, 513), "bad event count 513 in"},
        {changed(8, 0xFFFFFFFF), "bad event count 4294967295 in"},
        {changed(8, 512), "size mismatch in"},
        {longer, "size mismatch in"},
        {overlong, "size mismatch in"},
        // Records of 5, 700 and 1400 bytes fill the file as well.
        {lie(sound, 280, 5), "short event read in"},
        {lie(sound, 2, 700), "short event read in"},
        {lie(sound, 1, 1400), "short event read in"},
        {lie(sound, 7, 200), "short event read in"},
        {bytes_t(), "short header read in"},
        {bytes_t(43), "short header read in"},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(blockfs_replace_file(path(1).c_str(), c.file.data(),
                                       static_cast<uint32_t>(c.file.size())),
                  0);
        EXPECT_FALSE(reads_as_sound()) << c.line;
        EXPECT_TRUE(has(judged, c.line)) << c.line << ": " << judged;
    }
    for (size_t length = 44; length < sound.size(); length += 61) {
        write(path(1).c_str(), bytes_t(sound.begin(), sound.begin() + length));
        EXPECT_FALSE(reads_as_sound()) << length;
    }
    EXPECT_EQ(blockfs_remove(path(1).c_str()), 0);
    EXPECT_GE(blockfs_create(path(1).c_str(), BLOCKFS_DIRECTORY), 0);
    EXPECT_FALSE(reads_as_sound());
    EXPECT_TRUE(has(judged, " is not a file"));
}

TEST_F(HostileSegments, LyingCompanionsAreBadAndTextsDoNotReachTheTerminal) {
    for (const cjournal_file_t kind : {cjournal_file_t::sidecar, cjournal_file_t::root}) {
        const std::string name = path(1, kind);
        const bytes_t good = read(name.c_str());
        for (const size_t at : {0, 4, 8, 12, 16, 20, 24, 55}) {
            for (const uint32_t value : {0u, 0xFFFFFFFFu}) {
                bytes_t file = good;
                set(&file, at, value);
                write(name.c_str(), file);
                EXPECT_FALSE(reads_as_sound()) << name << at;
            }
        }
        write(name.c_str(), bytes_t(good.begin(), good.end() - 1));
        EXPECT_FALSE(reads_as_sound());
        write(name.c_str(), good);
    }
    bytes_t file = sound;
    std::fill_n(file.begin() + 44 + 21, 96, uint8_t{0x1B});
    file[44 + 21 + 3] = '"';
    write(path(1).c_str(), file);
    for (const char* form : {"json", "long"}) {
        run(cmd_journal, {form, "lookup", "first"});
        EXPECT_TRUE(says("subsystem=\"???\\\"????????????\",desc=\"????")) << machine_texts();
        EXPECT_FALSE(says("\x1B"));
    }
    run(cmd_journal, {"recent"});
    EXPECT_FALSE(says("\x1B"));
}

}  // namespace
