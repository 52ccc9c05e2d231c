#include "kernel/apps/shell.h"

#include <gtest/gtest.h>

#include <sstream>

#include "arch/x86/switch.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/task.h"
#include "kernel/drivers/console.h"
#include "kernel/drivers/dmesg.h"
#include "tests/machine/memory.h"
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
    if (typed.empty())
        return 0;
    *bytes = static_cast<uint8_t>(typed[0]);
    typed.erase(0, 1);
    return 1;
}

bool terminal_session(console_session_t* out) {
    const task_t* task = task_current();
    *out = {task->io_write, task->io_ctx};
    return task->io_write != nullptr;
}

class Shell : public causal_fixture {
protected:
    void SetUp() override {
        machine_reset();
        machine_boot_memory();
        causal_fixture::SetUp();
        fake_switch_reset();
        interrupt_init();
        task_init();
        shell_init();
        screen.clear();
        terminal = {};
    }
    static std::string printed_by(const std::function<void()>& action) {
        screen.clear();
        action();
        return screen;
    }
    static std::string exec(const char* line) {
        return printed_by([line] { shell_exec(line); });
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
    EXPECT_EQ(split(""), words{});
    EXPECT_EQ(split("    "), words{});
    EXPECT_EQ(split("  a  bc d "), (words{"a", "bc", "d"}));
    EXPECT_EQ(split("say \"two words\" \"\" x\"y z\""),
              (words{"say", "two words", "", "x\"y", "z\""}));
    EXPECT_EQ(split("\"a\"b \"open to the end  "), (words{"a", "b", "open to the end  "}));
    EXPECT_EQ(split("a\tb"), words{"a\tb"});
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
    EXPECT_EQ(shell_concat_args(out, sizeof out, 3, argv, 3), 0);
    EXPECT_STREQ(out, "");

    const auto path = [&out](const char* name) {
        shell_make_path(name, out, sizeof out);
        return std::string(out);
    };
    EXPECT_EQ(path("x"), "/x");
    EXPECT_EQ(path("/long/name"), "/long/n");
    strcpy(shell_cwd, "/tmp");
    EXPECT_EQ(path(".."), "/tmp/..");
}

TEST_F(Shell, RecordsACommandAsTheCauseOfWhatItDoes) {
    run_task();
    const uint32_t before = emit();
    EXPECT_EQ(exec("echo  \"a  b\" c"), "echo  \"a  b\" c\na  b c\n");
    const causal_event_t* event = causal_get(causal_total_events());
    EXPECT_EQ(event->type, CAUSAL_SHELL);
    EXPECT_STREQ(event->subsystem, "shell");
    EXPECT_STREQ(event->desc, "cmd: echo");
    EXPECT_EQ(parents(event->id), ids_t{before});
    EXPECT_EQ(causal_get_current(), event->id);
    const uint32_t total = causal_total_events();
    exec("events");
    exec("autopsy last");
    exec("nothing-like-it");
    exec("");
    EXPECT_EQ(causal_total_events(), total);
    exec("cpath");  // reads the graph as well, but is recorded
    EXPECT_EQ(causal_total_events(), total + 1);
}

TEST_F(Shell, SuggestsTheNearestName) {
    EXPECT_EQ(exec("hepl"), "hepl\nvorn: unknown command 'hepl'\n  Did you mean: help?\n");
    EXPECT_EQ(exec("HELP"), "HELP\nvorn: unknown command 'HELP'\n");
    const auto suggested = [](const char* name) {
        return printed_by([name] { suggest_command(name); });
    };
    EXPECT_EQ(suggested("graph-healt"), "  Did you mean: graph-health?\n");
    EXPECT_EQ(suggested("xlear"), "  Did you mean: clear?\n");
    EXPECT_EQ(suggested("cat"), "  Did you mean: cpath?\n");
    EXPECT_EQ(suggested("h"), "");
    EXPECT_EQ(suggested("graph-health-and-then"), "");
}

TEST_F(Shell, AnEndlessLineIsCut) {
    const std::string line(600, 'x');
    const std::string cut(255, 'x');
    EXPECT_EQ(exec(line.c_str()), cut + "\nvorn: unknown command '" + cut + "'\n");
}

TEST_F(Shell, HelpNamesEveryCommandOfTheTable) {
    const std::string help = printed_by([] { cmd_help(1, nullptr); });
    EXPECT_EQ(help.find("\n \xC9\xCD\xCD Vorn Commands " + std::string(40, '\xCD') + "\xBB\n\n"),
              0u);
    EXPECT_NE(help.find("  System\n    help        Show this help\n"), std::string::npos);
    EXPECT_NE(help.find("\n\n  Memory & Debug\n"), std::string::npos);
    EXPECT_EQ(std::count(help.begin(), help.end(), '\n'), 3 + 114 + 22 + 4);
    const std::string unlisted = " echo exit logout cpath cdot crypto random schema ";
    for (const command_t* command = commands; command->name != nullptr; ++command) {
        const std::string name = command->name;
        EXPECT_NE((help + unlisted).find(" " + name), std::string::npos) << name;
    }
}

TEST_F(Shell, RunsASessionOnItsOwnTerminal) {
    const std::string prompt = "vorn:/$ ";
    const std::string empty = "\r" + prompt + "          \r" + prompt;
    EXPECT_EQ(remote(""), "\n" + empty);
    remote("echo b\x82\x61\rhepl\n   \n");
    EXPECT_NE(terminal.shown.find(empty + "echo b\r" + prompt + "echo b          \r" + prompt +
                                  "echo \r" + prompt + "echo ab          \r" + prompt +
                                  "echo a\nab\n" + empty),
              std::string::npos);
    EXPECT_NE(terminal.shown.find("hepl\nvorn: unknown command 'hepl' — type 'help'\n"
                                  "  Did you mean: help?\n" +
                                  empty),
              std::string::npos);
    EXPECT_EQ(terminal.shown.find('\x1b'), std::string::npos);
}

TEST_F(Shell, ExitEndsARemoteSessionOnly) {
    EXPECT_EQ(exec("exit"), "exit\nexit: not a remote session\n");
    const std::string shown = remote("logout\necho still here\n");
    EXPECT_NE(shown.find("logout\nlogout\n"), std::string::npos);
    EXPECT_EQ(shown.find("still"), std::string::npos);
}

TEST_F(Shell, PromptAndEchoAreNotLogged) {
    dmesg_init();
    remote("echo logged\n");
    char log[DMESG_BYTES];
    const int length = dmesg_read(log, sizeof log);
    EXPECT_EQ(std::string(log, static_cast<size_t>(length)), "\nlogged\n");
}

}  // namespace
