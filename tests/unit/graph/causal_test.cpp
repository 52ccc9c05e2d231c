#include <sys/mman.h>

#include <cstring>
#include <map>
#include <random>
#include <set>

#include "tests/unit/graph/causal_fixture.h"

namespace {

class Causal : public causal_fixture {
protected:
    /// An event in words: its place in time, origin, texts, first parent and number of children.
    static std::string show(uint32_t id) {
        const causal_event_t* ev = causal_get(id);
        char text[256] = "none";
        if (ev != nullptr)
            snprintf(text, sizeof text, "lamport %llu tick %u node %u %s/%s: %s <- %u +%u",
                     ev->time.lamport, ev->time.wall_ticks, ev->node_hash,
                     causal_type_name(ev->type), ev->subsystem, ev->desc, ev->parents[0],
                     ev->child_count);
        return text;
    }
    /// The identifiers of at most `max` results of a query.
    template <auto query, typename... arg_t>
    static ids_t found(int max, arg_t... args) {
        std::vector<causal_event_t*> out(static_cast<size_t>(max));
        ids_t ids;
        for (int i = 0, n = query(args..., out.data(), max); i < n; i++)
            ids.push_back(out.at(static_cast<size_t>(i))->id);
        return ids;
    }
    static constexpr auto recent = found<causal_query_recent, causal_type_t>;
    static constexpr auto range = found<causal_query_range, uint32_t, uint32_t>;
    static constexpr auto children = found<causal_query_children, uint32_t>;
    static constexpr auto ancestors = found<causal_query_ancestors, uint32_t>;
};

TEST_F(Causal, InitForgetsEverythingAndRecordsTheBoot) {
    run_task();
    emit();
    causal_set_node_hash(5);
    causal_init();
    EXPECT_EQ(screen, "[boot] Causal event graph initialized (16384 slots)\n");
    EXPECT_EQ(show(1), "lamport 1 tick 0 node 0 sched/boot: kernel boot started <- 0 +0");
    EXPECT_EQ(show(2), "none");
    EXPECT_EQ(causal_get_current(), 1u);
    EXPECT_EQ(record_event(CAUSAL_MEM, "mem", "page %d", 3), 2u);
    EXPECT_EQ(show(2), "lamport 2 tick 0 node 0 mem/mem: page 3 <- 1 +0");
}

TEST_F(Causal, EventsWithoutNamedParentsFollowTheTask) {
    EXPECT_EQ(parents(emit()), ids_t{});
    run_task();
    const uint32_t first = emit();
    const uint32_t second = emit();
    EXPECT_EQ(parents(second), ids_t{first});
    EXPECT_EQ(causal_get(first)->child_count, 1u);
    EXPECT_TRUE(running().recorded);
    {
        irq_context_scope handler;
        EXPECT_EQ(parents(emit()), ids_t{});
    }
    causal_push_context(first);
    EXPECT_EQ(parents(emit()), ids_t{first});
    causal_pop_context();
    EXPECT_EQ(causal_get_current(), second);
}

TEST_F(Causal, TextsAreCutAndTheSlotIsClearWhereverTheTextStands) {
    const std::string full(500, '\xff');
    for (uint32_t i = 0; i < CAUSAL_RING_SLOTS; i++)
        causal_emit_payload(CAUSAL_IO, &full[0], &full[0], &i, 1, full.data(), 500);
    void* pages = mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char* page_end = static_cast<char*>(pages) + 4096;
    ASSERT_EQ(mprotect(page_end, 4096, PROT_NONE), 0);
    std::mt19937 random(20);
    for (uint32_t len = 0; len <= 90; len++) {
        for (uint32_t gap = 0; gap <= 5; gap++) {
            char* text = page_end - gap - len - 1;
            for (uint32_t i = 0; i < len; i++)
                text[i] = static_cast<char>(1 + random() % 255);
            text[len] = '\0';
            memset(text + len + 1, 'g', gap);
            const causal_event_t* ev = causal_get(causal_emit(CAUSAL_IO, text, text, nullptr, 0));
            causal_event_t wanted = {};
            strncpy(wanted.subsystem, text, 15);
            strncpy(wanted.desc, text, 79);
            // The seal, times and schema apart, the slot is what was given and zero.
            const size_t from = offsetof(causal_event_t, subsystem);
            const size_t texts = offsetof(causal_event_t, schema_id) - from;
            ASSERT_EQ(memcmp(ev->subsystem, wanted.subsystem, texts), 0) << len << " " << gap;
            ASSERT_EQ(memcmp(ev->parents, wanted.parents, 20), 0) << len << " " << gap;
        }
    }
    munmap(pages, 8192);
    EXPECT_STREQ(causal_get(causal_emit(CAUSAL_FS, nullptr, nullptr, nullptr, 0))->desc, "");
    EXPECT_STREQ(causal_get(causal_event_fmt(5, nullptr, nullptr))->desc, "");
    const std::string text(70, 'x');
    const uint32_t formatted = causal_event_fmt(6, "t", "%s", text.c_str());
    EXPECT_EQ(causal_get(formatted)->desc, text.substr(0, 63));
}

TEST_F(Causal, PayloadsAreCutAndMayNameTheirSchema) {
    using bytes_t = std::vector<uint8_t>;
    const auto payload_event = [](const bytes_t& payload) {
        const auto len = static_cast<uint32_t>(payload.size());
        return causal_get(
            causal_emit_payload(CAUSAL_SYSCALL, "s", "d", nullptr, 0, payload.data(), len));
    };
    EXPECT_EQ(payload_event({8, 0, 1, 0})->schema_id, 8u);
    for (const bytes_t& bad : {bytes_t{8, 0, 1}, bytes_t{8, 0, 0, 0}, bytes_t{8, 0, 2, 0},
                               bytes_t{12, 0, 1, 0}, bytes_t{8, 1, 1, 0}, bytes_t{}})
        EXPECT_EQ(payload_event(bad)->schema_id, 1u);
    bytes_t big(500, 3);
    big[1] = 0, big[2] = 1;
    const causal_event_t* ev = payload_event(big);
    EXPECT_EQ(ev->payload_len, 420u);
    EXPECT_EQ(ev->schema_id, 3u);
    EXPECT_TRUE(std::equal(ev->payload, ev->payload + 420, big.begin()));
}

TEST_F(Causal, TheRingKeepsTheNewest16384) {
    EXPECT_EQ(causal_get_ring(causal_get_next_id()), nullptr);
    while (causal_ring_used() < CAUSAL_RING_SLOTS)
        emit();
    EXPECT_EQ(parents(emit({1, 0, 2, 999999, 3, 4})), (ids_t{1, 0, 2, 999999}));
    EXPECT_EQ(causal_get_ring(1), nullptr);
    EXPECT_EQ(causal_get(1), nullptr);
    EXPECT_EQ(causal_get(16385)->child_count, 0u);
    EXPECT_EQ(causal_get(2)->child_count, 1u);
    EXPECT_EQ(causal_oldest_event_id(), 2u);
    EXPECT_EQ(causal_total_events(), 16385u);
}

TEST_F(Causal, RecordingEndsWithTheLastIdentifier) {
    causal_set_next_id(0xFFFFFFFE);
    causal_set_next_id(10);
    EXPECT_EQ(causal_get_ring(1), nullptr);
    emit();
    EXPECT_EQ(emit(), 0xFFFFFFFFu);
    EXPECT_EQ(emit(), 0u);
    EXPECT_EQ(causal_total_events(), 0xFFFFFFFFu);
    EXPECT_EQ(causal_oldest_event_id(), 0xFFFFFFFDu);
    EXPECT_EQ(recent(4, CAUSAL_USER), (ids_t{0xFFFFFFFF, 0xFFFFFFFE}));
    EXPECT_EQ(causal_count_orphans(), 2u);
}

TEST_F(Causal, NumberingMovesBehindAnArchiveWithAllThatNamesEvents) {
    static uint32_t kept;
    const auto shift = [](uint32_t delta) { kept += delta; };
    kept = 2;
    causal_on_renumber(shift);
    causal_on_renumber(shift);
    run_task();
    emit();
    emit({2, 0, 1});
    causal_push_context(3);
    EXPECT_FALSE(causal_renumber(0xFFFFFFFE));
    EXPECT_EQ(causal_get_next_id(), 4u);
    constexpr uint32_t BASE = 2 * CAUSAL_RING_SLOTS - 2;
    EXPECT_TRUE(causal_renumber(BASE));
    EXPECT_EQ(kept, BASE + 2);
    EXPECT_EQ(causal_get_ring(3), nullptr);
    EXPECT_EQ(parents(BASE + 3), (ids_t{BASE + 2, 0, BASE + 1}));
    EXPECT_EQ(show(BASE + 1), "lamport 1 tick 0 node 0 sched/boot: kernel boot started <- 0 +1");
    EXPECT_EQ(causal_oldest_event_id(), BASE + 1);
    EXPECT_EQ(causal_numbering_base(), BASE);
    EXPECT_EQ(emit(), BASE + 4);
}

TEST_F(Causal, TheSpillHookIsCalledOnceAtItsMark) {
    static int told;
    told = 0;
    causal_set_spill_hook([] { ++told; });
    causal_set_spill_mark(4);
    for (const int wanted : {0, 0, 1, 1}) {
        emit();
        EXPECT_EQ(told, wanted);
    }
    causal_set_spill_mark(2);
    emit();
    EXPECT_EQ(told, 2);
}

TEST_F(Causal, OnlyProcessorZeroRecordsAndWithInterruptsMasked) {
    static bool masked;
    machine().interrupts_on = true;
    cpu_id_query = [] { return 1u; };
    EXPECT_EQ(emit(), 0u);
    EXPECT_EQ(causal_get_lamport(), 1u);
    cpu_id_query = [] {
        masked = !machine().interrupts_on;
        return 0u;
    };
    EXPECT_EQ(emit(), 2u);
    EXPECT_TRUE(masked && machine().interrupts_on);
}

TEST_F(Causal, AnImportedEventLiesAfterBothClocks) {
    causal_set_node_hash(2);
    causal_set_lamport(50);
    causal_set_lamport(40);
    EXPECT_EQ(causal_now().lamport, 50u);
    causal_tick_lamport(1ull << 33);
    const uint32_t parent = 77;
    causal_emit_remote(CAUSAL_MESH, "mesh", "hello", &parent, 1, nullptr, 0, 9);
    EXPECT_EQ(show(2), "lamport 8589934594 tick 0 node 9 mesh/mesh: hello <- 77 +0");
    system_ticks = 6;
    emit();
    EXPECT_EQ(show(3), "lamport 8589934595 tick 6 node 2 user/test: thing <- 0 +0");
}

std::map<uint32_t, causal_event_t> archive;
int fetches;

class CausalArchive : public Causal {
protected:
    void SetUp() override {
        Causal::SetUp();
        archive.clear();
        fetches = 0;
        causal_set_next_id(100000);
        emit();
        causal_set_archive_hooks(&HOOKS);
    }
    static void store(uint32_t id, uint32_t parent) {
        archive[id].num_parents = 1;
        archive[id].parents[0] = parent;
    }

private:
    static bool fetch(uint32_t id, causal_event_t* out) {
        fetches++;
        if (archive.contains(id))
            *out = archive[id];
        return archive.contains(id);
    }
    static int archived_children(uint32_t id, uint32_t* ids, int max) {
        int count = 0;
        for (const auto& [child, ev] : archive)
            if (count < max && ev.num_parents > 0 && ev.parents[0] == id)
                ids[count++] = child;
        return count;
    }
    static constexpr causal_archive_hooks_t HOOKS = {fetch, archived_children};
};

TEST_F(CausalArchive, EventsComeBackTidyAndAreFetchedOnce) {
    causal_event_t& ev = archive[7];
    memset(&ev, 0x41, sizeof ev);
    ev.type = CAUSAL_FS;
    ev.payload_len = 9;
    ev.schema_version = 0;
    ev.num_parents = 1;
    memcpy(ev.desc, "create x", 9);
    const causal_event_t* got = causal_get(7);
    EXPECT_EQ(strlen(got->subsystem), 15u);
    EXPECT_EQ(got->schema_id, 7u);
    EXPECT_TRUE(got->payload_hash_valid);
    EXPECT_EQ(got->time.tsc_lo + got->payload[0] + got->payload[419] + got->parents[1], 0u);
    causal_event_t copy;
    EXPECT_TRUE(causal_copy(7, &copy));
    EXPECT_EQ(causal_get(0), nullptr);
    EXPECT_EQ(fetches, 1);
    EXPECT_FALSE(causal_copy(8, &copy));
    for (uint32_t id = 1000; id < 1000 + CAUSAL_HYDRATED_SLOTS; id++) {
        store(id, 1);
        causal_get(id);
    }
    fetches = 0;
    EXPECT_NE(causal_get(7), nullptr);
    EXPECT_EQ(fetches, 1);
}

TEST_F(CausalArchive, ChildrenComeFromTheRingThenTheArchiveEachOnce) {
    const uint32_t twice = emit({5, 5});
    const uint32_t once = emit({9, 5});
    store(20, 5);
    store(21, 5);
    store(once, 5);
    archive[22] = {};
    EXPECT_EQ(children(40, 5), (ids_t{twice, once, 20, 21}));
    EXPECT_EQ(children(0, 5), ids_t{});
    for (uint32_t id = 200; id < 250; id++)
        store(id, 6);
    EXPECT_EQ(children(100, 6).size(), 32u);
}

TEST_F(Causal, ChildrenAreThoseThatNameTheEventWhateverMovesTheRing) {
    std::mt19937 random(4);
    const auto emit_and_compare = [&random](uint32_t count) {
        for (uint32_t i = 0; i < count; i++) {
            ids_t causes(random() % 5);
            for (uint32_t& id : causes)
                id = causal_total_events() - std::min(causal_total_events(), random() % 5 * i / 4);
            emit(causes);
        }
        std::map<uint32_t, std::set<uint32_t>> wanted;
        for (uint32_t id = causal_oldest_event_id(); id <= causal_total_events(); id++)
            for (const uint32_t cause : causal_get_ring(id) ? parents(id) : ids_t{})
                wanted[cause].insert(id);
        for (uint32_t i = 1; i < CAUSAL_RING_SLOTS + 5; i += 40) {
            const uint32_t id = causal_total_events() - std::min(causal_total_events(), i);
            ASSERT_EQ(children(20000, id), ids_t(wanted[id].begin(), wanted[id].end())) << id;
        }
    };
    emit_and_compare(500);
    ASSERT_TRUE(causal_renumber(3 * CAUSAL_RING_SLOTS - 7));
    emit_and_compare(0);
    emit_and_compare(20000);
    causal_set_next_id(causal_get_next_id() + 5000);
    emit_and_compare(3000);
}

TEST_F(Causal, QueriesByTypeAndTick) {
    for (uint32_t tick = 1; tick <= 5; tick++) {
        system_ticks = tick;
        emit({}, "io", CAUSAL_IO);
        emit();
    }
    EXPECT_EQ(recent(3, CAUSAL_IO), (ids_t{10, 8, 6}));
    EXPECT_EQ(range(8, 2, 3), (ids_t{4, 5, 6, 7}));
}

TEST_F(Causal, AncestorsBreadthFirstEachOnceAtMost32Visited) {
    const uint32_t root = emit();
    const uint32_t left = emit({root});
    const uint32_t right = emit({root, 9999});
    const uint32_t tip = emit({right, left});
    EXPECT_EQ(ancestors(64, tip), (ids_t{right, left, root}));
    EXPECT_EQ(ancestors(0, tip), ids_t{});
    run_task();
    while (causal_total_events() < 60)
        emit();
    EXPECT_EQ(ancestors(64, 60).size(), 32u);
}

TEST_F(Causal, ActivityCountsWholePidsInRecentEvents) {
    system_ticks = 1000;
    emit({}, "old pid=1");
    system_ticks = 1200;
    for (const char* desc : {"pid=1 x pid=1", "pid=12", "xpid=1,pid=-7",
                             "pid=01 pid=-0 pid= pid=", "pid=99999999999 pid=2147483648", "pid=0"})
        emit({}, desc);
    EXPECT_EQ(causal_task_activity(1), 3u);
    system_ticks = 1201;
    EXPECT_EQ(causal_task_activity(1), 2u);
    const int32_t pids[] = {0, 12, -7, 2};
    ids_t counts(4);
    causal_task_activities(pids, counts.data(), 4);
    EXPECT_EQ(counts, (ids_t{1, 1, 1, 0}));
    for (int i = 0; i < 70; i++)
        emit({}, "pid=2");
    EXPECT_EQ(causal_task_activity(2), 64u);
}

}  // namespace
