// Codex transcript readings, project ownership and raw value reads.
#include "OstrelCore/CodexTranscript.h"

#include "support/TranscriptLines.h"

#include <gtest/gtest.h>

using namespace OstrelCore;
using OstrelTest::Lines;

namespace {

std::string event(std::string_view payload) {
    return R"({"timestamp":"2026-01-02T03:04:05.000Z","type":"event_msg","payload":)" + std::string(payload) +
           "}";
}

std::string userMessage(std::string_view text) {
    return event(R"({"type":"user_message","message":")" + std::string(text) + R"("})");
}

std::string commentary(std::string_view text) {
    return event(R"({"type":"agent_message","phase":"commentary","message":")" + std::string(text) + R"("})");
}

std::string tokenCount(int input, int output, int window) {
    return event(
        R"({"type":"token_count","info":{"total_token_usage":{"input_tokens":99999,"output_tokens":9999},)"
        R"("last_token_usage":{"input_tokens":)" +
        std::to_string(input) + R"(,"output_tokens":)" + std::to_string(output) +
        R"(},"model_context_window":)" + std::to_string(window) + "}}");
}

const std::string turnContext = R"({"type":"turn_context","payload":{"cwd":"/w","model":"gpt-5-codex"}})";

TEST(CodexTranscript, ReadsPhaseTitleUsageModelAndWindow) {
    Lines lines{turnContext,
                userMessage("Fix the failing tests"),
                event(R"({"type":"task_started"})"),
                commentary("Ok. I am looking at the failing test output now."),
                tokenCount(1200, 300, 272000),
                event(R"({"type":"task_complete"})")};
    // The usage is the last turn's counts, not the running totals.
    EXPECT_EQ(CodexTranscript::parse(lines.views),
              (TranscriptReading{.model = "gpt-5-codex",
                                 .contextUsed = 1500,
                                 .contextWindow = 272000,
                                 .phase = AgentPhase::turnEnded,
                                 .sessionTitle = "I am looking at the failing test output now"}));
}

TEST(CodexTranscript, PhaseComesFromTheNewestMarker) {
    struct Case {
        std::string newest;
        std::optional<AgentPhase> phase;
    };
    const Case cases[] = {
        {event(R"({"type":"task_complete"})"), AgentPhase::turnEnded},
        {event(R"({"type":"task_started"})"), AgentPhase::running},
        {event(R"({"type":"turn_aborted","reason":"interrupted"})"), AgentPhase::running},
        {userMessage("go"), AgentPhase::running},
    };
    for (const auto& c : cases) {
        Lines lines{event(R"({"type":"task_complete"})"), c.newest};
        auto reading = CodexTranscript::parse(lines.views);
        ASSERT_TRUE(reading);
        EXPECT_EQ(reading->phase, c.phase) << c.newest;
    }
}

TEST(CodexTranscript, TitleIsTheCommentaryNearestBehindTheNewestUserMessage) {
    Lines withCommentary{userMessage("Old request"), commentary("Reading the old request carefully now."),
                         userMessage("Port the scanner to the new API"),
                         commentary("First I will read the scanner sources."),
                         commentary("Now I am rewriting the scanner loop.")};
    EXPECT_EQ(CodexTranscript::parse(withCommentary.views)->sessionTitle,
              "First I will read the scanner sources");

    Lines withoutCommentary{commentary("Reading the old request carefully now."),
                            userMessage("Port the scanner to the new API")};
    EXPECT_EQ(CodexTranscript::parse(withoutCommentary.views)->sessionTitle,
              "Port the scanner to the new API");
}

TEST(CodexTranscript, ZeroWindowAndEmptyUsageFallBackToOlderLinesAndNoneMayGiveNothing) {
    Lines lines{tokenCount(10, 5, 128000), event(R"({"type":"token_count","info":null})"),
                tokenCount(0, 0, 0)};
    auto reading = CodexTranscript::parse(lines.views);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->contextUsed, 15);
    EXPECT_EQ(reading->contextWindow, 128000);
    Lines unreadable{"", "garbage", R"({"type":"response_item","payload":{"type":"reasoning"}})"};
    EXPECT_EQ(CodexTranscript::parse(unreadable.views), std::nullopt);
    EXPECT_EQ(CodexTranscript::parse({}), std::nullopt);
}

TEST(CodexTranscript, DeepSearchFollowsWrittenOrderAndStopsBelowDepthFour) {
    auto doc = nlohmann::ordered_json::parse(R"({"z":{"model":"first"},"a":{"model":"second"}})");
    EXPECT_EQ(*CodexTranscript::findDeep(doc, "model"), "first");

    auto depth4 = nlohmann::ordered_json::parse(R"({"a":{"b":{"c":{"d":{"k":1}}}}})");
    auto depth5 = nlohmann::ordered_json::parse(R"({"a":{"b":{"c":{"d":{"e":{"k":1}}}}}})");
    auto inArray = nlohmann::ordered_json::parse(R"({"a":[{"k":1}]})");
    EXPECT_NE(CodexTranscript::findDeep(depth4, "k"), nullptr);
    EXPECT_EQ(CodexTranscript::findDeep(depth5, "k"), nullptr);
    EXPECT_EQ(CodexTranscript::findDeep(inArray, "k"), nullptr);
}

TEST(CodexTranscript, BelongsToProjectByExactWorkingFolder) {
    const std::string meta =
        R"({"type":"session_meta","payload":{"id":"x","cwd":"/work/app","instructions":"long)";
    struct Case {
        Lines head;
        std::string project;
        bool expected;
    };
    const Case cases[] = {
        {{meta + R"("}})"}, "/work/app", true},
        {{meta + R"("}})"}, "/work/app/", false},
        {{meta}, "/work/app", true}, // cut short by the head block: read raw
        {{R"({"note":"no folder"})", R"({"payload":{"cwd":"/other"}})"}, "/other", true},
        {{R"({"payload":{"cwd":42}})", R"({"cwd":"/later"})"}, "/later", true},
        {{}, "/work/app", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(CodexTranscript::belongsToProject(c.head.views, c.project), c.expected) << c.project;
}

TEST(CodexTranscript, RawStringValueReadsWithoutDecoding) {
    const std::pair<std::string, std::string> cases[] = {
        {R"({"cwd":"/a/b","x":1})", "/a/b"},
        {R"({"cwd" :  "/a/b"})", "/a/b"},
        {R"({"cwd":"a\"b\\c\n"})", "a\"b\\cn"},
        {R"({"name":"cwd","cwd":"/real"})", "/real"},
    };
    for (const auto& [line, expected] : cases)
        EXPECT_EQ(CodexTranscript::rawStringValue("cwd", line), expected) << line;
    for (std::string line : {R"({"cwd":"/unterminated)", R"({"cwd":42})", R"({"cwd")", R"({"other":"x"})"})
        EXPECT_EQ(CodexTranscript::rawStringValue("cwd", line), std::nullopt) << line;
}

} // namespace
