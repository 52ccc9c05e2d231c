// The storage figures, first what one request of the disk costs. The lines are in time-stamp counts
// as all others; "bench second" says how many of them a second has.
#include "arch/x86/ports.h"
#include "bench/guest/measure.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/string.h"
#include "kernel/drivers/virtio_blk.h"

namespace {

constexpr uint32_t SMALL = 1;
constexpr uint32_t LARGE = MEASURE_SECTORS;
constexpr uint32_t REQUESTS = 64;

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

}  // namespace

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
    measure_journal(data.get());
}
