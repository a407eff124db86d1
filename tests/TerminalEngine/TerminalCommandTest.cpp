// The command set checked on the screen: bytes in, rows and cursor out.
#include "TerminalEngine/Pty/DispatchQueue.h"
#include "TerminalHarness.h"

#include <chrono>
#include <random>
#include <string>

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

using testing::TerminalHarness;

struct ScreenCase {
    const char* name;
    int cols, rows;
    const char* input;
    std::vector<std::string> expected; // leading rows; the rest must be empty
    int x, y;
};

void PrintTo(const ScreenCase& c, std::ostream* os) {
    *os << c.name;
}

class ScreenTest : public ::testing::TestWithParam<ScreenCase> {};

TEST_P(ScreenTest, DrawsExpectedRowsAndCursor) {
    const ScreenCase& c = GetParam();
    TerminalHarness h(c.cols, c.rows);
    h.feed(c.input);
    auto screen = h.screen();
    for (int row = 0; row < c.rows; ++row) {
        std::string want = static_cast<std::size_t>(row) < c.expected.size()
                               ? c.expected[static_cast<std::size_t>(row)]
                               : "";
        EXPECT_EQ(screen[static_cast<std::size_t>(row)], want) << "row " << row;
    }
    EXPECT_EQ(h.x(), c.x);
    EXPECT_EQ(h.y(), c.y);
}

