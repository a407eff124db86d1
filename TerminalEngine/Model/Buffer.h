// One screen buffer: its lines (scrollback and screen), cursor, scroll region, margins, tab
// stops and saved cursor. The terminal owns two: the normal buffer with scrollback and the
// alternate buffer without.
#pragma once

#include "TerminalEngine/Model/CircularBufferLineList.h"

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace TerminalEngine {

class CharSet;

class Buffer {
public:
    // A wide character needs two cells, so no line is ever narrower.
    static constexpr int minimumCols = 2;
    static constexpr int minimumRows = 1;
    // History beyond this is refused: every slot of the ring costs a pointer up front.
    static constexpr int maximumScrollback = 1'000'000;

    struct InsertionSet {
        std::vector<std::unique_ptr<BufferLine>> lines;
        int start = 0;
        bool isNull = true;
    };
    struct Storage {
        int y = 0, x = 0, cols = 0, rows = 0;
        bool operator==(const Storage&) const = default;
    };

    // `scrollback` none or `isAlternate` gives a buffer without history. Sizes below the
    // minimums are raised to them; a negative scrollback counts as none kept.
    Buffer(int cols, int rows, int tabStopWidth, std::optional<int> scrollback, bool isAlternate = false);
    // The line ring's callbacks refer to this object, so it stays where it was made.
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    std::unique_ptr<BufferLine> getBlankLine(const Attribute& attribute, bool isWrapped = false) const;
    // Cell at a screen position (row relative to yBase) / at an absolute line. Positions
    // outside the buffer read as CharData::Null.
    const CharData& getChar(int col, int row) const;
    const CharData& getCharAtBufferRelative(int col, int row) const;

    // Empties the line list (fillViewportRows makes the screen again) and homes everything.
    void clear();
    void softReset();
    // Makes sure the screen rows exist, adding blank lines at the bottom where they do not;
    // existing lines are kept.
    void fillViewportRows(std::optional<Attribute> attribute = std::nullopt);
    void resize(int newCols, int newRows);
    void changeHistorySize(std::optional<int> newScrollback);

    bool isCursorInViewPort() const;
    int cursorLine() const { return yBase + y; }

    // Tab stops. setupTabStops(-1) places a stop every tabStopWidth columns across the row;
    // from a column, it lays the same grid from there to the end and leaves the columns
    // before it alone. An index of -1 for next/previous means the cursor column.
    void setupTabStops(int index = -1);
    void setTabStop(int index);
    void clearTabStop(int index);
    void clearAllTabStops();
    int nextTabStop(int index = -1) const;
    int previousTabStop(int index = -1) const;

    CircularBufferLineList lines;
    int xDisp = 0;
    int yDisp = 0;
    int xBase = 0;
    int x = 0;
    int y = 0;
    int yBase = 0;
    int linesWithImagesCount = 0;
    int linesTop = 0;
    int scrollBottom = 0;
    int scrollTop = 0;
    std::vector<bool> tabStops;
    // Saved cursor; savedY counts rows from yBase, like y.
    int savedX = 0;
    int savedY = 0;
    bool savedOriginMode = false;
    bool savedMarginMode = false;
    bool savedWraparound = false;
    bool savedReverseWraparound = false;
    int marginLeft = 0;
    int marginRight = 0;
    Attribute savedAttr;
    const CharSet* savedCharset = nullptr;
    bool hasScrollback = true;
    int cols = 0;
    int rows = 0;
    std::optional<int> scrollback;
    Attribute curAttr;
    bool insertMode = false;
    bool marginMode = false;
    bool wraparound = true;
    // Run after every scroll of this buffer (with whether the new line continues a wrap), when set.
    std::function<void(bool)> scroll;
    std::optional<Storage> lastBufferStorage;
    int tabStopWidth = 8;
    const bool isAlternate;

private:
    // A position the reflow carries along: an absolute line and a column.
    struct Anchor {
        int line = 0;
        int col = 0;
    };

    CircularBufferLineList makeLineList(int maxLength);
    int capacityFor(int rowCount) const;
    bool isBlankLine(int index);
    void shrinkRows(int oldRows, int newRows);
    int growRows(int oldRows, int newRows, int newCols);
    // Puts the screen at the bottom of the list, with `newRows` lines, and the cursor and the
    // display offset back on it.
    void settleScreen(int newCols, int newRows, int cursorLine, std::optional<int> viewLine);

    void reflow(int oldCols, int newCols, int newRows, int cursorX, int savedCursorX);
    void reflowLarger(int oldCols, int newCols, int newRows, Anchor (&anchors)[3]);
    void reflowSmaller(int oldCols, int newCols, int newRows, Anchor (&anchors)[3]);
};

} // namespace TerminalEngine
