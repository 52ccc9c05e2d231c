// Lines into words, and the variables in them.
#include <algorithm>
#include <iterator>

#include "kernel/apps/vorsh/script.h"
#include "kernel/core/string.h"

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_name_character(char c) {
    return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

vorsh_variable_t* find(vorsh_script_t* script, const char* name) {
    for (vorsh_variable_t& variable : script->variables) {
        if (variable.name[0] != '\0' && strcmp(variable.name, name) == 0)
            return &variable;
    }
    return nullptr;
}

/// A line on its way into `words`.
struct splitter_t {
    vorsh_script_t* script;
    const char* at;
    const char* end;
    size_t used;  ///< bytes of `words`

    bool put(char c) {
        if (used == VORSH_WORDS_BYTES)
            return vorsh_fail(script, "the line is too long");
        script->words[used++] = c;
        return true;
    }

    bool put_text(const char* text) {
        for (; *text != '\0'; ++text) {
            if (!put(*text))
                return false;
        }
        return true;
    }

    /// What stands behind a "$".
    bool put_variable() {
        if (at < end && *at == '$')
            return put(*at++);
        const bool braced = at < end && *at == '{';
        at += braced;
        const char* stop = std::find_if_not(at, end, is_name_character);
        const auto length = static_cast<size_t>(stop - at);
        const bool closed = !braced || (stop < end && *stop == '}');
        if (length == 0 || !closed)
            return vorsh_fail(script, "\"$\" without a variable's name ($$ is a dollar sign)");
        char name[VORSH_NAME_SIZE];
        string_copy(name, at, std::min(length + 1, sizeof name));
        at = stop + braced;
        const vorsh_variable_t* variable = length < VORSH_NAME_SIZE ? find(script, name) : nullptr;
        if (variable == nullptr)
            return vorsh_fail(script, "$%s is not set", name);
        return put_text(variable->value);
    }

    bool put_word() {
        bool quoted = false;
        while (at < end && (quoted || !is_blank(*at))) {
            const char c = *at++;
            if (c == '\0')
                return vorsh_fail(script, "a zero byte: not a text");
            if (c == '"')
                quoted = !quoted;
            else if (!(c == '$' ? put_variable() : put(c)))
                return false;
        }
        return quoted ? vorsh_fail(script, "a quote without its end") : put('\0');
    }
};

}  // namespace

bool vorsh_is_name(const char* name) {
    const char* end = name + strlen(name);
    return name != end && !is_digit(*name) && std::all_of(name, end, is_name_character);
}

bool vorsh_set(vorsh_script_t* script, const char* name, const char* value) {
    if (strlen(name) >= VORSH_NAME_SIZE)
        return vorsh_fail(script, "a variable's name has at most %u characters",
                          static_cast<uint32_t>(VORSH_NAME_SIZE - 1));
    if (strlen(value) >= VORSH_VALUE_SIZE)
        return vorsh_fail(script, "the value of %s has more than %u characters", name,
                          static_cast<uint32_t>(VORSH_VALUE_SIZE - 1));
    vorsh_variable_t* variable = find(script, name);
    if (variable == nullptr) {
        variable = std::find_if(std::begin(script->variables), std::end(script->variables),
                                [](const vorsh_variable_t& v) { return v.name[0] == '\0'; });
        if (variable == std::end(script->variables))
            return vorsh_fail(script, "more than %d variables", VORSH_VARIABLES_MAX);
        string_copy(variable->name, name, sizeof variable->name);
    }
    string_copy(variable->value, value, sizeof variable->value);
    return true;
}

bool vorsh_split(vorsh_script_t* script, const vorsh_line_t& line) {
    const char* start = script->text + line.start;
    splitter_t splitter = {script, start, start + line.length, 0};
    script->argc = 0;
    for (;;) {
        splitter.at = std::find_if_not(splitter.at, splitter.end, is_blank);
        if (splitter.at == splitter.end || *splitter.at == '#')
            return true;
        if (script->argc == VORSH_WORDS_MAX)
            return vorsh_fail(script, "more than %d words", VORSH_WORDS_MAX);
        script->argv[script->argc++] = script->words + splitter.used;
        if (!splitter.put_word())
            return false;
    }
}
