#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "kernel/core/heap_ptr.h"
#include "kernel/core/memory.h"
#include "kernel/core/record.h"
#include "kernel/core/running.h"
#include "kernel/core/string.h"
#include "tests/machine/memory.h"

namespace {

constexpr uint32_t WHOLE = 0x2FFFFF0;
std::string events;

uint32_t keep_event(uint8_t, const char* subsystem, const char* fmt, va_list args) {
    char text[96];
    kvsnprintf(text, sizeof text, fmt, args);
    events += std::string(subsystem) + ": " + text + "\n";
    return 1;
}

std::string hex(const volatile void* p) {
    char text[16];
    snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)));
    return text;
}

class Heap : public testing::Test {
protected:
    void SetUp() override {
        machine_boot_memory();
        record_set_hook(keep_event);
        events.clear();
        heap_get_range(&start, &end);
    }
    void TearDown() override { record_set_hook(nullptr); }

    static uint32_t address(const void* p) {
        return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p));
    }
    static void* pointer(uint32_t addr) { return reinterpret_cast<void*>(uintptr_t{addr}); }
    static uint32_t used() {
        uint32_t total = 0, bytes = 0;
        heap_get_stats(&total, &bytes);
        EXPECT_EQ(total, HEAP_BYTES);
        return bytes;
    }
    static uint8_t* bytes(size_t size) { return static_cast<uint8_t*>(kmalloc(size)); }
    /// The texts since the last call.
    static std::string said() { return std::exchange(machine_texts(), ""); }

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
        for (block_t& block : list)
            block.free |= block.at == at;
        std::vector<block_t> merged;
        for (const block_t& block : list)
            if (!merged.empty() && merged.back().free && block.free)
                merged.back().size += block.size + 16;
            else
                merged.push_back(block);
        list = merged;
    }
    uint32_t used() const {
        uint32_t bytes = HEAP_BYTES;
        for (const block_t& block : list)
            bytes -= block.free ? block.size : 0;
        return bytes;
    }
};

TEST_F(Heap, PlacesEveryBlockWhereFirstFitSays) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    struct live_t {
        uint8_t* ptr;
        uint32_t at, size;
        uint8_t fill;
    };
    std::vector<live_t> live;
    model_t model;
    for (int step = 0; step < 12000; ++step) {
        const bool growing = step / 1500 % 2 == 0;
        if (live.empty() || random() % 100 < (growing ? 65u : 30u)) {
            const uint32_t limit = random() % 50 == 0 ? 4u << 20 : 1u << (random() % 12);
            const uint32_t size = random() % limit;
            const int64_t at = model.take(size);
            uint8_t* ptr = bytes(size);
            ASSERT_EQ(ptr == nullptr ? -1 : int64_t{address(ptr) - 20 - start}, at) << step;
            if (ptr == nullptr)
                continue;
            memset(ptr, step, size);
            live.push_back({ptr, static_cast<uint32_t>(at), size, static_cast<uint8_t>(step)});
        } else {
            std::swap(live[random() % live.size()], live.back());
            const live_t gone = live.back();
            live.pop_back();
            ASSERT_TRUE(gone.size == 0 || (gone.ptr[0] == gone.fill &&
                                           memcmp(gone.ptr, gone.ptr + 1, gone.size - 1) == 0))
                << step;
            kfree(gone.ptr);
            model.give(gone.at);
        }
        if (step % 500 == 0) {
            ASSERT_EQ(used(), model.used()) << step;
        }
    }
    for (const live_t& block : live)
        kfree(block.ptr);
    EXPECT_EQ(used(), 16u);
    EXPECT_EQ(said().find("[heap]"), std::string::npos);
}

TEST_F(Heap, SizesAlignmentAndExhaustion) {
    const uint32_t sizes[][2] = {{0, 8}, {1, 16}, {8, 16}, {9, 24}, {16, 24}, {17, 32}};
    for (const auto& [size, data] : sizes) {
        const uint32_t before = used();
        void* p = kmalloc(size);
        EXPECT_EQ(used() - before, data + 16) << size;
        EXPECT_EQ(address(p) % 4, 0u);
        kfree(p);
        EXPECT_EQ(used(), before);
    }
    for (const size_t size : {size_t{WHOLE} - 7, size_t{HEAP_BYTES}, size_t{0xFFFFFFF1}, SIZE_MAX})
        EXPECT_EQ(kmalloc(size), nullptr);
    EXPECT_EQ(said(),
              "HEAP: out of memory (wanted 50331625 bytes)\n"
              "HEAP: out of memory (wanted 50331648 bytes)\n"
              "HEAP: out of memory (wanted 4294967281 bytes)\n"
              "HEAP: out of memory (wanted 4294967295 bytes)\n");
    void* all = kmalloc(WHOLE - 8);
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(used(), HEAP_BYTES);
    EXPECT_EQ(kmalloc(0), nullptr);
    kfree(all);
    kfree(nullptr);
    EXPECT_EQ(used(), 16u);
}

TEST_F(Heap, AlignedBlocksStandAtTheirMultipleAndFreeTheWholeBlock) {
    said();
    for (const uint32_t alignment : {0u, 1u, 3u, 4u, 8u, 64u, 4096u, 1u << 20}) {
        void* p = kmalloc_aligned(100, alignment);
        EXPECT_EQ(address(p) % std::max(alignment == 3 ? 4 : alignment, 4u), 0u) << alignment;
        memset(p, 0xEE, 100);
        kfree(p);
    }
    EXPECT_EQ(used(), 16u);
    EXPECT_EQ(kmalloc_aligned(1, 24), nullptr);
    EXPECT_EQ(kmalloc_aligned(0xFFFFFFF0, 64), nullptr);
    EXPECT_EQ(kmalloc_aligned(0xFFFFFFB7, 64), nullptr);
    EXPECT_EQ(said(),
              "[heap] kmalloc_aligned invalid alignment 24\n"
              "[heap] kmalloc_aligned size overflow (4294967280, align 64)\n"
              "HEAP: out of memory (wanted 4294967295 bytes)\n");
    EXPECT_TRUE(heap_aligned_selftest());
    EXPECT_EQ(said().rfind("heap aligned self-test: PASS (ptr=0x", 0), 0u);
}

