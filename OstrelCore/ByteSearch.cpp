// Two-byte filtered literal search: AVX2 where the processor has it, SSE2 otherwise on x86-64,
// one position at a time elsewhere and for the last bytes of a text.
#include "OstrelCore/ByteSearch.h"

#include <algorithm>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#define OSTREL_BYTESEARCH_X86 1
#endif

namespace OstrelCore::ByteSearch {
namespace {

using Probe = MarkerSet::Probe;

// Rough frequency of bytes in JSON transcripts (prose, code, keys): higher is more common. The
// filter probes the two least common bytes of a needle, so that few positions need verifying.
constexpr std::array<std::uint8_t, 256> byteFrequency = [] {
    std::array<std::uint8_t, 256> f{};
    for (auto& v : f)
        v = 40;
    for (int c = 'A'; c <= 'Z'; ++c)
        f[static_cast<std::size_t>(c)] = 90;
    for (int c = '0'; c <= '9'; ++c)
        f[static_cast<std::size_t>(c)] = 150;
    constexpr std::pair<char, std::uint8_t> common[] = {
        {'"', 255}, {' ', 250}, {'e', 245}, {'t', 240},  {'a', 235}, {'o', 230}, {'i', 228}, {'n', 226},
        {'s', 224}, {'r', 222}, {'l', 215}, {'c', 210},  {'d', 208}, {'u', 205}, {'h', 200}, {'m', 198},
        {'p', 195}, {':', 190}, {',', 190}, {'\\', 185}, {'f', 180}, {'g', 178}, {'.', 175}, {'y', 170},
        {'b', 168}, {'w', 165}, {'v', 150}, {'-', 150},  {'/', 140}, {'k', 140}, {'_', 130}, {'{', 120},
        {'}', 120}, {'x', 100}, {'j', 80},  {'q', 70},   {'z', 70},  {'\n', 60},
    };
    for (auto [c, v] : common)
        f[static_cast<unsigned char>(c)] = v;
    return f;
}();

// The two rarest bytes among the first `span` bytes of the needle; for a one-byte needle both
// probe the same byte.
Probe probeFor(std::string_view needle, std::size_t span) {
    span = std::clamp<std::size_t>(span, 1, needle.size());
    auto rank = [&](std::size_t i) { return byteFrequency[static_cast<unsigned char>(needle[i])]; };
    std::size_t a = 0;
    for (std::size_t i = 1; i < span; ++i)
        if (rank(i) < rank(a)) a = i;
    std::size_t b = a == 0 ? std::min<std::size_t>(1, span - 1) : 0;
    for (std::size_t i = 0; i < span; ++i)
        if (i != a && rank(i) < rank(b)) b = i;
    return {static_cast<std::uint8_t>(needle[a]), static_cast<std::uint8_t>(needle[b]),
            static_cast<std::uint8_t>(a), static_cast<std::uint8_t>(b), 0};
}

bool matchesAt(std::string_view haystack, std::size_t at, std::string_view needle) {
    return at + needle.size() <= haystack.size() &&
           std::memcmp(haystack.data() + at, needle.data(), needle.size()) == 0;
}

// Verifies the candidates of one probe's mask against its member markers still wanted.
[[gnu::noinline]] void verify(std::uint32_t mask, std::size_t at, std::string_view text, const Probe& probe,
                              const std::string_view* markers, std::uint32_t& remaining,
                              std::uint32_t& found) {
    for (; mask != 0; mask &= mask - 1) {
        std::size_t start = at + static_cast<std::size_t>(__builtin_ctz(mask));
        for (std::uint32_t m = probe.members & remaining; m != 0; m &= m - 1) {
            auto i = static_cast<std::size_t>(__builtin_ctz(m));
            if (matchesAt(text, start, markers[i])) {
                found |= 1u << i;
                remaining &= ~(1u << i);
            }
        }
        if ((probe.members & remaining) == 0) return;
    }
}

#if defined(OSTREL_BYTESEARCH_X86)

bool hasAVX2() {
    static const bool available = __builtin_cpu_supports("avx2");
    return available;
}

inline std::uint32_t mask16(const char* at, const Probe& p) {
    __m128i a = _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(at + p.atA)),
                               _mm_set1_epi8(static_cast<char>(p.byteA)));
    __m128i b = _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(at + p.atB)),
                               _mm_set1_epi8(static_cast<char>(p.byteB)));
    return static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_and_si128(a, b)));
}

