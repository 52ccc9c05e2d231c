// The search for a text in lines of any length: a line that was longer than a piece is read once
// more to be shown.
#include "kernel/apps/cmd_disk/common.h"
#include "kernel/apps/finder.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/drivers/console.h"

namespace {

constexpr const char* OPTION_LETTERS = "cinv";
constexpr uint32_t OPTION_COUNT = 1;
constexpr uint32_t OPTION_FOLD = 2;
constexpr uint32_t OPTION_NUMBER = 4;
constexpr uint32_t OPTION_INVERT = 8;

struct grep_t {
    const char* command;
    uint32_t options;
    finder_t finder;
};

/// A line that is being read.
struct line_t {
    uint32_t start;    ///< offset in the file
    uint32_t number;   ///< from 1
    uint32_t matched;  ///< characters of the text that the line ends in so far
    bool hit;
};

void prepare(grep_t* grep, const char* command, const char* text, uint32_t options) {
    grep->command = command;
    grep->options = options;
    finder_start(&grep->finder, text, (options & OPTION_FOLD) != 0);
}

/// One file's search.
struct search_t {
    const grep_t* grep;
    const disk_entry_t* entry;
    const char* shown;  ///< in front of each line; null: nothing
    disk_reader_t reader;
    disk_reader_t again;  ///< for lines that began in an earlier piece
    uint32_t piece_start;
    uint32_t count;
};

void print_head(const search_t& search, uint32_t number) {
    char head[SHELL_PATH_BYTES + 16];
    if (search.shown != nullptr) {
        ksnprintf(head, sizeof head, "%s:", search.shown);
        console_write(head);
    }
    if ((search.grep->options & OPTION_NUMBER) != 0) {
        ksnprintf(head, sizeof head, "%u:", number);
        console_write(head);
    }
}

void print_line(search_t* search, const line_t& line, uint32_t end) {
    print_head(*search, line.number);
    if (line.start >= search->piece_start) {
        console_write_len(search->reader.data() + (line.start - search->piece_start),
                          end - line.start);
    } else if (search->again.open(search->grep->command, *search->entry)) {
        search->again.seek(line.start);
        int got = 0;
        for (uint32_t left = end - line.start; left > 0; left -= static_cast<uint32_t>(got)) {
            got = search->again.next(left);
            if (got <= 0)
                break;
            console_write_len(search->again.data(), static_cast<size_t>(got));
        }
    }
    console_write("\n");
}

void end_line(search_t* search, line_t* line, uint32_t end) {
    const uint32_t options = search->grep->options;
    if (line->hit != ((options & OPTION_INVERT) != 0)) {
        ++search->count;
        if ((options & OPTION_COUNT) == 0)
            print_line(search, *line, end);
    }
    *line = {end + 1, line->number + 1, 0, search->grep->finder.length == 0};
}

void search_piece(search_t* search, line_t* line, uint32_t length) {
    const grep_t& grep = *search->grep;
    for (uint32_t i = 0; i < length; ++i) {
        const uint8_t c = search->reader.data()[i];
        if (c == '\n') {
            end_line(search, line, search->piece_start + i);
        } else if (!line->hit) {
            line->matched = finder_advance(grep.finder, line->matched, c);
            line->hit = line->matched == grep.finder.length;
        }
    }
}

void search_file(const grep_t& grep, const disk_entry_t& entry, const char* shown) {
    search_t search{&grep, &entry, shown, {}, {}, 0, 0};
    if (!search.reader.open(grep.command, entry))
        return;
    line_t line{0, 1, 0, grep.finder.length == 0};
    int got = 0;
    uint32_t end = 0;
    while ((got = search.reader.next()) > 0) {
        search.piece_start = end;
        end += static_cast<uint32_t>(got);
        search_piece(&search, &line, static_cast<uint32_t>(got));
    }
    // The last line may lack its line feed; the reader's buffer still holds the last piece.
    if (got == 0 && end > line.start)
        end_line(&search, &line, end);
    if ((grep.options & OPTION_COUNT) != 0) {
        if (shown != nullptr)
            kprintf("%s:", shown);
        kprintf("%u\n", search.count);
    }
}

void search_visited(const disk_visit_t& visit, void* context) {
    if (!disk_is_directory(*visit.entry))
        search_file(*static_cast<const grep_t*>(context), *visit.entry, visit.entry->path);
}

}  // namespace

void cmd_diskgrep(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    uint32_t options = 0;
    int first = 0;
    if (!disk_options(argc, argv, OPTION_LETTERS, &options, &first) || argc - first < 2) {
        kprintf("Usage: diskgrep [-cinv] text name...\n");
        return;
    }
    const heap_ptr<grep_t> grep = heap_ptr<grep_t>::make();
    if (!grep) {
        kprintf("diskgrep: no memory\n");
        return;
    }
    prepare(grep.get(), argv[0], argv[first], options);
    for (int i = first + 1; i < argc; ++i) {
        disk_entry_t entry;
        if (disk_find_file(argv[0], argv[i], &entry))
            search_file(*grep, entry, argc - first > 2 ? argv[i] : nullptr);
    }
}

void cmd_diskrgrep(int argc, char** argv) {
    if (!disk_ready(argv[0]))
        return;
    uint32_t options = 0;
    int first = 0;
    const bool valid = disk_options(argc, argv, OPTION_LETTERS, &options, &first);
    if (!valid || argc - first < 1 || argc - first > 2) {
        kprintf("Usage: diskrgrep [-cinv] text [name]\n");
        return;
    }
    const heap_ptr<grep_t> grep = heap_ptr<grep_t>::make();
    disk_entry_t entry;
    if (!grep)
        kprintf("diskrgrep: no memory\n");
    else if (disk_find(argv[0], argc - first == 2 ? argv[first + 1] : ".", &entry)) {
        prepare(grep.get(), argv[0], argv[first], options);
        disk_walk(argv[0], entry, search_visited, grep.get());
    }
}
