
#include <cstdio>
#include <cstring>
#include <random>

#include "kernel/core/string.h"
#include "tests/machine/kernel.h"

namespace {

constexpr uint32_t WHOLE = 0x2FFFFF0;
std::string hex(const volatile void* p) {
    char text[16];
    snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)));
    return text;
}

uint32_t address(const void* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); }
void* pointer(uint32_t addr) { return reinterpret_cast<void*>(uintptr_t{addr}); }
uint8_t* bytes(size_t size) { return static_cast<uint8_t*>(kmalloc(size)); }

/// The texts since the last call.
std::string said() { return std::exchange(machine_texts(), ""); }

class Heap : public testing::Test {
protected:
    void SetUp() override {
        boot_kernel();
        heap_get_range(&start, &end);
    }
    uint32_t start = 0, end = 0;
};

/// The heap as its rules say it, on a plain list.
struct model_t {
    struct block_t {
        uint32_t at, size;
        bool free;
    };
    std::vector<block_t> list = {{0, WHOLE, true}};

    /// Offset of the block taken for `size` bytes, or -1.
    int64_t take(uint32_t size) {
        const uint32_t need = (size + 15) & ~7u;
        for (size_t i = 0; i < list.size(); ++i) {
            if (!list[i].free || list[i].size < need)
                continue;
            list[i].free = false;
            const uint32_t rest = list[i].size - need;
            if (rest > 32) {
                list[i].size = need;
                const block_t tail = {list[i].at + 16 + need, rest - 16, true};
                list.insert(list.begin() + static_cast<ptrdiff_t>(i) + 1, tail);
            }
            return list[i].at;
        }
        return -1;
    }
    void give(uint32_t at) {
        std::vector<block_t> merged;
        for (block_t& block : list) {
            block.free |= block.at == at;
            if (!merged.empty() && merged.back().free && block.free)
                merged.back().size += block.size + 16;
            else
                merged.push_back(block);
        }
        list = merged;
    }
};

TEST_F(Heap, PlacesEveryBlockWhereFirstFitSays) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    struct live_t {
        uint8_t* ptr;
        uint32_t at, size;
    };
    std::vector<live_t> live;
    model_t model;
    for (int step = 0; step < 12000; ++step) {
        if (live.empty() || random() % 100 < (step / 1500 % 2 == 0 ? 65u : 30u)) {
            const uint32_t limit = random() % 50 == 0 ? 4u << 20 : 1u << (random() % 12);
            const uint32_t size = random() % limit;
            const int64_t at = model.take(size);
            uint8_t* ptr = bytes(size);
            ASSERT_EQ(ptr == nullptr ? -1 : int64_t{address(ptr) - 20 - start}, at) << step;
            if (ptr == nullptr)
                continue;
            memset(ptr, step, size);
            live.push_back({ptr, static_cast<uint32_t>(at), size});
        } else {
            std::swap(live[random() % live.size()], live.back());
            const live_t gone = live.back();
            live.pop_back();
            ASSERT_TRUE(gone.size == 0 || memcmp(gone.ptr, gone.ptr + 1, gone.size - 1) == 0);
            kfree(gone.ptr);
            model.give(gone.at);
        }
    }
    for (const live_t& block : live)
        kfree(block.ptr);
    EXPECT_EQ(heap_used(), 16u);
    EXPECT_EQ(said().find("[heap]"), std::string::npos);
}

TEST_F(Heap, Exhaustion) {
    EXPECT_EQ(kmalloc(WHOLE - 7), nullptr);
    EXPECT_EQ(kmalloc(SIZE_MAX), nullptr);
    EXPECT_EQ(said(),
              "HEAP: out of memory (wanted 50331625 bytes)\n"
              "HEAP: out of memory (wanted 4294967295 bytes)\n");
    void* all = kmalloc(WHOLE - 8);
    EXPECT_EQ(heap_used(), HEAP_BYTES);
    EXPECT_EQ(kmalloc(0), nullptr);
    kfree(all);
    kfree(nullptr);
}

TEST_F(Heap, AlignedBlocksStandAtTheirMultipleAndFreeTheWholeBlock) {
    for (const auto& [asked, given] : {std::pair{0u, 4u}, {3, 4}, {64, 64}, {1 << 20, 1 << 20}}) {
        void* p = kmalloc_aligned(100, asked);
        EXPECT_EQ(address(p) % given, 0u) << asked;
        memset(p, 0xEE, 100);
        kfree(p);
    }
    EXPECT_EQ(heap_used(), 16u);
    EXPECT_EQ(kmalloc_aligned(1, 24), nullptr);
    EXPECT_EQ(kmalloc_aligned(0xFFFFFFF0, 64), nullptr);
    EXPECT_EQ(said(),
              "[heap] kmalloc_aligned invalid alignment 24\n"
              "[heap] kmalloc_aligned size overflow (4294967280, align 64)\n");
    EXPECT_TRUE(heap_aligned_selftest());
    EXPECT_EQ(said().rfind("heap aligned self-test: PASS (ptr=0x", 0), 0u);
}

TEST_F(Heap, RefusesPointersThatAreNotLiveBlocks) {
    uint8_t* a = bytes(64);
    uint8_t* b = bytes(64);
    auto* aligned = static_cast<uint8_t*>(kmalloc_aligned(100, 64));
    memset(b, 0, 64);
    const uint32_t before = heap_used();
    int local = 0;
    for (const uint32_t addr : {1u, start, start + 12, end, 0xFFFFFFFFu, address(&local),
                                address(b) + 8, address(b) + 9, address(aligned) + 8}) {
        kfree(pointer(addr));
        const std::string text = hex(pointer(addr));
        EXPECT_EQ(said(), "[heap] WARNING: kfree(" + text + ") is not a live allocation base in " +
                              "[0x00501000–0x03501000]\n");
        EXPECT_EQ(newest(), "invalid kfree ptr=" + text);
    }
    kfree(a);
    kfree(a);
    EXPECT_EQ(said(), "[heap] WARNING: double-free detected at " + hex(a) + "\n");
    EXPECT_EQ(heap_used(), before - 72);
    for (void* p : {static_cast<void*>(b), static_cast<void*>(aligned)}) {
        kfree(p);
        kfree(p);
        EXPECT_NE(said().find("not a live allocation base"), std::string::npos) << "merged";
    }
    EXPECT_EQ(heap_used(), 16u);
}

