// Searching the buffer: plain and regular expressions, case folding, whole
// words, matches over soft wraps with sizes in cells, the walk round the buffer
// and the line cache's lifetime.
#include "TerminalEngine/Search/SearchService.h"

#include "TerminalHarness.h"

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

using testing::TerminalHarness;

struct FindCase {
    const char* name;
    int cols;
    const char* screen;
    const char* term;
    SearchOptions options;
    std::optional<SearchResult> expected; // term filled in by the test
};

const FindCase findCases[] = {
    {"PlainText", 20, "one\r\ntwo three", "three", {}, SearchResult{"", 4, 1, 5}},
    {"IgnoresCaseByDefault", 20, "Hello World", "WORLD", {}, SearchResult{"", 6, 0, 5}},
    {"CaseSensitiveMisses", 20, "Hello World", "WORLD", {.caseSensitive = true}, std::nullopt},
    {"MatchOverASoftWrap", 6, "abcdefghij", "efgh", {}, SearchResult{"", 4, 0, 4}},
    {"WideCharactersCountTwoCells", 6, "ab日本cd", "日本c", {}, SearchResult{"", 2, 0, 5}},
    {"WideCharacterWrapGapIsNoBlank", 5, "abcd日本", "d日", {}, SearchResult{"", 3, 0, 3}},
    {"AfterAWideCharacter", 20, "日 word", "word", {}, SearchResult{"", 3, 0, 4}},
    {"FoldsBeyondAscii", 20, "une École", "école", {}, SearchResult{"", 4, 0, 5}},
    {"FoldsSharpS", 20, "die Straße", "STRASSE", {}, SearchResult{"", 4, 0, 6}},
    {"WholeWordBesidePunctuation", 20, "food a foo.", "foo", {.wholeWord = true}, SearchResult{"", 7, 0, 3}},
    {"WholeWordRejectsPartOfAWord", 20, "food", "foo", {.wholeWord = true}, std::nullopt},
    {"UnderscoreIsPartOfAWord", 20, "my_foo foo", "foo", {.wholeWord = true}, SearchResult{"", 7, 0, 3}},
    {"RegularExpression", 20, "pid 4242 up", "\\d+", {.regex = true}, SearchResult{"", 4, 0, 4}},
    {"RegularExpressionIgnoresCase", 20, "Error: x", "^error", {.regex = true}, SearchResult{"", 0, 0, 5}},
    {"RegexWholeWord", 20, "ab1 ab", "ab\\d?", {.regex = true, .wholeWord = true}, SearchResult{"", 0, 0, 3}},
    {"EmptyMatchesAreSkipped", 20, "xyz", "q*", {.regex = true}, std::nullopt},
    {"InvalidExpressionFindsNothing", 20, "a(b", "a(", {.regex = true}, std::nullopt},
    {"PlainTextIsNotAnExpression", 20, "a(b", "a(", {}, SearchResult{"", 0, 0, 2}},
};

TEST(FirstMatch, IsFoundAtItsCells) {
    for (const FindCase& c : findCases) {
        SCOPED_TRACE(c.name);
        TerminalHarness h(c.cols, 6);
        h.feed(c.screen);
        SearchService search(*h.terminal);
        bool found = search.findNext(c.term, c.options);
        std::optional<SearchResult> expected = c.expected;
        if (expected) expected->term = c.term;
        EXPECT_EQ(found, expected.has_value());
        EXPECT_EQ(search.lastResult, expected);
    }
}

