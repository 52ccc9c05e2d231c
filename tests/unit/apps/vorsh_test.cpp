#include "kernel/apps/vorsh.h"

#include "kernel/apps/shell.h"
#include "kernel/apps/vorsh/script.h"
#include "kernel/fs/overlay.h"
#include "tests/unit/graph/causal_fixture.h"

namespace {

class Vorsh : public causal_fixture {
protected:
    void SetUp() override {
        causal_fixture::SetUp();
        fs_init();
        shell_init();
    }
    /// What running `text` prints.
    static std::string run(const std::string& text) {
        screen.clear();
        const int result = vorsh_exec(text.c_str());
        EXPECT_EQ(result == 0, screen.find("vorsh: ") == std::string::npos) << text;
        return screen;
    }
    static std::string sh(const std::string& line) {
        screen.clear();
        shell_exec(line.c_str());
        return screen.substr(line.size() + 1);
    }
    static void file(const char* path, const std::string& text) {
        EXPECT_EQ(
            overlay_write(path, VORN_ROUTE_RAM, text.data(), static_cast<uint32_t>(text.size())),
            0);
    }
};

TEST_F(Vorsh, RunsTheDemo) {
    const uint32_t used = heap_used();
    EXPECT_EQ(sh("run /home/demo.sl"),
              "Hello from vorsh!\nCount: 0\nCount: 1\nCount: 2\nCount: 3\nCount: 4\n"
              "Done counting.\nLoop completed correctly.\n");
    EXPECT_EQ(heap_used(), used);
}

TEST_F(Vorsh, WordsVariablesAndQuotes) {
    EXPECT_EQ(
        run("set a  one \ttwo\r\nset b \"$a  \"\"three\"\n echo $a-${b}x \"#\" $$a # no\n#\n"),
        "one two-one two  threex # $a\n");
    EXPECT_EQ(run("set e\necho [$e] \"\" end\nif $e == \"\"\necho empty\nend"), "[]  end\nempty\n");
    EXPECT_EQ(run("set c uname\n$c"), sh("uname"));
    EXPECT_EQ(run("echo 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18"),
              "1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18\n");
    const std::string longest(127, 'v');
    EXPECT_EQ(run("set v " + longest + "\necho $v$v"), longest + longest + "\n");
}

TEST_F(Vorsh, ComputesWithinBounds) {
    const auto expr = [](const std::string& words) { return run("expr x " + words + "\necho $x"); };
    for (const auto& [words, result] : {std::pair{"2 + 3 * 4 - 10 / 3 % 2", "13\n"},
                                        {"-7 / 2 * -1", "3\n"},
                                        {"2147483647 - 1 + 1", "2147483647\n"},
                                        {"0 - 2147483647", "-2147483647\n"}})
        EXPECT_EQ(expr(words), result);
    const std::string bad[][2] = {
        {"1 / 0", "division by zero"},
        {"1 % 0", "division by zero"},
        {"2147483647 + 1", "the result is beyond 2147483647"},
        {"65536 * 65536 * 65536 * 0", "the result is beyond 2147483647"},
        {"-2147483648", "'-2147483648' is not a whole number"},
        {"1 ** 2", "'**' is none of + - * / %"},
        {"1 +", "expr needs: NAME A [OP B]..."},
        {"", "expr needs: NAME A [OP B]..."},
        {"1 + x", "'x' is not a whole number"},
    };
    for (const auto& [words, why] : bad)
        EXPECT_EQ(expr(words), "vorsh: line 1: " + why + "\n");
}

TEST_F(Vorsh, JudgesNumbersAndTexts) {
    const auto holds = [](const std::string& words) {
        return run("if " + words + "\necho y\nelse\necho n\nend") == "y\n";
    };
    for (const char* words : {"1", "x", "10 > 9", "-1 < 0", "007 == 7", "a == a", "a != b",
                              "3 <= 3", "3 >= 3", "\"a b\" == \"a b\""})
        EXPECT_TRUE(holds(words)) << words;
    for (const char* words : {"0", "\"\"", "1 > 2", "a == A", "7 != 07", "4 <= 3", "2 >= 3"})
        EXPECT_FALSE(holds(words)) << words;
    EXPECT_EQ(run("if a < 1\nend"), "vorsh: line 1: 'a' is not a whole number\n");
    EXPECT_EQ(run("\nwhile 1 = 1\nend"), "vorsh: line 2: '=' is none of == != < <= > >=\n");
    EXPECT_EQ(run("if\nend"), "vorsh: line 1: a condition is: A OP B, or one word\n");
}

TEST_F(Vorsh, BlocksNestAndAreChecked) {
    EXPECT_EQ(
        run("set i 0\nwhile $i < 3\n set j 0\n while $j < 3\n  if $j == $i\n   echo $i\n  else\n"
            "   if 0\n    echo never\n   end\n  end\n  expr j $j + 1\n end\n"
            " expr i $i + 1\nend\nif 0\nwhile 1\nend\nend\nexit\necho not reached"),
        "0\n1\n2\n");
    const std::string bad[][2] = {
        {"echo a\nend", "2: \"end\" without \"if\" or \"while\""},
        {"while 1\nelse\nend", "2: \"else\" without \"if\""},
        {"if 1\nelse\nelse\nend", "3: \"else\" without \"if\""},
        {"if 1\nelse if 2\nend", "2: \"else\" and \"end\" stand alone on their lines"},
        {"\nif 1\nwhile 1\nend\necho", "2: a block without its \"end\""},
    };
    for (const auto& [text, why] : bad)
        EXPECT_EQ(run(text), "vorsh: line " + why + "\n");  // nothing has run
    const auto nested = [](int depth) {
        std::string text;
        for (int i = 0; i < depth; ++i)
            text += "if 1\n";
        text += "echo in\n";
        for (int i = 0; i < depth; ++i)
            text += "end\n";
        return run(text);
    };
    EXPECT_EQ(nested(VORSH_BLOCKS_MAX), "in\n");
    EXPECT_EQ(nested(VORSH_BLOCKS_MAX + 1), "vorsh: line 17: more than 16 blocks in each other\n");
}

TEST_F(Vorsh, ErrorsNameTheLineAndEndTheScript) {
    const std::string v(128, 'v');
    const std::string bad[][2] = {
        {"echo $none", "$none is not set"},
        {"echo ${a", "\"$\" without a variable's name ($$ is a dollar sign)"},
        {"echo $", "\"$\" without a variable's name ($$ is a dollar sign)"},
        {"echo \"open", "a quote without its end"},
        {"set", "set needs: NAME [WORD...]"},
        {"set 1x 2", "'1x' is no variable's name"},
        {"set " + std::string(32, 'n') + " 1", "a variable's name has at most 31 characters"},
        {"set a " + v, "the value of a has more than 127 characters"},
        {"hepl me", "unknown command 'hepl'"},
        {"uname 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16", "a command has at most 16 words"},
        {"echo " + v + v + v + v, "the line is too long"},
    };
    for (const auto& [line, why] : bad)
        EXPECT_EQ(run("echo a\n\n" + line + "\necho b"), "a\nvorsh: line 3: " + why + "\n");
    std::string many;
    for (int i = 0; i <= VORSH_VARIABLES_MAX; ++i)
        many += "set v" + std::to_string(i) + " 1\n";
    EXPECT_EQ(run(many), "vorsh: line 33: more than 32 variables\n");
    EXPECT_EQ(run(std::string(1025, '\n')), "vorsh: line 1025: more than 1024 lines\n");
    EXPECT_EQ(run(std::string(20000, 'x')), "vorsh: line 1: more than 16384 bytes\n");
}

TEST_F(Vorsh, EndlessLoopsAndScriptsThatRunThemselvesEnd) {
    const uint32_t used = heap_used();
    EXPECT_EQ(run("while 1\nend"), "vorsh: line 1: stopped after 100000 statements\n");
    EXPECT_EQ(run("echo again"), "again\n");  // the steps are counted anew
    file("/tmp/self", "echo in\nrun self\necho out\n");
    sh("cd /tmp");
    EXPECT_EQ(
        sh("run self"),
        "in\nin\nin\nin\nvorsh: scripts run each other more than 4 deep\nout\nout\nout\nout\n");
    file("/tmp/outer", "while 1\nrun inner\nend\n");
    file("/tmp/inner", "set i 0\nwhile $i < 1000\nexpr i $i + 1\nend\n");
    const std::string shared = sh("run outer");
    EXPECT_EQ(std::count(shared.begin(), shared.end(), '\n'), 2) << shared;
    EXPECT_NE(shared.find("vorsh: /tmp/outer: line "), std::string::npos);
    EXPECT_EQ(heap_used(), used + 3 * (256 + 24));  // the three files
}

TEST_F(Vorsh, FilesArgumentsAndInlineStatements) {
    file("/tmp/args", "echo $0: $1, $2\nset who $1\necho $3");
    EXPECT_EQ(sh("vorsh /tmp/../tmp/args \"a b\" c"),
              "/tmp/../tmp/args: a b, c\nvorsh: /tmp/args: line 3: $3 is not set\n");
    EXPECT_EQ(sh("vorsh -c \"set x 2; while $x > 0; echo $x; expr x $x - 1; end\""), "2\n1\n");
    EXPECT_EQ(sh("run"), "Usage: run <file> [argument...]\n");
    EXPECT_EQ(sh("vorsh -x"), "Usage: vorsh [<file> [argument...] | -c \"statement; ...\"]\n");
    EXPECT_EQ(sh("run none"), "vorsh: /none: no such file or directory\n");
    EXPECT_EQ(sh("run /tmp"), "vorsh: /tmp: is a directory\n");
    file("/tmp/huge", std::string(VORSH_SCRIPT_BYTES_MAX + 1, '\n'));
    EXPECT_EQ(sh("run /tmp/huge"), "vorsh: /tmp/huge: larger than 16384 bytes\n");
    file("/tmp/binary", std::string("echo a\0b", 8));
    EXPECT_EQ(sh("run /tmp/binary"), "vorsh: /tmp/binary: line 1: a zero byte: not a text\n");
    file("/tmp/nothing", "");
    EXPECT_EQ(vorsh_exec_file("/tmp/nothing"), 0);
}

}  // namespace
