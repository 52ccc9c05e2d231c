#include "kernel/apps/finder.h"

#include "kernel/core/string.h"

void finder_start(finder_t* finder, const char* text, bool fold) {
    finder->fold = fold;
    finder->length = static_cast<uint32_t>(string_copy(finder->text, text, sizeof finder->text));
    for (uint32_t i = 0; i < finder->length; ++i)
        finder->text[i] = finder_fold(*finder, finder->text[i]);
    finder->fallback[0] = 0;
    for (uint32_t i = 1; i < finder->length; ++i)
        finder->fallback[i] = static_cast<uint8_t>(finder_advance(
            *finder, finder->fallback[i - 1], static_cast<uint8_t>(finder->text[i])));
}
