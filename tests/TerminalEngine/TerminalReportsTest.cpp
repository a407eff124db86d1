// Replies to the program, byte for byte, and the OSC commands that reach the delegate.
#include "TerminalHarness.h"

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

using testing::TerminalHarness;

struct ReplyCase {
    const char* name;
    const char* input;
    const char* reply;
};

void PrintTo(const ReplyCase& c, std::ostream* os) {
    *os << c.name;
}

class ReplyTest : public ::testing::TestWithParam<ReplyCase> {};

TEST_P(ReplyTest, AnswersExactBytesWholeAndSplit) {
    const ReplyCase& c = GetParam();
    TerminalHarness whole(80, 25);
    whole.feed(c.input);
    EXPECT_EQ(whole.delegate->sent, c.reply);
    std::string input = c.input;
    for (std::size_t k = 1; k < input.size(); ++k) {
        TerminalHarness split(80, 25);
        split.feed(input.substr(0, k)).feed(input.substr(k));
        ASSERT_EQ(split.delegate->sent, c.reply) << "split at " << k;
    }
}

const ReplyCase replyCases[] = {
    {"PrimaryDeviceAttributes", "\x1b[c", "\x1b[?65;4;1;2;6;21;22;17;28c"},
    {"PrimaryWithZero", "\x1b[0c", "\x1b[?65;4;1;2;6;21;22;17;28c"},
    {"PrimaryWithOneIsIgnored", "\x1b[1c", ""},
    {"SecondaryDeviceAttributes", "\x1b[>c", "\x1b[>65;20;1c"},
    {"StatusOk", "\x1b[5n", "\x1b[0n"},
    {"CursorPosition", "\x1b[3;7H\x1b[6n", "\x1b[3;7R"},
    {"CursorPositionAtPendingWrap", "\x1b[1;80Hx\x1b[6n", "\x1b[1;80R"},
    {"CursorPositionInOriginMode", "\x1b[5;10r\x1b[?6h\x1b[6n", "\x1b[1;1R"},
    {"DecCursorPosition", "\x1b[2;3H\x1b[?6n", "\x1b[?2;3;1R"},
    {"PrinterStatus", "\x1b[?15n", "\x1b[?10n"},
    {"UserDefinedKeys", "\x1b[?25n", "\x1b[?21n"},
    {"KeyboardStatus", "\x1b[?26n", "\x1b[?27;1;0;0n"},
    {"LocatorStatus", "\x1b[?55n", "\x1b[?53n"},
    {"LocatorType", "\x1b[?56n", "\x1b[?57;1n"},
    {"MacroSpace", "\x1b[?62n", "\x1b[0*{"},
    {"MemoryChecksum", "\x1b[?63;7n", "\x1bP7!~0000\x1b\\"},
    {"DataIntegrity", "\x1b[?75n", "\x1b[?70n"},
    {"MultiSession", "\x1b[?85n", "\x1b[?83n"},
    {"ModeQuerySet", "\x1b[?25$p", "\x1b[?25;1$y"},
    {"ModeQueryReset", "\x1b[?2004$p", "\x1b[?2004;2$y"},
    {"ModeQueryAfterSet", "\x1b[?2004h\x1b[?2004$p", "\x1b[?2004;1$y"},
    {"ModeQueryAlternateScreen", "\x1b[?1049h\x1b[?1049$p\x1b[?47$p", "\x1b[?1049;1$y\x1b[?47;1$y"},
    {"ModeQueryPermanentlyReset", "\x1b[?10$p", "\x1b[?10;4$y"},
    {"ModeQueryReset13", "\x1b[?1001$p", "\x1b[?1001;2$y"},
    {"ModeQueryUnknown", "\x1b[?1010$p", "\x1b[?1010;0$y"},
    {"AnsiModeQueryInsert", "\x1b[4h\x1b[4$p\x1b[20$p\x1b[3$p", "\x1b[4;1$y\x1b[20;2$y\x1b[3;0$y"},
    {"SettingConformance", "\x1bP$q\"p\x1b\\", "\x1bP1$r65;1\"p\x1b\\"},
    {"SettingProtection", "\x1bP$q\"q\x1b\\", "\x1bP1$r0\"q\x1b\\"},
    {"SettingCursorStyle", "\x1b[5 q\x1bP$q q\x1b\\", "\x1bP1$r5 q\x1b\\"},
    {"SettingSgr", "\x1b[1;31;48;5;200m\x1bP$qm\x1b\\", "\x1bP1$r0;1;31;48;5;200m\x1b\\"},
    {"SettingScrollRegion", "\x1b[3;9r\x1bP$qr\x1b\\", "\x1bP1$r3;9r\x1b\\"},
    {"SettingMargins", "\x1b[?69h\x1b[2;20s\x1bP$qs\x1b\\", "\x1bP1$r2;20s\x1b\\"},
    {"SettingUnknown", "\x1bP$qz\x1b\\", "\x1bP0$r\x1b\\"},
    {"RectangleChecksum", "AB\x1b[1;1;1;1;1;2*y", "\x1bP1!~0083\x1b\\"},
    {"TextAreaCharacters", "\x1b[18t", "\x1b[8;25;80t"},
    {"ScreenCharacters", "\x1b[19t", "\x1b[9;25;80t"},
    {"CellSizeDefault", "\x1b[16t", "\x1b[6;16;10t"},
    {"EightBitReplies", "\x1b G\x1b[c\x1b[6n",
     "\x9b?65;4;1;2;6;21;22;17;28c\x9b"
     "1;1R"},
    {"EightBitDcs", "\x1b G\x1bP$q\"q\x1b\\",
     "\x90"
     "1$r0\"q\x9c"},
    {"ConformanceLevelSelects7Bit", "\x1b G\x1b[61\"p\x1b[5n", "\x1b[0n"},
    {"ConformanceLevelSelects8Bit", "\x1b[64;2\"p\x1b[5n",
     "\x9b"
     "0n"},
    {"KittyFlagsQuery", "\x1b[>1u\x1b[?u", "\x1b[?1u"},
    {"KittyPushPop", "\x1b[>5u\x1b[<u\x1b[?u", "\x1b[?0u"},
    {"KittyPopPastStack", "\x1b[>1u\x1b[>3u\x1b[<9u\x1b[?u", "\x1b[?0u"},
    {"KittyMask", "\x1b[=32u\x1b[?u", "\x1b[?0u"},
    {"KittySetAddRemove", "\x1b[=1u\x1b[=6;2u\x1b[=2;3u\x1b[?u", "\x1b[?5u"},
    {"KittyFlagsBelongToTheBuffer", "\x1b[>3u\x1b[?1049h\x1b[?u\x1b[?1049l\x1b[?u", "\x1b[?0u\x1b[?3u"},
    {"FocusReportOnEnable", "\x1b[?1004h", "\x1b[O"},
    {"Version", "\x1b[>q", "\x1bP>|Ostrel(0.1.0)\x1b\\"},
    {"ForegroundQuery", "\x1b]10;?\x1b\\", "\x1b]10;rgb:e5e5/e5e5/e5e5\x1b\\"},
    {"PaletteQueryEightBit", "\x1b G\x1b]4;1;?\x07",
     "\x9d"
     "4;1;rgb:cdcd/0000/0000\x9c"},
    {"PaletteQueryAfterChange", "\x1b]4;1;#abc\x07\x1b]4;1;?\x07", "\x1b]4;1;rgb:aaaa/bbbb/cccc\x1b\\"},
    {"PaletteResetThenQuery", "\x1b]4;1;#abc\x07\x1b]104;1\x07\x1b]4;1;?\x07",
     "\x1b]4;1;rgb:cdcd/0000/0000\x1b\\"},
};

