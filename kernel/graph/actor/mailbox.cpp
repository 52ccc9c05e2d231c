// Sending and receiving. A message and the events that tell of it come into being together, with
// interrupts masked.
#include <algorithm>

#include "kernel/core/interrupt.h"
#include "kernel/core/string.h"
#include "kernel/graph/actor/internal.h"

namespace {

constexpr uint32_t MS_PER_TICK = 10;
constexpr int YIELDS_BEFORE_SLEEP = 16;
constexpr size_t RECV_DESC_SIZE = 64;

actor_schema_payload_t describe(const actor_t& to, uint16_t schema, uint32_t sender,
                                uint32_t sender_node, uint32_t type, uint32_t len) {
    actor_schema_payload_t payload = {
        schema, ACTOR_SCHEMA_VERSION, 0, to.id, sender, sender_node, type, len, {}};
    memcpy(payload.actor_name, to.name, sizeof payload.actor_name);
    return payload;
}

uint32_t record_local_send(const actor_t& to, const actor_delivery_t& d) {
    char desc[CAUSAL_DESC_SIZE];
    ksnprintf(desc, sizeof desc, "send to=%s type=%u len=%u", to.name, d.type, d.len);
    const actor_schema_payload_t payload =
        describe(to, CAUSAL_SCHEMA_ACTOR_SEND, d.sender_id, 0, d.type, d.len);
    return causal_emit_payload(CAUSAL_ACTOR, "actor", desc, nullptr, 0, &payload, sizeof payload);
}

uint32_t record_remote_send(const actor_t& to, const actor_delivery_t& d) REQUIRES(irq_mask) {
    char anchor_desc[CAUSAL_DESC_SIZE] = "";
    uint32_t anchor = 0;
    if (d.remote_id != 0) {
        ksnprintf(anchor_desc, sizeof anchor_desc, "remote parent node=%x seq=%u", d.node,
                  d.remote_id);
        anchor = causal_emit(CAUSAL_MESH, "remote-parent", anchor_desc, nullptr, 0);
    }
    char desc[CAUSAL_DESC_SIZE];
    ksnprintf(desc, sizeof desc, "remote send node=%x actor=%u to=%s type=%u len=%u", d.node,
              d.sender_id, to.name, d.type, d.len);
    const actor_schema_payload_t payload =
        describe(to, CAUSAL_SCHEMA_ACTOR_SEND, d.sender_id, d.node, d.type, d.len);
    const uint32_t id = causal_emit_payload(CAUSAL_ACTOR, "actor", desc, &anchor,
                                            anchor != 0 ? 1 : 0, &payload, sizeof payload);
    if (anchor != 0 && id != 0)
        actor_proof_begin(to, d, anchor, anchor_desc, id, desc);
    return id;
}

/// An edge of its own for each of the busiest senders.
void count_edge(actor_t* to, uint32_t sender) {
    const auto peer = static_cast<int32_t>(sender);
    actor_edge_t* const end = to->edges + ACTOR_EDGES_MAX;
    const auto find = [to, end](int32_t id) {
        return std::find_if(to->edges, end,
                            [id](const actor_edge_t& edge) { return edge.dest_id == id; });
    };
    actor_edge_t* edge = find(peer);
    if (edge != end) {
        ++edge->count;
        return;
    }
    edge = find(-1);
    if (edge == end)
        edge = std::min_element(to->edges, end, [](const actor_edge_t& a, const actor_edge_t& b) {
            return a.count < b.count;
        });
    *edge = {peer, 1};
}

int deliver(actor_t* to, actor_delivery_t d) REQUIRES(irq_mask) {
    if (to->mb_count == ACTOR_MAILBOX_SLOTS)
        return -1;
    d.len = std::min(d.len, ACTOR_DATA_MAX);
    const uint32_t send_event =
        d.node != 0 ? record_remote_send(*to, d) : record_local_send(*to, d);
    actor_msg_t& msg = to->mailbox[to->mb_tail];
    memset(&msg, 0, sizeof msg);
    msg.type = d.type;
    msg.sender_id = d.sender_id;
    msg.len = d.len;
    if (d.data != nullptr)
        memcpy(msg.data, d.data, d.len);
    msg.timestamp = system_ticks;
    msg.causal_event = send_event;
    msg.sender_node = d.node;
    msg.remote_causal_id = d.remote_id;
    to->mb_tail = (to->mb_tail + 1) & ACTOR_MAILBOX_MASK;
    ++to->mb_count;
    ++to->msgs_received;
    to->last_recv_tick = system_ticks;
    if (d.sender_id != 0)
        count_edge(to, d.sender_id);
    return 0;
}

/// The id of the running task's actor, which is said to have sent once more; 0 without one.
uint32_t count_sender() REQUIRES(irq_mask) {
    const pid_t pid = running().pid;
    for (actor_t& slot : actor_tables.actors) {
        if (!slot.active || slot.owner_pid != pid)
            continue;
        ++slot.msgs_sent;
        slot.last_send_tick = system_ticks;
        return slot.id;
    }
    return 0;
}

/// What is kept of a message for another node while the guard is released.
struct outgoing_t {
    char name[ACTOR_NAME_SIZE];
    uint32_t node_hash;
    uint32_t sender_id;
    const actor_remote_hooks_t* remote;
};

int send_out(const outgoing_t& to, uint32_t type, const void* data, uint32_t len) {
    constexpr int NO_PEER = -1;
    char desc[CAUSAL_DESC_SIZE];
    ksnprintf(desc, sizeof desc, "remote actor send to=%s node=%x type=%u len=%u", to.name,
              to.node_hash, type, len);
    causal_emit(CAUSAL_MESH, "actor-route", desc, nullptr, 0);
    if (to.remote == nullptr)
        return NO_PEER;
    return to.remote->send(to.name, to.node_hash, type, data, len, to.sender_id);
}

/// Records that `msg` was received; the event's id.
uint32_t record_receive(const actor_t& to, const actor_msg_t& msg, const char* desc) {
    const actor_schema_payload_t payload =
        describe(to, CAUSAL_SCHEMA_ACTOR_RECV, msg.sender_id, msg.sender_node, msg.type, msg.len);
    uint32_t parents[2];
    int count = 0;
    const uint32_t current = causal_get_current();
    if (msg.causal_event != 0) {
        if (current != 0)
            parents[count++] = current;
        parents[count++] = msg.causal_event;
    }
    return causal_emit_payload(CAUSAL_ACTOR, "actor", desc, parents, count, &payload,
                               sizeof payload);
}

}  // namespace

