// Text::tail, the windowed form of Text::suffix used on long terminal and notice texts.
#include "OstrelCore/Text.h"

#include <string>

#include <gtest/gtest.h>

namespace OstrelCore {
namespace {

TEST(TextTailTest, TailAgreesWithSuffixOnEveryKindOfCluster) {
    const std::string pieces[] = {
        "plain ascii ",
        "\r\n",
        "e\u0301\u0301",
        "\u00e9",
        "\U0001F468\u200D\U0001F469\u200D\U0001F467",
        "\U0001F1EB\U0001F1F7",
        "\u0915\u094D\u0937",
        "\x1b",
        "\xff\xfe",
        "\t",
    };
    for (std::size_t i = 0; i < std::size(pieces); ++i) {
        std::string text;
        for (std::size_t k = 0; k < 40; ++k)
            text += pieces[(i + k * 7) % std::size(pieces)];
        for (std::size_t n : {0u, 1u, 2u, 5u, 17u, 60u, 1000u})
            EXPECT_EQ(Text::tail(text, n), Text::suffix(text, n)) << "piece " << i << " n " << n;
    }
}

} // namespace
} // namespace OstrelCore
