// Strict decoding and splitting of transcript tails and heads.
#include "OstrelCore/TranscriptTail.h"

#include <cstdint>
#include <cstring>

namespace OstrelCore::TranscriptTail {
namespace {

std::vector<std::string_view> splitLines(std::string_view text) {
    std::vector<std::string_view> out;
    std::size_t start = 0;
    for (;;) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) {
            out.push_back(text.substr(start));
            return out;
        }
        out.push_back(text.substr(start, end - start));
        start = end + 1;
    }
}

// Strict UTF-8 (no overlong forms, no surrogates, nothing past U+10FFFF), with runs of ASCII
// skipped eight bytes at a time: a tail is mostly ASCII JSON and is checked on every poll.
bool isStrictUtf8(std::string_view text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        if (i + 8 <= n) {
            std::uint64_t word;
            std::memcpy(&word, p + i, 8);
            if ((word & 0x8080808080808080ULL) == 0) {
                i += 8;
                continue;
            }
        }
        unsigned char b = p[i];
        if (b < 0x80) {
            ++i;
            continue;
        }
        std::size_t length;
        unsigned char low = 0x80, high = 0xBF; // allowed range of the second byte
        if (b >= 0xC2 && b <= 0xDF) {
            length = 2;
        } else if (b >= 0xE0 && b <= 0xEF) {
            length = 3;
            if (b == 0xE0) low = 0xA0;  // overlong
            if (b == 0xED) high = 0x9F; // surrogates
        } else if (b >= 0xF0 && b <= 0xF4) {
            length = 4;
            if (b == 0xF0) low = 0x90;  // overlong
            if (b == 0xF4) high = 0x8F; // past U+10FFFF
        } else {
            return false;
        }
        if (i + length > n || p[i + 1] < low || p[i + 1] > high) return false;
        for (std::size_t k = 2; k < length; ++k)
            if ((p[i + k] & 0xC0) != 0x80) return false;
        i += length;
    }
    return true;
}

// Length of `bytes` without a multi-byte sequence that the end cuts short.
std::size_t withoutCutCharacter(std::string_view bytes) {
    std::size_t n = bytes.size();
    for (std::size_t back = 1; back <= 3 && back <= n; ++back) {
        auto b = static_cast<unsigned char>(bytes[n - back]);
        if ((b & 0xC0) == 0x80) continue; // continuation byte: keep looking for the lead
        std::size_t length = b >= 0xF0 ? 4 : b >= 0xE0 ? 3 : b >= 0xC0 ? 2 : 1;
        return length > back ? n - back : n;
    }
    return n;
}

} // namespace

std::optional<std::vector<std::string_view>> lines(std::string_view bytes) {
    if (!isStrictUtf8(bytes)) return std::nullopt;
    return splitLines(bytes);
}

std::optional<std::vector<std::string_view>> headLines(std::string_view bytes) {
    return lines(bytes.substr(0, withoutCutCharacter(bytes)));
}

} // namespace OstrelCore::TranscriptTail
