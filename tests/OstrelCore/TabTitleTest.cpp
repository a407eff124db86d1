// Tab titles from OSC titles, Claude user lines, Codex commentary and raw text.
#include "OstrelCore/TabTitle.h"

#include <gtest/gtest.h>

using namespace OstrelCore;
using std::nullopt;
using Opt = std::optional<std::string>;

namespace {

std::string repeat(std::string_view piece, int times) {
    std::string s;
    for (int i = 0; i < times; ++i)
        s += piece;
    return s;
}

struct Case {
    const char* name;
    std::string input;
    Opt expected;
};

std::string nameOf(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

class CleanCases : public testing::TestWithParam<Case> {};
TEST_P(CleanCases, CollapsesWhiteSpaceAndCutsLongTitles) {
    EXPECT_EQ(TabTitle::clean(GetParam().input), GetParam().expected);
}
const Case cleanCases[] = {
    {"Empty", "", nullopt},
    {"OnlyWhiteSpace", " \n\t\u3000", nullopt},
    {"CollapsesRuns", "  fix \n\n the   parser ", "fix the parser"},
    {"Exactly48Kept", std::string(48, 'a'), std::string(48, 'a')},
    {"FortyNineWithoutBlankCutAt47", std::string(49, 'a'), std::string(47, 'a') + "…"},
    {"CutAtLastBlankFromOffset24", std::string(30, 'a') + " " + std::string(30, 'b'),
     std::string(30, 'a') + "…"},
    {"BlankBeforeOffset24Ignored", std::string(10, 'a') + " " + std::string(50, 'b'),
     std::string(10, 'a') + " " + std::string(36, 'b') + "…"},
    {"BlankAtOffset24Cuts", std::string(24, 'a') + " " + std::string(40, 'b'), std::string(24, 'a') + "…"},
    {"CountsCharactersNotBytes", repeat("e\u0301", 48), repeat("e\u0301", 48)},
    {"CutKeepsWholeCharacters", repeat("e\u0301", 49), repeat("e\u0301", 47) + "…"},
};
INSTANTIATE_TEST_SUITE_P(TabTitle, CleanCases, testing::ValuesIn(cleanCases), nameOf);

class OSCCases : public testing::TestWithParam<Case> {};
TEST_P(OSCCases, DropsSpinnerAndProgramName) {
    EXPECT_EQ(TabTitle::fromClaudeOSC(GetParam().input), GetParam().expected);
}
const Case oscCases[] = {
    {"ProgramNameWithSpinner", "✳ Claude Code", nullopt},
    {"TaskWithSpinner", "✳ Fix the parser", "Fix the parser"},
    {"TaskWithoutSpinner", "Fix the parser", "Fix the parser"},
    {"BareCommand", "claude", nullopt},
    {"PathTitle", "~/src/app", nullopt},
    {"AbsolutePath", "⠂ /usr/bin/zsh", nullopt},
    {"OnlySpinner", "✳", nullopt},
    {"Empty", "", nullopt},
    {"NewlinesStayInsideTokensThenCollapse", "✳ Fix\nparser", "Fix parser"},
};
INSTANTIATE_TEST_SUITE_P(TabTitle, OSCCases, testing::ValuesIn(oscCases), nameOf);

class ClaudeUserCases : public testing::TestWithParam<Case> {};
TEST_P(ClaudeUserCases, TakesOnlyThePersonsWords) {
    EXPECT_EQ(TabTitle::fromClaudeUserLine(GetParam().input), GetParam().expected);
}
const Case claudeUserCases[] = {
    {"TextContent", R"({"type":"user","message":{"content":"  Fix the login bug  "}})", "Fix the login bug"},
    {"FirstTextBlock",
     R"({"type":"user","message":{"content":[{"type":"image"},{"type":"text","text":"Look at this"},{"type":"text","text":"second"}]}})",
     "Look at this"},
    {"AssistantRecord", R"({"type":"assistant","message":{"content":"hi"}})", nullopt},
    {"Sidechain", R"({"type":"user","isSidechain":true,"message":{"content":"hi"}})", nullopt},
    {"Meta", R"({"type":"user","isMeta":true,"message":{"content":"hi"}})", nullopt},
    {"CompactSummary", R"({"type":"user","isCompactSummary":true,"message":{"content":"hi"}})", nullopt},
    {"ToolAnswer", R"({"type":"user","toolUseResult":null,"message":{"content":"hi"}})", nullopt},
    {"InjectedTag", R"({"type":"user","message":{"content":"<command-name>/clear</command-name>"}})",
     nullopt},
    {"InjectedBracket", R"({"type":"user","message":{"content":"[Request interrupted by user]"}})", nullopt},
    {"Caveat", R"({"type":"user","message":{"content":"Caveat: The messages below"}})", nullopt},
    {"NoTextBlock", R"({"type":"user","message":{"content":[{"type":"tool_result"}]}})", nullopt},
    {"NotJSON", "{\"type\":\"user\"", nullopt},
    {"FalseFlagsDontRefuse", R"({"type":"user","isMeta":false,"message":{"content":"Ship it"}})", "Ship it"},
};
INSTANTIATE_TEST_SUITE_P(TabTitle, ClaudeUserCases, testing::ValuesIn(claudeUserCases), nameOf);

class CodexCommentaryCases : public testing::TestWithParam<Case> {};
TEST_P(CodexCommentaryCases, TakesTheFirstRealSentence) {
    EXPECT_EQ(TabTitle::fromCodexAgentMessageLine(GetParam().input), GetParam().expected);
}
const Case codexCases[] = {
    {"Commentary",
     R"({"payload":{"type":"agent_message","phase":"commentary","message":"Done. I am now reading the parser sources. Next."}})",
     "I am now reading the parser sources"},
    {"FinalAnswerIgnored",
     R"({"payload":{"type":"agent_message","phase":"final","message":"I am now reading the parser"}})",
     nullopt},
    {"NoSentenceLongEnough",
     R"({"payload":{"type":"agent_message","phase":"commentary","message":"Ok. Sure."}})", nullopt},
    {"MessageNotText", R"({"payload":{"type":"agent_message","phase":"commentary","message":7}})", nullopt},
};
INSTANTIATE_TEST_SUITE_P(TabTitle, CodexCommentaryCases, testing::ValuesIn(codexCases), nameOf);

class SentenceCases : public testing::TestWithParam<Case> {};
TEST_P(SentenceCases, SkipsShortOpeners) {
    EXPECT_EQ(TabTitle::firstSentence(GetParam().input), GetParam().expected);
}
const Case sentenceCases[] = {
    {"OpenerSkipped", "Done. I am now reading the parser sources", "I am now reading the parser sources"},
    {"TrailingPunctuationTrimmed", "Reading the parser sources now!!", "Reading the parser sources now"},
    {"SpacedColonEndsBeforeIt", "Looking at the parser module : next", "Looking at the parser module"},
    {"NewlineEnds", "Checking the build scripts today\nthen tests", "Checking the build scripts today"},
    {"NoEndTakesAll", "  Refactoring the session store  ", "Refactoring the session store"},
    {"TooShortEverywhere", "Ok. Yes. No.", nullopt},
    {"Empty", "", nullopt},
    {"TwentyCharactersExactly", "abcdefghijklmnopqrst. x", "abcdefghijklmnopqrst"},
    {"NineteenIsTooFew", "abcdefghijklmnopqrs. x", nullopt},
};
INSTANTIATE_TEST_SUITE_P(TabTitle, SentenceCases, testing::ValuesIn(sentenceCases), nameOf);

} // namespace
