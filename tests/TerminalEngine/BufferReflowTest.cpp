// Rewrapping on a width change: text survives round trips, wide characters never straddle the
// edge, the cursor's group is left alone when widening, and positions follow their cells.
#include "TerminalEngine/Model/Buffer.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

std::unique_ptr<Buffer> makeBuffer(int cols, int rows, int scrollback) {
    auto buffer = std::make_unique<Buffer>(cols, rows, 8, scrollback);
    buffer->fillViewportRows();
    return buffer;
}

void lineFeed(Buffer& buffer) {
    if (buffer.y < buffer.rows - 1) {
        ++buffer.y;
    } else if (buffer.lines.isFull()) {
        buffer.lines.recycle(Attribute::empty(), false);
    } else {
        buffer.lines.push(buffer.getBlankLine(Attribute::empty()));
        buffer.yDisp = ++buffer.yBase;
    }
}

// Prints as the terminal does with wraparound on: a character that does not fit wraps whole,
// a wide one leaving the last column empty. The texts hold ASCII and wide characters only.
void print(Buffer& buffer, std::u32string_view text) {
    for (char32_t c : text) {
        const int width = c >= 0x1100 ? 2 : 1;
        if (c == U'\n' || buffer.x + width > buffer.cols) {
            lineFeed(buffer);
            buffer.x = 0;
            if (c == U'\n') continue;
            buffer.lines[buffer.cursorLine()].isWrapped = true;
        }
        BufferLine& line = buffer.lines[buffer.cursorLine()];
        line.set(buffer.x, CharData(Attribute::empty(), static_cast<std::int32_t>(c), width));
        if (width == 2) line.set(buffer.x + 1, CharData(Attribute::empty(), 0, 0));
        buffer.x += width;
    }
}

// Every row as text, '|' marking a row that the next continues; blank rows at the end dropped.
std::vector<std::string> rows(const Buffer& buffer) {
    std::vector<std::string> out;
    for (int i = 0; i < buffer.lines.count(); ++i) {
        out.push_back(buffer.lines[i].translateToString(true));
        if (i + 1 < buffer.lines.count() && buffer.lines[i + 1].isWrapped) out.back() += '|';
    }
    while (!out.empty() && out.back().empty())
        out.pop_back();
    return out;
}

// The characters of each logical line, empty cells (padding included) left out, so that the
// width does not matter. Empty logical lines at the end are dropped.
std::vector<std::u32string> logicalLines(const Buffer& buffer) {
    std::vector<std::u32string> out;
    for (int i = 0; i < buffer.lines.count(); ++i) {
        const BufferLine& line = buffer.lines[i];
        if (!line.isWrapped || out.empty()) out.emplace_back();
        for (int col = 0; col < line.count(); ++col)
            if (line[col].code != 0) out.back() += static_cast<char32_t>(line[col].code);
    }
    while (!out.empty() && out.back().empty())
        out.pop_back();
    return out;
}

TEST(BufferReflow, NarrowingAndWideningAgainRestoresEveryRow) {
    for (int narrow : {2, 3, 7, 13, 19}) {
        auto buffer = makeBuffer(20, 6, 100);
        print(*buffer, U"the quick brown fox jumps over the lazy dog\nshort\n"
                       U"中文字符和emoji😀😀 mixed into a longer line of text\n\nthe last line\n");
        const auto original = rows(*buffer);
        const auto text = logicalLines(*buffer);
        buffer->resize(narrow, 6);
        const auto narrowed = rows(*buffer);
        EXPECT_EQ(logicalLines(*buffer), text) << narrow;
        buffer->resize(20, 6);
        EXPECT_EQ(rows(*buffer), original) << narrow;
        buffer->resize(narrow, 6);
        EXPECT_EQ(rows(*buffer), narrowed) << narrow;
    }
}

