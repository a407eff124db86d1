// Grapheme interning for cells.
#include "TerminalEngine/Model/GraphemeTable.h"

#include "TerminalEngine/Model/CharData.h"

namespace TerminalEngine {
namespace {

// Decodes exactly one well-formed UTF-8 scalar that spans the whole text; -1 otherwise.
std::int32_t singleScalar(std::string_view s) {
    if (s.empty()) return -1;
    auto b0 = static_cast<unsigned char>(s[0]);
    std::size_t len = b0 < 0x80 ? 1 : (b0 >> 5) == 0x6 ? 2 : (b0 >> 4) == 0xE ? 3 : (b0 >> 3) == 0x1E ? 4 : 0;
    if (len == 0 || len != s.size()) return -1;
    if (len == 1) return b0;
    std::uint32_t cp = b0 & (0x7F >> len);
    for (std::size_t i = 1; i < len; ++i) {
        auto b = static_cast<unsigned char>(s[i]);
        if ((b & 0xC0) != 0x80) return -1;
        cp = (cp << 6) | (b & 0x3F);
    }
    static constexpr std::uint32_t minimum[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < minimum[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return -1;
    return static_cast<std::int32_t>(cp);
}

bool isValidScalar(std::int32_t code) {
    return code >= 0 && code <= 0x10FFFF && !(code >= 0xD800 && code <= 0xDFFF);
}

} // namespace

void GraphemeTable::appendUtf8(char32_t cp, std::string& out) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

std::int32_t GraphemeTable::code(std::string_view character) {
    if (character == "\r\n") return 10;
    std::int32_t scalar = singleScalar(character);
    if (scalar >= 0 && scalar < 0x10000) return scalar;
    if (auto it = charToIndexMap_.find(character); it != charToIndexMap_.end()) return it->second;
    std::int32_t index = lastCharIndex_++;
    charToIndexMap_.emplace(std::string(character), index);
    indexToCharMap_.emplace_back(character);
    return index;
}

void GraphemeTable::appendCharacter(std::int32_t code, std::string& out) const {
    if (code < CharData::firstGraphemeIndex) {
        if (isValidScalar(code))
            appendUtf8(static_cast<char32_t>(code), out);
        else
            out.push_back(' ');
        return;
    }
    auto index = static_cast<std::size_t>(code - CharData::firstGraphemeIndex);
    if (index < indexToCharMap_.size())
        out += indexToCharMap_[index];
    else
        out.push_back(' ');
}

std::string GraphemeTable::character(std::int32_t code) const {
    std::string out;
    appendCharacter(code, out);
    return out;
}

} // namespace TerminalEngine
