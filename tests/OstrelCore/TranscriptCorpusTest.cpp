// Every reader, the feed, the tool trace and the limit detection over the
// public sample transcripts of the three agents: nothing may crash or misbehave
// on any file, and what a file plainly shows must be found.
#include "OstrelCore/ClaudeTranscript.h"
#include "OstrelCore/CodexTranscript.h"
#include "OstrelCore/GeminiTranscript.h"
#include "OstrelCore/RateLimitSignals.h"
#include "OstrelCore/Text.h"
#include "OstrelCore/ToolTrace.h"
#include "OstrelCore/TranscriptFeed.h"
#include "OstrelCore/TranscriptTail.h"

#include <algorithm>
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

constexpr Provider providers[] = {Provider::claude, Provider::codex, Provider::gemini};

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

// The lines the tool trace and the limit detection take: a .json document is
// one line.
std::vector<std::string_view> traceLines(const fs::path& path, std::string_view text) {
    if (path.extension() == ".json") return {text};
    std::vector<std::string_view> lines;
    for (std::size_t start = 0; start <= text.size();) {
        std::size_t end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

RateLimitBlock::Provider limitProvider(ToolTrace::Provider provider) {
    switch (provider) {
    case ToolTrace::Provider::claude: return RateLimitBlock::Provider::claude;
    case ToolTrace::Provider::codex: return RateLimitBlock::Provider::codex;
    case ToolTrace::Provider::gemini: return RateLimitBlock::Provider::gemini;
    }
    return RateLimitBlock::Provider::claude;
}

class TranscriptCorpus : public testing::Test {
protected:
    void SetUp() override {
        const char* fromEnvironment = std::getenv("OSTREL_TESTDATA_DIR");
        folder =
            fs::path(fromEnvironment && *fromEnvironment ? fromEnvironment : OSTREL_TESTDATA_DIR) / "agents";
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

// The trace of a file is consistent with its own summary, and no file records a
// usage limit being hit: any block found would be a false alarm.
void expectConsistentTraceAndNoLimit(std::span<const std::string_view> lines, ToolTrace::Provider provider) {
    const auto now = std::chrono::system_clock::now();
    const date::time_zone* zone = date::locate_zone("Europe/Paris");
    auto events = ToolTrace::events(lines, provider);
    auto summary = ToolTrace::summarize(events, 5);
    EXPECT_EQ(summary.total, static_cast<std::int64_t>(events.size()));
    EXPECT_LE(summary.running + summary.failures, summary.total);
    std::int64_t byCategory = 0;
    for (const auto& [category, count] : summary.countsByCategory)
        byCategory += count;
    EXPECT_EQ(byCategory, summary.total);

    std::set<std::string> ids;
    for (const ToolEvent& event : events) {
        EXPECT_FALSE(event.id.empty());
        EXPECT_TRUE(ids.insert(event.id).second) << "duplicate " << event.id;
        EXPECT_LE(Text::count(event.target.value_or("")), ToolTrace::targetLimit);
        EXPECT_GE(event.durationSeconds.value_or(0.0), 0.0);
        EXPECT_LE(Text::count(event.error.value_or("")), ToolTrace::errorLimit);
    }
    std::set<std::string> paths;
    for (const FileTouch& touch : ToolTrace::filesTouched(events, "/tmp"))
        EXPECT_TRUE(paths.insert(touch.path).second) << "duplicate " << touch.path;
    EXPECT_EQ(RateLimitSignals::detect(lines, limitProvider(provider), now, zone), std::nullopt);
}

// Each reader, as each provider, over each file and over tails cut at awkward
// places.
TEST_F(TranscriptCorpus, EveryReaderCopesWithEveryFile) {
    std::size_t files = 0;
    for (const auto& item : fs::recursive_directory_iterator(folder)) {
        if (!item.is_regular_file()) continue;
        ++files;
        std::string bytes = readFile(item.path());
        std::string where = item.path().string();
        SCOPED_TRACE(where);
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
            for (auto provider : providers) {
                auto entries = TranscriptFeed::entries(*lines, provider, 50);
                EXPECT_LE(entries.size(), 50u);
                expectEncodable(entries, where);
                EXPECT_EQ(entries, TranscriptFeed::entries(*lines, provider, 50));
                EXPECT_LE(TranscriptFeed::entries(*lines, provider, 1).size(), 1u);
            }
        }

        const auto& path = item.path();
        if (path.extension() != ".jsonl" && path.extension() != ".json") continue;
        // Files of one agent are read as that agent's; the others must simply be
        // passed over.
        const std::pair<std::string, ToolTrace::Provider> agents[] = {
            {"claude", ToolTrace::Provider::claude},
            {"codex", ToolTrace::Provider::codex},
            {"gemini", ToolTrace::Provider::gemini}};
        const std::string agent = fs::relative(path, folder).begin()->string();
        const bool known = std::ranges::any_of(agents, [&](const auto& a) { return a.first == agent; });
        const auto lines = traceLines(path, bytes);
        for (const auto& [name, provider] : agents)
            if (!known || name == agent) expectConsistentTraceAndNoLimit(lines, provider);
        const auto now = std::chrono::system_clock::now();
        EXPECT_EQ(RateLimitSignals::detect(std::string_view(bytes), now, date::locate_zone("Europe/Paris")),
                  std::nullopt);
    }
    EXPECT_GT(files, 30u);
}

TEST_F(TranscriptCorpus, ReadingsThatTheSamplesPlainlyShow) {
    using Parse = std::optional<TranscriptReading> (*)(std::span<const std::string_view>);
    struct Case {
        const char* file;
        Parse parse;
        std::optional<TranscriptReading> expected;
    };
    const Case cases[] = {
        {"claude/agentsview-tool_call_pending.jsonl", ClaudeTranscript::parse,
         TranscriptReading{.model = "claude-sonnet-4-20250514",
                           .contextUsed = 100,
                           .phase = AgentPhase::awaitingApproval,
                           .sessionTitle = "Read auth.ts",
                           .pendingToolName = "Read",
                           .pendingToolTarget = "src/auth.ts"}},
        {"claude/agentsessions-large.jsonl", ClaudeTranscript::parse,
         TranscriptReading{
             .permissionMode = "ask", .phase = AgentPhase::turnEnded, .sessionTitle = "Step 3"}},
        // A subagent's transcript is all sidechain.
        {"claude/agentsessions-subagent-tree/"
         "0a1b2c3d-4e5f-4061-8071-2a3b4c5d6e7f/subagents/"
         "agent-a0ad4f44468bdf20d.jsonl",
         ClaudeTranscript::parse, std::nullopt},
        {"codex/agentsessions-large.jsonl", CodexTranscript::parse,
         TranscriptReading{.model = "gpt-5.2",
                           .contextUsed = 12273,
                           .contextWindow = 258400,
                           .phase = AgentPhase::running,
                           .sessionTitle = "Start"}},
        {"gemini/agentsessions-jsonl_v040.jsonl", GeminiTranscript::parse,
         TranscriptReading{.model = "gemini-3-flash-preview",
                           .contextUsed = 12069,
                           .contextWindow = 1048576,
                           .phase = AgentPhase::turnEnded,
                           .sessionTitle = "Say hello and list files."}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.parse(load(c.file).lines), c.expected) << c.file;

    // The parent of a subagent waits on the task.
    auto parent = ClaudeTranscript::parse(
        load("claude/agentsessions-subagent-tree/0a1b2c3d-4e5f-4061-8071-2a3b4c5d6e7f.jsonl").lines);
    ASSERT_TRUE(parent);
    EXPECT_EQ(parent->pendingToolName, "Task");

    std::string document = readFile(folder / "gemini/agentsessions-large.json");
    auto legacy = GeminiTranscript::parseLegacyDocument(document);
    ASSERT_TRUE(legacy);
    EXPECT_EQ(legacy->phase, AgentPhase::running);
    EXPECT_EQ(legacy->sessionTitle, "Step 1");
    EXPECT_EQ(legacy->contextUsed, 100);

    EXPECT_TRUE(
        CodexTranscript::belongsToProject(load("codex/agentsessions-large.jsonl").lines, "/tmp/large"));
}

TEST_F(TranscriptCorpus, FeedEntriesThatTheSamplesPlainlyShow) {
    const std::string rollout = "codex/claudecodelog-rollout-2026-01-02T03-04-05-11111111.jsonl";
    struct Case {
        std::string file;
        Provider provider;
        std::size_t count, index;
        Role role;
        std::optional<std::string> tool, target;
    };
    const Case cases[] = {
        {"claude/agentsview-tool_call_pending.jsonl", Provider::claude, 3, 2, Role::tool, "Read",
         "src/auth.ts"},
        {"claude/agentsessions-large.jsonl", Provider::claude, 10, 2, Role::tool, "bash", std::nullopt},
        {rollout, Provider::codex, 5, 2, Role::tool, "apply_patch", "gamma.txt"},
        {rollout, Provider::codex, 5, 4, Role::assistant, std::nullopt, std::nullopt},
        {"gemini/agentsessions-jsonl_v040.jsonl", Provider::gemini, 3, 1, Role::tool, "run_shell_command",
         "ls -F"},
        // A subagent's transcript is all sidechain.
        {"claude/agentsessions-subagent-tree/0a1b2c3d-4e5f-4061-8071-2a3b4c5d6e7f/subagents/"
         "agent-a0ad4f44468bdf20d.jsonl",
         Provider::claude, 0, 0, Role::user, std::nullopt, std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file + " #" + std::to_string(c.index));
        auto entries = TranscriptFeed::entries(load(c.file).lines, c.provider, 50);
        ASSERT_EQ(entries.size(), c.count);
        if (c.count == 0) continue;
        EXPECT_EQ(entries.at(c.index).role, c.role);
        EXPECT_EQ(entries.at(c.index).tool, c.tool);
        EXPECT_EQ(c.target ? entries.at(c.index).target : std::nullopt, c.target); // none: not checked
    }
    EXPECT_EQ(
        TranscriptFeed::entries(load("claude/agentsessions-large.jsonl").lines, Provider::claude, 50)[0].text,
        "Start");
    EXPECT_EQ(TranscriptFeed::legacyGeminiEntries(readFile(folder / "gemini/agentsessions-large.json"), 50)
                  .back()
                  .text,
              "Step 1");
}

TEST_F(TranscriptCorpus, ToolCallsThatTheSamplesPlainlyShowAreFound) {
    using ToolProvider = ToolTrace::Provider;
    struct Fact {
        std::string_view file;
        ToolProvider provider;
        std::string_view id;
        std::string_view name;
        ToolCategory category;
        std::optional<std::string_view> target;
        std::optional<bool> succeeded;
        std::string_view errorPart = {};
    } facts[] = {
        {"claude/claudecodelog-edge_cases.jsonl", ToolProvider::claude, "tool_edge_001", "FailingTool",
         ToolCategory::other, std::nullopt, false, "Command not found"},
        {"claude/agentsview-tool_call_pending.jsonl", ToolProvider::claude, "toolu_orphan", "Read",
         ToolCategory::read, "src/auth.ts", std::nullopt},
        {"claude/agentsessions-kitchen-sink-small.jsonl", ToolProvider::claude, "toolu_stage0_1", "Bash",
         ToolCategory::execute, "ls", true},
        {"codex/claudecodelog-rollout-2026-01-02T03-04-05-11111111.jsonl", ToolProvider::codex,
         "call-structured-001", "exec_command", ToolCategory::execute, "find . -maxdepth 1 -type f", true},
        {"codex/claudecodelog-rollout-2026-01-02T03-04-05-11111111.jsonl", ToolProvider::codex,
         "call-custom-001", "apply_patch", ToolCategory::edit, "gamma.txt", true},
        {"codex/agentsessions-small.jsonl", ToolProvider::codex, "ws-1", "web_search", ToolCategory::web,
         "example", true},
        {"codex/agentsview-fc_args_2.jsonl", ToolProvider::codex, "call_test", "apply_patch",
         ToolCategory::edit, "internal/parser/codex.go", std::nullopt},
        {"gemini/agentsessions-jsonl_v040.jsonl", ToolProvider::gemini, "run_shell_command_stage0",
         "run_shell_command", ToolCategory::execute, "ls -F", true},
        {"gemini/agentsview-tool_calls_with_results.json", ToolProvider::gemini, "read_file_1772747340739_0",
         "read_file", ToolCategory::read, ".planning/ONE-PAGER.md", true},
    };
    for (const Fact& fact : facts) {
        SCOPED_TRACE(std::string(fact.file) + " " + std::string(fact.id));
        const fs::path path = folder / fact.file;
        const std::string text = readFile(path);
        auto events = ToolTrace::events(traceLines(path, text), fact.provider);
        auto it =
            std::find_if(events.begin(), events.end(), [&](const ToolEvent& e) { return e.id == fact.id; });
        ASSERT_NE(it, events.end());
        EXPECT_EQ(it->name, fact.name);
        EXPECT_EQ(it->category, fact.category);
        EXPECT_EQ(it->target, fact.target ? std::optional<std::string>(*fact.target) : std::nullopt);
        EXPECT_EQ(it->succeeded, fact.succeeded);
        if (!fact.errorPart.empty()) {
            ASSERT_TRUE(it->error);
            EXPECT_NE(it->error->find(fact.errorPart), std::string::npos) << *it->error;
        }
    }
}

} // namespace
