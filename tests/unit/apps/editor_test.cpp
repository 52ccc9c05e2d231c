#include "kernel/apps/cmd_files/editor.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "kernel/drivers/kbpoll.h"

namespace {

class Editor : public ::testing::Test {
protected:
    std::unique_ptr<editor_t> editor = std::make_unique<editor_t>();

    void start(const std::string& text, int rows = 4, int columns = 12) {
        editor_start(editor.get(), rows, columns);
        editor->length = static_cast<uint32_t>(text.copy(editor->text, sizeof editor->text));
    }
    editor_wish_t keys(std::initializer_list<int> all) {
        editor_wish_t wish = editor_wish_t::none;
        for (const int key : all)
            wish = editor_key(editor.get(), key);
        return wish;
    }
    std::string text() const { return {editor->text, editor->length}; }
    /// The window, rows parted by "|", with "_" at the cursor.
    std::string window() const {
        std::string shown;
        int row = 0;
        int column = 0;
        editor_cursor(editor.get(), &row, &column);
        for (int i = 0; i < editor->rows; ++i) {
            std::string line(static_cast<size_t>(editor->columns), '#');
            editor_row(editor.get(), i, line.data());
            if (i == row)
                line.at(static_cast<size_t>(column)) = '_';
            shown += line.substr(0, line.find_last_not_of(' ') + 1) + "|";
        }
        return shown;
    }
};

TEST_F(Editor, TypesErasesAndMoves) {
    start("");
    keys({'a', 'b', '\n', 'c', '\t', 'd', KEY_UP, '\b', KEY_HOME, 'x', KEY_END, '!'});
    EXPECT_EQ(text(), "xa!\nc\td");
    EXPECT_EQ(window(), "xa!_|c       d|||");
    keys({KEY_DELETE, KEY_RIGHT, KEY_RIGHT, KEY_RIGHT, KEY_DELETE, KEY_DELETE, KBPOLL_CTRL_H});
    EXPECT_EQ(text(), "xa!c\t");
    keys({KEY_LEFT, KEY_LEFT, KEY_LEFT, KEY_LEFT, KEY_LEFT, '\b', 1, 200, KBPOLL_ESCAPE});
    EXPECT_EQ(window(), "_a!c||||");
    EXPECT_EQ(keys({KBPOLL_CTRL_S}), editor_wish_t::save);
    EXPECT_EQ(keys({KBPOLL_CTRL_Q}), editor_wish_t::quit);
}

TEST_F(Editor, ScrollsBothWaysAndKeepsTheColumn) {
    start("long line of text\n\nthird\n4\n5\n6\n7");
    keys({KEY_END});
    EXPECT_EQ(window(), "text_||||");
    keys({KEY_DOWN, KEY_DOWN});
    EXPECT_EQ(window(), "long line of||third_|4|");
    keys({KEY_PAGE_DOWN});
    EXPECT_EQ(window(), "4|5|6|7_|");
    keys({KEY_PAGE_DOWN, KEY_PAGE_UP, KEY_UP, KEY_UP});
    EXPECT_EQ(editor_line(editor.get()), 1u);
    EXPECT_EQ(editor->cursor, 17u);  // the column of the start
}

TEST_F(Editor, DeletesLinesAndStopsWhenFull) {
    start("one\ntwo\nthree");
    keys({KEY_DOWN, KEY_RIGHT, KBPOLL_CTRL_Y});
    EXPECT_EQ(text(), "one\nthree");
    keys({KBPOLL_CTRL_Y, KBPOLL_CTRL_Y});
    EXPECT_EQ(text(), "one\n");
    keys({KEY_UP, KBPOLL_CTRL_Y, KBPOLL_CTRL_Y});
    EXPECT_EQ(text(), "");
    EXPECT_TRUE(editor->modified);
    start(std::string(EDITOR_TEXT_MAX, 'x'));
    EXPECT_EQ(keys({'y'}), editor_wish_t::full);
    EXPECT_EQ(keys({KEY_DELETE, 'y'}), editor_wish_t::none);
    EXPECT_EQ(window(), "y_xxxxxxxxxx||||");
    start(std::string("\x01\xff\x7f", 3));
    EXPECT_EQ(window(), "_??||||");
}

}  // namespace
