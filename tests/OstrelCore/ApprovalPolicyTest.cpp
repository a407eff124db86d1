// Approval answers typed on the user's behalf: their window in time and their short form.
#include "OstrelCore/ApprovalPolicy.h"

#include <string>

#include <gtest/gtest.h>

namespace OstrelCore {
namespace {

using namespace std::chrono;
using Decision = ApprovalPolicy::Decision;

TEST(ApprovalPolicyTest, AnswersAreOneKey) {
    EXPECT_EQ(ApprovalPolicy::keystrokes(Decision::approve), "\r");
    EXPECT_EQ(ApprovalPolicy::keystrokes(Decision::deny), "\x1b");
}

TEST(ApprovalPolicyTest, CanActOnlyWithinAQuarterOfAnHourOfAStandingQuestion) {
    const system_clock::time_point emitted{seconds(1'750'000'000)};
    struct Case {
        duration<double> age;
        bool stillWaiting, alreadyAnswered, expected;
    } cases[] = {
        {seconds(0), true, false, true},
        {seconds(900), true, false, true},
        {milliseconds(900'100), true, false, false},
        {seconds(-1), true, false, false},
        {seconds(10), false, false, false},
        {seconds(10), true, true, false},
    };
    for (const Case& c : cases) {
        auto now = emitted + duration_cast<system_clock::duration>(c.age);
        EXPECT_EQ(ApprovalPolicy::canAct(emitted, now, c.stillWaiting, c.alreadyAnswered), c.expected)
            << c.age.count() << "s waiting=" << c.stillWaiting << " answered=" << c.alreadyAnswered;
    }
}

TEST(ApprovalPolicyTest, SummarizeFlattensTheDetailAndCutsItAt120Characters) {
    struct Case {
        std::string detail;
        std::string expected;
    } cases[] = {
        {"git  status\n\t--short \r\n", "git status --short"},
        {std::string(120, 'a'), std::string(120, 'a')},
        {std::string(121, 'a'), std::string(119, 'a') + "…"},
        // 122 scalars but 120 characters: a letter with two combining marks is one character.
        {std::string(117, 'a') + " e\u0301\u0301x", std::string(117, 'a') + " e\u0301\u0301x"},
        {"", ""},
    };
    for (const Case& c : cases) {
        auto request = ApprovalPolicy::summarize("Bash", c.detail);
        EXPECT_EQ(request.toolName, "Bash");
        EXPECT_EQ(request.detail, c.expected) << c.detail;
    }
}

} // namespace
} // namespace OstrelCore