TEST_F(Heap, ReportsOverwrittenGuardsAndFreesTheBlockAnyway) {
    running().pid = 7;
    uint8_t* p = bytes(10);
    p[10] = 0;
    p[-1] = 0;
    kfree(p);
    running().pid = 0;
    const std::string text = said();
    const std::string pre = "[heap] CORRUPTION: pre-guard overwritten at " + hex(p) +
                            " (block 24 bytes)\n[heap] CORRUPTION: post-guard overwritten at " +
                            hex(p) + " (user 10 bytes, caller=0x";
    EXPECT_EQ(text.substr(0, pre.size()), pre);
    EXPECT_EQ(text.substr(text.size() - 10), ", task=7)\n");
    EXPECT_EQ(newest(1), "heap corruption pre-guard at " + hex(p));
    EXPECT_EQ(newest(), "heap corruption post-guard at " + hex(p) + " size=10");
    EXPECT_EQ(heap_used(), 16u);
}

TEST_F(Heap, SurvivesEveryOverwrittenHeaderWord) {
    for (const uint32_t junk : {0u, 0x10u, 0x41414141u, 0xFFFFFFFFu, start, start + 4096})
        for (int word = 0; word < 4; ++word)
            for (int victim = 0; victim < 3; ++victim) {
                SCOPED_TRACE(hex(pointer(junk)) + " in word " + std::to_string(word) +
                             " of block " + std::to_string(victim));
                uint8_t* block[4];
                for (uint8_t*& p : block)
                    p = bytes(40);
                kfree(block[1]);
                memcpy(block[victim] - 20 + 4 * word, &junk, 4);
                heap_used();
                heap_diagnostics();
                void* fits = kmalloc(40);
                EXPECT_EQ(fits, block[1]);
                kfree(fits);
                for (const int i : {2, 0, 3})
                    kfree(block[i]);
                const std::string text = said();
                if (victim != 1 || word != 1) {
                    EXPECT_NE(text.find("CORRUPTION"), std::string::npos) << text;
                }
                EXPECT_EQ(heap_used(), 16u);
                kfree(bytes(WHOLE - 8));
            }
}

TEST_F(Heap, StatisticsStopAtALinkOutOfTheHeapAndSaySoOnce) {
    uint8_t* p = bytes(40);
    memset(p - 8, 0x66, 4);
    heap_used();
    heap_used();
    EXPECT_EQ(said(), "[heap] corrupted block at 0x66666666 (outside 0x501000-0x3501000)\n");
}

TEST_F(Heap, DiagnosticsCountBlocks) {
    uint8_t* block[5];
    for (uint8_t*& p : block)
        p = bytes(10232);  // 10 KB of data each
    kfree(block[1]);
    kfree(block[3]);
    heap_diagnostics();
    EXPECT_EQ(said(),
              "Heap Diagnostics:\n  Total:    49152 KB (6 blocks)\n"
              "  Used:     30 KB (3 blocks)\n  Free:     49121 KB (3 blocks)\n"
              "  Largest:  49101 KB\n  Overhead: 0 KB\n  Fragment: 66%\n"
              "  Allocs:   5 total, 2 frees, 3 live\n");
}

TEST_F(Heap, RingKeepsTheLastAllocationsAndTheirFate) {
    uint32_t size = 0;
    const alloc_record_t* ring = memleak_get_ring(&size);
    ASSERT_EQ(size, 128u);
    running().pid = 3;
    std::vector<void*> live;
    for (uint32_t i = 0; i < 130; ++i)
        live.push_back(kmalloc(i));
    void* aligned = kmalloc_aligned(50, 256);
    running().pid = 0;
    EXPECT_EQ(std::pair(ring[2].addr, ring[2].size), std::pair(address(aligned), 50u));
    EXPECT_EQ(ring[1].task_id, 3u);
    for (void* gone : {live[0], live[60], aligned})  // the first one's record was overwritten
        kfree(gone);
    for (uint32_t i = 0; i < size; ++i)
        EXPECT_EQ(ring[i].freed, i == 2 || i == 60 ? 1 : 0) << i;
    EXPECT_EQ(kmalloc(60), live[60]);
    EXPECT_EQ(ring[3].addr, ring[60].addr) << "the same address again, in a record of its own";
}

TEST_F(Heap, LargeBlocksAreRecordedAndOwnersFree) {
    kfree(bytes(4095));
    EXPECT_EQ(causal_total_events(), 1u);
    void* p = kmalloc(4096);
    EXPECT_TRUE(newest().starts_with("kmalloc 4096 bytes caller=0x"));
    kfree(p);
    EXPECT_EQ(newest(), "kfree 4096 bytes at " + hex(p));
    {
        auto owner = heap_ptr<uint32_t>::make(100);
        heap_ptr<uint32_t> taken = std::move(owner);
        taken[99] = 1;
        taken = heap_ptr<uint32_t>::make();
        EXPECT_FALSE(heap_ptr<uint32_t>::make(SIZE_MAX / 2));
        kfree(heap_ptr<uint32_t>::make().release());
    }
    EXPECT_EQ(heap_used(), 16u);
}

}  // namespace
