// Selection ranges, word and bracket expansion across wrapped rows, and the selected text.
#include "TerminalEngine/Selection/SelectionService.h"

#include "TerminalEngine/Model/CellScalars.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>
#include <array>
#include <vector>

namespace TerminalEngine {
namespace {

// Bracket expansion gives up after this many cells, so that a stray bracket in a huge
// scrollback costs bounded time.
constexpr int maximumBracketScan = 1 << 16;

struct BracketPair {
    char32_t open;
    char32_t close;
};
constexpr std::array<BracketPair, 3> bracketPairs = {{{'(', ')'}, {'[', ']'}, {'{', '}'}}};

std::optional<char32_t> closerOf(char32_t c) {
    for (const BracketPair& p : bracketPairs)
        if (p.open == c) return p.close;
    return std::nullopt;
}
std::optional<char32_t> openerOf(char32_t c) {
    for (const BracketPair& p : bracketPairs)
        if (p.close == c) return p.open;
    return std::nullopt;
}

// Letters, digits and the punctuation of file names and dotted words.
bool isWordScalar(char32_t c) {
    return c == '.' || c == '_' || c == '-' || CellScalars::isAlphanumeric(c);
}

// Steps cell by cell through the buffer, over the right halves of wide characters, from one row
// into the next only where the line wrapped.
class CellWalker {
public:
    explicit CellWalker(const Terminal& terminal)
        : lines_(terminal.buffer->lines)
        , graphemes_(terminal.graphemes) {}

    const CharData& cell(Position p) const { return lines_[p.row][p.col]; }
    char32_t scalar(Position p) const { return CellScalars::leadScalar(cell(p), graphemes_); }
    int width(Position p) const { return std::max<int>(cell(p).width, 1); }

    // The cell holding the character drawn at `p` (the left half of a wide one).
    Position head(Position p) const {
        while (p.col > 0 && cell(p).width == 0)
            --p.col;
        return p;
    }

    std::optional<Position> next(Position p) const {
        int col = p.col + width(p);
        if (col < lines_[p.row].count()) return Position{col, p.row};
        if (p.row + 1 < lines_.count() && lines_[p.row + 1].isWrapped && lines_[p.row + 1].count() > 0)
            return Position{0, p.row + 1};
        return std::nullopt;
    }

    std::optional<Position> previous(Position p) const {
        if (p.col > 0) return head({p.col - 1, p.row});
        if (p.row > 0 && lines_[p.row].isWrapped && lines_[p.row - 1].count() > 0)
            return head({lines_[p.row - 1].count() - 1, p.row - 1});
        return std::nullopt;
    }

