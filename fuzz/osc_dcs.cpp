// Wraps fuzz input into OSC, DCS and APC strings (7- and 8-bit introducers, every terminator,
// split across reads) and feeds them to a terminal whose delegate answers clipboard reads, then
// looks up links over the screen. Any crash, sanitizer report or broken invariant is a finding.
#include "TerminalEngine/Terminal/Terminal.h"

#include <array>
#include <cstdlib>
#include <fuzzer/FuzzedDataProvider.h>
#include <string>
#include <vector>

namespace {

using namespace TerminalEngine;

struct Delegate : TerminalDelegate {
    std::vector<std::uint8_t> clipboard;
    std::size_t sent = 0;
    void send(Terminal&, std::span<const std::uint8_t> data) override { sent += data.size(); }
    std::optional<std::vector<std::uint8_t>> clipboardRead(Terminal&) override { return clipboard; }
    void clipboardCopy(Terminal&, std::span<const std::uint8_t> content) override {
        clipboard.assign(content.begin(), content.end());
    }
};

constexpr std::array<int, 18> oscNumbers = {0,  1,  2,  4,   6,   7,   8,    9,   10,
                                            11, 12, 52, 104, 112, 777, 1337, 133, 99999};
constexpr std::array<const char*, 7> dcsHeads = {"$q", "q", "+q", "1$r", "0;1;2q", ">|", "="};
constexpr std::array<const char*, 5> terminators = {"\x07", "\x1b\\", "\x9c", "\x18", "\x1a"};

std::string frame(FuzzedDataProvider& input) {
    std::string out;
    bool eightBit = input.ConsumeBool();
    switch (input.ConsumeIntegralInRange(0, 2)) {
    case 0:
        out += eightBit ? "\x9d" : "\x1b]";
        out += std::to_string(input.PickValueInArray(oscNumbers));
        out += ';';
        break;
    case 1:
        out += eightBit ? "\x90" : "\x1bP";
        out += input.PickValueInArray(dcsHeads);
        break;
    default:
        out += eightBit ? "\x9f" : "\x1b_";
        out += input.ConsumeBool() ? "G" : "X";
        break;
    }
    out += input.ConsumeRandomLengthString(256);
    if (input.ConsumeIntegralInRange(0, 9) != 0) out += input.PickValueInArray(terminators);
    // Some text after the string lands on the screen, where links and their cells live.
    out += input.ConsumeBool() ? "text https://x.io/a b/c.txt\r\n" : "";
    return out;
}

void checkInvariants(Terminal& t) {
    Buffer& b = *t.buffer;
    if (b.x < 0 || b.x > t.cols || b.y < 0 || b.y >= t.rows) std::abort();
    if (b.yBase + t.rows > b.lines.count()) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    auto delegate = std::make_shared<Delegate>();
    delegate->clipboard = input.ConsumeBytes<std::uint8_t>(input.ConsumeIntegralInRange(0, 32));
    TerminalOptions options;
    options.cols = input.ConsumeIntegralInRange(2, 60);
    options.rows = input.ConsumeIntegralInRange(1, 12);
    options.scrollback = input.ConsumeIntegralInRange(0, 20);
    Terminal terminal(delegate, options);
    terminal.silentLog = true;
    while (input.remaining_bytes() > 0) {
        std::string bytes = frame(input);
        // Split the string across reads at fuzz-chosen points.
        std::size_t at = 0;
        while (at < bytes.size()) {
            std::size_t n = input.ConsumeIntegralInRange<std::size_t>(1, bytes.size() - at);
            terminal.feed(std::string_view(bytes).substr(at, n));
            at += n;
        }
        checkInvariants(terminal);
        int row = input.ConsumeIntegralInRange(-1, terminal.buffer->lines.count());
        int col = input.ConsumeIntegralInRange(-1, terminal.cols);
        auto mode = input.ConsumeBool() ? LinkLookupMode::explicitOnly : LinkLookupMode::explicitAndImplicit;
        if (auto match = terminal.linkMatch(LinkLookupLocation::buffer({col, row}), mode))
            if (match->rowRanges.empty()) std::abort();
        if (input.ConsumeIntegralInRange(0, 15) == 0) terminal.garbageCollectPayload();
    }
    return 0;
}
