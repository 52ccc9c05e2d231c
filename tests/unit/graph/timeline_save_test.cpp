// Saved timelines: their bytes, what a power cut leaves of them, and files that lie.
#include "kernel/core/endian.h"
#include "kernel/graph/timeline.h"
#include "kernel/graph/timeline/format.h"
#include "tests/unit/fs/volume.h"

namespace {

using texts_t = std::vector<std::string>;

class TimelineSave : public Volume {
protected:
    void SetUp() override {
        ASSERT_EQ(mount(), 0);
        timeline_init();
        tl = timeline_create("work", "app");
    }
    int tl = -1;

    static void fill(int id, int events) {
        for (int i = static_cast<int>(timeline_get(id)->event_count); i < events; ++i) {
            const std::string n = std::to_string(i);
            timeline_emit(id, 60, n.data(), static_cast<uint32_t>(n.size()), ("e" + n).c_str());
        }
    }
    /// Sub-types, descriptions and data of the chain.
    static texts_t contents(int id) {
        texts_t texts;
        const auto keep = [](const causal_event_t* ev, void* ctx) {
            uint32_t sub_type;
            const uint8_t* data;
            uint16_t len;
            EXPECT_TRUE(timeline_parse_payload(ev, &sub_type, &data, &len));
            static_cast<texts_t*>(ctx)->push_back(std::to_string(sub_type) + " " + ev->desc + " " +
                                                  std::string(data, data + len));
        };
        timeline_replay_until(id, UINT32_MAX, keep, &texts);
        return texts;
    }
    static uint32_t newest() {
        uint32_t id = 0;
        causal_recent_ids(CAUSAL_USER, &id, 1);
        return id;
    }
    /// Loads `name`; its contents, or {"none"}. Frees the slot again.
    static texts_t load(const char* name) {
        const int count = timeline_count();
        const uint32_t last = newest();
        const int id = timeline_restore(name);
        EXPECT_TRUE(id >= 0 || newest() == last);  // not half a history
        const texts_t texts = id < 0 ? texts_t{"none"} : contents(id);
        timeline_destroy(id);
        EXPECT_EQ(timeline_count(), count);
        return texts;
    }
    /// As after switching on.
    void restart() {
        m.disk.power_on();
        ASSERT_EQ(mount(), 0);
        causal_init();
        timeline_init();
    }
    static bytes_t record(const char* desc, const bytes_t& payload) {
        bytes_t bytes(TIMELINE_RECORD_SIZE);
        strcpy(reinterpret_cast<char*>(&bytes[44]), desc);
        std::copy(payload.begin(), payload.end(), bytes.begin() + 124);
        store_le32(&bytes[544], static_cast<uint32_t>(payload.size()));
        return bytes;
    }
};

TEST_F(TimelineSave, HasTheBytesAndComesBack) {
    write("/timeline/work.003", {1});
    write("/timeline/work.005", {1});
    fill(tl, 25);
    ASSERT_EQ(timeline_rewind_steps(tl, 3), 0);
    const timeline_t saved = *timeline_get(tl);
    ASSERT_EQ(timeline_persist(tl), 0);
    EXPECT_EQ(list("/timeline"), "work.005\nwork.000\nwork.001\nwork.002\nwork.tl\n");
    EXPECT_EQ(read("/timeline/work.002").size(), 3040u);
    bytes_t header(84);
    strcpy(reinterpret_cast<char*>(&header[16]), "work");
    strcpy(reinterpret_cast<char*>(&header[48]), "app");
    const std::pair<size_t, uint32_t> numbers[] = {
        {0, 0x544C5032},       {4, 2},  {8, 25}, {12, 3}, {64, 1}, {68, saved.head_id},
        {72, saved.cursor_id}, {76, 25}};
    for (const auto& [at, value] : numbers)
        store_le32(&header[at], value);
    EXPECT_EQ(read("/timeline/work.tl"), header);
    const bytes_t chunk = read("/timeline/work.001");
    const causal_event_t* tenth = causal_get(load_le32(chunk.data()));
    EXPECT_STREQ(tenth->desc, "e10");
    EXPECT_EQ(memcmp(chunk.data(), tenth, sizeof *tenth), 0);

    const texts_t before = contents(tl);
    EXPECT_EQ(timeline_restore("work"), -1);
    restart();
    timeline_create("first", "x");
    const int id = timeline_restore("work");
    ASSERT_EQ(id, 1);  // another slot than before
    EXPECT_EQ(contents(id), before);
    EXPECT_EQ(timeline_get(id)->event_count, 25u);
    EXPECT_EQ(timeline_get(id)->cursor_id, timeline_get(id)->head_id);
    EXPECT_STREQ(timeline_get(id)->app, "app");
    EXPECT_EQ(timeline_restore(nullptr), -1);
    EXPECT_EQ(timeline_restore(std::string(300, 'n').c_str()), -1);
}

TEST_F(TimelineSave, NamesWithSlashesGetDirectories) {
    timeline_persist(tl);
    for (const std::string name : {"shell/0", "a//b", "/a", "../a", "work.tl/x"}) {
        const int id = timeline_create(name.c_str(), "x");
        EXPECT_EQ(timeline_persist(id), name == "shell/0" ? 0 : -1) << name;
        timeline_destroy(id);
    }
    EXPECT_EQ(list("/timeline/shell"), "0.000\n0.tl\n");
    EXPECT_EQ(load("shell/0"), texts_t{"1 timeline created "});
}

TEST_F(TimelineSave, APowerCutLeavesTheOldHistoryOrTheNewOne) {
    texts_t old = {"none"};
    for (const int events : {12, 25, 45}) {
        const disk_image before = m.disk.image;
        int result = -1;
        for (uint64_t cut = 0; result != 0; ++cut) {
            m.disk.image = before;
            restart();
            tl = events == 12 ? timeline_create("work", "app") : timeline_restore("work");
            fill(tl, events);
            const texts_t whole = contents(tl);
            m.disk.cut_power_after(cut);
            result = timeline_persist(tl);
            restart();
            const texts_t now = load("work");
            ASSERT_TRUE(now == whole || (now == old && result != 0)) << cut;
            ASSERT_LT(cut, 500u);
        }
        old = load("work");
    }
    blockfs_forget();
    EXPECT_EQ(timeline_persist(timeline_create("w", "x")), -1);
    EXPECT_EQ(timeline_restore("work"), -1);
}

TEST_F(TimelineSave, LeavesInodesToTheJournal) {
    fill(tl, 1000);
    EXPECT_EQ(timeline_persist(tl), 0);
    EXPECT_EQ(timeline_persist(tl), 0);  // the same files again
    const texts_t before = contents(tl);
    fill(tl, 1200);
    EXPECT_EQ(timeline_persist(tl), -1);
    timeline_destroy(tl);
    EXPECT_EQ(load("work"), before);
}

TEST_F(TimelineSave, FilesThatLieAreRefusedOrReadSafely) {
    fill(tl, 12);
    ASSERT_EQ(timeline_persist(tl), 0);
    const bytes_t header = read("/timeline/work.tl");
    const bytes_t chunk = read("/timeline/work.000");
    const texts_t sound = contents(tl);
    timeline_destroy(tl);
    const texts_t none = {"none"};
    const auto with_header = [&](size_t at, uint32_t value, size_t size = 84) {
        bytes_t bytes = header;
        store_le32(&bytes[at], value);
        bytes.resize(size);
        write("/timeline/work.tl", bytes);
        return load("work");
    };
    for (const uint32_t count : {0u, 21u, 16385u, 0xFFFFFFF7u, 0xFFFFFFFFu})
        EXPECT_EQ(with_header(8, count), none) << count;
    for (const uint32_t chunks : {0u, 1u, 3u, 0x1999999Au})
        EXPECT_EQ(with_header(12, chunks), none) << chunks;
    EXPECT_EQ(with_header(0, 0x544C5033), none);
    EXPECT_EQ(with_header(4, 3), none);
    for (const size_t size : {0, 67, 83})
        EXPECT_EQ(with_header(4, 2, size), none);

    bytes_t unterminated = header;
    std::fill(unterminated.begin() + 16, unterminated.begin() + 64, 0x1B);
    write("/timeline/work.tl", unterminated);
    tl = timeline_restore("work");
    EXPECT_STREQ(timeline_get(tl)->name, "work");
    EXPECT_STREQ(timeline_get(tl)->app, "???????????????");
    timeline_destroy(tl);

    write("/timeline/work.tl", header);
    EXPECT_EQ(load("work"), sound);
    write("/timeline/work.000", bytes_t(chunk.begin(), chunk.end() - 1));
    EXPECT_EQ(load("work"), none);
    bytes_t bad = chunk;
    std::fill(bad.begin(), bad.begin() + 608, 0xFF);  // an event of nonsense
    write("/timeline/work.000", bad);
    const texts_t read_safely = load("work");
    EXPECT_EQ(read_safely[0].substr(0, 2), "0 ");
    EXPECT_EQ(texts_t(read_safely.begin() + 1, read_safely.end()),
              texts_t(sound.begin() + 1, sound.end()));
    blockfs_remove("/timeline/work.001");
    EXPECT_EQ(load("work"), none);
}

TEST_F(TimelineSave, TheOlderFileIsStillRead) {
    bytes_t file(68);
    strcpy(reinterpret_cast<char*>(file.data()), "old");
    strcpy(reinterpret_cast<char*>(&file[32]), "notes");
    const auto add = [&file](const bytes_t& bytes) {
        file.insert(file.end(), bytes.begin(), bytes.end());
    };
    add(record("first", {5, 0, 0, 0, 16, 0, 0, 0, 2, 0, 'h', 'i'}));
    add(bytes_t(607));  // no whole record
    write("/timeline/old.tl", file);
    EXPECT_EQ(load("old"), texts_t{"16 first hi"});
    write("/timeline/other.tl", file);  // carries another name
    EXPECT_EQ(load("other"), texts_t{"none"});
    for (int i = 0; i < 11; ++i)
        add(record("more", {}));
    write("/timeline/old.tl", file);
    EXPECT_EQ(load("old").size(), 9u);  // as many as 6144 bytes hold
}

}  // namespace