const ScreenCase screenCases[] = {
    {"TextAndNewlines", 10, 4, "ab\r\ncd", {"ab", "cd"}, 2, 1},
    {"LineFeedKeepsColumn", 10, 4, "ab\ncd", {"ab", "  cd"}, 4, 1},
    {"WrapsAtRightEdge", 5, 3, "abcdefg", {"abcde", "fg"}, 2, 1},
    {"PendingWrapHoldsCursorPastEdge", 5, 3, "abcde", {"abcde"}, 5, 0},
    {"NoWraparoundOverwritesLastColumn", 5, 3, "\x1b[?7labcdefg", {"abcdg"}, 5, 0},
    {"WideCharacterAtEdgeWrapsWhole", 5, 3, "abcd\xe4\xb8\xad", {"abcd", "\xe4\xb8\xad"}, 2, 1},
    {"PendingWrapThenCursorForwardStaysOnScreen", 5, 3, "abcde\x1b[1C", {"abcde"}, 4, 0},
    {"CursorPositionIsOneBased", 10, 5, "\x1b[3;4HX", {"", "", "   X"}, 4, 2},
    {"CursorPositionClampsToScreen", 10, 5, "\x1b[99;99HX", {"", "", "", "", "         X"}, 10, 4},
    {"OriginModeIsRelativeToRegion",
     10,
     6,
     "\x1b[3;5r\x1b[?6h\x1b[1;1HX\x1b[9;1HY",
     {"", "", "X", "", "Y"},
     1,
     4},
    {"EraseBelow", 5, 3, "aaaaabbbbbccccc\x1b[2;3H\x1b[J", {"aaaaa", "bb"}, 2, 1},
    // DEL prints nothing, whether alone after a cursor move or after text.
    {"DeleteIsIgnored", 5, 2, "ab\x1b[1;1H\x7f\x1b[2;1Hc\x7f\x1b[1;1H\x1b[2;2H\r", {"ab", "c"}, 0, 1},
    // Parameters of every length: none, one to three digits, then long and huge ones.
    {"CursorPositionDigitCounts",
     10,
     5,
     "\x1b[;HA\x1b[2;10HB\x1b[003;002HC\x1b[0004;00009HD\x1b[5;99999999999HE",
     {"A", "         B", " C", "        D", "         E"},
     10,
     4},
    // A wide character written over the second half of one and the first half of another.
    {"WideOverTwoWideHalves",
     10,
     3,
     "\xe4\xb8\xad\xe6\x96\x87\x1b[1;2H\xe5\xad\x97",
     {" \xe5\xad\x97"},
     3,
     0},
    {"NarrowOverFirstHalfOfWide", 10, 3, "\xe4\xb8\xadx\x1b[1;1Hy", {"y x"}, 1, 0},
    {"SingleCharactersUpToTheEdge", 4, 3, "\x1b[1;3Ha\x1b[1;4Hb\x1b[2;4Hc\x1b[2;4Hd", {"  ab", "   d"}, 4, 1},
    {"EraseAbove", 5, 3, "aaaaabbbbbccccc\x1b[2;3H\x1b[1J", {"", "   bb", "ccccc"}, 2, 1},
    {"EraseLineRightLeftAll",
     5,
     3,
     "abcde\r\nfghij\r\nklmno\x1b[1;3H\x1b[K\x1b[2;3H\x1b[1K\x1b[3;3H\x1b[2K",
     {"ab", "   ij"},
     2,
     2},
    {"InsertCharsShiftsRight", 6, 2, "abcdef\x1b[1;2H\x1b[2@", {"a  bcd"}, 1, 0},
    {"DeleteCharsShiftsLeft", 6, 2, "abcdef\x1b[1;2H\x1b[2P", {"adef"}, 1, 0},
    {"EraseCharsBlanksInPlace", 6, 2, "abcdef\x1b[1;2H\x1b[2X", {"a  def"}, 1, 0},
    {"InsertLinesInsideRegion",
     4,
     5,
     "1\r\n2\r\n3\r\n4\r\n5\x1b[2;4r\x1b[3;1H\x1b[L",
     {"1", "2", "", "3", "5"},
     0,
     2},
    {"DeleteLinesInsideRegion",
     4,
     5,
     "1\r\n2\r\n3\r\n4\r\n5\x1b[2;4r\x1b[2;1H\x1b[M",
     {"1", "3", "4", "", "5"},
     0,
     1},
    {"InsertLinesOutsideRegionDoNothing",
     4,
     5,
     "1\r\n2\r\n3\r\n4\r\n5\x1b[2;3r\x1b[5;1H\x1b[L",
     {"1", "2", "3", "4", "5"},
     0,
     4},
    {"LineFeedAtRegionBottomScrollsRegionOnly",
     4,
     4,
     "1\r\n2\r\n3\r\n4\x1b[2;3r\x1b[3;1H\nX",
     {"1", "3", "X", "4"},
     1,
     2},
    {"ReverseIndexAtTopScrollsDown", 4, 3, "1\r\n2\r\n3\x1b[H\x1bM", {"", "1", "2"}, 0, 0},
    {"ScrollUpAndDown", 4, 3, "1\r\n2\r\n3\x1b[S", {"2", "3"}, 1, 2},
    {"ScrollDown", 4, 3, "1\r\n2\r\n3\x1b[2T", {"", "", "1"}, 1, 2},
    {"ScrollUpTwoInsideRegion", 4, 5, "1\r\n2\r\n3\r\n4\r\n5\x1b[2;4r\x1b[2S", {"1", "4", "", "", "5"}, 0, 0},
    {"ScrollDownTwoInsideRegion",
     4,
     5,
     "1\r\n2\r\n3\r\n4\r\n5\x1b[2;4r\x1b[2T",
     {"1", "", "", "2", "5"},
     0,
     0},
    {"ScrollPastRegionHeight", 4, 5, "1\r\n2\r\n3\r\n4\r\n5\x1b[2;4r\x1b[9S", {"1", "", "", "", "5"}, 0, 0},
    {"TabStopsEveryEight", 20, 2, "a\tb\tc", {"a       b       c"}, 17, 0},
    {"TabClearAndSet", 20, 2, "\x1b[3g\x1b[5G\x1bH\r\tX", {"    X"}, 5, 0},
    {"BackTab", 20, 2, "\x1b[18G\x1b[2ZX", {"        X"}, 9, 0},
    {"BackspaceStopsAtColumnZero", 5, 2, "ab\b\b\bX", {"Xb"}, 1, 0},
    {"RepeatPrecedingCharacter", 10, 2, "ab\x1b[3b", {"abbbb"}, 5, 0},
    {"DecSpecialGraphicsLineDrawing",
     10,
     2,
     "\x1b(0lqk\x1b(Bq",
     {"\xe2\x94\x8c\xe2\x94\x80\xe2\x94\x90q"},
     4,
     0},
    {"ShiftOutUsesG1", 10, 2, "\x1b)0\x0eq\x0fq", {"\xe2\x94\x80q"}, 2, 0},
    {"CommaDesignatorSelectsNothing", 10, 2, "\x1b,Aq#", {"q#"}, 2, 0},
    {"UnitedKingdomPound", 10, 2, "\x1b(A#", {"\xc2\xa3"}, 1, 0},
    {"SaveAndRestoreCursor",
     10,
     3,
     "\x1b[2;3H\x1b"
     "7\x1b[H\x1b"
     "8X",
     {"", "  X"},
     3,
     1},
    {"ScreenAlignmentFillsWithE", 3, 2, "\x1b#8", {"EEE", "EEE"}, 0, 0},
    {"InsertModeShifts", 6, 2, "abc\x1b[4h\x1b[1;1HX", {"Xabc"}, 1, 0},
    {"LeftRightMarginsBoundText", 10, 2, "\x1b[?69h\x1b[3;5s\x1b[1;3Habcdef", {"  abc", "  def"}, 5, 1},
    {"DeleteColumns", 5, 3, "abcde\r\nfghij\x1b[1;2H\x1b[2'~", {"ade", "fij"}, 1, 0},
    {"RectangleFill", 5, 3, "\x1b[88;1;2;2;4$x", {" XXX", " XXX"}, 0, 0},
    {"RectangleErase", 5, 3, "aaaaa\r\naaaaa\r\naaaaa\x1b[1;2;2;4$z", {"a   a", "a   a", "aaaaa"}, 5, 2},
    {"RectangleCopy", 5, 3, "ab\x1b[1;1;1;2;1;3;4;1$v", {"ab", "", "   ab"}, 2, 0},
    {"CursorNextAndPrecedingLine", 10, 5, "\x1b[3;5H\x1b[2EX\x1b[3FY", {"", "Y", "", "", "X"}, 1, 1},
    {"ColumnAndRowAbsolute", 10, 5, "\x1b[4G\x1b[3dX\x1b[2`Y", {"", "", " Y X"}, 2, 2},
};

