// Shared by the fuzz targets: the input as text and as lines, as the readers receive them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace OstrelFuzz {

inline std::string_view text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// Split at "\n" without checking the encoding: the readers must cope with any bytes.
inline std::vector<std::string_view> lines(std::string_view text) {
    std::vector<std::string_view> out;
    std::size_t start = 0;
    for (std::size_t at = text.find('\n'); at != std::string_view::npos; at = text.find('\n', start)) {
        out.push_back(text.substr(start, at - start));
        start = at + 1;
    }
    out.push_back(text.substr(start));
    return out;
}

} // namespace OstrelFuzz
