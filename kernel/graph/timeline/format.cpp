#include "kernel/graph/timeline/format.h"

#include "kernel/core/endian.h"
#include "kernel/core/string.h"
#include "kernel/graph/causal_schema.h"

namespace {

constexpr uint8_t SCHEMA_VERSION = 1;
constexpr uint32_t TYPE_OFFSET = 4;  // in the body; the timeline's number stands at 0
constexpr uint32_t LENGTH_OFFSET = 8;

/// Where the body begins: behind the schema header, or, in the older form, at once.
uint32_t body_offset(std::span<const uint8_t> payload) {
    const bool has_header = payload.size() >= TL_PAYLOAD_MIN &&
                            load_le16(payload.data()) == CAUSAL_SCHEMA_TIMELINE_EVENT &&
                            payload[2] == SCHEMA_VERSION;
    return has_header ? TL_PAYLOAD_BODY_OFFSET : 0;
}

}  // namespace

uint32_t timeline_encode_envelope(const timeline_envelope_t& envelope, uint8_t* out) {
    const auto size = static_cast<uint32_t>(envelope.data.size());
    const uint32_t len = size < TIMELINE_DATA_MAX ? size : TIMELINE_DATA_MAX;
    store_le16(out, CAUSAL_SCHEMA_TIMELINE_EVENT);
    out[2] = SCHEMA_VERSION;
    out[3] = 0;
    uint8_t* body = out + TL_PAYLOAD_BODY_OFFSET;
    store_le32(body, envelope.tl_id);
    store_le32(body + TYPE_OFFSET, envelope.sub_type);
    store_le16(body + LENGTH_OFFSET, static_cast<uint16_t>(len));
    if (len > 0)
        memcpy(body + TL_PAYLOAD_BODY_MIN, envelope.data.data(), len);
    return TL_PAYLOAD_MIN + len;
}

bool timeline_decode_envelope(std::span<const uint8_t> payload, timeline_envelope_t* out) {
    const auto body = payload.subspan(body_offset(payload));
    if (body.size() < TL_PAYLOAD_BODY_MIN)
        return false;
    const uint32_t len = load_le16(body.data() + LENGTH_OFFSET);
    if (len > body.size() - TL_PAYLOAD_BODY_MIN)
        return false;
    out->tl_id = load_le32(body.data());
    out->sub_type = load_le32(body.data() + TYPE_OFFSET);
    out->data = body.subspan(TL_PAYLOAD_BODY_MIN, len);
    return true;
}

uint32_t timeline_readdress(uint8_t* payload, uint32_t len, uint32_t tl_id) {
    const std::span<const uint8_t> bytes(payload, len);
    timeline_envelope_t envelope;
    if (!timeline_decode_envelope(bytes, &envelope))
        return timeline_encode_envelope({tl_id, 0, {}}, payload);
    store_le32(payload + body_offset(bytes), tl_id);
    return len;
}

timeline_persist_header_t timeline_make_header(const timeline_t& tl, uint32_t events) {
    timeline_persist_header_t header = {};
    header.magic = TIMELINE_PERSIST_MAGIC;
    header.version = TIMELINE_PERSIST_VERSION;
    header.event_count = events;
    header.chunk_count = timeline_chunks(events);
    string_copy(header.timeline.name, tl.name, TIMELINE_NAME_SIZE);
    string_copy(header.timeline.app, tl.app, TIMELINE_APP_SIZE);
    header.timeline.active = tl.active ? 1 : 0;
    header.timeline.head_id = tl.head_id;
    header.timeline.cursor_id = tl.cursor_id;
    header.timeline.event_count = tl.event_count;
    header.timeline.create_tick = tl.create_tick;
    return header;
}

timeline_form_t timeline_recognise(std::span<const uint8_t> file) {
    timeline_persist_header_t header = {};
    if (file.size() < sizeof header.timeline)
        return timeline_form_t::damaged;
    memcpy(&header, file.data(), file.size() < sizeof header ? file.size() : sizeof header);
    if (header.magic != TIMELINE_PERSIST_MAGIC || header.version != TIMELINE_PERSIST_VERSION)
        return timeline_form_t::older;
    const bool agrees = file.size() >= sizeof header && header.event_count <= CAUSAL_RING_SLOTS &&
                        header.chunk_count == timeline_chunks(header.event_count);
    return agrees ? timeline_form_t::current : timeline_form_t::damaged;
}

void timeline_decode_record(const uint8_t* stored, timeline_record_t* out) {
    string_clean(out->desc, stored + offsetof(causal_event_t, desc), CAUSAL_DESC_SIZE);
    memcpy(out->payload, stored + offsetof(causal_event_t, payload), CAUSAL_PAYLOAD_MAX);
    const uint32_t len = load_le32(stored + offsetof(causal_event_t, payload_len));
    out->payload_len = len < CAUSAL_PAYLOAD_MAX ? len : CAUSAL_PAYLOAD_MAX;
}
