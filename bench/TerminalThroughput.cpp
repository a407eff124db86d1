// Throughput of Terminal::parse at 80x24 on generated streams, against libvterm (with its
// screen layer) fed the same bytes in the same run. Prints MB/s for both and the ratio, and the
// allocations made per printed ASCII character.
#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <vterm.h>

// Counts heap allocations so that the ASCII path can be shown to make none.
static std::atomic<std::size_t> allocationCount{0};
void* operator new(std::size_t size) {
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

using namespace TerminalEngine;

constexpr int kCols = 80;
constexpr int kRows = 24;
constexpr std::size_t kTargetSize = 4 << 20; // each stream is about 4 MiB
constexpr std::size_t kChunk = 64 << 10;     // fed in 64 KiB reads, as from a pty

std::string randomWord(std::mt19937& rng) {
    static const char letters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::uniform_int_distribution<int> len(2, 9), pick(0, sizeof letters - 2);
    std::string w;
    for (int i = len(rng); i > 0; --i)
        w += letters[pick(rng)];
    return w;
}

std::string plainAscii() {
    std::mt19937 rng(1);
    std::string s;
    std::uniform_int_distribution<int> width(10, 79);
    while (s.size() < kTargetSize) {
        std::string line;
        int w = width(rng);
        while (static_cast<int>(line.size()) < w)
            line += randomWord(rng) + ' ';
        line.resize(static_cast<std::size_t>(w));
        s += line + "\r\n";
    }
    return s;
}

std::string yes() {
    std::string s;
    while (s.size() < kTargetSize)
        s += "y\n";
    return s;
}

std::string fullWidthLines() {
    std::mt19937 rng(2);
    std::string s;
    while (s.size() < kTargetSize) {
        std::string line;
        while (line.size() < kCols)
            line += randomWord(rng) + ' ';
        line.resize(kCols);
        s += line + "\r\n";
    }
    return s;
}

std::string lightCells() {
    std::string s = "\x1b[?1049h";
    while (s.size() < kTargetSize)
        for (char c = 'A'; c <= 'Z'; ++c)
            s += "\x1b[H" + std::string(kCols * kRows, c);
    return s;
}

std::string denseCells() {
    std::string s = "\x1b[?1049h";
    int n = 0;
    while (s.size() < kTargetSize) {
        s += "\x1b[H";
        for (int cell = 0; cell < kCols * kRows; ++cell, ++n)
            s += fmt::format("\x1b[38;5;{};48;5;{};1;3;4m{}", n % 256, (n * 7) % 256,
                             static_cast<char>('A' + n % 26));
    }
    return s;
}

std::string cursorMotion() {
    std::string s = "\x1b[?1049h";
    std::mt19937 rng(3);
    std::uniform_int_distribution<int> row(1, kRows), col(1, kCols), letter('a', 'z');
    while (s.size() < kTargetSize)
        s += fmt::format("\x1b[{};{}H{}", row(rng), col(rng), static_cast<char>(letter(rng)));
    return s;
}

std::string scrollRegion(bool fromTop) {
    std::mt19937 rng(4);
    std::string s = fromTop ? fmt::format("\x1b[1;{}r", kRows - 1) : fmt::format("\x1b[2;{}r", kRows);
    s += fmt::format("\x1b[{};1H", fromTop ? kRows - 1 : kRows);
    while (s.size() < kTargetSize) {
        std::string line;
        while (line.size() < 60)
            line += randomWord(rng) + ' ';
        s += line + "\r\n";
    }
    return s;
}

std::string unicodeText() {
    std::mt19937 rng(5);
    const char* pieces[] = {"\xe4\xb8\xad\xe6\x96\x87",         // CJK, wide
                            "e\xcc\x81",                        // e + combining acute
                            "\xf0\x9f\x98\x80",                 // emoji, wide
                            "\xd0\x9f\xd1\x80\xd0\xb8\xd0\xb2", // Cyrillic
                            "caf\xc3\xa9 ",                     // precomposed
                            "\xe2\x94\x80\xe2\x94\x80",         // box drawing
                            "a\xcc\x88\xcc\x81",                // stacked marks
                            "\xed\x95\x9c\xea\xb8\x80",         // Hangul, wide
                            " plain words "};
    std::uniform_int_distribution<int> pick(0, 8);
    std::string s;
    int column = 0;
    while (s.size() < kTargetSize) {
        s += pieces[pick(rng)];
        if (++column % 12 == 0) s += "\r\n";
    }
    return s;
}

std::string editorSession() {
    std::mt19937 rng(6);
    std::string s = "\x1b[?1049h\x1b[?25l";
    std::uniform_int_distribution<int> row(1, kRows - 2), color(0, 7);
    while (s.size() < kTargetSize) {
        // Redraw the status line, scroll the text area, repaint a few lines with syntax colours.
        s += fmt::format("\x1b[{};1H\x1b[7m -- INSERT -- file.cpp  line {}\x1b[K\x1b[0m", kRows, row(rng));
        s += fmt::format("\x1b[1;{}r\x1b[{};1H\n\x1b[r", kRows - 1, kRows - 1);
        for (int k = 0; k < 4; ++k) {
            s += fmt::format("\x1b[{};1H\x1b[2K", row(rng));
            for (int w = 0; w < 8; ++w)
                s += fmt::format("\x1b[3{}m{}\x1b[39m ", color(rng), randomWord(rng));
        }
        s += fmt::format("\x1b[{};{}H\x1b[?25h\x1b[?25l", row(rng), 5);
    }
    return s;
}

// Streams are generated on first use, so that a filtered run builds only what it measures.
const std::map<std::string, std::string (*)()>& generators() {
    static const std::map<std::string, std::string (*)()> all = {
        {"plain_ascii", plainAscii},
        {"y_newline", yes},
        {"full_width_lines", fullWidthLines},
        {"light_cells", lightCells},
        {"dense_cells", denseCells},
        {"cursor_motion", cursorMotion},
        {"scroll_region_top", [] { return scrollRegion(true); }},
        {"scroll_region_bottom", [] { return scrollRegion(false); }},
        {"unicode", unicodeText},
        {"editor_session", editorSession},
    };
    return all;
}

const std::string& stream(const std::string& name) {
    static std::map<std::string, std::string> cache;
    auto it = cache.find(name);
    if (it == cache.end()) it = cache.emplace(name, generators().at(name)()).first;
    return it->second;
}

struct NullDelegate : TerminalDelegate {
    void send(Terminal&, std::span<const std::uint8_t>) override {}
};

void feedInChunks(const std::string& data, auto&& consume) {
    for (std::size_t offset = 0; offset < data.size(); offset += kChunk)
        consume(data.data() + offset, std::min(kChunk, data.size() - offset));
}

void BM_Terminal(benchmark::State& state, const std::string& name) {
    const std::string& data = stream(name);
    auto delegate = std::make_shared<NullDelegate>();
    TerminalOptions options;
    options.cols = kCols;
    options.rows = kRows;
    Terminal terminal(delegate, options);
    terminal.silentLog = true;
    for (auto _ : state) {
        feedInChunks(data, [&](const char* p, std::size_t n) {
            terminal.parse({reinterpret_cast<const std::uint8_t*>(p), n});
        });
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * data.size()));
}