TEST_F(Heap, RefusesPointersThatAreNotLiveBlocks) {
    uint8_t* a = bytes(64);
    uint8_t* b = bytes(64);
    auto* aligned = static_cast<uint8_t*>(kmalloc_aligned(100, 64));
    memset(b, 0, 64);
    const uint32_t before = used();
    int local = 0;
    const auto range = "[" + hex(pointer(start)) + "–" + hex(pointer(end)) + "]\n";
    for (void* foreign :
         {static_cast<void*>(&local), pointer(1), pointer(start), pointer(start + 20 - 8),
          pointer(end), pointer(end + 4), pointer(0xFFFFFFFF), pointer(address(b) + 8),
          pointer(address(b) + 9), pointer(address(aligned) + 8)}) {
        events.clear();
        kfree(foreign);
        EXPECT_EQ(said(), "[heap] WARNING: kfree(" + hex(foreign) +
                              ") is not a live allocation base in " + range);
        EXPECT_EQ(events, "mem: invalid kfree ptr=" + hex(foreign) + "\n");
    }
    kfree(a);
    kfree(a);
    EXPECT_EQ(said(), "[heap] WARNING: double-free detected at " + hex(a) + "\n");
    EXPECT_EQ(used(), before - 72);
    kfree(b);
    kfree(b);
    EXPECT_NE(said().find("not a live allocation base"), std::string::npos) << "merged into a";
    kfree(aligned);
    kfree(aligned);
    EXPECT_NE(said().find("kfree(" + hex(aligned) + ")"), std::string::npos);
    EXPECT_EQ(used(), 16u);
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
    EXPECT_EQ(events, "mem: heap corruption pre-guard at " + hex(p) +
                          "\nmem: heap corruption post-guard at " + hex(p) + " size=10\n");
    EXPECT_EQ(used(), 16u);
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
                used();
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
                EXPECT_EQ(used(), 16u);
                kfree(bytes(WHOLE - 8));
            }
}

TEST_F(Heap, StatisticsStopAtALinkOutOfTheHeapAndSaySoOnce) {
    uint8_t* p = bytes(40);
    memset(p - 8, 0x66, 4);
    used();
    used();
    EXPECT_EQ(said(), "[heap] corrupted block at 0x66666666 (outside 0x501000-0x3501000)\n");
}

TEST_F(Heap, DiagnosticsCountBlocks) {
    uint8_t* block[5];
    for (uint8_t*& p : block)
        p = bytes(10232);  // 10 KB of data each
    kfree(block[1]);
    kfree(block[3]);
    said();
    heap_diagnostics();
    EXPECT_EQ(said(),
              "Heap Diagnostics:\n"
              "  Total:    49152 KB (6 blocks)\n"
              "  Used:     30 KB (3 blocks)\n"
              "  Free:     49121 KB (3 blocks)\n"
              "  Largest:  49101 KB\n"
              "  Overhead: 0 KB\n"
              "  Fragment: 66%\n"
              "  Allocs:   5 total, 2 frees, 3 live\n");
    for (const int i : {0, 2, 4})
        kfree(block[i]);
    said();
    heap_diagnostics();
    EXPECT_EQ(said(),
              "Heap Diagnostics:\n"
              "  Total:    49152 KB (1 blocks)\n"
              "  Used:     0 KB (0 blocks)\n"
              "  Free:     49151 KB (1 blocks)\n"
              "  Largest:  49151 KB\n"
              "  Overhead: 0 KB\n"
              "  Fragment: 0%\n"
              "  Allocs:   5 total, 5 frees, 0 live\n");
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
    EXPECT_EQ(ring[2].addr, address(aligned));
    EXPECT_EQ(ring[2].size, 50u);
    EXPECT_EQ(ring[1].addr, address(live[129]));
    EXPECT_EQ(ring[1].size, 129u);
    EXPECT_EQ(ring[1].task_id, 3u);
    kfree(live[0]);  // its record is gone
    kfree(live[60]);
    kfree(aligned);
    for (uint32_t i = 0; i < size; ++i)
        EXPECT_EQ(ring[i].freed, i == 2 || i == 60 ? 1 : 0) << i;
    EXPECT_EQ(kmalloc(60), live[60]);
    EXPECT_EQ(ring[3].addr, ring[60].addr) << "the same address again, in a record of its own";
}

TEST_F(Heap, LargeBlocksAndOwnersLeaveTraces) {
    kfree(bytes(4095));
    EXPECT_EQ(events, "");
    void* p = kmalloc(4096);
    kfree(p);
    EXPECT_EQ(events.rfind("alloc: kmalloc 4096 bytes caller=0x", 0), 0u);
    EXPECT_NE(events.find("\nalloc: kfree 4096 bytes at " + hex(p) + "\n"), std::string::npos);
    {
        auto owner = heap_ptr<uint32_t>::make(100);
        heap_ptr<uint32_t> taken = std::move(owner);
        EXPECT_FALSE(owner);
        taken[99] = 1;
        taken = heap_ptr<uint32_t>::make();
        EXPECT_FALSE(heap_ptr<uint32_t>::make(SIZE_MAX / 2));
        kfree(heap_ptr<uint32_t>::make().release());
    }
    EXPECT_EQ(used(), 16u);
}

}  // namespace
