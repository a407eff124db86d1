// Buffer life cycle: creation, tab stops, clearing, history size and the row and column
// bookkeeping of a resize. Rewrapping lines to a new width lives in BufferReflow.cpp.
#include "TerminalEngine/Model/Buffer.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace TerminalEngine {
namespace {

std::optional<int> sanitizeScrollback(std::optional<int> scrollback) {
    if (!scrollback) return std::nullopt;
    return std::clamp(*scrollback, 0, Buffer::maximumScrollback);
}

} // namespace

Buffer::Buffer(int initialCols, int initialRows, int initialTabStopWidth,
               std::optional<int> initialScrollback, bool alternate)
    : lines(1)
    , isAlternate(alternate) {
    cols = std::max(initialCols, minimumCols);
    rows = std::max(initialRows, minimumRows);
    tabStopWidth = std::max(initialTabStopWidth, 1);
    scrollback = alternate ? std::nullopt : sanitizeScrollback(initialScrollback);
    hasScrollback = scrollback.has_value();
    scrollBottom = rows - 1;
    marginLeft = 0;
    marginRight = cols - 1;
    lines = makeLineList(capacityFor(rows));
    setupTabStops();
}

CircularBufferLineList Buffer::makeLineList(int maxLength) {
    CircularBufferLineList list(maxLength, [this](int) { return getBlankLine(Attribute::empty()); });
    list.onLinePushed = [this](bool hasImages) {
        if (hasImages) ++linesWithImagesCount;
    };
    list.onLineRecycled = [this](bool hadImages) {
        if (hadImages && linesWithImagesCount > 0) --linesWithImagesCount;
    };
    return list;
}

int Buffer::capacityFor(int rowCount) const {
    return rowCount + (hasScrollback ? scrollback.value_or(0) : 0);
}

std::unique_ptr<BufferLine> Buffer::getBlankLine(const Attribute& attribute, bool isWrapped) const {
    return std::make_unique<BufferLine>(cols, CharData(attribute, 0, 1), isWrapped);
}

const CharData& Buffer::getChar(int col, int row) const {
    return getCharAtBufferRelative(col, yBase + row);
}

const CharData& Buffer::getCharAtBufferRelative(int col, int row) const {
    if (row < 0 || row >= lines.count()) return CharData::Null;
    const BufferLine& line = lines[row];
    if (col < 0 || col >= line.count()) return CharData::Null;
    return line[col];
}

void Buffer::clear() {
    yDisp = 0;
    yBase = 0;
    y = 0;
    x = 0;
    linesTop = 0;
    lines = makeLineList(capacityFor(rows));
    linesWithImagesCount = 0;
    scrollTop = 0;
    scrollBottom = rows - 1;
    marginLeft = 0;
    marginRight = cols - 1;
}

void Buffer::softReset() {
    curAttr = Attribute::empty();
    savedX = 0;
    savedY = 0;
    savedCharset = nullptr;
    marginLeft = 0;
    marginRight = cols - 1;
    insertMode = false;
    marginMode = false;
    wraparound = true;
}

void Buffer::fillViewportRows(std::optional<Attribute> attribute) {
    // A ring shorter than the screen would make pushing drop lines forever; never ask for more.
    int target = std::min(yBase + rows, lines.maxLength());
    Attribute fill = attribute.value_or(Attribute::empty());
    while (lines.count() < target)
        lines.push(getBlankLine(fill));
}

bool Buffer::isCursorInViewPort() const {
    int relativeY = yBase + y - yDisp;
    return relativeY >= 0 && relativeY < rows;
}

// Tab stops

void Buffer::setupTabStops(int index) {
    tabStops.resize(static_cast<std::size_t>(cols), false);
    int from = index < 0 ? 0 : std::min(index, cols);
    for (int c = from; c < cols; ++c)
        tabStops[static_cast<std::size_t>(c)] = c % tabStopWidth == 0;
}

void Buffer::setTabStop(int index) {
    if (index >= 0 && index < static_cast<int>(tabStops.size()))
        tabStops[static_cast<std::size_t>(index)] = true;
}

void Buffer::clearTabStop(int index) {
    if (index >= 0 && index < static_cast<int>(tabStops.size()))
        tabStops[static_cast<std::size_t>(index)] = false;
}

void Buffer::clearAllTabStops() {
    std::fill(tabStops.begin(), tabStops.end(), false);
}

int Buffer::nextTabStop(int index) const {
    int from = index < 0 ? x : index;
    int end = std::min(cols, static_cast<int>(tabStops.size()));
    for (int c = std::max(from + 1, 0); c < end; ++c)
        if (tabStops[static_cast<std::size_t>(c)]) return c;
    return cols - 1;
}

int Buffer::previousTabStop(int index) const {
    int from = std::min(index < 0 ? x : index, static_cast<int>(tabStops.size()));
    for (int c = from - 1; c > 0; --c)
        if (tabStops[static_cast<std::size_t>(c)]) return c;
    return 0;
}

// History size

