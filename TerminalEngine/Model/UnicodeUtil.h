// Column widths of Unicode scalars and the UTF-8 lead-byte classes, from read-only tables.
#pragma once

#include <cstdint>
#include <span>

namespace TerminalEngine {

enum class RegionalIndicatorWidth : std::uint8_t { wide, narrow };

class UnicodeUtil {
public:
    struct LH {
        std::uint32_t lo;
        std::uint32_t hi;
    };

    static const std::span<const LH> wideTable;
    static const std::span<const LH> emojiPresentationTable;
    // Low nibble: sequence length class (0 ASCII, 1 not a lead byte, 2..4 bytes);
    // high nibble: the legal range of the second byte (see utf8SecondByteOk).
    static const std::uint8_t utf8LeadTable[256];

    // -1 for controls, 0 for marks and other zero-width scalars, 1 or 2 columns otherwise.
    static int columnWidth(std::uint32_t scalar);
    // Bases that take a presentation selector (U+FE0E, U+FE0F).
    static bool isEmojiPresentation(std::uint32_t scalar);
    static bool isRegionalIndicator(std::uint32_t scalar) { return scalar >= 0x1F1E6 && scalar <= 0x1F1FF; }
    static bool isEmojiModifier(std::uint32_t scalar) { return scalar >= 0x1F3FB && scalar <= 0x1F3FF; }
    // Range search with a bounds test first, so that text below the first range costs one comparison.
    static bool bisearch(std::uint32_t scalar, std::span<const LH> table, std::size_t maxIndex);

    // Width of a grapheme cluster given as scalars.
    static int clusterWidth(std::span<const char32_t> scalars, RegionalIndicatorWidth regionalIndicatorWidth);

    static constexpr int sequenceLength(std::uint8_t leadEntry) { return leadEntry & 0x0F; }
    // Bytes of the character that starts with `lead` in valid UTF-8; 1 for ASCII and for a byte
    // that leads nothing, so that a walk over damaged text still moves on.
    static int characterLength(std::uint8_t lead) {
        int n = sequenceLength(utf8LeadTable[lead]);
        return n < 2 ? 1 : n;
    }
    static constexpr bool utf8SecondByteOk(std::uint8_t leadEntry, std::uint8_t second) {
        switch (leadEntry >> 4) {
        case 0x1: return second >= 0xA0 && second <= 0xBF;
        case 0x2: return second >= 0x80 && second <= 0x9F;
        case 0x3: return second >= 0x90 && second <= 0xBF;
        case 0x4: return second >= 0x80 && second <= 0x8F;
        default: return second >= 0x80 && second <= 0xBF;
        }
    }
};

} // namespace TerminalEngine
