// The transcript feed over inline fixture lines of the three agents.
#include "OstrelCore/TranscriptFeed.h"

#include "support/TranscriptLines.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace OstrelCore;
using OstrelTest::Lines;
using TranscriptFeed::Entry;
using TranscriptFeed::Provider;
using TranscriptFeed::Role;

namespace {

std::vector<Entry> feed(const Lines& lines, Provider provider, int limit = 50) {
    return TranscriptFeed::entries(lines.views, provider, limit);
}

std::string claudeUser(std::string_view uuid, std::string_view content) {
    return R"({"type":"user","uuid":")" + std::string(uuid) +
           R"(","timestamp":"2025-12-16T02:00:00.000Z","message":{"role":"user","content":)" +
           std::string(content) + "}}";
}

std::string claudeAssistant(std::string_view uuid, std::string_view content) {
    return R"({"type":"assistant","uuid":")" + std::string(uuid) + R"(","message":{"content":)" +
           std::string(content) + "}}";
}

// Built by appending: g++ 12 warns falsely on `"[" + std::string(...)`.
std::string inArray(std::string_view items) {
    std::string s = "[";
    s += items;
    s += "]";
    return s;
}

std::string jsonText(std::string_view text) {
    return nlohmann::json(std::string(text)).dump();
}

std::string codex(std::string_view payload) {
    return R"({"timestamp":"2026-01-02T03:04:05.000Z","type":"response_item","payload":)" +
           std::string(payload) + "}";
}

std::string toolUse(std::string_view id, std::string_view name, std::string_view input) {
    return R"({"type":"tool_use","id":")" + std::string(id) + R"(","name":")" + std::string(name) +
           R"(","input":)" + std::string(input) + "}";
}

std::string toolResult(std::string_view id, std::string_view extra) {
    return R"({"tool_use_id":")" + std::string(id) + R"(","type":"tool_result",)" + std::string(extra) + "}";
}

TEST(TranscriptFeed, ClaudeRecordBecomesUserAssistantAndToolEntries) {
    Lines lines{claudeUser("u0", jsonText("Read the auth module")),
                claudeAssistant(
                    "u1", inArray(R"({"type":"text","text":"First"},{"type":"thinking"},)"
                                  R"({"type":"text","text":"Second"},)" +
                                  toolUse("t1", "Read", R"({"file_path":"","command":["git","status"]})")))};
    auto entries = feed(lines, Provider::claude);
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0], (Entry{"u0", Role::user, "Read the auth module", std::nullopt, std::nullopt,
                                 InternetDateTime::parseMilliseconds("2025-12-16T02:00:00Z")}));
    EXPECT_EQ(entries[1].id, "u1");
    EXPECT_EQ(entries[2].id, "u1#1");
    EXPECT_EQ(entries[2].text, "Second");
    EXPECT_EQ(entries[3], (Entry{"u1#2", Role::tool, "", "Read", "git status", std::nullopt}));
}

TEST(TranscriptFeed, ToolFailureTurnsTheCallsEntryIntoAnError) {
    struct Case {
        const char* name;
        std::string result;
        Role role;
        std::string text;
    };
    const Case cases[] = {
        {"TextResult", toolResult("t1", R"("content":"No such file","is_error":true)"), Role::error,
         "No such file"},
        {"BlockResult",
         toolResult("t1", R"("content":[{"type":"image"},{"type":"text","text":"denied"}],"is_error":true)"),
         Role::error, "denied"},
        {"EmptyResultKeepsText", toolResult("t1", R"("content":"","is_error":true)"), Role::error, ""},
        {"NotAnError", toolResult("t1", R"("content":"ok","is_error":false)"), Role::tool, ""},
        {"NoFlag", toolResult("t1", R"("content":"ok")"), Role::tool, ""},
        {"UnknownCall", toolResult("t9", R"("content":"x","is_error":true)"), Role::tool, ""},
    };
    for (const auto& c : cases) {
        Lines lines{claudeAssistant("a1", inArray(toolUse("t1", "Bash", R"({"command":"ls"})"))),
                    claudeUser("u2", inArray(c.result))};
        auto entries = feed(lines, Provider::claude);
        ASSERT_EQ(entries.size(), 1u) << c.name;
        EXPECT_EQ(entries[0].role, c.role) << c.name;
        EXPECT_EQ(entries[0].text, c.text) << c.name;
        EXPECT_EQ(entries[0].target, "ls") << c.name;
    }
}