INSTANTIATE_TEST_SUITE_P(Terminal, ScreenTest, ::testing::ValuesIn(screenCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(Terminal, RepeatIsCappedAtTwoScreenfuls) {
    TerminalHarness h(80, 25);
    h.feed("x\x1b[2147483647b");
    // One x and 4000 repeats make 50 full lines and one x on the 51st.
    int filled = 0;
    for (int y = 0; y < 25; ++y)
        filled += static_cast<int>(h.row(y).size());
    EXPECT_EQ(h.terminal->buffer->yBase, 51 - 25);
    EXPECT_EQ(filled, 24 * 80 + 1);
}

TEST(Terminal, WideCharacterIsFollowedByZeroWidthCell) {
    TerminalHarness h(10, 2);
    h.feed("\xe4\xb8\xad");
    EXPECT_EQ(h.cell(0, 0).width, 2);
    EXPECT_EQ(h.cell(1, 0).width, 0);
    EXPECT_EQ(h.cell(1, 0).code, 0);
    EXPECT_EQ(h.x(), 2);
}

TEST(Terminal, OverwritingHalfOfWideCharacterBlanksTheOtherHalf) {
    TerminalHarness h(10, 2);
    h.feed("\xe4\xb8\xad\xe6\x96\x87\x1b[1;2HX");
    EXPECT_EQ(h.row(0), " X\xe6\x96\x87");
    EXPECT_EQ(h.cell(0, 0).width, 1);
}

TEST(Terminal, CombiningMarkJoinsPreviousCell) {
    TerminalHarness h(10, 2);
    h.feed("e\xcc\x81x");
    EXPECT_EQ(h.row(0), "e\xcc\x81x");
    EXPECT_GE(h.cell(0, 0).code, CharData::firstGraphemeIndex);
    EXPECT_EQ(h.x(), 2);
}

// Clusters are remembered by base and mark: repeating them, mixing bases and marks, and the
// presentation selectors on a remembered cluster must give the same cells as the first time.
TEST(Terminal, RepeatedClustersKeepTheirOwnCodes) {
    TerminalHarness h(40, 2);
    const std::string e = "e\xcc\x81", a = "a\xcc\x81", eGrave = "e\xcc\x80",
                      heart = "\xe2\x9d\xa4\xef\xb8\x8f";
    h.feed(e + a + e + eGrave + e + heart + heart);
    EXPECT_EQ(h.row(0), e + a + e + eGrave + e + heart + heart);
    EXPECT_EQ(h.cell(0, 0).code, h.cell(2, 0).code);
    EXPECT_EQ(h.cell(0, 0).code, h.cell(4, 0).code);
    EXPECT_NE(h.cell(0, 0).code, h.cell(1, 0).code);
    EXPECT_NE(h.cell(0, 0).code, h.cell(3, 0).code);
    EXPECT_EQ(h.cell(5, 0).width, 2);
    EXPECT_EQ(h.cell(7, 0).width, 2);
    EXPECT_EQ(h.x(), 9);
}

TEST(Terminal, CombiningMarkAfterWrapJoinsEndOfPreviousLine) {
    TerminalHarness h(3, 3);
    h.feed("abc\xcc\x81");
    EXPECT_EQ(h.row(0), "abc\xcc\x81");
    EXPECT_EQ(h.x(), 3);
}

TEST(Terminal, EmojiPresentationSelectorWidensHeart) {
    TerminalHarness h(10, 2);
    h.feed("\xe2\x9d\xa4\xef\xb8\x8fX");
    EXPECT_EQ(h.cell(0, 0).width, 2);
    EXPECT_EQ(h.cell(2, 0).code, 'X');
}

TEST(Terminal, EmojiPresentationSelectorInLastColumnLeavesCellNarrow) {
    TerminalHarness h(4, 2);
    h.feed("abc\xe2\x9d\xa4\xef\xb8\x8f");
    EXPECT_EQ(h.cell(3, 0).width, 1);
}

TEST(Terminal, TextPresentationSelectorNarrowsWideEmoji) {
    TerminalHarness h(10, 2);
    h.feed("\xe2\x8c\x9a\xef\xb8\x8eX"); // U+231A WATCH is wide by default
    EXPECT_EQ(h.cell(0, 0).width, 1);
    EXPECT_EQ(h.cell(1, 0).code, 'X');
}

TEST(Terminal, RegionalIndicatorsPairIntoFlagsAndAThirdStartsANewCell) {
    TerminalHarness h(10, 2);
    const char* f = "\xf0\x9f\x87\xab"; // U+1F1EB
    const char* r = "\xf0\x9f\x87\xb7"; // U+1F1F7
    h.feed(std::string(f) + r + f);
    EXPECT_EQ(h.cell(0, 0).width, 2);
    EXPECT_EQ(h.terminal->getCharacter(h.cell(0, 0).code), std::string(f) + r);
    EXPECT_EQ(h.terminal->getCharacter(h.cell(2, 0).code), std::string(f));
    EXPECT_EQ(h.x(), 4);
}

TEST(Terminal, NarrowRegionalIndicatorOptionTakesOneColumn) {
    TerminalOptions options;
    options.regionalIndicatorWidth = RegionalIndicatorWidth::narrow;
    TerminalHarness h(10, 2, options);
    h.feed("\xf0\x9f\x87\xab");
    EXPECT_EQ(h.cell(0, 0).width, 1);
}

TEST(Terminal, SkinToneModifierJoinsPrecedingEmoji) {
    TerminalHarness h(10, 2);
    h.feed("\xf0\x9f\x91\x8d\xf0\x9f\x8f\xbbX"); // thumbs up + light skin tone
    EXPECT_EQ(h.cell(0, 0).width, 2);
    EXPECT_EQ(h.cell(2, 0).code, 'X');
}

TEST(Terminal, ZeroWidthJoinerSequenceStaysInOneCell) {
    TerminalHarness h(10, 2);
    h.feed("\xf0\x9f\x91\xa8\xe2\x80\x8d\xf0\x9f\x92\xbbX"); // man + ZWJ + laptop
    EXPECT_EQ(h.cell(0, 0).width, 2);
    EXPECT_EQ(h.cell(2, 0).code, 'X');
}

TEST(Terminal, SupplementaryPlaneScalarIsInterned) {
    TerminalHarness h(10, 2);
    h.feed("\xf0\x9f\x98\x80");
    EXPECT_EQ(h.cell(0, 0).code, CharData::firstGraphemeIndex);
}

TEST(Terminal, MalformedUtf8BecomesReplacementCharacter) {
    TerminalHarness h(10, 2);
    h.feed("a\xff"
           "b\xe4\xb8"
           "c");
    EXPECT_EQ(h.row(0), "a\xef\xbf\xbd"
                        "b\xef\xbf\xbd"
                        "c");
}

TEST(Terminal, Utf8SplitAcrossPrintRunsIsRepaired) {
    TerminalHarness h(10, 2);
    h.feed("\xe4").feed("\xb8").feed("\xad!");
    EXPECT_EQ(h.row(0), "\xe4\xb8\xad!");
}

struct SgrCase {
    const char* input;
    Attribute expected;
};

Attribute withUnderline(UnderlineStyle s) {
    Attribute a;
    if (s != UnderlineStyle::none) a.style = CharacterStyle::underline;
    a.underlineStyle = s;
    return a;
}

Attribute withFg(Attribute::Color c) {
    Attribute a;
    a.fg = c;
    return a;
}

TEST(Terminal, SelectGraphicRendition) {
    Attribute boldItalic;
    boldItalic.style = CharacterStyle::bold | CharacterStyle::italic;
    Attribute bgBright;
    bgBright.bg = Attribute::Color::ansi256(9);
    Attribute ulColor = withUnderline(UnderlineStyle::single);
    ulColor.underlineColor = Attribute::Color::trueColor(1, 2, 3);
    const SgrCase cases[] = {
        {"\x1b[4:3m", withUnderline(UnderlineStyle::curly)},
        {"\x1b[4m", withUnderline(UnderlineStyle::single)},
        {"\x1b[4:0m", withUnderline(UnderlineStyle::none)},
        {"\x1b[21m", withUnderline(UnderlineStyle::double_)},
        {"\x1b[4m\x1b[24m", withUnderline(UnderlineStyle::none)},
        {"\x1b[38;5;300m", withFg(Attribute::Color::ansi256(255))},
        {"\x1b[38:2::1:2:3m", withFg(Attribute::Color::trueColor(1, 2, 3))},
        {"\x1b[38;2;1;2;3m", withFg(Attribute::Color::trueColor(1, 2, 3))},
        {"\x1b[38:2:1:2:3m", withFg(Attribute::Color::trueColor(1, 2, 3))},
        {"\x1b[38:5:42m", withFg(Attribute::Color::ansi256(42))},
        {"\x1b[38;2;999;0;0m", withFg(Attribute::Color::trueColor(255, 0, 0))},
        {"\x1b[31m\x1b[38;5m", withFg(Attribute::Color::ansi256(1))}, // incomplete: colour stays
        {"\x1b[93m", withFg(Attribute::Color::ansi256(11))},
        {"\x1b[101m", bgBright},
        {"\x1b[1;3m", boldItalic},
        {"\x1b[1;2;22m", Attribute{}},
        {"\x1b[31;1m\x1b[0m", Attribute{}},
        {"\x1b[4;58:2::1:2:3m", ulColor},
        {"\x1b[>4;2m", Attribute{}},                                     // key modifier options, not SGR
        {"\x1b[38;5;12;6;1000m", withFg(Attribute::Color::ansi256(12))}, // known and unknown codes
        {"\x1b[38;7;1;3m", boldItalic},                                  // an unknown colour form
        {"\x1b[1:5;3m", boldItalic},       // a subparameter belongs to its code, never a code of its own
        {"\x1b[38;5;1;;1;3m", boldItalic}, // an empty parameter resets
        {"\x1b[48;5;9;38;2;1;2;3;39m", bgBright},
        {"\x1b[48;5;1;38;5;1;39;101m", bgBright},
        {"\x1b[38;2;1;2;3;48;5;9;4;58;2;1;2;3;39m",
         [&] {
             Attribute a = ulColor;
             a.bg = bgBright.bg;
             return a;
         }()},
    };
    // Each whole, with text after it so that the sequence is read straight from the buffer, and
    // one byte at a time, which takes the parameter list.
    for (const auto& c : cases) {
        TerminalHarness whole, bytewise;
        whole.feed(std::string(c.input) + "text after the sequence");
        for (const char* p = c.input; *p != 0; ++p)
            bytewise.feed(std::string_view(p, 1));
        EXPECT_EQ(whole.terminal->curAttr, c.expected) << c.input;
        EXPECT_EQ(bytewise.terminal->curAttr, c.expected) << c.input;
    }
}

TEST(Terminal, SgrReadWholeMatchesSgrReadByteByByte) {
    // Random lists drawn from every kind of parameter: plain codes, both colour forms, values
    // out of range, empty ones, colons, unknown and long codes.
    const char* pieces[] = {"0",          "1",      "3",        "4",          "7",
                            "22",         "24",     "27",       "31",         "39",
                            "44",         "49",     "59",       "95",         "104",
                            "6",          "1000",   "",         "4:3",        "38;5;200",
                            "48;5;7",     "58;5;3", "38;5;999", "38;2;1;2;3", "48;2;300;0;9",
                            "58;2;4;5;6", "38:5:9", "38;5",     "48;2;1",     "38;9"};
    std::mt19937 rng(7);
    std::uniform_int_distribution<std::size_t> pick(0, std::size(pieces) - 1), count(1, 6);
    std::uniform_int_distribution<int> colourFirst(0, 1);
    for (int round = 0; round < 300; ++round) {
        std::string sequence = "\x1b[";
        if (colourFirst(rng) != 0) sequence += round % 2 == 0 ? "38;5;17;" : "48;2;9;8;7;";
        for (std::size_t k = count(rng); k > 0; --k)
            sequence += std::string(pieces[pick(rng)]) + (k > 1 ? ";" : "m");
        TerminalHarness whole, bytewise;
        whole.feed("\x1b[1;4;38;5;3;48;5;4m" + sequence + "more text");
        bytewise.feed("\x1b[1;4;38;5;3;48;5;4m");
        for (char c : sequence)
            bytewise.feed(std::string_view(&c, 1));
        EXPECT_EQ(whole.terminal->curAttr, bytewise.terminal->curAttr) << sequence;
    }
}

TEST(Terminal, AlternateScreen1049RestoresScreenAndCursor) {
    TerminalHarness h(10, 3);
    h.feed("main\x1b[2;3H\x1b[?1049hALT\x1b[?1049l");
    EXPECT_EQ(h.row(0), "main");
    EXPECT_EQ(h.row(1), "");
    EXPECT_EQ(h.x(), 2);
    EXPECT_EQ(h.y(), 1);
    h.feed("\x1b[?1049h");
    EXPECT_EQ(h.row(0), ""); // a fresh alternate screen each time
}

TEST(Terminal, AlternateScreen47KeepsItsContentAnd1047ClearsOnExit) {
    TerminalHarness h(10, 3);
    h.feed("\x1b[?47hone\x1b[?47l\x1b[?47h");
    EXPECT_EQ(h.row(0), "one");
    h.feed("\x1b[?47l\x1b[?1047htwo\x1b[?1047l\x1b[?1047h");
    EXPECT_EQ(h.row(0), "");
}

TEST(Terminal, AlternateScreenHasNoScrollback) {
    TerminalHarness h(10, 3);
    h.feed("\x1b[?1049h1\r\n2\r\n3\r\n4\r\n5");
    EXPECT_EQ(h.terminal->buffer->yBase, 0);
    EXPECT_EQ(h.screen(), (std::vector<std::string>{"3", "4", "5"}));
}

TEST(Terminal, LinesScrolledOffTheTopGoToScrollback) {
    TerminalHarness h(10, 3);
    h.feed("1\r\n2\r\n3\r\n4\r\n5");
    EXPECT_EQ(h.terminal->buffer->yBase, 2);
    EXPECT_EQ(h.terminal->getScrollInvariantLine(0)->translateToString(true), "1");
    h.feed("\x1b[3J");
    EXPECT_EQ(h.terminal->buffer->yBase, 0);
    EXPECT_EQ(h.screen(), (std::vector<std::string>{"3", "4", "5"}));
}

TEST(Terminal, ScrollbackIsBoundedAndRingRecycles) {
    TerminalOptions options;
    options.scrollback = 10;
    TerminalHarness h(10, 3, options);
    for (int i = 0; i < 100; ++i)
        h.feed(std::to_string(i) + "\r\n");
    EXPECT_EQ(h.terminal->buffer->lines.count(), 13);
    EXPECT_EQ(h.terminal->getScrollInvariantLine(0)->translateToString(true), "88");
    EXPECT_EQ(h.row(1), "99");
}

TEST(Terminal, DecColumnModeNeedsPermission) {
    TerminalHarness h(80, 5);
    h.feed("\x1b[?3h");
    EXPECT_EQ(h.terminal->cols, 80);
    h.feed("\x1b[?40h\x1b[?3h");
    EXPECT_EQ(h.terminal->cols, 132);
}

TEST(Terminal, CursorStyleSequence) {
    struct Case {
        const char* input;
        std::optional<CursorStyle> expected;
    } cases[] = {
        {"\x1b[0 q", CursorStyle::blinkBlock}, {"\x1b[1 q", CursorStyle::blinkBlock},
        {"\x1b[ q", CursorStyle::blinkBlock},  {"\x1b[4 q", CursorStyle::steadyUnderline},
        {"\x1b[6 q", CursorStyle::steadyBar},  {"\x1b[7 q", std::nullopt},
    };
    for (const auto& c : cases) {
        TerminalHarness h;
        h.feed(c.input);
        if (c.expected)
            ASSERT_EQ(h.delegate->cursorStyles, std::vector<CursorStyle>{*c.expected}) << c.input;
        else
            EXPECT_TRUE(h.delegate->cursorStyles.empty()) << c.input;
    }
}

TEST(Terminal, SynchronizedOutputEndsByItselfAfterOneSecond) {
    asio::io_context loop;
    DispatchQueue::setMain(loop);
    TerminalHarness h(10, 3);
    h.feed("\x1b[?2026hpartial");
    h.terminal->clearUpdateRange();
    EXPECT_TRUE(h.terminal->synchronizedOutputActive);
    // Runs the loop until the terminal's own timer fires; the deadline only guards a hang.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (h.terminal->synchronizedOutputActive && std::chrono::steady_clock::now() < deadline)
        loop.run_one_for(std::chrono::milliseconds(100));
    DispatchQueue::clearMain();
    EXPECT_FALSE(h.terminal->synchronizedOutputActive);
    EXPECT_EQ(h.delegate->synchronizedChanges, (std::vector<bool>{true, false}));
    EXPECT_EQ(h.terminal->getUpdateRange(), (std::pair{0, 2}));
}

TEST(Terminal, UpdateRangesHoldOnlyWhatChangedSinceTheLastFrame) {
    // Each step starts from a frame with every row drawn and the ranges cleared, then writes
    // one character: only that row may be reported, on the screen and in the buffer.
    struct Step {
        const char* before; // fed before the ranges are cleared
        int cols, rows;     // a resize before the frame, when they differ from the last
        const char* write;
        int row;
    };
    const Step steps[] = {
        {"\x1b[2J", 10, 4, "\x1b[3;5Hx", 2}, {"", 10, 4, "\x1b[1;1Hy", 0},
        {"", 12, 6, "\x1b[6;2Hz", 5},        {"\x1b[6;1H\n\n\n", 12, 6, "\x1b[2;2Hw", 1},
        {"", 10, 3, "\x1b[3;10Hv", 2},
    };
    TerminalHarness h(10, 4);
    for (const Step& step : steps) {
        SCOPED_TRACE(step.write);
        h.feed(step.before);
        h.terminal->resize(step.cols, step.rows);
        for (int row = 1; row <= step.rows; ++row)
            h.feed("\x1b[" + std::to_string(row) + ";1Hrow");
        h.terminal->clearUpdateRange();
        h.feed(step.write);
        const int yBase = h.terminal->buffer->yBase;
        EXPECT_EQ(h.terminal->getUpdateRange(), (std::pair{step.row, step.row}));
        EXPECT_EQ(h.terminal->getScrollInvariantUpdateRange(),
                  (std::pair{yBase + step.row, yBase + step.row}));
    }
}

TEST(Terminal, SynchronizedOutputEndsOnResetAndOnResize) {
    TerminalHarness h(10, 3);
    h.feed("\x1b[?2026h\x1b[?2026l");
    EXPECT_FALSE(h.terminal->synchronizedOutputActive);
    h.feed("\x1b[?2026h");
    h.terminal->resize(20, 5);
    EXPECT_FALSE(h.terminal->synchronizedOutputActive);
}

TEST(Terminal, BellAndLineFeedReachTheDelegate) {
    TerminalHarness h;
    h.feed("a\x07\n\x0b\x0c");
    EXPECT_EQ(h.delegate->bells, 1);
    EXPECT_EQ(h.delegate->linefeeds, 3);
}

TEST(Terminal, FullResetClearsScreenModesAndScrollback) {
    TerminalHarness h(10, 3);
    h.feed("1\r\n2\r\n3\r\n4\x1b[?6h\x1b[?25l\x1b[31m\x1b"
           "c");
    EXPECT_EQ(h.screen(), (std::vector<std::string>{"", "", ""}));
    EXPECT_EQ(h.terminal->buffer->yBase, 0);
    EXPECT_FALSE(h.terminal->originMode);
    EXPECT_FALSE(h.terminal->cursorHidden);
    EXPECT_EQ(h.terminal->curAttr, Attribute{});
}

TEST(Terminal, UnknownSequencesAreLoggedAndParsingGoesOn) {
    TerminalHarness h;
    std::vector<std::string> logged;
    h.terminal->silentLog = false;
    h.terminal->logSink = [&](std::string_view line) { logged.emplace_back(line); };
    h.feed("\x1b[5%zA\x1b[?31337hB\x1b]5000;x\x07"
           "C");
    EXPECT_EQ(h.row(0), "ABC");
    ASSERT_EQ(logged.size(), 3u);
    EXPECT_NE(logged[0].find("Unknown CSI Code"), std::string::npos);
    EXPECT_NE(logged[1].find("Unhandled DEC Private Mode Set (DECSET) with 31337"), std::string::npos);
    EXPECT_NE(logged[2].find("Unknown OSC code: 5000"), std::string::npos);
}

} // namespace
} // namespace TerminalEngine
