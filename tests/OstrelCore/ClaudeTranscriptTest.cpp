// Claude transcript readings from inline fixture lines.
#include "OstrelCore/ClaudeTranscript.h"

#include "support/TranscriptLines.h"

#include <gtest/gtest.h>

using namespace OstrelCore;
using OstrelTest::Lines;

namespace {

std::string user(std::string_view text, std::string_view extra = "") {
    return std::string(R"({"type":"user",)") + std::string(extra) +
           R"("message":{"role":"user","content":")" + std::string(text) + R"("}})";
}

std::string assistant(std::string_view content, std::string_view usage = "", std::string_view extra = "") {
    std::string line = std::string(R"({"type":"assistant",)") + std::string(extra) +
                       R"("message":{"model":"claude-opus-4-1","content":)" + std::string(content);
    if (!usage.empty()) line += R"(,"usage":)" + std::string(usage);
    return line + "}}";
}

std::string usage(int input, int read = 0, int created = 0) {
    return R"({"input_tokens":)" + std::to_string(input) + R"(,"cache_read_input_tokens":)" +
           std::to_string(read) + R"(,"cache_creation_input_tokens":)" + std::to_string(created) +
           R"(,"output_tokens":9})";
}

using P = AgentPhase;
using R = TranscriptReading;

struct Case {
    const char* name;
    Lines lines;
    std::optional<TranscriptReading> expected;
};

class ParseCases : public testing::TestWithParam<Case> {};

TEST_P(ParseCases, ReadsTheNewestLines) {
    EXPECT_EQ(ClaudeTranscript::parse(GetParam().lines.views), GetParam().expected);
}

const std::string toolUse =
    R"([{"type":"text","text":"Reading it"},{"type":"tool_use","id":"t1","name":"Read","input":{"file_path":"src/a.ts"}}])";

const Case cases[] = {
    {"NoLines", {}, std::nullopt},
    {"NoObjectLines", {"not json", "", " {\"type\":\"user\"}"}, std::nullopt},
    {"ToolUseAfterTextAwaitsApproval",
     {user("Read auth"), assistant(toolUse, usage(100, 20, 3))},
     R{.model = "claude-opus-4-1",
       .contextUsed = 123,
       .phase = P::awaitingApproval,
       .sessionTitle = "Read auth",
       .pendingToolName = "Read",
       .pendingToolTarget = "src/a.ts"}},
    {"EmptyFilePathFallsToCommand",
     {assistant(R"([{"type":"tool_use","name":"Bash","input":{"file_path":"","command":"ls -la"}}])")},
     R{.phase = P::awaitingApproval, .pendingToolName = "Bash", .pendingToolTarget = "ls -la"}},
    {"ToolWithoutTargetKeysHasEmptyTarget",
     {assistant(R"([{"type":"tool_use","name":"TodoWrite","input":{"todos":[]}}])")},
     R{.phase = P::awaitingApproval, .pendingToolName = "TodoWrite", .pendingToolTarget = ""}},
    {"LastNamedToolUseIsPending",
     {assistant(R"([{"type":"tool_use","name":"A","input":{"path":"a"}},{"type":"tool_use","input":{}}])")},
     R{.phase = P::awaitingApproval, .pendingToolName = "A", .pendingToolTarget = "a"}},
    {"TextOnlyEndsTheTurn",
     {assistant(R"([{"type":"thinking"},{"type":"text","text":"Done"}])")},
     R{.phase = P::turnEnded}},
    {"StringContentEndsTheTurn", {assistant(R"("All done")")}, R{.phase = P::turnEnded}},
    {"ThinkingOnlyIsRunning", {assistant(R"([{"type":"thinking"}])")}, R{.phase = P::running}},
    {"EmptyTextIsRunning", {assistant(R"("")")}, R{.phase = P::running}},
    {"ClearResetsContextAndDropsModel",
     {assistant(R"("hi")", usage(5000)), user("<command-name>/clear</command-name>")},
     R{.contextUsed = 0, .phase = P::turnEnded}},
    {"ZeroUsageLeavesItToAnOlderRecord",
     {assistant(R"("a")", usage(700)), assistant(R"("b")", usage(0, 0, 0))},
     R{.model = "claude-opus-4-1", .contextUsed = 700, .phase = P::turnEnded}},
    {"SidechainChangesNothing",
     {assistant(R"("done")"), user("subagent task", R"("isSidechain":true,)"),
      assistant(R"("sub")", usage(9), R"("isSidechain":true,)")},
     R{.phase = P::turnEnded}},
    {"ToolAnswerRunsButGivesNoTitle",
     {user("Fix the bug"), assistant(toolUse),
      R"({"type":"user","toolUseResult":{"stdout":"x"},"message":{"content":[{"type":"tool_result","content":"ok"}]}})"},
     R{.phase = P::running, .sessionTitle = "Fix the bug"}},
    {"MetaUserRecordIsPassedOver",
     {assistant(R"("done")"), user("hook output", R"("isMeta":true,)")},
     R{.phase = P::turnEnded}},
    {"PermissionModeFromAnyRecordType",
     {R"({"type":"permission-mode","permissionMode":"plan"})",
      R"({"type":"progress","permissionMode":"acceptEdits"})", R"({"type":"user","permissionMode":7})"},
     R{.permissionMode = "acceptEdits", .phase = P::running}},
    {"NonIntegerCountsCountZero",
     {assistant(R"("x")", R"({"input_tokens":1.5,"cache_read_input_tokens":400.0})")},
     R{.model = "claude-opus-4-1", .contextUsed = 400, .phase = P::turnEnded}},
    {"OverflowingCountsAreIgnored",
     {assistant(R"("x")",
                R"({"input_tokens":9223372036854775807,"cache_read_input_tokens":9223372036854775807})")},
     R{.phase = P::turnEnded}},
    {"SpacedSpellingIsNotRead", {R"({"type": "assistant", "message": {"content": "hi"}})"}, std::nullopt},
    {"InjectedUserTextKeepsLookingForATitle",
     {user("Refactor the store"), assistant(R"("ok")"), user("Caveat: local command output")},
     R{.phase = P::running, .sessionTitle = "Refactor the store"}},
    {"BrokenNewestLineIsSkipped",
     {assistant(R"("ok")"), R"({"type":"assistant","message":{"content":)"},
     R{.phase = P::turnEnded}},
};

INSTANTIATE_TEST_SUITE_P(ClaudeTranscript, ParseCases, testing::ValuesIn(cases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ClaudeTranscript, OlderRecordsDontOverrideNewerOnes) {
    Lines lines{user("First task", R"("permissionMode":"plan",)"), assistant(R"("a")", usage(10)),
                user("Second task", R"("permissionMode":"default",)"), assistant(R"("b")", usage(20))};
    auto reading = ClaudeTranscript::parse(lines.views);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->contextUsed, 20);
    EXPECT_EQ(reading->permissionMode, "default");
    EXPECT_EQ(reading->sessionTitle, "Second task");
}

TEST(ClaudeTranscript, ClearSuccessorIsDecidedByTheFirstPersonsText) {
    struct ClearCase {
        Lines head;
        bool expected;
    };
    const ClearCase clearCases[] = {
        {{user("<command-name>/clear</command-name>")}, true},
        {{R"({"type":"user","message":{"content":[{"type":"text","text":"<command-name>/clear</command-name>"}]}})"},
         true},
        {{user("<command-name>/clear</command-name>", R"("isMeta":true,)"), user("hello")}, false},
        {{R"({"type":"user","message":{"content":[{"type":"image"}]}})",
          user("<command-name>/clear</command-name>")},
         true},
        {{R"({"type":"summary"})", user("hello"), user("<command-name>/clear</command-name>")}, false},
        {{}, false},
    };
    for (const auto& c : clearCases)
        EXPECT_EQ(ClaudeTranscript::isClearSuccessor(c.head.views), c.expected) << c.head.owned.size();
}

} // namespace
