// Workspace costs, each against its target: save() of 20 projects, 50 sessions and their layouts
// (under 1 ms; anchor: writing the same bytes whole, no encoding); the session's share of the output
// path, scanner and marker search, on 64 KiB chunks of escape-dense agent output without markers
// (2 GB/s or more; anchor: the engine's own parse of the same chunk); the status ticks of 50 idle
// agent sessions (under 1% of one core, process CPU time over wall time). Rates and times are CPU
// time, so that a busy machine doesn't decide them. Prints a summary against the targets at the end.
#include "Ostrel/AppStore.h"
#include "Ostrel/LoginEnv.h"
#include "Ostrel/LoginShell.h"
#include "Ostrel/Paths.h"
#include "Ostrel/SessionTerminalView.h"
#include "TerminalEngine/Pty/DispatchQueue.h"

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <benchmark/benchmark.h>
#include <fmt/format.h>

using namespace Ostrel;
using namespace std::chrono_literals;

namespace {

constexpr int projectCount = 20;
constexpr int sessionCount = 50;
constexpr std::size_t chunkBytes = 64 << 10;

// A HOME of its own, the main loop, and the login environment as captured, so that sessions start
// with "-c" and no interactive shell.
class Environment {
public:
    Environment() {
        std::string pattern = (std::filesystem::temp_directory_path() / "ostrel-bench-XXXXXX").string();
        home = ::mkdtemp(pattern.data());
        ::setenv("HOME", home.c_str(), 1);
        ::setenv("XDG_DATA_HOME", (home + "/data").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (home + "/config").c_str(), 1);
        TerminalEngine::DispatchQueue::setMain(loop);
        LoginEnv::setCached(LoginShell::processEnvironment());
        settings = std::make_unique<Settings>(home + "/config/Ostrel/settings.json");
    }
    ~Environment() {
        std::error_code ignored;
        std::filesystem::remove_all(home, ignored);
    }
    void runFor(std::chrono::steady_clock::duration span) {
        loop.restart();
        loop.run_for(span);
    }

