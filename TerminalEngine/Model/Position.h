// A place in a buffer: a column and a row counted from the oldest line of the buffer (not from
// the top of the screen), so that it stays put while the display scrolls.
#pragma once

namespace TerminalEngine {

struct Position {
    int col = 0;
    int row = 0;

    constexpr bool operator==(const Position&) const = default;
    // Reading order: rows first, then columns.
    constexpr bool operator<(const Position& other) const {
        return row != other.row ? row < other.row : col < other.col;
    }
    constexpr bool operator<=(const Position& other) const { return !(other < *this); }
    constexpr bool operator>(const Position& other) const { return other < *this; }
    constexpr bool operator>=(const Position& other) const { return !(*this < other); }
};

} // namespace TerminalEngine
