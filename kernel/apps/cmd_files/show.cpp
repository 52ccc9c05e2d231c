// What shows contents: cat, head, tail, wc, grep.
#include <algorithm>

#include "kernel/apps/cmd_files.h"
#include "kernel/apps/cmd_files/common.h"
#include "kernel/apps/finder.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/drivers/console.h"

namespace {

using bytes_t = std::span<const uint8_t>;

constexpr uint32_t DEFAULT_LINES = 10;
constexpr size_t GREP_LINE_BYTES = 1024;
constexpr size_t NUMBER_BYTES = 16;

uint32_t wanted_lines(const file_options_t& options) {
    return options.has('n') ? options.number : DEFAULT_LINES;
}

/// Parts the contents of several files.
void print_title(int argc, char** argv, int index, int first) {
    if (argc - first > 1)
        kprintf("%s==> %s <==\n", index > first ? "\n" : "", argv[index]);
}

/// Shows contents; at its end the terminal stands at the start of a line, or the next prompt would
/// wipe out what was shown.
class shown_t {
public:
    ~shown_t() {
        if (last_ != '\n')
            console_write("\n");
    }
    void show(bytes_t bytes) {
        if (bytes.empty())
            return;
        file_show(bytes);
        last_ = bytes.back();
    }

private:
    uint8_t last_ = '\n';
};

void show_head(const char* typed, uint32_t lines) {
    overlay_file_t file;
    if (!file_open("head", typed, &file) || lines == 0)
        return;
    shown_t shown;
    (void)file_read_from("head", file, 0, [&](bytes_t piece) {
        auto end = piece.begin();
        while (lines > 0 && end != piece.end()) {
            end = std::find(end, piece.end(), '\n');
            if (end == piece.end())
                break;
            ++end;
            --lines;
        }
        shown.show(piece.first(static_cast<size_t>(end - piece.begin())));
        return lines > 0;
    });
}

/// Finds where the last `lines` lines begin, from the end backwards; an OVERLAY_ code otherwise.
int find_tail(const overlay_file_t& file, uint32_t lines, uint8_t* piece, uint32_t* start) {
    uint32_t end = file.size;
    bool at_end = true;  // the line feed that ends the last line separates nothing
    while (end > 0) {
        const uint32_t from = (end - 1) / FILE_PIECE_BYTES * FILE_PIECE_BYTES;
        const int count = overlay_read(&file, piece, from, end - from);
        if (count < 0)
            return count;
        for (auto i = static_cast<uint32_t>(count); i > 0; --i) {
            if (piece[i - 1] == '\n' && !at_end && --lines == 0) {
                *start = from + i;
                return 0;
            }
            at_end = false;
        }
        end = from;
    }
    *start = 0;
    return 0;
}

void show_tail(const char* typed, uint32_t lines) {
    overlay_file_t file;
    if (!file_open("tail", typed, &file) || lines == 0)
        return;
    uint32_t start = 0;
    {
        const auto piece = heap_ptr<uint8_t>::make(FILE_PIECE_BYTES);
        const int error =
            piece ? find_tail(file, lines, piece.get(), &start) : int{OVERLAY_NO_MEMORY};
        if (error != 0) {
            (void)file_error("tail", typed, error);
            return;
        }
    }
    shown_t shown;
    (void)file_read_from("tail", file, start, [&shown](bytes_t piece) {
        shown.show(piece);
        return true;
    });
}

struct counts_t {
    uint32_t lines, words, bytes;
};

void count_piece(bytes_t piece, counts_t* counts, bool* in_word) {
    counts->bytes += static_cast<uint32_t>(piece.size());
    for (const uint8_t byte : piece) {
        const bool blank = byte == ' ' || (byte >= '\t' && byte <= '\r');
        counts->lines += byte == '\n';
        counts->words += !blank && !*in_word;
        *in_word = !blank;
    }
}

void print_counts(const counts_t& counts, const file_options_t& options, const char* name) {
    const bool all = options.flags == 0;
    if (all || options.has('l'))
        kprintf("%8u", counts.lines);
    if (all || options.has('w'))
        kprintf("%8u", counts.words);
    if (all || options.has('c'))
        kprintf("%8u", counts.bytes);
    kprintf(" %s\n", name);
}

/// One file on its way through grep, and the line that it is at.
struct grep_t {
    finder_t finder;
    const file_options_t* options;
    const char* prefix;  ///< before each line: the file's name, or null
    overlay_file_t file;
    uint32_t matches;
    uint32_t number, start, length;  ///< of the line; where it begins in the file
    uint32_t found;                  ///< characters of the text that it ends in so far
    bool hit;
    uint8_t line[GREP_LINE_BYTES];  ///< what it begins with
};

/// A line that is longer than what is kept of it is read once more.
void print_line(const grep_t& grep) {
    if (grep.length <= GREP_LINE_BYTES) {
        file_show({grep.line, grep.length});
        return;
    }
    size_t left = grep.length;
    (void)file_read_from("grep", grep.file, grep.start, [&left](bytes_t piece) {
        file_show(piece.first(std::min(left, piece.size())));
        left -= std::min(left, piece.size());
        return left > 0;
    });
}

void print_match(const grep_t& grep) {
    if (grep.prefix != nullptr) {
        console_write(grep.prefix);
        console_write(":");
    }
    if (grep.options->has('n')) {
        char number[NUMBER_BYTES];
        ksnprintf(number, sizeof number, "%u:", grep.number);
        console_write(number);
    }
    print_line(grep);
    console_write("\n");
}

void grep_start_line(grep_t* grep, uint32_t start) {
    ++grep->number;
    grep->start = start;
    grep->length = 0;
    grep->found = 0;
    grep->hit = grep->finder.length == 0;
}

void grep_end_line(grep_t* grep) {
    if (grep->hit != grep->options->has('v')) {
        ++grep->matches;
        if (!grep->options->has('c'))
            print_match(*grep);
    }
    grep_start_line(grep, grep->start + grep->length + 1);
}

void grep_piece(grep_t* grep, bytes_t piece) {
    for (const uint8_t byte : piece) {
        if (byte == '\n') {
            grep_end_line(grep);
            continue;
        }
        if (grep->length < GREP_LINE_BYTES)
            grep->line[grep->length] = byte;
        ++grep->length;
        if (!grep->hit) {
            grep->found = finder_advance(grep->finder, grep->found, byte);
            grep->hit = grep->found == grep->finder.length;
        }
    }
}

void grep_file(grep_t* grep, const char* typed) {
    if (!file_open("grep", typed, &grep->file))
        return;
    grep->number = grep->matches = 0;
    grep_start_line(grep, 0);
    const bool good = file_read_from("grep", grep->file, 0, [grep](bytes_t piece) {
        grep_piece(grep, piece);
        return true;
    });
    if (!good)
        return;
    if (grep->length > 0)  // the last line lacks its line feed
        grep_end_line(grep);
    if (!grep->options->has('c'))
        return;
    if (grep->prefix != nullptr)
        kprintf("%s:", grep->prefix);
    kprintf("%u\n", grep->matches);
}

}  // namespace

