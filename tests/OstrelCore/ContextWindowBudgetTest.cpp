// Usable share of a context window, and the window of a model by name.
#include "OstrelCore/ContextWindowBudget.h"

#include <limits>

#include <gtest/gtest.h>

using namespace OstrelCore;
using ContextWindowBudget::Provider;

TEST(ContextWindowBudget, ClaudeUsesFourFifthsAndCodexAll) {
    EXPECT_EQ(ContextWindowBudget::usableLimit(200000, Provider::claude), 160000);
    EXPECT_EQ(ContextWindowBudget::usableLimit(400000, Provider::codex), 400000);
    EXPECT_EQ(ContextWindowBudget::usableLimit(0, Provider::claude), 0);
    EXPECT_EQ(ContextWindowBudget::usableLimit(0, Provider::codex), 0);
    EXPECT_EQ(ContextWindowBudget::usableLimit(-5, Provider::codex), 0);
    EXPECT_EQ(ContextWindowBudget::usableLimit(7, Provider::claude), 5); // 28 / 5, rounded down
    constexpr auto huge = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(ContextWindowBudget::usableLimit(huge, Provider::claude), huge / 5 * 4 + 1);
}

TEST(ContextWindowBudget, WindowOfAModelByName) {
    ContextWindowBudget::ModelWindows catalogue{{"gpt-5-codex", 272000}, {"claude-x", 0}};
    struct Case {
        std::optional<std::string_view> model;
        std::int64_t window;
    };
    const Case cases[] = {
        {std::nullopt, 200000}, {"gpt-5-codex", 272000},   {"claude-sonnet-4[1m]", 1000000},
        {"gpt-5", 400000},      {"my-codex-mini", 400000}, {"claude-opus-4-1", 200000},
        {"claude-x", 200000}, // a catalogue entry without a window doesn't count
    };
    for (const auto& c : cases)
        EXPECT_EQ(ContextWindowBudget::windowForModel(c.model, catalogue), c.window)
            << c.model.value_or("none");
}
