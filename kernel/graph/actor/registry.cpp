// The registry of actors, and who watches whom.
#include "kernel/core/string.h"
#include "kernel/graph/actor/internal.h"

namespace {

constexpr pid_t SYSTEM_OWNER = -1;

void record_registration(const actor_t& actor) {
    causal_event_fmt(CAUSAL_ACTOR, "actor", "register name=%s id=%u", actor.name, actor.id);
}

actor_t* register_locked(const char* name, pid_t owner) REQUIRES(irq_mask) {
    char cut[ACTOR_NAME_SIZE] = {};
    string_copy(cut, name != nullptr ? name : "", sizeof cut);
    if (cut[0] == '\0' || actor_by_name(cut) != nullptr)
        return nullptr;
    for (actor_t& slot : actor_tables.actors) {
        if (slot.active)
            continue;
        memset(&slot, 0, sizeof slot);
        slot.id = actor_tables.next_actor_id++;
        memcpy(slot.name, cut, sizeof cut);
        slot.active = true;
        slot.owner_pid = owner;
        for (actor_edge_t& edge : slot.edges)
            edge.dest_id = -1;
        record_registration(slot);
        actor_route_add(slot);
        return &slot;
    }
    return nullptr;
}

/// Takes `watcher_id` out of an actor's watchers; false when it was none.
bool forget_watcher(actor_t& actor, int watcher_id) {
    for (int i = 0; i < actor.watcher_count; ++i) {
        if (actor.watchers[i] != watcher_id)
            continue;
        --actor.watcher_count;
        memmove(&actor.watchers[i], &actor.watchers[i + 1],
                static_cast<size_t>(actor.watcher_count - i) * sizeof actor.watchers[0]);
        return true;
    }
    return false;
}

actor_watch_notice_t notice_of(const actor_t& actor, actor_gone_t reason) {
    actor_watch_notice_t notice = {};
    notice.reason = reason;
    memcpy(notice.name, actor.name, sizeof notice.name);
    notice.actor_id = actor.id;
    return notice;
}

void close_locked(actor_t* actor) REQUIRES(irq_mask) {
    for (actor_t& other : actor_tables.actors) {
        if (other.active)
            forget_watcher(other, static_cast<int>(actor->id));
    }
    actor->mb_head = actor->mb_tail = actor->mb_count = 0;
    actor->active = false;
}

/// Tells the watchers while the actor is still there, then removes it. Who begins to watch it while
/// they are told is told as well.
void retire(int actor_id, actor_gone_t reason) {
    for (;;) {
        actor_watch_notice_t notice;
        int32_t watchers[ACTOR_WATCHERS_MAX];
        int32_t count;
        {
            const irq_guard guard;
            actor_t* actor = actor_by_id(actor_id);
            if (actor == nullptr)
                return;
            actor_route_remove(actor_id);
            count = actor->watcher_count;
            if (count == 0) {
                close_locked(actor);
                return;
            }
            memcpy(watchers, actor->watchers, sizeof watchers);
            actor->watcher_count = 0;
            notice = notice_of(*actor, reason);
        }
        for (int32_t i = 0; i < count; ++i)
            actor_send(watchers[i], ACTOR_MSG_WATCH, &notice, sizeof notice);
    }
}

/// What a new watcher may have to be told at once.
struct watch_t {
    bool remote;  ///< the target is, and the watcher is new
    uint32_t node_hash;
    actor_watch_notice_t notice;
};

/// Adds a watcher; false when one is unknown or there is no room.
bool add_watcher(int watcher_id, int target_id, watch_t* watch) {
    const irq_guard guard;
    actor_t* target = actor_by_id(target_id);
    if (target == nullptr || actor_by_id(watcher_id) == nullptr)
        return false;
    watch->remote = false;
    for (int i = 0; i < target->watcher_count; ++i) {
        if (target->watchers[i] == watcher_id)
            return true;
    }
    if (target->watcher_count == ACTOR_WATCHERS_MAX)
        return false;
    target->watchers[target->watcher_count++] = watcher_id;
    *watch = {target->remote, target->node_hash, notice_of(*target, ACTOR_GONE_NODE_DOWN)};
    return true;
}

bool node_is_alive(uint32_t node_hash) {
    const actor_remote_hooks_t* remote;
    {
        const irq_guard guard;
        remote = actor_tables.remote;
    }
    return remote != nullptr && remote->peer_alive(node_hash);
}

actor_stats_t stats_of(const actor_t& a) {
    return {a.msgs_sent, a.msgs_received, a.last_send_tick, a.last_recv_tick, a.mb_count, a.remote};
}

}  // namespace

