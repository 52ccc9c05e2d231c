// The journal's figures: events recorded and spilled, records looked up, all of it verified.
#include "bench/guest/measure.h"
#include "kernel/drivers/hwrng.h"
#include "kernel/drivers/virtio_blk.h"
#include "kernel/fs/blockfs.h"
#include "kernel/graph/causal.h"
#include "kernel/graph/cjournal.h"

namespace {

constexpr uint32_t SEGMENTS = 16;  // beside those that the spill's runs add
constexpr uint32_t EVENTS = SEGMENTS * CJOURNAL_SEGMENT_EVENTS;

void record(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i)
        causal_emit(CAUSAL_USER, "bench", "to be archived", nullptr, 0);
}

/// One full segment with its companions and the index a run.
void measure_spill() {
    constexpr const char* NAME = "journal-spill-512";
    measure(NAME, CJOURNAL_SEGMENT_EVENTS, [] {
        record(CJOURNAL_SEGMENT_EVENTS);
        const int spilled = cjournal_spill(CJOURNAL_SEGMENT_EVENTS);
        check(NAME, spilled != static_cast<int>(CJOURNAL_SEGMENT_EVENTS));
    });
}

/// Records all over a journal of full segments, from event `first` on.
void measure_lookup(uint32_t first) {
    constexpr uint32_t LOOKUPS = 128, STRIDE = 4099;  // a prime, so that all are visited
    constexpr const char* NAME = "journal-archived-lookup";
    measure(NAME, LOOKUPS, [first] {
        cjournal_event_t event;
        for (uint32_t i = 0; i < LOOKUPS; ++i)
            check(NAME, cjournal_query_by_id_disk(first + i * STRIDE % EVENTS, &event));
    });
}

}  // namespace

void measure_journal(const uint8_t* data) {
    constexpr const char* NAME = "journal-verify";
    check(NAME, blk_write(0, data, MEASURE_SECTORS));
    blockfs_forget();
    check(NAME, blockfs_init());
    cjournal_init();
    const uint32_t first = causal_get_next_id();
    record(EVENTS);
    check(NAME, cjournal_spill(EVENTS + first) < static_cast<int>(EVENTS));
    measure_lookup(first);
    measure_spill();
    measure(NAME, cjournal_total_persisted(), [] { check(NAME, cjournal_verify()); });
    hwrng_init();
    check(NAME, cjournal_sign_all());
}
