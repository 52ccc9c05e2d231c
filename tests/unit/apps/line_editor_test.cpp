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

TEST_F(LineEditor, EditsWithinTheLine) {
    const std::pair<const char*, const char*> cases[] = {
        {"ac\x82\x62", "ab|c"}, {"\x82\x83\x86\b", "|"},   {"abc\x83\x86", "abc|"},
        {"abc\b", "ab|"},       {"abc\x84\b\x82", "|abc"}, {"abc\x84\x86", "|bc"},
        {"abc\x82\b", "a|c"},   {"abc\x84\x85", "abc|"},   {"a\x7f\t\x1b\x87\x88\x89\xff", "a|"},
    };
    for (const auto& [keys, expected] : cases) {
        line_editor_start(&editor);
        type(keys);
        EXPECT_EQ(line(), expected);
    }
}

TEST_F(LineEditor, SaysWhatToShow) {
    EXPECT_EQ(show('a'), line_show_t::last_character);
    for (const uint8_t code : {KEY_RIGHT, KEY_DELETE, KEY_UP, KEY_DOWN, KEY_PAGE_UP})
        EXPECT_EQ(show(code), line_show_t::nothing) << int{code};
    EXPECT_EQ(show(KEY_LEFT), line_show_t::line);
    EXPECT_EQ(show('b'), line_show_t::line);
    EXPECT_EQ(show(12), line_show_t::screen);
    EXPECT_EQ(show('\r'), line_show_t::new_line);
    EXPECT_TRUE(key('\n').done);
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
    for (const char* text : {"one", "two", "two", "", "three"})
        history_add(&history, text);
    EXPECT_EQ(history.count, 3);
    type("typed\x84\x80");
    EXPECT_EQ(line(), "three|");
    type("!\x80\x80");  // an edit of a recalled line is not kept
    EXPECT_EQ(line(), "one|");
    EXPECT_EQ(show(KEY_UP), line_show_t::nothing);
    type("\x81\x81");
    EXPECT_EQ(line(), "three|");
    type("\x81");
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