__attribute__((target("avx2"))) inline std::uint32_t mask32(const char* at, const Probe& p) {
    __m256i a = _mm256_cmpeq_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + p.atA)),
                                  _mm256_set1_epi8(static_cast<char>(p.byteA)));
    __m256i b = _mm256_cmpeq_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + p.atB)),
                                  _mm256_set1_epi8(static_cast<char>(p.byteB)));
    return static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_and_si256(a, b)));
}

// Each kernel scans whole blocks from `at` and leaves `at` at the first position it didn't scan.
__attribute__((target("avx2"))) std::size_t find32(std::string_view h, std::string_view needle,
                                                   const Probe& p, std::size_t& at) {
    const std::size_t reach = std::max(p.atA, p.atB) + 32u;
    for (; at + reach <= h.size(); at += 32)
        for (auto mask = mask32(h.data() + at, p); mask != 0; mask &= mask - 1)
            if (std::size_t start = at + static_cast<std::size_t>(__builtin_ctz(mask));
                matchesAt(h, start, needle))
                return start;
    return npos;
}

std::size_t find16(std::string_view h, std::string_view needle, const Probe& p, std::size_t& at) {
    const std::size_t reach = std::max(p.atA, p.atB) + 16u;
    for (; at + reach <= h.size(); at += 16)
        for (auto mask = mask16(h.data() + at, p); mask != 0; mask &= mask - 1)
            if (std::size_t start = at + static_cast<std::size_t>(__builtin_ctz(mask));
                matchesAt(h, start, needle))
                return start;
    return npos;
}

// The marker kernels keep each active probe's broadcast bytes in registers for the whole line.
__attribute__((target("avx2"))) void scan32(std::string_view text, const Probe* probes,
                                            std::size_t probeCount, std::size_t reach,
                                            const std::string_view* markers, std::uint32_t& remaining,
                                            std::uint32_t& found, std::size_t& at) {
    __m256i a[MarkerSet::maxMarkers], b[MarkerSet::maxMarkers];
    for (std::size_t k = 0; k < probeCount; ++k) {
        a[k] = _mm256_set1_epi8(static_cast<char>(probes[k].byteA));
        b[k] = _mm256_set1_epi8(static_cast<char>(probes[k].byteB));
    }
    const char* base = text.data();
    for (; remaining != 0 && at + reach + 16 <= text.size(); at += 32) {
        for (std::size_t k = 0; k < probeCount; ++k) {
            const Probe& p = probes[k];
            if ((p.members & remaining) == 0) continue;
            __m256i hitA = _mm256_cmpeq_epi8(
                _mm256_loadu_si256(reinterpret_cast<const __m256i*>(base + at + p.atA)), a[k]);
            __m256i hitB = _mm256_cmpeq_epi8(
                _mm256_loadu_si256(reinterpret_cast<const __m256i*>(base + at + p.atB)), b[k]);
            if (auto mask = static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_and_si256(hitA, hitB))))
                verify(mask, at, text, p, markers, remaining, found);
        }
    }
}

__attribute__((target("avx2"))) inline __m256i nibbleTable(const std::array<std::uint8_t, 16>& entries) {
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(entries.data())));
}

// Which markers' windows may hold, at their position k, each of the 32 bytes from `at`.
__attribute__((target("avx2"))) inline __m256i classify(const char* at, __m256i low, __m256i high) {
    const __m256i nibble = _mm256_set1_epi8(0x0F);
    const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
    const __m256i lo = _mm256_and_si256(bytes, nibble);
    const __m256i hi = _mm256_and_si256(_mm256_srli_epi16(bytes, 4), nibble);
    return _mm256_and_si256(_mm256_shuffle_epi8(low, lo), _mm256_shuffle_epi8(high, hi));
}

// The fingerprint pass: three loads, six table look-ups and a few masks per 32 positions, however
// many markers are wanted. Leaves `at` at the first window start it didn't test.
__attribute__((target("avx2"))) void scanFingerprints(std::string_view text, const MarkerSet::Fingerprints& f,
                                                      const std::string_view* markers,
                                                      std::uint32_t& remaining, std::uint32_t& found,
                                                      std::size_t& at) {
    const __m256i low0 = nibbleTable(f.low[0]), low1 = nibbleTable(f.low[1]), low2 = nibbleTable(f.low[2]);
    const __m256i high0 = nibbleTable(f.high[0]), high1 = nibbleTable(f.high[1]),
                  high2 = nibbleTable(f.high[2]);
    const __m256i zero = _mm256_setzero_si256();
    const char* base = text.data();
    for (; remaining != 0 && at + 34 <= text.size(); at += 32) {
        __m256i hits =
            _mm256_and_si256(classify(base + at, low0, high0), classify(base + at + 1, low1, high1));
        hits = _mm256_and_si256(hits, classify(base + at + 2, low2, high2));
        hits = _mm256_and_si256(hits, _mm256_set1_epi8(static_cast<char>(remaining)));
        auto mask = ~static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(hits, zero)));
        if (mask == 0) continue;
        alignas(32) std::uint8_t buckets[32];
        _mm256_store_si256(reinterpret_cast<__m256i*>(buckets), hits);
        for (; mask != 0; mask &= mask - 1) {
            const auto j = static_cast<std::size_t>(__builtin_ctz(mask));
            for (std::uint32_t m = buckets[j] & remaining; m != 0; m &= m - 1) {
                const auto i = static_cast<std::size_t>(__builtin_ctz(m));
                if (at + j < f.offset[i]) continue;
                if (matchesAt(text, at + j - f.offset[i], markers[i])) {
                    found |= 1u << i;
                    remaining &= ~(1u << i);
                }
            }
        }
    }
}

