// Escape stripping: what a reader would see of terminal text.
#include "OstrelCore/ANSI.h"

#include <gtest/gtest.h>

namespace {

struct Case {
    const char* name;
    std::string input;
    std::string expected;
};

class StripCases : public testing::TestWithParam<Case> {};

TEST_P(StripCases, KeepsOnlyVisibleText) {
    EXPECT_EQ(OstrelCore::ANSI::strip(GetParam().input), GetParam().expected);
}

const Case cases[] = {
    {"Empty", "", ""},
    {"PlainTextUnchanged", "Set model to Opus", "Set model to Opus"},
    {"SgrRemoved", "\x1b[1mbold\x1b[22m", "bold"},
    {"OscTitleRemoved", "\x1b]0;title\aafter", "after"},
    {"OscWithStringTerminatorRemoved", "\x1b]8;;http://x\x1b\\link", "link"},
    {"StringEscapeStartsNewString", "\x1b]0;a\x1b]0;b\aend", "end"},
    {"TabNewlineCarriageReturnKept", "a\tb\r\nc", "a\tb\r\nc"},
    {"OtherControlsDropped", "a\ab\bc\x0e", "abc"},
    {"DelKept", "a\x7f", "a\x7f"},
    {"MultibyteKept", "❯ héllo", "❯ héllo"},
    {"CharsetDesignationDropped", "\x1b(Bx", "x"},
    {"UnfinishedSequenceDropped", "text\x1b[3", "text"},
    {"ControlInsideCsiDropped", "\x1b[1\n2mz", "z"},
};

INSTANTIATE_TEST_SUITE_P(ANSI, StripCases, testing::ValuesIn(cases),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
