// One screen cell and its attribute: the values every line of the buffer is made of.
// Kept small and trivially copyable so that lines can be filled and moved with plain loops.
#pragma once

#include "TerminalEngine/Model/TinyAtom.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace TerminalEngine {

enum class CharacterStyle : std::uint8_t {
    none = 0,
    bold = 1 << 0,
    underline = 1 << 1,
    blink = 1 << 2,
    inverse = 1 << 3,
    invisible = 1 << 4,
    dim = 1 << 5,
    italic = 1 << 6,
    crossedOut = 1 << 7,
};

constexpr CharacterStyle operator|(CharacterStyle a, CharacterStyle b) {
    return static_cast<CharacterStyle>(static_cast<std::uint8_t>(a) | static_cast<std::uint8_t>(b));
}
constexpr CharacterStyle operator&(CharacterStyle a, CharacterStyle b) {
    return static_cast<CharacterStyle>(static_cast<std::uint8_t>(a) & static_cast<std::uint8_t>(b));
}
constexpr CharacterStyle operator~(CharacterStyle a) {
    return static_cast<CharacterStyle>(~static_cast<std::uint8_t>(a));
}
constexpr CharacterStyle& operator|=(CharacterStyle& a, CharacterStyle b) {
    return a = a | b;
}
constexpr CharacterStyle& operator&=(CharacterStyle& a, CharacterStyle b) {
    return a = a & b;
}
constexpr bool has(CharacterStyle set, CharacterStyle flag) {
    return (set & flag) != CharacterStyle::none;
}

enum class UnderlineStyle : std::uint8_t { none, single, double_, curly, dotted, dashed };

struct Attribute {
    // A cell colour: palette index, 24-bit colour, or one of the two defaults.
    // Four bytes with byte alignment, so that an optional colour costs five.
    class Color {
    public:
        enum class Kind : std::uint8_t { ansi256, trueColor, defaultColor, defaultInvertedColor };

        constexpr Color() = default;
        static constexpr Color ansi256(std::uint8_t code) { return Color(Kind::ansi256, code, 0, 0); }
        static constexpr Color trueColor(std::uint8_t r, std::uint8_t g, std::uint8_t b) {
            return Color(Kind::trueColor, r, g, b);
        }
        static constexpr Color defaultColor() { return Color(Kind::defaultColor, 0, 0, 0); }
        static constexpr Color defaultInvertedColor() { return Color(Kind::defaultInvertedColor, 0, 0, 0); }

        constexpr Kind kind() const { return kind_; }
        constexpr std::uint8_t code() const { return a_; } // ansi256 only
        constexpr std::uint8_t red() const { return a_; }  // trueColor only
        constexpr std::uint8_t green() const { return b_; }
        constexpr std::uint8_t blue() const { return c_; }

        constexpr bool operator==(const Color&) const = default;

    private:
        constexpr Color(Kind kind, std::uint8_t a, std::uint8_t b, std::uint8_t c)
            : kind_(kind)
            , a_(a)
            , b_(b)
            , c_(c) {}
        Kind kind_ = Kind::defaultColor;
        std::uint8_t a_ = 0;
        std::uint8_t b_ = 0;
        std::uint8_t c_ = 0;
    };

    Color fg = Color::defaultColor();
    Color bg = Color::defaultColor();
    CharacterStyle style = CharacterStyle::none;
    UnderlineStyle underlineStyle = UnderlineStyle::none;
    std::optional<Color> underlineColor;
    // Rounds the attribute up to two whole words, so that it is copied as two plain loads.
    std::uint8_t reserved = 0;

    static constexpr Attribute empty() { return Attribute{}; }
    constexpr bool operator==(const Attribute&) const = default;
};

// The fields are laid out so that the attribute starts at the second 8-byte word: the print path
// writes a cell as three word stores.
struct alignas(8) CharData {
    // Codes at or above this value index the terminal's grapheme table instead of naming a scalar.
    static constexpr std::int32_t firstGraphemeIndex = 0x400001;

    std::int32_t code = 0;
    std::int8_t width = 1;
    std::uint8_t unused = 0;
    TinyAtom payload;
    Attribute attribute;

    constexpr CharData() = default;
    constexpr CharData(Attribute attr, std::int32_t code, std::int8_t width)
        : code(code)
        , width(width)
        , attribute(attr) {}