// Scans the blocks that start before `end`; the caller makes sure that every load stays inside
// readable memory, which for the padded tail copy reaches past the text's own end.
void scan16(std::string_view text, const Probe* probes, std::size_t probeCount,
            const std::string_view* markers, std::uint32_t& remaining, std::uint32_t& found, std::size_t& at,
            std::size_t end) {
    __m128i a[MarkerSet::maxMarkers], b[MarkerSet::maxMarkers];
    for (std::size_t k = 0; k < probeCount; ++k) {
        a[k] = _mm_set1_epi8(static_cast<char>(probes[k].byteA));
        b[k] = _mm_set1_epi8(static_cast<char>(probes[k].byteB));
    }
    const char* base = text.data();
    for (; remaining != 0 && at < end; at += 16) {
        for (std::size_t k = 0; k < probeCount; ++k) {
            const Probe& p = probes[k];
            if ((p.members & remaining) == 0) continue;
            __m128i hitA =
                _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(base + at + p.atA)), a[k]);
            __m128i hitB =
                _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(base + at + p.atB)), b[k]);
            if (auto mask = static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_and_si128(hitA, hitB))))
                verify(mask, at, text, p, markers, remaining, found);
        }
    }
}

#endif

// The last positions of a text, too close to its end for a full block.
std::size_t findTail(std::string_view h, std::string_view needle, const Probe& p, std::size_t at) {
    const std::size_t far = std::max(p.atA, p.atB);
    for (; at + far < h.size(); ++at)
        if (static_cast<std::uint8_t>(h[at + p.atA]) == p.byteA &&
            static_cast<std::uint8_t>(h[at + p.atB]) == p.byteB && matchesAt(h, at, needle))
            return at;
    return npos;
}

#if !defined(OSTREL_BYTESEARCH_X86)
void scanTail(std::string_view text, const Probe* probes, std::size_t probeCount,
              const std::string_view* markers, std::uint32_t& remaining, std::uint32_t& found,
              std::size_t at) {
    for (; remaining != 0 && at < text.size(); ++at) {
        for (std::size_t k = 0; k < probeCount; ++k) {
            const Probe& p = probes[k];
            if ((p.members & remaining) == 0 || at + std::max(p.atA, p.atB) >= text.size()) continue;
            if (static_cast<std::uint8_t>(text[at + p.atA]) == p.byteA &&
                static_cast<std::uint8_t>(text[at + p.atB]) == p.byteB)
                verify(1u, at, text, p, markers, remaining, found);
        }
    }
}
#endif

} // namespace

std::size_t find(std::string_view haystack, std::string_view needle, std::size_t from) {
    if (needle.empty()) return from <= haystack.size() ? from : npos;
    if (from >= haystack.size() || needle.size() > haystack.size() - from) return npos;
    if (needle.size() == 1) {
        const void* hit = std::memchr(haystack.data() + from, needle[0], haystack.size() - from);
        return hit ? static_cast<std::size_t>(static_cast<const char*>(hit) - haystack.data()) : npos;
    }
    std::size_t at = from;
    const Probe probe = probeFor(needle, needle.size());
#if defined(OSTREL_BYTESEARCH_X86)
    if (hasAVX2())
        if (std::size_t hit = find32(haystack, needle, probe, at); hit != npos) return hit;
    if (std::size_t hit = find16(haystack, needle, probe, at); hit != npos) return hit;
#endif
    return findTail(haystack, needle, probe, at);
}

