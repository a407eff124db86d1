// Fast literal search for the transcript readers' marker tests. JSON text is full of quotes and
// letters, which makes a plain first-byte search crawl; these searches filter on two rare bytes
// of the needle, 16 or 32 positions at a time, and verify the few candidates.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace OstrelCore::ByteSearch {

inline constexpr std::size_t npos = std::string_view::npos;

// Position of the first occurrence of `needle` at or after `from`, or npos. An empty needle is
// found at `from`.
std::size_t find(std::string_view haystack, std::string_view needle, std::size_t from = 0);

inline bool contains(std::string_view haystack, std::string_view needle) {
    return find(haystack, needle) != npos;
}

// Several literals tested in one pass over a line: `scan` returns the bit set of the wanted
// markers (bit i for marker i) that occur in the text. At most 8 markers of 1 to 64 bytes.
// Markers that share a prefix share one probe, so "type" markers cost one test together.
class MarkerSet {
public:
    static constexpr std::size_t maxMarkers = 8;

    // Two bytes of a marker at fixed offsets; a position where both match is a candidate.
    struct Probe {
        std::uint8_t byteA = 0, byteB = 0;
        std::uint8_t atA = 0, atB = 0;
        std::uint32_t members = 0; // markers that this probe finds candidates for
    };

    template <std::size_t N>
    explicit MarkerSet(const std::array<std::string_view, N>& markers)
        : MarkerSet(markers.data(), N) {}
    MarkerSet(const std::string_view* markers, std::size_t count);

    std::uint32_t scan(std::string_view text, std::uint32_t wanted) const;
    std::size_t size() const { return count_; }

    // With AVX2 the whole set is tested in one pass: each marker owns one bit of a byte, and
    // three nibble tables per byte position tell, for 32 positions at once, which markers a
    // window of three bytes could begin (one marker per bit, so a hit is exact on the window).
    struct Fingerprints {
        std::array<std::array<std::uint8_t, 16>, 3> low{}, high{};
        std::array<std::uint8_t, maxMarkers> offset{}; // where each marker's window begins
        std::size_t maxOffset = 0;
    };

private:
    std::array<std::string_view, maxMarkers> markers_{};
    Fingerprints fingerprints_;
    std::array<Probe, maxMarkers> probes_{};
    std::size_t count_ = 0;
    std::size_t probeCount_ = 0;
    std::size_t reach_ = 0; // bytes a probe reads past a candidate position, at most

    void buildFingerprints();
};

} // namespace OstrelCore::ByteSearch
