// The buffer's bookkeeping: capacity, tab stops, history size, and the row side of a resize
// (what goes to scrollback, what comes back, where the cursor lands).
#include "TerminalEngine/Model/Buffer.h"

#include <string>
#include <tuple>

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

using namespace std::string_literals;

std::unique_ptr<Buffer> makeBuffer(int cols, int rows, std::optional<int> scrollback,
                                   bool alternate = false) {
    auto buffer = std::make_unique<Buffer>(cols, rows, 8, scrollback, alternate);
    buffer->fillViewportRows();
    return buffer;
}

std::string rowText(const Buffer& buffer, int line) {
    return buffer.lines[line].translateToString(true);
}

// Writes "L0", "L1", ... on successive rows, scrolling into history at the bottom as a line
// feed does, and leaves the cursor on the last one.
void writeLines(Buffer& buffer, int count) {
    for (int i = 0; i < count; ++i) {
        if (i > 0 && buffer.y < buffer.rows - 1) {
            ++buffer.y;
        } else if (i > 0) {
            if (buffer.lines.isFull()) {
                buffer.lines.recycle(Attribute::empty(), false);
            } else {
                buffer.lines.push(buffer.getBlankLine(Attribute::empty()));
                buffer.yDisp = ++buffer.yBase;
            }
        }
        BufferLine& line = buffer.lines[buffer.cursorLine()];
        line.set(0, CharData(Attribute::empty(), 'L', 1));
        for (int col = 1; char digit : std::to_string(i))
            line.set(col++, CharData(Attribute::empty(), digit, 1));
    }
}

TEST(Buffer, CapacityIsScreenPlusHistory) {
    struct Case {
        std::optional<int> scrollback;
        bool alternate;
        int maxLength;
        bool hasScrollback;
    };
    const Case cases[] = {
        {100, false, 125, true},
        {std::nullopt, false, 25, false},
        {100, true, 25, false},
        {-5, false, 25, true},
        {50'000'000, false, 25 + Buffer::maximumScrollback, true},
    };
    for (const auto& c : cases) {
        auto buffer = makeBuffer(80, 25, c.scrollback, c.alternate);
        EXPECT_EQ(buffer->lines.maxLength(), c.maxLength) << c.scrollback.value_or(-1);
        EXPECT_EQ(buffer->hasScrollback, c.hasScrollback);
        EXPECT_EQ(buffer->lines.count(), 25);
    }
    auto tiny = makeBuffer(0, -3, 10);
    EXPECT_EQ(std::tuple(tiny->cols, tiny->rows), std::tuple(Buffer::minimumCols, Buffer::minimumRows));
    tiny->clear();
    EXPECT_EQ(tiny->lines.count(), 0);
    tiny->fillViewportRows();
    EXPECT_EQ(tiny->lines.count(), 1);
}

TEST(Buffer, TabStopsFallEveryTabWidthAndCanBeEdited) {
    auto buffer = makeBuffer(30, 5, 0);
    struct Case {
        int from, next, previous;
    };
    const Case cases[] = {{0, 8, 0}, {7, 8, 0}, {9, 16, 8}, {25, 29, 24}, {30, 29, 24}};
    for (const auto& c : cases) {
        EXPECT_EQ(buffer->nextTabStop(c.from), c.next) << c.from;
        EXPECT_EQ(buffer->previousTabStop(c.from), c.previous) << c.from;
    }
    buffer->x = 9;
    EXPECT_EQ(std::pair(buffer->nextTabStop(), buffer->previousTabStop()), std::pair(16, 8));
    buffer->setTabStop(11);
    buffer->clearTabStop(16);
    buffer->setTabStop(99);
    EXPECT_EQ(buffer->nextTabStop(11), 24);
    buffer->clearAllTabStops();
    buffer->setupTabStops(20);
    EXPECT_EQ(buffer->nextTabStop(0), 24);
}

