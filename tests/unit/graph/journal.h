// A machine with a volume and a journal on it, and a judge of what lies in "/causal".
#pragma once

#include <cstring>
#include <functional>
#include <set>
#include <sstream>

#include "kernel/core/interrupt.h"
#include "kernel/core/noise.h"
#include "kernel/core/task.h"
#include "kernel/core/task/sched.h"
#include "kernel/graph/cjournal.h"
#include "tests/unit/fs/volume.h"
#include "tools/audit/journal.h"

class JournalVolume : public Volume {
protected:
    void SetUp() override {
        noise_set_random({[](void* buf, uint32_t len) { memset(buf, 7, len); }, [] {}, false});
    }
    void TearDown() override {
        cjournal_init_without_volume();
        noise_set_random({nullptr, nullptr, false});
        Volume::TearDown();
    }

    /// As after switching on, up to the volume; the machine's memory is gone, its disk is not.
    void start() {
        blockfs_forget();
        m.reboot();
        running() = {};
        task_init();
        ASSERT_EQ(blockfs_init(), 0) << machine_texts();
    }
    /// With the journal. `audited`: first the auditor looks at what is there.
    void boot(bool audited = false) {
        start();
        if (audited)
            audit();
        cjournal_continue_numbering();
        cjournal_init();
        ASSERT_NE(task_find_by_pid(1), nullptr);
    }
    static void cjournal_init_without_volume() {
        blockfs_forget();
        cjournal_init();
        running() = {};
    }

    /// What a command prints when it is given these words.
    static std::string run(void (*command)(int, char**), std::vector<std::string> words = {}) {
        words.insert(words.begin(), "word");
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        machine_texts().clear();
        command(static_cast<int>(argv.size()), argv.data());
        return machine_texts();
    }
    static bool has(const std::string& text, const std::string& what) {
        return text.find(what) != std::string::npos;
    }

    /// Records events until `unspilled` of them wait.
    static void wait_for(uint32_t unspilled) {
        while (unspilled_events() < unspilled)
            causal_event_fmt(CAUSAL_USER, "test", "event %u", causal_get_next_id());
    }
    static uint32_t unspilled_events() {
        const uint32_t cursor =
            std::max(cjournal_state()->last_spilled_id, causal_numbering_base());
        return causal_total_events() - cursor;
    }
    static std::string path(uint32_t segment, cjournal_file_t file = cjournal_file_t::segment) {
        char text[CJOURNAL_PATH_SIZE];
        cjournal_path(segment, file, text);
        return text;
    }
    static bool exists(const std::string& path) { return blockfs_resolve(path.c_str()) >= 0; }

    /// Identifiers and Lamport times of a snapshot's records.
    using snapshot_t = std::vector<std::pair<uint32_t, uint64_t>>;
    static void write_snapshot(const snapshot_t& events) {
        bytes_t file(24 + events.size() * sizeof(persist_event_t));
        const persist_header_t header = {CJOURNAL_SNAPSHOT_MAGIC, 1,
                                         static_cast<uint32_t>(events.size()), 1, 1};
        memcpy(file.data(), &header, sizeof header);
        for (size_t i = 0; i < events.size(); i++) {
            persist_event_t record = {};
            record.id = events[i].first;
            record.lamport = events[i].second;
            memcpy(&file[24 + i * sizeof record], &record, sizeof record);
        }
        write(CJOURNAL_SNAPSHOT_PATH, file);
    }

    struct segment_t {
        uint32_t number;
        cjournal_header_t header;
        cjournal_footer_t footer;
        std::vector<cjournal_event_t> records;
    };

    /// All segments, by number; each has its companions, and no companion stands alone.
    static std::vector<segment_t> segments() {
        std::set<uint32_t> numbers;
        std::istringstream names(list("/causal"));
        for (std::string name; std::getline(names, name);) {
            uint32_t number = 0;
            cjournal_file_t file = {};
            if (!cjournal_parse_name(name.c_str(), static_cast<uint32_t>(name.size()), &number,
                                     &file))
                continue;
            if (file == cjournal_file_t::segment)
                numbers.insert(number);
            EXPECT_TRUE(file == cjournal_file_t::signature || exists(path(number))) << name;
        }
        std::vector<segment_t> all;
        for (const uint32_t number : numbers) {
            EXPECT_TRUE(exists(path(number, cjournal_file_t::sidecar))) << number;
            EXPECT_TRUE(exists(path(number, cjournal_file_t::root))) << number;
            all.push_back(segment(number));
        }
        return all;
    }

    static segment_t segment(uint32_t number) {
        const bytes_t file = read(path(number).c_str());
        segment_t s = {number, {}, {}, {}};
        memcpy(&s.header, file.data(), std::min(file.size(), sizeof s.header));
        EXPECT_EQ(file.size(), cjournal_segment_bytes(s.header.event_count)) << number;
        if (file.size() != cjournal_segment_bytes(s.header.event_count))
            return s;
        s.records.resize(s.header.event_count);
        memcpy(s.records.data(), &file[44], s.records.size() * 175);
        memcpy(&s.footer, &file[file.size() - 48], 48);
        return s;
    }

    /// What the auditor has against the files in "/causal", whatever the journal makes of them.
    static void audit() {
        files_t files;
        std::istringstream names(list("/causal"));
        for (std::string name; std::getline(names, name);)
            files[name] = read(("/causal/" + name).c_str());
        for (const std::string& fault : audit_journal(files, {}).faults)
            ADD_FAILURE() << fault;
    }

    /// The journal is sound: to the auditor and to itself, and the index names all its segments.
    static std::vector<segment_t> judge() {
        audit();
        const std::vector<segment_t> all = segments();
        EXPECT_EQ(static_cast<size_t>(cjournal_state()->index_count), all.size());
        machine_texts().clear();
        EXPECT_EQ(cjournal_verify(), 0) << machine_texts();
        return all;
    }
};