TEST(TranscriptFeed, ToolAnswerRecordsGiveOnlyTheirFailures) {
    std::string call = claudeAssistant("a1", inArray(toolUse("t1", "Bash", R"({"command":"make"})")));
    std::string answer =
        R"({"type":"user","toolUseResult":{"stdout":"built"},"uuid":"r1","message":{"content":[)" +
        toolResult("t1", R"("content":"built")") + R"(,{"type":"text","text":"tool words"}]}})";
    std::string failing = R"({"type":"user","toolUseResult":"Error","uuid":"r2","message":{"content":[)" +
                          toolResult("t1", R"("content":"make: *** failed","is_error":true)") + "]}}";
    auto quiet = feed(Lines{call, answer}, Provider::claude);
    ASSERT_EQ(quiet.size(), 1u);
    EXPECT_EQ(quiet[0].role, Role::tool);
    auto failed = feed(Lines{call, failing}, Provider::claude);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].role, Role::error);
    EXPECT_EQ(failed[0].text, "make: *** failed");
}

TEST(TranscriptFeed, CodexOutputsAreDecodedOnlyWhenTheyMayReportFailure) {
    struct Case {
        std::string output;
        Role role;
    };
    const Case cases[] = {
        {R"("{\"output\":\"x\",\"metadata\":{\"exit_code\":0,\"duration_seconds\":1}}")", Role::tool},
        {R"("{\"output\":\"x\",\"metadata\":{\"exit_code\": 10}}")", Role::error},
        {R"("{\"output\":\"x\",\"metadata\":{\"exit_code\":-1}}")", Role::error},
        {R"({"output":"{\"metadata\":{\"exit_code\":3}}"})", Role::error},
        {R"("Process running\nProcess exited with code 2\nOutput:\nboom")", Role::error},
        {R"("Exit code: 0\nOutput:\nfine")", Role::tool},
        {R"("plain output")", Role::tool},
    };
    for (const auto& c : cases) {
        Lines lines{codex(R"({"type":"function_call","name":"shell","arguments":"{}","call_id":"c1"})"),
                    codex(R"({"type":"function_call_output","call_id":"c1","output":)" + c.output + "}")};
        auto entries = feed(lines, Provider::codex);
        ASSERT_EQ(entries.size(), 1u) << c.output;
        EXPECT_EQ(entries[0].role, c.role) << c.output;
    }
}

TEST(TranscriptFeed, UserTextsThatTheInterfaceInjectedAreLeftOut) {
    struct Case {
        std::string text;
        std::optional<std::string> entry;
    };
    const Case cases[] = {
        {"Caveat: The messages below were generated", std::nullopt},
        {"<local-command-stdout>x</local-command-stdout>", std::nullopt},
        {"[Request interrupted by user]", std::nullopt},
        {"<command-name>/model</command-name><command-args>opus</command-args>", "/model opus"},
        {"<command-message>review</command-message>\n<command-name>/review</command-name>\n<command-args></"
         "command-args>",
         "/review"},
        {"   plain words  ", "plain words"},
    };
    for (const auto& c : cases) {
        Lines lines{claudeUser("u", jsonText(c.text))};
        auto entries = feed(lines, Provider::claude);
        if (!c.entry) {
            EXPECT_TRUE(entries.empty()) << c.text;
        } else {
            ASSERT_EQ(entries.size(), 1u) << c.text;
            EXPECT_EQ(entries[0].text, *c.entry);
        }
    }
}

TEST(TranscriptFeed, SidechainMetaAndOtherRecordsArePassedOver) {
    Lines lines{
        R"({"type":"user","isSidechain":true,"uuid":"s","message":{"content":"sub"}})",
        R"({"type":"user","isMeta":true,"uuid":"m","message":{"content":"meta"}})",
        R"({"type":"summary","summary":"x"})", R"({"type":"user","uuid":"n","message":"not an object"})",
        R"({"type":"user","isCompactSummary":true,"uuid":"c","message":{"content":"This session is..."}})"};
    auto entries = feed(lines, Provider::claude);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].role, Role::notice);
    EXPECT_EQ(entries[0].id, "c");
}

TEST(TranscriptFeed, LongTextIsClampedWithAnEllipsis) {
    Lines lines{claudeAssistant("a", jsonText("  " + std::string(2000, 'x') + "  "))};
    auto entries = feed(lines, Provider::claude);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].text, std::string(1200, 'x') + "…");
    EXPECT_EQ(TranscriptFeed::clamp(std::string(1200, 'y') + "   ", 1200), std::string(1200, 'y'));
    EXPECT_EQ(TranscriptFeed::clamp(" \n ", 1200), "");
}

