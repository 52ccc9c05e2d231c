#include "kernel/graph/causal_schema.h"

#include <cstring>
#include <random>

#include "kernel/apps/cmd_schema.h"
#include "tests/unit/graph/causal_fixture.h"

namespace {

/// The rules of inference in their plainest form.
uint32_t plain_infer(uint32_t type, const std::string& sub, const std::string& desc) {
    const auto has = [&desc](const char* s) { return desc.find(s) != std::string::npos; };
    if (type == CAUSAL_SYSCALL || sub == "syscall")
        return 1;
    if (type == CAUSAL_ACTOR || sub == "actor") {
        if (desc.starts_with("recv ") || has("recv name="))
            return 5;
        return desc.starts_with("send ") || desc.starts_with("remote send ") ? 4 : 0;
    }
    if (type == CAUSAL_FS || sub == "fs" || sub == "vofs")
        return has("create") ? 7 : has("write") || has("append") ? 6 : 0;
    if (type == CAUSAL_NET || sub == "net" || sub == "tcp" || sub == "udp")
        return 8;
    if (type == CAUSAL_MESH || sub == "mesh" || sub == "federation" || sub == "remote-parent")
        return 9;
    if (sub == "timeline" || sub == "tl")
        return 10;
    if (sub == "cap" || sub == "capability")
        return 11;
    if (type == CAUSAL_SCHED || sub == "sched")
        return has("create") ? 2 : has("exit") ? 3 : 0;
    return 0;
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
    for (int round = 0; round < 200000; round++) {
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

class SchemaCommand : public causal_fixture {
protected:
    static std::string run(std::vector<const char*> args) {
        args.insert(args.begin(), "schema");
        screen.clear();
        cmd_schema(static_cast<int>(args.size()), const_cast<char**>(args.data()));
        return screen;
    }
};

TEST_F(SchemaCommand, ListsAllTwelve) {
    const std::string text = run({});
    EXPECT_TRUE(
        text.starts_with("Causal Schemas:\n  ID  VER  PROV      NAME\n"
                         "  0   1    Activity  legacy.text\n"));
    EXPECT_TRUE(
        text.ends_with("  10  1    Activity  timeline.event\n"
                       "  11  1    Activity  cap.grant\n"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 14);
    EXPECT_EQ(run({"list"}), text);
    EXPECT_EQ(run({"help"}), text);
}

TEST_F(SchemaCommand, ShowsOneByNumberOrName) {
    const std::string text = run({"show", "8"});
    EXPECT_EQ(text,
              "Schema 8: net.packet\n  version: 1\n  PROV:    Entity\n"
              "  desc:    network packet transmit or receive\n");
    EXPECT_EQ(run({"show", "net.packet"}), text);
    EXPECT_EQ(run({"show", "65544"}), text);
    EXPECT_EQ(run({"show", "99"}), "schema: '99' not found\n");
    EXPECT_EQ(run({"show", ""}), "schema: '' not found\n");
    EXPECT_EQ(run({"show"}), "usage: schema show <id|name>\n");
    EXPECT_EQ(run({"drop"}), "usage: schema [list|show <id|name>]\n");
    EXPECT_EQ(causal_schema_find(nullptr), nullptr);
}

}  // namespace
