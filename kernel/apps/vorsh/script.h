// The interpreter: a text of statements is first put into a table of lines, where each block's
// lines know their partners, then run. Pure but for its hooks; it allocates nothing. Private to
// kernel/apps/vorsh/ and its tests.
//
//      while COND  <-----+          if COND  ---false---+
//        ...             |            ...               |
//      end  -------------+          else  ----------+   |
//                                     ...  <--------|---+
//                                   end  <----------+
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kernel/apps/vorsh.h"
#include "kernel/core/compiler.h"

constexpr size_t VORSH_LINES_MAX = 1024;
constexpr int VORSH_BLOCKS_MAX = 16;  ///< open at once
constexpr int VORSH_VARIABLES_MAX = 32;
constexpr size_t VORSH_NAME_SIZE = 32;  ///< of a variable, with the terminator
constexpr size_t VORSH_VALUE_SIZE = 128;
constexpr int VORSH_WORDS_MAX = 64;        ///< of a statement
constexpr size_t VORSH_WORDS_BYTES = 512;  ///< of its words, variables replaced
constexpr size_t VORSH_ERROR_BYTES = 192;

/// What a script does to the world.
struct vorsh_hooks_t {
    void (*print)(const char* line);         ///< shows a line; it has no line feed
    bool (*command)(int argc, char** argv);  ///< runs a command; false: there is none
    int command_words_max;
};

enum class vorsh_word_t : uint8_t {
    command,
    echo,
    set,
    expr,
    exit,
    if_,
    else_,
    while_,
    end,
    blank
};

struct vorsh_line_t {
    uint16_t start;  ///< in the text
    uint16_t length;
    uint16_t partner;  ///< if: its else or end; else, while: its end; end: what it ends
    vorsh_word_t word;
};

struct vorsh_variable_t {
    char name[VORSH_NAME_SIZE];  ///< empty: free
    char value[VORSH_VALUE_SIZE];
};

struct vorsh_script_t {
    const vorsh_hooks_t* hooks;
    uint32_t* steps_left;  ///< shared with the script that runs this one
    const char* text;
    size_t line_count;
    bool exited;          ///< the last run came to an "exit"
    uint32_t error_line;  ///< from 1
    char error[VORSH_ERROR_BYTES];
    int argc;
    char* argv[VORSH_WORDS_MAX];
    char words[VORSH_WORDS_BYTES];
    vorsh_variable_t variables[VORSH_VARIABLES_MAX];
    vorsh_line_t lines[VORSH_LINES_MAX];
};

enum class vorsh_result_t : uint8_t {
    good,
    unfinished,  ///< a block lacks its end; `error` says which
    bad,         ///< `error_line` and `error` say why
};

/// Forgets everything; no variables.
void vorsh_start(vorsh_script_t* script, const vorsh_hooks_t* hooks, uint32_t* steps_left);

/// Takes `text`, which must stay, of `length` bytes (at most VORSH_SCRIPT_BYTES_MAX) as the
/// statements to run.
[[nodiscard]] vorsh_result_t vorsh_load(vorsh_script_t* script, const char* text, size_t length);

/// Runs what was loaded. Variables are kept for what is loaded next.
[[nodiscard]] vorsh_result_t vorsh_run(vorsh_script_t* script);

/// Sets a variable; false, with `error` set, when there is no room for it.
[[nodiscard]] bool vorsh_set(vorsh_script_t* script, const char* name, const char* value);

// --- Between the interpreter's files -------------------------------------------------------------

/// Sets `error`; always false.
bool vorsh_fail(vorsh_script_t* script, const char* fmt, ...) VORN_PRINTF(2, 3);

/// Whether `name` may be set by a statement: letters, digits and "_", no digit first.
bool vorsh_is_name(const char* name);

/// Parts a line into words and replaces its variables.
[[nodiscard]] bool vorsh_split(vorsh_script_t* script, const vorsh_line_t& line);

/// Computes the `count` words "A [OP B]...".
[[nodiscard]] bool vorsh_compute(vorsh_script_t* script, char** words, int count, int* result);

/// Judges the `count` words "A" or "A OP B".
[[nodiscard]] bool vorsh_judge(vorsh_script_t* script, char** words, int count, bool* result);
