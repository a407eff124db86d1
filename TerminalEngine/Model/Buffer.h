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
    struct InsertionSet {
        std::vector<std::unique_ptr<BufferLine>> lines;
        int start = 0;
        bool isNull = true;
    };
    struct Storage {
        int y = 0, x = 0, cols = 0, rows = 0;
        bool operator==(const Storage&) const = default;
    };

    // `scrollback` none or `isAlternate` gives a buffer without history.
    Buffer(int cols, int rows, int tabStopWidth, std::optional<int> scrollback, bool isAlternate = false);

    std::unique_ptr<BufferLine> getBlankLine(const Attribute& attribute, bool isWrapped = false) const;
    // Cell at a screen position (row relative to yBase) / at an absolute line.
    const CharData& getChar(int col, int row);
    const CharData& getCharAtBufferRelative(int col, int row);

    void clear();
    void softReset();
    // Fills the screen rows with blank lines, for a new or switched-to buffer.
    void fillViewportRows(std::optional<Attribute> attribute = std::nullopt);
    void resize(int newCols, int newRows);
    void changeHistorySize(std::optional<int> newScrollback);

    bool isCursorInViewPort() const;
    int cursorLine() const { return yBase + y; }

    // Tab stops. setupTabStops(-1) places a stop every tabStopWidth columns across the row.
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
    std::function<void(bool)> scroll = [](bool) {};
    std::optional<Storage> lastBufferStorage;
    int tabStopWidth = 8;
    const bool isAlternate;

private:
    void reflow(int oldCols, int newCols);
    void reflowLarger(int oldCols, int newCols);
    void reflowSmaller(int oldCols, int newCols);
    int capacityFor(int rowCount) const;
};

} // namespace TerminalEngine
