// Finds a term in the lines of the buffer: plain text or a regular expression, ignoring case
// unless asked not to, optionally only as a whole word. Matches run across soft wraps; their
// positions and sizes are in cells.
#pragma once

#include "TerminalEngine/Model/Position.h"
#include "TerminalEngine/Search/Regex.h"
#include "TerminalEngine/Search/SearchLineCache.h"
#include "TerminalEngine/Search/SearchTypes.h"

#include <optional>
#include <string>
#include <string_view>

namespace TerminalEngine {

class Terminal;

class SearchEngine {
public:
    // One match: its first cell, the cell after its last, and its size in cells.
    struct Hit {
        Position start;
        Position end;
        int size = 0;
        bool operator==(const Hit&) const = default;
    };

    SearchEngine(Terminal& terminal, SearchLineCache& lineCache);

    // Readies a search; false for an empty term or an expression that does not compile, whose
    // reason is then in `error`.
    bool prepare(std::string_view term, SearchOptions options);
    // Calls `visit` with each match of the line that starts at `row`, left to right, until it
    // returns false. Nothing for a row that continues a line.
    template <typename Visit>
    void forEachMatch(int row, Visit&& visit) {
        SearchLineCache::Line* line = beginLine(row);
        if (line == nullptr) return;
        std::size_t from = 0;
        while (auto hit = nextMatch(*line, row, from))
            if (!visit(*hit)) return;
    }

    Terminal& terminal;
    SearchLineCache& lineCache;
    // Characters that may stand beside a whole-word match (with the start or end of the line).
    static constexpr std::string_view nonWordCharacters = " ~!@#$%^&*()+`-=[]{}|\\;:\"',./<>?";
    std::optional<std::string> error;

private:
    SearchLineCache::Line* beginLine(int row);
    // The next match at or after `from` (a byte of the searched text), which moves past it.
    std::optional<Hit> nextMatch(SearchLineCache::Line& line, int row, std::size_t& from);
    bool isWordBoundary(std::string_view text, std::size_t start, std::size_t end) const;

    std::string term_;
    std::string foldedTerm_;
    SearchOptions options_;
    std::optional<Regex> regex_;
};

} // namespace TerminalEngine
