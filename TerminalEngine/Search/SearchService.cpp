// The walk over the buffer's lines for find next and find previous.
#include "TerminalEngine/Search/SearchService.h"

#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>

namespace TerminalEngine {

SearchService::SearchService(Terminal& terminal, SelectionService* selection, SearchLineCache::Clock clock)
    : terminal(terminal)
    , lineCache(terminal, std::move(clock))
    , engine(terminal, lineCache)
    , selection(selection) {}

bool SearchService::findNext(std::string_view term, SearchOptions options, bool scrollToResult) {
    return find(term, options, scrollToResult, true);
}

bool SearchService::findPrevious(std::string_view term, SearchOptions options, bool scrollToResult) {
    return find(term, options, scrollToResult, false);
}

void SearchService::clearSearch() {
    lastSelection.reset();
    lastResult.reset();
    state = {};
    prepared_ = false;
}

int SearchService::lineStart(int row) const {
    const auto& lines = terminal.buffer->lines;
    while (row > 0 && lines[row].isWrapped)
        --row;
    return row;
}

bool SearchService::find(std::string_view term, SearchOptions options, bool scrollToResult, bool forward) {
    if (term.empty()) {
        clearSearch();
        return false;
    }
    if (state.cachedSearchTerm != term || state.lastSearchOptions != options) {
        state = {std::string(term), options};
        lastResult.reset();
        prepared_ = false;
    }
    if (!prepared_) {
        if (!engine.prepare(term, options)) return false;
        prepared_ = true;
    }
    lineCache.touch();

    // A repeated search moves on from its last hit; a new one starts at the selection, so that
    // refining the term keeps the place.
    std::optional<Position> anchor;
    bool inclusive = false;
    if (lastResult) {
        anchor = Position{lastResult->col, lastResult->row};
    } else if (auto range = selection ? selection->selectedRange() : std::nullopt) {
        anchor = range->start;
        inclusive = true;
    } else if (lastSelection) {
        anchor = lastSelection->start;
        inclusive = true;
    }
    auto hit = scan(forward, anchor, inclusive);
    if (!hit) return false;

    lastResult = SearchResult{std::string(term), hit->start.col, hit->start.row, hit->size};
    lastSelection = SelectionService::Range{hit->start, hit->end};
    if (selection) selection->setSelection(hit->start, hit->end);
    if (scrollToResult) {
        Buffer& b = *terminal.buffer;
        if (hit->start.row < b.yDisp || hit->start.row >= b.yDisp + terminal.rows)
            terminal.scrollDisplayTo(hit->start.row - terminal.rows / 2);
    }
    return true;
}

std::optional<SearchEngine::Hit> SearchService::scan(bool forward, std::optional<Position> anchor,
                                                     bool inclusive) {
    const int count = terminal.buffer->lines.count();
    if (count == 0) return std::nullopt;
    std::optional<SearchEngine::Hit> found;
    auto first = [&](int row, auto&& accept) {
        engine.forEachMatch(row, [&](const SearchEngine::Hit& hit) {
            if (!accept(hit)) return true;
            found = hit;
            return false;
        });
        return found.has_value();
    };
    auto last = [&](int row, auto&& accept) {
        engine.forEachMatch(row, [&](const SearchEngine::Hit& hit) {
            if (accept(hit)) found = hit;
            return true;
        });
        return found.has_value();
    };
    auto any = [](const SearchEngine::Hit&) { return true; };

    if (!anchor) {
        if (forward) {
            for (int row = 0; row < count; ++row)
                if (first(row, any)) return found;
        } else {
            for (int row = count - 1; row >= 0; --row)
                if (last(row, any)) return found;
        }
        return std::nullopt;
    }

    const Position a = *anchor;
    const int home = lineStart(std::clamp(a.row, 0, count - 1));
    if (forward) {
        if (first(home, [&](const SearchEngine::Hit& h) { return inclusive ? a <= h.start : a < h.start; }))
            return found;
        for (int row = home + 1; row < count; ++row)
            if (first(row, any)) return found;
        for (int row = 0; row < home; ++row)
            if (first(row, any)) return found;
        // Round the buffer and back into the line the search started in.
        if (first(home, any)) return found;
    } else {
        if (last(home, [&](const SearchEngine::Hit& h) { return inclusive ? h.start <= a : h.start < a; }))
            return found;
        for (int row = home - 1; row >= 0; --row)
            if (last(row, any)) return found;
        for (int row = count - 1; row > home; --row)
            if (last(row, any)) return found;
        if (last(home, any)) return found;
    }
    return std::nullopt;
}

} // namespace TerminalEngine