TEST(BufferReflow, WideCharactersNeverStraddleTheRightEdge) {
    struct Case {
        int cols;
        std::u32string_view text;
        int newCols;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {6, U"ab中cd", 3, {"ab|", "中c|", "d"}},
        {6, U"ab中cd", 2, {"ab|", "中|", "cd"}},
        {6, U"a中中b", 4, {"a中|", "中b"}},
        {3, U"a中b中", 4, {"a中b|", "中"}},
        // Widening joins across the cell a wide character left empty, without a gap.
        {4, U"a中中", 5, {"a中中"}},
    };
    for (const auto& c : cases) {
        auto buffer = makeBuffer(c.cols, 4, 100);
        print(*buffer, c.text);
        print(*buffer, U"\n");
        buffer->resize(c.newCols, 4);
        EXPECT_EQ(rows(*buffer), c.expected) << c.cols << " to " << c.newCols;
    }
}

TEST(BufferReflow, WideningLeavesTheCursorsGroupAlone) {
    auto buffer = makeBuffer(10, 5, 100);
    print(*buffer, U"ABCDEFGHIJKLM\n0123456789abcdef");
    buffer->resize(20, 5);
    EXPECT_EQ(rows(*buffer), (std::vector<std::string>{"ABCDEFGHIJKLM", "0123456789|", "abcdef"}));
    EXPECT_EQ(std::tuple(buffer->x, buffer->y, buffer->yBase), std::tuple(6, 2, 0));
}

TEST(BufferReflow, NarrowingKeepsTheCursorWithItsCell) {
    struct Case {
        std::u32string_view text;
        int cursorX; // -1: where printing left it
        int newCols;
        char32_t before, under; // the cells left of and under the cursor, 0 when empty
    };
    const Case cases[] = {
        {U"$ echo hello world", -1, 10, U'd', 0},  {U"$ echo hello world", -1, 9, U'd', 0},
        {U"$ echo hello world", 7, 4, U' ', U'h'}, {U"中文字符和emoji", 10, 3, 0, U'e'},
        {U"中文字符和emoji", 4, 3, 0, U'字'},      {U"short", 15, 4, 0, 0},
    };
    for (const auto& c : cases) {
        auto buffer = makeBuffer(20, 8, 100);
        print(*buffer, c.text);
        if (c.cursorX >= 0) buffer->x = c.cursorX;
        buffer->resize(c.newCols, 8);
        // The cell before the cursor may end the row above.
        const BufferLine& above = buffer->lines[buffer->cursorLine() - (buffer->x == 0)];
        const int beforeCol = buffer->x == 0 ? c.newCols - 1 : buffer->x - 1;
        EXPECT_EQ(static_cast<char32_t>(buffer->getChar(buffer->x, buffer->y).code), c.under) << c.newCols;
        EXPECT_EQ(static_cast<char32_t>(above[beforeCol].code), c.before) << c.newCols;
    }
}

TEST(BufferReflow, SavedCursorAndScrolledViewFollowTheirText) {
    auto buffer = makeBuffer(10, 6, 100);
    for (char32_t name = U'a'; name <= U'l'; ++name)
        print(*buffer, U"line " + std::u32string(1, name) + U" with more\n");
    buffer->yDisp = 6; // "line d", each line taking two rows
    buffer->savedY = 2;
    buffer->savedX = 2; // the 'm' of "line k with more", on its second row
    const CharData saved = buffer->getChar(buffer->savedX, buffer->savedY);
    for (int cols : {20, 7}) {
        buffer->resize(cols, 6);
        EXPECT_EQ(buffer->lines[buffer->yDisp].translateToString(true).substr(0, 6), "line d") << cols;
        EXPECT_LT(buffer->yDisp, buffer->yBase);
        EXPECT_EQ(buffer->getChar(buffer->savedX, buffer->savedY), saved) << cols;
    }
}

