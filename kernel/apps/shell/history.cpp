#include "kernel/apps/shell/history.h"

#include "kernel/core/string.h"

void history_add(history_t* history, const char* line) {
    if (line[0] == '\0')
        return;
    if (history->count > 0 && strcmp(history->lines[history_newest(history)], line) == 0)
        return;
    string_copy(history->lines[history->head], line, SHELL_LINE_BYTES);
    history->head = history_newer(history->head);
    if (history->count < HISTORY_LINES)
        ++history->count;
}

int history_newest(const history_t* history) { return history_older(history->head); }

int history_oldest(const history_t* history) {
    return (history->head - history->count + HISTORY_LINES) % HISTORY_LINES;
}

int history_older(int slot) { return (slot + HISTORY_LINES - 1) % HISTORY_LINES; }

int history_newer(int slot) { return (slot + 1) % HISTORY_LINES; }