    static const CharData Null;

    constexpr void setValue(std::int32_t newCode, int size) {
        code = newCode;
        width = static_cast<std::int8_t>(size);
    }
    constexpr bool hasContent() const { return code != 0 || width != 1; }
    constexpr bool operator==(const CharData&) const = default;
};

inline constexpr CharData CharData::Null{};

static_assert(sizeof(Attribute::Color) == 4);
static_assert(sizeof(Attribute) == 16);
static_assert(sizeof(CharData) == 24, "cells must stay small");
static_assert(offsetof(CharData, attribute) == 8);
static_assert(std::is_trivially_copyable_v<CharData>);

// Writes a cell with no payload as two plain stores: the code and width word, then the attribute
// straight from where it lives. Building a CharData first makes compilers assemble it on the
// stack and copy it, on the paths that print one character at a time.
inline void storeCell(CharData* cell, const Attribute& attr, std::int32_t code, std::int8_t width) {
    static_assert(offsetof(CharData, code) == 0 && offsetof(CharData, width) == 4);
    static_assert(std::endian::native == std::endian::little);
    const std::uint64_t head =
        static_cast<std::uint32_t>(code) | std::uint64_t{static_cast<std::uint8_t>(width)} << 32;
    auto* out = reinterpret_cast<unsigned char*>(cell);
    std::memcpy(out, &head, sizeof head);
    std::memcpy(out + offsetof(CharData, attribute), &attr, sizeof(Attribute));
}

// Writes one cell per byte of printable ASCII: attribute `attr`, width 1, no payload. Text is
// bound by stores, so cells go out as 16-byte stores in address order: the core commits two
// stores a cycle only while they fall in one cache line. From sixteen characters on, the plain
// loop below is what compilers turn into whole-vector code with exactly that order (by hand, the
// stores of a block end up reordered); a tail rewrites the last sixteen cells, the same bytes
// again, rather than running a loop whose exit the length of each line decides. Shorter runs go
// by pairs: two cells are 48 bytes, [code0 width0 | attribute low] [attribute high | code1
// width1] [attribute], and the last cell is written once more whatever the parity.
inline void storeAsciiCells(CharData* cells, const Attribute& attr, const std::uint8_t* text,
                            std::size_t count) {
    static_assert(offsetof(CharData, code) == 0 && offsetof(CharData, width) == 4);
    static_assert(offsetof(CharData, attribute) == 8 && sizeof(CharData) == 24);
    static_assert(std::endian::native == std::endian::little);
    constexpr std::uint64_t widthOne = std::uint64_t{1} << 32;
    if (count >= 16) {
        std::uint64_t attrWords[2] = {0, 0};
        std::memcpy(attrWords, &attr, sizeof(Attribute));
        auto run = [&](std::size_t from, std::size_t n) {
            auto* out = reinterpret_cast<unsigned char*>(cells + from);
            for (std::size_t k = from; k < from + n; ++k, out += sizeof(CharData)) {
                const std::uint64_t head = widthOne | text[k];
                std::memcpy(out, &head, 8);
                std::memcpy(out + 8, &attrWords[0], 8);
                std::memcpy(out + 16, &attrWords[1], 8);
            }
        };
        run(0, count & ~std::size_t{15});
        if (count % 16 != 0) run(count - 16, 16);
        return;
    }
    if (count == 0) return;
#if defined(__SSE2__)
    const __m128i attribute = _mm_loadu_si128(reinterpret_cast<const __m128i*>(&attr));
    for (std::size_t k = 0; k + 2 <= count; k += 2) {
        const __m128i heads =
            _mm_unpacklo_epi64(_mm_cvtsi64_si128(static_cast<long long>(widthOne | text[k])),
                               _mm_cvtsi64_si128(static_cast<long long>(widthOne | text[k + 1])));
        auto* out = reinterpret_cast<__m128i*>(cells + k);
        _mm_storeu_si128(out, _mm_unpacklo_epi64(heads, attribute));
        _mm_storeu_si128(out + 1, _mm_unpackhi_epi64(attribute, heads));
        _mm_storeu_si128(out + 2, attribute);
    }
    storeCell(cells + count - 1, attr, text[count - 1], 1);
#else
    for (std::size_t k = 0; k < count; ++k)
        storeCell(cells + k, attr, text[k], 1);
#endif
}

} // namespace TerminalEngine
