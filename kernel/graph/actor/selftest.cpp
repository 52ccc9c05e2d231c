// `actors payload-test`: one message there and back, and what the graph says of it.
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/actor/internal.h"

namespace {

constexpr const char* NAME = "__actor_payload";
constexpr uint32_t TYPE = 0xA11;
constexpr char DATA[] = "hi";

/// Reads the payload of event `id`; false unless it is of `schema`.
bool read_payload(uint32_t id, uint16_t schema, actor_schema_payload_t* out) {
    causal_event_t event;
    if (!causal_copy(id, &event) || event.schema_id != schema ||
        event.schema_version != ACTOR_SCHEMA_VERSION || event.payload_len < sizeof *out)
        return false;
    memcpy(out, event.payload, sizeof *out);
    return true;
}

const char* yes_or_no(bool value) { return value ? "yes" : "no"; }

void test(int actor_id) {
    const int sent = actor_send(actor_id, TYPE, DATA, sizeof DATA);
    actor_msg_t msg = {};
    const int received = actor_recv(actor_id, &msg);
    const bool delivered = sent == 0 && received == 0 && msg.len == sizeof DATA &&
                           memcmp(msg.data, DATA, sizeof DATA) == 0;
    actor_schema_payload_t send = {};
    actor_schema_payload_t recv = {};
    const bool send_ok = read_payload(msg.causal_event, CAUSAL_SCHEMA_ACTOR_SEND, &send);
    const bool recv_ok = read_payload(causal_get_current(), CAUSAL_SCHEMA_ACTOR_RECV, &recv);
    if (!delivered || !send_ok || !recv_ok) {
        kprintf("actor payload-test: FAIL send=%s recv=%s delivery=%s\n", yes_or_no(send_ok),
                yes_or_no(recv_ok), yes_or_no(delivered));
        return;
    }
    kprintf("  Actor: send type=%u len=%u\n", send.msg_type, send.msg_len);
    kprintf("  Actor: recv type=%u len=%u\n", recv.msg_type, recv.msg_len);
    kprintf("actor payload-test: PASS send=actor.send recv=actor.recv delivery=yes\n");
}

}  // namespace

void actor_payload_selftest() {
    actor_unregister(actor_find(NAME));
    const int actor_id = actor_register(NAME, -1);
    if (actor_id < 0) {
        kprintf("actor payload-test: FAIL register=no\n");
        return;
    }
    test(actor_id);
    actor_unregister(actor_id);
}
