// Any text as a script, in one go and statement by statement: it ends within its steps, leaves its
// tables sound, and hands commands nothing but terminated words of its own.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kernel/apps/vorsh/script.h"

namespace {

constexpr uint32_t STEPS = 2000;

// What random bytes would seldom spell, parted by bars.
constexpr std::string_view FRAGMENTS =
    "\n| |set a 1\n|set |a|b|$a|${b}|$|{|expr a $a + 1\n|expr b |1|0|-7|2147483647| + | - | * | / "
    "| % |while $a < 9\n|while |if 1\n|if |else\n|end\n| == | != | < | >= |echo |exit\n|#|\"|cmd "
    "|unknown\n|\t|\r\n|\n\n";

/// The input as it stands, or each byte as a fragment.
std::string make_text(const uint8_t* data, size_t size) {
    if (size == 0 || data[0] % 4 == 0)
        return {reinterpret_cast<const char*>(data), size};
    static const std::vector<std::string> fragments = [] {
        std::istringstream parts{std::string(FRAGMENTS)};
        std::vector<std::string> all;
        for (std::string part; std::getline(parts, part, '|');)
            all.push_back(part);
        return all;
    }();
    std::string text;
    for (size_t i = 1; i < size; ++i)
        text += fragments[data[i] % fragments.size()];
    return text;
}

vorsh_script_t* running;

void check(bool holds) {
    if (!holds)
        std::abort();
}

void print(const char* line) { check(strlen(line) < VORSH_WORDS_BYTES); }

bool command(int argc, char** argv) {
    check(argc > 0 && argc <= 16);
    for (int i = 0; i < argc; ++i) {
        check(argv[i] >= running->words && argv[i] < running->words + VORSH_WORDS_BYTES);
        check(argv[i] + strlen(argv[i]) < running->words + VORSH_WORDS_BYTES);
    }
    return argv[0][0] != 'u';
}

constexpr vorsh_hooks_t HOOKS = {print, command, 16};

void check_tables(const vorsh_script_t& script) {
    check(script.line_count <= VORSH_LINES_MAX);
    check(memchr(script.error, 0, sizeof script.error) != nullptr);
    for (const vorsh_variable_t& variable : script.variables) {
        check(memchr(variable.name, 0, sizeof variable.name) != nullptr);
        check(memchr(variable.value, 0, sizeof variable.value) != nullptr);
    }
}

void run(vorsh_script_t* script, const std::string& text) {
    const vorsh_result_t loaded = vorsh_load(script, text.data(), text.size());
    if (loaded == vorsh_result_t::good)
        (void)vorsh_run(script);
    else
        check(script->error[0] != '\0' && script->error_line > 0);
    check_tables(*script);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = make_text(data, size);
    const auto script = std::make_unique<vorsh_script_t>();
    running = script.get();
    uint32_t steps = STEPS;
    vorsh_start(running, &HOOKS, &steps);
    run(running, text);

    // The same text as a terminal would give it: a variable set in one piece is there in the next.
    steps = STEPS;
    vorsh_start(running, &HOOKS, &steps);
    for (size_t at = 0; at < text.size();) {
        const size_t stop = text.find("\n\n", at);
        run(running, text.substr(at, stop - at));
        at = stop == std::string::npos ? text.size() : stop + 2;
    }
    check(steps <= STEPS);
    return 0;
}