TEST(TranscriptFeed, IdsAreStableAcrossReadsAndAMovingWindow) {
    Lines lines{
        codex(R"({"type":"agent_message","message":"one"})"),
        codex(
            R"({"type":"function_call","name":"shell","arguments":"{\"command\":[\"ls\"]}","call_id":"c1"})"),
        codex(R"({"type":"agent_message","message":"two"})"),
        codex(R"({"type":"agent_message","message":"two"})")};
    auto first = feed(lines, Provider::codex);
    EXPECT_EQ(first, feed(lines, Provider::codex));
    ASSERT_EQ(first.size(), 4u);
    EXPECT_EQ(first[1].id, "c1");
    EXPECT_NE(first[2].id, first[3].id); // one line written twice still gives two identities

    Lines moved{lines.owned[1], lines.owned[2], lines.owned[3]};
    auto later = feed(moved, Provider::codex);
    ASSERT_EQ(later.size(), 3u);
    EXPECT_EQ(later[0].id, first[1].id);
    EXPECT_EQ(later[1].id, first[2].id);
}

TEST(TranscriptFeed, ResultForACallCutFromTheBufferChangesNothing) {
    std::vector<std::string> lines{
        claudeAssistant("a", inArray(toolUse("t1", "Bash", R"({"command":"make"})")))};
    for (int i = 0; i < 80; ++i)
        lines.push_back(claudeAssistant(std::string("x").append(std::to_string(i)),
                                        jsonText(std::string("step ").append(std::to_string(i)))));
    lines.push_back(claudeUser("r", inArray(toolResult("t1", R"("content":"boom","is_error":true)"))));
    lines.push_back(claudeAssistant("b", inArray(toolUse("t2", "Bash", R"({"command":"test"})"))));
    lines.push_back(claudeUser("r2", inArray(toolResult("t2", R"("content":"fail","is_error":true)"))));
    auto entries = TranscriptFeed::entries(Lines(lines).views, Provider::claude, 1);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].id, "b");
    EXPECT_EQ(entries[0].role, Role::error);

    // With a larger limit the first call is still in the buffer and fails in place.
    auto all = TranscriptFeed::entries(Lines(lines).views, Provider::claude, 200);
    EXPECT_EQ(all.front().role, Role::error);
    EXPECT_EQ(all.front().text, "boom");
}

TEST(TranscriptFeed, LimitIsKeptBetweenNothingAndTheCap) {
    std::vector<std::string> lines;
    for (int i = 0; i < 20100; ++i)
        lines.push_back(codex(R"({"type":"agent_message","message":"m)" + std::to_string(i) + R"("})"));
    auto entries = TranscriptFeed::entries(Lines(lines).views, Provider::codex, 10000);
    ASSERT_EQ(entries.size(), 10000u);
    EXPECT_EQ(entries.back().text, "m20099");
    EXPECT_EQ(entries.front().text, "m10100");
    for (int limit : {0, -3})
        EXPECT_TRUE(TranscriptFeed::entries(Lines(lines).views, Provider::codex, limit).empty()) << limit;
    EXPECT_EQ(TranscriptFeed::entries(Lines(lines).views, Provider::codex, 1).size(), 1u);
}