int actor_send(int dest_id, uint32_t msg_type, const void* data, uint32_t len) {
    outgoing_t out;
    {
        const irq_guard guard;
        actor_t* to = actor_by_id(dest_id);
        if (to == nullptr)
            return -2;
        const uint32_t sender = count_sender();
        if (!to->remote)
            return deliver(to,
                           {msg_type, data, len, sender, 0, 0, 0, nullptr, nullptr, nullptr, 0});
        memcpy(out.name, to->name, sizeof out.name);
        out.node_hash = to->node_hash;
        out.sender_id = sender;
        out.remote = actor_tables.remote;
    }
    return send_out(out, msg_type, data, len);
}

int actor_send_remote(int dest_id, uint32_t msg_type, const void* data, uint32_t len,
                      uint32_t sender_actor_id, uint32_t sender_node, uint32_t remote_causal_id,
                      uint64_t remote_lamport, const char* remote_subsystem,
                      const char* remote_desc, const uint8_t* remote_event_hash,
                      uint32_t remote_event_hash_version) {
    const irq_guard guard;
    actor_t* to = actor_by_id(dest_id);
    if (to == nullptr || to->remote)
        return -2;
    return deliver(
        to, {msg_type, data, len, sender_actor_id, sender_node, remote_causal_id, remote_lamport,
             remote_subsystem, remote_desc, remote_event_hash, remote_event_hash_version});
}

int actor_recv(int actor_id, actor_msg_t* msg) {
    char desc[RECV_DESC_SIZE];
    char name[ACTOR_NAME_SIZE];
    uint32_t recv_event;
    {
        const irq_guard guard;
        actor_t* actor = actor_by_id(actor_id);
        if (actor == nullptr || msg == nullptr || actor->mb_count == 0)
            return -1;
        *msg = actor->mailbox[actor->mb_head];
        actor->mb_head = (actor->mb_head + 1) & ACTOR_MAILBOX_MASK;
        --actor->mb_count;
        memcpy(name, actor->name, sizeof name);
        ksnprintf(desc, sizeof desc, "recv name=%s type=%u", name, msg->type);
        recv_event = record_receive(*actor, *msg, desc);
    }
    if (msg->sender_node != 0 && msg->remote_causal_id != 0 && recv_event != 0)
        actor_proof_complete(name, *msg, recv_event, desc);
    return 0;
}

int actor_recv_wait(int actor_id, actor_msg_t* msg, uint32_t timeout_ms) {
    const uint32_t ticks = std::max(timeout_ms / MS_PER_TICK, 1u);
    const uint32_t start = system_ticks;
    for (int tries = 0;; ++tries) {
        if (actor_recv(actor_id, msg) == 0)
            return 0;
        if (system_ticks - start >= ticks)
            return -1;
        task_sleep(tries < YIELDS_BEFORE_SLEEP ? 0 : 1);
    }
}

int actor_take_back(int actor_id, uint32_t causal_event) {
    const irq_guard guard;
    actor_t* actor = actor_by_id(actor_id);
    if (actor == nullptr || actor->mb_count == 0)
        return -1;
    const uint16_t newest = (actor->mb_tail - 1u) & ACTOR_MAILBOX_MASK;
    if (actor->mailbox[newest].causal_event != causal_event)
        return -1;
    actor->mb_tail = newest;
    --actor->mb_count;
    return 0;
}

void actor_count_send(int actor_id) {
    const irq_guard guard;
    actor_t* actor = actor_by_id(actor_id);
    if (actor == nullptr)
        return;
    ++actor->msgs_sent;
    actor->last_send_tick = system_ticks;
}
