// How the bytes read from a transcript become lines. The readers see only the newest window of a
// file, so the first line is usually a fragment; the readers drop it because it doesn't decode.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace OstrelCore::TranscriptTail {

// Bytes read from the end of a transcript at each poll, for all three agents.
inline constexpr std::size_t windowBytes = 120000;

// Lines of a tail: the bytes must be valid UTF-8 as a whole, or there are no lines at all for this
// read (a window that starts inside a character is not repaired; the next poll reads again).
// Split at each "\n"; the views point into `bytes`.
std::optional<std::vector<std::string_view>> lines(std::string_view bytes);

// Lines of a file's head, read in blocks: a character cut by the end of the block is dropped
// before the strict check, so that a long first record doesn't hide the whole head.
std::optional<std::vector<std::string_view>> headLines(std::string_view bytes);

} // namespace OstrelCore::TranscriptTail
