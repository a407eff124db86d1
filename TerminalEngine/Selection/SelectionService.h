// The selected range of a terminal's buffer: started by a click, grown by dragging in characters,
// words or whole lines, and read back as text the way it was printed (no line break where a line
// only wrapped, wide characters once).
#pragma once

#include "TerminalEngine/Model/Position.h"

#include <cstdint>
#include <optional>
#include <string>

namespace TerminalEngine {

class Terminal;

enum class SelectionMode : std::uint8_t { character, word, row };

class SelectionService {
public:
    // Cells from `start` up to, not including, `end`, in reading order; `end.col` may be the
    // width of the row, meaning through its last cell.
    struct Range {
        Position start;
        Position end;
        bool operator==(const Range&) const = default;
    };

    explicit SelectionService(Terminal& terminal);

    // A click on a cell; the click count picks the mode (one: characters, two: word, three: row).
    void startSelection(Position at, SelectionMode mode = SelectionMode::character);
    // The pointer dragged to a cell: the selection runs from the first unit clicked to the unit
    // there, in the mode of the click.
    void dragExtend(Position to);
    // Shift-click: the nearer end moves to take in the unit at `to`.
    void shiftExtend(Position to);
    void setSelection(Position start, Position end);
    void selectAll();
    void selectNone();
    void selectRow(int row);
    void selectWordOrExpression(Position at);

    // The unit a double click picks: a bracketed expression, a word (letters, digits, ". _ -"),
    // or a run of one character.
    Range wordRange(Position at) const;
    // The line a row belongs to, with the rows it wraps into.
    Range rowRange(int row) const;

    std::optional<Range> selectedRange() const;
    bool isSelected(Position cell) const;
    std::string getSelectedText() const;

    Terminal& terminal;
    bool active = false;
    bool hasSelectionRange = false;
    Position start;
    std::optional<Position> pivot;
    std::optional<Range> wordSelectionAnchor; // the unit first clicked, while dragging by words or rows
    Position end;
    bool selectingRows = false;
    SelectionMode selectionMode = SelectionMode::character;
    char32_t nullChar = U' '; // what an empty cell reads as

private:
    Position clampCell(Position p) const;
    Range unitAt(Position at) const;
    void apply(Range range);
    void notify();
};

} // namespace TerminalEngine
