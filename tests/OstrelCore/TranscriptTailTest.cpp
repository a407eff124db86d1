// Cutting transcript tails and heads into lines.
#include "OstrelCore/TranscriptTail.h"

#include <gtest/gtest.h>

using namespace OstrelCore;

TEST(TranscriptTail, SplitsAtEveryLineFeed) {
    auto lines = TranscriptTail::lines("a\n{\"b\":1}\r\n\nc");
    ASSERT_TRUE(lines);
    EXPECT_EQ(*lines, (std::vector<std::string_view>{"a", "{\"b\":1}\r", "", "c"}));
    EXPECT_EQ(*TranscriptTail::lines(""), (std::vector<std::string_view>{""}));
}

TEST(TranscriptTail, TailStartingInsideACharacterGivesNoLines) {
    std::string file = std::string(1 << 20, 'x') + "\n{\"text\":\"héllo\"}\n";
    std::size_t cut = file.find("é") + 1; // the window begins on the character's second byte
    EXPECT_EQ(TranscriptTail::lines(std::string_view(file).substr(cut)), std::nullopt);
    EXPECT_TRUE(TranscriptTail::lines(std::string_view(file).substr(cut - 1)));
}

TEST(TranscriptTail, HeadCutInsideACharacterKeepsItsLines) {
    std::string head = "{\"cwd\":\"/w\"}\n{\"x\":\"日本";
    for (std::size_t drop = 1; drop <= 2; ++drop) {
        auto lines = TranscriptTail::headLines(std::string_view(head).substr(0, head.size() - drop));
        ASSERT_TRUE(lines) << drop;
        EXPECT_EQ(lines->front(), "{\"cwd\":\"/w\"}");
    }
    EXPECT_EQ(TranscriptTail::headLines("\xff\n{}"), std::nullopt); // damage elsewhere still counts
}

TEST(TranscriptTail, OnlyStrictUtf8Decodes) {
    struct Case {
        std::string bytes;
        bool decodes;
    };
    const Case cases[] = {
        {"plain ascii text that is longer than one word", true},
        {"emoji \xF0\x9F\x98\x80 and accent \xC3\xA9 and \xE2\x9D\xAF", true},
        {"overlong \xC0\x80", false},
        {"overlong three \xE0\x80\xAF", false},
        {"surrogate \xED\xA0\x80", false},
        {"beyond \xF4\x90\x80\x80", false},
        {"cut \xE2\x9D", false},
        {"lone continuation \x80 here", false},
        {"\xFF", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(TranscriptTail::lines(c.bytes).has_value(), c.decodes) << c.bytes;
}
