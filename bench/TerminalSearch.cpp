// Searching 100,000 lines of scrollback for a term that is not there: cold (a fresh line cache,
// every line turned into a string) and warm (the cache built). Prints both against the targets
// of 50 ms cold and 10 ms warm, by processor time (wall time beside it: on a shared machine it
// also counts the time other processes had the processor), and as ratios to two anchors.
#include "TerminalEngine/Search/SearchService.h"
#include "TerminalEngine/Terminal/Terminal.h"
#include "TimeReporter.h"

#include <cstdio>
#include <random>
#include <string>

#include <benchmark/benchmark.h>

namespace {

using namespace TerminalEngine;

constexpr int kLines = 100'000;
constexpr double kColdTargetMs = 50.0;
constexpr double kWarmTargetMs = 10.0;
// The generated words use no "q", so this term is absent.
constexpr const char* kAbsent = "quartz";

struct NullDelegate : TerminalDelegate {
    void send(Terminal&, std::span<const std::uint8_t>) override {}
};

// Log-like lines of words and numbers, 20 to 79 columns, with some wrapping past 80.
std::string generatedText() {
    std::mt19937 rng(7);
    static const char letters[] = "abcdefghijklmnoprstuvwxyzABCDEFGHIJKLMNOPRSTUVWXYZ0123456789_./:";
    std::uniform_int_distribution<int> words(3, 14), length(2, 9), pick(0, sizeof letters - 2), wide(0, 49);
    std::string out;
    for (int line = 0; line < kLines; ++line) {
        int n = words(rng);
        for (int w = 0; w < n; ++w) {
            for (int k = length(rng); k > 0; --k)
                out += letters[pick(rng)];
            out += ' ';
        }
        if (wide(rng) == 0) out += "\xe6\x97\xa5\xe6\x9c\xac";
        out += "\r\n";
    }
    return out;
}

Terminal& terminal() {
    static auto delegate = std::make_shared<NullDelegate>();
    static Terminal* t = [] {
        TerminalOptions options;
        options.cols = 80;
        options.rows = 24;
        options.scrollback = kLines;
        auto* made = new Terminal(delegate, options);
        made->silentLog = true;
        made->feed(generatedText());
        return made;
    }();
    return *t;
}

void BM_SearchCold(benchmark::State& state, SearchOptions options) {
    Terminal& t = terminal();
    for (auto _ : state) {
        SearchService search(t);
        benchmark::DoNotOptimize(search.findNext(kAbsent, options, false));
    }
}

void BM_SearchWarm(benchmark::State& state, SearchOptions options) {
    Terminal& t = terminal();
    SearchService search(t);
    search.findNext(kAbsent, options, false);
    for (auto _ : state)
        benchmark::DoNotOptimize(search.findNext(kAbsent, options, false));
}

// Anchors, measured in the same run: the naive search (each line turned into a string with
// BufferLine::translateToString, then searched), and the floor of any warm search (one find over
// the whole text held as a single string).
void BM_AnchorNaive(benchmark::State& state) {
    Terminal& t = terminal();
    for (auto _ : state) {
        const auto& lines = t.buffer->lines;
        bool found = false;
        for (int row = 0; row < lines.count(); ++row)
            found |= lines[row].translateToString(true, 0, -1, true, &t.graphemes).find(kAbsent) !=
                     std::string::npos;
        benchmark::DoNotOptimize(found);
    }
}

void BM_AnchorFlatFind(benchmark::State& state) {
    Terminal& t = terminal();
    std::string all;
    const auto& lines = t.buffer->lines;
    for (int row = 0; row < lines.count(); ++row)
        all += lines[row].translateToString(true, 0, -1, true, &t.graphemes) + "\n";
    for (auto _ : state)
        benchmark::DoNotOptimize(all.find(kAbsent));
}

} // namespace

int main(int argc, char** argv) {
    const std::pair<const char*, SearchOptions> variants[] = {
        {"ignoring case", {}},
        {"case-sensitive", {.caseSensitive = true}},
        {"regex", {.regex = true}},
    };
    for (const auto& [name, options] : variants) {
        benchmark::RegisterBenchmark((std::string("cold/") + name).c_str(), BM_SearchCold, options)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark((std::string("warm/") + name).c_str(), BM_SearchWarm, options)
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::RegisterBenchmark("anchor/naive per-line strings", BM_AnchorNaive)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("anchor/find in one flat string", BM_AnchorFlatFind)
        ->Unit(benchmark::kMillisecond);
    benchmark::Initialize(&argc, argv);
    std::printf("buffer: %d lines of scrollback plus the screen\n", terminal().buffer->lines.count());
    TimeReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    const double naiveCpu = reporter.cpu("anchor/naive per-line strings");
    const double flatCpu = reporter.cpu("anchor/find in one flat string");
    std::printf("\nanchors (processor): naive per-line strings %.2f ms, one flat find %.2f ms\n", naiveCpu,
                flatCpu);
    std::printf("%-16s %18s %18s %12s %12s   targets: cold < %.0f ms, warm < %.0f ms (processor)\n", "search",
                "cold ms cpu/wall", "warm ms cpu/wall", "cold/naive", "warm/flat", kColdTargetMs,
                kWarmTargetMs);
    bool met = true;
    for (const auto& [name, options] : variants) {
        auto cold = reporter.times.find(std::string("cold/") + name);
        auto warm = reporter.times.find(std::string("warm/") + name);
        if (cold == reporter.times.end() || warm == reporter.times.end()) continue;
        auto [coldCpu, coldWall] = cold->second;
        auto [warmCpu, warmWall] = warm->second;
        bool ok = coldCpu < kColdTargetMs && warmCpu < kWarmTargetMs;
        met = met && ok;
        std::printf("%-16s %8.2f / %7.2f %8.2f / %7.2f %12.2f %12.2f   %s\n", name, coldCpu, coldWall,
                    warmCpu, warmWall, naiveCpu > 0 ? coldCpu / naiveCpu : 0.0,
                    flatCpu > 0 ? warmCpu / flatCpu : 0.0, ok ? "met" : "MISSED");
    }
    std::printf("%s\n", met ? "all targets met" : "some targets missed");
    return 0;
}
