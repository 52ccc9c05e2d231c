#include "kernel/graph/actor.h"

#include <cstring>
#include <numeric>

#include "kernel/core/noise.h"
#include "kernel/graph/causal_schema.h"
#include "tests/unit/graph/causal_fixture.h"

namespace {

using texts_t = std::vector<std::string>;

struct outside_t {
    bool alive = true;
    int result = 0;
    texts_t sent;
};

class Actors : public causal_fixture {
protected:
    static constexpr pid_t SYSTEM = -1;
    static constexpr uint32_t NODE = 0xABCD;

    static inline outside_t outside;

    void SetUp() override {
        causal_fixture::SetUp();
        run_task();
        outside = {};
        actor_init();
        static constexpr actor_remote_hooks_t HOOKS = {
            [](const char* name, uint32_t node, uint32_t type, const void*, uint32_t len,
               uint32_t sender) {
                outside.sent.push_back(std::string(name) + " " + std::to_string(node) + " " +
                                       std::to_string(type) + " " + std::to_string(len) + " " +
                                       std::to_string(sender));
                return outside.result;
            },
            [](uint32_t node) { return outside.alive && node == NODE; }};
        actor_set_remote_hooks(&HOOKS);
    }
    static void run_as(pid_t pid) { running_by_cpu[0].pid = pid; }
    static int send(int to, const std::string& text, uint32_t type = 7) {
        return actor_send(to, type, text.data(), static_cast<uint32_t>(text.size()));
    }
    /// The texts that wait in a mailbox, which is empty then.
    static texts_t drain(int actor_id) {
        texts_t texts;
        actor_msg_t msg;
        while (actor_recv(actor_id, &msg) == 0)
            texts.emplace_back(reinterpret_cast<const char*>(msg.data), msg.len);
        return texts;
    }
    static int fill(int actor_id) {
        int sent = 0;
        while (send(actor_id, std::to_string(sent)) == 0)
            ++sent;
        return sent;
    }
    static actor_msg_t receive(int actor_id) {
        actor_msg_t msg = {};
        EXPECT_EQ(actor_recv(actor_id, &msg), 0);
        return msg;
    }
    static std::string desc(uint32_t id) { return causal_get(id)->desc; }
    static std::string notice(int actor_id) {
        const actor_msg_t msg = receive(actor_id);
        EXPECT_EQ(msg.type, 0xFFFF0001u);
        EXPECT_EQ(msg.len, 37u);
        uint32_t id;
        memcpy(&id, msg.data + 33, sizeof id);
        return std::to_string(msg.data[0]) + " " + reinterpret_cast<const char*>(msg.data + 1) +
               " " + std::to_string(id);
    }
};

TEST_F(Actors, NamesAreUniqueAndIdsAreNotUsedAgain) {
    EXPECT_EQ(actor_find("dead-letter"), 1);
    EXPECT_EQ(actor_register(nullptr, 0), -1);
    EXPECT_EQ(actor_register("", 0), -1);
    const std::string longest(31, 'n');
    EXPECT_EQ(actor_register((longest + "x").c_str(), 4), 2);
    EXPECT_EQ(desc(causal_total_events()), "register name=" + longest + " id=2");
    EXPECT_EQ(actor_register((longest + "y").c_str(), 4), -1);
    EXPECT_EQ(actor_find(longest.c_str()), 2);
    actor_unregister(2);
    actor_unregister(2);
    EXPECT_EQ(actor_register(longest.c_str(), 4), 3);
    EXPECT_EQ(actor_get(2), nullptr);

    for (int i = actor_count(); i < ACTOR_MAX; ++i)
        EXPECT_GT(actor_register(("a" + std::to_string(i)).c_str(), 0), 0);
    EXPECT_EQ(actor_register("one too many", 0), -1);
    EXPECT_EQ(actor_register_remote("one too many", NODE), -1);
    EXPECT_EQ(actor_route_count(), ACTOR_ROUTES_MAX);
    EXPECT_EQ(actor_send_by_name("a63", 1, "x", 1), 0) << "without a route";
    actor_unregister(actor_find("a5"));
    EXPECT_EQ(actor_route_count(), ACTOR_ROUTES_MAX - 1);
    EXPECT_EQ(actor_get_slot(ACTOR_MAX), nullptr);
    EXPECT_EQ(actor_get_slot(-1), nullptr);
    EXPECT_FALSE(actor_get_slot(5)->active);
}

TEST_F(Actors, MailboxesKeepOrderAndRefuseWhatTheyCannotHold) {
    const int a = actor_register("a", SYSTEM);
    EXPECT_EQ(send(99, "x"), -2);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(fill(a), 64);
        const uint32_t events = causal_total_events();
        EXPECT_EQ(send(a, "65th"), -1);
        EXPECT_EQ(causal_total_events(), events);
        for (int i = 0; i < 40; ++i)
            EXPECT_EQ(std::string(reinterpret_cast<char*>(receive(a).data)), std::to_string(i));
        EXPECT_EQ(drain(a).back(), "63");
    }
    actor_msg_t msg;
    EXPECT_EQ(actor_recv(a, &msg), -1);
    EXPECT_EQ(actor_recv(99, &msg), -1);
    EXPECT_EQ(send(a, std::string(300, 'z')), 0);
    EXPECT_EQ(actor_recv(a, nullptr), -1);
    EXPECT_EQ(drain(a), texts_t{std::string(256, 'z')});
    EXPECT_EQ(actor_send(a, 1, nullptr, 9), 0);
    EXPECT_EQ(drain(a), texts_t{std::string(9, '\0')}) << "nothing of older messages shows";

