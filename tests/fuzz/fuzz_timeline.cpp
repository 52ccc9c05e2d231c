// Saved timelines and payload envelopes as any bytes: nothing is read beyond them, and a saved
// event that is loaded always belongs to the timeline that it was loaded into.
#include <algorithm>
#include <cstdlib>
#include <vector>

#include "kernel/core/endian.h"
#include "kernel/graph/timeline/format.h"

namespace {

void require(bool holds) {
    if (!holds)
        std::abort();
}

void check_record(std::vector<uint8_t> stored, uint32_t tl_id) {
    stored.resize(TIMELINE_RECORD_SIZE);
    timeline_record_t record;
    timeline_decode_record(stored.data(), &record);
    require(record.payload_len <= CAUSAL_PAYLOAD_MAX);
    const auto end = std::find(record.desc, record.desc + CAUSAL_DESC_SIZE, '\0');
    require(end != record.desc + CAUSAL_DESC_SIZE);
    require(std::none_of(record.desc, end, [](char c) { return c > 0 && c < ' '; }));

    timeline_envelope_t before = {};
    const bool sound = timeline_decode_envelope({record.payload, record.payload_len}, &before);
    const std::vector<uint8_t> data(before.data.begin(), before.data.end());
    record.payload_len = timeline_readdress(record.payload, record.payload_len, tl_id);
    timeline_envelope_t after = {};
    require(timeline_decode_envelope({record.payload, record.payload_len}, &after));
    require(after.tl_id == tl_id);
    require(after.sub_type == (sound ? before.sub_type : 0));
    require(std::equal(data.begin(), data.end(), after.data.begin(), after.data.end()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    if (size == 0)
        return 0;
    const uint32_t tl_id = bytes[0] % TIMELINE_SLOTS;
    ++bytes;
    --size;
    const std::vector<uint8_t> exact(bytes, bytes + size);  // so that its end is guarded
    require(timeline_recognise(exact) <= timeline_form_t::damaged);
    timeline_envelope_t envelope = {};
    if (timeline_decode_envelope(exact, &envelope) && !envelope.data.empty())
        require(&envelope.data.back() <= &exact.back());
    // The payload first, so that short inputs reach it; then the bytes as they are.
    std::vector<uint8_t> record(TIMELINE_RECORD_SIZE);
    const size_t len = std::min<size_t>(size, CAUSAL_PAYLOAD_MAX);
    std::copy_n(bytes, len, record.begin() + offsetof(causal_event_t, payload));
    store_le32(&record[offsetof(causal_event_t, payload_len)], static_cast<uint32_t>(len));
    check_record(record, tl_id);
    check_record({bytes, bytes + size}, tl_id);
    return 0;
}
