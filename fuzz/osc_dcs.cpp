// Feeds the input as a raw byte stream (OSC, DCS and APC strings with 7- and 8-bit introducers
// and every terminator, as in the seeds) to a terminal whose delegate answers clipboard reads,
// split across reads at points taken from the bytes themselves, so that a seed file is exactly
// the stream the terminal sees. Then reads the screen back the ways a view does: links under
// every cell, a double click, and a search for a piece of the input. Any crash, sanitizer
// report or broken invariant is a finding.
#include "TerminalEngine/Search/SearchService.h"
#include "TerminalEngine/Selection/SelectionService.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace TerminalEngine;

struct Delegate : TerminalDelegate {
    std::vector<std::uint8_t> clipboard{'s', 'e', 'e', 'd'};
    void send(Terminal&, std::span<const std::uint8_t>) override {}
    std::optional<std::vector<std::uint8_t>> clipboardRead(Terminal&) override { return clipboard; }
    void clipboardCopy(Terminal&, std::span<const std::uint8_t> content) override {
        clipboard.assign(content.begin(), content.end());
    }
};

void checkInvariants(Terminal& t) {
    Buffer& b = *t.buffer;
    if (b.x < 0 || b.x > t.cols || b.y < 0 || b.y >= t.rows) std::abort();
    if (b.yBase + t.rows > b.lines.count()) std::abort();
}

void checkLink(Terminal& t, Position at, LinkLookupMode mode) {
    auto match = t.linkMatch(LinkLookupLocation::buffer(at), mode);
    if (!match) return;
    if (match->rowRanges.empty() || match->text.empty()) std::abort();
    for (const RowRange& r : match->rowRanges)
        if (r.row < 0 || r.row >= t.buffer->lines.count() || r.range.start < 0 ||
            r.range.end <= r.range.start)
            std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto delegate = std::make_shared<Delegate>();
    TerminalOptions options;
    // Narrow screens make rows wrap and links span rows; the size follows the input's length so
    // that the stream itself stays untouched.
    options.cols = 8 + static_cast<int>(size % 37);
    options.rows = 2 + static_cast<int>(size % 7);
    options.scrollback = 16;
    Terminal terminal(delegate, options);
    terminal.silentLog = true;

    std::size_t at = 0;
    while (at < size) {
        std::size_t n = std::min<std::size_t>(size - at, 1 + (data[at] * 7u + at) % 29);
        terminal.parse({data + at, n});
        at += n;
        checkInvariants(terminal);
    }

    const int count = terminal.buffer->lines.count();
    for (int row = std::max(0, count - 12); row < count; ++row)
        for (int col = -1; col <= terminal.cols; col += 3)
            checkLink(terminal, {col, row},
                      (row + col) % 2 ? LinkLookupMode::explicitOnly : LinkLookupMode::explicitAndImplicit);

    SelectionService selection(terminal);
    selection.startSelection({static_cast<int>(size % 11), count - 1}, SelectionMode::word);
    (void)selection.getSelectedText();

    // A term cut from the input, as text and as an expression (which may not compile).
    std::string term(reinterpret_cast<const char*>(data), std::min<std::size_t>(size, 6));
    SearchService search(terminal, &selection);
    search.findNext(term, {.wholeWord = size % 2 == 0}, true);
    search.findPrevious(term, {.caseSensitive = true, .regex = true}, false);
    return 0;
}
