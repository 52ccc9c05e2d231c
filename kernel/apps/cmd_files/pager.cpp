// more and less: one page of a file at a time. Going back reads the file anew from its start, so
// that nothing but a piece of it is ever in memory.
#include "arch/x86/vga.h"
#include "kernel/apps/cmd_files.h"
#include "kernel/apps/cmd_files/common.h"
#include "kernel/apps/shell.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/core/task.h"
#include "kernel/drivers/keymap.h"

namespace {

constexpr int TAB_STOP = 8;
constexpr const char* ERASE_QUESTION = "\r                                        \r";

struct pager_t {
    overlay_file_t file;
    uint32_t rows;  ///< of a page
    int columns;
    uint32_t row;      ///< rows that were passed since the start of the file
    uint32_t stop_at;  ///< the row before which to ask
    uint32_t skip_to;  ///< rows before this one are not shown
    uint32_t offset;   ///< of the next piece
    int column;
    bool quit;
    bool rewound;  ///< start over from the beginning
};

void measure_terminal(pager_t* pager) {
    int rows = 0;
    int columns = 0;
    task_t* task = task_current();
    if (task == nullptr || !task_get_term_size(task, &rows, &columns)) {
        rows = VGA_ROWS;
        columns = VGA_COLUMNS;
    }
    pager->rows = rows > 1 ? static_cast<uint32_t>(rows) - 1 : 1;
    pager->columns = columns;
}

void turn_back(pager_t* pager) {
    const uint32_t shown = 2 * pager->rows;
    pager->skip_to = pager->row > shown ? pager->row - shown : 0;
    pager->stop_at = pager->skip_to + pager->rows;
    pager->row = 0;
    pager->column = 0;
    pager->rewound = true;
}

/// Asks what to do at the end of a page, until the answer is one.
void ask(pager_t* pager) {
    const uint32_t percent =
        pager->file.size == 0
            ? 100
            : static_cast<uint32_t>(uint64_t{pager->offset} * 100 / pager->file.size);
    char question[64];
    ksnprintf(question, sizeof question, "--More--(%u%%)  [space Enter b q]",
              percent > 100 ? 100 : percent);
    shell_puts(question);
    for (bool answered = false; !answered;) {
        answered = true;
        switch (shell_getchar()) {
            case ' ':
            case 'f':
            case KEY_PAGE_DOWN:
                pager->stop_at = pager->row + pager->rows;
                break;
            case '\n':
            case '\r':
            case 'j':
            case KEY_DOWN:
                pager->stop_at = pager->row + 1;
                break;
            case 'b':
            case KEY_PAGE_UP:
                turn_back(pager);
                break;
            case 'q':
            case 3:  // Ctrl+C
                pager->quit = true;
                break;
            default:
                answered = false;
        }
    }
    shell_puts(ERASE_QUESTION);
}

/// Follows where `byte` puts the cursor.
void advance(pager_t* pager, uint8_t byte) {
    if (byte == '\t')
        pager->column = (pager->column / TAB_STOP + 1) * TAB_STOP;
    else if (byte != '\n')
        ++pager->column;
    if (byte != '\n' && pager->column < pager->columns)
        return;
    pager->column = 0;
    ++pager->row;
}

/// Shows a piece up to its end, or to where the answer leads elsewhere.
bool page_piece(pager_t* pager, std::span<const uint8_t> piece) {
    size_t shown = 0;
    for (size_t i = 0; i < piece.size(); ++i) {
        const bool hidden = pager->row < pager->skip_to;
        advance(pager, piece[i]);
        if (hidden)
            shown = i + 1;
        const bool at_end = pager->offset + i + 1 >= pager->file.size;
        if (pager->row < pager->stop_at || pager->column != 0 || at_end)
            continue;
        file_show(piece.subspan(shown, i + 1 - shown));
        shown = i + 1;
        pager->offset += static_cast<uint32_t>(i + 1);
        ask(pager);
        pager->offset -= static_cast<uint32_t>(i + 1);
        if (pager->quit || pager->rewound)
            return false;
    }
    file_show(piece.subspan(shown));
    pager->offset += static_cast<uint32_t>(piece.size());
    return true;
}

/// Pages through one file; false when the user has had enough.
bool page_file(pager_t* pager, const char* command, const char* typed) {
    if (!file_open(command, typed, &pager->file))
        return true;
    pager->row = pager->skip_to = 0;
    pager->column = 0;
    pager->stop_at = pager->rows;
    do {
        pager->rewound = false;
        pager->offset = 0;
        const bool good = file_read_from(command, pager->file, 0,
                                         [&](auto piece) { return page_piece(pager, piece); });
        if (!good)
            return true;
    } while (pager->rewound);
    if (!pager->quit && pager->column != 0)
        shell_puts("\n");
    return !pager->quit;
}

}  // namespace

void cmd_more(int argc, char** argv) {
    file_options_t options;
    if (argc < 2) {
        kprintf("Usage: %s <file...>\n", argv[0]);
        return;
    }
    if (!file_options(argc, argv, "", 1, "more <file...>", &options))
        return;
    // Nobody would answer the question.
    if (!shell_is_attended()) {
        cmd_cat(argc, argv);
        return;
    }
    const auto pager = heap_ptr<pager_t>::make();
    if (!pager) {
        kprintf("%s: %s\n", argv[0], overlay_error_text(OVERLAY_NO_MEMORY));
        return;
    }
    memset(pager.get(), 0, sizeof(pager_t));
    measure_terminal(pager.get());
    for (int i = options.first; i < argc; ++i) {
        if (!page_file(pager.get(), argv[0], argv[i]))
            return;
    }
}
