// Sixteen bytes at a time over the hot text paths: where does a run of printable text end.
// SSE2 is part of every x86-64 processor; elsewhere the plain loops do the same work.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace TerminalEngine::ByteScan {

// Index of the first byte below 0x20 (a C0 control) at or after `from`, or `size`.
inline std::size_t firstControl(const std::uint8_t* p, std::size_t from, std::size_t size) {
    std::size_t i = from;
#if defined(__SSE2__)
    const __m128i high = _mm_set1_epi8(static_cast<char>(0xE0));
    const __m128i zero = _mm_setzero_si128();
    for (; i + 16 <= size; i += 16) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
        // A byte is a control exactly when its top three bits are clear.
        int mask = _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_and_si128(v, high), zero));
        if (mask != 0) return i + static_cast<std::size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
    }
#endif
    while (i < size && p[i] >= 0x20)
        ++i;
    return i;
}

// Index of the first byte that is not printable ASCII (0x20..0x7E) at or after `from`, or `size`.
inline std::size_t firstNonPrintableAscii(const std::uint8_t* p, std::size_t from, std::size_t size) {
    std::size_t i = from;
#if defined(__SSE2__)
    const __m128i one = _mm_set1_epi8(1);
    const __m128i space = _mm_set1_epi8(0x20);
    // Bit k set when byte k of the 16 at `at` is printable. Adding one moves 0x20..0x7E to
    // 0x21..0x7F, the only bytes then above 0x20 as signed values: 0x7F becomes -128, and bytes
    // from 0x80 up are negative or zero.
    auto printable = [&](std::size_t at) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + at));
        return static_cast<std::uint64_t>(
            static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpgt_epi8(_mm_add_epi8(v, one), space))));
    };
    if (i + 16 <= size) {
        if (std::uint64_t stops = printable(i) ^ 0xFFFF)
            return i + static_cast<std::size_t>(__builtin_ctzll(stops));
        i += 16;
    }
    // A line of text ends within one 64-byte block far more often than not, so that the branch
    // out of this loop goes the same way nearly every time, whatever the line's length.
    for (; i + 64 <= size; i += 64) {
        std::uint64_t stops =
            ~(printable(i) | printable(i + 16) << 16 | printable(i + 32) << 32 | printable(i + 48) << 48);
        if (stops != 0) return i + static_cast<std::size_t>(__builtin_ctzll(stops));
    }
    for (; i + 16 <= size; i += 16)
        if (std::uint64_t stops = printable(i) ^ 0xFFFF)
            return i + static_cast<std::size_t>(__builtin_ctzll(stops));
#endif
    while (i < size && p[i] >= 0x20 && p[i] < 0x7F)
        ++i;
    return i;
}

// The decimal number whose digits start at p: how many digits, and their value when there are
// fewer than eight. Eight bytes are classified and converted in one register, with no branch on
// the length: the digit count is where the first non-digit is, and the digits are shifted to the
// top of the word (the bytes below them reading as leading zeros) before pairs, quads and halves
// are combined. p[0] to p[7] must be readable. A count of 8 means eight digits or more, the value
// not computed.
struct ShortDecimal {
    std::int64_t digits;
    std::int64_t value;
};
inline ShortDecimal leadingDecimal(const std::uint8_t* p) {
    std::uint64_t word;
    std::memcpy(&word, p, sizeof word);
    // Digits become 0..9. Any other byte either has its top bit set already, or gains it when
    // 0x76 is added (values 10 to 0x7F); a carry out of a byte only ever lands in later bytes.
    const std::uint64_t t = word ^ 0x3030303030303030ull;
    const std::uint64_t stops = ((t + 0x7676767676767676ull) | t) & 0x8080808080808080ull;
    if (stops == 0) return {8, 0};
    const auto n = static_cast<unsigned>(__builtin_ctzll(stops)) >> 3;
    std::uint64_t d = (t << (8 * (7 - n))) << 8;
    d = (d * 10 + (d >> 8)) & 0x00FF00FF00FF00FFull;
    d = (d * 100 + (d >> 16)) & 0x0000FFFF0000FFFFull;
    d = (d * 10000 + (d >> 32)) & 0xFFFFFFFFull;
    return {static_cast<std::int64_t>(n), static_cast<std::int64_t>(d)};
}

// Reads the number of up to three ASCII digits at p[j] into `value` (0 when there is none) and
// moves `j` past them. True when the number ends there, false when a fourth digit follows (with
// `j` on it). Control sequence parameters are this short nearly always, so the digits are read
// without a loop, a bounds check or an overflow clamp: p[j] to p[j + 3] must be readable.
inline bool shortDecimal(const std::uint8_t* p, std::int64_t& j, std::int64_t& value) {
    value = 0;
    unsigned digit = static_cast<unsigned>(p[j]) - '0';
    if (digit > 9) return true;
    value = digit;
    digit = static_cast<unsigned>(p[++j]) - '0';
    if (digit > 9) return true;
    value = value * 10 + digit;
    digit = static_cast<unsigned>(p[++j]) - '0';
    if (digit > 9) return true;
    value = value * 10 + digit;
    return static_cast<unsigned>(p[++j]) - '0' > 9;
}

} // namespace TerminalEngine::ByteScan
