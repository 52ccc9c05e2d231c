// What there is: actors, routes, and the map of both.
#include "kernel/apps/cmd_actors.h"
#include "kernel/core/guards.h"
#include "kernel/core/interrupt.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/drivers/console.h"
#include "kernel/graph/actor.h"

namespace {

constexpr uint32_t ACTIVE_TICKS = 500;

const char* where(const actor_info_t& actor) { return actor.stats.remote ? "remote" : "local"; }

void print_actor(const actor_info_t& a) {
    const actor_stats_t& s = a.stats;
    if (s.remote)
        kprintf("  %2u  %-14s  %-7s  %08x  %7u  %8u  %u/%u\n", a.id, a.name, where(a), a.node_hash,
                s.recv_count, s.send_count, s.mailbox_depth, ACTOR_MAILBOX_SLOTS);
    else
        kprintf("  %2u  %-14s  %-7s  -         %7u  %8u  %u/%u\n", a.id, a.name, where(a),
                s.recv_count, s.send_count, s.mailbox_depth, ACTOR_MAILBOX_SLOTS);
}

/// Calls visit(info) for each active actor in slot order; their number.
template <typename visit_fn>
int each_actor(visit_fn visit) {
    actor_info_t info;
    int count = 0;
    for (int i = 0; i < ACTOR_MAX; ++i) {
        if (!actor_describe(i, &info))
            continue;
        visit(info);
        ++count;
    }
    return count;
}

/// Copies route `index` as it is at one moment.
bool copy_route(int index, actor_route_t* out) {
    const irq_guard guard;
    const actor_route_t* route = actor_get_route(index);
    if (route == nullptr)
        return false;
    *out = *route;
    return true;
}

void print_route(const actor_route_t& route) {
    kprintf("  %-20s %-12s", route.name,
            route.policy == ACTOR_ROUTE_ROUND_ROBIN ? "round-robin" : "local-first");
    for (int i = 0; i < route.target_count; ++i) {
        const actor_t* target = actor_get(route.targets[i]);
        if (target != nullptr)
            kprintf(" %s(%d)", target->remote ? "R" : "L", route.targets[i]);
    }
    kprintf("\n");
}

// --- The map ---

bool is_dead_letter(const actor_info_t& a) { return strcmp(a.name, ACTOR_DEAD_LETTER) == 0; }

const char* status_of(const actor_info_t& a) {
    const actor_stats_t& s = a.stats;
    if (is_dead_letter(a) && s.recv_count > 0)
        return ACTOR_DEAD_LETTER;
    const auto recent = [](uint32_t count, uint32_t tick) {
        return count > 0 && system_ticks - tick < ACTIVE_TICKS;
    };
    return recent(s.send_count, s.last_send_tick) || recent(s.recv_count, s.last_recv_tick)
               ? "active"
               : "idle";
}

void set_color(uint8_t color) { console_set_color(color, CONSOLE_BLACK); }

void print_heading(const char* title) {
    set_color(CONSOLE_BRIGHT_CYAN);
    kprintf("\n  %s\n", title);
    set_color(CONSOLE_GREY);
    kprintf("  ------------------------------------------------------------------\n");
}

void print_row(const actor_info_t& a) {
    const char* status = status_of(a);
    set_color(*status == 'a' ? CONSOLE_BRIGHT_GREEN
                             : (*status == 'd' ? CONSOLE_BRIGHT_RED : CONSOLE_GREY));
    kprintf("  %2u  %-14s  %-7s  %4u  %4u  %3u/%-3u  %s\n", a.id, a.name, where(a),
            a.stats.send_count, a.stats.recv_count, a.stats.mailbox_depth, ACTOR_MAILBOX_SLOTS,
            status);
    set_color(CONSOLE_GREY);
}

void print_flow(const actor_edge_t& edge, const char* receiver) {
    const actor_t* sender = actor_get(edge.dest_id);
    kprintf("  %-14s", sender != nullptr ? sender->name : "(gone)");
    set_color(CONSOLE_YELLOW);
    kprintf(" → ");
    set_color(CONSOLE_GREY);
    kprintf("%-14s  (%u msgs)\n", receiver, edge.count);
}

void print_flows() {
    int flows = 0;
    each_actor([&flows](const actor_info_t& a) {
        for (const actor_edge_t& edge : a.edges) {
            if (edge.dest_id == -1)
                continue;
            print_flow(edge, a.name);
            ++flows;
        }
    });
    if (flows == 0)
        kprintf("  (no message edges recorded yet)\n");
}

void print_summary() {
    int messages = 0;
    int remote = 0;
    int dead_letters = 0;
    const int actors = each_actor([&](const actor_info_t& a) {
        messages += static_cast<int>(a.stats.send_count + a.stats.recv_count);
        remote += a.stats.remote ? 1 : 0;
        if (is_dead_letter(a))
            dead_letters = static_cast<int>(a.stats.recv_count);
    });
    kprintf("  Actors: %d  |  Messages: %d  |  Remote: %d  |  Dead-letter: %d\n", actors, messages,
            remote, dead_letters);
}

}  // namespace

void cmd_actors(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "payload-test") == 0) {
        actor_payload_selftest();
        return;
    }
    if (argc > 1) {
        kprintf("Usage: actors [payload-test]\n");
        return;
    }
    kprintf("  ID  Name            Type     Node      Msgs In  Msgs Out  Mailbox\n");
    kprintf("  --  ----            ----     ----      -------  --------  -------\n");
    kprintf("Total: %d active actors\n", each_actor(print_actor));
}

void cmd_routes(int, char**) {
    kprintf("  %-20s %-12s Targets\n", "Name", "Policy");
    kprintf("  %-20s %-12s --------\n", "----", "------");
    actor_route_t route;
    for (int i = 0; i < ACTOR_ROUTES_MAX; ++i) {
        if (copy_route(i, &route))
            print_route(route);
    }
}

void cmd_actormap(int, char**) {
    print_heading("Actor Topology Map");
    kprintf("  ID  Name            Type     Sent  Recv  Mailbox  Status\n");
    each_actor(print_row);
    print_heading("Message Flows");
    print_flows();
    print_heading("Summary");
    print_summary();
}
