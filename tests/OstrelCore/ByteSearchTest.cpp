// The filtered literal search against the plain library search, at every alignment.
#include "OstrelCore/ByteSearch.h"

#include <random>
#include <string>
#include <vector>

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
    struct Case {
        std::vector<std::string_view> markers;
        std::string alphabet;
        std::size_t longest; // texts up to this long, so that every block and tail path runs
    };
    const Case cases[] = {
        {{"\"type\":\"user\"", "\"input_tokens\"", "ab", "\"permissionMode\""}, "\"abtypeuser:_\\", 120},
        // A full set of eight, with a one-byte marker and windows late in long markers.
        {{"localhost:", "127.0.0.1:", "0.0.0.0:", "hit your", "usage limit", "exhausted your", "out of usage",
          "model to "},
         "lochst:1270. hiyurg mdexaf",
         400},
        {{"q", "zz", "a\nb", "xyz", "long marker with a rare ending: Q", "Q", "aa", "\x1b["},
         "qzab\nxy Q\x1b[",
         300},
    };
    std::mt19937 random(11);
    for (const Case& c : cases) {
        ByteSearch::MarkerSet set(c.markers.data(), c.markers.size());
        for (int round = 0; round < 2000; ++round) {
            std::string text(random() % c.longest, 'x');
            for (auto& ch : text)
                ch = c.alphabet[random() % c.alphabet.size()];
            for (const auto& m : c.markers)
                if (random() % 4 == 0 && text.size() > m.size())
                    text.replace(random() % (text.size() - m.size()), m.size(), m);
            const std::uint32_t wanted = random() % (1u << c.markers.size());
            std::uint32_t expected = 0;
            for (std::size_t i = 0; i < c.markers.size(); ++i)
                if ((wanted >> i & 1u) && text.find(c.markers[i]) != std::string::npos) expected |= 1u << i;
            ASSERT_EQ(set.scan(text, wanted), expected) << text << " wanted " << wanted;
        }
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