TEST(Buffer, ChangingRowsMovesLinesBetweenScreenAndScrollback) {
    struct Case {
        const char* what;
        int rows, scrollback, written, cursorY, newRows;
        int yBase, y;
        std::string cursorText, firstText;
    };
    const Case cases[] = {
        {"cursor on the top row: the top goes to scrollback", 10, 100, 10, 0, 6, 4, 0, "L4", "L0"},
        {"blank rows below the cursor go first", 10, 100, 1, 0, 6, 0, 0, "L0", "L0"},
        {"cursor at the bottom: its line moves up", 10, 100, 10, 9, 6, 4, 5, "L9", "L0"},
        {"cursor on the last line: history comes back", 4, 100, 10, 3, 7, 3, 6, "L9", "L0"},
        {"text below the cursor: blank rows are added", 4, 100, 10, 1, 6, 6, 1, "L7", "L0"},
        {"full history: the oldest lines go", 6, 2, 8, 5, 4, 2, 3, "L7", "L2"},
    };
    for (const auto& c : cases) {
        auto buffer = makeBuffer(10, c.rows, c.scrollback);
        writeLines(*buffer, c.written);
        buffer->y = c.cursorY;
        buffer->resize(10, c.newRows);
        EXPECT_EQ(buffer->yBase, c.yBase) << c.what;
        EXPECT_EQ(buffer->yDisp, c.yBase) << c.what;
        EXPECT_EQ(buffer->y, c.y) << c.what;
        EXPECT_EQ(buffer->lines.count(), c.yBase + c.newRows) << c.what;
        EXPECT_EQ(rowText(*buffer, buffer->cursorLine()), c.cursorText) << c.what;
        EXPECT_EQ(rowText(*buffer, 0), c.firstText) << c.what;
    }
}

TEST(Buffer, ChangingHistorySizeWhileScrolledUpKeepsTheViewValid) {
    auto buffer = makeBuffer(10, 5, 100);
    writeLines(*buffer, 50);
    buffer->yDisp = 10;
    buffer->changeHistorySize(20);
    EXPECT_EQ(std::tuple(buffer->yBase, buffer->yDisp), std::tuple(20, 0));
    EXPECT_EQ(std::pair(rowText(*buffer, 0), rowText(*buffer, buffer->cursorLine())),
              std::pair("L25"s, "L49"s));

    buffer->changeHistorySize(std::nullopt);
    EXPECT_FALSE(buffer->hasScrollback);
    EXPECT_EQ(buffer->lines.maxLength(), 5);
    EXPECT_EQ(std::tuple(buffer->yBase, buffer->yDisp), std::tuple(0, 0));
    buffer->changeHistorySize(1000);
    EXPECT_EQ(buffer->lines.maxLength(), 1005);
    EXPECT_EQ(rowText(*buffer, 0), "L45");
}

TEST(Buffer, AlternateBufferTruncatesInsteadOfReflowing) {
    auto buffer = makeBuffer(10, 4, std::nullopt, true);
    writeLines(*buffer, 4);
    buffer->lines[3].fill(CharData(Attribute::empty(), 'x', 1));
    buffer->changeHistorySize(50);
    buffer->resize(4, 3);
    EXPECT_EQ(std::tuple(buffer->lines.maxLength(), buffer->lines.count(), buffer->yBase, buffer->y),
              std::tuple(3, 3, 0, 2));
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(buffer->lines[i].isWrapped);
    EXPECT_EQ(rowText(*buffer, 2), "xxxx");
    buffer->resize(10, 3);
    EXPECT_EQ(rowText(*buffer, 2), "xxxx");
}

TEST(Buffer, ResizeClampsCursorMarginsRegionAndTabStops) {
    auto buffer = makeBuffer(80, 10, 100);
    buffer->x = 79;
    buffer->savedX = 70;
    buffer->marginLeft = 60;
    buffer->scrollTop = 2;
    buffer->resize(40, 8);
    EXPECT_EQ(std::tuple(buffer->x, buffer->savedX, buffer->marginLeft, buffer->marginRight),
              std::tuple(39, 39, 39, 39));
    EXPECT_EQ(std::tuple(buffer->scrollTop, buffer->scrollBottom), std::tuple(0, 7));
    buffer->resize(100, 8);
    EXPECT_EQ(buffer->tabStops.size(), 100u);
    EXPECT_EQ(buffer->nextTabStop(32), 99) << "columns added by a resize have no stops";
}

} // namespace
} // namespace TerminalEngine
