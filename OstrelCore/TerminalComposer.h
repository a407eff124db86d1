// Reads what the person has typed into an agent's input box from the rows shown on screen: the
// box is found by its prompt glyph, and rows of a framed box are joined back into one draft.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace OstrelCore::TerminalComposer {

struct Cell {
    std::string text;
    std::optional<int> width; // present only for a row framed on both sides
    int filled = 0;           // characters up to the last one that isn't blank
    bool operator==(const Cell&) const = default;
};

Cell frame(std::string_view row);
std::optional<Cell> promptRow(std::string_view row);
std::optional<Cell> continuationRow(std::string_view row);

// None when no input box is on screen; the empty string when the box is empty or shows its hint.
std::optional<std::string> draft(const std::vector<std::string>& visibleRows);

} // namespace OstrelCore::TerminalComposer
