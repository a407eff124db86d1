// The national replacement sets and DEC Special Graphics that ESC ( and its kin designate.
// Read-only data: each set maps a few bytes of 0x20..0x7E to one character.
#pragma once

#include <array>
#include <map>
#include <string_view>

namespace TerminalEngine {

class CharSet {
public:
    struct Entry {
        char byte;
        std::string_view replacement; // UTF-8 of one character
    };

    constexpr CharSet() = default;
    template <std::size_t N>
    constexpr explicit CharSet(const Entry (&entries)[N]) {
        for (const auto& e : entries)
            map_[static_cast<unsigned char>(e.byte) & 0x7F] = e.replacement;
    }

    // The replacement of an ASCII byte, or an empty view when the set leaves it alone.
    constexpr std::string_view operator[](unsigned char byte) const {
        return byte < 0x80 ? map_[byte] : std::string_view{};
    }
    constexpr bool contains(unsigned char byte) const { return !(*this)[byte].empty(); }
    constexpr bool empty() const {
        for (auto s : map_)
            if (!s.empty()) return false;
        return true;
    }

private:
    std::array<std::string_view, 128> map_{};
};

class CharSets {
public:
    // Designator byte to set. "B" maps to an empty set (not to none).
    static const std::map<char, const CharSet*>& all();
    static const CharSet* find(char designator);
};

} // namespace TerminalEngine
