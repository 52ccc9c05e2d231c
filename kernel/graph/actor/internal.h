// What the files of the actors share. Private to kernel/graph/actor/.
//
//   registry   slots, watching      route   names, dead letters
//   mailbox    sending, receiving   proof   messages of other nodes     selftest
#pragma once

#include "kernel/core/guards.h"
#include "kernel/graph/actor.h"
#include "kernel/graph/causal_schema.h"

constexpr uint32_t ACTOR_MAILBOX_MASK = ACTOR_MAILBOX_SLOTS - 1;
static_assert((ACTOR_MAILBOX_SLOTS & ACTOR_MAILBOX_MASK) == 0);

struct actor_tables_t {
    actor_t actors[ACTOR_MAX];
    actor_route_t routes[ACTOR_ROUTES_MAX];
    actor_remote_parent_proof_t remote_parent_links[ACTOR_PROOF_SLOTS];
    actor_remote_parent_proof_t latest_remote_parent;
    uint32_t remote_parent_next;
    uint32_t next_actor_id;
    const actor_remote_hooks_t* remote;
};

inline actor_tables_t actor_tables GUARDED_BY(irq_mask);

/// The payload of send and receive events.
struct [[gnu::packed]] actor_schema_payload_t {
    uint16_t schema_id;  ///< CAUSAL_SCHEMA_ACTOR_SEND or CAUSAL_SCHEMA_ACTOR_RECV
    uint8_t schema_version;
    uint8_t flags;
    uint32_t actor_id;       ///< the receiver
    uint32_t peer_actor_id;  ///< the sender, 0: none
    uint32_t peer_node;
    uint32_t msg_type;
    uint32_t msg_len;
    char actor_name[ACTOR_NAME_SIZE];
};
static_assert(sizeof(actor_schema_payload_t) == 56);
static_assert(offsetof(actor_schema_payload_t, actor_name) == 24);
constexpr uint8_t ACTOR_SCHEMA_VERSION = 1;

/// A message on its way to a local actor.
struct actor_delivery_t {
    uint32_t type;
    const void* data;
    uint32_t len;
    uint32_t sender_id;
    // Of a message from another node; else 0 and null.
    uint32_t node;
    uint32_t remote_id;
    uint64_t remote_lamport;
    const char* remote_subsystem;
    const char* remote_desc;
    const uint8_t* remote_hash;  ///< CAUSAL_HASH_SIZE bytes
    uint32_t remote_hash_version;
};

/// The active actor with this id or name, else null.
actor_t* actor_by_id(int actor_id) REQUIRES(irq_mask);
actor_t* actor_by_name(const char* name) REQUIRES(irq_mask);

/// Adds an actor to the route of its name, which it makes if need be, and removes it from all.
void actor_route_add(const actor_t& actor) REQUIRES(irq_mask);
void actor_route_remove(int actor_id) REQUIRES(irq_mask);

/// Begins the proof of a message from another node.
void actor_proof_begin(const actor_t& to, const actor_delivery_t& delivery, uint32_t anchor_event,
                       const char* anchor_desc, uint32_t send_event, const char* send_desc)
    REQUIRES(irq_mask);

/// Completes the proof of a message that was received, if it has one.
void actor_proof_complete(const char* actor_name, const actor_msg_t& msg, uint32_t recv_event,
                          const char* recv_desc);
