// Names and where they lead. Targets are tried outside the guard, since one on another node may
// wait; a target that is gone by then refuses.
#include "kernel/core/string.h"
#include "kernel/graph/actor/internal.h"

namespace {

actor_route_t* find_route(const char* name) REQUIRES(irq_mask) {
    for (actor_route_t& route : actor_tables.routes) {
        if (route.active && strcmp(route.name, name) == 0)
            return &route;
    }
    return nullptr;
}

actor_route_t* make_route(const char* name) REQUIRES(irq_mask) {
    for (actor_route_t& route : actor_tables.routes) {
        if (route.active)
            continue;
        memset(&route, 0, sizeof route);
        string_copy(route.name, name, sizeof route.name);
        route.active = true;
        return &route;
    }
    return nullptr;
}

bool leads_to(const actor_route_t& route, int32_t actor_id) {
    for (int i = 0; i < route.target_count; ++i) {
        if (route.targets[i] == actor_id)
            return true;
    }
    return false;
}

void remove_target(actor_route_t& route, int32_t actor_id) {
    int kept = 0;
    for (int i = 0; i < route.target_count; ++i) {
        if (route.targets[i] != actor_id)
            route.targets[kept++] = route.targets[i];
    }
    if (kept == route.target_count)
        return;
    route.target_count = kept;
    route.active = kept > 0;
    route.rr_index = kept > 0 ? route.rr_index % kept : 0;
}

struct message_t {
    uint32_t type;
    const void* data;
    uint32_t len;
};

bool send_to(int32_t target, const message_t& msg) {
    return actor_send(target, msg.type, msg.data, msg.len) == 0;
}

bool send_to_first(const actor_route_t& route, bool remote, const message_t& msg) {
    for (int i = 0; i < route.target_count; ++i) {
        bool eligible;
        {
            const irq_guard guard;
            const actor_t* target = actor_by_id(route.targets[i]);
            eligible = target != nullptr && target->remote == remote;
        }
        if (eligible && send_to(route.targets[i], msg))
            return true;
    }
    return false;
}

bool send_in_turn(const actor_route_t& route, const message_t& msg) {
    for (int i = 0; i < route.target_count; ++i) {
        const int at = (route.rr_index + i) % route.target_count;
        if (!send_to(route.targets[at], msg))
            continue;
        const irq_guard guard;
        actor_route_t* now = find_route(route.name);
        if (now != nullptr)
            now->rr_index = (at + 1) % now->target_count;
        return true;
    }
    return false;
}

void leave_dead_letter(const char* name, uint32_t type) {
    actor_dead_letter_t letter = {};
    string_copy(letter.name, name, sizeof letter.name);
    letter.type = type;
    const int keeper = actor_find(ACTOR_DEAD_LETTER);
    if (keeper >= 0)
        actor_send(keeper, ACTOR_MSG_DEAD_LETTER, &letter, sizeof letter);
}

int send_without_route(const char* name, const message_t& msg) {
    const int actor_id = actor_find(name);
    if (actor_id >= 0)
        return actor_send(actor_id, msg.type, msg.data, msg.len);
    leave_dead_letter(name, msg.type);
    return -2;
}

}  // namespace

void actor_route_add(const actor_t& actor) {
    actor_route_t* route = find_route(actor.name);
    if (route == nullptr)
        route = make_route(actor.name);
    const auto id = static_cast<int32_t>(actor.id);
    if (route != nullptr && route->target_count < ACTOR_ROUTE_TARGETS_MAX && !leads_to(*route, id))
        route->targets[route->target_count++] = id;
}

void actor_route_remove(int actor_id) {
    for (actor_route_t& route : actor_tables.routes) {
        if (route.active)
            remove_target(route, actor_id);
    }
}

int actor_send_by_name(const char* dest_name, uint32_t msg_type, const void* data, uint32_t len) {
    if (dest_name == nullptr)
        return -2;
    const message_t msg = {msg_type, data, len};
    actor_route_t route = {};
    {
        const irq_guard guard;
        const actor_route_t* found = find_route(dest_name);
        if (found != nullptr)
            route = *found;
    }
    if (route.target_count == 0)
        return send_without_route(dest_name, msg);
    const bool taken = route.policy == ACTOR_ROUTE_ROUND_ROBIN
                           ? send_in_turn(route, msg)
                           : send_to_first(route, false, msg) || send_to_first(route, true, msg);
    if (taken)
        return 0;
    leave_dead_letter(dest_name, msg_type);
    return -1;
}

int actor_set_route_policy(const char* name, actor_route_policy_t policy) {
    const irq_guard guard;
    actor_route_t* route = name != nullptr ? find_route(name) : nullptr;
    if (route == nullptr)
        return -1;
    route->policy = policy;
    return 0;
}

const actor_route_t* actor_get_route(int index) {
    const irq_guard guard;
    const bool known = index >= 0 && index < ACTOR_ROUTES_MAX && actor_tables.routes[index].active;
    return known ? &actor_tables.routes[index] : nullptr;
}

int actor_route_count() {
    const irq_guard guard;
    int count = 0;
    for (const actor_route_t& route : actor_tables.routes)
        count += route.active ? 1 : 0;
    return count;
}
