// Evidence for messages of other nodes: which remote event became which local ones.
#include "kernel/core/endian.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/noise.h"
#include "kernel/core/string.h"
#include "kernel/graph/actor/internal.h"

namespace {

constexpr uint32_t LINK_MASK = ACTOR_PROOF_SLOTS - 1;
static_assert((ACTOR_PROOF_SLOTS & LINK_MASK) == 0);

/// What a receipt's hash covers.
struct [[gnu::packed]] receipt_image_t {
    uint32_t sender_node;
    uint32_t remote_causal_id;
    uint64_t remote_lamport;
    uint32_t anchor_event, send_event, recv_event;
    uint32_t tick;
    char actor_name[ACTOR_NAME_SIZE];
    char anchor_desc[CAUSAL_DESC_SIZE], send_desc[CAUSAL_DESC_SIZE], recv_desc[CAUSAL_DESC_SIZE];
    char remote_subsystem[CAUSAL_SUBSYSTEM_SIZE];
    char remote_desc[CAUSAL_DESC_SIZE];
    uint8_t remote_event_hash[CAUSAL_HASH_SIZE];
    uint32_t remote_event_hash_version;
};
static_assert(sizeof(receipt_image_t) == 436);
static_assert(offsetof(receipt_image_t, actor_name) == 32);

uint32_t hash_receipt(const actor_remote_parent_proof_t& p) {
    receipt_image_t image = {};
    image.sender_node = p.sender_node;
    image.remote_causal_id = p.remote_causal_id;
    image.remote_lamport = p.remote_lamport;
    image.anchor_event = p.anchor_event;
    image.send_event = p.send_event;
    image.recv_event = p.recv_event;
    image.tick = p.tick;
    memcpy(image.actor_name, p.actor_name, sizeof image.actor_name);
    memcpy(image.anchor_desc, p.anchor_desc, sizeof image.anchor_desc);
    memcpy(image.send_desc, p.send_desc, sizeof image.send_desc);
    memcpy(image.recv_desc, p.recv_desc, sizeof image.recv_desc);
    memcpy(image.remote_subsystem, p.remote_subsystem, sizeof image.remote_subsystem);
    memcpy(image.remote_desc, p.remote_desc, sizeof image.remote_desc);
    memcpy(image.remote_event_hash, p.remote_event_hash, sizeof image.remote_event_hash);
    image.remote_event_hash_version = p.remote_event_hash_version;
    uint8_t hash[CAUSAL_HASH_SIZE];
    blake2s(hash, &image, sizeof image);
    return load_le32(hash);
}

template <size_t size>
void set_text(char (&field)[size], const char* text) {
    strncpy(field, text != nullptr ? text : "", size - 1);
}

actor_remote_parent_proof_t* find_link(uint32_t send_event) REQUIRES(irq_mask) {
    for (actor_remote_parent_proof_t& link : actor_tables.remote_parent_links) {
        if (link.valid && link.send_event == send_event)
            return &link;
    }
    return nullptr;
}

bool answers(const actor_remote_parent_proof_t& proof, const char* name) {
    return proof.valid && proof.recv_event != 0 &&
           (name == nullptr || strstr(proof.actor_name, name) != nullptr);
}

}  // namespace

void actor_proof_begin(const actor_t& to, const actor_delivery_t& delivery, uint32_t anchor_event,
                       const char* anchor_desc, uint32_t send_event, const char* send_desc) {
    actor_remote_parent_proof_t& link =
        actor_tables.remote_parent_links[actor_tables.remote_parent_next++ & LINK_MASK];
    memset(&link, 0, sizeof link);
    link.valid = true;
    memcpy(link.actor_name, to.name, sizeof link.actor_name);
    link.sender_node = delivery.node;
    link.remote_causal_id = delivery.remote_id;
    link.remote_lamport = delivery.remote_lamport;
    link.anchor_event = anchor_event;
    link.send_event = send_event;
    link.tick = system_ticks;
    set_text(link.anchor_desc, anchor_desc);
    set_text(link.send_desc, send_desc);
    set_text(link.remote_subsystem, delivery.remote_subsystem);
    set_text(link.remote_desc, delivery.remote_desc);
    if (delivery.remote_hash != nullptr)
        memcpy(link.remote_event_hash, delivery.remote_hash, sizeof link.remote_event_hash);
    link.remote_event_hash_version = delivery.remote_hash_version;
}

void actor_proof_complete(const char* actor_name, const actor_msg_t& msg, uint32_t recv_event,
                          const char* recv_desc) {
    actor_remote_parent_proof_t proof;
    {
        const irq_guard guard;
        const actor_remote_parent_proof_t* link = find_link(msg.causal_event);
        if (link == nullptr)
            return;
        proof = *link;
    }
    memset(proof.actor_name, 0, sizeof proof.actor_name);
    set_text(proof.actor_name, actor_name);
    proof.recv_event = recv_event;
    proof.tick = system_ticks;
    set_text(proof.recv_desc, recv_desc);
    proof.receipt_hash = hash_receipt(proof);
    const irq_guard guard;
    actor_remote_parent_proof_t* link = find_link(msg.causal_event);
    if (link != nullptr)
        *link = proof;
    actor_tables.latest_remote_parent = proof;
}

int actor_remote_parent_latest(const char* actor_name, actor_remote_parent_proof_t* out) {
    const irq_guard guard;
    for (uint32_t i = 1; i <= ACTOR_PROOF_SLOTS; ++i) {
        const actor_remote_parent_proof_t& link =
            actor_tables.remote_parent_links[(actor_tables.remote_parent_next - i) & LINK_MASK];
        if (!answers(link, actor_name))
            continue;
        *out = link;
        return 0;
    }
    if (!answers(actor_tables.latest_remote_parent, actor_name))
        return -1;
    *out = actor_tables.latest_remote_parent;
    return 0;
}