actor_t* actor_by_id(int actor_id) {
    for (actor_t& slot : actor_tables.actors) {
        if (slot.active && slot.id == static_cast<uint32_t>(actor_id))
            return &slot;
    }
    return nullptr;
}

actor_t* actor_by_name(const char* name) {
    for (actor_t& slot : actor_tables.actors) {
        if (slot.active && strcmp(slot.name, name) == 0)
            return &slot;
    }
    return nullptr;
}

void actor_init() {
    {
        const irq_guard guard;
        memset(&actor_tables, 0, sizeof actor_tables);
        actor_tables.next_actor_id = 1;
    }
    actor_register(ACTOR_DEAD_LETTER, SYSTEM_OWNER);
}

void actor_set_remote_hooks(const actor_remote_hooks_t* hooks) {
    const irq_guard guard;
    actor_tables.remote = hooks;
}

int actor_register(const char* name, pid_t owner) {
    const irq_guard guard;
    const actor_t* actor = register_locked(name, owner);
    return actor != nullptr ? static_cast<int>(actor->id) : -1;
}

int actor_register_remote(const char* name, uint32_t node_hash) {
    const irq_guard guard;
    actor_t* actor = register_locked(name, SYSTEM_OWNER);
    if (actor == nullptr)
        return -1;
    actor->remote = true;
    actor->node_hash = node_hash;
    return static_cast<int>(actor->id);
}

void actor_unregister(int actor_id) { retire(actor_id, ACTOR_GONE_UNREGISTERED); }

void actor_notify_disconnect(uint32_t node_hash) {
    for (int i = 0; i < ACTOR_MAX; ++i) {
        int actor_id;
        {
            const irq_guard guard;
            const actor_t& slot = actor_tables.actors[i];
            if (!slot.active || !slot.remote || slot.node_hash != node_hash)
                continue;
            actor_id = static_cast<int>(slot.id);
        }
        retire(actor_id, ACTOR_GONE_DISCONNECTED);
    }
}

int actor_find(const char* name) {
    const irq_guard guard;
    const actor_t* actor = name != nullptr ? actor_by_name(name) : nullptr;
    return actor != nullptr ? static_cast<int>(actor->id) : -1;
}

actor_t* actor_get(int actor_id) {
    const irq_guard guard;
    return actor_by_id(actor_id);
}

actor_t* actor_get_slot(int index) {
    const irq_guard guard;
    return index >= 0 && index < ACTOR_MAX ? &actor_tables.actors[index] : nullptr;
}

bool actor_describe(int index, actor_info_t* out) {
    const irq_guard guard;
    if (index < 0 || index >= ACTOR_MAX || !actor_tables.actors[index].active)
        return false;
    const actor_t& actor = actor_tables.actors[index];
    out->id = actor.id;
    memcpy(out->name, actor.name, sizeof out->name);
    out->node_hash = actor.node_hash;
    out->stats = stats_of(actor);
    memcpy(out->edges, actor.edges, sizeof out->edges);
    return true;
}

int actor_count() {
    const irq_guard guard;
    int count = 0;
    for (const actor_t& slot : actor_tables.actors)
        count += slot.active ? 1 : 0;
    return count;
}

void actor_get_stats(int actor_id, actor_stats_t* out) {
    const irq_guard guard;
    const actor_t* actor = actor_by_id(actor_id);
    *out = actor != nullptr ? stats_of(*actor) : actor_stats_t{};
}

int actor_get_edges(int actor_id, actor_edge_t* out, int max) {
    const irq_guard guard;
    const actor_t* actor = actor_by_id(actor_id);
    int count = 0;
    for (int i = 0; actor != nullptr && i < ACTOR_EDGES_MAX && count < max; ++i) {
        if (actor->edges[i].dest_id != -1)
            out[count++] = actor->edges[i];
    }
    return count;
}

int actor_watch(int watcher_id, int target_id) {
    watch_t watch;
    if (!add_watcher(watcher_id, target_id, &watch))
        return -1;
    if (watch.remote && !node_is_alive(watch.node_hash))
        actor_send(watcher_id, ACTOR_MSG_WATCH, &watch.notice, sizeof watch.notice);
    return 0;
}

int actor_unwatch(int watcher_id, int target_id) {
    const irq_guard guard;
    actor_t* target = actor_by_id(target_id);
    return target != nullptr && forget_watcher(*target, watcher_id) ? 0 : -1;
}
