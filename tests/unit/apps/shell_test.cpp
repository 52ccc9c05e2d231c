#include "kernel/apps/shell.h"

#include "kernel/drivers/console.h"
#include "kernel/drivers/dmesg.h"
#include "kernel/fs/ramfs.h"
#include "kernel/graph/timeline.h"
#include "tests/unit/graph/causal_fixture.h"

namespace {

/// A remote terminal: keys come from `typed`, and all that is written is kept.
struct terminal_t {
    std::string typed, shown;
};
terminal_t terminal;

int terminal_write(const uint8_t* bytes, uint32_t len, void* ctx) {
    static_cast<terminal_t*>(ctx)->shown.append(reinterpret_cast<const char*>(bytes), len);
    return static_cast<int>(len);
}

int terminal_read(uint8_t* bytes, uint32_t, void* ctx) {
    std::string& typed = static_cast<terminal_t*>(ctx)->typed;
    *bytes = static_cast<uint8_t>(typed[0]);
    const bool any = !typed.empty();
    typed.erase(0, 1);
    return any;
}

bool terminal_session(console_session_t* out) {
    const task_t* task = task_current();
    *out = {task->io_write, task->io_ctx};
    return task->io_write != nullptr;
}

class Shell : public causal_fixture {
protected:
    void SetUp() override {
        causal_fixture::SetUp();
        fs_init();
        timeline_init();
        shell_init();
        screen.clear();
        terminal = {};
    }
    static std::string exec(const std::string& line) {
        screen.clear();
        shell_exec(line.c_str());
        const std::string echoed = line.substr(0, SHELL_LINE_BYTES - 1) + "\n";
        EXPECT_EQ(screen.substr(0, echoed.size()), echoed);
        return screen.substr(echoed.size());
    }
    static std::vector<std::string> split(std::string line) {
        char* argv[SHELL_ARGS_MAX];
        const int argc = parse_args(line.data(), argv);
        return {argv, argv + argc};
    }
    /// Types `keys` at a remote session's shell until it ends or waits; returns what it showed.
    static std::string remote(const std::string& keys) {
        console_init();
        console_set_session_hook(terminal_session);
        terminal.typed = keys;
        fake_switch.coroutines = true;
        task_t* task = task_create("remote", shell_run, task_current()->priority);
        task_set_io(task, terminal_write, terminal_read, &terminal);
        sched_start();
        for (int i = 0; i < 5; ++i)
            schedule();
        return terminal.shown;
    }
};

TEST_F(Shell, SplitsLines) {
    using words = std::vector<std::string>;
    EXPECT_EQ(split("    "), words{});
    EXPECT_EQ(split("  a  bc d "), (words{"a", "bc", "d"}));
    EXPECT_EQ(split("say \"two words\" \"\" x\"y z\""),
              (words{"say", "two words", "", "x\"y", "z\""}));
    EXPECT_EQ(split("\"a\"b \"open to the end  "), (words{"a", "b", "open to the end  "}));
    EXPECT_EQ(split("1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18").back(), "16");
}

TEST_F(Shell, JoinsArgumentsAndPathsWithinTheirSize) {
    std::string words[] = {"say", "one", "two"};
    char* argv[] = {words[0].data(), words[1].data(), words[2].data()};
    char out[8];
    EXPECT_EQ(shell_concat_args(out, sizeof out, 3, argv, 1), 7);
    EXPECT_STREQ(out, "one two");
    EXPECT_EQ(shell_concat_args(out, 5, 3, argv, 1), 4);
    EXPECT_STREQ(out, "one ");
    EXPECT_EQ(shell_concat_args(out, 1, 3, argv, 1), 0);

    strcpy(shell_cwd, "/tmp");
    shell_make_path("..", out, sizeof out);
    EXPECT_STREQ(out, "/tmp/..");
    shell_make_path("/long/name", out, sizeof out);
    EXPECT_STREQ(out, "/long/n");
}

TEST_F(Shell, RecordsACommandAsTheCauseOfWhatItDoes) {
    run_task();
    const uint32_t before = emit();
    EXPECT_EQ(exec("echo  \"a  b\" c"), "a  b c\n");
    const causal_event_t* event = causal_get(causal_total_events());
    EXPECT_STREQ(event->desc, "cmd: echo");
    EXPECT_EQ(parents(event->id), ids_t{before});
    EXPECT_EQ(causal_get_current(), event->id);
    const uint32_t total = causal_total_events();
    for (const char* line : {"events", "autopsy last", "nothing-like-it", ""})
        exec(line);
    EXPECT_EQ(causal_total_events(), total);
    exec("cpath");  // reads the graph as well, but is recorded
    EXPECT_EQ(causal_total_events(), total + 1);
}

TEST_F(Shell, SuggestsTheNearestName) {
    const auto suggested = [](const std::string& name) {
        return exec(name).substr(("vorn: unknown command '" + name + "'\n").size());
    };
    EXPECT_EQ(exec("hepl"), "vorn: unknown command 'hepl'\n  Did you mean: help?\n");
    EXPECT_EQ(suggested("graph-healt"), "  Did you mean: graph-health?\n");
    EXPECT_EQ(suggested("diskr"), "  Did you mean: diskrm?\n");  // as near as "diskro"
    for (const char* far : {"HELP", "zzzz", "graph-health-and-then"})
        EXPECT_EQ(suggested(far), "");
    const std::string cut(255, 'x');
    EXPECT_EQ(exec(cut + "xxx"), "vorn: unknown command '" + cut + "'\n");
}

TEST_F(Shell, HelpIsComplete) {
    const std::string help = exec("help");
    EXPECT_EQ(help.find("\n \xC9\xCD\xCD Vorn Commands " + std::string(40, '\xCD') +
                        "\xBB\n\n  System\n"),
              0u);
    EXPECT_EQ(std::count(help.begin(), help.end(), '\n'), 3 + 114 + 22 + 4);
}

TEST_F(Shell, RunsASessionOnItsOwnTerminal) {
    const std::string prompt = "vorn:/$ ";
    const std::string empty = "\r" + prompt + "          \r" + prompt;
    EXPECT_EQ(remote(""),
              "[shell] Timeline shell/0 created\n"
              "Try: programs, dmesg 5, events, status, showcase\n" +
                  empty);
    remote("echo b\x82\x61\rhepl\n   \n");
    for (const std::string& part :
         {empty + "echo b\r" + prompt + "echo b          \r" + prompt + "echo \r" + prompt +
              "echo ab          \r" + prompt + "echo a\nab\n" + empty,
          "hepl\nvorn: unknown command 'hepl' — type 'help'\n  Did you mean: help?\n" + empty})
        EXPECT_NE(terminal.shown.find(part), std::string::npos) << terminal.shown;
    EXPECT_EQ(terminal.shown.find('\x1b'), std::string::npos);
}

/// Sub-type, description and data of a timeline's newest event.
std::string newest(const char* timeline) {
    const timeline_t* tl = timeline_get(timeline_find(timeline));
    const causal_event_t* ev = tl != nullptr ? causal_get(tl->head_id) : nullptr;
    uint32_t sub_type;
    const uint8_t* data;
    uint16_t len;
    if (!timeline_parse_payload(ev, &sub_type, &data, &len))
        return "";
    return std::to_string(sub_type) + " " + ev->desc + " " +
           std::string(reinterpret_cast<const char*>(data), len);
}

TEST_F(Shell, TimelinesKeepCommandsAndLines) {
    run_task();
    timeline_create("system", "shell");
    exec("echo a");
    const uint32_t command = causal_get_current();
    EXPECT_STREQ(causal_get(command)->desc, "cmd: echo");
    EXPECT_EQ(newest("system"), "80 cmd: echo ");
    remote("nothing \"like it\"\n   \n\n");
    EXPECT_EQ(newest("shell/0"), std::string("96 cmd    \0", 11));
    EXPECT_EQ(timeline_get(timeline_find("shell/0"))->event_count, 3u);
    // Without the timeline nothing is emitted into another one that has got its slot.
    const int old = timeline_find("shell/0");
    timeline_destroy(old);
    EXPECT_EQ(timeline_create("other", "test"), old);
    terminal.typed = "tl\n";
    for (int i = 0; i < 5; ++i)
        schedule();
    EXPECT_EQ(terminal.typed, "");
    EXPECT_EQ(timeline_get(old)->event_count, 1u);
}

TEST_F(Shell, ExitEndsARemoteSessionOnlyAndOnlyOutputIsLogged) {
    EXPECT_EQ(exec("exit"), "exit: not a remote session\n");
    dmesg_init();
    remote("echo logged\nlogout\necho still here\n");
    char log[DMESG_BYTES];
    dmesg_read(log, sizeof log);
    EXPECT_STREQ(log, "[shell] Timeline shell/0 created\n\nlogged\nlogout\n");
    EXPECT_NE(terminal.shown.find("logout\nlogout\n"), std::string::npos);
}

}  // namespace