// Repeated finds walk on in their direction and wrap round, also to a lone
// match.
TEST(SearchService, RepeatedFindsWalkOnAndWrapRound) {
    struct Case {
        const char* text;
        const char* term;
        bool forward;
        std::vector<std::pair<int, int>> hits; // column, row
    } cases[] = {
        {"x foo\r\nfoo foo\r\nbar", "foo", true, {{2, 0}, {0, 1}, {4, 1}, {2, 0}}},
        {"foo\r\nfoo foo\r\nbar", "foo", false, {{4, 1}, {0, 1}, {0, 0}, {4, 1}}},
        {"only one", "one", true, {{5, 0}, {5, 0}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        TerminalHarness h(20, 5);
        h.feed(c.text);
        SearchService search(*h.terminal);
        std::vector<std::pair<int, int>> hits;
        for (std::size_t i = 0; i < c.hits.size(); ++i) {
            ASSERT_TRUE(c.forward ? search.findNext(c.term) : search.findPrevious(c.term));
            hits.emplace_back(search.lastResult->col, search.lastResult->row);
        }
        EXPECT_EQ(hits, c.hits);
    }
}

TEST(SearchService, NewTermStartsAtTheSelectionAndSelectsTheHit) {
    TerminalHarness h(20, 5);
    h.feed("abc\r\nabd\r\nabe");
    SelectionService selection(*h.terminal);
    SearchService search(*h.terminal, &selection);
    selection.setSelection({0, 1}, {2, 1});
    ASSERT_TRUE(search.findNext("ab"));
    EXPECT_EQ(search.lastResult->row, 1);
    ASSERT_TRUE(search.findNext("abe"));
    EXPECT_EQ(search.lastResult->row, 2);
    EXPECT_EQ(selection.getSelectedText(), "abe");
}

TEST(SearchService, EmptyTermClearsEverything) {
    TerminalHarness h(20, 3);
    h.feed("abc");
    SearchService search(*h.terminal);
    ASSERT_TRUE(search.findNext("b"));
    EXPECT_FALSE(search.findNext(""));
    EXPECT_EQ(search.lastResult, std::nullopt);
    EXPECT_EQ(search.lastSelection, std::nullopt);
    EXPECT_EQ(search.state, SearchState{});
}

TEST(SearchService, HitInTheScrollbackIsScrolledIntoView) {
    TerminalOptions options;
    options.scrollback = 100;
    TerminalHarness h(20, 4, options);
    h.feed("needle\r\n");
    for (int i = 0; i < 30; ++i)
        h.feed("filler\r\n");
    SearchService search(*h.terminal);
    ASSERT_TRUE(search.findNext("needle", {}, true));
    EXPECT_EQ(search.lastResult->row, 0);
    EXPECT_EQ(h.terminal->buffer->yDisp, 0);
    EXPECT_TRUE(h.terminal->userScrolling);
}

TEST(SearchLineCache, IsDroppedAfterFifteenIdleSecondsAndRebuilt) {
    TerminalHarness h(20, 3);
    h.feed("abc target");
    double now = 1000;
    SearchService search(*h.terminal, nullptr, [&] { return now; });
    ASSERT_TRUE(search.findNext("target"));
    ASSERT_TRUE(search.lineCache.linesCache && (*search.lineCache.linesCache)[0]);
    now += 14.9;
    search.lineCache.touch();
    EXPECT_TRUE((*search.lineCache.linesCache)[0]);
    now += 16;
    search.lineCache.touch();
    EXPECT_FALSE((*search.lineCache.linesCache)[0]);
    search.clearSearch();
    ASSERT_TRUE(search.findNext("target"));
    EXPECT_EQ(search.lastResult->col, 4);
}

TEST(SearchLineCache, ScreenRowsRewrittenInPlaceAreReadAgain) {
    TerminalOptions options;
    options.scrollback = 50;
    TerminalHarness h(20, 3, options);
    for (int i = 0; i < 10; ++i)
        h.feed("history " + std::to_string(i) + "\r\n");
    h.feed("alpha");
    SearchService search(*h.terminal, nullptr, [] { return 0.0; });
    ASSERT_TRUE(search.findNext("alpha"));
    ASSERT_TRUE(search.findNext("history 3"));
    // Nothing scrolls: only the cells of a screen row change.
    h.feed("\x1b[3;1H\x1b[2Kbravo");
    EXPECT_FALSE(search.findNext("alpha"));
    ASSERT_TRUE(search.findNext("bravo"));
    EXPECT_EQ(search.lastResult->row, h.terminal->buffer->yBase + 2);
    // A line that now wraps on into the next row is read as one.
    h.feed("\x1b[2;1H\x1b[2Kabcdefghijklmnopqrstuvwxyz");
    ASSERT_TRUE(search.findNext("stuv"));
    EXPECT_EQ(search.lastResult->row, h.terminal->buffer->yBase + 1);
    EXPECT_EQ(search.lastResult->col, 18);
    EXPECT_FALSE(search.findNext("bravo"));
}

TEST(SearchLineCache, LinesRewrittenUnderAFullRingAreNotReadStale) {
    TerminalOptions options;
    options.scrollback = 5;
    TerminalHarness h(20, 3, options);
    for (int i = 0; i < 20; ++i)
        h.feed("old " + std::to_string(i) + "\r\n");
    SearchService search(*h.terminal, nullptr, [] { return 0.0; });
    ASSERT_FALSE(search.findNext("fresh"));
    int count = h.terminal->buffer->lines.count();
    h.feed("fresh line\r\n");
    ASSERT_EQ(h.terminal->buffer->lines.count(),
              count); // same length, different lines
    EXPECT_TRUE(search.findNext("fresh"));
}

} // namespace
} // namespace TerminalEngine
