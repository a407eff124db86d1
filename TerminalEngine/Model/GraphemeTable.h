// Interning of characters that do not fit one cell code: clusters (a base with marks, flags,
// joined emoji) and every scalar outside the Basic Multilingual Plane. Indices are handed out
// upward from CharData::firstGraphemeIndex and never reused while the table lives.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace TerminalEngine {

class GraphemeTable {
public:
    // The cell code of a character given as UTF-8 (one extended grapheme cluster).
    std::int32_t code(std::string_view character);
    // The character of a cell code, as UTF-8; unknown or invalid codes read as a blank.
    std::string character(std::int32_t code) const;
    // Appends the UTF-8 of a code to `out` without building a temporary.
    void appendCharacter(std::int32_t code, std::string& out) const;

    std::int32_t lastCharIndex() const { return lastCharIndex_; }
    std::size_t size() const { return indexToCharMap_.size(); }

    static void appendUtf8(char32_t scalar, std::string& out);

private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
    };
    std::unordered_map<std::string, std::int32_t, Hash, std::equal_to<>> charToIndexMap_;
    std::vector<std::string> indexToCharMap_; // index - firstGraphemeIndex
    std::int32_t lastCharIndex_ = 0x400001;
};

} // namespace TerminalEngine