void BM_Libvterm(benchmark::State& state, const std::string& name) {
    const std::string& data = stream(name);
    VTerm* vt = vterm_new(kRows, kCols);
    vterm_set_utf8(vt, 1);
    VTermScreen* screen = vterm_obtain_screen(vt);
    vterm_screen_enable_altscreen(screen, 1);
    vterm_screen_reset(screen, 1);
    for (auto _ : state) {
        feedInChunks(data, [&](const char* p, std::size_t n) { vterm_input_write(vt, p, n); });
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * data.size()));
    vterm_free(vt);
}

// Each benchmark runs this many times, the repetitions of all of them shuffled together, and the
// best rate of each counts: other work on the machine only ever slows a run down, and shuffling
// keeps a slow spell from landing on one engine's runs alone.
constexpr int kRepetitions = 5;

// Shows the median of each benchmark and keeps its best rate, to print the ratios at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        std::vector<Run> shown;
        for (const auto& run : runs) {
            if (run.run_type == Run::RT_Aggregate) {
                if (run.aggregate_name == "median") shown.push_back(run);
                continue;
            }
            auto it = run.counters.find("bytes_per_second");
            if (it == run.counters.end()) continue;
            double& best = rates[run.run_name.function_name];
            best = std::max(best, static_cast<double>(it->second));
        }
        if (!shown.empty()) ConsoleReporter::ReportRuns(shown);
    }
    std::map<std::string, double> rates;
};

std::size_t allocationsPerAsciiRun() {
    auto delegate = std::make_shared<NullDelegate>();
    Terminal terminal(delegate, TerminalOptions{});
    std::string text(1 << 20, 'x');
    for (std::size_t i = 79; i < text.size(); i += 80)
        text[i] = '\n';
    terminal.feed(text); // warm the ring up to its full size
    std::size_t before = allocationCount.load();
    terminal.feed(text);
    return allocationCount.load() - before;
}

} // namespace

int main(int argc, char** argv) {
    bool filtered = false;
    for (int i = 1; i < argc; ++i)
        filtered = filtered || std::string_view(argv[i]).starts_with("--benchmark_filter");
    for (const auto& [name, generate] : generators()) {
        benchmark::RegisterBenchmark(("ostrel/" + name).c_str(), BM_Terminal, name)
            ->Unit(benchmark::kMillisecond)
            ->Repetitions(kRepetitions);
        benchmark::RegisterBenchmark(("libvterm/" + name).c_str(), BM_Libvterm, name)
            ->Unit(benchmark::kMillisecond)
            ->Repetitions(kRepetitions);
    }
    std::vector<char*> arguments(argv, argv + argc);
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    arguments.insert(arguments.begin() + 1, interleave.data());
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    std::printf("\nbest of %d runs each\n%-22s %12s %12s %8s\n", kRepetitions, "stream", "ostrel MB/s",
                "libvterm MB/s", "ratio");
    bool allMet = true;
    for (const auto& [name, generate] : generators()) {
        auto ours = reporter.rates.find("ostrel/" + name), theirs = reporter.rates.find("libvterm/" + name);
        if (ours == reporter.rates.end()) continue;
        if (theirs == reporter.rates.end()) { // a filtered run that left the anchor out
            std::printf("%-22s %12.1f %12s\n", name.c_str(), ours->second / 1e6, "-");
            continue;
        }
        double ratio = ours->second / theirs->second;
        allMet = allMet && ratio >= 5.0;
        std::printf("%-22s %12.1f %12.1f %7.1fx%s\n", name.c_str(), ours->second / 1e6, theirs->second / 1e6,
                    ratio, ratio >= 5.0 ? "" : "  (below 5x)");
    }
    if (!filtered)
        std::printf("\nallocations while printing 1 MiB of ASCII lines on a full ring: %zu\n",
                    allocationsPerAsciiRun());
    std::printf("%s\n", allMet ? "every stream at least 5x libvterm" : "some streams below 5x libvterm");
    return 0;
}
