// Tool calls read from the three transcript layouts, and the trace panel's questions on them.
#include "OstrelCore/ToolTrace.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace OstrelCore {
namespace {

using Provider = ToolTrace::Provider;

std::vector<ToolEvent> eventsOf(std::vector<std::string> lines, Provider provider) {
    return ToolTrace::events(std::span<const std::string>(lines), provider);
}

ToolEvent event(std::string id, std::string name, std::optional<std::string> target,
                std::optional<double> at = std::nullopt, std::optional<bool> succeeded = true) {
    ToolEvent e;
    e.id = std::move(id);
    e.category = ToolTrace::category(name);
    e.name = std::move(name);
    e.target = std::move(target);
    e.timestamp = at;
    e.succeeded = succeeded;
    return e;
}

TEST(ToolTraceTest, CategoryFollowsTheTableThenNamespacesThenKeywords) {
    struct Case {
        std::string_view name;
        ToolCategory expected;
    } cases[] = {
        {"Read", ToolCategory::read},
        {"apply_patch", ToolCategory::edit},
        {"write_file", ToolCategory::write},
        {"run_shell_command", ToolCategory::execute},
        {"LS", ToolCategory::search},
        {"google_web_search", ToolCategory::web},
        {"Agent", ToolCategory::task},
        {"update_plan", ToolCategory::todo},
        {"read", ToolCategory::other},
        {"mcp__server__read_file", ToolCategory::read},
        {"mcp__a__b__Write", ToolCategory::write},
        {"mcp__server__do", ToolCategory::other},
        {"x__", ToolCategory::other},
        {"SearchWebFetch", ToolCategory::search},
        {"url_fetcher", ToolCategory::web},
        {"mcp__docs__SEARCH_all", ToolCategory::search},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ToolTrace::category(c.name), c.expected) << c.name;
}

TEST(ToolTraceTest, ClaudeCallsAreClosedByTheirResultsWithDurationAndErrorAndCountedOnce) {
    auto events = eventsOf(
        {
            R"({"type":"assistant","timestamp":"2025-06-01T10:00:00Z","message":{"content":[)"
            R"({"type":"text","text":"Looking"},)"
            R"({"type":"tool_use","id":"t1","name":"Read","input":{"file_path":"/repo/a.txt","limit":5}},)"
            R"({"type":"tool_use","id":"t2","name":"Bash","input":{"description":"list","command":"ls -la"}}]}})",
            R"({"type":"user","timestamp":"2025-06-01T10:00:02.500Z","message":{"content":[)"
            R"({"type":"tool_result","tool_use_id":"t1","content":"ok"}]}})",
            R"({"type":"user","timestamp":"2025-06-01T10:00:04Z","message":{"content":[)"
            R"({"type":"tool_result","tool_use_id":"t2","is_error":true,"content":[{"type":"text","text":"ls:\n  no such\tfile"}]}]}})",
            R"({"type":"user","message":{"content":[{"type":"tool_result","tool_use_id":"ghost","content":"x"}]}})",
            R"({"type":"assistant","isSidechain":true,"message":{"content":[{"type":"tool_use","id":"t3","name":"Grep","input":{"pattern":"TODO"}}]}})",
            // A streamed call is written again: still one event.
            R"({"type":"assistant","isSidechain":true,"message":{"content":[{"type":"tool_use","id":"t3","name":"Grep","input":{"pattern":"TODO"}}]}})",
        },
        Provider::claude);

    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].target, "/repo/a.txt");
    EXPECT_EQ(events[0].succeeded, true);
    EXPECT_DOUBLE_EQ(*events[0].durationSeconds, 2.5);
    EXPECT_EQ(events[1].target, "ls -la");
    EXPECT_EQ(events[1].succeeded, false);
    EXPECT_EQ(events[1].error, "ls: no such file");
    EXPECT_DOUBLE_EQ(*events[1].durationSeconds, 4.0);
    EXPECT_TRUE(events[2].isSidechain);
    EXPECT_EQ(events[2].succeeded, std::nullopt);
    EXPECT_EQ(events[2].timestamp, std::nullopt);
}

