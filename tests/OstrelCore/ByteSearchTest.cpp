// The filtered literal search against the plain library search, at every alignment.
#include "OstrelCore/ByteSearch.h"

#include <random>

#include <gtest/gtest.h>

using namespace OstrelCore;

TEST(ByteSearch, AgreesWithPlainSearchOnRandomTexts) {
    std::mt19937 random(7);
    const std::string alphabet = "\"type:_{}uasr\\ \n";
    const std::string needles[] = {"\"type\":\"user\"", "\"tool_", "_call", "u", "\"\"", "{}", "\\\"ty"};
    for (int round = 0; round < 3000; ++round) {
        std::string text(random() % 90, ' ');
        for (auto& c : text)
            c = alphabet[random() % alphabet.size()];
        for (const auto& needle : needles) {
            if (random() % 3 == 0 && text.size() > needle.size())
                text.replace(random() % (text.size() - needle.size()), needle.size(), needle);
            std::size_t from = text.empty() ? 0 : random() % (text.size() + 1);
            ASSERT_EQ(ByteSearch::find(text, needle, from), std::string_view(text).find(needle, from))
                << text << " / " << needle << " from " << from;
        }
    }
}

TEST(ByteSearch, MarkerSetReportsExactlyTheWantedMarkersPresent) {
    const std::array<std::string_view, 4> markers = {"\"type\":\"user\"", "\"input_tokens\"", "ab",
                                                     "\"permissionMode\""};
    ByteSearch::MarkerSet set(markers);
    std::mt19937 random(11);
    for (int round = 0; round < 2000; ++round) {
        std::string text(random() % 120, 'x');
        for (auto& c : text)
            c = "\"abtypeuser:_\\"[random() % 13];
        for (const auto& m : markers)
            if (random() % 4 == 0 && text.size() > m.size())
                text.replace(random() % (text.size() - m.size()), m.size(), m);
        std::uint32_t wanted = random() % 16, expected = 0;
        for (std::size_t i = 0; i < markers.size(); ++i)
            if ((wanted >> i & 1u) && text.find(markers[i]) != std::string::npos) expected |= 1u << i;
        ASSERT_EQ(set.scan(text, wanted), expected) << text << " wanted " << wanted;
    }
}

TEST(ByteSearch, EdgesOfTheHaystack) {
    EXPECT_EQ(ByteSearch::find("", ""), 0u);
    EXPECT_EQ(ByteSearch::find("abc", "", 3), 3u);
    EXPECT_EQ(ByteSearch::find("abc", "", 4), ByteSearch::npos);
    EXPECT_EQ(ByteSearch::find("ab", "abc"), ByteSearch::npos);
    EXPECT_EQ(ByteSearch::find("abc", "c", 5), ByteSearch::npos);
    std::string text(4096, 'q');
    text.replace(text.size() - 6, 6, "\"tool_");
    EXPECT_EQ(ByteSearch::find(text, "\"tool_"), text.size() - 6);
}
