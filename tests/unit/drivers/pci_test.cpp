#include "kernel/drivers/pci.h"

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
    void add(uint8_t b, uint8_t device, uint8_t function, uint8_t header_type) {
        pci_space_t& r = bus.add(b, device, function, 0x8086, 0x7000);
        r.fill(0x0102010B);
        r[0] = 0x70008086;
        r[1] = 0x02900003;
        r[2] = 0x06010002;
        r[3] = uint32_t{header_type} << 16 | 0x4008;
    }
};

TEST_F(Pci, TheScanFindsFunctionsOfEveryBusAndReadsTheResourcesOfOrdinaryOnes) {
    add(0, 1, 0, 0x80);
    add(0, 1, 3, 0x00);
    add(0, 2, 0, 0x00);
    add(0, 2, 1, 0x00);     // its function 0 says that there is no other
    add(0, 3, 1, 0x00);     // there is no function 0
    add(255, 31, 0, 0x01);  // a bridge
    pci_init();
    pci_init();
    const std::string once =
        "  PCI 00:01.0  8086:7000  class 06:01\n  PCI 00:01.3  8086:7000  class 06:01\n"
        "  PCI 00:02.0  8086:7000  class 06:01\n  PCI ff:1f.0  8086:7000  class 06:01\n";
    EXPECT_EQ(machine_texts(), once + once);
    ASSERT_EQ(pci_device_count_get(), 4);
    EXPECT_EQ(pci_devices[1].bar[5], 0x0102010Bu);
    EXPECT_EQ(pci_devices[1].irq_line, 11);
    EXPECT_EQ(pci_devices[3].bar[0] | pci_devices[3].bar[5] | pci_devices[3].irq_line, 0u);
    EXPECT_EQ(pci_find_device(0x8086, 0x7000), &pci_devices[0]);
    EXPECT_EQ(pci_find_device(0x8086, 0x7001), nullptr);
}

TEST_F(Pci, OnlySixtyFourFunctionsAreRecordedAndPrinted) {
    for (uint8_t i = 0; i < 72; ++i)
        add(7, i / 8, i % 8, 0x80);
    pci_init();
    EXPECT_EQ(pci_device_count_get(), 64);
    EXPECT_EQ(machine_texts().find("PCI 07:08"), std::string::npos);
}

TEST_F(Pci, RegistersAreAddressedByMechanismOneAndBaseAddressesLoseTheirFlags) {
    add(0x12, 0x1F, 7, 0);
    EXPECT_EQ(pci_read_config(0x12, 0x1F, 7, 0x3F), 0x0102010Bu);
    EXPECT_EQ(machine().ports[0], (port_access_t{true, 0xCF8, 0x8012FF3C, 4}));
    pci_device_t dev = {};
    dev.bus = 0x12, dev.device = 0x1F, dev.function = 7;
    dev.bar[0] = 0xC003, dev.bar[1] = 0xFEBF100C;
    EXPECT_EQ(pci_get_bar(&dev, 0), 0xC000u);
    EXPECT_EQ(pci_get_bar(&dev, 1), 0xFEBF1000u);
    EXPECT_EQ(pci_get_bar(&dev, -1) | pci_get_bar(&dev, 6) | pci_get_bar(nullptr, 0), 0u);
    pci_enable_bus_mastering(&dev);
    EXPECT_EQ(pci_read_config(0x12, 0x1F, 7, 4), 0x0007u);  // no status bit is cleared by a one
    pci_disable_bus_mastering(&dev);
    EXPECT_EQ(pci_read_config(0x12, 0x1F, 7, 4), 0x0003u);
    pci_enable_bus_mastering(nullptr);
}

}  // namespace
