#include "kernel/graph/timeline.h"

#include "kernel/core/task/sched.h"
#include "kernel/graph/timeline/format.h"
#include "tests/unit/graph/causal_fixture.h"

namespace {

class Timeline : public causal_fixture {
protected:
    void SetUp() override {
        causal_fixture::SetUp();
        timeline_init();
        tl = timeline_create("app/1", "app");
    }
    int tl = -1;

    static uint32_t emit_at(int id, uint32_t tick, const char* desc, const std::string& data = "") {
        system_ticks = tick;
        return timeline_emit(id, TIMELINE_DATA, data.data(), static_cast<uint32_t>(data.size()),
                             desc);
    }
    static ids_t replayed(int id, uint32_t until) {
        ids_t ids;
        const auto keep = [](const causal_event_t* ev, void* ctx) {
            static_cast<ids_t*>(ctx)->push_back(ev->id);
        };
        const int calls = timeline_replay_until(id, until, keep, &ids);
        EXPECT_EQ(calls, static_cast<int>(ids.size()));
        return ids;
    }
    static void ignore(const causal_event_t*, void*) {}
    uint32_t cursor() const { return timeline_get(tl)->cursor_id; }
    static void turn_ring(uint32_t events) {
        for (uint32_t i = 0; i < events; ++i)
            emit();
    }
};

TEST_F(Timeline, LongDataGoesIntoContinuations) {
    run_task();
    const auto pieces = [this](uint32_t len) {
        std::string data(len, 'x');
        for (size_t i = 0; i < len; ++i)
            data[i] = static_cast<char>(i * 7);
        uint32_t parent = timeline_get(tl)->head_id;
        const uint32_t count = timeline_get(tl)->event_count;
        const uint32_t first = causal_get_next_id();
        const uint32_t last = emit_at(tl, 1, "big", data);
        EXPECT_EQ(timeline_get(tl)->event_count, count + 1);
        std::vector<uint32_t> lengths;
        std::string all;
        for (uint32_t id = first; id <= last; parent = id++) {
            const causal_event_t* ev = causal_get(id);
            EXPECT_EQ(parents(id), ids_t{parent});
            EXPECT_STREQ(ev->desc, id == first ? "big" : "(cont)");
            EXPECT_EQ(ev->schema_id, 10);
            timeline_envelope_t envelope;
            EXPECT_TRUE(timeline_decode_envelope({ev->payload, ev->payload_len}, &envelope));
            all.append(envelope.data.begin(), envelope.data.end());
            lengths.push_back(static_cast<uint32_t>(envelope.data.size()));
        }
        EXPECT_EQ(all, data);
        return lengths;
    };
    using lengths_t = std::vector<uint32_t>;
    EXPECT_EQ(pieces(0), lengths_t{0});
    EXPECT_EQ(pieces(406), lengths_t{406});
    EXPECT_EQ(pieces(407), (lengths_t{0, 406, 1}));
    EXPECT_EQ(pieces(1000), (lengths_t{0, 406, 406, 188}));
    EXPECT_EQ(replayed(tl, 1).size(), 5u);
    timeline_cached_event_t recent[64];
    EXPECT_EQ(timeline_recent(tl, recent, 64), 5);
    // The cursor stands on the last continuation, which belongs to the fifth event.
    EXPECT_EQ(timeline_rewind_steps(tl, 1), 0);
    EXPECT_EQ(cursor(), recent[3].id);
    EXPECT_EQ(timeline_forward(tl, 9), 0);
    EXPECT_EQ(cursor(), timeline_get(tl)->head_id);
}

TEST_F(Timeline, EnvelopesOfBothForms) {
    causal_event_t ev = *causal_get(timeline_emit(tl, 77, "ab", 2, nullptr));
    const std::string bytes("\xA\0\1\0\0\0\0\0M\0\0\0\2\0ab", 16);
    EXPECT_EQ(std::string(ev.payload, ev.payload + ev.payload_len), bytes);
    const auto parse = [&ev](const std::string& payload) -> std::string {
        memcpy(ev.payload, payload.data(), payload.size());
        ev.payload_len = static_cast<uint32_t>(payload.size());
        uint32_t sub_type;
        const uint8_t* data;
        uint16_t len;
        const bool ok = timeline_parse_payload(&ev, &sub_type, &data, &len);
        EXPECT_TRUE(ok || (sub_type == 0 && data == nullptr && len == 0));
        return ok ? std::to_string(sub_type) + "/" + std::string(data, data + len) : "none";
    };
    EXPECT_EQ(parse(bytes), "77/ab");
    EXPECT_EQ(parse(bytes.substr(4)), "77/ab");                        // the older form
    EXPECT_EQ(parse(std::string("\xA\0\1\0\2\0\0\0\0\0", 10)), "2/");  // too short for the other
    for (const auto& [at, len] : {std::pair{0u, 14u}, {4, 11}, {4, 9}, {0, 0}})
        EXPECT_EQ(parse(bytes.substr(at, len)), "none") << "something is missing";
    ev.payload_hash_valid = true;  // out of the archive: its bytes are not there
    EXPECT_EQ(parse(bytes), "none");
}

TEST_F(Timeline, NamesAreUniqueAndSlotsComeBack) {
    const std::string longest(31, 'n');
    const int cut = timeline_create((longest + "abc").c_str(), "application-name");
    EXPECT_EQ(timeline_get(cut)->name + std::string("/") + timeline_get(cut)->app,
              longest + "/application-nam");
    EXPECT_EQ(timeline_find((longest + "xyz").c_str()), cut);
    for (const std::string& taken : {std::string("app/1"), longest, longest + "q"})
        EXPECT_EQ(timeline_create(taken.c_str(), "x"), -1);
    EXPECT_EQ(timeline_create(nullptr, "x"), -1);
    for (int i = 2; i < TIMELINE_SLOTS; ++i)
        EXPECT_EQ(timeline_create(std::to_string(i).c_str(), "x"), i);
    EXPECT_EQ(timeline_create("one too many", "x"), -1);
    EXPECT_EQ(timeline_count(), TIMELINE_SLOTS);

    // The next one in the slot does not inherit, also where its first event follows the old last.
    run_task();
    emit_at(cut, 5, "old");
    timeline_destroy(cut);
    EXPECT_STREQ(causal_get(causal_total_events())->desc, "timeline deleted");
    EXPECT_EQ(timeline_get(cut), nullptr);
    EXPECT_EQ(timeline_emit(cut, 2, nullptr, 0, "x"), 0u);
    EXPECT_EQ(timeline_create("heir", "x"), cut);
    EXPECT_EQ(replayed(cut, UINT32_MAX), ids_t{causal_total_events()});
    for (const int bad : {-1, 64}) {
        EXPECT_EQ(timeline_emit(bad, 2, nullptr, 0, "x"), 0u);
        EXPECT_EQ(timeline_rewind_steps(bad, 1), -1);
        EXPECT_EQ(timeline_replay(bad, ignore, nullptr), -1);
        timeline_destroy(bad);
    }
    EXPECT_EQ(timeline_replay(tl, nullptr, nullptr), -1);
}

TEST_F(Timeline, TheCursorTravels) {
    system_ticks = 100;
    const int other = timeline_create("other", "app");
    uint32_t ids[6];
    for (uint32_t i = 1; i <= 5; ++i) {
        ids[i] = emit_at(other, 100 * (i + 1), "step");
        emit_at(tl, 100 * (i + 1), "beside it");
    }
    const auto at = [other] { return timeline_get(other)->cursor_id; };
    EXPECT_EQ(timeline_rewind(other, 99), -1);
    EXPECT_EQ(at(), ids[5]);
    EXPECT_EQ(timeline_rewind(other, 399), 0);
    EXPECT_EQ(at(), ids[2]);
    EXPECT_EQ(timeline_cursor_tick(other), 300u);
    EXPECT_EQ(timeline_replay(other, ignore, nullptr), 3);
    EXPECT_EQ(timeline_forward(other, 100), 0);  // the next one in any case
    EXPECT_EQ(at(), ids[3]);
    EXPECT_EQ(timeline_forward(other, 601), 0);
    EXPECT_EQ(at(), ids[5]);
    EXPECT_EQ(timeline_rewind_steps(other, UINT32_MAX), 0);
    EXPECT_EQ(timeline_cursor_tick(other), 100u);
    EXPECT_EQ(replayed(other, 300).size(), 3u);

    EXPECT_EQ(timeline_rewind(other, 200), 0);
    const auto endpoint = [other](const std::string& text) -> int64_t {
        uint32_t id = 0;
        return timeline_parse_endpoint(other, text.c_str(), &id) ? static_cast<int64_t>(id) : -1;
    };
    for (const char* origin : {"start", "origin", "0", "T+99"})
        EXPECT_EQ(endpoint(origin), 0) << origin;
    const std::pair<std::string, uint32_t> named[] = {
        {"head", 5}, {"cursor", 1}, {"#" + std::to_string(ids[3]), 3},  {"t+450", 3},
        {"2", 1},    {"6", 5},      {"id=" + std::to_string(ids[4]), 4}};
    for (const auto& [text, index] : named)
        EXPECT_EQ(endpoint(text), ids[index]) << text;
    for (const char* bad : {"7", "", "-1", "#", "#1", "id=x", "T+", "T+x", "heads", "+1", "00"})
        EXPECT_EQ(endpoint(bad), -1) << bad;
}

TEST_F(Timeline, WhatLeavesTheRingLeavesTheChain) {
    const uint32_t second = emit_at(tl, 1, "second");
    turn_ring(CAUSAL_RING_SLOTS - 1);
    EXPECT_EQ(replayed(tl, 9), ids_t{second});
    timeline_rewind_steps(tl, 9);
    const uint32_t third = emit_at(tl, 2, "third");  // pushes the second out
    timeline_rewind_steps(tl, 9);
    EXPECT_EQ(cursor(), third);
    const uint32_t fourth = emit_at(tl, 3, "fourth");
    EXPECT_EQ(timeline_rewind(tl, 2), 0);
    turn_ring(CAUSAL_RING_SLOTS - 1);
    EXPECT_EQ(timeline_forward(tl, 0), -1);
    EXPECT_EQ(cursor(), third);
    EXPECT_EQ(timeline_rewind_steps(tl, 0), 0);
    EXPECT_EQ(cursor(), fourth);
    turn_ring(1);
    EXPECT_EQ(timeline_rewind(tl, 9), -1);
    EXPECT_EQ(timeline_rewind_steps(tl, 0), -1);
    EXPECT_EQ(timeline_cursor_tick(tl), 0u);
}

TEST_F(Timeline, FollowsTheNumberingAndOnlyProcessorZero) {
    const uint32_t head = emit_at(tl, 1, "step");
    timeline_rewind_steps(tl, 1);
    ASSERT_TRUE(causal_renumber(100000));
    EXPECT_EQ(replayed(tl, 9), (ids_t{100002, head + 100000}));
    EXPECT_EQ(cursor(), 100002u);
    timeline_cached_event_t recent[2];
    EXPECT_EQ(timeline_recent(tl, recent, 2), 2);
    EXPECT_EQ(recent[1].id, head + 100000);
    cpu_id_query = [] { return 1u; };
    EXPECT_EQ(timeline_emit(tl, 2, nullptr, 0, "x"), 0u);
    EXPECT_EQ(timeline_create("elsewhere", "x"), -1);
    timeline_destroy(tl);
    cpu_id_query = nullptr;
    EXPECT_EQ(timeline_get(tl)->head_id, head + 100000);
    EXPECT_EQ(timeline_get(tl)->event_count, 2u);
}

TEST_F(Timeline, OfATaskEndsWithIt) {
    timeline_watch_tasks();
    task_t task = {};
    for (task.pid = 1; task.pid <= 3 * TIMELINE_SLOTS; ++task.pid) {
        task.exit_status = -task.pid;
        const int id = timeline_create(("proc/" + std::to_string(task.pid)).c_str(), "proc");
        sched.hooks.exiting(&task);
        timeline_cached_event_t last = {};
        timeline_recent(id, &last, 1);
        ASSERT_EQ(last.desc, "exit status=" + std::to_string(-task.pid));
        sched.hooks.reaped(task.pid);
        sched.hooks.exiting(&task);  // without a timeline nothing happens
        sched.hooks.reaped(task.pid);
        ASSERT_EQ(timeline_count(), 1);
    }
}

}  // namespace