    std::string home;
    asio::io_context loop;
    std::unique_ptr<Settings> settings;
};

Environment& environment() {
    static Environment shared;
    return shared;
}

std::unique_ptr<AppStore> makeStore(const std::string& name) {
    auto& env = environment();
    AppStore::Options options;
    options.prewarmLoginEnvironment = false;
    auto store = std::make_unique<AppStore>(env.home + "/" + name + "/state.json", *env.settings, options);
    store->setPaneArea({1600, 1000});
    return store;
}

// 20 projects sharing 50 sleeping services: trees of two and three panes, a few templates.
std::unique_ptr<AppStore>& savedWorkspaceSlot() {
    static std::unique_ptr<AppStore> store;
    return store;
}

AppStore& savedWorkspace() {
    auto& store = savedWorkspaceSlot();
    if (store) return *store;
    store = [] {
        auto made = makeStore("save");
        std::vector<UUID> projects;
        for (int p = 0; p < projectCount; ++p) {
            const std::string folder = environment().home + fmt::format("/projects/app-{:02}", p);
            std::filesystem::create_directories(folder);
            projects.push_back(made->addProject(folder).id);
        }
        for (int s = 0; s < sessionCount; ++s)
            made->startSession(SessionKind::service, projects[static_cast<std::size_t>(s % projectCount)],
                               {fmt::format("exec sleep 600 # session {}", s)});
        for (int t = 0; t < 5; ++t)
            made->saveTemplate(fmt::format("layout {}", t), projects[static_cast<std::size_t>(t)]);
        return made;
    }();
    return *store;
}

void BM_SaveWorkspace(benchmark::State& state) {
    AppStore& store = savedWorkspace();
    for (auto _ : state)
        store.save();
    state.counters["sessions"] = static_cast<double>(store.sessions().size());
    state.counters["bytes"] = static_cast<double>(std::filesystem::file_size(store.stateURL()));
}
BENCHMARK(BM_SaveWorkspace)->Unit(benchmark::kMicrosecond);

// The anchor: the same bytes written whole (temporary file and rename) with no encoding at all.
void BM_WriteStateBytes(benchmark::State& state) {
    AppStore& store = savedWorkspace();
    const std::string bytes = store.savedState().encode();
    const std::string path = environment().home + "/save/anchor.json";
    for (auto _ : state)
        Paths::writeFileAtomically(path, bytes);
}
BENCHMARK(BM_WriteStateBytes)->Unit(benchmark::kMicrosecond);

// Agent output as it comes: prose, code, colours and cursor moves, no port, limit or model text.
std::string outputChunk() {
    static const std::string lines[] = {
        "\x1b[1m\xe2\x8f\xba\x1b[0m I'll read the parser first to see how the state table is built.\r\n",
        "  \x1b[38;5;244m\xe2\x8e\xbf\x1b[0m  Read "
        "\x1b[1mTerminalEngine/Parser/EscapeSequenceParser.cpp\x1b[0m (412 lines)\r\n",
        "\x1b[32m+\x1b[0m    for (std::size_t i = 0; i < data.size(); ++i) {\r\n",
        "\x1b[31m-\x1b[0m    while (pos < end && table[state][bytes[pos]] == Action::print)\r\n",
        "\x1b[2K\x1b[1G\x1b[38;2;215;119;87m\xe2\x9c\xbb\x1b[39m Thinking\xe2\x80\xa6 \x1b[2m(12s \xc2\xb7 "
        "esc to interrupt)\x1b[22m",
        "\r\n    return std::nullopt; // no state change on a continuation byte\r\n",
    };
    std::string chunk;
    for (std::size_t i = 0; chunk.size() < chunkBytes; ++i)
        chunk += lines[i % std::size(lines)];
    chunk.resize(chunkBytes);
    return chunk;
}

void BM_ScannerAndMarkers(benchmark::State& state) {
    const std::string chunk = outputChunk();
    OstrelCore::TerminalOutputScanner scanner;
    constexpr auto all =
        SessionTerminalView::portGroup | SessionTerminalView::limitGroup | SessionTerminalView::modelGroup;
    for (auto _ : state) {
        benchmark::DoNotOptimize(scanner.scan(chunk));
        benchmark::DoNotOptimize(SessionTerminalView::findMarkers(chunk, all));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * chunk.size()));
}
BENCHMARK(BM_ScannerAndMarkers);

// Each half alone, to see which one to work on.
void BM_Scanner(benchmark::State& state) {
    const std::string chunk = outputChunk();
    OstrelCore::TerminalOutputScanner scanner;
    for (auto _ : state)
        benchmark::DoNotOptimize(scanner.scan(chunk));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * chunk.size()));
}
BENCHMARK(BM_Scanner);

void BM_MarkerSearch(benchmark::State& state) {
    const std::string chunk = outputChunk();
    constexpr auto all =
        SessionTerminalView::portGroup | SessionTerminalView::limitGroup | SessionTerminalView::modelGroup;
    for (auto _ : state)
        benchmark::DoNotOptimize(SessionTerminalView::findMarkers(chunk, all));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * chunk.size()));
}
BENCHMARK(BM_MarkerSearch);

// The engine alone, then the whole output path of a Claude session (every callback set): the
// difference is what the session adds.
void BM_EngineParse(benchmark::State& state) {
    const std::string chunk = outputChunk();
    auto view = SessionTerminalView::create({});
    for (auto _ : state)
        view->terminal().feed(chunk);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * chunk.size()));
}
BENCHMARK(BM_EngineParse);

void BM_SessionOutputPath(benchmark::State& state) {
    const std::string chunk = outputChunk();
    auto view = SessionTerminalView::create({});
    int calls = 0;
    view->onActivity = [&] { ++calls; };
    view->onBell = [&] { ++calls; };
    view->onPortCandidate = [&](std::string_view) { ++calls; };
    view->onLimitCandidate = [&](std::string_view) { ++calls; };
    view->onModelCandidate = [&](std::string_view) { ++calls; };
    const std::span bytes(reinterpret_cast<const std::uint8_t*>(chunk.data()), chunk.size());
    for (auto _ : state)
        view->dataReceived(bytes);
    benchmark::DoNotOptimize(calls);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * chunk.size()));
}
BENCHMARK(BM_SessionOutputPath);

double processSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// 50 agent sessions whose children sleep: each tick finds nothing to do. CPU time of the whole
// process per second of wall time, over several rounds of every timer.
void BM_IdleAgentTicks(benchmark::State& state) {
    auto& env = environment();
    auto store = makeStore("idle");
    const std::string folder = env.home + "/projects/agents";
    std::filesystem::create_directories(folder);
    const UUID project = store->addProject(folder).id;
    for (int s = 0; s < sessionCount; ++s)
        store->startSession(SessionKind::gemini, project, {"exec sleep 600"});
    env.runFor(1s); // the children start and print nothing more
    double share = 0;
    for (auto _ : state) {
        const auto wallStart = std::chrono::steady_clock::now();
        const double cpuStart = processSeconds();
        env.runFor(8s);
        const double wall =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
        share = (processSeconds() - cpuStart) / wall;
        state.SetIterationTime(wall);
    }
    state.counters["core_percent"] = share * 100.0;
    store->shutdown();
}
BENCHMARK(BM_IdleAgentTicks)->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);

class SummaryReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& run : runs) {
            if (run.run_type != Run::RT_Iteration) continue;
            values[run.benchmark_name() + "/time"] = run.GetAdjustedCPUTime(); // in the benchmark's unit
            for (const auto& [name, counter] : run.counters)
                values[run.benchmark_name() + "/" + name] = counter.value;
        }
    }
    // By the benchmark's name and measure; options the runner appends ("/iterations:1") don't count.
    double value(const std::string& name, const std::string& measure) const {
        for (const auto& [key, v] : values)
            if (key.rfind(name + "/", 0) == 0 && key.size() > measure.size() &&
                key.compare(key.size() - measure.size() - 1, std::string::npos, "/" + measure) == 0)
                return v;
        return 0.0;
    }
    std::map<std::string, double> values;
};

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    // Its 50 sleeping children end here, while the loop and settings it uses are still alive.
    if (auto& workspace = savedWorkspaceSlot()) {
        workspace->shutdown();
        workspace.reset();
    }

    const double saveMicroseconds = reporter.value("BM_SaveWorkspace", "time");
    const double writeMicroseconds = reporter.value("BM_WriteStateBytes", "time");
    const double scanRate = reporter.value("BM_ScannerAndMarkers", "bytes_per_second") / 1e9;
    const double engineRate = reporter.value("BM_EngineParse", "bytes_per_second");
    const double pathRate = reporter.value("BM_SessionOutputPath", "bytes_per_second");
    const double corePercent = reporter.value("BM_IdleAgentTicks", "core_percent");
    fmt::print("\n{:<44} {:>12} {:>12}\n", "measure", "value", "target");
    if (saveMicroseconds > 0)
        fmt::print("{:<44} {:>9.0f} us {:>12}\n", "save(): 20 projects, 50 sessions", saveMicroseconds,
                   "< 1000 us");
    if (saveMicroseconds > 0 && writeMicroseconds > 0)
        fmt::print("{:<44} {:>10.2f} x {:>12}\n", "save() over writing its bytes alone",
                   saveMicroseconds / writeMicroseconds, "");
    if (scanRate > 0)
        fmt::print("{:<44} {:>7.2f} GB/s {:>12}\n", "scanner + marker search", scanRate, ">= 2 GB/s");
    if (engineRate > 0 && pathRate > 0)
        fmt::print("{:<44} {:>10.1f} % {:>12}\n", "output path cost over the engine alone",
                   (engineRate / pathRate - 1.0) * 100.0, "small");
    if (corePercent > 0)
        fmt::print("{:<44} {:>10.3f} % {:>12}\n", "50 idle agent sessions, share of one core", corePercent,
                   "< 1 %");
    return 0;
}