TEST(TranscriptFeed, CodexRecords) {
    Lines lines{
        R"({"timestamp":"2026-01-02T03:04:07.000Z","type":"event_msg","payload":{"type":"user_message","message":"List files"}})",
        codex(
            R"({"type":"function_call","name":"exec_command","arguments":"{\"cmd\":\"find .\"}","call_id":"c1"})"),
        codex(
            R"({"type":"function_call_output","call_id":"c1","output":"{\"output\":\"ok\",\"metadata\":{\"exit_code\":0}}"})"),
        codex(
            R"({"type":"function_call","name":"shell","arguments":{"command":["make","test"]},"call_id":"c2"})"),
        codex(
            R"({"type":"function_call_output","call_id":"c2","output":"{\"output\":\"2 failed\",\"metadata\":{\"exit_code\":2}}"})"),
        codex(
            R"({"type":"custom_tool_call","name":"apply_patch","input":"*** Begin Patch\n*** Update File: src/a.c\n@@\n*** End Patch","call_id":"c3"})"),
        codex(
            R"({"type":"custom_tool_call_output","call_id":"c3","output":"exited with code 1\nOutput:\npatch rejected"})"),
        codex(
            R"({"type":"local_shell_call","call_id":"c4","action":{"type":"exec","command":["ls","-la"]}})"),
        codex(R"({"type":"local_shell_call_output","call_id":"c4","output":"Exit code: 0\nOutput:\n."})"),
        codex(
            R"({"type":"web_search_call","id":"ws1","status":"failed","action":{"type":"search","query":"nlohmann"}})"),
        R"({"timestamp":"x","type":"event_msg","payload":{"type":"turn_aborted","turn_id":"t1","reason":"interrupted"}})",
        R"({"type":"event_msg","payload":{"type":"context_compacted"}})",
        R"({"type":"event_msg","payload":{"type":"agent_message","message":"Done."}})",
        R"({"type":"function_call","name":"legacy","arguments":"{\"path\":\"/x\"}","call_id":"c5"})",
    };
    auto entries = feed(lines, Provider::codex);
    ASSERT_EQ(entries.size(), 10u);
    EXPECT_EQ(entries[0].role, Role::user);
    EXPECT_EQ(entries[0].at, InternetDateTime::parseMilliseconds("2026-01-02T03:04:07Z"));
    EXPECT_EQ(entries[1], (Entry{"c1", Role::tool, "", "exec_command", "find .",
                                 InternetDateTime::parseMilliseconds("2026-01-02T03:04:05Z")}));
    EXPECT_EQ(entries[2].role, Role::error);
    EXPECT_EQ(entries[2].text, "2 failed");
    EXPECT_EQ(entries[2].target, "make test");
    EXPECT_EQ(entries[3].role, Role::error);
    EXPECT_EQ(entries[3].target, "src/a.c");
    EXPECT_EQ(entries[3].text, "patch rejected");
    EXPECT_EQ(entries[4].role, Role::tool);
    EXPECT_EQ(entries[4].tool, "shell");
    EXPECT_EQ(entries[4].target, "ls -la");
    EXPECT_EQ(entries[5], (Entry{"ws1", Role::error, "", "web_search", "nlohmann",
                                 InternetDateTime::parseMilliseconds("2026-01-02T03:04:05Z")}));
    EXPECT_EQ(entries[6], (Entry{"t1", Role::notice, "turn_aborted: interrupted", std::nullopt, std::nullopt,
                                 std::nullopt}));
    EXPECT_EQ(entries[7].text, "context_compacted");
    EXPECT_EQ(entries[8].text, "Done.");
    EXPECT_EQ(entries[9].target, "/x"); // an early record without the envelope
}

TEST(TranscriptFeed, GeminiRewrittenRecordIsReplacedInPlace) {
    Lines lines{
        R"({"id":"u1","timestamp":"2026-04-29T21:39:33.155Z","type":"user","content":[{"text":"List files"}]})",
        R"({"id":"g1","type":"gemini","content":"","toolCalls":[{"name":"run_shell_command","args":{"command":"ls"},"status":"scheduled"}]})",
        R"({"id":"i1","type":"info","content":"ignored"})",
        R"({"id":"u2","type":"user","content":"/stats"})",
        R"({"id":"g1","type":"gemini","content":"Here they are","toolCalls":[{"name":"run_shell_command","args":{"command":"ls"},"status":"error","result":[{"functionResponse":{"response":{"error":"denied"}}}]}]})",
        R"({"id":"e1","type":"error","content":"Quota exceeded"})",
    };
    auto entries = feed(lines, Provider::gemini);
    ASSERT_EQ(entries.size(), 5u);
    EXPECT_EQ(entries[0].text, "List files");
    EXPECT_EQ(entries[1],
              (Entry{"g1", Role::assistant, "Here they are", std::nullopt, std::nullopt, std::nullopt}));
    EXPECT_EQ(entries[2], (Entry{"g1#1", Role::error, "denied", "run_shell_command", "ls", std::nullopt}));
    EXPECT_EQ(entries[3], (Entry{"u2", Role::notice, "/stats", std::nullopt, std::nullopt, std::nullopt}));
    EXPECT_EQ(entries[4].role, Role::error);
}

