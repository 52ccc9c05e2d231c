#include "kernel/apps/vorsh/script.h"

#include <algorithm>
#include <string_view>

#include "kernel/core/string.h"

namespace {

struct keyword_t {
    std::string_view text;
    vorsh_word_t word;
};
constexpr keyword_t KEYWORDS[] = {
    {"echo", vorsh_word_t::echo},    {"set", vorsh_word_t::set}, {"expr", vorsh_word_t::expr},
    {"exit", vorsh_word_t::exit},    {"if", vorsh_word_t::if_},  {"else", vorsh_word_t::else_},
    {"while", vorsh_word_t::while_}, {"end", vorsh_word_t::end},
};

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

/// Takes the first word off `line`, with the blanks around it.
std::string_view take_word(std::string_view* line) {
    const auto start = std::find_if_not(line->begin(), line->end(), is_blank);
    const auto stop = std::find_if(start, line->end(), is_blank);
    *line = std::string_view(std::find_if_not(stop, line->end(), is_blank), line->end());
    return {start, stop};
}

/// What the first word of a line makes of it, before any variable is replaced.
vorsh_word_t classify(std::string_view first) {
    if (first.empty() || first.front() == '#')
        return vorsh_word_t::blank;
    for (const keyword_t& keyword : KEYWORDS) {
        if (first == keyword.text)
            return keyword.word;
    }
    return vorsh_word_t::command;
}

/// The blocks that are open while the table of lines is made.
struct open_blocks_t {
    uint16_t lines[VORSH_BLOCKS_MAX];  ///< of the if, else or while
    int count;
};

bool open_block(vorsh_script_t* script, open_blocks_t* open, uint16_t line) {
    if (open->count == VORSH_BLOCKS_MAX)
        return vorsh_fail(script, "more than %d blocks in each other", VORSH_BLOCKS_MAX);
    open->lines[open->count++] = line;
    return true;
}

/// Gives the lines of a block their partners.
bool link_line(vorsh_script_t* script, open_blocks_t* open, uint16_t index) {
    vorsh_line_t& line = script->lines[index];
    if (line.word == vorsh_word_t::if_ || line.word == vorsh_word_t::while_)
        return open_block(script, open, index);
    if (line.word != vorsh_word_t::else_ && line.word != vorsh_word_t::end)
        return true;
    const bool is_else = line.word == vorsh_word_t::else_;
    const uint16_t opener = open->count == 0 ? index : open->lines[open->count - 1];
    if (is_else && script->lines[opener].word != vorsh_word_t::if_)
        return vorsh_fail(script, "\"else\" without \"if\"");
    if (open->count == 0)
        return vorsh_fail(script, "\"end\" without \"if\" or \"while\"");
    script->lines[opener].partner = index;
    line.partner = opener;
    if (is_else)
        open->lines[open->count - 1] = index;
    else
        --open->count;
    return true;
}

bool add_line(vorsh_script_t* script, open_blocks_t* open, std::string_view line) {
    script->error_line = static_cast<uint32_t>(script->line_count + 1);
    if (script->line_count == VORSH_LINES_MAX)
        return vorsh_fail(script, "more than %u lines", static_cast<uint32_t>(VORSH_LINES_MAX));
    const auto index = static_cast<uint16_t>(script->line_count++);
    std::string_view rest = line;
    const vorsh_word_t word = classify(take_word(&rest));
    script->lines[index] = {static_cast<uint16_t>(line.data() - script->text),
                            static_cast<uint16_t>(line.size()), 0, word};
    const bool alone = rest.empty() || rest.front() == '#';
    if (!alone && (word == vorsh_word_t::else_ || word == vorsh_word_t::end))
        return vorsh_fail(script, "\"else\" and \"end\" stand alone on their lines");
    return link_line(script, open, index);
}

/// Joins words [from, argc) in place: they stand one behind the other.
const char* join(vorsh_script_t* script, int from) {
    if (from >= script->argc)
        return "";
    for (int i = from + 1; i < script->argc; ++i)
        script->argv[i][-1] = ' ';
    return script->argv[from];
}

bool run_set(vorsh_script_t* script) {
    if (script->argc < 2)
        return vorsh_fail(script, "set needs: NAME [WORD...]");
    if (!vorsh_is_name(script->argv[1]))
        return vorsh_fail(script, "'%s' is no variable's name", script->argv[1]);
    return vorsh_set(script, script->argv[1], join(script, 2));
}

bool run_expr(vorsh_script_t* script) {
    int value = 0;
    if (script->argc < 3)
        return vorsh_fail(script, "expr needs: NAME A [OP B]...");
    if (!vorsh_is_name(script->argv[1]))
        return vorsh_fail(script, "'%s' is no variable's name", script->argv[1]);
    if (!vorsh_compute(script, script->argv + 2, script->argc - 2, &value))
        return false;
    char text[16];
    ksnprintf(text, sizeof text, "%d", value);
    return vorsh_set(script, script->argv[1], text);
}

bool run_command(vorsh_script_t* script) {
    if (script->argc > script->hooks->command_words_max)
        return vorsh_fail(script, "a command has at most %d words",
                          script->hooks->command_words_max);
    return script->hooks->command(script->argc, script->argv) ||
           vorsh_fail(script, "unknown command '%s'", script->argv[0]);
}

/// Runs the line `*at` and moves on to the next one.
bool run_line(vorsh_script_t* script, size_t* at) {
    const vorsh_line_t& line = script->lines[*at];
    bool yes = false;
    size_t next = *at + 1;
    switch (line.word) {
        case vorsh_word_t::blank:
            break;
        case vorsh_word_t::echo:
            script->hooks->print(join(script, 1));
            break;
        case vorsh_word_t::set:
            if (!run_set(script))
                return false;
            break;
        case vorsh_word_t::expr:
            if (!run_expr(script))
                return false;
            break;
        case vorsh_word_t::exit:
            script->exited = true;
            next = script->line_count;
            break;
        case vorsh_word_t::command:
            if (!run_command(script))
                return false;
            break;
        case vorsh_word_t::if_:
        case vorsh_word_t::while_:
            if (!vorsh_judge(script, script->argv + 1, script->argc - 1, &yes))
                return false;
            if (!yes)
                next = line.partner + 1u;
            break;
        case vorsh_word_t::else_:
            next = line.partner + 1u;
            break;
        case vorsh_word_t::end:
            if (script->lines[line.partner].word == vorsh_word_t::while_)
                next = line.partner;
    }
    *at = next;
    return true;
}

bool take_step(vorsh_script_t* script) {
    if (*script->steps_left == 0)
        return vorsh_fail(script, "stopped after %u statements", VORSH_STEPS_MAX);
    --*script->steps_left;
    return true;
}

}  // namespace

