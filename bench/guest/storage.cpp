// The storage figures: what one request of the disk costs, and one record of the journal. The lines
// are in time-stamp counts as all others; "bench second" says how many of them a second has.
#include "arch/x86/ports.h"
#include "bench/guest/measure.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/string.h"
#include "kernel/drivers/virtio_blk.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/cjournal.h"

namespace {

constexpr uint32_t SMALL = 1;
constexpr uint32_t LARGE = 128;  // sectors: 64 KB
constexpr uint32_t REQUESTS = 64;

/// Counts of a second, by the timer's channel 2, which needs no interrupt.
uint64_t counts_a_second() {
    constexpr uint16_t TIMER_CHANNEL_2 = 0x42, TIMER_COMMAND = 0x43, SPEAKER = 0x61;
    constexpr uint8_t ONE_SHOT = 0xB0, GATE = 0x01, SPEAKER_ON = 0x02, OUTPUT = 0x20;
    constexpr uint32_t TIMER_HZ = 1193182, SPAN = 0xFFFF;
    const auto quiet = static_cast<uint8_t>(inb(SPEAKER) & ~(SPEAKER_ON | GATE));
    outb(SPEAKER, quiet | GATE);
    outb(TIMER_COMMAND, ONE_SHOT);
    outb(TIMER_CHANNEL_2, SPAN & 0xFF);
    outb(TIMER_CHANNEL_2, SPAN >> 8);
    const uint64_t start = cpu_rdtsc();
    while ((inb(SPEAKER) & OUTPUT) == 0) {
    }
    return (cpu_rdtsc() - start) * TIMER_HZ / SPAN;
}

void check(const char* name, int result) {
    if (result != 0)
        kprintf("bench failed %s\n", name);
}

/// Requests of `count` sectors, each behind the one before.
void measure_requests(const char* write_name, const char* read_name, uint8_t* data,
                      uint32_t count) {
    measure(write_name, REQUESTS, [&] {
        for (uint32_t i = 0; i < REQUESTS; ++i)
            check(write_name, blk_write(i * count, data, count));
    });
    measure(read_name, REQUESTS, [&] {
        for (uint32_t i = 0; i < REQUESTS; ++i)
            check(read_name, blk_read(i * count, data, count));
    });
}

/// Looks records up all over a journal of SEGMENTS full segments, on a new volume.
void measure_lookup(uint8_t* data) {
    constexpr uint32_t SEGMENTS = 16, EVENTS = SEGMENTS * CJOURNAL_SEGMENT_EVENTS;
    constexpr uint32_t LOOKUPS = 128, STRIDE = 4099;  // a prime, so that all are visited
    constexpr const char* NAME = "journal-archived-lookup";
    check(NAME, blk_write(0, data, LARGE));
    blockfs_forget();
    check(NAME, blockfs_init());
    cjournal_init();
    const uint32_t first = causal_get_next_id();
    for (uint32_t i = 0; i < EVENTS; ++i)
        causal_emit(CAUSAL_USER, "bench", "to be archived", nullptr, 0);
    check(NAME, cjournal_spill(EVENTS + first) < static_cast<int>(EVENTS));
    measure(NAME, LOOKUPS, [&] {
        cjournal_event_t record;
        for (uint32_t i = 0; i < LOOKUPS; ++i)
            check(NAME, cjournal_query_by_id_disk(first + i * STRIDE % EVENTS, &record));
    });
}

}  // namespace

void measure_storage() {
    const uint64_t second = counts_a_second();
    kprintf("bench second %llu %llu %llu\n", second, second, second);
    const auto data = heap_ptr<uint8_t>::make(LARGE * BLK_SECTOR_SIZE);
    if (!data) {
        kprintf("bench failed memory\n");
        return;
    }
    memset(data.get(), 0xA5, LARGE * BLK_SECTOR_SIZE);
    measure_requests("disk-write-512", "disk-read-512", data.get(), SMALL);
    measure_requests("disk-write-64K", "disk-read-64K", data.get(), LARGE);
    measure_vofs(second);
    measure_lookup(data.get());
}
