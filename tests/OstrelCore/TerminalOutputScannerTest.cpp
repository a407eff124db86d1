// The output scanner: printable output and bells across escape traffic and chunk splits.
#include "OstrelCore/TerminalOutputScanner.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using OstrelCore::TerminalOutputScanner;
using State = TerminalOutputScanner::State;

namespace {

struct Case {
    const char* name;
    std::vector<std::string> chunks; // fed one after the other to one scanner
    bool printable;
    bool bell;
    State endState;
};

class ScannerCases : public testing::TestWithParam<Case> {};

TEST_P(ScannerCases, ReportsPrintableAndBellOverAllChunks) {
    const Case& c = GetParam();
    TerminalOutputScanner scanner;
    TerminalOutputScanner::Result total;
    for (const auto& chunk : c.chunks) {
        auto r = scanner.scan(chunk);
        total.printable = total.printable || r.printable;
        total.bell = total.bell || r.bell;
    }
    EXPECT_EQ(total.printable, c.printable);
    EXPECT_EQ(total.bell, c.bell);
    EXPECT_EQ(scanner.state, c.endState);
}

const Case cases[] = {
    {"PlainText", {"hello"}, true, false, State::normal},
    {"BellAlone", {"\a"}, false, true, State::normal},
    {"EscapeSplitBeforeCsi", {"\x1b", "[31m"}, false, false, State::normal},
    {"CsiSplitInsideParameters", {"\x1b[3", "1;4", "m"}, false, false, State::normal},
    {"OscTitleEndedByBelIsNoBell", {"\x1b]0;title\a"}, false, false, State::normal},
    {"OscEndedByStringTerminator", {"\x1b]0;title\x1b\\"}, false, false, State::normal},
    {"OscFollowedByAnotherString", {"\x1b]0;a\x1b]0;b"}, false, false, State::string},
    {"StringEscapeThenCsi", {"\x1b]0;a\x1b[1m"}, false, false, State::normal},
    {"TextAfterStringTerminator", {"\x1b]0;a\x1b\\x"}, true, false, State::normal},
    {"DcsSplitAcrossChunks", {"\x1bP1$r", "0m\x1b", "\\"}, false, false, State::normal},
    {"Utf8ContinuationByteIsPrintable", {"\x80"}, true, false, State::normal},
    {"DelIsNotPrintable", {"\x7f"}, false, false, State::normal},
    {"ControlsOnly", {"\r\n\t\b"}, false, false, State::normal},
    {"ControlInsideCsiStaysInSequence", {"\x1b[1\n2m"}, false, false, State::normal},
    {"CancelDoesNotAbortCsi", {"\x1b[1\x18x"}, false, false, State::normal},
    {"IntermediateKeepsEscapeOpen", {"\x1b(", "B"}, false, false, State::normal},
    {"BellInsideCsiIsNoBell", {"\x1b[\a"}, false, false, State::csi},
    {"BellAfterLongText", {std::string(100, 'a') + "\a"}, true, true, State::normal},
    {"EscapeAfterLongTextStartsSequence", {std::string(100, 'a') + "\x1b[", "31"}, true, false, State::csi},
    {"BellBeforeText", {"\a" + std::string(40, 'b')}, true, true, State::normal},
    {"LongOscPayloadAcrossChunks",
     {"\x1b]8;;" + std::string(70, 'u'), std::string(70, 'v') + "\a"},
     false,
     false,
     State::normal},
};

INSTANTIATE_TEST_SUITE_P(TerminalOutputScanner, ScannerCases, testing::ValuesIn(cases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(TerminalOutputScanner, EmptyInputLeavesStateAlone) {
    TerminalOutputScanner scanner{State::csi};
    EXPECT_EQ(scanner.scan(""), TerminalOutputScanner::Result{});
    EXPECT_EQ(scanner.state, State::csi);
}

// The block skip must find ESC and BEL at every offset within and across words.
TEST(TerminalOutputScanner, FindsEscapeAndBellAtEveryOffsetOfPlainRuns) {
    for (std::size_t offset = 0; offset < 40; ++offset) {
        std::string text(offset, 'x');
        TerminalOutputScanner bells;
        EXPECT_TRUE(bells.scan("y" + text + "\a" + text).bell) << offset;
        TerminalOutputScanner escapes;
        escapes.scan("y" + text + "\x1b");
        EXPECT_EQ(escapes.state, State::escape) << offset;
        TerminalOutputScanner strings{State::string};
        strings.scan(text + "\a" + text);
        EXPECT_EQ(strings.state, State::normal) << offset;
    }
}

// Whole chunks take the skips and the in-line CSI path; one byte at a time takes neither. Both
// must end in the same state with the same findings, also when sequences are cut at chunk ends.
TEST(TerminalOutputScanner, SkipsAgreeWithByteAtATimeOnRandomEscapeTraffic) {
    const std::string pieces[] = {"text ",        "\x1b[", "38;5;2", "m",    "\x1b]0;t", "\a",
                                  "\x1b\\",       "\x1b",  "[",      "\x07", "\x1bP",    "\x7f",
                                  "\xe2\x9c\xbb", "\x18",  "K",      "\r\n"};
    std::mt19937 random(5);
    for (int round = 0; round < 4000; ++round) {
        std::string chunk;
        while (chunk.size() < random() % 200)
            chunk += pieces[random() % std::size(pieces)];
        const auto start = static_cast<State>(random() % 5);
        TerminalOutputScanner whole{start}, single{start};
        const auto found = whole.scan(chunk);
        TerminalOutputScanner::Result byByte;
        for (char c : chunk) {
            const auto one = single.scan(std::string_view(&c, 1));
            byByte.printable |= one.printable;
            byByte.bell |= one.bell;
        }
        ASSERT_EQ(found, byByte) << round;
        ASSERT_EQ(whole.state, single.state) << round;
    }
}

} // namespace
