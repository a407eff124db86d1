// Matching in one cached line, and the way back from string offsets to cells.
#include "TerminalEngine/Search/SearchEngine.h"

#include "TerminalEngine/Model/UnicodeUtil.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>

namespace TerminalEngine {
namespace {

std::size_t utf8Length(unsigned char lead) {
    return static_cast<std::size_t>(UnicodeUtil::characterLength(lead));
}

// Start of the character before `at`.
std::size_t previousCharacter(std::string_view text, std::size_t at) {
    std::size_t i = at - 1;
    while (i > 0 && (static_cast<unsigned char>(text[i]) & 0xC0) == 0x80)
        --i;
    return i;
}

} // namespace

SearchEngine::SearchEngine(Terminal& terminal, SearchLineCache& lineCache)
    : terminal(terminal)
    , lineCache(lineCache) {}

bool SearchEngine::prepare(std::string_view term, SearchOptions options) {
    error.reset();
    regex_.reset();
    term_ = term;
    options_ = options;
    if (term.empty()) return false;
    if (options.regex) {
        std::string message;
        regex_ = Regex::compile(term, {.caseless = !options.caseSensitive}, &message);
        if (!regex_) {
            error = message;
            return false;
        }
    } else if (!options.caseSensitive) {
        foldedTerm_ = SearchLineCache::foldText(term);
    }
    return true;
}

bool SearchEngine::isWordBoundary(std::string_view text, std::size_t start, std::size_t end) const {
    auto outside = [&](std::size_t at) {
        std::size_t n = std::min(utf8Length(static_cast<unsigned char>(text[at])), text.size() - at);
        std::string_view c = text.substr(at, n);
        return c.size() == 1 && nonWordCharacters.find(c[0]) != std::string_view::npos;
    };
    if (start > 0 && !outside(previousCharacter(text, start))) return false;
    if (end < text.size() && !outside(end)) return false;
    return true;
}

SearchLineCache::Line* SearchEngine::beginLine(int row) {
    if (term_.empty() || (options_.regex && !regex_)) return nullptr;
    SearchLineCache::Line* line = lineCache.line(row);
    if (line == nullptr || line->lineAsString.empty()) return nullptr;
    if (!options_.regex && !options_.caseSensitive) lineCache.fold(*line);
    return line;
}

std::optional<SearchEngine::Hit> SearchEngine::nextMatch(SearchLineCache::Line& line, int row,
                                                         std::size_t& from) {
    std::string_view text = line.lineAsString;
    const bool folded = !options_.regex && !options_.caseSensitive;
    std::string_view haystack = folded ? line.folded : text;
    std::string_view needle = folded ? std::string_view(foldedTerm_) : std::string_view(term_);

    while (from <= haystack.size()) {
        std::size_t start, end;
        if (regex_) {
            auto m = regex_->find(haystack, from);
            if (!m) break;
            start = m->start;
            end = m->end;
            if (end == start) {
                // An empty match selects nothing; look again one character on.
                if (start >= haystack.size()) break;
                from = start + utf8Length(static_cast<unsigned char>(haystack[start]));
                continue;
            }
        } else {
            start = haystack.find(needle, from);
            if (start == std::string_view::npos) break;
            end = start + needle.size();
        }
        // Back from the folded copy to the text as shown: whole characters of the original.
        std::size_t originalStart = start, originalEnd = end;
        if (folded && !line.foldedToOriginal.empty()) {
            originalStart = line.foldedToOriginal[start];
            std::size_t lastByte = line.foldedToOriginal[end - 1];
            originalEnd = lastByte + utf8Length(static_cast<unsigned char>(text[lastByte]));
        }
        from = start + utf8Length(static_cast<unsigned char>(haystack[start]));
        if (options_.wholeWord && !isWordBoundary(text, originalStart, originalEnd)) continue;
        // Matches do not overlap: the next one starts after this one.
        from = std::max(from, end);
        SearchLineCache::CharOffset first = line.cellAt(originalStart);
        SearchLineCache::CharOffset after = line.cellAt(originalEnd);
        return Hit{{first.col, row + first.row},
                   {after.col, row + after.row},
                   line.cellsBetween(originalStart, originalEnd)};
    }
    from = haystack.size() + 1;
    return std::nullopt;
}

} // namespace TerminalEngine
