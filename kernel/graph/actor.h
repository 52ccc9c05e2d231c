// Actors: named mailboxes that services, commands and programs send small messages to. Every send
// and every receive is a causal event, so that the graph shows who talked to whom.
//
// An actor is local, or a handle for an actor of another node; what is sent to such a handle goes
// to the remote hooks. Names are resolved through routes, which spread messages over several
// targets. What a name cannot take goes to the actor "dead-letter"; actors that watch another are
// told when it goes away.
//
// All tables are static and change with interrupts masked, a bounded step at a time; nothing here
// allocates, and only actor_recv_wait and a send to another node may wait. Pointers into the tables
// stay readable, but what they show may change at any preemption: who prints takes
// actor_describe(). Events are CAUSAL_ACTOR "actor" unless it says otherwise. Task context.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/core/task.h"
#include "kernel/graph/causal.h"

constexpr int ACTOR_MAX = 64;
constexpr int ACTOR_ROUTES_MAX = 32;
constexpr int ACTOR_ROUTE_TARGETS_MAX = 8;
constexpr uint32_t ACTOR_NAME_SIZE = 32;  ///< with the terminator
constexpr uint32_t ACTOR_MAILBOX_SLOTS = 64;
constexpr uint32_t ACTOR_DATA_MAX = 256;
constexpr int ACTOR_EDGES_MAX = 8;
constexpr int ACTOR_WATCHERS_MAX = 8;
constexpr uint32_t ACTOR_PROOF_SLOTS = 16;
constexpr const char* ACTOR_DEAD_LETTER = "dead-letter";

/// Message types of the system itself.
constexpr uint32_t ACTOR_MSG_WATCH = 0xFFFF0001;        ///< payload: actor_watch_notice_t
constexpr uint32_t ACTOR_MSG_DEAD_LETTER = 0xFFFF0002;  ///< payload: actor_dead_letter_t

/// Why a watched actor is gone.
enum actor_gone_t : uint8_t {
    ACTOR_GONE_NODE_DOWN = 1,  ///< its node was not there when the watch was set
    ACTOR_GONE_UNREGISTERED = 2,
    ACTOR_GONE_DISCONNECTED = 3,  ///< its node went away
};

struct [[gnu::packed]] actor_watch_notice_t {
    uint8_t reason;
    char name[ACTOR_NAME_SIZE];
    uint32_t actor_id;
};
static_assert(sizeof(actor_watch_notice_t) == 37);

struct [[gnu::packed]] actor_dead_letter_t {
    char name[ACTOR_NAME_SIZE];  ///< whom the message was for
    uint32_t type;               ///< of the message
};
static_assert(sizeof(actor_dead_letter_t) == 36);

/// A message. User programs see it as it is.
struct actor_msg_t {
    uint32_t type;
    uint32_t sender_id;  ///< 0: the sender is no actor
    uint32_t len;
    uint8_t data[ACTOR_DATA_MAX];  ///< zero behind `len`
    uint32_t timestamp;            ///< tick of delivery
    uint32_t causal_event;         ///< the send event
    uint32_t sender_node;          ///< 0: this node
    uint32_t remote_causal_id;     ///< the send event on the sender's node, 0: none
};
static_assert(sizeof(actor_msg_t) == 284);
static_assert(offsetof(actor_msg_t, timestamp) == 268);

/// How many messages came from one peer.
struct actor_edge_t {
    int32_t dest_id;  ///< the peer; -1: empty
    uint32_t count;
};

struct actor_t {
    uint32_t id;  ///< never used again
    char name[ACTOR_NAME_SIZE];
    bool active;
    bool remote;
    uint32_t node_hash;  ///< of the node that hosts it; 0: local
    actor_msg_t mailbox[ACTOR_MAILBOX_SLOTS];
    uint16_t mb_head, mb_tail, mb_count;
    uint32_t msgs_received, msgs_sent;
    uint32_t last_send_tick, last_recv_tick;
    actor_edge_t edges[ACTOR_EDGES_MAX];
    pid_t owner_pid;  ///< -1: the system, 0: start-up
    int32_t watchers[ACTOR_WATCHERS_MAX];
    int32_t watcher_count;
};

enum actor_route_policy_t : uint32_t {
    ACTOR_ROUTE_LOCAL_FIRST = 0,
    ACTOR_ROUTE_ROUND_ROBIN = 1,
};

/// What a name leads to.
struct actor_route_t {
    char name[ACTOR_NAME_SIZE];
    actor_route_policy_t policy;
    int32_t targets[ACTOR_ROUTE_TARGETS_MAX];
    int32_t target_count;
    int32_t rr_index;  ///< the target that round robin tries next
    bool active;
};

/// Evidence that a message of another node was delivered and received here.
struct actor_remote_parent_proof_t {
    bool valid;
    char actor_name[ACTOR_NAME_SIZE];
    uint32_t sender_node, remote_causal_id;
    uint64_t remote_lamport;
    uint32_t anchor_event;  ///< the local event that stands for the remote one
    uint32_t send_event;
    uint32_t recv_event;  ///< 0: not received yet
    uint32_t tick;
    uint32_t receipt_hash;
    char anchor_desc[CAUSAL_DESC_SIZE], send_desc[CAUSAL_DESC_SIZE], recv_desc[CAUSAL_DESC_SIZE];
    char remote_subsystem[CAUSAL_SUBSYSTEM_SIZE];
    char remote_desc[CAUSAL_DESC_SIZE];
    uint8_t remote_event_hash[CAUSAL_HASH_SIZE];
    uint32_t remote_event_hash_version;
};

struct actor_stats_t {
    uint32_t send_count, recv_count;
    uint32_t last_send_tick, last_recv_tick;
    uint16_t mailbox_depth;
    bool remote;
};

