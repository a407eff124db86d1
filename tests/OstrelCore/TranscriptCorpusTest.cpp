// Every reader and the feed over the public sample transcripts of the three agents: nothing may
// crash or misbehave on any file, and the files that clearly show a reading must give it.
#include "OstrelCore/ClaudeTranscript.h"
#include "OstrelCore/CodexTranscript.h"
#include "OstrelCore/GeminiTranscript.h"
#include "OstrelCore/TranscriptFeed.h"
#include "OstrelCore/TranscriptTail.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace OstrelCore;
namespace fs = std::filesystem;
using TranscriptFeed::Provider;
using TranscriptFeed::Role;

namespace {

fs::path corpusFolder() {
    const char* fromEnvironment = std::getenv("OSTREL_TESTDATA_DIR");
    return fs::path(fromEnvironment && *fromEnvironment ? fromEnvironment : OSTREL_TESTDATA_DIR) / "agents";
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

class TranscriptCorpus : public testing::Test {
protected:
    void SetUp() override {
        folder = corpusFolder();
        if (!fs::is_directory(folder)) GTEST_SKIP() << "no sample transcripts at " << folder;
    }

    struct File {
        std::string bytes;
        std::vector<std::string_view> lines;
    };

    File load(std::string_view relative) {
        File file{readFile(folder / relative), {}};
        auto lines = TranscriptTail::lines(file.bytes);
        EXPECT_TRUE(lines) << relative;
        if (lines) file.lines = *lines;
        return file;
    }

    fs::path folder;
};

void expectEncodable(const std::vector<TranscriptFeed::Entry>& entries, const std::string& where) {
    std::set<std::string> ids;
    for (const auto& entry : entries) {
        EXPECT_TRUE(ids.insert(entry.id).second) << "repeated id " << entry.id << " in " << where;
        EXPECT_EQ(TranscriptFeed::entryFromJSON(nlohmann::json::parse(TranscriptFeed::toJSON(entry).dump())),
                  entry)
            << where;
    }
}

// Each reader, as each provider, over each file and over tails cut at awkward places.
TEST_F(TranscriptCorpus, EveryReaderCopesWithEveryFile) {
    std::size_t files = 0;
    for (const auto& item : fs::recursive_directory_iterator(folder)) {
        if (!item.is_regular_file()) continue;
        ++files;
        std::string bytes = readFile(item.path());
        std::string where = item.path().string();
        auto head = TranscriptTail::headLines(std::string_view(bytes).substr(0, 8192));
        std::vector<std::string_view> headLines = head.value_or(std::vector<std::string_view>{});
        ClaudeTranscript::isClearSuccessor(headLines);
        CodexTranscript::belongsToProject(headLines, "/tmp/repo");
        GeminiTranscript::belongsToProject(headLines, "/tmp/repo");
        GeminiTranscript::isSubagentTranscript(headLines);
        GeminiTranscript::parseLegacyDocument(bytes);
        expectEncodable(TranscriptFeed::legacyGeminiEntries(bytes, 50), where);

        for (std::size_t cut : {std::size_t{0}, bytes.size() / 3, bytes.size() / 2 + 1}) {
            auto lines = TranscriptTail::lines(std::string_view(bytes).substr(cut));
            if (!lines) continue; // a cut inside a character gives nothing to read
            ClaudeTranscript::parse(*lines);
            CodexTranscript::parse(*lines);
            GeminiTranscript::parse(*lines);
            for (auto provider : {Provider::claude, Provider::codex, Provider::gemini}) {
                auto entries = TranscriptFeed::entries(*lines, provider, 50);
                EXPECT_LE(entries.size(), 50u);
                expectEncodable(entries, where);
                EXPECT_EQ(entries, TranscriptFeed::entries(*lines, provider, 50)) << where;
                EXPECT_LE(TranscriptFeed::entries(*lines, provider, 1).size(), 1u);
            }
        }
    }
    EXPECT_GT(files, 30u);
}

TEST_F(TranscriptCorpus, ClaudePendingToolUseAwaitsApproval) {
    auto file = load("claude/agentsview-tool_call_pending.jsonl");
    auto reading = ClaudeTranscript::parse(file.lines);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->phase, AgentPhase::awaitingApproval);
    EXPECT_EQ(reading->pendingToolName, "Read");
    EXPECT_EQ(reading->pendingToolTarget, "src/auth.ts");
    EXPECT_EQ(reading->contextUsed, 100);
    EXPECT_EQ(reading->model, "claude-sonnet-4-20250514");
    EXPECT_EQ(reading->sessionTitle, "Read auth.ts");

    auto entries = TranscriptFeed::entries(file.lines, Provider::claude, 50);
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries.back().role, Role::tool);
    EXPECT_EQ(entries.back().target, "src/auth.ts");
}

