// From a pattern's text to its steps.
#include "kernel/core/string.h"
#include "kernel/graph/epattern.h"

namespace {

constexpr size_t WORD_SIZE = 16;
constexpr char WITHIN[] = "within ";

bool is_blank(char c) { return c == ' ' || c == '\t'; }

bool is_one_of(char c, const char* set) { return c != '\0' && strchr(set, c) != nullptr; }

/// A place in the text.
class reader_t {
public:
    explicit reader_t(const char* text) : at_(text) {}
    bool at_end() const { return *at_ == '\0'; }
    bool take(char c) {
        if (*at_ != c)
            return false;
        ++at_;
        return true;
    }
    bool take(const char* text) {
        const size_t length = strlen(text);
        if (strncmp(at_, text, length) != 0)
            return false;
        at_ += length;
        return true;
    }
    void skip_blanks() {
        while (is_blank(*at_))
            ++at_;
    }
    void skip_separators() {
        do
            skip_blanks();
        while (take("->"));
    }
    /// A word up to one of `ends`, a blank or the end; what is too long is cut.
    void read_word(const char* ends, char (&word)[WORD_SIZE]) {
        size_t length = 0;
        for (; *at_ != '\0' && !is_blank(*at_) && !is_one_of(*at_, ends); ++at_) {
            if (length < WORD_SIZE - 1)
                word[length++] = *at_;
        }
        word[length] = '\0';
    }
    uint32_t read_number() {
        skip_blanks();
        return causal_parse_uint(at_);
    }

private:
    const char* at_;
};

int read_type(reader_t& reader) {
    char word[WORD_SIZE];
    reader.read_word("|+/", word);
    return causal_type_from_name(word);
}

void read_step(reader_t& reader, epattern_step_t* step) {
    static_assert(WORD_SIZE == sizeof step->subsystem);
    *step = {};
    step->alt_type = EPATTERN_ANY;
    step->flags = reader.take('!') ? EPATTERN_NEGATED : 0;
    step->type_filter = read_type(reader);
    if (reader.take('|'))
        step->alt_type = read_type(reader);
    if (reader.take('+'))
        step->flags |= EPATTERN_REPEAT;
    if (reader.take('/'))
        reader.read_word("-", step->subsystem);
    else
        string_copy(step->subsystem, "*", sizeof step->subsystem);
}

}  // namespace

int epattern_compile(const char* text, epattern_t* out) {
    if (text == nullptr || out == nullptr)
        return -1;
    *out = {};
    reader_t reader(text);
    for (;;) {
        reader.skip_separators();
        if (reader.at_end())
            break;
        if (reader.take(WITHIN)) {
            if (out->num_steps == 0)
                return -1;
            out->steps[out->num_steps - 1].max_gap = reader.read_number();
            break;
        }
        if (out->num_steps == EPATTERN_STEPS)
            break;
        read_step(reader, &out->steps[out->num_steps++]);
    }
    out->valid = out->num_steps > 0;
    return out->valid ? 0 : -1;
}
