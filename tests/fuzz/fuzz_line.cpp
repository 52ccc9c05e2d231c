// Any bytes on the serial line and any scancodes, through the key translation into the line editor:
// the edited line stays a text of its length, with the cursor in it, and ends when it must.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "kernel/apps/shell/line_editor.h"
#include "kernel/drivers/keymap.h"
#include "kernel/drivers/serial_keys.h"

namespace {

struct session_t {
    line_editor_t editor;
    history_t history{};

    session_t() { line_editor_start(&editor); }

    void key(uint8_t code) {
        const line_result_t result = line_editor_key(&editor, code, &history);
        const bool enter = code == '\n' || code == '\r';
        const bool full = editor.length == LINE_LENGTH_MAX;
        if (editor.length < 0 || editor.length > LINE_LENGTH_MAX || editor.cursor < 0 ||
            editor.cursor > editor.length ||
            std::strlen(editor.line) != static_cast<size_t>(editor.length) ||
            result.done != (enter || (result.done && full)))
            std::abort();
        if (!result.done)
            return;
        history_add(&history, editor.line);
        line_editor_start(&editor);
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
