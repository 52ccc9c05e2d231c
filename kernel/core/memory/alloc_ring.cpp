// Allocation records, found by address through chains that hold the records not yet freed.
#include "kernel/core/memory/alloc_ring.h"

#include <algorithm>

#include "kernel/core/interrupt.h"
#include "kernel/core/running.h"
#include "kernel/core/string.h"

namespace {

constexpr uint32_t RECORDS = 128;
constexpr uint32_t CHAINS = 256;
constexpr uint8_t NONE = 0xFF;  // above every index, so that the lower of two is the one found

struct ring_state_t {
    alloc_record_t records[RECORDS];
    uint32_t head;           // allocations ever recorded
    uint8_t chains[CHAINS];  // first record of each chain
    uint8_t next[RECORDS];   // the one after it
};

ring_state_t ring;

uint8_t& chain_of(uint32_t addr) {
    constexpr uint32_t GOLDEN_RATIO = 0x9E3779B1;  // spreads neighbouring addresses (Knuth, 6.4)
    return ring.chains[addr * GOLDEN_RATIO >> 24];
}

void link(uint8_t index) {
    uint8_t& chain = chain_of(ring.records[index].addr);
    ring.next[index] = chain;
    chain = index;
}

void unlink(uint8_t index) {
    uint8_t* link_to = &chain_of(ring.records[index].addr);
    while (*link_to != index && *link_to != NONE)
        link_to = &ring.next[*link_to];
    if (*link_to == index)
        *link_to = ring.next[index];
}

/// The lowest index of a record of `addr` that is not freed, or NONE.
uint8_t find(uint32_t addr) {
    uint8_t lowest = NONE;
    for (uint8_t i = chain_of(addr); i != NONE; i = ring.next[i])
        if (ring.records[i].addr == addr)
            lowest = std::min(lowest, i);
    return lowest;
}

}  // namespace

void alloc_ring_reset() {
    memset(&ring, 0, sizeof ring);
    memset(ring.chains, NONE, sizeof ring.chains);
}

void alloc_ring_add(uint32_t addr, uint32_t size) {
    const auto index = static_cast<uint8_t>(ring.head % RECORDS);
    alloc_record_t& record = ring.records[index];
    if (ring.head >= RECORDS && record.freed == 0)
        unlink(index);
    record = {addr, size, system_ticks, static_cast<uint32_t>(running().pid), 0};
    link(index);
    ++ring.head;
}

void alloc_ring_rename(uint32_t raw, uint32_t addr, uint32_t size) {
    const uint8_t index = find(raw);
    if (index == NONE)
        return;
    unlink(index);
    ring.records[index].addr = addr;
    ring.records[index].size = size;
    link(index);
}

void alloc_ring_mark_freed(uint32_t addr, uint32_t other) {
    uint8_t index = find(addr);
    if (other != addr)
        index = std::min(index, find(other));
    if (index == NONE)
        return;
    unlink(index);
    ring.records[index].freed = 1;
}

const alloc_record_t* memleak_get_ring(uint32_t* out_size) {
    *out_size = RECORDS;
    return ring.records;
}
