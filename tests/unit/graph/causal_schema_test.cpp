#include "kernel/graph/causal_schema.h"

#include <cstring>
#include <random>
#include <set>

#include "kernel/apps/cmd_schema.h"
#include "tests/unit/graph/causal_fixture.h"

namespace {

/// The rules of inference in their plainest form.
uint32_t plain_infer(uint32_t type, const std::string& sub, const std::string& desc) {
    const auto is = [&](uint32_t t, const std::set<std::string>& s) {
        return type == t || s.contains(sub);
    };
    const auto has = [&](const char* s) { return desc.find(s) != std::string::npos; };
    const auto begins = [&](const char* s) { return desc.starts_with(s); };
    // clang-format off
    return is(CAUSAL_SYSCALL, {"syscall"}) ? 1
         : is(CAUSAL_ACTOR, {"actor"}) ? begins("recv ") || has("recv name=") ? 5
                                       : begins("send ") || begins("remote send ") ? 4 : 0
         : is(CAUSAL_FS, {"fs", "vofs"}) ? has("create") ? 7
                                         : has("write") || has("append") ? 6 : 0
         : is(CAUSAL_NET, {"net", "tcp", "udp"}) ? 8
         : is(CAUSAL_MESH, {"mesh", "federation", "remote-parent"}) ? 9
         : is(99, {"timeline", "tl"}) ? 10 : is(99, {"cap", "capability"}) ? 11
         : is(CAUSAL_SCHED, {"sched"}) ? has("create") ? 2 : has("exit") ? 3 : 0 : 0;
    // clang-format on
}

TEST(CausalSchema, InferenceAgreesWithThePlainRules) {
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    // clang-format off
    const char* const subs[] = {"syscall", "actor", "fs", "vofs", "net", "tcp", "udp", "mesh",
        "federation", "remote-parent", "timeline", "tl", "cap", "capability", "sched", "io", ""};
    const char* const bits[] = {"create", "creat", "write", "writ", "append", "appen", "exit",
        "exi", "recv ", "recv name=", "send ", "remote send ", "c", "x", "p", "w", "\xe2", " "};
    // clang-format on
    const auto pick = [&random](const auto& from) { return from[random() % std::size(from)]; };
    for (int round = 0; round < 100000; round++) {
        std::string sub = pick(subs);
        if (random() % 4 == 0)
            sub = (sub + "aetn-m"[random() % 6]).substr(0, 15);
        std::string desc(random() % 3 == 0 ? random() % 80 : 0, '.');
        while (random() % 4 != 0)
            desc += pick(bits);
        desc = desc.substr(0, 79);
        causal_event_t ev;
        memset(&ev, "\0ecx"[random() % 4], sizeof ev);
        strcpy(ev.subsystem, sub.c_str());
        strcpy(ev.desc, desc.c_str());
        if (desc.size() < 70 && random() % 2 == 0)
            strcpy(ev.desc + desc.size() + 1, "create");
        ev.type = static_cast<causal_type_t>(random() % 12);
        causal_event_assign_schema(&ev);
        ASSERT_EQ(ev.schema_id, plain_infer(ev.type, sub, desc))
            << ev.type << " '" << sub << "' '" << desc << "' seed " << seed;
        ASSERT_EQ(ev.schema_version, 1u);
    }
}

class SchemaCommand : public causal_fixture {};

TEST_F(SchemaCommand, ListsAllOrShowsOneByNumberOrName) {
    const std::string list = run(cmd_schema);
    EXPECT_TRUE(
        list.starts_with("Causal Schemas:\n  ID  VER  PROV      NAME\n"
                         "  0   1    Activity  legacy.text\n"));
    EXPECT_TRUE(list.ends_with("\n  11  1    Activity  cap.grant\n"));
    EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 14);
    EXPECT_EQ(run(cmd_schema, {"list"}), list);
    const std::string one = run(cmd_schema, {"show", "8"});
    EXPECT_EQ(one,
              "Schema 8: net.packet\n  version: 1\n  PROV:    Entity\n"
              "  desc:    network packet transmit or receive\n");
    EXPECT_EQ(run(cmd_schema, {"show", "net.packet"}), one);
    EXPECT_EQ(run(cmd_schema, {"show", "65544"}), one);
    EXPECT_EQ(run(cmd_schema, {"show", "99"}), "schema: '99' not found\n");
    EXPECT_EQ(run(cmd_schema, {"show"}), "usage: schema show <id|name>\n");
    EXPECT_EQ(run(cmd_schema, {"drop"}), "usage: schema [list|show <id|name>]\n");
}

}  // namespace
