// Find next and find previous over the whole buffer, as a view's search field drives them: a
// repeated search moves on from the last hit, wrapping round the buffer once; a hit is selected
// and, when asked, scrolled into view.
#pragma once

#include "TerminalEngine/Search/SearchEngine.h"
#include "TerminalEngine/Search/SearchLineCache.h"
#include "TerminalEngine/Search/SearchTypes.h"
#include "TerminalEngine/Selection/SelectionService.h"

#include <optional>
#include <string_view>

namespace TerminalEngine {

class Terminal;

class SearchService {
public:
    // `selection`, when given, receives every hit as its selection, and a new search starts at
    // what it holds.
    explicit SearchService(Terminal& terminal, SelectionService* selection = nullptr,
                           SearchLineCache::Clock clock = {});

    bool findNext(std::string_view term, SearchOptions options = {}, bool scrollToResult = true);
    bool findPrevious(std::string_view term, SearchOptions options = {}, bool scrollToResult = true);
    void clearSearch();

    Terminal& terminal;
    SearchState state;
    SearchLineCache lineCache;
    SearchEngine engine;
    std::optional<SelectionService::Range> lastSelection; // the cells of the last hit
    std::optional<SearchResult> lastResult;
    SelectionService* selection;

private:
    bool find(std::string_view term, SearchOptions options, bool scrollToResult, bool forward);
    std::optional<SearchEngine::Hit> scan(bool forward, std::optional<Position> anchor, bool inclusive);
    int lineStart(int row) const;

    bool prepared_ = false;
};

} // namespace TerminalEngine
