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

struct Reading {
    TranscriptReading value;
    Reading& model(std::string m) { return value.model = std::move(m), *this; }
    Reading& used(std::int64_t n) { return value.contextUsed = n, *this; }
    Reading& mode(std::string m) { return value.permissionMode = std::move(m), *this; }
    Reading& phase(AgentPhase p) { return value.phase = p, *this; }
    Reading& title(std::string t) { return value.sessionTitle = std::move(t), *this; }
    Reading& tool(std::string name, std::string target) {
        value.pendingToolName = std::move(name);
        value.pendingToolTarget = std::move(target);
        return *this;
    }
};

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
     Reading()
         .model("claude-opus-4-1")
         .used(123)
         .phase(AgentPhase::awaitingApproval)
         .title("Read auth")
         .tool("Read", "src/a.ts")
         .value},
    {"EmptyFilePathFallsToCommand",
     {assistant(R"([{"type":"tool_use","name":"Bash","input":{"file_path":"","command":"ls -la"}}])")},
     Reading().phase(AgentPhase::awaitingApproval).tool("Bash", "ls -la").value},
    {"ToolWithoutTargetKeysHasEmptyTarget",
     {assistant(R"([{"type":"tool_use","name":"TodoWrite","input":{"todos":[]}}])")},
     Reading().phase(AgentPhase::awaitingApproval).tool("TodoWrite", "").value},
    {"LastNamedToolUseIsPending",
     {assistant(R"([{"type":"tool_use","name":"A","input":{"path":"a"}},{"type":"tool_use","input":{}}])")},
     Reading().phase(AgentPhase::awaitingApproval).tool("A", "a").value},
    {"TextOnlyEndsTheTurn",
     {assistant(R"([{"type":"thinking"},{"type":"text","text":"Done"}])")},
     Reading().phase(AgentPhase::turnEnded).value},
    {"StringContentEndsTheTurn", {assistant(R"("All done")")}, Reading().phase(AgentPhase::turnEnded).value},
    {"ThinkingOnlyIsRunning",
     {assistant(R"([{"type":"thinking"}])")},
     Reading().phase(AgentPhase::running).value},
    {"EmptyTextIsRunning", {assistant(R"("")")}, Reading().phase(AgentPhase::running).value},
    {"ClearResetsContextAndDropsModel",
     {assistant(R"("hi")", usage(5000)), user("<command-name>/clear</command-name>")},
     Reading().used(0).phase(AgentPhase::turnEnded).value},
    {"ZeroUsageLeavesItToAnOlderRecord",
     {assistant(R"("a")", usage(700)), assistant(R"("b")", usage(0, 0, 0))},
     Reading().model("claude-opus-4-1").used(700).phase(AgentPhase::turnEnded).value},
    {"SidechainChangesNothing",
     {assistant(R"("done")"), user("subagent task", R"("isSidechain":true,)"),
      assistant(R"("sub")", usage(9), R"("isSidechain":true,)")},
     Reading().phase(AgentPhase::turnEnded).value},
    {"ToolAnswerRunsButGivesNoTitle",
     {user("Fix the bug"), assistant(toolUse),
      R"({"type":"user","toolUseResult":{"stdout":"x"},"message":{"content":[{"type":"tool_result","content":"ok"}]}})"},
     Reading().phase(AgentPhase::running).title("Fix the bug").value},
    {"MetaUserRecordIsPassedOver",
     {assistant(R"("done")"), user("hook output", R"("isMeta":true,)")},
     Reading().phase(AgentPhase::turnEnded).value},
    {"PermissionModeFromAnyRecordType",
     {R"({"type":"permission-mode","permissionMode":"plan"})",
      R"({"type":"progress","permissionMode":"acceptEdits"})", R"({"type":"user","permissionMode":7})"},
     Reading().mode("acceptEdits").phase(AgentPhase::running).value},
    {"NonIntegerCountsCountZero",
     {assistant(R"("x")", R"({"input_tokens":1.5,"cache_read_input_tokens":400.0})")},
     Reading().model("claude-opus-4-1").used(400).phase(AgentPhase::turnEnded).value},
    {"OverflowingCountsAreIgnored",
     {assistant(R"("x")",
                R"({"input_tokens":9223372036854775807,"cache_read_input_tokens":9223372036854775807})")},
     Reading().phase(AgentPhase::turnEnded).value},
    {"SpacedSpellingIsNotRead", {R"({"type": "assistant", "message": {"content": "hi"}})"}, std::nullopt},
    {"InjectedUserTextKeepsLookingForATitle",
     {user("Refactor the store"), assistant(R"("ok")"), user("Caveat: local command output")},
     Reading().phase(AgentPhase::running).title("Refactor the store").value},
    {"BrokenNewestLineIsSkipped",
     {assistant(R"("ok")"), R"({"type":"assistant","message":{"content":)"},
     Reading().phase(AgentPhase::turnEnded).value},
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