void cmd_cat(int argc, char** argv) {
    file_options_t options;
    if (!file_options(argc, argv, "", 1, "cat <file...>", &options))
        return;
    shown_t shown;
    for (int i = options.first; i < argc; ++i) {
        (void)file_read("cat", argv[i], [&shown](bytes_t piece) {
            shown.show(piece);
            return true;
        });
    }
}

void cmd_head(int argc, char** argv) {
    file_options_t options;
    if (!file_options(argc, argv, "n:", 1, "head [-n lines] <file...>", &options))
        return;
    for (int i = options.first; i < argc; ++i) {
        print_title(argc, argv, i, options.first);
        show_head(argv[i], wanted_lines(options));
    }
}

void cmd_tail(int argc, char** argv) {
    file_options_t options;
    if (!file_options(argc, argv, "n:", 1, "tail [-n lines] <file...>", &options))
        return;
    for (int i = options.first; i < argc; ++i) {
        print_title(argc, argv, i, options.first);
        show_tail(argv[i], wanted_lines(options));
    }
}

void cmd_wc(int argc, char** argv) {
    file_options_t options;
    if (!file_options(argc, argv, "lwc", 1, "wc [-l] [-w] [-c] <file...>", &options))
        return;
    counts_t total = {};
    for (int i = options.first; i < argc; ++i) {
        counts_t counts = {};
        bool in_word = false;
        const bool good = file_read("wc", argv[i], [&](bytes_t piece) {
            count_piece(piece, &counts, &in_word);
            return true;
        });
        if (!good)
            continue;
        print_counts(counts, options, argv[i]);
        total = {total.lines + counts.lines, total.words + counts.words,
                 total.bytes + counts.bytes};
    }
    if (argc - options.first > 1)
        print_counts(total, options, "total");
}

void cmd_grep(int argc, char** argv) {
    constexpr const char* USAGE = "grep [-i] [-n] [-v] [-c] <text> <file...>";
    file_options_t options;
    if (!file_options(argc, argv, "invc", 2, USAGE, &options))
        return;
    const auto grep = heap_ptr<grep_t>::make();
    if (!grep) {
        kprintf("grep: %s\n", overlay_error_text(OVERLAY_NO_MEMORY));
        return;
    }
    finder_start(&grep->finder, argv[options.first], options.has('i'));
    grep->options = &options;
    const int first = options.first + 1;
    for (int i = first; i < argc; ++i) {
        grep->prefix = argc - first > 1 ? argv[i] : nullptr;
        grep_file(grep.get(), argv[i]);
    }
}
