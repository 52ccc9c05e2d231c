#include "kernel/drivers/pci.h"

#include <gtest/gtest.h>

#include "tests/machine/memory.h"
#include "tests/machine/pci_bus.h"

namespace {

class Pci : public testing::Test {
protected:
    pci_bus bus;
    void SetUp() override {
        machine_reset();
        machine_capture_texts();
        bus.attach();
    }
    /// A function with every register set that the scan reads.
    void add(uint8_t b, uint8_t device, uint8_t function, uint8_t header_type) {
        pci_space_t& r = bus.add(b, device, function, 0x8086, 0x7000);
        r[1] = 0x02900003;
        r[2] = 0x06010002;
        r[3] = uint32_t{header_type} << 16 | 0x4008;
        for (size_t i = 4; i < 10; ++i)
            r[i] = static_cast<uint32_t>(0xC001 + 0x10 * i);
        r[15] = 0x0102010B;
    }
};

TEST_F(Pci, TheScanFindsFunctionsOfEveryBusAndReadsTheResourcesOfOrdinaryOnes) {
    add(0, 1, 0, 0x80);
    add(0, 1, 3, 0x00);
    add(0, 2, 0, 0x00);
    add(0, 2, 1, 0x00);     // its function 0 has no others
    add(0, 3, 1, 0x00);     // there is no function 0
    add(255, 31, 0, 0x81);  // a bridge
    add(255, 31, 7, 0x00);
    pci_init();
    EXPECT_EQ(machine_texts(),
              "  PCI 00:01.0  8086:7000  class 06:01\n  PCI 00:01.3  8086:7000  class 06:01\n"
              "  PCI 00:02.0  8086:7000  class 06:01\n  PCI ff:1f.0  8086:7000  class 06:01\n"
              "  PCI ff:1f.7  8086:7000  class 06:01\n");
    ASSERT_EQ(pci_device_count_get(), 5);
    EXPECT_EQ(pci_devices[1].bar[5], 0xC001u + 0x90);
    EXPECT_EQ(pci_devices[1].irq_line, 11);
    const pci_device_t& bridge = pci_devices[3];
    EXPECT_EQ(bridge.header_type, 0x81);
    EXPECT_EQ(bridge.irq_line, 0);
    for (const uint32_t bar : bridge.bar)
        EXPECT_EQ(bar, 0u);
    EXPECT_EQ(pci_find_device(0x8086, 0x7000), &pci_devices[0]);
    EXPECT_EQ(pci_find_device(0x8086, 0x7001), nullptr);
    pci_init();
    EXPECT_EQ(pci_device_count_get(), 5);
}

TEST_F(Pci, OnlySixtyFourFunctionsAreRecordedAndPrinted) {
    for (uint8_t device = 0; device < 9; ++device)
        for (uint8_t function = 0; function < 8; ++function)
            add(7, device, function, 0x80);
    pci_init();
    EXPECT_EQ(pci_device_count_get(), 64);
    EXPECT_EQ(machine_texts().find("PCI 07:08"), std::string::npos);
}

TEST_F(Pci, RegistersAreAddressedByMechanismOneAndBaseAddressesLoseTheirFlags) {
    add(0x12, 0x1F, 7, 0);
    machine().ports.clear();
    EXPECT_EQ(pci_read_config(0x12, 0x1F, 7, 0x3F), 0x0102010Bu);
    const std::vector<port_access_t> expected = {{true, 0xCF8, 0x8012FF3C, 4},
                                                 {false, 0xCFC, 0x0102010B, 4}};
    EXPECT_EQ(machine().ports, expected);
    pci_device_t dev = {};
    dev.bus = 0x12;
    dev.device = 0x1F;
    dev.function = 7;
    dev.bar[0] = 0xC003;
    dev.bar[1] = 0xFEBF100C;
    EXPECT_EQ(pci_get_bar(&dev, 0), 0xC000u);
    EXPECT_EQ(pci_get_bar(&dev, 1), 0xFEBF1000u);
    for (const int index : {-1, 6})
        EXPECT_EQ(pci_get_bar(&dev, index), 0u);
    EXPECT_EQ(pci_get_bar(nullptr, 0), 0u);
    pci_enable_bus_mastering(&dev);
    EXPECT_EQ(pci_read_config(0x12, 0x1F, 7, 4), 0x0007u);  // no status bit is cleared by a one
    pci_disable_bus_mastering(&dev);
    EXPECT_EQ(pci_read_config(0x12, 0x1F, 7, 4), 0x0003u);
    pci_enable_bus_mastering(nullptr);
}

}  // namespace