TEST(ToolTraceTest, TargetIsTheFirstKeyHoldingTextAndIsCutTo300Characters) {
    struct Case {
        std::string input;
        std::optional<std::string> expected;
    } cases[] = {
        {R"({"command":"make","file_path":"/a"})", "/a"},
        {R"({"file_path":"","command":"make"})", "make"},
        {R"({"prompt":"do it","description":"short"})", "short"},
        {R"({"todos":[{"content":"x"}]})", std::nullopt},
        {R"({"command":["bash","-lc","ls -la"]})", "ls -la"},
        {R"({"command":["git","status"]})", "git status"},
        {R"({"file_path":")" + std::string(400, 'a') + R"("})", std::string(299, 'a') + "…"},
    };
    for (const Case& c : cases) {
        auto events = eventsOf(
            {R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"t","name":"X","input":)" +
             c.input + "}]}}"},
            Provider::claude);
        ASSERT_EQ(events.size(), 1u) << c.input;
        EXPECT_EQ(events[0].target, c.expected) << c.input;
    }
}

TEST(ToolTraceTest, LinesThatDoNotDecodeOrAreHugeAreReadRaw) {
    // A torn last line, as a live tail shows it, and a huge result line of which only the ends
    // are read.
    std::string torn =
        R"({"type":"assistant","isSidechain":true,"timestamp":"2025-06-01T10:00:00Z","message":{"content":[)"
        R"({"type":"tool_use","id":"toolu_1","name":"Write","input":{"file_path":"/repo/big.txt","content":"abc)";
    std::string huge = R"({"type":"user","timestamp":"2025-06-01T10:00:09Z","message":{"content":[)"
                       R"({"tool_use_id":"toolu_1","type":"tool_result","content":")" +
                       std::string(ToolTrace::largeLineBytes, 'x') + R"(","is_error":true}]}})";
    auto events = eventsOf({torn, huge}, Provider::claude);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].name, "Write");
    EXPECT_EQ(events[0].target, "/repo/big.txt");
    EXPECT_TRUE(events[0].isSidechain);
    EXPECT_EQ(events[0].succeeded, false);
    EXPECT_DOUBLE_EQ(*events[0].durationSeconds, 9.0);
    ASSERT_TRUE(events[0].error);
    EXPECT_LE(events[0].error->size(), ToolTrace::errorLimit * 3 + 3);

    // An identifier longer than the limit ends in an ellipsis; a path that ran off the end of the
    // line is marked as cut, so no file counts it.
    events = eventsOf({R"({"message":{"content":[{"type":"tool_use","id":")" + std::string(120, 'i') +
                       R"(","name":"Read","input":{"file_path":"/x)"},
                      Provider::claude);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].id, std::string(95, 'i') + "…");
    EXPECT_EQ(events[0].target, "/x…");
    EXPECT_TRUE(ToolTrace::filesTouched(events, std::nullopt).empty());

    // A huge Codex output is closed from its ends.
    events = eventsOf(
        {R"({"type":"response_item","payload":{"type":"function_call","name":"exec_command","arguments":"{\"cmd\":\"cat log\"}","call_id":"c9"}})",
         R"({"type":"response_item","payload":{"type":"function_call_output","call_id":"c9","output":"{\"output\":\")" +
             std::string(ToolTrace::largeLineBytes, 'y') + R"(\",\"metadata\":{\"exit_code\":1}}"}})"},
        Provider::codex);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].succeeded, false);
    EXPECT_TRUE(events[0].error.has_value());
}

