// Reading the agent's input box from the visible rows.
#include "OstrelCore/TerminalComposer.h"

#include <gtest/gtest.h>

using namespace OstrelCore;
using TerminalComposer::Cell;

namespace {

struct DraftCase {
    const char* name;
    std::vector<std::string> rows;
    std::optional<std::string> expected;
};

class DraftCases : public testing::TestWithParam<DraftCase> {};

TEST_P(DraftCases, ReadsWhatThePersonTyped) {
    EXPECT_EQ(TerminalComposer::draft(GetParam().rows), GetParam().expected);
}

const DraftCase draftCases[] = {
    {"NoPromptRow", {"some output", "more output"}, std::nullopt},
    {"NoRows", {}, std::nullopt},
    {"EmptyPrompt", {"╭────╮", "│ ❯  │", "╰────╯"}, ""},
    {"BarePromptGlyph", {"❯ "}, ""},
    {"Placeholder", {"│ > Try \"fix lint\"      │"}, ""},
    {"PlaceholderCurlyQuote", {"│ > Try “refactor”      │"}, ""},
    {"AskPlaceholder", {"› Ask Codex to do anything"}, ""},
    {"PlainText", {"│ > fix the parser  │"}, "fix the parser"},
    {"PromptWithoutBlankIsOutput", {">>> python"}, std::nullopt},
    {"NoBreakSpaceAfterGlyph", {"❯\u00A0hello"}, "hello"},
    {"LastPromptWins", {"> old", "stuff", "> new"}, "new"},
    // Inner width 10: a first row filled to 9 or more characters is a soft wrap.
    {"FullRowJoinsWithoutNewline", {"│> abcdefgh│", "│  ijk     │", "╰──────────╯"}, "abcdefghijk"},
    {"ShortRowJoinsWithNewline", {"│> abc     │", "│  def     │", "│──────────│"}, "abc\ndef"},
    {"ContinuationNeedsBothFrames", {"│> abc     │", "│  def"}, "abc"},
    {"StopsAtEmptyRow", {"│> abc     │", "│          │", "│  ghi     │"}, "abc"},
};

INSTANTIATE_TEST_SUITE_P(TerminalComposer, DraftCases, testing::ValuesIn(draftCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(TerminalComposer, FrameMeasuresInnerWidthAndFilledCharacters) {
    EXPECT_EQ(TerminalComposer::frame("  │ ab  │"), (Cell{" ab  ", 5, 3}));
    EXPECT_EQ(TerminalComposer::frame("┃ ab  "), (Cell{" ab  ", std::nullopt, 3}));
    EXPECT_EQ(TerminalComposer::frame("  plain  "), (Cell{"plain  ", std::nullopt, 5}));
    EXPECT_EQ(TerminalComposer::frame(""), (Cell{"", std::nullopt, 0}));
}

TEST(TerminalComposer, RuleRowsEndTheBox) {
    EXPECT_EQ(TerminalComposer::continuationRow("│──═━-│"), std::nullopt);
    EXPECT_EQ(TerminalComposer::continuationRow("│ text │")->text, "text");
}

} // namespace
