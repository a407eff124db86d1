// The scanner's state machine, with block-at-a-time skips over runs that can't change the result.
#include "OstrelCore/TerminalOutputScanner.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace OstrelCore {
namespace {

constexpr std::uint8_t BEL = 0x07;
constexpr std::uint8_t ESC = 0x1B;

constexpr bool isStringIntroducer(std::uint8_t b) {
    return b == 'P' || b == 'X' || b == ']' || b == '^' || b == '_'; // DCS, SOS, OSC, PM, APC
}

#if !defined(__SSE2__)
constexpr std::uint64_t broadcast(std::uint8_t b) {
    return 0x0101010101010101ULL * b;
}

// Non-zero when some byte of `word` is zero.
constexpr std::uint64_t hasZeroByte(std::uint64_t word) {
    return (word - 0x0101010101010101ULL) & ~word & 0x8080808080808080ULL;
}
#endif

// First position at or after `i` holding ESC or BEL, or `end`. Once the printable flag is set in
// `normal`, and inside strings, only these two bytes can change anything.
std::size_t skipToEscOrBel(const unsigned char* p, std::size_t i, std::size_t end) {
#if defined(__SSE2__)
    const __m128i escs = _mm_set1_epi8(static_cast<char>(ESC)), bels = _mm_set1_epi8(static_cast<char>(BEL));
    for (; i + 16 <= end; i += 16) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
        const auto hits = static_cast<unsigned>(
            _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(block, escs), _mm_cmpeq_epi8(block, bels))));
        if (hits != 0) return i + static_cast<std::size_t>(__builtin_ctz(hits));
    }
#else
    constexpr std::uint64_t escs = broadcast(ESC), bels = broadcast(BEL);
    for (; i + 8 <= end; i += 8) {
        std::uint64_t word;
        std::memcpy(&word, p + i, 8);
        if (hasZeroByte(word ^ escs) | hasZeroByte(word ^ bels)) break;
    }
#endif
    while (i < end && p[i] != ESC && p[i] != BEL)
        ++i;
    return i;
}

constexpr bool isFinal(std::uint8_t b) {
    return b >= 0x40 && b <= 0x7E;
}

std::size_t skipToEsc(const unsigned char* p, std::size_t i, std::size_t end) {
    const void* hit = std::memchr(p + i, ESC, end - i);
    return hit ? static_cast<std::size_t>(static_cast<const unsigned char*>(hit) - p) : end;
}

} // namespace

TerminalOutputScanner::Result TerminalOutputScanner::scan(std::string_view bytes) {
    Result result;
    if (bytes.empty()) return result;
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::size_t end = bytes.size();
    State s = state;
    std::size_t i = 0;
    while (i < end) {
        switch (s) {
        case State::normal:
            if (result.printable) {
                // Colour and cursor sequences between runs of text are most of an agent's output:
                // complete CSI sequences are stepped over here, without a round through the states.
                for (;;) {
                    i = result.bell ? skipToEsc(p, i, end) : skipToEscOrBel(p, i, end);
                    if (i + 1 >= end || p[i] != ESC || p[i + 1] != '[') break;
                    std::size_t j = i + 2;
                    while (j < end && !isFinal(p[j]))
                        ++j;
                    if (j == end) break; // split across chunks: the states take it
                    i = j + 1;
                }
                if (i == end) break;
            }
            if (p[i] == BEL) {
                result.bell = true;
            } else if (p[i] == ESC) {
                s = State::escape;
            } else if (p[i] >= 0x20 && p[i] != 0x7F) {
                result.printable = true; // UTF-8 lead and continuation bytes included
            }
            ++i;
            break;
        case State::escape: {
            std::uint8_t b = p[i++];
            if (isStringIntroducer(b))
                s = State::string;
            else if (b == '[')
                s = State::csi;
            else if (b < 0x20 || b > 0x2F) // 0x20..0x2F are intermediates and keep the escape open
                s = State::normal;
            break;
        }
        case State::csi:
            // Control bytes stay inside the sequence; only a final byte ends it.
            while (i < end && !isFinal(p[i]))
                ++i;
            if (i < end) {
                s = State::normal;
                ++i;
            }
            break;
        case State::string:
            i = skipToEscOrBel(p, i, end);
            if (i < end) {
                s = p[i] == BEL ? State::normal : State::stringEscape; // a terminating BEL is no bell
                ++i;
            }
            break;
        case State::stringEscape: {
            std::uint8_t b = p[i++];
            if (isStringIntroducer(b))
                s = State::string; // a new string starts at once
            else if (b == '[')
                s = State::csi;
            else
                s = State::normal; // ST ("ESC \") and anything else
            break;
        }
        }
    }
    state = s;
    return result;
}

} // namespace OstrelCore
