// A machine with memory, an event store and a PCI bus for one virtio device.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "kernel/core/heap_ptr.h"
#include "kernel/graph/causal.h"
#include "tests/machine/memory.h"
#include "tests/machine/pci_bus.h"
#include "tests/machine/virtio_model.h"

inline uint32_t heap_used() {
    uint32_t total = 0, used = 0;
    heap_get_stats(&total, &used);
    return used;
}

/// Takes the heap but for `room` bytes.
inline heap_ptr<uint8_t> take_heap_but(uint32_t room) {
    return heap_ptr<uint8_t>::make(HEAP_BYTES - heap_used() - room);
}

/// The text of the newest event, or of one before it.
inline std::string newest(uint32_t before = 0) {
    return causal_get_ring(causal_total_events() - before)->desc;
}

class virtio_fixture : public testing::Test {
protected:
    pci_bus bus;

    void start_machine(virtio_model& device, uint16_t device_id, uint16_t port) {
        machine_reset();
        machine().log_ports = false;
        machine_boot_memory();
        causal_init();
        bus.attach();
        bus.add(0, 3, 0, VIRTIO_VENDOR, device_id, port | 1u);
        device.attach(port);
        pci_init();
        machine_texts().clear();
    }
    void TearDown() override { record_set_hook(nullptr); }
};
