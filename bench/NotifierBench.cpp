// What posting a desktop notification costs the main thread, on a private session bus with a
// server that answers and with one that hangs, against the floor of handing the same bytes to
// another process (a write and a read on a local socket pair). Prints the ratios at the end.
#include "../tests/Ostrel/NotificationServer.h"
#include "Ostrel/Localization.h"
#include "Ostrel/Notifier.h"
#include "Ostrel/Settings.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <benchmark/benchmark.h>

namespace {

using namespace std::chrono_literals;
using OstrelCore::SessionStatus;
using OstrelCore::UUID;

// About the size of a waiting session's Notify on the wire.
constexpr std::size_t messageBytes = 400;

// The floor: one message's bytes into a socket and out at the other end, on one thread.
void BM_AnchorSocketPair(benchmark::State& state) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        state.SkipWithError("socketpair");
        return;
    }
    std::array<char, messageBytes> out{}, in{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(::write(ends[0], out.data(), out.size()));
        benchmark::DoNotOptimize(::read(ends[1], in.data(), in.size()));
    }
    ::close(ends[0]);
    ::close(ends[1]);
}
BENCHMARK(BM_AnchorSocketPair);

// A notifier on a private bus with a server, ready to send.
struct Bench {
    explicit Bench(bool serverAnswers) {
        Ostrel::Localization::setCurrent(Ostrel::Language::en);
        if (!serverAnswers) server.leaveUnanswered(1 << 30);
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (!notifier.available() && std::chrono::steady_clock::now() < deadline)
            context.run_one_for(10ms);
    }
    Ostrel::NotificationSubject waiting() const {
        return {UUID::random(), "api", SessionStatus::waiting(),
                OstrelCore::ApprovalPolicy::Request{"Bash", "npm run build && npm test"}, "shop"};
    }

    OstrelTest::PrivateBus bus;
    OstrelTest::NotificationServer server{{"actions", "body"}};
    asio::io_context context;
    asio::executor_work_guard<asio::io_context::executor_type> work = asio::make_work_guard(context);
    Ostrel::Settings settings{bus.folder() + "/settings.json"};
    Ostrel::Notifier notifier{settings, context};
};

// Main-thread time of notify() and of writing the call out, while the server answers nothing:
// no reply is ever waited for.
void BM_NotifyToHungServer(benchmark::State& state) {
    Bench bench(false);
    if (!bench.notifier.available()) {
        state.SkipWithError("no notification server on the private bus");
        return;
    }
    for (auto _ : state) {
        bench.notifier.notify(bench.waiting());
        bench.context.poll();
    }
}
BENCHMARK(BM_NotifyToHungServer);

// From notify() until the server holds the notification, through the bus daemon and the server's
// thread: the latency a user could ever notice.
void BM_NotifyUntilShown(benchmark::State& state) {
    Bench bench(true);
    if (!bench.notifier.available()) {
        state.SkipWithError("no notification server on the private bus");
        return;
    }
    std::size_t shown = 0;
    for (auto _ : state) {
        bench.notifier.notify(bench.waiting());
        ++shown;
        while (bench.server.received().size() < shown)
            bench.context.run_one_for(1ms);
    }
}
BENCHMARK(BM_NotifyUntilShown)->Unit(benchmark::kMicrosecond);

// Keeps the time per iteration by name, for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            if (!run.error_occurred)
                nanoseconds[run.benchmark_name()] = run.GetAdjustedRealTime() * scale(run);
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> nanoseconds;

private:
    static double scale(const Run& run) {
        switch (run.time_unit) {
        case benchmark::kNanosecond: return 1;
        case benchmark::kMicrosecond: return 1e3;
        case benchmark::kMillisecond: return 1e6;
        case benchmark::kSecond: return 1e9;
        }
        return 1;
    }
};

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const auto anchor = reporter.nanoseconds.find("BM_AnchorSocketPair");
    if (anchor == reporter.nanoseconds.end() || anchor->second <= 0) return 0;
    std::printf("\n%-24s %12s %10s\n", "against the socket pair", "ns", "ratio");
    for (const char* name : {"BM_NotifyToHungServer", "BM_NotifyUntilShown"}) {
        auto it = reporter.nanoseconds.find(name);
        if (it != reporter.nanoseconds.end())
            std::printf("%-24s %12.0f %10.1f\n", name, it->second, it->second / anchor->second);
    }
    return 0;
}