    EXPECT_EQ(send(a, "kept"), 0);
    EXPECT_EQ(send(a, "gone"), 0);
    const uint32_t newest = causal_get_current();
    EXPECT_EQ(actor_take_back(a, newest - 1), -1);
    EXPECT_EQ(actor_take_back(a, newest), 0);
    EXPECT_EQ(drain(a), texts_t{"kept"});

    task_init();
    machine().interrupts_on = true;
    machine().on_hlt = [a] {
        system_ticks = system_ticks + 1;
        if (system_ticks == 3)
            send(a, "late");
    };
    EXPECT_EQ(actor_recv_wait(a, &msg, 25), -1);
    EXPECT_EQ(system_ticks, 2u);
    EXPECT_EQ(actor_recv_wait(a, &msg, 0), 0);
}

TEST_F(Actors, SendAndReceiveAreEventsThatFollowEachOther) {
    const int to = actor_register("to", SYSTEM);
    const int from = actor_register("from", 9);
    actor_register("from-too", 9);
    run_as(9);
    system_ticks = 55;
    const uint32_t before = causal_get_current();
    ASSERT_EQ(send(to, "hi", 77), 0);
    const uint32_t sent = causal_get_current();
    EXPECT_EQ(desc(sent), "send to=to type=77 len=2");
    EXPECT_EQ(parents(sent), ids_t{before});
    const auto payload = [](uint32_t id) {
        const causal_event_t* ev = causal_get(id);
        std::vector<uint32_t> words(14);
        EXPECT_EQ(ev->payload_len, 56u);
        memcpy(words.data(), ev->payload, 56);
        return words;
    };
    const auto self = static_cast<uint32_t>(to);
    const auto peer = static_cast<uint32_t>(from);
    ids_t wanted = {0x10004, self, peer, 0, 77, 2, 'o' * 256u + 't', 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(payload(sent), wanted);

    run_as(3);
    task_ctx = 0;
    const uint32_t other = emit();
    const actor_msg_t msg = receive(to);
    EXPECT_EQ(msg.sender_id, peer);
    EXPECT_EQ(msg.timestamp, 55u);
    const uint32_t received = causal_get_current();
    EXPECT_EQ(desc(received), "recv name=to type=77");
    EXPECT_EQ(parents(received), (ids_t{other, sent}));
    wanted[0] = 0x10005;
    EXPECT_EQ(payload(received), wanted);
    EXPECT_EQ(causal_get(received)->schema_id, CAUSAL_SCHEMA_ACTOR_RECV);

    actor_stats_t stats;
    actor_get_stats(from, &stats);
    EXPECT_EQ(stats.last_send_tick, 55u);
    actor_get_stats(99, &stats);
    EXPECT_EQ(stats.recv_count, 0u);

    EXPECT_NE(run([](int, char**) { actor_payload_selftest(); })
                  .find("  Actor: send type=2577 len=3\n  Actor: recv type=2577 len=3\nactor "
                        "payload-test: PASS send=actor.send recv=actor.recv delivery=yes\n"),
              std::string::npos);
    EXPECT_EQ(actor_find("__actor_payload"), -1);
}

TEST_F(Actors, EdgesKeepTheBusiestSenders) {
    const int to = actor_register("to", SYSTEM);
    std::vector<int> senders;
    for (int i = 0; i < 9; ++i)
        senders.push_back(actor_register(("s" + std::to_string(i)).c_str(), 10 + i));
    const auto send_as = [&](int i) {
        run_as(10 + i);
        EXPECT_EQ(send(to, "m"), 0);
    };
    for (int i = 0; i < 8; ++i)
        for (int n = 0; n < (i == 3 || i == 5 ? 1 : 2); ++n)
            send_as(i);
    send_as(8);
    actor_edge_t edges[8];
    ASSERT_EQ(actor_get_edges(to, edges, 8), 8);
    EXPECT_EQ(edges[3].dest_id, senders[8]) << "the first of the least busy ones makes room";
    EXPECT_EQ(edges[3].count, 1u);
    EXPECT_EQ(edges[5].dest_id, senders[5]);
    EXPECT_EQ(edges[7].count, 2u);
    EXPECT_EQ(actor_get_edges(to, edges, 3), 3);
}

TEST_F(Actors, NamesLeadAlongRoutes) {
    const int first = actor_register("svc", SYSTEM);
    // Names are unique: a route gets further ones by way of names that were free for a while.
    actor_route_t* route = const_cast<actor_route_t*>(actor_get_route(1));
    ASSERT_STREQ(route->name, "svc");
    std::vector<int> ids = {first};
    for (const char* name : {"svc-b", "svc-c"})
        ids.push_back(actor_register(name, SYSTEM));
    const int far = actor_register_remote("svc-far", NODE);
    route->targets[1] = far;
    route->targets[2] = ids[1];
    route->targets[3] = ids[2];
    route->target_count = 4;

    // Local ones in order, then the remote one.
    EXPECT_EQ(actor_send_by_name("svc", 1, "a", 1), 0);
    EXPECT_EQ(drain(first), texts_t{"a"});
    for (const int id : ids)
        EXPECT_EQ(fill(id), 64);
    EXPECT_EQ(actor_send_by_name("svc", 5, "abc", 3), 0);
    EXPECT_EQ(outside.sent, texts_t{"svc-far 43981 5 3 0"});
    EXPECT_EQ(desc(causal_get_current()), "remote actor send to=svc-far node=abcd type=5 len=3");
    outside.result = -2;
    EXPECT_EQ(actor_send_by_name("svc", 5, "abc", 3), -1);
    EXPECT_EQ(drain(1).size(), 1u);

    // In turn, past the one that is full.
    EXPECT_EQ(actor_set_route_policy("svc", ACTOR_ROUTE_ROUND_ROBIN), 0);
    EXPECT_EQ(actor_set_route_policy("none", ACTOR_ROUTE_ROUND_ROBIN), -1);
    drain(ids[1]);
    drain(ids[2]);
    for (const auto& [id, index] : {std::pair{ids[1], 3}, {ids[2], 0}}) {
        EXPECT_EQ(actor_send_by_name("svc", 1, "b", 1), 0);
        EXPECT_EQ(route->rr_index, index);
        EXPECT_EQ(drain(id), texts_t{"b"});
    }
    actor_unregister(ids[2]);
    actor_unregister(far);
    EXPECT_EQ(route->target_count, 2);
    actor_unregister(ids[1]);
    actor_unregister(first);
    EXPECT_FALSE(route->active);

    EXPECT_EQ(actor_send_by_name(nullptr, 1, "x", 1), -2);
    EXPECT_EQ(actor_send_by_name("nobody", 0x123, "x", 1), -2);
    const actor_msg_t letter = receive(1);
    EXPECT_EQ(letter.type, 0xFFFF0002u);
    EXPECT_EQ(letter.len, 36u);
    EXPECT_EQ(memcmp(letter.data, "nobody\0", 7), 0);
    EXPECT_EQ(letter.data[32] + 256 * letter.data[33], 0x123);
}

TEST_F(Actors, WatchersAreToldWhoIsGone) {
    const int watcher = actor_register("w", SYSTEM);
    const int target = actor_register("t", SYSTEM);
    const std::string target_id = std::to_string(target);
    EXPECT_EQ(actor_watch(99, target) + actor_watch(watcher, 99) + actor_unwatch(watcher, target),
              -3);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(actor_watch(watcher, target), 0);
    for (int i = 0; i < 7; ++i)
        EXPECT_EQ(actor_watch(actor_register(("w" + std::to_string(i)).c_str(), 0), target), 0);
    const int ninth = actor_register("ninth", SYSTEM);
    EXPECT_EQ(actor_watch(ninth, target), -1);
    EXPECT_EQ(actor_unwatch(actor_find("w3"), target), 0);
    EXPECT_EQ(actor_watch(ninth, target), 0);
    actor_unregister(actor_find("w4"));
    EXPECT_EQ(actor_get(target)->watcher_count, 7);
    send(target, "queued");
    actor_unregister(target);
    EXPECT_EQ(notice(watcher), "2 t " + target_id);
    EXPECT_EQ(notice(ninth), "2 t " + target_id);
    EXPECT_TRUE(drain(watcher).empty());
    EXPECT_TRUE(drain(actor_find("w3")).empty());

    const int far = actor_register_remote("far", NODE);
    const int farther = actor_register_remote("farther", NODE + 1);
    EXPECT_EQ(actor_watch(watcher, far), 0);
    EXPECT_TRUE(drain(watcher).empty());
    EXPECT_EQ(actor_watch(watcher, farther), 0);
    EXPECT_EQ(notice(watcher), "1 farther " + std::to_string(farther));
    actor_notify_disconnect(NODE);
    EXPECT_EQ(notice(watcher), "3 far " + std::to_string(far));
    EXPECT_EQ(actor_find("far"), -1);
    EXPECT_EQ(actor_find("farther"), farther);
    actor_set_remote_hooks(nullptr);
    EXPECT_EQ(send(farther, "x"), -1);
}

TEST_F(Actors, MessagesOfOtherNodesLeaveProofs) {
    const int to = actor_register("inbox", SYSTEM);
    actor_remote_parent_proof_t proof;
    EXPECT_EQ(actor_remote_parent_latest(nullptr, &proof), -1);
    uint8_t hash[32];
    std::iota(hash, hash + 32, uint8_t{1});
    const auto arrive = [&](uint32_t remote_id) {
        return actor_send_remote(to, 7, "data", 4, 12, NODE, remote_id, 0x1122334455ull, "actor",
                                 "what happened there", hash, 4);
    };
    ASSERT_EQ(arrive(900), 0);
    EXPECT_EQ(actor_remote_parent_latest(nullptr, &proof), -1) << "not received yet";
    const uint32_t sent = causal_get_current();
    EXPECT_EQ(desc(sent), "remote send node=abcd actor=12 to=inbox type=7 len=4");
    EXPECT_EQ(parents(sent), ids_t{sent - 1});
    EXPECT_EQ(desc(sent - 1), "remote parent node=abcd seq=900");
    system_ticks = 31;
    const actor_msg_t msg = receive(to);
    EXPECT_EQ(msg.sender_node, NODE);
    EXPECT_EQ(msg.remote_causal_id, 900u);
    ASSERT_EQ(actor_remote_parent_latest("nbo", &proof), 0);
    EXPECT_EQ(actor_remote_parent_latest("outbox", &proof), -1);
    EXPECT_EQ(proof.recv_event, causal_get_current());

    const uint32_t head[] = {NODE, 900, 0x22334455, 0x11, sent - 1, sent, proof.recv_event, 31};
    const uint32_t version = 4;
    std::string image(reinterpret_cast<const char*>(head), sizeof head);
    const std::pair<std::string, size_t> texts[] = {
        {"inbox", 32}, {desc(sent - 1), 80},       {desc(sent), 80}, {"recv name=inbox type=7", 80},
        {"actor", 16}, {"what happened there", 80}};
    for (const auto& [text, size] : texts)
        image += text + std::string(size - text.size(), '\0');
    image.append(reinterpret_cast<const char*>(hash), sizeof hash);
    image.append(reinterpret_cast<const char*>(&version), sizeof version);
    ASSERT_EQ(image.size(), 436u);
    uint8_t digest[32];
    blake2s(digest, reinterpret_cast<const uint8_t*>(image.data()), 436);
    EXPECT_EQ(memcmp(&proof.receipt_hash, digest, 4), 0);

    // Sixteen messages later the ring holds the last completed proof no more.
    for (uint32_t i = 0; i < 17; ++i)
        EXPECT_EQ(arrive(1000 + i), 0);
    ASSERT_EQ(actor_remote_parent_latest("", &proof), 0);
    EXPECT_EQ(proof.remote_causal_id, 900u);
    receive(to);  // its link is gone
    ASSERT_EQ(actor_remote_parent_latest("", &proof), 0);
    EXPECT_EQ(proof.remote_causal_id, 900u);
    receive(to);
    ASSERT_EQ(actor_remote_parent_latest("", &proof), 0);
    EXPECT_EQ(proof.remote_causal_id, 1001u);

    EXPECT_EQ(arrive(0), 0);
    EXPECT_EQ(causal_get(causal_get_current())->num_parents, 1) << "no anchor: follows the task";
    EXPECT_EQ(actor_send_remote(actor_register_remote("far", NODE), 1, nullptr, 0, 0, NODE, 0, 0,
                                nullptr, nullptr, nullptr, 0),
              -2);
}

}  // namespace
