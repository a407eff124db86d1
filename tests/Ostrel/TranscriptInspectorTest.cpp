// ostrel inspect over transcripts the test writes, through the library and the real executable.
#include "Ostrel/TranscriptInspector.h"

#include "support/TemporaryFolder.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sys/wait.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace Ostrel {
namespace {

using namespace OstrelCore;

using OstrelTest::TemporaryFolder;

const char* claudeTranscript =
    R"({"type":"user","message":{"role":"user","content":"Fix the failing parser test"},"uuid":"u1","timestamp":"2026-01-02T10:00:00Z"})"
    "\n"
    R"({"type":"assistant","message":{"model":"claude-sonnet-5","content":[{"type":"text","text":"Running the tests."},{"type":"tool_use","id":"t1","name":"Bash","input":{"command":"rm -rf build && make test"}}],"usage":{"input_tokens":1000,"cache_read_input_tokens":20000,"cache_creation_input_tokens":500}},"uuid":"a1","timestamp":"2026-01-02T10:00:05Z","permissionMode":"default"})"
    "\n";

auto now = std::chrono::sys_days{std::chrono::year{2026} / 1 / 2} + std::chrono::hours(11);

TEST(TranscriptInspector, ExplainsAClaudeTranscriptFoundByItsFolder) {
    TemporaryFolder folder;
    std::string file = folder.write(".claude/projects/-tmp-x/0a1b.jsonl", claudeTranscript);
    auto outcome = TranscriptInspector::inspect(file, std::nullopt, 10, now, nullptr);
    ASSERT_TRUE(outcome.inspection) << outcome.error;
    const auto& r = *outcome.inspection;
    EXPECT_EQ(r.kind, SessionKind::claude);
    EXPECT_TRUE(r.kindGuessed);
    ASSERT_TRUE(r.reading);
    EXPECT_EQ(r.reading->phase, AgentPhase::awaitingApproval);
    EXPECT_EQ(r.reading->pendingToolName, "Bash");
    EXPECT_EQ(r.reading->contextUsed, 21500);
    EXPECT_EQ(r.usableContext, 160000);
    ASSERT_EQ(r.destructive.size(), 1u);
    std::string text = TranscriptInspector::text(r, nullptr);
    EXPECT_NE(text.find("awaiting approval · Bash: rm -rf build && make test"), std::string::npos) << text;
    EXPECT_NE(text.find("21,500 / 160,000 (13%)"), std::string::npos) << text;
    auto json = nlohmann::json::parse(TranscriptInspector::json(r));
    EXPECT_EQ(json["reading"]["phase"], "awaitingApproval");
    EXPECT_EQ(json["toolTrace"]["destructive"].size(), 1u);
}

TEST(TranscriptInspector, GuessesTheAgentFromContentsAndRefusesWhatItCannotTell) {
    TemporaryFolder folder;
    struct Case {
        const char* contents;
        std::optional<SessionKind> kind;
    } cases[] = {
        {claudeTranscript, SessionKind::claude},
        {R"({"timestamp":"2026-01-02T10:00:00Z","type":"session_meta","payload":{"cwd":"/tmp/x"}})"
         "\n",
         SessionKind::codex},
        {R"({"sessionId":"s","projectHash":"abc","kind":"main"})"
         "\n",
         SessionKind::gemini},
        {"just some text\n", std::nullopt},
    };
    for (const auto& c : cases) {
        std::string file = folder.write("t.jsonl", c.contents);
        auto outcome = TranscriptInspector::inspect(file, std::nullopt, 5, now, nullptr);
        if (c.kind) {
            ASSERT_TRUE(outcome.inspection) << c.contents;
            EXPECT_EQ(outcome.inspection->kind, *c.kind);
        } else {
            EXPECT_FALSE(outcome.inspection);
            EXPECT_NE(outcome.error.find("--kind"), std::string::npos);
        }
    }
    auto missing = TranscriptInspector::inspect(folder / "none.jsonl", SessionKind::claude, 5, now, nullptr);
    EXPECT_FALSE(missing.inspection);
}

TEST(TranscriptInspector, SaysSoWhenTheNewestWindowStartsInsideACharacter) {
    TemporaryFolder folder;
    // A record long enough that the 120000-byte window begins in the middle of "é".
    std::string text =
        std::string(R"({"type":"user","message":{"content":")") + std::string(130000, 'a') + "\"}}\n";
    std::string filler;
    while (filler.size() < 130000)
        filler += "é";
    std::string record = std::string(R"({"type":"user","message":{"content":")") + filler + "\"}}\n";
    // One more ASCII byte behind the two-byte characters flips where the window starts.
    if ((static_cast<unsigned char>(record[record.size() - 120000]) & 0xC0) != 0x80)
        record = std::string(R"({"type":"user","message":{"content":")") + filler + "x\"}}\n";
    std::string contents = text + record;
    ASSERT_EQ(static_cast<unsigned char>(contents[contents.size() - 120000]) & 0xC0, 0x80);
    std::string file = folder.write("cut.jsonl", contents);
    auto outcome = TranscriptInspector::inspect(file, SessionKind::claude, 5, now, nullptr);
    ASSERT_TRUE(outcome.inspection);
    EXPECT_TRUE(outcome.inspection->tailCutInCharacter);
    EXPECT_FALSE(outcome.inspection->reading);
}

TEST(TranscriptInspector, TheExecutablePrintsTextAndJson) {
    TemporaryFolder folder;
    std::string file = folder.write("session.jsonl", claudeTranscript);
    auto run = [](const std::string& command) {
        std::string out;
        FILE* pipe = ::popen(command.c_str(), "r");
        char buffer[4096];
        while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe))
            out.append(buffer, n);
        int status = ::pclose(pipe);
        return std::pair{WEXITSTATUS(status), out};
    };
    auto [status, text] = run(std::string(OSTREL_PATH) + " inspect --kind claude " + file);
    EXPECT_EQ(status, 0);
    EXPECT_NE(text.find("claude-sonnet-5"), std::string::npos) << text;
    auto [jsonStatus, json] = run(std::string(OSTREL_PATH) + " inspect --json " + file);
    EXPECT_EQ(jsonStatus, 0);
    EXPECT_FALSE(nlohmann::json::parse(json, nullptr, false).is_discarded()) << json;
    auto [failStatus, ignored] =
        run(std::string(OSTREL_PATH) + " inspect " + folder / "missing.jsonl" + " 2>/dev/null");
    EXPECT_EQ(failStatus, 1);
}

} // namespace
} // namespace Ostrel
