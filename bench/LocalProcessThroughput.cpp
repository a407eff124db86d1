// End-to-end throughput of LocalProcess on the main queue against a plain blocking read loop on a
// pty, with the same flooding child and the same consumer, rounds alternating, in one run.
// Prints a table with the ratio (LocalProcess rate / plain loop rate) and the largest pendingBytes.
#include "TerminalEngine/Pty/LocalProcess.h"
#include "TerminalEngine/Pty/PseudoTerminalHelpers.h"
#include "TerminalEngine/Terminal/EnvironmentVariables.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <benchmark/benchmark.h>
#include <fmt/format.h>

namespace {

using namespace TerminalEngine;

// What the child writes: 100 MiB of a 70-character line, cut by head at exactly that many bytes
// (the pty adds a carriage return per line on its way out).
constexpr std::int64_t childBytes = 104'857'600;
const std::string childScript =
    "yes 'The quick brown fox jumps over the lazy dog while the agent reads logs.' | head -c " +
    std::to_string(childBytes);
constexpr WindowSize childSize{24, 80, 0, 0};

// A consumer sees every chunk in order. The factory makes a fresh one per run.
using Consumer = std::function<void(std::span<const std::uint8_t>)>;
struct ConsumerKind {
    const char* name;
    std::function<Consumer()> make;
};

// Bytes and a checksum that does not depend on where the chunks were cut.
struct ByteCount {
    std::uint64_t bytes = 0;
    std::uint64_t sum = 0;
};
ByteCount lastCount;

Consumer makeByteCounter() {
    lastCount = {};
    return [](std::span<const std::uint8_t> chunk) {
        std::uint64_t sum = 0;
        for (const std::uint8_t byte : chunk)
            sum += byte;
        lastCount.bytes += chunk.size();
        lastCount.sum += sum;
    };
}

// The real consumer: every chunk parsed by an 80x24 terminal, as a session does.
struct SilentDelegate : TerminalDelegate {
    void send(Terminal&, std::span<const std::uint8_t>) override {}
};

Consumer makeTerminal() {
    lastCount = {};
    auto delegate = std::make_shared<SilentDelegate>();
    TerminalOptions options;
    options.cols = 80;
    options.rows = 24;
    auto terminal = std::make_shared<Terminal>(delegate, options);
    return [delegate, terminal](std::span<const std::uint8_t> chunk) {
        terminal->parse(chunk);
        lastCount.bytes += chunk.size();
    };
}

const std::vector<ConsumerKind> consumers = {
    {"byteCounter", makeByteCounter},
    {"terminal", makeTerminal},
};

struct RunResult {
    std::uint64_t bytes = 0;
    std::uint64_t checksum = 0;
    double seconds = 0;
    std::int64_t maxPendingBytes = 0;
    double rate() const { return seconds > 0 ? double(bytes) / seconds / (1024.0 * 1024.0) : 0; }
};

std::vector<std::string> childArgs() {
    return {"sh", "-c", childScript};
}

// The anchor: one thread, blocking reads of the master until the slave side is gone.
RunResult runPlainLoop(const Consumer& consume) {
    const auto env = getEnvironmentVariables("xterm-256color", true);
    const auto start = std::chrono::steady_clock::now();
    const auto child = PseudoTerminalHelpers::fork("/bin/sh", childArgs(), env, std::nullopt, childSize);
    if (!child) return {};
    std::vector<std::uint8_t> buffer(static_cast<std::size_t>(LocalProcess::readSize));
    for (;;) {
        const ssize_t n = ::read(child->masterDescriptor, buffer.data(), buffer.size());
        if (n > 0) {
            consume(std::span(buffer.data(), static_cast<std::size_t>(n)));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        break; // EIO: the slave side is closed
    }
    ::close(child->masterDescriptor);
    int status = 0;
    ::waitpid(child->processId, &status, 0);
    RunResult result;
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    result.bytes = lastCount.bytes;
    result.checksum = lastCount.sum;
    return result;
}

class ForwardingDelegate : public LocalProcessDelegate {
public:
    explicit ForwardingDelegate(Consumer consume)
        : consume_(std::move(consume)) {}
    void processTerminated(LocalProcess&, std::optional<std::int32_t>) override { exited = true; }
    void dataReceived(std::span<const std::uint8_t> slice) override { consume_(slice); }
    WindowSize getWindowSize() override { return childSize; }
    bool exited = false;

private:
    Consumer consume_;
};

// LocalProcess on the main queue: the reader thread feeds the chunk queue, the main loop drains it.
RunResult runLocalProcess(const Consumer& consume) {
    asio::io_context context;
    auto keepAlive = asio::make_work_guard(context);
    DispatchQueue::setMain(context);
    auto delegate = std::make_shared<ForwardingDelegate>(consume);
    RunResult result;
    {
        auto process = LocalProcess::create(delegate);
        const auto start = std::chrono::steady_clock::now();
        process->startProcess("/bin/sh", {"-c", childScript});
        const auto deadline = start + std::chrono::minutes(5);
        for (;;) {
            const auto d = process->diagnostics();
            if ((d.endOfFileSeen && !d.pending.pendingScheduled && delegate->exited) ||
                std::chrono::steady_clock::now() > deadline)
                break;
            context.run_one_for(std::chrono::milliseconds(2));
        }
        result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        result.maxPendingBytes = process->diagnostics().pending.maxPendingBytes;
    }
    DispatchQueue::clearMain();
    result.bytes = lastCount.bytes;
    result.checksum = lastCount.sum;
    return result;
}

struct PairResults {
    std::vector<double> plainRates;
    std::vector<double> localRates;
    std::int64_t maxPendingBytes = 0;
    bool sameOutput = true;
};
std::map<std::string, PairResults> results;

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const std::size_t mid = values.size() / 2;
    return values.size() % 2 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

void benchPair(benchmark::State& state, const ConsumerKind& kind) {
    PairResults& pair = results[kind.name];
    bool plainFirst = true;
    for (auto _ : state) {
        RunResult plain;
        RunResult local;
        // Alternate the order so that neither side always runs on a warmer machine.
        if (plainFirst) {
            plain = runPlainLoop(kind.make());
            local = runLocalProcess(kind.make());
        } else {
            local = runLocalProcess(kind.make());
            plain = runPlainLoop(kind.make());
        }
        plainFirst = !plainFirst;
        pair.plainRates.push_back(plain.rate());
        pair.localRates.push_back(local.rate());
        pair.maxPendingBytes = std::max(pair.maxPendingBytes, local.maxPendingBytes);
        pair.sameOutput = pair.sameOutput && plain.bytes == local.bytes && plain.checksum == local.checksum &&
                          plain.bytes >= std::uint64_t(childBytes);
        state.SetIterationTime(plain.seconds + local.seconds);
    }
    const double plainRate = median(pair.plainRates);
    const double localRate = median(pair.localRates);
    state.counters["plain_MiBps"] = plainRate;
    state.counters["local_MiBps"] = localRate;
    state.counters["ratio"] = plainRate > 0 ? localRate / plainRate : 0;
    state.counters["maxPendingBytes"] = double(pair.maxPendingBytes);
}

} // namespace

int main(int argc, char** argv) {
    int rounds = 5;
    if (const char* value = std::getenv("OSTREL_BENCH_ROUNDS")) rounds = std::max(1, std::atoi(value));
    for (const auto& kind : consumers) {
        benchmark::RegisterBenchmark((std::string("LocalProcessThroughput/") + kind.name).c_str(),
                                     [&kind](benchmark::State& state) { benchPair(state, kind); })
            ->Iterations(rounds)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    const std::int64_t bound = LocalProcess::pendingHighWaterBytes + LocalProcess::readSize;
    fmt::print("\n{:<14} {:>16} {:>16} {:>7} {:>17} {:>9} {:>7}\n", "consumer", "plain loop MiB/s",
               "LocalProcess MiB/s", "ratio", "max pendingBytes", "bound ok", "same");
    for (const auto& kind : consumers) {
        const auto& pair = results[kind.name];
        const double plainRate = median(pair.plainRates);
        const double localRate = median(pair.localRates);
        fmt::print("{:<14} {:>16.1f} {:>18.1f} {:>7.3f} {:>17} {:>9} {:>7}\n", kind.name, plainRate,
                   localRate, plainRate > 0 ? localRate / plainRate : 0.0, pair.maxPendingBytes,
                   pair.maxPendingBytes <= bound ? "yes" : "NO", pair.sameOutput ? "yes" : "NO");
    }
    fmt::print("(medians of {} alternating rounds of {} MiB; ratio target >= 0.80, bound {} bytes)\n", rounds,
               childBytes / (1024 * 1024), bound);
    return 0;
}
