// The values a search of the scrollback takes and gives: its options, a result in buffer cells,
// and the state that tells a repeated search from a new one.
#pragma once

#include <optional>
#include <string>

namespace TerminalEngine {

struct SearchOptions {
    bool caseSensitive = false;
    bool regex = false;
    bool wholeWord = false;
    bool operator==(const SearchOptions&) const = default;
};

// Where a match starts (buffer column and row) and how many cells it covers, wide characters
// counting two.
struct SearchResult {
    std::string term;
    int col = 0;
    int row = 0;
    int size = 0;
    bool operator==(const SearchResult&) const = default;
};

struct SearchState {
    std::optional<std::string> cachedSearchTerm;
    std::optional<SearchOptions> lastSearchOptions;
    bool operator==(const SearchState&) const = default;
};

} // namespace TerminalEngine
