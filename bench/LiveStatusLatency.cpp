// How long a line in an agent's transcript takes to show as the session's status: the real
// controller, the fake Claude agent on a pseudo-terminal and its transcript in a temporary HOME.
// The promise is at most one telemetry tick plus one status tick; the periods are scaled down by
// ten so that a run takes seconds, and the result is reported as a ratio to that bound, which the
// anchor measures as a plain main-queue timer in the same run.
#include "Ostrel/LoginEnv.h"
#include "Ostrel/MainTimer.h"
#include "Ostrel/SessionController.h"
#include "OstrelCore/UUID.h"
#include "TerminalEngine/Pty/DispatchQueue.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <asio/io_context.hpp>
#include <benchmark/benchmark.h>

namespace {

using namespace std::chrono_literals;
using Ostrel::SessionController;
using OstrelCore::SessionKind;
using OstrelCore::SessionStatus;
using Clock = std::chrono::steady_clock;

// A tenth of the workspace's periods: 4 s telemetry, 1.5 s status, 6 s silence.
constexpr auto telemetryPeriod = 400ms;
constexpr auto statusPeriod = 150ms;
constexpr double silenceThreshold = 0.6;
constexpr auto bound = telemetryPeriod + statusPeriod;

asio::io_context& mainLoop() {
    static asio::io_context& loop = *new asio::io_context();
    return loop;
}

bool runUntil(const std::function<bool()>& done, std::chrono::seconds limit = 30s) {
    const auto deadline = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() > deadline) return false;
        mainLoop().restart();
        mainLoop().run_one_for(2ms);
    }
    return true;
}

double seconds(Clock::duration span) {
    return std::chrono::duration<double>(span).count();
}

std::string assistantLine(bool toolUse) {
    const std::string content =
        toolUse ? R"([{"type":"tool_use","id":"toolu_1","name":"Bash","input":{"command":"make"}}])"
                : R"([{"type":"text","text":"Done."}])";
    return R"({"type":"assistant","message":{"model":"claude-sonnet-4","content":)" + content +
           R"(,"usage":{"input_tokens":900,"output_tokens":5}}})";
}

// The anchor: the bound itself, as a one-shot timer on the same main queue.
void BM_AnchorTickBound(benchmark::State& state) {
    TerminalEngine::DispatchQueue::setMain(mainLoop());
    for (auto _ : state) {
        bool fired = false;
        const auto start = Clock::now();
        auto timer = Ostrel::MainTimer::once(bound, [&] { fired = true; });
        runUntil([&] { return fired; });
        state.SetIterationTime(seconds(Clock::now() - start));
    }
    TerminalEngine::DispatchQueue::clearMain();
}

void BM_TranscriptLineToStatus(benchmark::State& state) {
    char pattern[] = "/tmp/ostrel-bench-XXXXXX";
    const std::string home = ::mkdtemp(pattern);
    ::setenv("HOME", home.c_str(), 1);
    const std::string project = home + "/proj";
    std::filesystem::create_directories(project);
    TerminalEngine::DispatchQueue::setMain(mainLoop());
    Ostrel::LoginEnv::setCached(std::vector<std::string>{"PATH=/usr/bin:/bin"});

    Ostrel::SessionOptions options;
    options.shell = "/bin/sh";
    options.home = home;
    options.timing.telemetryPeriod = telemetryPeriod;
    options.timing.statusPeriod = statusPeriod;
    options.timing.agentSilenceThreshold = silenceThreshold;
    auto session = SessionController::create(
        OstrelCore::UUID::random(), project, SessionKind::claude,
        "exec python3 '" OSTREL_SOURCE_DIR "/tests/agents/fake_claude.py' --work 0.05", "", options);
    runUntil([&] { return session->terminalView().receivedBytes() > 0; });
    session->send("hello");
    session->send("\r");
    if (!runUntil(
            [&] { return session->status() == SessionStatus::idle() && session->telemetry()->boundURL(); })) {
        state.SkipWithError("the fake agent's session never settled");
        return;
    }
    const std::string transcript = *session->telemetry()->boundURL();

    std::vector<double> ratios;
    bool toolUse = true;
    for (auto _ : state) {
        // The agent is quiet past the silence threshold: only the transcript decides now.
        runUntil([&] {
            return std::chrono::system_clock::now() - session->lastOutputAt() >
                   std::chrono::duration<double>(silenceThreshold);
        });
        const SessionStatus expected = toolUse ? SessionStatus::waiting() : SessionStatus::idle();
        const auto start = Clock::now();
        std::ofstream(transcript, std::ios::app) << assistantLine(toolUse) << "\n";
        if (!runUntil([&] { return session->status() == expected; }, 10s)) {
            state.SkipWithError("the status never followed the transcript");
            break;
        }
        const double latency = seconds(Clock::now() - start);
        state.SetIterationTime(latency);
        ratios.push_back(latency / seconds(bound));
        toolUse = !toolUse;
    }
    session->shutdown();
    runUntil([&] { return session->hasExited(); }, 5s);
    TerminalEngine::DispatchQueue::clearMain();
    std::filesystem::remove_all(home);
    if (ratios.empty()) return;
    std::sort(ratios.begin(), ratios.end());
    double sum = 0;
    for (double ratio : ratios)
        sum += ratio;
    state.counters["ratio_mean"] = sum / static_cast<double>(ratios.size());
    state.counters["ratio_p50"] = ratios[ratios.size() / 2];
    state.counters["ratio_max"] = ratios.back();
    std::printf("transcript line to status, as a share of one telemetry tick plus one status tick "
                "(%lld ms): mean %.2f, median %.2f, max %.2f over %zu changes (bound: 1.00)\n",
                static_cast<long long>(std::chrono::milliseconds(bound).count()), sum / double(ratios.size()),
                ratios[ratios.size() / 2], ratios.back(), ratios.size());
}

BENCHMARK(BM_AnchorTickBound)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TranscriptLineToStatus)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
