// Selection on screens built by feeding text: word and bracket expansion, rows, and the text read
// back across soft wraps and wide characters.
#include "TerminalEngine/Selection/SelectionService.h"

#include "TerminalHarness.h"

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

using testing::TerminalHarness;

struct WordCase {
    const char* name;
    int cols;
    const char* screen;
    Position click;
    const char* selected;
};

const WordCase wordCases[] = {
    {"OpeningBracketSelectsThroughItsCloser", 20, "x f(a(b)c) y", {3, 0}, "(a(b)c)"},
    {"ClosingBracketSelectsBackToItsOpener", 20, "x f(a(b)c) y", {9, 0}, "(a(b)c)"},
    {"InnerBracket", 20, "x f(a(b)c) y", {5, 0}, "(b)"},
    {"MixedBracketsNest", 30, "{a[b(c)d]e}", {0, 0}, "{a[b(c)d]e}"},
    {"BracketFollowsASoftWrap", 8, "ab(cdefghij)kl", {2, 0}, "(cdefghij)"},
    {"BracketDoesNotCrossAHardLineBreak", 20, "a(b\r\nc)d", {1, 0}, "("},
    {"MismatchedBracketFallsBackToTheRun", 20, "a(b]c", {1, 0}, "("},
    {"FileNameIsOneWord", 30, "see foo.bar-baz_1 now", {6, 0}, "foo.bar-baz_1"},
    {"WordFollowsASoftWrap", 6, "abc defghij k", {4, 0}, "defghij"},
    {"WideLettersAreWordCharacters", 20, "x 日本語 y", {5, 0}, "日本語"},
    {"AccentedWord", 20, "un café noir", {4, 0}, "café"},
    {"RunOfTheSameCharacter", 20, "a====b", {2, 0}, "===="},
    {"RunStopsAtADifferentSymbol", 20, "a==++b", {1, 0}, "=="},
};

TEST(WordExpansion, DoubleClickSelectsTheUnit) {
    for (const WordCase& c : wordCases) {
        SCOPED_TRACE(c.name);
        TerminalHarness h(c.cols, 5);
        h.feed(c.screen);
        SelectionService selection(*h.terminal);
        selection.startSelection(c.click, SelectionMode::word);
        EXPECT_EQ(selection.getSelectedText(), c.selected);
    }
}

TEST(SelectionService, BlanksFormARunAndReadAsNothingAtTheLineEnd) {
    TerminalHarness h(20, 3);
    h.feed("ab    cd");
    SelectionService selection(*h.terminal);
    SelectionService::Range range = selection.wordRange({3, 0});
    EXPECT_EQ(range, (SelectionService::Range{{2, 0}, {6, 0}}));
}

// Text read back between two positions: soft wraps join, wide characters read once, trailing blanks
// of a hard line drop while chosen spaces stay, and empty cells inside a line read as the null char.
TEST(SelectionService, SelectedTextFollowsWrapsWidthsAndBlanks) {
    struct Case {
        const char* name;
        int cols;
        const char* screen;
        Position start, end;
        const char* text;
    };
    const Case cases[] = {
        {"no line break at a soft wrap", 5, "hello world\r\nnext", {0, 0}, {4, 3}, "hello world\nnext"},
        // The third wide character does not fit in the last column and wraps whole.
        {"wide characters read once", 5, "日本語!", {0, 0}, {5, 1}, "日本語!"},
        {"trailing blanks of a hard line dropped", 20, "ab   \r\ncd", {0, 0}, {2, 1}, "ab\ncd"},
        {"chosen spaces kept", 20, "ab   \r\ncd", {0, 0}, {3, 0}, "ab "},
        {"empty cells read as the null character", 20, "a\x1b[3Cb", {0, 0}, {20, 0}, "a...b"},
    };
    for (const Case& c : cases) {
        TerminalHarness h(c.cols, 4);
        h.feed(c.screen);
        SelectionService selection(*h.terminal);
        selection.nullChar = U'.';
        selection.setSelection(c.start, c.end);
        EXPECT_EQ(selection.getSelectedText(), c.text) << c.name;
    }
}

TEST(SelectionService, RowModeTakesTheWholeWrappedLine) {
    TerminalHarness h(4, 4);
    h.feed("abcdefg\r\nxy");
    SelectionService selection(*h.terminal);
    selection.startSelection({1, 1}, SelectionMode::row);
    EXPECT_EQ(selection.getSelectedText(), "abcdefg");
    selection.dragExtend({0, 2});
    EXPECT_EQ(selection.getSelectedText(), "abcdefg\nxy");
}

TEST(SelectionService, DraggingByWordsKeepsTheFirstWord) {
    TerminalHarness h(30, 3);
    h.feed("one two three four");
    SelectionService selection(*h.terminal);
    selection.startSelection({5, 0}, SelectionMode::word);
    selection.dragExtend({15, 0});
    EXPECT_EQ(selection.getSelectedText(), "two three four");
    selection.dragExtend({1, 0});
    EXPECT_EQ(selection.getSelectedText(), "one two");
}

TEST(SelectionService, CharacterDragIncludesTheCellUnderThePointerEitherWay) {
    TerminalHarness h(30, 3);
    h.feed("abcdef");
    SelectionService selection(*h.terminal);
    selection.startSelection({1, 0});
    EXPECT_FALSE(selection.hasSelectionRange);
    selection.dragExtend({3, 0});
    EXPECT_EQ(selection.getSelectedText(), "bcd");
    selection.dragExtend({0, 0});
    EXPECT_EQ(selection.getSelectedText(), "ab");
    selection.shiftExtend({5, 0});
    EXPECT_EQ(selection.getSelectedText(), "abcdef");
}

TEST(SelectionService, PositionsOutsideTheBufferAreClamped) {
    TerminalHarness h(10, 3);
    h.feed("abc");
    SelectionService selection(*h.terminal);
    selection.startSelection({-5, -5}, SelectionMode::word);
    selection.dragExtend({500, 0});
    EXPECT_TRUE(selection.hasSelectionRange);
    EXPECT_EQ(selection.getSelectedText(), "abc");
}

} // namespace
} // namespace TerminalEngine
