// Silence verdicts by transcript phase, and Codex's title signal.
#include "OstrelCore/AgentStatusRule.h"

#include "OstrelCore/CodexSignals.h"

#include <gtest/gtest.h>

using namespace OstrelCore;

TEST(AgentStatusRule, OnlyAToolAwaitingApprovalNeedsTheUser) {
    EXPECT_EQ(AgentStatusRule::verdict(AgentPhase::awaitingApproval), SilenceVerdict::needsUser);
    EXPECT_EQ(AgentStatusRule::verdict(AgentPhase::turnEnded), SilenceVerdict::finished);
    EXPECT_EQ(AgentStatusRule::verdict(AgentPhase::running), SilenceVerdict::unknown);
    EXPECT_EQ(AgentStatusRule::verdict(std::nullopt), SilenceVerdict::unknown);
}

TEST(CodexSignals, ActionRequiredMatchesWithCaseOnly) {
    EXPECT_TRUE(CodexSignals::isActionRequired("codex — Action Required"));
    EXPECT_FALSE(CodexSignals::isActionRequired("action required"));
    EXPECT_FALSE(CodexSignals::isActionRequired(""));
}