/// An actor without its mailbox, as it was at one moment.
struct actor_info_t {
    uint32_t id;
    char name[ACTOR_NAME_SIZE];
    uint32_t node_hash;
    actor_stats_t stats;
    actor_edge_t edges[ACTOR_EDGES_MAX];
};

/// What reaches other nodes. Without it no node is alive.
struct actor_remote_hooks_t {
    /// Sends to the actor `name` of a node: 0, -1 no such peer, -2 dropped. May wait.
    int (*send)(const char* name, uint32_t node_hash, uint32_t msg_type, const void* data,
                uint32_t len, uint32_t sender_actor_id);
    bool (*peer_alive)(uint32_t node_hash);
};

// --- Registry ------------------------------------------------------------------------------------

/// Clears all tables and registers "dead-letter", which gets id 1. Start-up, once.
void actor_init();

/// Installs what reaches other nodes (null: nothing).
void actor_set_remote_hooks(const actor_remote_hooks_t* hooks);

/// A new local actor; `name` is cut at 31 characters. Its id; -1 for a null or empty name, one that
/// an active actor has, or a full registry. Gives it a route of its name, or adds it to that route,
/// as long as there is room. Records "register name=%s id=%u".
int actor_register(const char* name, pid_t owner);

/// As actor_register with owner -1: a handle for an actor of another node.
int actor_register_remote(const char* name, uint32_t node_hash);

/// Removes an actor with its routes and queued messages and tells its watchers. An unknown id is
/// left alone.
void actor_unregister(int actor_id);

/// The id of the active actor with exactly this name, else -1.
int actor_find(const char* name);

/// The active actor with this id, else null.
actor_t* actor_get(int actor_id);

/// Slot 0..63, active or not; null for another index.
actor_t* actor_get_slot(int index);

/// Copies what stands in slot `index`; false when no active actor does.
[[nodiscard]] bool actor_describe(int index, actor_info_t* out);

int actor_count();

/// Zeros for an unknown actor.
void actor_get_stats(int actor_id, actor_stats_t* out);

/// Copies at most `max` edges that are not empty; their count.
int actor_get_edges(int actor_id, actor_edge_t* out, int max);

/// One more message that the actor is said to have sent. An unknown id is left alone.
void actor_count_send(int actor_id);

// --- Messages ------------------------------------------------------------------------------------
//
// The sender is the first active actor that the running task owns. Longer data are cut at 256
// bytes; null data are zeros.

/// Sends to one actor: 0; -1 mailbox full; -2 no such actor; to another node the hook's result.
/// Records "send to=%s type=%u len=%u" with an actor_schema_payload_t, nothing when the mailbox is
/// full; to another node CAUSAL_MESH "actor-route" "remote actor send to=%s node=%x type=%u
/// len=%u".
int actor_send(int dest_id, uint32_t msg_type, const void* data, uint32_t len);

/// Delivers a message that came from another node to a local actor: 0, -1 mailbox full, -2 no such
/// local actor. With a remote event's id it records its anchor, CAUSAL_MESH "remote-parent" "remote
/// parent node=%x seq=%u", as the parent of "remote send node=%x actor=%u to=%s type=%u len=%u",
/// and begins a proof. The last four describe the remote event and may be null or 0.
int actor_send_remote(int dest_id, uint32_t msg_type, const void* data, uint32_t len,
                      uint32_t sender_actor_id, uint32_t sender_node, uint32_t remote_causal_id,
                      uint64_t remote_lamport, const char* remote_subsystem,
                      const char* remote_desc, const uint8_t* remote_event_hash,
                      uint32_t remote_event_hash_version);

/// Sends along the route of a name, or to the actor of that name: 0; -1 nobody took it; -2 for a
/// null or unknown name. What is not taken along a route, or has an unknown name, leaves a dead
/// letter.
int actor_send_by_name(const char* dest_name, uint32_t msg_type, const void* data, uint32_t len);

/// Takes the oldest message: 0; -1 for an unknown actor, null or an empty mailbox. Records "recv
/// name=%s type=%u", which follows the running task's current event and the send, and completes the
/// proof of a message from another node.
int actor_recv(int actor_id, actor_msg_t* msg);

/// As actor_recv, but waits up to `timeout_ms` for a message; -1 when none came.
int actor_recv_wait(int actor_id, actor_msg_t* msg, uint32_t timeout_ms);

/// Takes a message that was not received back out of a local actor's mailbox, if it is the newest
/// one there: 0, else -1. `causal_event` is its send event.
int actor_take_back(int actor_id, uint32_t causal_event);

// --- Watching ------------------------------------------------------------------------------------

/// Has `watcher_id` be told when `target_id` goes away (at once when its node is not alive): 0, or
/// -1 when one is unknown or the target has 8 watchers.
int actor_watch(int watcher_id, int target_id);

/// 0, or -1 when the target is unknown or not watched by that actor.
int actor_unwatch(int watcher_id, int target_id);

/// Drops all actors of a node that went away and tells their watchers.
void actor_notify_disconnect(uint32_t node_hash);

// --- Routes --------------------------------------------------------------------------------------

/// 0, or -1 when no route has this name.
int actor_set_route_policy(const char* name, actor_route_policy_t policy);

/// Route 0..31 if it is active, else null.
const actor_route_t* actor_get_route(int index);

int actor_route_count();

// --- Proofs --------------------------------------------------------------------------------------

/// Copies the newest completed proof whose actor's name contains `actor_name` (null or empty: any):
/// 0, or -1 when there is none.
int actor_remote_parent_latest(const char* actor_name, actor_remote_parent_proof_t* out);

/// Sends, receives and checks what was recorded; prints PASS or FAIL.
void actor_payload_selftest();
