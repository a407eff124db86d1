// The link under a position: OSC 8 links over wrapped rows, URLs and paths recognised in the
// text, joined where a program hard-wrapped them at the edge, and prose left alone.
#include "TerminalHarness.h"

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

using testing::TerminalHarness;
using Mode = LinkLookupMode;

std::optional<std::string> linkAt(TerminalHarness& h, int col, int row) {
    return h.terminal->link(LinkLookupLocation::buffer({col, row}), Mode::explicitAndImplicit);
}

struct ImplicitCase {
    const char* name;
    int cols;
    const char* screen;
    Position at;
    std::optional<std::string> link;
};

const ImplicitCase implicitCases[] = {
    {"UrlEndsBeforeAComma", 30, "https://x.io/a, then", {3, 0}, "https://x.io/a"},
    {"UrlKeepsBalancedBrackets", 40, "see https://w.org/wiki/A_(b) now", {8, 0}, "https://w.org/wiki/A_(b)"},
    {"PathInsideBracketsLeavesThemOut", 30, "(see /tmp/a.txt)", {7, 0}, "/tmp/a.txt"},
    {"PathLosesTheFullStop", 30, "edit src/main.c.", {6, 0}, "src/main.c"},
    {"HomePath", 30, "cat ~/notes.txt", {6, 0}, "~/notes.txt"},
    {"PathWithLineNumberKeepsIt", 30, "at src/a.cpp:12: error", {5, 0}, "src/a.cpp:12"},
    {"AfterWideCharacters", 30, "日本 https://x.io", {8, 0}, "https://x.io"},
    {"BlankCellHasNoLink", 30, "https://x.io  x", {13, 0}, std::nullopt},
    {"SoftWrappedUrl", 10, "go https://example.com/x", {2, 2}, "https://example.com/x"},
    {"OverThreeRows", 10, "https://ex\r\nample.com/\r\na/b.html", {1, 2}, "https://example.com/a/b.html"},
    {"PathHardWrapped", 16, "/home/user/proj/\r\nsrc/main.cpp", {0, 1}, "/home/user/proj/src/main.cpp"},
    {"Indented", 20, "  https://example.co\r\n  m/path/x.html", {4, 1}, "https://example.com/path/x.html"},
    {"InABox", 19, "│ https://e.io/a/ │\r\n│ docs/index.html │", {3, 1}, "https://e.io/a/docs/index.html"},
    {"ProseAfterAPathIsNotJoined", 20, "read /usr/share/docs\r\nand then go home", {6, 0}, "/usr/share/docs"},
    {"ProseRowIsNoLink", 20, "read /usr/share/docs\r\nand then go home", {1, 1}, std::nullopt},
    {"ListItemIsNotJoined", 20, "see https://x.io/abc\r\n- next item", {5, 0}, "https://x.io/abc"},
    {"NewUrlIsNotJoined", 20, "see https://x.io/abc\r\nhttps://y.io/d", {5, 0}, "https://x.io/abc"},
    {"RowNotReachingTheEdgeIsNotJoined", 30, "https://x.io/a\r\nb/c.html", {2, 0}, "https://x.io/a"},
    {"FractionIsNoPath", 30, "about 1/2.5 of it", {7, 0}, std::nullopt},
    {"UnitIsNoPath", 30, "at 90 km/h.", {7, 0}, std::nullopt},
    {"OneLetterRootIsNoPath", 30, "10 km /h", {6, 0}, std::nullopt},
    {"BareSchemeIsNoLink", 30, "use https:// here", {6, 0}, std::nullopt},
};

TEST(ImplicitLink, IsRecognisedWhole) {
    for (const ImplicitCase& c : implicitCases) {
        SCOPED_TRACE(c.name);
        TerminalHarness h(c.cols, 6);
        h.feed(c.screen);
        EXPECT_EQ(linkAt(h, c.at.col, c.at.row), c.link);
    }
}

TEST(LinkLookup, HardWrappedUrlCoversOneRangePerRow) {
    TerminalHarness h(20, 4);
    h.feed("https://example.com/\r\nabc/def.html and more");
    EXPECT_EQ(linkAt(h, 3, 0), "https://example.com/abc/def.html"); // found from its first row too
    auto match = h.terminal->linkMatch(LinkLookupLocation::buffer({2, 1}), Mode::explicitAndImplicit);
    ASSERT_TRUE(match);
    EXPECT_FALSE(match->isExplicit);
    EXPECT_EQ(match->rowRanges, (std::vector<RowRange>{{0, {0, 20}}, {1, {0, 12}}}));
    EXPECT_EQ(match->row, 1);
    EXPECT_EQ(match->range, (ColumnRange{0, 12}));
}

TEST(LinkLookup, ExplicitLinkOverWrappedRowsHasARangePerRow) {
    TerminalHarness h(10, 4);
    h.feed("ab\x1b]8;id=1;https://x.io/long\x1b\\cdefghijklmn\x1b]8;;\x1b\\ op");
    auto match = h.terminal->linkMatch(LinkLookupLocation::buffer({5, 0}), Mode::explicitOnly);
    ASSERT_TRUE(match);
    EXPECT_TRUE(match->isExplicit);
    EXPECT_EQ(match->text, "https://x.io/long");
    EXPECT_EQ(match->rowRanges, (std::vector<RowRange>{{0, {2, 10}}, {1, {0, 4}}}));
    EXPECT_EQ(match->range, (ColumnRange{2, 10}));
    EXPECT_EQ(h.terminal->link(LinkLookupLocation::buffer({5, 1}), Mode::explicitOnly), std::nullopt);
}

TEST(LinkLookup, ExplicitLinkWinsOverTheTextUnderItAndExplicitOnlyIgnoresPlainText) {
    TerminalHarness h(40, 3);
    h.feed("\x1b]8;;https://real.example\x1b\\https://shown.example\x1b]8;;\x1b\\ https://x.io");
    EXPECT_EQ(linkAt(h, 3, 0), "https://real.example");
    EXPECT_EQ(h.terminal->link(LinkLookupLocation::buffer({24, 0}), Mode::explicitOnly), std::nullopt);
}

TEST(LinkLookup, ScreenPositionsFollowTheDisplayOffset) {
    TerminalOptions options;
    options.scrollback = 50;
    TerminalHarness h(30, 3, options);
    h.feed("https://top.example\r\n");
    for (int i = 0; i < 10; ++i)
        h.feed("filler\r\n");
    h.terminal->scrollDisplayTo(0);
    EXPECT_EQ(h.terminal->link(LinkLookupLocation::screen({2, 0}), Mode::explicitAndImplicit),
              "https://top.example");
    EXPECT_EQ(h.terminal->link(LinkLookupLocation::screen({2, 7}), Mode::explicitAndImplicit), std::nullopt);
    EXPECT_EQ(h.terminal->link(LinkLookupLocation::buffer({-1, 0}), Mode::explicitAndImplicit), std::nullopt);
}

TEST(LinkLookup, HyperlinkPayloadSplitsAtTheFirstSemicolon) {
    using Pair = std::pair<std::string, std::string>;
    EXPECT_EQ(Terminal::parseHyperlinkPayload("id=7;https://x.io/a;b"), (Pair{"id=7", "https://x.io/a;b"}));
    EXPECT_EQ(Terminal::parseHyperlinkPayload(";file:///tmp"), (Pair{"", "file:///tmp"}));
    EXPECT_EQ(Terminal::parseHyperlinkPayload("id=7;"), std::nullopt);
    EXPECT_EQ(Terminal::parseHyperlinkPayload("no separator"), std::nullopt);
}

} // namespace
} // namespace TerminalEngine