void Buffer::changeHistorySize(std::optional<int> newScrollback) {
    // The alternate screen never keeps history, whatever the terminal's setting.
    if (isAlternate) return;
    const bool following = yDisp == yBase;
    scrollback = sanitizeScrollback(newScrollback);
    hasScrollback = scrollback.has_value();
    const int newMaxLength = capacityFor(rows);
    if (newMaxLength > lines.maxLength()) {
        lines.setMaxLength(newMaxLength);
        return;
    }
    if (newMaxLength == lines.maxLength()) return;
    int excess = lines.count() - newMaxLength;
    if (excess > 0) {
        lines.trimStart(excess);
        yBase = std::max(yBase - excess, 0);
        yDisp = std::max(yDisp - excess, 0);
        savedY = std::max(savedY - excess, 0);
    }
    lines.setMaxLength(newMaxLength);
    linesWithImagesCount = lines.countLinesWithImages();
    if (lines.count() > 0)
        settleScreen(cols, rows, yBase + y, following ? std::nullopt : std::optional<int>(yDisp));
}

// Resize

bool Buffer::isBlankLine(int index) {
    const BufferLine& line = lines[index];
    return !line.hasAnyContent() && !(line.images && !line.images->empty());
}

void Buffer::shrinkRows(int oldRows, int newRows) {
    for (int r = oldRows; r > newRows; --r) {
        if (lines.count() <= newRows + yBase) continue;
        const int last = lines.count() - 1;
        const bool lineBelowCursor = last > yBase + y;
        // A blank line below the cursor simply goes. Text at the bottom is kept: the screen
        // moves down over it and its top goes to scrollback, even with the cursor on the top
        // row. Without scrollback that text would be lost at the top instead, so the bottom
        // goes as it stands.
        if (lineBelowCursor && (!hasScrollback || isBlankLine(last))) {
            lines.pop();
        } else {
            const bool following = yDisp == yBase;
            ++yBase;
            if (following) yDisp = yBase;
            y = std::max(y - 1, 0);
        }
    }
}

int Buffer::growRows(int oldRows, int newRows, int newCols) {
    int addToY = 0;
    for (int r = oldRows; r < newRows; ++r) {
        if (lines.count() >= newRows + yBase) continue;
        // With the cursor on the last line there is nothing below it to show: history comes
        // back down from the top instead of blank lines appearing under the prompt.
        const bool cursorOnLastLine = lines.count() <= yBase + addToY + y + 1;
        if (yBase > 0 && cursorOnLastLine) {
            const bool following = yDisp == yBase;
            --yBase;
            ++addToY;
            yDisp = following ? yBase : std::min(yDisp, yBase);
        } else {
            lines.push(std::make_unique<BufferLine>(newCols, CharData::Null));
        }
    }
    return addToY;
}

void Buffer::settleScreen(int newCols, int newRows, int cursorLineIndex, std::optional<int> viewLine) {
    while (lines.count() < newRows)
        lines.push(std::make_unique<BufferLine>(newCols, CharData::Null));
    yBase = lines.count() - newRows;
    y = std::clamp(cursorLineIndex - yBase, 0, newRows - 1);
    yDisp = viewLine ? std::clamp(*viewLine, 0, yBase) : yBase;
}

void Buffer::resize(int newCols, int newRows) {
    newCols = std::max(newCols, minimumCols);
    newRows = std::max(newRows, minimumRows);
    const int oldCols = cols;
    const int oldRows = rows;
    // The clamps below come before the reflow, which still needs the true columns to keep the
    // cursor and the saved cursor on their cells.
    const int cursorX = x;
    const int savedCursorX = savedX;

    marginRight = std::min(marginRight, newCols - 1);
    marginLeft = std::min(marginLeft, marginRight);

    const int newMaxLength = capacityFor(newRows);
    if (lines.maxLength() < newMaxLength) lines.setMaxLength(newMaxLength);

    int addToY = 0;
    if (lines.count() > 0) {
        // Widening happens here, for every line; narrowing waits for the reflow, which still
        // reads the old cells. Reading each line also creates any empty slot at the old width.
        for (int i = 0; i < lines.count(); ++i) {
            BufferLine& line = lines[i];
            if (line.count() < newCols) line.resize(newCols, CharData::Null);
        }
        if (newRows < oldRows)
            shrinkRows(oldRows, newRows);
        else
            addToY = growRows(oldRows, newRows, newCols);
    }

    if (newMaxLength < lines.maxLength()) {
        int excess = lines.count() - newMaxLength;
        if (excess > 0) {
            lines.trimStart(excess);
            yBase = std::max(yBase - excess, 0);
            yDisp = std::max(yDisp - excess, 0);
            savedY = std::max(savedY - excess, 0);
        }
        lines.setMaxLength(newMaxLength);
    }

    x = std::min(x, newCols - 1);
    y = std::min(y, newRows - 1) + addToY;
    savedX = std::min(savedX, newCols - 1);
    savedY = std::min(savedY, newRows - 1);
    scrollTop = 0;
    scrollBottom = newRows - 1;

    tabStops.resize(static_cast<std::size_t>(newCols), false);

    if (hasScrollback) reflow(oldCols, newCols, newRows, cursorX, savedCursorX);

    if (newCols < oldCols) {
        for (int i = 0; i < lines.count(); ++i)
            lines[i].resize(newCols, CharData::Null);
    }

    for (int i = 0; i < lines.count(); ++i) {
        const BufferLine& line = lines[i];
        if (line.count() < newCols) {
            std::fprintf(stderr, "stop here newCols=%d but the element has: %d\n", newCols, line.count());
            std::abort();
        }
    }

    cols = newCols;
    rows = newRows;

    if (lines.count() > 0) {
        const bool following = yDisp == yBase;
        settleScreen(newCols, newRows, yBase + y, following ? std::nullopt : std::optional<int>(yDisp));
    }
    linesWithImagesCount = lines.countLinesWithImages();
}

} // namespace TerminalEngine