TEST(ToolTraceTest, CodexCallsPairWithOutputsAndShellsFailByExitCode) {
    auto events = eventsOf(
        {
            R"({"timestamp":"2026-01-02T03:04:09Z","type":"response_item","payload":{"type":"function_call","name":"exec_command","arguments":"{\"cmd\":\"make test\",\"workdir\":\"/r\"}","call_id":"c1"}})",
            R"({"timestamp":"2026-01-02T03:04:12Z","type":"response_item","payload":{"type":"function_call_output","call_id":"c1","output":"Chunk ID: 1\nProcess exited with code 2\nOutput:\nboom: failed"}})",
            R"({"timestamp":"2026-01-02T03:04:13Z","type":"response_item","payload":{"type":"function_call","name":"shell","arguments":"{\"command\":[\"bash\",\"-lc\",\"ls\"]}","call_id":"c2"}})",
            R"({"timestamp":"2026-01-02T03:04:14Z","type":"response_item","payload":{"type":"function_call_output","call_id":"c2","output":"{\"output\":\"a\\nb\",\"metadata\":{\"exit_code\":0,\"duration_seconds\":0.1}}"}})",
            R"({"timestamp":"2026-01-02T03:04:15Z","type":"response_item","payload":{"type":"custom_tool_call","name":"apply_patch","input":"*** Begin Patch\n*** Update File: src/main.c\n@@\n*** End Patch","call_id":"c3"}})",
            R"({"timestamp":"2026-01-02T03:04:16Z","type":"response_item","payload":{"type":"custom_tool_call_output","call_id":"c3","output":[{"type":"output_text","text":"Done!"}]}})",
            R"({"timestamp":"2026-01-02T03:04:17Z","type":"response_item","payload":{"type":"web_search_call","id":"ws1","status":"completed","action":{"type":"search","query":"asio strand"}}})",
            R"({"type":"function_call","name":"shell","arguments":"{\"command\":[\"rm\",\"-rf\",\"build\"]}","call_id":"legacy"})",
            R"({"timestamp":"2026-01-02T03:04:18Z","type":"response_item","payload":{"type":"function_call_output","call_id":"nobody","output":"x"}})",
        },
        Provider::codex);

    ASSERT_EQ(events.size(), 5u);
    EXPECT_EQ(events[0].target, "make test");
    EXPECT_EQ(events[0].succeeded, false);
    EXPECT_EQ(events[0].error, "boom: failed");
    EXPECT_DOUBLE_EQ(*events[0].durationSeconds, 3.0);
    EXPECT_EQ(events[1].target, "ls");
    EXPECT_EQ(events[1].succeeded, true);
    EXPECT_EQ(events[2].target, "src/main.c");
    EXPECT_EQ(events[2].category, ToolCategory::edit);
    EXPECT_EQ(events[2].succeeded, true);
    EXPECT_EQ(events[3].name, "web_search");
    EXPECT_EQ(events[3].target, "asio strand");
    EXPECT_EQ(events[3].succeeded, true);
    EXPECT_EQ(events[4].id, "legacy");
    EXPECT_EQ(events[4].target, "rm -rf build");
    EXPECT_EQ(events[4].succeeded, std::nullopt);
}

TEST(ToolTraceTest, LongStringsAreShortenedWithoutBreakingTheLine) {
    // Two calls in one line, the first with a 20 KB input full of escapes and multi-byte text:
    // only a decoded line shows the second call, which lies beyond the raw reader's reach. The
    // padding moves the cut points across every kind of escape.
    const std::string unit = R"(é\"\\\u00e9\n\ud83d\ude00x)";
    for (int padding = 0; padding < 12; ++padding) {
        std::string content(static_cast<std::size_t>(padding), 'p');
        while (content.size() < 20000)
            content += unit;
        std::string line =
            R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"w","name":"Write","input":{"file_path":"/a","content":")" +
            content + R"("}},{"type":"tool_use","id":"r","name":"Read","input":{"file_path":"/b"}}]}})";
        auto events = eventsOf({line}, Provider::claude);
        ASSERT_EQ(events.size(), 2u) << padding;
        EXPECT_EQ(events[1].target, "/b");
    }
}

