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

// The parameters of a short control sequence: one number, or two joined by ';', of at most four
// digits each (none reads as 0). `end` is the offset of the first byte that is no parameter byte
// (0x30 to 0x3F), or -1 when the parameters take another shape: longer numbers, a third one, a
// colon or a private marker among them. `two` says whether there was a ';'.
struct ShortParameters {
    std::int64_t end;
    std::int64_t first;
    std::int64_t second;
    bool two;
};
namespace Detail {
// Multiplying by entry n moves the first n bytes of a word up by 4 - n bytes: a number of n
// digits then fills the top of a four-byte lane, the bytes below it reading as leading zeros.
// The second number is looked up by the distance from the first stop to the end, one more than
// its digits: 0 (no second number) and 1 (none after the ';') shift everything out.
inline constexpr std::uint64_t alignDigits[5] = {1ull << 32, 1ull << 24, 1ull << 16, 1ull << 8, 1};
inline constexpr std::uint64_t alignSecond[6] = {1ull << 32, 1ull << 32, 1ull << 24,
                                                 1ull << 16, 1ull << 8,  1};
} // namespace Detail
// The numbers are classified and converted in registers, with no branch on their lengths. Where
// the parameters end comes from one 16-byte compare and one bit scan, so that the next sequence
// can be read before the shape is checked or the values are ready. For the values, the first
// number is moved into the low four bytes of a word and the second into the high four, then
// neighbouring digits are combined into pairs and pairs into quads, both numbers at once. p[0] to
// p[15] must be readable.
inline ShortParameters shortParameters(const std::uint8_t* p) {
    // One bit per byte: parameter bytes (0x30 to 0x3F), digits, semicolons.
#if defined(__SSE2__)
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    // Parameter bytes move to -128..-113 as signed bytes and digits to -128..-119, every other
    // byte above that.
    const __m128i shifted = _mm_add_epi8(v, _mm_set1_epi8(static_cast<char>(0x80 - '0')));
    const auto parameters =
        static_cast<unsigned>(_mm_movemask_epi8(_mm_cmplt_epi8(shifted, _mm_set1_epi8(-112))));
    const auto digits =
        static_cast<unsigned>(_mm_movemask_epi8(_mm_cmplt_epi8(shifted, _mm_set1_epi8(-118))));
    const auto semicolons = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8(';'))));
#else
    unsigned parameters = 0, digits = 0, semicolons = 0;
    for (unsigned k = 0; k < 16; ++k) {
        parameters |= static_cast<unsigned>(p[k] - '0' <= 0xFu) << k;
        digits |= static_cast<unsigned>(p[k] - '0' <= 9u) << k;
        semicolons |= static_cast<unsigned>(p[k] == ';') << k;
    }
#endif
    // Bit 16 stands for a stop after the sixteen bytes.
    const auto end = static_cast<unsigned>(__builtin_ctz(parameters ^ 0x1FFFFu));
    const unsigned stops = digits ^ 0x1FFFFu;
    const auto firstDigits = static_cast<unsigned>(__builtin_ctz(stops));
    // Between the numbers and the end, only the first stop may lie, and only as a ';'.
    const unsigned inside = stops & ((1u << end) - 1);
    if ((inside & ~(semicolons & stops & (0u - stops))) != 0 || firstDigits > 4 || end - firstDigits > 5)
        return {-1, 0, 0, false};
    std::uint64_t word;
    std::memcpy(&word, p, sizeof word);
    const std::uint64_t low =
        static_cast<std::uint32_t>((word ^ 0x3030303030303030ull) * Detail::alignDigits[firstDigits]);
    std::memcpy(&word, p + firstDigits + 1, sizeof word);
    const std::uint64_t high = ((word ^ 0x3030303030303030ull) * Detail::alignSecond[end - firstDigits])
                               << 32;
    std::uint64_t d = low | high;
    d = (d * 10 + (d >> 8)) & 0x00FF00FF00FF00FFull;
    d = d * 100 + (d >> 16);
    // The first number is the low 16 bits, the second bits 32 to 47. They are taken out with
    // different operations on purpose: the same operation twice gets packed into a vector
    // register and out again.
    return {static_cast<std::int64_t>(end), static_cast<std::int64_t>(d & 0xFFFF),
            static_cast<std::int64_t>((d << 16) >> 48), inside != 0};
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
