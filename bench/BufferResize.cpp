// Cost of the screen model's heavy paths: rewrapping a full 10,000-line history when the width
// changes, and scrolling a full ring by recycling lines (against pushing fresh ones).
#include "TerminalEngine/Model/Buffer.h"

#include <memory>
#include <string_view>

#include <benchmark/benchmark.h>

namespace {

using TerminalEngine::Attribute;
using TerminalEngine::Buffer;
using TerminalEngine::BufferLine;
using TerminalEngine::CharData;

constexpr int historyLines = 10'000;
constexpr int screenRows = 25;

// Fills the buffer the way a build log would: mostly short lines, every fifth one long enough to
// wrap at 80 columns, a few with wide characters.
void fillHistory(Buffer& buffer) {
    constexpr std::string_view words = "compiling module with flags -O2 -Wall and linking the result ";
    buffer.fillViewportRows();
    int written = 0;
    while (buffer.lines.count() < buffer.lines.maxLength()) {
        const int length = written % 5 == 0 ? 150 : 20 + written % 50;
        for (int i = 0; i < length; ++i) {
            if (buffer.x >= buffer.cols) {
                buffer.lines.push(buffer.getBlankLine(Attribute::empty(), true));
                ++buffer.yBase;
                buffer.x = 0;
            }
            BufferLine& line = buffer.lines[buffer.lines.count() - 1];
            if (written % 7 == 0 && i % 10 == 0 && buffer.x + 2 <= buffer.cols) {
                line.set(buffer.x++, CharData(Attribute::empty(), 0x4E2D, 2));
                line.set(buffer.x++, CharData(Attribute::empty(), 0, 0));
            } else {
                line.set(buffer.x++,
                         CharData(Attribute::empty(), words[static_cast<std::size_t>(i) % words.size()], 1));
            }
        }
        buffer.lines.push(buffer.getBlankLine(Attribute::empty()));
        ++buffer.yBase;
        buffer.x = 0;
        ++written;
    }
    buffer.yBase = buffer.lines.count() - buffer.rows;
    buffer.yDisp = buffer.yBase;
    buffer.y = buffer.rows - 1;
}

void BM_ReflowHistory80To120AndBack(benchmark::State& state) {
    Buffer buffer(80, screenRows, 8, historyLines - screenRows);
    fillHistory(buffer);
    for (auto _ : state) {
        buffer.resize(120, screenRows);
        buffer.resize(80, screenRows);
        benchmark::DoNotOptimize(buffer.lines.count());
    }
    state.counters["lines"] = buffer.lines.count();
    state.counters["ns/line"] =
        benchmark::Counter(static_cast<double>(buffer.lines.count()) * 2,
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_ReflowHistory80To120AndBack)->Unit(benchmark::kMillisecond);

void BM_ScrollFullRingByRecycling(benchmark::State& state) {
    Buffer buffer(80, screenRows, 8, historyLines - screenRows);
    fillHistory(buffer);
    for (auto _ : state) {
        BufferLine& line = buffer.lines.recycle(Attribute::empty(), false);
        benchmark::DoNotOptimize(&line);
    }
}
BENCHMARK(BM_ScrollFullRingByRecycling);

// The same scrolling with a fresh line per step: what recycling saves.
void BM_ScrollFullRingByPushing(benchmark::State& state) {
    Buffer buffer(80, screenRows, 8, historyLines - screenRows);
    fillHistory(buffer);
    for (auto _ : state) {
        buffer.lines.push(buffer.getBlankLine(Attribute::empty()));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_ScrollFullRingByPushing);

} // namespace

BENCHMARK_MAIN();