TEST(TranscriptFeed, LegacyGeminiDocument) {
    std::string document =
        R"({"messages":[{"id":"m1","type":"user","content":"Run it"},{"id":"m2","type":"gemini","content":"",)"
        R"("toolCalls":[{"name":"read_file","args":{"file_path":"a.md"},"status":"success","timestamp":"2024-01-01T10:00:01Z"}]}]})";
    auto entries = TranscriptFeed::legacyGeminiEntries(document, 50);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[1], (Entry{"m2", Role::tool, "", "read_file", "a.md",
                                 InternetDateTime::parseMilliseconds("2024-01-01T10:00:01Z")}));
    EXPECT_TRUE(TranscriptFeed::legacyGeminiEntries("{", 50).empty());
}

// A line over the decoding limit is read by substring: tool calls and failures still show.
TEST(TranscriptFeed, HugeLinesAreReadRaw) {
    std::string big(300000, 'z');
    Lines claude{
        R"({"type":"assistant","message":{"content":[{"type":"text","text":"Writing"},)" +
            toolUse("t1", "Write", R"({"file_path":"out.txt","content":")" + big + R"("})") +
            R"(]},"uuid":"a1","timestamp":"2025-12-16T02:00:00Z"})",
        R"({"type":"user","message":{"role":"user","content":[)" +
            toolResult("t1", R"("content":")" + big + R"(","is_error":true)") +
            R"(]},"uuid":"u1","timestamp":"2025-12-16T02:00:01Z"})",
    };
    auto c = feed(claude, Provider::claude);
    ASSERT_EQ(c.size(), 2u);
    EXPECT_EQ(c[0], (Entry{"a1", Role::assistant, "Writing", std::nullopt, std::nullopt,
                           InternetDateTime::parseMilliseconds("2025-12-16T02:00:00Z")}));
    EXPECT_EQ(c[1], (Entry{"a1#1", Role::error, "", "Write", "out.txt",
                           InternetDateTime::parseMilliseconds("2025-12-16T02:00:00Z")}));

    Lines codexLines{
        codex(
            R"({"type":"function_call","name":"shell","arguments":"{\"command\":[\"cat\",\"big.log\"],\"x\":\")" +
            big + R"(\"}","call_id":"c1"})"),
        codex(R"({"type":"function_call_output","call_id":"c1","output":"{\"output\":\")" + big +
              R"(\",\"metadata\":{\"exit_code\":1}}"})"),
    };
    auto x = feed(codexLines, Provider::codex);
    ASSERT_EQ(x.size(), 1u);
    EXPECT_EQ(x[0], (Entry{"c1", Role::error, "", "shell", "cat big.log",
                           InternetDateTime::parseMilliseconds("2026-01-02T03:04:05Z")}));

    Lines geminiLines{
        R"({"id":"g1","type":"gemini","content":"Reading","toolCalls":[{"name":"read_file","args":{"file_path":"a"},"result":")" +
        big + R"(","status":"cancelled"}]})"};
    auto g = feed(geminiLines, Provider::gemini);
    ASSERT_EQ(g.size(), 2u);
    EXPECT_EQ(g[1], (Entry{"g1#1", Role::error, "", "read_file", "a", std::nullopt}));

    // Only the ends of a large line are searched for its type.
    std::string middle = std::string(20000, 'a') + R"("type":"user")" + std::string(20000, 'a');
    EXPECT_TRUE(feed(Lines{R"({"pad":")" + middle + R"(","uuid":"x"})"}, Provider::claude).empty());
}

TEST(TranscriptFeed, EntryJSONRoundTrips) {
    Entry entry{"u1#2", Role::tool, "",
                "Read", "a.ts",     InternetDateTime::parseMilliseconds("2025-12-16T02:00:00.250Z")};
    nlohmann::json encoded = TranscriptFeed::toJSON(entry);
    EXPECT_EQ(
        encoded.dump(),
        R"({"at":"2025-12-16T02:00:00.250Z","id":"u1#2","role":"tool","target":"a.ts","text":"","tool":"Read"})");
    EXPECT_EQ(TranscriptFeed::entryFromJSON(encoded), entry);
    Entry bare{"7", Role::notice, "x", std::nullopt, std::nullopt, std::nullopt};
    EXPECT_EQ(TranscriptFeed::toJSON(bare).size(), 3u);
    EXPECT_EQ(TranscriptFeed::entryFromJSON(nlohmann::json::parse(R"({"id":"1","role":"robot","text":""})")),
              std::nullopt);
}

} // namespace
