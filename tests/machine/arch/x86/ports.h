// Port access of the fake machine, in the shape of the real header.
#pragma once

#include <stdint.h>

#include "tests/machine/machine.h"

inline void outb(uint16_t port, uint8_t value) { machine_port_write(port, value, 1); }
inline void outw(uint16_t port, uint16_t value) { machine_port_write(port, value, 2); }
inline void outl(uint16_t port, uint32_t value) { machine_port_write(port, value, 4); }
inline uint8_t inb(uint16_t port) { return static_cast<uint8_t>(machine_port_read(port, 1)); }
inline uint16_t inw(uint16_t port) { return static_cast<uint16_t>(machine_port_read(port, 2)); }
inline uint32_t inl(uint16_t port) { return machine_port_read(port, 4); }
