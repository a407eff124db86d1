// The tool trace and the transcript limit detection over the shared sample transcripts of the
// three agents: nothing breaks on real shapes, and what a file plainly shows is found.
#include "OstrelCore/RateLimitSignals.h"
#include "OstrelCore/Text.h"
#include "OstrelCore/ToolTrace.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace OstrelCore {
namespace {

namespace fs = std::filesystem;
using Provider = ToolTrace::Provider;

std::optional<fs::path> samplesFolder() {
    const char* fromEnvironment = std::getenv("OSTREL_TESTDATA_DIR");
    fs::path root = fromEnvironment != nullptr && *fromEnvironment != '\0' ? fs::path(fromEnvironment)
                                                                           : fs::path(OSTREL_TESTDATA_DIR);
    fs::path agents = root / "agents";
    std::error_code error;
    if (!fs::is_directory(agents, error)) return std::nullopt;
    return agents;
}

std::string contents(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

struct Sample {
    fs::path path;
    std::string relative;
    std::string text;
    std::vector<std::string_view> lines; // views into `text`; a .json document is one line
    std::vector<Provider> providers;
};

// Every transcript-like file, with the providers whose readers it is meant for (all three for
// files of no agent in particular, which must simply be passed over).
std::vector<Sample> samples(const fs::path& folder) {
    std::vector<Sample> result;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        const fs::path& path = entry.path();
        if (!entry.is_regular_file() || (path.extension() != ".jsonl" && path.extension() != ".json"))
            continue;
        Sample sample;
        sample.path = path;
        sample.relative = fs::relative(path, folder).generic_string();
        std::string agent = sample.relative.substr(0, sample.relative.find('/'));
        if (agent == "claude")
            sample.providers = {Provider::claude};
        else if (agent == "codex")
            sample.providers = {Provider::codex};
        else if (agent == "gemini")
            sample.providers = {Provider::gemini};
        else
            sample.providers = {Provider::claude, Provider::codex, Provider::gemini};
        sample.text = contents(path);
        result.push_back(std::move(sample));
    }
    for (Sample& sample : result) {
        std::string_view text = sample.text;
        if (sample.path.extension() == ".json") {
            sample.lines.push_back(text);
            continue;
        }
        for (std::size_t start = 0; start <= text.size();) {
            std::size_t end = std::min(text.find('\n', start), text.size());
            sample.lines.push_back(text.substr(start, end - start));
            start = end + 1;
        }
    }
    return result;
}

RateLimitBlock::Provider limitProvider(Provider provider) {
    switch (provider) {
    case Provider::claude: return RateLimitBlock::Provider::claude;
    case Provider::codex: return RateLimitBlock::Provider::codex;
    case Provider::gemini: return RateLimitBlock::Provider::gemini;
    }
    return RateLimitBlock::Provider::claude;
}

class SignalsCorpusTest : public ::testing::Test {
protected:
    void SetUp() override {
        folder = samplesFolder();
        if (!folder) GTEST_SKIP() << "no shared sample transcripts (set OSTREL_TESTDATA_DIR)";
        all = samples(*folder);
        ASSERT_FALSE(all.empty());
    }

    const Sample& sample(std::string_view relative) const {
        for (const Sample& s : all)
            if (s.relative == relative) return s;
        ADD_FAILURE() << "missing sample " << relative;
        static const Sample none;
        return none;
    }

    std::optional<fs::path> folder;
    std::vector<Sample> all;
};

TEST_F(SignalsCorpusTest, EverySampleGivesAConsistentTraceAndNoFalseLimit) {
    // None of the samples records a usage limit being hit: any block found would be a false alarm.
    const auto now = std::chrono::system_clock::now();
    const date::time_zone* zone = date::locate_zone("Europe/Paris");
    for (const Sample& s : all) {
        for (Provider provider : s.providers) {
            SCOPED_TRACE(s.relative);
            auto events = ToolTrace::events(s.lines, provider);
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

            EXPECT_EQ(RateLimitSignals::detect(s.lines, limitProvider(provider), now, zone), std::nullopt);
        }
        EXPECT_EQ(RateLimitSignals::detect(std::string_view(s.text), now, zone), std::nullopt) << s.relative;
    }
}

TEST_F(SignalsCorpusTest, ToolCallsThatTheSamplesPlainlyShowAreFound) {
    struct Fact {
        std::string_view file;
        Provider provider;
        std::string_view id;
        std::string_view name;
        ToolCategory category;
        std::optional<std::string_view> target;
        std::optional<bool> succeeded;
        std::string_view errorPart = {};
    } facts[] = {
        {"claude/simonw-sample_session.jsonl", Provider::claude, "toolu_001", "Write", ToolCategory::write,
         "/project/hello.py", true},
        {"claude/claudecodelog-representative_messages.jsonl", Provider::claude, "tool_002", "Bash",
         ToolCategory::execute, "python /tmp/decorator_example.py", true},
        {"claude/claudecodelog-edge_cases.jsonl", Provider::claude, "tool_edge_001", "FailingTool",
         ToolCategory::other, std::nullopt, false, "Command not found"},
        {"claude/agentsview-tool_call_pending.jsonl", Provider::claude, "toolu_orphan", "Read",
         ToolCategory::read, "src/auth.ts", std::nullopt},
        {"claude/agentsessions-kitchen-sink-small.jsonl", Provider::claude, "toolu_stage0_1", "Bash",
         ToolCategory::execute, "ls", true},
        {"codex/claudecodelog-rollout-2026-01-02T03-04-05-11111111.jsonl", Provider::codex,
         "call-structured-001", "exec_command", ToolCategory::execute, "find . -maxdepth 1 -type f", true},
        {"codex/claudecodelog-rollout-2026-01-02T03-04-05-11111111.jsonl", Provider::codex, "call-custom-001",
         "apply_patch", ToolCategory::edit, "gamma.txt", true},
        {"codex/agentsessions-small.jsonl", Provider::codex, "ws-1", "web_search", ToolCategory::web,
         "example", true},
        {"codex/agentsview-fc_args_2.jsonl", Provider::codex, "call_test", "apply_patch", ToolCategory::edit,
         "internal/parser/codex.go", std::nullopt},
        {"gemini/agentsessions-jsonl_v040.jsonl", Provider::gemini, "run_shell_command_stage0",
         "run_shell_command", ToolCategory::execute, "ls -F", true},
        {"gemini/agentsview-tool_calls_with_results.json", Provider::gemini, "read_file_1772747340739_0",
         "read_file", ToolCategory::read, ".planning/ONE-PAGER.md", true},
    };
    for (const Fact& fact : facts) {
        SCOPED_TRACE(std::string(fact.file) + " " + std::string(fact.id));
        auto events = ToolTrace::events(sample(fact.file).lines, fact.provider);
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
} // namespace OstrelCore