bool vorsh_fail(vorsh_script_t* script, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    kvsnprintf(script->error, sizeof script->error, fmt, args);
    va_end(args);
    return false;
}

void vorsh_start(vorsh_script_t* script, const vorsh_hooks_t* hooks, uint32_t* steps_left) {
    memset(script, 0, sizeof *script);
    script->hooks = hooks;
    script->steps_left = steps_left;
}

vorsh_result_t vorsh_load(vorsh_script_t* script, const char* text, size_t length) {
    script->text = text;
    script->line_count = 0;
    script->error_line = 1;
    if (length > VORSH_SCRIPT_BYTES_MAX) {
        vorsh_fail(script, "more than %u bytes", VORSH_SCRIPT_BYTES_MAX);
        return vorsh_result_t::bad;
    }
    open_blocks_t open = {};
    const char* end = text + length;
    for (const char* at = text; at < end;) {
        const char* stop = std::find(at, end, '\n');
        if (!add_line(script, &open, std::string_view(at, static_cast<size_t>(stop - at))))
            return vorsh_result_t::bad;
        at = stop == end ? end : stop + 1;
    }
    if (open.count == 0)
        return vorsh_result_t::good;
    script->error_line = open.lines[open.count - 1] + 1u;
    vorsh_fail(script, "a block without its \"end\"");
    return vorsh_result_t::unfinished;
}

vorsh_result_t vorsh_run(vorsh_script_t* script) {
    script->exited = false;
    for (size_t at = 0; at < script->line_count;) {
        const vorsh_line_t& line = script->lines[at];
        script->error_line = static_cast<uint32_t>(at + 1);
        if (line.word == vorsh_word_t::blank) {
            ++at;
            continue;
        }
        if (!take_step(script) || !vorsh_split(script, line) || !run_line(script, &at))
            return vorsh_result_t::bad;
    }
    return vorsh_result_t::good;
}
