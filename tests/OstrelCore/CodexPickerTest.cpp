// The Codex model cache and the digits that reach a model and effort in the agent's menu.
#include "OstrelCore/CodexPicker.h"

#include <string>

#include <gtest/gtest.h>

namespace OstrelCore {
namespace {

CodexModel model(std::string slug, std::vector<std::string> efforts, std::string defaultEffort = "medium",
                 bool visible = true) {
    return CodexModel{std::move(slug), visible, std::move(defaultEffort), std::move(efforts)};
}

TEST(CodexPickerTest, ParseReadsTheModelCacheAndSkipsWhatItCannotUse) {
    auto catalog = CodexPicker::parse(R"({"fetched_at":"x","models":[
        {"slug":"gpt-5-codex","visibility":"list","default_reasoning_level":"high",
         "supported_reasoning_levels":[{"effort":"low","description":"fast"},{"effort":"high"},{"effort":7},"medium"]},
        {"slug":"internal","visibility":"hide"},
        {"display_name":"no slug"},
        "junk",
        {"slug":"bare"}]})");
    ASSERT_EQ(catalog.size(), 3u);
    EXPECT_EQ(catalog[0], model("gpt-5-codex", {"low", "high"}, "high"));
    EXPECT_FALSE(catalog[1].visible);
    EXPECT_EQ(catalog[2], model("bare", {}, "medium", false));
    EXPECT_EQ(CodexPicker::efforts("gpt-5-codex", catalog), (std::vector<std::string>{"low", "high"}));
    EXPECT_EQ(CodexPicker::efforts("missing", catalog), std::nullopt);

    for (std::string_view bad : {"", "[]", R"({"models":{}})", "{\"models\":[", "\xff\xfe"})
        EXPECT_TRUE(CodexPicker::parse(bad).empty()) << bad;
}

TEST(CodexPickerTest, DigitsWalkPresetsThenTheOtherModelsThenTheEffort) {
    const std::vector<CodexModel> catalog = {
        model("codex-auto-thorough", {"low", "medium"}),
        model("codex-auto-fast", {"low", "max"}),
        model("gpt-a", {"low", "medium", "high"}),
        model("gpt-b", {"low", "medium", "high"}, "high"),
        model("gpt-hidden", {"low", "medium"}, "medium", false),
        model("gpt-c", {"low", "high", "ultra"}, "high"),
        model("gpt-single", {"medium"}),
    };
    struct Case {
        std::string_view model;
        std::optional<std::string_view> effort;
        std::optional<std::vector<int>> expected;
    } cases[] = {
        {"gpt-b", "high", std::vector<int>{3, 2, 3}},
        {"gpt-c", "ultra", std::vector<int>{3, 3, 3, 1}},
        {"gpt-b", "unknown", std::vector<int>{3, 2, 3}}, // falls back on the default effort
        {"gpt-b", std::nullopt, std::vector<int>{3, 2, 3}},
        {"codex-auto-thorough", "low", std::vector<int>{2}}, // ranked after fast; no extended efforts
        {"codex-auto-fast", "max", std::vector<int>{1, 2, 1}},
        {"gpt-single", "medium", std::vector<int>{3, 4}},
        {"gpt-hidden", "low", std::nullopt},
        {"nowhere", "low", std::nullopt},
    };
    for (const Case& c : cases)
        EXPECT_EQ(CodexPicker::digits(c.model, c.effort, catalog), c.expected) << c.model;
}

TEST(CodexPickerTest, DigitsAreAbsentWhereOneKeyCannotReach) {
    std::vector<CodexModel> catalog;
    for (int i = 1; i <= 11; ++i) {
        std::string slug = "m";
        slug += std::to_string(i);
        catalog.push_back(model(slug, {"low", "medium"}));
    }
    EXPECT_EQ(CodexPicker::digits("m9", "low", catalog), (std::vector<int>{9, 1}));
    EXPECT_EQ(CodexPicker::digits("m11", "low", catalog), std::nullopt);

    // A default effort the model doesn't list can't be chosen.
    catalog = {model("odd", {"low", "high"}, "medium")};
    EXPECT_EQ(CodexPicker::digits("odd", std::nullopt, catalog), std::nullopt);
    EXPECT_EQ(CodexPicker::digits("odd", "high", catalog), (std::vector<int>{1, 2}));
}

} // namespace
} // namespace OstrelCore
