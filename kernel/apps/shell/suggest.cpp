// The nearest command to a name that is none.
#include <algorithm>

#include "kernel/apps/shell.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

constexpr int LONGEST_NAME = 20;
constexpr int DISTANCE_FAR = 99;
constexpr int DISTANCE_LIMIT = 3;  // a suggestion is nearer than this

/// Insertions, deletions and substitutions between two names (Levenshtein's distance).
int edit_distance(const char* a, const char* b) {
    const size_t a_len = strlen(a);
    const size_t b_len = strlen(b);
    if (a_len > LONGEST_NAME || b_len > LONGEST_NAME)
        return DISTANCE_FAR;
    // row[j]: distance between the first i characters of a and the first j of b.
    int row[LONGEST_NAME + 1];
    for (size_t j = 0; j <= b_len; ++j)
        row[j] = static_cast<int>(j);
    for (size_t i = 1; i <= a_len; ++i) {
        int diagonal = row[0];
        row[0] = static_cast<int>(i);
        for (size_t j = 1; j <= b_len; ++j) {
            const int replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row[b_len];
}

}  // namespace

void suggest_command(const char* name) {
    const char* best = nullptr;
    int best_distance = DISTANCE_LIMIT;
    for (const command_t* command = commands; command->name != nullptr; ++command) {
        const int distance = edit_distance(name, command->name);
        if (distance >= best_distance)
            continue;
        best = command->name;
        best_distance = distance;
    }
    if (best != nullptr)
        kprintf("  Did you mean: %s?\n", best);
}