TEST_F(TranscriptCorpus, ClaudePlainSessionEndsItsTurn) {
    auto file = load("claude/agentsessions-large.jsonl");
    auto reading = ClaudeTranscript::parse(file.lines);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->phase, AgentPhase::turnEnded);
    EXPECT_EQ(reading->sessionTitle, "Step 3");
    EXPECT_EQ(reading->permissionMode, "ask");
    EXPECT_EQ(reading->contextUsed, std::nullopt);

    auto entries = TranscriptFeed::entries(file.lines, Provider::claude, 50);
    ASSERT_EQ(entries.size(), 10u);
    EXPECT_EQ(entries.front().text, "Start");
    EXPECT_EQ(entries[2].tool, "bash");
}

TEST_F(TranscriptCorpus, ClaudeZeroUsageRecordsLeaveAnOlderCount) {
    auto reading = ClaudeTranscript::parse(load("claude/agentsessions-kitchen-sink-small.jsonl").lines);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->contextUsed, 10);
    EXPECT_EQ(reading->model, "claude-opus-5");
}

TEST_F(TranscriptCorpus, ClaudeSubagentTranscriptIsAllSidechain) {
    auto file = load("claude/agentsessions-subagent-tree/0a1b2c3d-4e5f-4061-8071-2a3b4c5d6e7f/subagents/"
                     "agent-a0ad4f44468bdf20d.jsonl");
    EXPECT_EQ(ClaudeTranscript::parse(file.lines), std::nullopt);
    EXPECT_TRUE(TranscriptFeed::entries(file.lines, Provider::claude, 50).empty());

    auto parent = ClaudeTranscript::parse(
        load("claude/agentsessions-subagent-tree/0a1b2c3d-4e5f-4061-8071-2a3b4c5d6e7f.jsonl").lines);
    ASSERT_TRUE(parent);
    EXPECT_EQ(parent->pendingToolName, "Task");
}

TEST_F(TranscriptCorpus, ClaudeTornLastLineIsPassedOver) {
    auto reading = ClaudeTranscript::parse(load("claude/agentsview-truncated.jsonl").lines);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->phase, AgentPhase::turnEnded);
    EXPECT_EQ(reading->sessionTitle, "hello");
}

TEST_F(TranscriptCorpus, CodexUsageIsTheLastTurnNotTheRunningTotal) {
    auto reading = CodexTranscript::parse(load("codex/ccusage-session-alpha.jsonl").lines);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->contextUsed, 2800);
    EXPECT_EQ(reading->model, "gpt-5.3-codex");
}

TEST_F(TranscriptCorpus, CodexPlainRollout) {
    auto file = load("codex/agentsessions-large.jsonl");
    auto reading = CodexTranscript::parse(file.lines);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->model, "gpt-5.2");
    EXPECT_EQ(reading->contextUsed, 12273);
    EXPECT_EQ(reading->contextWindow, 258400);
    EXPECT_EQ(reading->sessionTitle, "Start");
    EXPECT_EQ(reading->phase, AgentPhase::running);
    EXPECT_TRUE(CodexTranscript::belongsToProject(file.lines, "/tmp/large"));
    EXPECT_FALSE(CodexTranscript::belongsToProject(file.lines, "/tmp"));
}

TEST_F(TranscriptCorpus, CodexToolCallsShowTheirTargets) {
    auto file = load("codex/claudecodelog-rollout-2026-01-02T03-04-05-11111111.jsonl");
    EXPECT_TRUE(CodexTranscript::belongsToProject(file.lines, "/workspace/synthetic-project"));
    auto entries = TranscriptFeed::entries(file.lines, Provider::codex, 50);
    ASSERT_EQ(entries.size(), 5u);
    EXPECT_EQ(entries[0].role, Role::user);
    EXPECT_EQ(entries[1].target, "find . -maxdepth 1 -type f");
    EXPECT_EQ(entries[2].tool, "apply_patch");
    EXPECT_EQ(entries[2].target, "gamma.txt");
    EXPECT_EQ(entries[4].role, Role::assistant);
}

TEST_F(TranscriptCorpus, GeminiLineSession) {
    auto file = load("gemini/agentsessions-jsonl_v040.jsonl");
    auto reading = GeminiTranscript::parse(file.lines);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->phase, AgentPhase::turnEnded);
    EXPECT_EQ(reading->contextUsed, 12069);
    EXPECT_EQ(reading->model, "gemini-3-flash-preview");
    EXPECT_EQ(reading->contextWindow, 1048576);
    EXPECT_EQ(reading->sessionTitle, "Say hello and list files.");
    EXPECT_FALSE(GeminiTranscript::isSubagentTranscript(file.lines));

    auto entries = TranscriptFeed::entries(file.lines, Provider::gemini, 50);
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[1].tool, "run_shell_command");
    EXPECT_EQ(entries[1].target, "ls -F");
}

TEST_F(TranscriptCorpus, GeminiLegacyDocument) {
    std::string document = readFile(folder / "gemini/agentsessions-large.json");
    auto reading = GeminiTranscript::parseLegacyDocument(document);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->phase, AgentPhase::running);
    EXPECT_EQ(reading->sessionTitle, "Step 1");
    EXPECT_EQ(reading->contextUsed, 100);
    EXPECT_EQ(TranscriptFeed::legacyGeminiEntries(document, 50).back().text, "Step 1");
}

} // namespace
