// Claude's model switch, from its terminal output to a model identifier.
#include "OstrelCore/ClaudeModelSwitch.h"

#include <gtest/gtest.h>

using namespace OstrelCore;

namespace {

struct Case {
    const char* name;
    std::string input;
    std::optional<std::string> expected;
};

std::string nameOf(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

class LabelCases : public testing::TestWithParam<Case> {};
TEST_P(LabelCases, MapsLabelToIdentifier) {
    EXPECT_EQ(ClaudeModelSwitch::identifier(GetParam().input), GetParam().expected);
}
const Case labelCases[] = {
    {"FamilyAndVersion", "Opus 4.1", "claude-opus-4.1"},
    {"FamilyAlone", "Sonnet", "claude-sonnet"},
    {"UnknownVersionWord", "Opus latest", std::nullopt},
    {"IdentifierLowerCasedAndTrimmed", "Claude-Opus-4-1.", "claude-opus-4-1"},
    {"FrameGlyphsTrimmed", "│ Haiku 3 │", "claude-haiku-3"},
    {"UnknownFamily", "Mistral 7", std::nullopt},
    {"ThreeTokens", "Opus 4 1", std::nullopt},
    {"VersionWithTwoDots", "Opus 4.1.2", std::nullopt},
    {"IdentifierWithOtherPunctuation", "claude-opus (new)", std::nullopt},
    {"Empty", " . ", std::nullopt},
};
INSTANTIATE_TEST_SUITE_P(ClaudeModelSwitch, LabelCases, testing::ValuesIn(labelCases), nameOf);

class LineCases : public testing::TestWithParam<Case> {};
TEST_P(LineCases, FindsTheSwitchPhrase) {
    EXPECT_EQ(ClaudeModelSwitch::detectInLine(GetParam().input), GetParam().expected);
}
const Case lineCases[] = {
    {"Plain", "  ⎿  Set model to Opus 4.1", "claude-opus-4.1"},
    {"AnyCase", "SET MODEL TO sonnet", "claude-sonnet"},
    {"ClauseCut", "Set model to Sonnet and saved as default", "claude-sonnet"},
    {"NoPhrase", "model is opus", std::nullopt},
};
INSTANTIATE_TEST_SUITE_P(ClaudeModelSwitch, LineCases, testing::ValuesIn(lineCases), nameOf);

TEST(ClaudeModelSwitch, TerminalTextIsStrippedAndTheFirstSwitchLineWins) {
    std::string text =
        "\x1b[2K\x1b[1Gnoise\r\n  ⎿  Set model to \x1b[1mOpus 4.1\x1b[22m\r\nSet model to Haiku\n";
    EXPECT_EQ(ClaudeModelSwitch::detectInTerminalText(text), "claude-opus-4.1");
    EXPECT_EQ(ClaudeModelSwitch::detectInTerminalText("Set model to nothing\nSet model to Haiku"),
              "claude-haiku");
    EXPECT_EQ(ClaudeModelSwitch::detectInTerminalText(""), std::nullopt);
}

} // namespace