TEST(BufferReflow, BlankRowsBelowTheCursorAbsorbNarrowing) {
    auto buffer = makeBuffer(10, 10, 100);
    print(*buffer, U"0000000000\n1111111111\n2222222222\n");
    buffer->resize(5, 10);
    EXPECT_EQ(std::tuple(buffer->yBase, buffer->y, buffer->lines.count()), std::tuple(0, 6, 10));
}

TEST(BufferReflow, NarrowingPastCapacityDropsTheOldestRows) {
    auto buffer = makeBuffer(10, 4, 6);
    for (char32_t digit = U'0'; digit <= U'9'; ++digit)
        print(*buffer, std::u32string(10, digit) + U"\n");
    print(*buffer, U"end");
    buffer->resize(5, 4);
    // The first row is the tail of a line whose head fell off.
    EXPECT_EQ(rows(*buffer), (std::vector<std::string>{"55555", "66666|", "66666", "77777|", "77777",
                                                       "88888|", "88888", "99999|", "99999", "end"}));
    EXPECT_EQ(std::tuple(buffer->yBase, buffer->x, buffer->y), std::tuple(6, 3, 3));
}

// Invariants under random text, cursor, view and resizes: every line as wide as the buffer,
// the cursor and the view on the screen, wide characters whole, and no text lost while the
// history has room (with little history, text may only go from the top).
TEST(BufferReflow, RandomResizesKeepTheInvariants) {
    constexpr char32_t alphabet[] = {U'a', U'b', U'c', U' ', U' ', U'中', U'😀', U'\n'};
    auto joined = [](const std::vector<std::u32string>& lines) {
        std::u32string all;
        for (const auto& line : lines)
            all += line + U'\n';
        return all;
    };
    for (unsigned seed = 1; seed <= 200; ++seed) {
        std::mt19937 rng(seed);
        auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
        const bool roomy = seed % 4 != 0;
        auto buffer = makeBuffer(pick(2, 30), pick(1, 8), roomy ? 10'000 : pick(0, 5));
        std::u32string text;
        for (int i = pick(0, 400); i > 0; --i)
            text += alphabet[pick(0, static_cast<int>(std::size(alphabet)) - 1)];
        print(*buffer, text);
        auto before = logicalLines(*buffer);
        for (int step = 0; step < 6; ++step) {
            Buffer& b = *buffer;
            if (pick(0, 2) == 0) b.x = pick(0, b.cols - 1);
            if (pick(0, 2) == 0) b.y = pick(0, b.rows - 1);
            if (pick(0, 2) == 0) b.yDisp = pick(0, b.yBase);
            if (!roomy && pick(0, 3) == 0) b.changeHistorySize(pick(0, 5));
            const int cols = pick(2, 30);
            b.resize(cols, pick(1, 8));
            const std::string where = "seed " + std::to_string(seed) + " step " + std::to_string(step);

            ASSERT_EQ(b.lines.count(), b.yBase + b.rows) << where;
            ASSERT_TRUE(b.y >= 0 && b.y < b.rows && b.x >= 0 && b.x < b.cols) << where;
            ASSERT_TRUE(b.yDisp >= 0 && b.yDisp <= b.yBase) << where;
            for (int i = 0; i < b.lines.count(); ++i) {
                const BufferLine& line = b.lines[i];
                ASSERT_EQ(line.count(), cols) << where;
                for (int col = 0; col < cols; ++col) {
                    const bool wholeWide =
                        line[col].width != 2 || (col + 1 < cols && line[col + 1].width == 0);
                    const bool secondHalf = line[col].width != 0 || (col > 0 && line[col - 1].width == 2);
                    ASSERT_TRUE(wholeWide && secondHalf) << where << " row " << i << " col " << col;
                }
            }
            const auto after = logicalLines(b);
            if (roomy) {
                ASSERT_EQ(after, before) << where;
            } else {
                const auto all = joined(before), kept = joined(after);
                ASSERT_TRUE(all.ends_with(kept)) << where;
            }
            before = after;
        }
    }
}

} // namespace
} // namespace TerminalEngine
