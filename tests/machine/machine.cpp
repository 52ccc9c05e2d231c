#include "tests/machine/machine.h"

namespace {

struct attachment_t {
    uint16_t first, last;
    port_device* device;
};

machine_t the_machine;
std::vector<attachment_t> attachments;

port_device* device_at(uint16_t port) {
    for (auto it = attachments.rbegin(); it != attachments.rend(); ++it)
        if (port >= it->first && port <= it->last)
            return it->device;
    return nullptr;
}

}  // namespace

void machine_halt() { throw machine_halted(); }

machine_t& machine() { return the_machine; }

void machine_reset() {
    the_machine = machine_t{};
    attachments.clear();
}

void machine_attach(uint16_t first, uint16_t last, port_device* device) {
    attachments.push_back({first, last, device});
}

uint32_t machine_port_read(uint16_t port, unsigned bytes) {
    port_device* device = device_at(port);
    const uint32_t value = device != nullptr ? device->read(port, bytes) : ~0u >> (32 - 8 * bytes);
    if (the_machine.log_ports)
        the_machine.ports.push_back({false, port, value, bytes});
    return value;
}

void machine_port_write(uint16_t port, uint32_t value, unsigned bytes) {
    if (the_machine.log_ports)
        the_machine.ports.push_back({true, port, value, bytes});
    if (port_device* device = device_at(port))
        device->write(port, value, bytes);
}
