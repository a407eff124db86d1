// What a cell holds as characters, for the readers of the buffer (selection, search, links):
// its text, its first scalar and the classes of scalars they care about.
#pragma once

#include "TerminalEngine/Model/CharData.h"

#include <string>

namespace TerminalEngine {

class GraphemeTable;

namespace CellScalars {

// The first scalar of the cell's character; 0 for an empty cell.
char32_t leadScalar(const CharData& cell, const GraphemeTable& graphemes);
// Appends the cell's character as UTF-8, a blank for an empty cell.
void appendText(const CharData& cell, const GraphemeTable& graphemes, std::string& out);
// Unicode letters, marks and numbers.
bool isAlphanumeric(char32_t scalar);
// An empty cell or a space.
inline bool isBlank(const CharData& cell) {
    return cell.code == 0 || cell.code == ' ';
}

} // namespace CellScalars
} // namespace TerminalEngine