    Position after(Position p) const { return {p.col + width(p), p.row}; }

private:
    const CircularBufferLineList& lines_;
    const GraphemeTable& graphemes_;
};

std::optional<Position> matchingBracket(const CellWalker& walk, Position from, bool forward) {
    std::vector<char32_t> expected;
    Position p = from;
    for (int steps = 0; steps < maximumBracketScan; ++steps) {
        char32_t c = walk.scalar(p);
        auto counterpart = forward ? closerOf(c) : openerOf(c);
        if (counterpart) {
            expected.push_back(*counterpart);
        } else if (forward ? openerOf(c).has_value() : closerOf(c).has_value()) {
            // A bracket of the other direction must close the innermost one still open.
            if (expected.empty() || expected.back() != c) return std::nullopt;
            expected.pop_back();
            if (expected.empty()) return p;
        }
        auto step = forward ? walk.next(p) : walk.previous(p);
        if (!step) return std::nullopt;
        p = *step;
    }
    return std::nullopt;
}

} // namespace

SelectionService::SelectionService(Terminal& terminal)
    : terminal(terminal) {}

Position SelectionService::clampCell(Position p) const {
    const auto& lines = terminal.buffer->lines;
    p.row = std::clamp(p.row, 0, std::max(lines.count() - 1, 0));
    p.col = std::clamp(p.col, 0, std::max(lines[p.row].count() - 1, 0));
    return p;
}

SelectionService::Range SelectionService::wordRange(Position at) const {
    CellWalker walk(terminal);
    Position p = walk.head(clampCell(at));
    char32_t c = walk.scalar(p);
    if (closerOf(c)) {
        if (auto close = matchingBracket(walk, p, true)) return {p, walk.after(*close)};
    } else if (openerOf(c)) {
        if (auto open = matchingBracket(walk, p, false)) return {*open, walk.after(p)};
    }
    Position first = p, last = p;
    if (isWordScalar(c)) {
        while (auto q = walk.previous(first)) {
            if (!isWordScalar(walk.scalar(*q))) break;
            first = *q;
        }
        while (auto q = walk.next(last)) {
            if (!isWordScalar(walk.scalar(*q))) break;
            last = *q;
        }
    } else {
        // A run of the same character; empty cells and spaces count as one blank.
        auto same = [&](Position q) {
            const CharData& a = walk.cell(p);
            const CharData& b = walk.cell(q);
            if (CellScalars::isBlank(a)) return CellScalars::isBlank(b);
            return a.code == b.code;
        };
        while (auto q = walk.previous(first)) {
            if (!same(*q)) break;
            first = *q;
        }
        while (auto q = walk.next(last)) {
            if (!same(*q)) break;
            last = *q;
        }
    }
    return {first, walk.after(last)};
}

SelectionService::Range SelectionService::rowRange(int row) const {
    const auto& lines = terminal.buffer->lines;
    row = clampCell({0, row}).row;
    int first = row, last = row;
    while (first > 0 && lines[first].isWrapped)
        --first;
    while (last + 1 < lines.count() && lines[last + 1].isWrapped)
        ++last;
    return {{0, first}, {lines[last].count(), last}};
}

SelectionService::Range SelectionService::unitAt(Position at) const {
    switch (selectionMode) {
    case SelectionMode::word: return wordRange(at);
    case SelectionMode::row: return rowRange(at.row);
    case SelectionMode::character: break;
    }
    CellWalker walk(terminal);
    Position p = walk.head(clampCell(at));
    return {p, walk.after(p)};
}

void SelectionService::apply(Range range) {
    if (range.end < range.start) std::swap(range.start, range.end);
    start = range.start;
    end = range.end;
    active = true;
    hasSelectionRange = start != end;
    notify();
}

void SelectionService::startSelection(Position at, SelectionMode mode) {
    selectionMode = mode;
    selectingRows = mode == SelectionMode::row;
    Position cell = clampCell(at);
    pivot = cell;
    if (mode == SelectionMode::character) {
        wordSelectionAnchor.reset();
        start = end = cell;
        active = true;
        hasSelectionRange = false;
        notify();
        return;
    }
    Range unit = unitAt(cell);
    wordSelectionAnchor = unit;
    apply(unit);
}

void SelectionService::dragExtend(Position to) {
    if (!active || !pivot) {
        startSelection(to, selectionMode);
        return;
    }
    Range unit = unitAt(to);
    Range anchor = wordSelectionAnchor.value_or(unitAt(*pivot));
    apply({std::min(anchor.start, unit.start), std::max(anchor.end, unit.end)});
}

void SelectionService::shiftExtend(Position to) {
    if (!active || !hasSelectionRange) {
        if (active && pivot) {
            dragExtend(to);
            return;
        }
        startSelection(to, selectionMode);
        return;
    }
    Range unit = unitAt(to);
    if (unit.start < start) {
        pivot = end;
        apply({unit.start, end});
    } else {
        pivot = start;
        apply({start, unit.end});
    }
}

void SelectionService::setSelection(Position from, Position to) {
    pivot = from;
    wordSelectionAnchor.reset();
    selectingRows = false;
    apply({from, to});
}

void SelectionService::selectAll() {
    const auto& lines = terminal.buffer->lines;
    int last = std::max(lines.count() - 1, 0);
    setSelection({0, 0}, {lines.count() > 0 ? lines[last].count() : 0, last});
}

void SelectionService::selectNone() {
    bool changed = active;
    active = false;
    hasSelectionRange = false;
    pivot.reset();
    wordSelectionAnchor.reset();
    selectingRows = false;
    if (changed) notify();
}

void SelectionService::selectRow(int row) {
    startSelection({0, row}, SelectionMode::row);
}

void SelectionService::selectWordOrExpression(Position at) {
    startSelection(at, SelectionMode::word);
}

std::optional<SelectionService::Range> SelectionService::selectedRange() const {
    if (!active || !hasSelectionRange) return std::nullopt;
    return Range{std::min(start, end), std::max(start, end)};
}

bool SelectionService::isSelected(Position cell) const {
    auto range = selectedRange();
    return range && range->start <= cell && cell < range->end;
}

std::string SelectionService::getSelectedText() const {
    auto range = selectedRange();
    if (!range) return {};
    const auto& lines = terminal.buffer->lines;
    int lastRow = std::min(range->end.row, lines.count() - 1);
    std::string out;
    for (int row = std::max(range->start.row, 0); row <= lastRow; ++row) {
        const BufferLine& line = lines[row];
        int from = row == range->start.row ? range->start.col : 0;
        int to = row == range->end.row ? std::min(range->end.col, line.count()) : line.count();
        bool wrapsOn = row < lastRow && lines[row + 1].isWrapped;
        // Cells left empty at the end of a row are not text; spaces the program wrote are, unless
        // the selection runs to the end of a line that ends there.
        bool toLineEnd = to == line.count() && !wrapsOn;
        while (to > from && (line[to - 1].code == 0 || (toLineEnd && line[to - 1].code == ' ')))
            --to;
        for (int col = std::max(from, 0); col < to; ++col) {
            const CharData& cell = line[col];
            if (cell.width == 0) continue;
            if (cell.code == 0)
                GraphemeTable::appendUtf8(nullChar, out);
            else
                CellScalars::appendText(cell, terminal.graphemes, out);
        }
        if (row < range->end.row && !wrapsOn) out.push_back('\n');
    }
    return out;
}

void SelectionService::notify() {
    if (auto d = terminal.tdel.lock()) d->selectionChanged(terminal);
}

} // namespace TerminalEngine