MarkerSet::MarkerSet(const std::string_view* markers, std::size_t count) {
    count_ = std::min(count, maxMarkers);
    for (std::size_t i = 0; i < count_; ++i)
        markers_[i] = markers[i].substr(0, 64);
    for (std::size_t i = 0; i < count_; ++i) {
        std::string_view m = markers_[i];
        if (m.empty()) continue;
        // Probe within the shortest prefix (of 4 bytes or more) shared with other markers, so that
        // a family such as "type":"... uses one probe for all its members.
        std::size_t shared = m.size();
        for (std::size_t j = 0; j < count_; ++j) {
            if (j == i) continue;
            std::string_view other = markers_[j];
            std::size_t n = 0;
            while (n < m.size() && n < other.size() && m[n] == other[n])
                ++n;
            if (n >= 4) shared = std::min(shared, n);
        }
        Probe probe = probeFor(m, shared);
        auto same = std::find_if(probes_.begin(), probes_.begin() + static_cast<std::ptrdiff_t>(probeCount_),
                                 [&](const Probe& p) {
                                     return p.byteA == probe.byteA && p.byteB == probe.byteB &&
                                            p.atA == probe.atA && p.atB == probe.atB;
                                 });
        if (same == probes_.begin() + static_cast<std::ptrdiff_t>(probeCount_)) {
            probes_[probeCount_++] = probe;
            same = probes_.begin() + static_cast<std::ptrdiff_t>(probeCount_ - 1);
        }
        same->members |= 1u << i;
        reach_ = std::max<std::size_t>(reach_, std::max(probe.atA, probe.atB) + 16u);
    }
    buildFingerprints();
}

void MarkerSet::buildFingerprints() {
    for (std::size_t i = 0; i < count_; ++i) {
        const std::string_view m = markers_[i];
        const auto bit = static_cast<std::uint8_t>(1u << i);
        // The window of three bytes (or the whole of a shorter marker) with the rarest bytes.
        const std::size_t width = std::min<std::size_t>(3, m.size());
        std::size_t best = 0, bestRank = SIZE_MAX;
        for (std::size_t at = 0; at + width <= m.size(); ++at) {
            std::size_t rank = 0;
            for (std::size_t k = 0; k < width; ++k)
                rank += byteFrequency[static_cast<unsigned char>(m[at + k])];
            if (rank < bestRank) {
                best = at;
                bestRank = rank;
            }
        }
        fingerprints_.offset[i] = static_cast<std::uint8_t>(best);
        fingerprints_.maxOffset = std::max(fingerprints_.maxOffset, best);
        for (std::size_t k = 0; k < 3; ++k) {
            if (k < width) {
                const auto byte = static_cast<unsigned char>(m[best + k]);
                fingerprints_.low[k][byte & 0x0F] |= bit;
                fingerprints_.high[k][byte >> 4] |= bit;
            } else {
                // Past a short marker's end any byte will do.
                for (std::size_t n = 0; n < 16; ++n) {
                    fingerprints_.low[k][n] |= bit;
                    fingerprints_.high[k][n] |= bit;
                }
            }
        }
    }
}

std::uint32_t MarkerSet::scan(std::string_view text, std::uint32_t wanted) const {
    std::uint32_t remaining = wanted & ((1u << count_) - 1u);
    std::uint32_t found = 0;
    for (std::size_t i = 0; i < count_; ++i) {
        if ((remaining >> i & 1u) && markers_[i].empty()) {
            found |= 1u << i;
            remaining &= ~(1u << i);
        }
    }
    std::size_t at = 0;
#if defined(OSTREL_BYTESEARCH_X86)
    if (hasAVX2()) {
        std::size_t window = 0;
        scanFingerprints(text, fingerprints_, markers_.data(), remaining, found, window);
        // Every marker that begins before this was seen through its window.
        at = window > fingerprints_.maxOffset ? window - fingerprints_.maxOffset : 0;
        scan32(text, probes_.data(), probeCount_, reach_, markers_.data(), remaining, found, at);
    }
    if (text.size() >= reach_)
        scan16(text, probes_.data(), probeCount_, markers_.data(), remaining, found, at,
               text.size() - reach_ + 1);
    if (remaining != 0 && at < text.size()) {
        // The last bytes, copied behind zero padding so that the same kernel can read past them.
        char padded[224] = {};
        std::size_t rest = text.size() - at;
        std::memcpy(padded, text.data() + at, rest);
        std::size_t offset = 0;
        scan16(std::string_view(padded, rest), probes_.data(), probeCount_, markers_.data(), remaining, found,
               offset, rest);
    }
#else
    scanTail(text, probes_.data(), probeCount_, markers_.data(), remaining, found, at);
#endif
    return found;
}

} // namespace OstrelCore::ByteSearch