TEST(ToolTraceTest, GeminiCallsCarryTheirStatusAndARewrittenRecordClosesThem) {
    auto events = eventsOf(
        {
            R"({"id":"g1","timestamp":"2026-04-29T21:39:35Z","type":"gemini","content":"","toolCalls":[)"
            R"({"id":"c1","name":"read_file","args":{"absolute_path":"/p/a.md"},"status":"success","timestamp":"2026-04-29T21:39:35Z"},)"
            R"({"id":"c2","name":"run_shell_command","args":{"command":"make","description":"Build"},"status":"error",)"
            R"("result":[{"functionResponse":{"id":"c2","name":"run_shell_command","response":{"error":"exit 2"}}}]},)"
            R"({"id":"c3","name":"replace","args":{"file_path":"/p/b.c"},"status":"executing","timestamp":"2026-04-29T21:39:36Z"}]})",
            R"({"id":"g1","timestamp":"2026-04-29T21:39:40Z","type":"gemini","content":"","toolCalls":[)"
            R"({"id":"c3","name":"replace","args":{"file_path":"/p/b.c"},"status":"cancelled","timestamp":"2026-04-29T21:39:36Z"}]})",
        },
        Provider::gemini);

    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].target, "/p/a.md");
    EXPECT_EQ(events[0].succeeded, true);
    EXPECT_EQ(events[1].target, "make");
    EXPECT_EQ(events[1].error, "exit 2");
    EXPECT_EQ(events[2].succeeded, false);
    EXPECT_EQ(events[2].error, "cancelled");
    EXPECT_DOUBLE_EQ(*events[2].durationSeconds, 4.0);
}

TEST(ToolTraceTest, AWholeTextIsSplitIntoLinesUnlessItIsALegacyGeminiDocument) {
    std::string document = R"({
  "sessionId": "s",
  "messages": [
    {"id": "u1", "type": "user", "content": "hi"},
    {"id": "a1", "type": "gemini", "content": "", "toolCalls": [
      {"id": "c1", "name": "list_directory", "args": {"dir_path": "/p"}, "status": "success"}]}
  ]
})";
    auto events = eventsOf({document}, Provider::gemini);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].target, "/p");

    std::string text =
        R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"a","name":"Read","input":{"path":"x"}}]}})"
        "\n\nnot json\n"
        R"({"type":"assistant","message":{"content":[{"type":"tool_use","id":"b","name":"Read","input":{"path":"y"}}]}})";
    events = ToolTrace::events(std::string_view(text), Provider::claude);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].target, "y");
}

