// The scanner's state machine, with word-at-a-time skips over runs that can't change the result.
#include "OstrelCore/TerminalOutputScanner.h"

#include <cstring>

namespace OstrelCore {
namespace {

constexpr std::uint8_t BEL = 0x07;
constexpr std::uint8_t ESC = 0x1B;

constexpr bool isStringIntroducer(std::uint8_t b) {
    return b == 'P' || b == 'X' || b == ']' || b == '^' || b == '_'; // DCS, SOS, OSC, PM, APC
}

constexpr std::uint64_t broadcast(std::uint8_t b) {
    return 0x0101010101010101ULL * b;
}

// Non-zero when some byte of `word` is zero.
constexpr std::uint64_t hasZeroByte(std::uint64_t word) {
    return (word - 0x0101010101010101ULL) & ~word & 0x8080808080808080ULL;
}

// First position at or after `i` holding ESC or BEL, or `end`. Once the printable flag is set in
// `normal`, and inside strings, only these two bytes can change anything.
std::size_t skipToEscOrBel(const unsigned char* p, std::size_t i, std::size_t end) {
    constexpr std::uint64_t escs = broadcast(ESC), bels = broadcast(BEL);
    for (; i + 8 <= end; i += 8) {
        std::uint64_t word;
        std::memcpy(&word, p + i, 8);
        if (hasZeroByte(word ^ escs) | hasZeroByte(word ^ bels)) break;
    }
    while (i < end && p[i] != ESC && p[i] != BEL)
        ++i;
    return i;
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
                i = result.bell ? skipToEsc(p, i, end) : skipToEscOrBel(p, i, end);
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
            while (i < end && (p[i] < 0x40 || p[i] > 0x7E))
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
