// Reading foreign JSON numbers: only exact integers count.
#include "OstrelCore/JSONRead.h"

#include <gtest/gtest.h>

using namespace OstrelCore;

TEST(JSONRead, IntegersCountOnlyWhenExact) {
    struct Case {
        const char* json;
        std::optional<std::int64_t> expected;
    };
    const Case cases[] = {
        {"42", 42},
        {"-7", -7},
        {"12.0", 12},
        {"1.5", std::nullopt},
        {"1e3", 1000},
        {"1e300", std::nullopt},
        {"9223372036854775807", INT64_MAX},
        {"9223372036854775808", std::nullopt},
        {"18446744073709551615", std::nullopt},
        {"\"5\"", std::nullopt},
        {"true", std::nullopt},
        {"null", std::nullopt},
    };
    for (const auto& c : cases)
        EXPECT_EQ(JSONRead::integer(nlohmann::json::parse(c.json)), c.expected) << c.json;
}

TEST(JSONRead, DamagedDocumentsAreAbsentNotThrown) {
    EXPECT_EQ(JSONRead::parseObject("{\"a\":"), std::nullopt);
    EXPECT_EQ(JSONRead::parseObject("[1]"), std::nullopt);
    EXPECT_EQ(JSONRead::parseObject("{\"a\":\"\xff\"}"), std::nullopt);
    EXPECT_TRUE(JSONRead::parseObject("{\"a\":1}"));
}
