#include "kernel/apps/shell/line_editor.h"

#include <gtest/gtest.h>

#include <string>

#include "kernel/drivers/keymap.h"

namespace {

class LineEditor : public ::testing::Test {
protected:
    history_t history = {};
    line_editor_t editor;

    void SetUp() override { line_editor_start(&editor); }
    line_result_t key(uint8_t code) { return line_editor_key(&editor, code, &history); }
    line_show_t show(uint8_t code) { return key(code).show; }
    void type(const std::string& text) {
        for (const char c : text)
            key(static_cast<uint8_t>(c));
    }
    /// The line with a bar where the cursor stands.
    std::string line() const {
        EXPECT_EQ(std::string(editor.line).size(), static_cast<size_t>(editor.length));
        return std::string(editor.line).insert(static_cast<size_t>(editor.cursor), "|");
    }
};

TEST_F(LineEditor, TypesAtTheEndAndInTheMiddle) {
    EXPECT_EQ(show('a'), line_show_t::last_character);
    type("c");
    EXPECT_EQ(show(KEY_LEFT), line_show_t::line);
    EXPECT_EQ(show('b'), line_show_t::line);
    EXPECT_EQ(line(), "ab|c");
    for (const uint8_t code : {KEY_PAGE_UP, KEY_PAGE_DOWN, uint8_t{127}, uint8_t{9}, uint8_t{27},
                               uint8_t{0}, uint8_t{0x89}, uint8_t{255}})
        EXPECT_EQ(show(code), line_show_t::nothing) << int{code};
    EXPECT_EQ(show(12), line_show_t::screen);
    EXPECT_EQ(line(), "ab|c");
    EXPECT_EQ(show('\r'), line_show_t::new_line);
    EXPECT_TRUE(key('\n').done);
}

TEST_F(LineEditor, CursorAndDeletionStopAtTheEdges) {
    for (const uint8_t code : {KEY_LEFT, KEY_RIGHT, KEY_DELETE, uint8_t{8}})
        EXPECT_EQ(show(code), line_show_t::nothing) << int{code};
    type("abcd");
    EXPECT_EQ(show(KEY_RIGHT), line_show_t::nothing);
    EXPECT_EQ(show(KEY_DELETE), line_show_t::nothing);
    EXPECT_EQ(show(8), line_show_t::line);
    EXPECT_EQ(line(), "abc|");
    key(KEY_HOME);
    EXPECT_EQ(show(8), line_show_t::nothing);
    EXPECT_EQ(show(KEY_LEFT), line_show_t::nothing);
    EXPECT_EQ(show(KEY_DELETE), line_show_t::line);
    EXPECT_EQ(line(), "|bc");
    key(KEY_RIGHT);
    key(8);
    EXPECT_EQ(line(), "|c");
    key(KEY_END);
    EXPECT_EQ(line(), "c|");
}

TEST_F(LineEditor, TypingTheLastCharacterEndsTheLine) {
    type(std::string(253, 'x'));
    EXPECT_FALSE(key('y').done);
    key(KEY_HOME);
    const line_result_t last = key('z');
    EXPECT_TRUE(last.done);
    EXPECT_EQ(last.show, line_show_t::line);
    EXPECT_EQ(line(), "z|" + std::string(253, 'x') + "y");

    // A full line out of the history waits to be entered; nothing more fits.
    history_add(&history, editor.line);
    line_editor_start(&editor);
    EXPECT_FALSE(key(KEY_UP).done);
    EXPECT_EQ(editor.length, LINE_LENGTH_MAX);
    EXPECT_EQ(show('q'), line_show_t::nothing);
    EXPECT_FALSE(key('q').done);
    key(8);
    EXPECT_TRUE(key('q').done);
}

TEST_F(LineEditor, UpAndDownComeBackToWhatWasTyped) {
    EXPECT_EQ(show(KEY_UP), line_show_t::nothing);
    EXPECT_EQ(show(KEY_DOWN), line_show_t::nothing);
    for (const char* text : {"one", "two", "two", "", "three"})
        history_add(&history, text);
    EXPECT_EQ(history.count, 3);
    type("typed");
    key(KEY_HOME);
    EXPECT_EQ(show(KEY_UP), line_show_t::line);
    EXPECT_EQ(line(), "three|");
    type("!");  // an edit of a recalled line is not kept
    key(KEY_UP);
    key(KEY_UP);
    EXPECT_EQ(line(), "one|");
    EXPECT_EQ(show(KEY_UP), line_show_t::nothing);
    key(KEY_DOWN);
    key(KEY_DOWN);
    EXPECT_EQ(line(), "three|");
    EXPECT_EQ(show(KEY_DOWN), line_show_t::line);
    EXPECT_EQ(line(), "typed|");
    EXPECT_EQ(show(KEY_DOWN), line_show_t::nothing);
}

TEST_F(LineEditor, HistoryKeepsTheNewest32) {
    for (int i = 0; i < 40; ++i)
        history_add(&history, std::to_string(i).c_str());
    EXPECT_EQ(history.count, 32);
    int steps = 0;
    while (show(KEY_UP) == line_show_t::line)
        ++steps;
    EXPECT_EQ(steps, 32);
    EXPECT_EQ(line(), "8|");
}

}  // namespace
