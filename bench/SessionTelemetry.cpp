// Cost of transcript polls on real files in a temporary home folder. Targets: a quiet poll makes
// two attribute reads and no listing or read; 50 bound sessions polled every 4 s take under 1% of
// one core, quiet or all working.
#include "Ostrel/SessionTelemetry.h"

#include <filesystem>
#include <fstream>
#include <random>
#include <time.h>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

using namespace Ostrel;
using namespace std::chrono_literals;

namespace {

constexpr int sessionCount = 50;
constexpr double pollPeriodSeconds = 4.0;

// The real file system behind a clock the benchmark sets, counting the calls a poll makes.
class CountingFileSystem final : public TelemetryFileSystem {
public:
    Timestamp now() const override { return clock; }
    std::optional<FileAttributes> attributes(const std::string& path) const override {
        ++attributeReads;
        return real.attributes(path);
    }
    std::vector<ListedFile> files(const std::string& folder, bool (*keep)(std::string_view)) const override {
        ++listings;
        return real.files(folder, keep);
    }
    std::vector<std::string> folders(const std::string& folder) const override {
        ++listings;
        return real.folders(folder);
    }
    std::optional<std::string> readHead(const std::string& path, std::size_t bytes) const override {
        ++reads;
        return real.readHead(path, bytes);
    }
    std::optional<std::string> readTail(const std::string& path, std::size_t bytes) const override {
        ++reads;
        return real.readTail(path, bytes);
    }
    void resetCounts() { attributeReads = listings = reads = 0; }

    // Creation dates from modification times, so that the older sessions can be dated back.
    SystemFileSystem real{SystemFileSystem::CreationDate::modificationTime};
    Timestamp clock = std::chrono::system_clock::now();
    mutable std::int64_t attributeReads = 0, listings = 0, reads = 0;
};

// A Claude turn as it lands in the transcript: the answer with its usage, a tool result.
std::string claudeRecord(std::mt19937& random, int turn) {
    std::string text;
    while (text.size() < 2000)
        text += "the session store reads each line of output and writes tests ";
    return R"({"type":"assistant","isSidechain":false,"message":{"model":"claude-sonnet-4-5","content":[{"type":"text","text":")" +
           text.substr(random() % 100) + R"("}],"usage":{"input_tokens":)" + std::to_string(1000 + turn) +
           R"(,"cache_read_input_tokens":40000,"cache_creation_input_tokens":900}},"uuid":"a)" +
           std::to_string(turn) + "\"}\n";
}

struct Workspace {
    std::string home;
    std::shared_ptr<CountingFileSystem> files = std::make_shared<CountingFileSystem>();
    std::vector<SessionTelemetry> sessions;
    std::vector<std::string> transcripts;
    std::mt19937 random{7};
    int turn = 0;

    explicit Workspace(int count) {
        char pattern[] = "/tmp/ostrel-telemetry-bench-XXXXXX";
        home = ::mkdtemp(pattern);
        SessionTelemetry::resetClaimsForTesting();
        Timestamp startedAt = std::chrono::system_clock::now() - 1s;
        for (int i = 0; i < count; ++i) {
            std::string project = "/work/project" + std::to_string(i);
            std::string folder = home + "/.claude/projects/-work-project" + std::to_string(i);
            std::filesystem::create_directories(folder);
            // A few older sessions of the same project lie beside the live one.
            for (int old = 0; old < 5; ++old) {
                std::string path = folder + "/old" + std::to_string(old) + ".jsonl";
                std::ofstream(path) << claudeRecord(random, 0);
                std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::now() - 24h);
            }
            std::string path = folder + "/live.jsonl";
            std::ofstream out(path);
            while (out.tellp() < 300000)
                out << claudeRecord(random, ++turn);
            out.close();
            transcripts.push_back(path);
            sessions.emplace_back(OstrelCore::SessionKind::claude, project, startedAt, std::nullopt,
                                  TelemetryEnvironment{files, home, nullptr});
        }
        // Bind and read, open the successor window, then let it close.
        for (auto& session : sessions)
            session.poll();
        for (auto& session : sessions)
            session.poll();
        files->clock += SessionTelemetry::successorWindow + 1s;
        files->resetCounts();
    }
    ~Workspace() { std::filesystem::remove_all(home); }

    void write(std::size_t index) {
        std::ofstream(transcripts[index], std::ios::app) << claudeRecord(random, ++turn);
    }
};

void reportCosts(benchmark::State& state, const CountingFileSystem& files, std::int64_t polls) {
    auto perPoll = [&](std::int64_t count) {
        return static_cast<double>(count) / static_cast<double>(polls);
    };
    state.counters["attributeReads/poll"] = perPoll(files.attributeReads);
    state.counters["listings/poll"] = perPoll(files.listings);
    state.counters["reads/poll"] = perPoll(files.reads);
}

void BM_QuietPoll(benchmark::State& state) {
    Workspace workspace(1);
    SessionTelemetry& session = workspace.sessions.front();
    for (auto _ : state)
        benchmark::DoNotOptimize(session.poll());
    reportCosts(state, *workspace.files, state.iterations());
}
BENCHMARK(BM_QuietPoll)->Unit(benchmark::kNanosecond);

// Within a minute of a change of the transcript folder, a quiet poll also looks for a successor.
void BM_QuietPollInSuccessorWindow(benchmark::State& state) {
    Workspace workspace(1);
    SessionTelemetry& session = workspace.sessions.front();
    std::ofstream(workspace.home + "/.claude/projects/-work-project0/other.jsonl") << "{}\n";
    for (auto _ : state)
        benchmark::DoNotOptimize(session.poll());
    reportCosts(state, *workspace.files, state.iterations());
}
BENCHMARK(BM_QuietPollInSuccessorWindow)->Unit(benchmark::kMicrosecond);

double threadSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// One round polls every session once; the share of one core is the CPU time of the polls of one
// round over the 4 s between rounds.
void pollRounds(benchmark::State& state, bool working) {
    Workspace workspace(sessionCount);
    double pollSeconds = 0;
    for (auto _ : state) {
        if (working) {
            state.PauseTiming();
            for (std::size_t i = 0; i < workspace.transcripts.size(); ++i)
                workspace.write(i);
            state.ResumeTiming();
        }
        double start = threadSeconds();
        for (auto& session : workspace.sessions)
            benchmark::DoNotOptimize(session.poll());
        pollSeconds += threadSeconds() - start;
    }
    reportCosts(state, *workspace.files, state.iterations() * sessionCount);
    double roundSeconds = pollSeconds / static_cast<double>(state.iterations());
    state.counters["coreSharePercent"] = roundSeconds / pollPeriodSeconds * 100.0;
}

void BM_FiftySessionsQuiet(benchmark::State& state) {
    pollRounds(state, false);
}
BENCHMARK(BM_FiftySessionsQuiet)->Unit(benchmark::kMicrosecond);

// Every session wrote since the last round: each poll reads and parses a 120000-byte tail.
void BM_FiftySessionsWorking(benchmark::State& state) {
    pollRounds(state, true);
}
BENCHMARK(BM_FiftySessionsWorking)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
