// Cell characters on the grapheme table and utf8proc's categories.
#include "TerminalEngine/Model/CellScalars.h"

#include "TerminalEngine/Model/GraphemeTable.h"

#include <utf8proc.h>

namespace TerminalEngine::CellScalars {

char32_t leadScalar(const CharData& cell, const GraphemeTable& graphemes) {
    if (cell.code <= 0) return 0;
    if (cell.code < CharData::firstGraphemeIndex) return static_cast<char32_t>(cell.code);
    std::string text = graphemes.character(cell.code);
    utf8proc_int32_t scalar = 0;
    if (utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                         static_cast<utf8proc_ssize_t>(text.size()), &scalar) <= 0)
        return 0;
    return static_cast<char32_t>(scalar);
}

void appendText(const CharData& cell, const GraphemeTable& graphemes, std::string& out) {
    if (cell.code <= 0)
        out.push_back(' ');
    else if (cell.code < 0x80)
        out.push_back(static_cast<char>(cell.code));
    else
        graphemes.appendCharacter(cell.code, out);
}

bool isAlphanumeric(char32_t scalar) {
    if (scalar < 0x80)
        return (scalar >= 'a' && scalar <= 'z') || (scalar >= 'A' && scalar <= 'Z') ||
               (scalar >= '0' && scalar <= '9');
    switch (utf8proc_category(static_cast<utf8proc_int32_t>(scalar))) {
    case UTF8PROC_CATEGORY_LU:
    case UTF8PROC_CATEGORY_LL:
    case UTF8PROC_CATEGORY_LT:
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
    case UTF8PROC_CATEGORY_MN:
    case UTF8PROC_CATEGORY_MC:
    case UTF8PROC_CATEGORY_ME:
    case UTF8PROC_CATEGORY_ND:
    case UTF8PROC_CATEGORY_NL:
    case UTF8PROC_CATEGORY_NO: return true;
    default: return false;
    }
}

} // namespace TerminalEngine::CellScalars