TEST(ToolTraceTest, NormalizeStripsOnlyTheBaseFolderPrefix) {
    struct Case {
        std::string_view path;
        std::optional<std::string_view> base;
        std::string_view expected;
    } cases[] = {
        {"/repo/src/a.c", std::nullopt, "/repo/src/a.c"},
        {"/repo/src/a.c", "", "/repo/src/a.c"},
        {"/repo/src/a.c", "/repo", "src/a.c"},
        {"/repo/src/a.c", "/repo///", "src/a.c"},
        {"/repo2/a.c", "/repo", "/repo2/a.c"},
        {"/repo", "/repo", "/repo"},
        {"/a", "/", "/a"},
        {"src/a.c", "/repo", "src/a.c"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(ToolTrace::normalize(c.path, c.base), c.expected)
            << c.path << " in " << c.base.value_or("-");
}

TEST(ToolTraceTest, FilesTouchedCountsEditsAndSortsNewestFirst) {
    std::vector<ToolEvent> events = {
        event("1", "Read", "/r/a", 10), event("2", "Edit", "/r/a", 30),
        event("3", "Write", "b", 30), // same lastAt as /r/a, which event 8 touched later: a comes first
        event("4", "Read", "/r/c"),   // no time: last
        event("5", "Bash", "/r/d", 50), event("6", "Read", "/r/cut…", 60),
        event("7", "Edit", "", 70),     event("8", "Edit", "/r/a", 5),
    };
    auto files = ToolTrace::filesTouched(events, "/r/");
    ASSERT_EQ(files.size(), 3u);
    EXPECT_EQ(files[0], (FileTouch{"a", 2, 5.0, 30.0}));
    EXPECT_EQ(files[1], (FileTouch{"b", 1, 30.0, 30.0}));
    EXPECT_EQ(files[2], (FileTouch{"c", 0, std::nullopt, std::nullopt}));
}

TEST(ToolTraceTest, SensitivePathsFollowTheRulesInOrder) {
    for (std::string_view path :
         {".env", "app/.env.local", "config/.ENV.Production", "id_rsa", "home/.ssh/config", "secrets/a",
          "secrets.yaml", "aws_credentials.json", "certs/server.PEM", ".github/workflows/ci.yml"})
        EXPECT_TRUE(ToolTrace::isSensitivePath(path)) << path;
    for (std::string_view path : {".env.example", "id_rsa.pub", ".ssh/config.pub", "notes/my-secrets.txt",
                                  "src/keyboard.ts", "/", "", "README.md"})
        EXPECT_FALSE(ToolTrace::isSensitivePath(path)) << path;
}

TEST(ToolTraceTest, DestructiveCommandsIncludeDownloadsPipedIntoAShell) {
    for (std::string_view command : {"RM -RF build", "git push -f origin main", "psql -c 'DROP TABLE users'",
                                     "wget -qO- x | sh", "curl x | sudo bash -s", "curl x |   zsh"})
        EXPECT_TRUE(ToolTrace::isDestructiveCommand(command)) << command;
    // A pipe into a shell counts only behind a download.
    for (std::string_view command : {"curl http://x | shasum", "curl x | shellcheck -", "cat install.sh | sh",
                                     "curl -O x && sh x", "rm -r build"})
        EXPECT_FALSE(ToolTrace::isDestructiveCommand(command)) << command;
}

TEST(ToolTraceTest, SensitiveTouchesAreWritesToSecretsAndDestructiveCommands) {
    std::vector<ToolEvent> events = {
        event("1", "Read", "secrets/a"), event("2", "Write", "secrets/a"), event("3", "Bash", "rm -rf /"),
        event("4", "Grep", ".env"),      event("5", "Edit", ""),           event("6", "Edit", std::nullopt),
        event("7", "Bash", "ls"),
    };
    auto touches = ToolTrace::sensitiveTouches(events);
    ASSERT_EQ(touches.size(), 2u);
    EXPECT_EQ(touches[0].id, "2");
    EXPECT_EQ(touches[1].id, "3");
}

TEST(ToolTraceTest, SummarizeCountsEveryFacetInOnePassAndRecentKeepsTheLastInOrder) {
    std::vector<ToolEvent> events = {
        event("1", "Read", "/a"),
        event("2", "Read", "/a", std::nullopt, false),
        event("3", "Edit", "a", std::nullopt, std::nullopt), // not normalised: differs from "/a"
        event("4", "Task", "explore"),
        event("5", "Bash", "ls"),
        event("6", "Bash", "pwd"),
        event("7", "Write", "/long…"),
    };
    events[4].isSidechain = true;
    auto summary = ToolTrace::summarize(events, 2);
    EXPECT_EQ(summary.total, 7);
    EXPECT_EQ(summary.count(ToolCategory::read), 2);
    EXPECT_EQ(summary.count(ToolCategory::web), 0);
    EXPECT_EQ(summary.distinctFiles, 2);
    EXPECT_EQ(summary.subagents, 1);
    EXPECT_EQ(summary.sidechainEvents, 1);
    EXPECT_EQ(summary.failures, 1);
    EXPECT_EQ(summary.running, 1);
    EXPECT_EQ(summary.topTools, (std::vector<ToolFrequency>{{"Bash", 2}, {"Read", 2}}));
    EXPECT_TRUE(ToolTrace::summarize(events, -3).topTools.empty());

    EXPECT_TRUE(ToolTrace::recent(events, 0).empty());
    EXPECT_EQ(ToolTrace::recent(events, 9).size(), 7u);
    auto last = ToolTrace::recent(events, 2);
    ASSERT_EQ(last.size(), 2u);
    EXPECT_EQ(last[0].id, "6");
    EXPECT_EQ(last[1].id, "7");
}

} // namespace
} // namespace OstrelCore
