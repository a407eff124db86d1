// Feeds arbitrary bytes to a terminal in arbitrary reads, with resizes, scrollback changes and
// buffer switches in between. Any crash, sanitizer report or broken invariant is a finding.
#include "TerminalEngine/Terminal/Terminal.h"

#include <cstdio>
#include <cstdlib>
#include <fuzzer/FuzzedDataProvider.h>

namespace {

using namespace TerminalEngine;

struct Sink : TerminalDelegate {
    void send(Terminal&, std::span<const std::uint8_t>) override {}
};

void checkInvariants(Terminal& t) {
    Buffer& b = *t.buffer;
    if (b.x < 0 || b.x > t.cols || b.y < 0 || b.y >= t.rows) {
        std::fprintf(stderr, "cursor %d,%d outside %dx%d\n", b.x, b.y, t.cols, t.rows);
        std::abort();
    }
    if (b.yBase + t.rows > b.lines.count()) std::abort();
    for (int row = 0; row < t.rows; ++row)
        if (t.getScrollInvariantLine(b.yBase + row)->count() < t.cols) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    auto sink = std::make_shared<Sink>();
    TerminalOptions options;
    options.cols = input.ConsumeIntegralInRange(2, 120);
    options.rows = input.ConsumeIntegralInRange(1, 40);
    options.scrollback = input.ConsumeIntegralInRange(0, 200);
    Terminal terminal(sink, options);
    terminal.silentLog = true;
    while (input.remaining_bytes() > 0) {
        std::uint8_t op = input.ConsumeIntegral<std::uint8_t>();
        if (op < 240) {
            auto bytes = input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegralInRange<std::size_t>(1, 512));
            terminal.parse(bytes);
        } else if (op < 250) {
            terminal.resize(input.ConsumeIntegralInRange(1, 200), input.ConsumeIntegralInRange(1, 60));
        } else if (op < 253) {
            terminal.changeScrollback(input.ConsumeIntegralInRange(0, 300));
        } else {
            terminal.garbageCollectPayload();
        }
        checkInvariants(terminal);
    }
    return 0;
}
