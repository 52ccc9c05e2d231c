// The lines that were entered, newest last: a ring of 32. Pure; whoever shares one between tasks
// guards it.
#pragma once

#include "kernel/apps/shell.h"

constexpr int HISTORY_LINES = 32;

struct history_t {
    char lines[HISTORY_LINES][SHELL_LINE_BYTES];
    int head;   ///< slot of the next line
    int count;  ///< lines held
};

/// Adds `line` unless it is empty or equal to the newest one.
void history_add(history_t* history, const char* line);

/// The slots of the newest and the oldest line; only if count > 0.
int history_newest(const history_t* history);
int history_oldest(const history_t* history);

/// The slots beside `slot`.
int history_older(int slot);
int history_newer(int slot);
