// The fake machine under the unit tests: port devices, the interrupt flag, control registers and
// a time-stamp counter, all of which a test can set and read.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <stdexcept>
#include <vector>

/// One access to a port, in the order they happened.
struct port_access_t {
    bool write;
    uint16_t port;
    uint32_t value;
    unsigned bytes;  ///< 1, 2 or 4
    bool operator==(const port_access_t&) const = default;
};

/// A device behind a range of ports. A port without a device reads as all ones.
class port_device {
public:
    virtual ~port_device() = default;
    virtual uint32_t read(uint16_t port, unsigned bytes) = 0;
    virtual void write(uint16_t port, uint32_t value, unsigned bytes) = 0;
};

/// The processor and what a test may do to it.
struct machine_t {
    bool interrupts_on = false;  ///< EFLAGS.IF
    uint32_t cr0 = 0, cr2 = 0, cr3 = 0;
    uint64_t tsc = 0;  ///< grows by tsc_step at each RDTSC
    uint64_t tsc_step = 1;
    std::function<void()> on_hlt;    ///< what a HLT waits for (null: nothing happens)
    std::function<void()> on_pause;  ///< called by PAUSE
    std::function<bool(uint32_t*)> rdrand, rdseed;  ///< null: not reported by CPUID, fails
    std::vector<uintptr_t> invalidated;             ///< INVLPG addresses
    bool log_ports = true;
    std::vector<port_access_t> ports;  ///< all port accesses since reset
};

/// What a halt for good throws, so that a test sees it.
struct machine_halted : std::runtime_error {
    machine_halted() : std::runtime_error("halted for good") {}
};

/// Throws machine_halted.
[[noreturn]] void machine_halt();

/// The one machine.
machine_t& machine();

/// Powers the machine on anew: no devices, logs empty, default state.
void machine_reset();

/// Puts `device` behind the ports first..last; it must outlive the next reset.
void machine_attach(uint16_t first, uint16_t last, port_device* device);

uint32_t machine_port_read(uint16_t port, unsigned bytes);
void machine_port_write(uint16_t port, uint32_t value, unsigned bytes);
