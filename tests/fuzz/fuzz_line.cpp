// Any bytes on the serial line and any scancodes, through the key translation into the line editor:
// the edited line stays equal to a plain model of it, in length, text and cursor.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <string>

#include "kernel/apps/shell/line_editor.h"
#include "kernel/drivers/keymap.h"
#include "kernel/drivers/serial_keys.h"

namespace {

constexpr uint8_t BACKSPACE = 8;
constexpr uint8_t LINE_FEED = 10;

/// The line as a text, the history as a list, newest first.
struct model_t {
    std::string line, typed;
    size_t cursor = 0;
    std::deque<std::string> history;
    size_t shown = 0;  ///< 0: typing; n: the n-th entry of the history

    void show(size_t entry) {
        if (shown == 0)
            typed = line;
        shown = entry;
        line = entry == 0 ? typed : history[entry - 1];
        cursor = line.size();
    }

    void key(uint8_t code) {
        if (code >= ' ' && code <= '~' && line.size() < LINE_LENGTH_MAX)
            line.insert(cursor++, 1, static_cast<char>(code));
        else if (code == BACKSPACE && cursor > 0)
            line.erase(--cursor, 1);
        else if (code == KEY_DELETE && cursor < line.size())
            line.erase(cursor, 1);
        else if (code == KEY_LEFT && cursor > 0)
            --cursor;
        else if (code == KEY_RIGHT && cursor < line.size())
            ++cursor;
        else if (code == KEY_HOME)
            cursor = 0;
        else if (code == KEY_END)
            cursor = line.size();
        else if (code == KEY_UP && shown < history.size())
            show(shown + 1);
        else if (code == KEY_DOWN && shown > 0)
            show(shown - 1);
    }

    void finish() {
        if (!line.empty() && (history.empty() || history.front() != line))
            history.push_front(line);
        if (history.size() > HISTORY_LINES)
            history.pop_back();
        line.clear();
        cursor = shown = 0;
    }
};

struct session_t {
    line_editor_t editor;
    history_t history{};
    model_t model;

    session_t() { line_editor_start(&editor); }

    void key(uint8_t code) {
        const line_result_t result = line_editor_key(&editor, code, &history);
        model.key(code);
        const bool full = model.line.size() == LINE_LENGTH_MAX;
        if (model.line != editor.line || model.cursor != static_cast<size_t>(editor.cursor) ||
            model.line.size() != static_cast<size_t>(editor.length))
            std::abort();
        if (code == LINE_FEED && !result.done)
            std::abort();
        if (!result.done)
            return;
        if (code != LINE_FEED && code != '\r' && !full)
            std::abort();
        history_add(&history, editor.line);
        line_editor_start(&editor);
        model.finish();
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    session_t session;
    auto serial = serial_keys_t::idle;
    keymap_t keys{};
    const bool from_keyboard = (data[0] & 1) != 0;
    std::for_each(data + 1, data + size, [&](uint8_t byte) {
        const uint8_t code =
            from_keyboard ? keymap_step(&keys, byte).code : serial_keys_step(&serial, byte);
        if (code != 0)
            session.key(code);
    });
    return 0;
}
