
#include <algorithm>

#include "arch/x86/cpu.h"
#include "kernel/core/memory.h"
#include "kernel/core/running.h"
#include "tests/machine/memory.h"

namespace {

constexpr uint32_t USER = 0x40000000;
constexpr uint32_t ACCESSED = 0x20;

class Vmm : public testing::Test {
protected:
    void SetUp() override {
        machine_boot_memory();
        running().page_dir = nullptr;
    }
    void TearDown() override { running().page_dir = nullptr; }

    static uint32_t address(const uint32_t* p) {
        return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p));
    }
    static uint32_t entry(const uint32_t* dir, uint32_t virt) {
        return reinterpret_cast<uint32_t*>(dir[virt >> 22] & ~0xFFFu)[virt >> 12 & 1023];
    }
};

TEST_F(Vmm, KernelMapsItsFirst128MegabytesOneToOne) {
    const uint32_t* dir = vmm_get_kernel_dir();
    EXPECT_EQ(machine().cr3, address(dir));
    EXPECT_EQ(machine().cr0, 1u << 31);
    for (uint32_t page = 0; page < IDENTITY_MAP_BYTES; page += PAGE_SIZE)
        ASSERT_EQ(entry(dir, page), page | 3);
    EXPECT_TRUE(std::all_of(dir + 32, dir + 1024, [](uint32_t e) { return e == 0; }));
    EXPECT_TRUE(vmm_is_mapped(IDENTITY_MAP_BYTES - 1));
    EXPECT_FALSE(vmm_is_mapped(IDENTITY_MAP_BYTES));
    EXPECT_FALSE(vmm_is_mapped(0xFFFFFFFF));

    vmm_protect_readonly(0x100001, 0x103FFF);
    for (const auto& [page, flags] :
         {std::pair{0x100000u, 3u}, {0x101000, 1}, {0x102000, 1}, {0x103000, 3}})
        EXPECT_EQ(entry(dir, page), page | flags);
    EXPECT_EQ(machine().cr0, 1u << 31 | 1u << 16);
}

TEST_F(Vmm, UserDirectoriesShareTheKernelAndGiveBackOnlyTheirOwn) {
    const uint32_t used = pmm_used_frames();
    uint32_t* dir = vmm_create_user_dir();
    const phys_addr_t page = pmm_alloc_frame();
    vmm_map_page(dir, USER, page, PAGE_USER | PAGE_WRITABLE);
    vmm_map_page(dir, USER + PAGE_SIZE, page, PAGE_USER);
    EXPECT_EQ(pmm_used_frames(), used + 3);
    EXPECT_EQ(dir[USER >> 22] & 0xFFF, 7u);
    EXPECT_EQ(entry(dir, USER), page | 7);
    EXPECT_EQ(entry(dir, USER + PAGE_SIZE), page | 5);
    EXPECT_EQ(machine().invalidated, (std::vector<uintptr_t>{USER, USER + PAGE_SIZE}));

    vmm_map_page(vmm_get_kernel_dir(), 0xF0000000, 0xFEE00000, PAGE_WRITABLE);
    EXPECT_EQ(dir[0xF0000000 >> 22], vmm_get_kernel_dir()[0xF0000000 >> 22]);
    EXPECT_EQ(entry(dir, 0xF0000000), 0xFEE00003);
    EXPECT_EQ(machine().invalidated.size(), 2u);

    dir[0xF0000000 >> 22] |= ACCESSED;  // what the processor does to the copy it walks
    vmm_switch_dir(dir);
    EXPECT_EQ(machine().cr3, address(dir));
    vmm_switch_dir(vmm_get_kernel_dir());
    vmm_destroy_user_dir(dir);
    vmm_destroy_user_dir(nullptr);
    vmm_destroy_user_dir(vmm_get_kernel_dir());
    EXPECT_EQ(pmm_used_frames(), used + 2) << "the page and the kernel's new table are left";
    dir[0xE0000000 >> 22] = 0;
    vmm_map_page(vmm_get_kernel_dir(), 0xE0000000, 0xFEE00000, PAGE_WRITABLE);
    EXPECT_EQ(dir[0xE0000000 >> 22], 0u) << "a destroyed directory hears of nothing more";
}

TEST_F(Vmm, RunsOutOfDirectoriesAndFrames) {
    uint32_t* dirs[65];
    for (uint32_t*& dir : dirs)
        dir = vmm_create_user_dir();
    vmm_map_page(vmm_get_kernel_dir(), 0xF0000000, 0, 0);
    EXPECT_NE(dirs[63][0xF0000000 >> 22], 0u);
    EXPECT_EQ(dirs[64][0xF0000000 >> 22], 0u) << "the 65th hears of no change";
    while (pmm_available_frames() > 0)
        EXPECT_NE(pmm_alloc_frame(), 0u);
    vmm_map_page(dirs[0], USER, 0x700000, PAGE_USER);
    EXPECT_EQ(dirs[0][USER >> 22], 0u);
    EXPECT_EQ(vmm_create_user_dir(), nullptr);
}

TEST_F(Vmm, UserRangesMustBeMappedForRingThreeAsAWhole) {
    EXPECT_FALSE(vmm_user_range_ok(USER, 0, false)) << "no task";
    uint32_t* dir = vmm_create_user_dir();
    running().page_dir = dir;
    vmm_map_page(dir, USER, 0x700000, PAGE_USER | PAGE_WRITABLE);
    vmm_map_page(dir, USER + PAGE_SIZE, 0x701000, PAGE_USER);
    vmm_map_page(dir, 0xFFFFF000, 0x702000, PAGE_USER);
    const struct {
        uint32_t addr, len;
        bool read, write;
    } cases[] = {
        {0x12345, 0, true, true},        {USER + 4095, 1, true, true},
        {USER + 4095, 2, true, false},   {USER, 8192, true, false},
        {USER, 8193, false, false},      {USER - 1, 2, false, false},
        {0x100000, 4, false, false},                                        // the kernel
        {0xFFFFF000, 4096, true, false}, {0xFFFFF000, 4097, false, false},  // wraps
    };
    for (const auto& c : cases) {
        EXPECT_EQ(vmm_user_range_ok(c.addr, c.len, false), c.read) << c.addr << "+" << c.len;
        EXPECT_EQ(vmm_user_range_ok(c.addr, c.len, true), c.write) << c.addr << "+" << c.len;
    }
}

}  // namespace
