
#include <set>

#include "arch/x86/cpu.h"
#include "arch/x86/image.h"
#include "kernel/core/memory.h"
#include "kernel/core/memory/pmm_internal.h"
#include "tests/machine/memory.h"

namespace {

constexpr uint32_t MB = 1u << 20;
constexpr uint32_t RAM_KB = 127 * 1024;  // mem_upper of a machine of 128 MB
constexpr uint64_t ENDLESS = ~uint64_t{0};

class Pmm : public testing::Test {
protected:
    void SetUp() override {
        machine_install_ram(128);
        machine_capture_texts();
    }

    /// Boots with `info` up to the heap; what the kernel printed when it stopped, else "up".
    static std::string boot(multiboot_info_t* info) {
        try {
            machine_texts().clear();
            pmm_init(info);
            heap_init();
        } catch (const machine_halted&) {
            return machine_texts();
        }
        return "up";
    }
};

TEST_F(Pmm, HandsOutEveryFreeFrameOnceAndLowestReturnedFirst) {
    pmm_init(boot_info(RAM_KB).map(0, 0x9FC00).map(MB, 127 * MB).get());
    const uint32_t image_frames = pmm_bitmap_end() / PAGE_SIZE;
    EXPECT_EQ(pmm_bitmap_end(), image_end() + PAGE_SIZE);
    EXPECT_EQ(pmm_total_frames(), 32768u);
    EXPECT_EQ(pmm_used_frames(), image_frames);

    std::set<phys_addr_t> taken;
    for (uint32_t n = pmm_available_frames(); n > 0; --n)
        taken.insert(pmm_alloc_frame());
    EXPECT_EQ(taken.size(), 32768 - image_frames);
    EXPECT_EQ(*taken.begin(), pmm_bitmap_end());
    EXPECT_EQ(machine_texts(), "");
    EXPECT_EQ(pmm_alloc_frame(), 0u);
    EXPECT_EQ(machine_texts(), "PMM: out of memory!\n");

    for (const phys_addr_t frame : {100 * MB, 70 * MB, 70 * MB, 0u, 128 * MB, 0xFFFFF000u})
        pmm_free_frame(frame + 5);
    EXPECT_EQ(pmm_used_frames(), 32766u) << "a second free and frames that do not exist count not";
    EXPECT_EQ(pmm_alloc_frame(), 70 * MB);
    pmm_free_frame(60 * MB);
    EXPECT_EQ(pmm_alloc_frame(), 60 * MB);
    EXPECT_EQ(pmm_alloc_frame(), 100 * MB) << "the search goes on behind the last frame";
    pmm_free_frame(80 * MB);
    pmm_reserve_range(79 * MB, 81 * MB);
    EXPECT_EQ(pmm_alloc_frame(), 0u);
}

TEST_F(Pmm, MemoryMapsOverlapReachBeyondAndBreakOff) {
    const uint32_t usable = 32768 - 256;
    const auto free_before_image = [](boot_info& info) {
        pmm_init(info.get());
        return pmm_total_frames() - pmm_used_frames() + pmm_bitmap_end() / PAGE_SIZE - 256;
    };
    EXPECT_EQ(free_before_image(
                  boot_info(RAM_KB).map(64 * MB, 64 * MB).map(MB, 80 * MB).map(MB, 80 * MB)),
              usable)
        << "overlapping and out of order";
    EXPECT_EQ(free_before_image(boot_info(RAM_KB).map(0, ENDLESS).map(ENDLESS - 5, ENDLESS)),
              usable)
        << "endless, and above 4 GiB";
    EXPECT_EQ(free_before_image(boot_info(RAM_KB).map(0xFFE, 96 * MB).map(100 * MB + 1, 0x1FFE)),
              24576 - 256u)
        << "a frame counts only when it is usable as a whole";
    EXPECT_EQ(free_before_image(boot_info(RAM_KB).map(MB, 90 * MB).map(0, ENDLESS, 2)), 90 * 256u)
        << "only available entries count";
    for (const uint32_t size : {21u, 0x7FFFFFFFu, 0xFFFFFFFFu})
        EXPECT_EQ(free_before_image(boot_info(RAM_KB).map(MB, 95 * MB, 1, size).map(0, ENDLESS)),
                  95 * 256u)
            << "entry of " << size << " bytes";
}

TEST_F(Pmm, FourGigabytesCountButOnlyWhatTheKernelReachesIsHandedOut) {
    pmm_init(boot_info(0xFFFFFFFF).map(0, ENDLESS).get());
    EXPECT_EQ(pmm_total_frames(), 1u << 20);
    EXPECT_EQ(pmm_available_frames(), 32768 - pmm_bitmap_end() / PAGE_SIZE);
    heap_init();
    phys_addr_t last = 0;
    for (uint32_t n = pmm_available_frames(); n > 0; --n)
        last = pmm_alloc_frame();
    EXPECT_EQ(last, IDENTITY_MAP_BYTES - PAGE_SIZE);
    EXPECT_EQ(pmm_alloc_frame(), 0u);
    pmm_free_frame(200 * MB);
    EXPECT_EQ(pmm_alloc_frame(), 0u);
}

TEST_F(Pmm, StopsLoudlyWhereTheHeapWouldNotLieInUsableMemory) {
    const std::string none = "[heap] ERROR: not enough memory for the 48 MB heap (have 0 KB)\n";
    boot_info no_memory_field(0);
    no_memory_field.map(MB, 127 * MB);
    no_memory_field.info.flags = 0;
    EXPECT_EQ(boot(no_memory_field.get()), "up") << "the map alone will do";
    EXPECT_EQ(boot(boot_info(51 * 1024).get()),
              "[heap] ERROR: not enough memory for the 48 MB heap (have 48124 KB)\n");
    EXPECT_EQ(boot(boot_info(RAM_KB).map(MB, 29 * MB).map(31 * MB, 97 * MB).get()),
              "[heap] ERROR: not enough memory for the 48 MB heap (have 25596 KB)\n")
        << "a hole";
    for (const uint32_t size : {0u, 19u})
        EXPECT_EQ(boot(boot_info(RAM_KB).map(MB, 95 * MB, 1, size).get()), none) << "no entry";
    boot_info nothing(0);
    nothing.info.flags = 0;
    EXPECT_EQ(boot(nothing.get()), none);
}

}  // namespace
