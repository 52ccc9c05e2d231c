// A machine with memory, an event store and a PCI bus for one virtio device.
#pragma once

#include "tests/machine/kernel.h"
#include "tests/machine/pci_bus.h"
#include "tests/machine/virtio_model.h"

class virtio_fixture : public testing::Test {
protected:
    pci_bus bus;

    void start_machine(virtio_model& device, uint16_t device_id, uint16_t port) {
        boot_kernel();
        bus.attach();
        bus.add(0, 3, 0, VIRTIO_VENDOR, device_id, port | 1u);
        device.attach(port);
        pci_init();
        machine_texts().clear();
    }
};
