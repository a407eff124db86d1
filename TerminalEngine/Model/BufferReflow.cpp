// Rewrapping the lines of the normal buffer when its width changes. A run of wrapped lines is
// read as one stream of cells and laid out again at the new width; wide characters never
// straddle the right edge, and the cursor, saved cursor and view follow their cells.
#include "TerminalEngine/Model/Buffer.h"

#include <algorithm>
#include <iterator>

namespace TerminalEngine {
namespace {

// One wrapped group read as a single stream of cells, and where that stream breaks into lines
// at the new width. The vectors are reused from group to group.
struct GroupLayout {
    std::vector<int> starts; // stream offset of each source line; back() is the total
    std::vector<int> breaks; // stream offset of each new line; back() is the total

    int total() const { return starts.back(); }
    int lineCount() const { return static_cast<int>(breaks.size()) - 1; }

    // Index of the source line holding a stream offset (offset < total).
    int sourceOf(int offset) const {
        auto it = std::upper_bound(starts.begin(), starts.end() - 1, offset);
        return static_cast<int>(std::distance(starts.begin(), it)) - 1;
    }
};

// A wrapped line that ends in an empty cell before a wide character opening the next line gave
// that cell up because the character did not fit: it is padding, not content.
int wrappedLength(const BufferLine& line, const BufferLine& next, int oldCols) {
    int width = std::min(oldCols, line.count());
    if (width == 0) return 0;
    const CharData& last = line[width - 1];
    bool padding = last.code == 0 && last.width == 1 && next.count() > 0 && next.getWidth(0) == 2;
    return padding ? width - 1 : width;
}

void measure(CircularBufferLineList& lines, int first, int last, int oldCols, int lastLength,
             GroupLayout& layout) {
    layout.starts.clear();
    int offset = 0;
    for (int k = first; k <= last; ++k) {
        layout.starts.push_back(offset);
        offset += k == last ? lastLength : wrappedLength(lines[k], lines[k + 1], oldCols);
    }
    layout.starts.push_back(offset);
}

void computeBreaks(CircularBufferLineList& lines, int first, int newCols, GroupLayout& layout) {
    layout.breaks.clear();
    layout.breaks.push_back(0);
    const int total = layout.total();
    int begin = 0;
    while (begin + newCols < total) {
        int end = begin + newCols;
        // A wide character whose first half would take the last column moves down whole.
        int source = layout.sourceOf(end - 1);
        if (lines[first + source][end - 1 - layout.starts[source]].width == 2) --end;
        layout.breaks.push_back(end);
        begin = end;
    }
    layout.breaks.push_back(total);
}

// The stream offset of a column of a source line. Past the end of the last line the offset runs
// on past the total, so that a position in the blank tail keeps its distance from the text.
int offsetOf(const GroupLayout& layout, int source, int col) {
    int length = layout.starts[source + 1] - layout.starts[source];
    bool lastSource = source + 2 == static_cast<int>(layout.starts.size());
    return layout.starts[source] + (lastSource ? std::max(col, 0) : std::clamp(col, 0, length));
}

// The new line (within the group) and column of a stream offset.
std::pair<int, int> locate(const GroupLayout& layout, int offset) {
    auto it = std::upper_bound(layout.breaks.begin(), layout.breaks.end() - 1, offset);
    int line = std::max(static_cast<int>(std::distance(layout.breaks.begin(), it)) - 1, 0);
    return {line, offset - layout.breaks[static_cast<std::size_t>(line)]};
}

// Widening: the cells only move up and left, so copying front to back in place never
// overwrites a cell before it is read.
void copyForward(CircularBufferLineList& lines, int first, const GroupLayout& layout, int newCols) {
    int source = 0;
    for (int d = 0; d < layout.lineCount(); ++d) {
        BufferLine& target = lines[first + d];
        const int begin = layout.breaks[static_cast<std::size_t>(d)];
        const int end = layout.breaks[static_cast<std::size_t>(d) + 1];
        for (int offset = begin; offset < end;) {
            while (layout.starts[static_cast<std::size_t>(source) + 1] <= offset)
                ++source;
            int pieceEnd = std::min(end, layout.starts[static_cast<std::size_t>(source) + 1]);
            target.copyFrom(lines[first + source], offset - layout.starts[static_cast<std::size_t>(source)],
                            offset - begin, pieceEnd - offset);
            offset = pieceEnd;
        }
        const int used = end - begin;
        if (used < newCols) target.fill(CharData::Null, used, newCols - used);
    }
}

// Narrowing: the cells only move down and right, so copying back to front in place is safe.
// Lines past the group's own go into `added`.
void copyBackward(CircularBufferLineList& lines, int first, int sourceLines, const GroupLayout& layout,
                  std::vector<std::unique_ptr<BufferLine>>& added, int newCols) {
    const int targetLines = sourceLines + static_cast<int>(added.size());
    int source = sourceLines - 1;
    for (int d = targetLines - 1; d >= 0; --d) {
        BufferLine& target =
            d < sourceLines ? lines[first + d] : *added[static_cast<std::size_t>(d - sourceLines)];
        int begin = 0;
        int end = 0;
        if (d < layout.lineCount()) {
            begin = layout.breaks[static_cast<std::size_t>(d)];
            end = layout.breaks[static_cast<std::size_t>(d) + 1];
        }
        for (int offset = end; offset > begin;) {
            while (layout.starts[static_cast<std::size_t>(source)] >= offset)
                --source;
            int pieceBegin = std::max(begin, layout.starts[static_cast<std::size_t>(source)]);
            target.copyFrom(lines[first + source],
                            pieceBegin - layout.starts[static_cast<std::size_t>(source)], pieceBegin - begin,
                            offset - pieceBegin);
            offset = pieceBegin;
        }
        const int used = end - begin;
        if (used < newCols) target.fill(CharData::Null, used, newCols - used);
    }
}

// Where an anchor went while its group was laid out again, before lines are inserted.
struct GroupPlacement {
    bool moved = false;
    int groupFirst = 0;
    int line = 0; // within the group
    int col = 0;
};

} // namespace

void Buffer::reflow(int oldCols, int newCols, int newRows, int cursorX, int savedCursorX) {
    if (newCols == oldCols || lines.count() == 0) return;
    const int last = lines.count() - 1;
    const bool following = yDisp == yBase;
    Anchor anchors[3] = {
        {std::clamp(yBase + y, 0, last), cursorX},
        {std::clamp(yBase + savedY, 0, last), savedCursorX},
        {std::clamp(yDisp, 0, last), 0},
    };
    if (newCols > oldCols)
        reflowLarger(oldCols, newCols, newRows, anchors);
    else
        reflowSmaller(oldCols, newCols, newRows, anchors);

    settleScreen(newCols, newRows, anchors[0].line,
                 following ? std::nullopt : std::optional<int>(anchors[2].line));
    x = std::clamp(anchors[0].col, 0, newCols - 1);
    savedY = std::clamp(anchors[1].line - yBase, 0, newRows - 1);
    savedX = std::clamp(anchors[1].col, 0, newCols - 1);
}

void Buffer::reflowLarger(int oldCols, int newCols, int /*newRows*/, Anchor (&anchors)[3]) {
    const int count = lines.count();
    const int cursorAbs = anchors[0].line;
    GroupLayout layout;
    // Runs of emptied lines, as (first index, length), top to bottom.
    std::vector<std::pair<int, int>> removed;
    bool placed[3] = {};
    int removedSoFar = 0;

    for (int first = 0; first < count;) {
        int last = first;
        while (last + 1 < count && lines[last + 1].isWrapped)
            ++last;
        const int groupLines = last - first + 1;
        // The cursor's group is left as it is: the program on the other side of the terminal
        // redraws its own line after a resize, and would draw over a rejoined one.
        const bool rejoin = groupLines > 1 && !(cursorAbs >= first && cursorAbs <= last);
        int keptLines = groupLines;
        if (rejoin) {
            measure(lines, first, last, oldCols, std::min(lines[last].getTrimmedLength(), oldCols), layout);
            computeBreaks(lines, first, newCols, layout);
            for (int a = 0; a < 3; ++a) {
                if (placed[a] || anchors[a].line < first || anchors[a].line > last) continue;
                auto [line, col] = locate(layout, offsetOf(layout, anchors[a].line - first, anchors[a].col));
                anchors[a] = {first - removedSoFar + line, col};
                placed[a] = true;
            }
            copyForward(lines, first, layout, newCols);
            keptLines = layout.lineCount();
        }
        for (int a = 0; a < 3; ++a) {
            if (placed[a] || anchors[a].line < first || anchors[a].line > last) continue;
            anchors[a].line -= removedSoFar;
            placed[a] = true;
        }
        if (keptLines < groupLines) {
            removed.emplace_back(first + keptLines, groupLines - keptLines);
            removedSoFar += groupLines - keptLines;
        }
        first = last + 1;
    }
    if (removed.empty()) return;

    // One pass from the top: each run of kept lines moves up over everything removed above
    // it, carrying the removed lines along to the end, where they are freed.
    int shift = 0;
    for (std::size_t r = 0; r < removed.size(); ++r) {
        shift += removed[r].second;
        int segmentStart = removed[r].first + removed[r].second;
        int segmentEnd = r + 1 < removed.size() ? removed[r + 1].first : count;
        if (segmentEnd > segmentStart) lines.shiftElements(segmentStart, segmentEnd - segmentStart, -shift);
    }
    lines.setCount(count - removedSoFar);
}

void Buffer::reflowSmaller(int oldCols, int newCols, int newRows, Anchor (&anchors)[3]) {
    const int count = lines.count();
    const int cursorAbs = anchors[0].line;
    const int cursorX = std::clamp(anchors[0].col, 0, oldCols - 1);
    // The three anchors plus the top line of the screen, which decides where the screen lands.
    Anchor tracked[4] = {anchors[0], anchors[1], anchors[2], {std::clamp(yBase, 0, count - 1), 0}};
    GroupPlacement placements[4];

    GroupLayout layout;
    std::vector<InsertionSet> sets; // bottom to top while walking

    for (int last = count - 1; last >= 0;) {
        int first = last;
        while (first > 0 && lines[first].isWrapped)
            --first;
        const int groupLines = last - first + 1;
        int lastLength = std::min(lines[last].getTrimmedLength(), oldCols);
        // The cursor standing at (or just after) the end of the text is where typing goes on:
        // its cell counts as content, so that it keeps its place after the text.
        if (cursorAbs == last && cursorX <= lastLength) lastLength = std::max(lastLength, cursorX + 1);
        if (groupLines > 1 || lastLength > newCols) {
            measure(lines, first, last, oldCols, lastLength, layout);
            computeBreaks(lines, first, newCols, layout);
            for (int a = 0; a < 4; ++a) {
                if (tracked[a].line < first || tracked[a].line > last) continue;
                auto [line, col] = locate(layout, offsetOf(layout, tracked[a].line - first, tracked[a].col));
                placements[a] = {true, first, line, col};
            }
            const int targetLines = std::max(layout.lineCount(), groupLines);
            std::vector<std::unique_ptr<BufferLine>> added;
            added.reserve(static_cast<std::size_t>(targetLines - groupLines));
            for (int i = groupLines; i < targetLines; ++i)
                added.push_back(std::make_unique<BufferLine>(newCols, CharData::Null, true));
            copyBackward(lines, first, groupLines, layout, added, newCols);
            if (!added.empty()) sets.push_back(InsertionSet{std::move(added), last + 1, false});
        }
        last = first - 1;
    }
    std::reverse(sets.begin(), sets.end());

    // Index of a line of the old list, or of a new line of a group, once every set is in.
    auto insertedBefore = [&](int line) {
        int n = 0;
        for (const auto& set : sets) {
            if (set.start > line) break;
            n += static_cast<int>(set.lines.size());
        }
        return n;
    };
    auto combinedIndex = [&](int a) {
        const GroupPlacement& p = placements[a];
        return p.moved ? p.groupFirst + insertedBefore(p.groupFirst) + p.line
                       : tracked[a].line + insertedBefore(tracked[a].line);
    };
    const int inserted = insertedBefore(count);
    int combined[3];
    for (int a = 0; a < 3; ++a)
        combined[a] = combinedIndex(a);

    // Lines added on the screen would push its top into history; blank lines at the bottom,
    // below the cursor, give way first.
    int blankTail = 0;
    for (int i = count - 1; i > cursorAbs && !lines[i].isWrapped && isBlankLine(i); --i)
        ++blankTail;
    const int screenTop = combinedIndex(3);
    const int surplus = std::max(0, count + inserted - (screenTop + newRows));
    const int popped = std::min(blankTail, surplus);
    for (int i = 0; i < popped; ++i)
        lines.pop();

    // Past the capacity, the oldest lines of the combined list fall off the top: first old
    // lines above the first insertion, then the first lines of that insertion, and so on.
    const int dropped = std::max(0, count - popped + inserted - lines.maxLength());
    int remaining = dropped;
    int droppedOld = 0;
    int previousStart = 0;
    for (auto& set : sets) {
        int fromOld = std::min(set.start - previousStart, remaining);
        droppedOld += fromOld;
        remaining -= fromOld;
        int fromSet = std::min(static_cast<int>(set.lines.size()), remaining);
        set.lines.erase(set.lines.begin(), set.lines.begin() + fromSet);
        remaining -= fromSet;
        previousStart = set.start;
        if (remaining == 0) break;
    }
    droppedOld += remaining;
    lines.trimStart(droppedOld);

    // One pass from the bottom: each run of old lines moves down by the lines still to be
    // inserted above it, then the set above it drops into the gap.
    const int base = lines.count();
    int offset = 0;
    for (const auto& set : sets)
        offset += static_cast<int>(set.lines.size());
    lines.setCount(base + offset);
    int segmentEnd = base;
    for (auto it = sets.rbegin(); it != sets.rend(); ++it) {
        if (it->lines.empty()) continue;
        const int segmentStart = it->start - droppedOld;
        if (segmentEnd > segmentStart) lines.shiftElements(segmentStart, segmentEnd - segmentStart, offset);
        offset -= static_cast<int>(it->lines.size());
        for (std::size_t j = 0; j < it->lines.size(); ++j)
            lines.set(segmentStart + offset + static_cast<int>(j), std::move(it->lines[j]));
        segmentEnd = segmentStart;
    }

    for (int a = 0; a < 3; ++a) {
        anchors[a].line = combined[a] - dropped;
        if (placements[a].moved) anchors[a].col = placements[a].col;
    }
}

} // namespace TerminalEngine