INSTANTIATE_TEST_SUITE_P(Terminal, ReplyTest, ::testing::ValuesIn(replyCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(TerminalReports, DeviceAttributesFollowTermNameAndSixelOption) {
    struct Case {
        const char* termName;
        bool sixel;
        const char* reply;
    } cases[] = {
        {"xterm-256color", false, "\x1b[?65;1;2;6;21;22;17;28c"},
        {"screen-256color", true, "\x1b[?1;2c"},
        {"rxvt-unicode", true, "\x1b[?1;2c"},
        {"linux", true, "\x1b[?6c"},
        {"vt100", true, ""},
    };
    for (const auto& c : cases) {
        TerminalOptions options;
        options.termName = c.termName;
        options.enableSixelReported = c.sixel;
        TerminalHarness h(80, 25, options);
        h.feed("\x1b[c");
        EXPECT_EQ(h.delegate->sent, c.reply) << c.termName;
    }
}

TEST(TerminalReports, TitlesAndTheirStack) {
    TerminalHarness h;
    h.feed("\x1b]0;first\x07\x1b[22;0t\x1b]2;second\x07\x1b]1;icon\x07\x1b[23;2t");
    EXPECT_EQ(h.delegate->titles, (std::vector<std::string>{"first", "second", "first"}));
    EXPECT_EQ(h.delegate->iconTitles, std::vector<std::string>{"icon"});
    EXPECT_EQ(h.terminal->terminalTitle, "first");
}

TEST(TerminalReports, InvalidUtf8TitleCountsAsEmpty) {
    TerminalHarness h;
    h.feed("\x1b]2;bad\xff title\x07");
    EXPECT_EQ(h.delegate->titles, std::vector<std::string>{""});
}

TEST(TerminalReports, WorkingDirectoryIsStoredAsSent) {
    TerminalHarness h;
    h.feed("\x1b]7;file://host/home/me/My%20Dir\x1b\\");
    EXPECT_EQ(h.terminal->hostCurrentDirectory, "file://host/home/me/My%20Dir");
    EXPECT_EQ(h.delegate->directoryUpdates, 1);
}

TEST(TerminalReports, ClipboardWritesDecodedAndQueriesAnswerOnlyWithContent) {
    TerminalHarness h;
    h.feed("\x1b]52;c;aGVsbG8=\x07\x1b]52;c;!!bad!!\x07\x1b]52;nosemicolon\x07");
    EXPECT_EQ(h.delegate->clipboard, std::vector<std::string>{"hello"});
    h.feed("\x1b]52;c;?\x1b\\");
    EXPECT_EQ(h.takeSent(), "");
    h.delegate->clipboardContent = std::vector<std::uint8_t>{'h', 'i'};
    h.feed("\x1b]52;c;?\x1b\\");
    EXPECT_EQ(h.takeSent(), "\x1b]52;c;aGk=\x1b\\");
}

TEST(TerminalReports, NotificationJoinsTheBodyBackTogether) {
    TerminalHarness h;
    h.feed("\x1b]777;notify;T;a;b\x1b\\\x1b]777;notify;only\x07\x1b]777;other;T;b\x07");
    ASSERT_EQ(h.delegate->notifications.size(), 1u);
    EXPECT_EQ(h.delegate->notifications[0], (std::pair<std::string, std::string>{"T", "a;b"}));
}

TEST(TerminalReports, ProgressReportsAndTheirFallback) {
    TerminalHarness h;
    std::vector<std::string> fallback;
    h.terminal->parser.oscHandlerFallback = [&](std::int64_t n, ByteSpan p) {
        fallback.push_back(std::to_string(n) + ":" + std::string(p.begin(), p.end()));
    };
    h.feed("\x1b]9;4;1;42\x07\x1b]9;4;3\x07\x1b]9;hello\x07\x1b]9;4;5\x07\x1b]9;4;0;77\x07");
    EXPECT_EQ(h.delegate->progress,
              (std::vector<ProgressReport>{{ProgressReportState::set, 42},
                                           {ProgressReportState::indeterminate, std::nullopt},
                                           {ProgressReportState::remove, std::nullopt}}));
    EXPECT_EQ(fallback, (std::vector<std::string>{"9:hello", "9:4;5"}));
}

TEST(TerminalReports, HyperlinkMarksCellsOnlyWhenClosed) {
    TerminalHarness h(10, 3);
    h.feed("\x1b]8;id=1;https://x.io\x1b\\link");
    EXPECT_EQ(h.cell(0, 0).payload.code, 0);
    h.feed("\x1b]8;;\x1b\\ plain");
    TinyAtom atom = h.cell(0, 0).payload;
    ASSERT_NE(atom.code, 0);
    EXPECT_EQ(atom.target(), "id=1;https://x.io");
    EXPECT_EQ(h.cell(3, 0).payload, atom);
    EXPECT_EQ(h.cell(4, 0).payload.code, 0);
}

TEST(TerminalReports, HyperlinkAcrossWrappedRowsMarksEveryRow) {
    TerminalHarness h(5, 3);
    h.feed("ab\x1b]8;;file:///tmp/x\x07"
           "cdefgh\x1b]8;;\x07"
           "i");
    TinyAtom atom = h.cell(2, 0).payload;
    ASSERT_NE(atom.code, 0);
    EXPECT_EQ(h.cell(1, 0).payload.code, 0);
    EXPECT_EQ(h.cell(4, 0).payload, atom);
    EXPECT_EQ(h.cell(2, 1).payload, atom);
    EXPECT_EQ(h.cell(3, 1).payload.code, 0);
}

TEST(TerminalReports, ImagePayloadsAreSwallowedWithoutDisturbingText) {
    TerminalHarness h(20, 3);
    h.feed("a\x1b_Gf=100,a=T;iVBORw0KGgo=\x1b\\b\x1bPq#0;2;0;0;0#0~~@@vv@@~~$-\x1b\\c");
    EXPECT_EQ(h.row(0), "abc");
    EXPECT_EQ(h.delegate->sent, "");
}

} // namespace
} // namespace TerminalEngine
