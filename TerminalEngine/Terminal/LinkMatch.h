// What the link lookup answers: the target of a link under a position and the cells it covers,
// row by row, so that a view can underline it and open it.
#pragma once

#include "TerminalEngine/Model/Position.h"

#include <cstdint>
#include <string>
#include <vector>

namespace TerminalEngine {

// Columns [start, end) of one row.
struct ColumnRange {
    int start = 0;
    int end = 0;
    bool operator==(const ColumnRange&) const = default;
};

struct RowRange {
    int row = 0; // buffer row
    ColumnRange range;
    bool operator==(const RowRange&) const = default;
};

struct LinkMatch {
    std::string text;  // the target: a URL, or a path as printed
    int row = 0;       // buffer row of the position looked up
    ColumnRange range; // the link's columns in that row
    bool isExplicit = false;
    std::vector<RowRange> rowRanges; // every row the link covers, top to bottom
    bool operator==(const LinkMatch&) const = default;
};

// Where to look: a buffer position, or a screen position that the display offset turns into one.
struct LinkLookupLocation {
    enum class Kind : std::uint8_t { buffer, screen };
    Kind kind = Kind::buffer;
    Position position;

    static constexpr LinkLookupLocation buffer(Position p) { return {Kind::buffer, p}; }
    static constexpr LinkLookupLocation screen(Position p) { return {Kind::screen, p}; }
    bool operator==(const LinkLookupLocation&) const = default;
};

enum class LinkLookupMode : std::uint8_t { explicitOnly, explicitAndImplicit };

// A character of a joined text and the cell it came from.
struct ImplicitCellRef {
    int row = 0;
    int col = 0;
    int width = 1;
    bool operator==(const ImplicitCellRef&) const = default;
};

} // namespace TerminalEngine
