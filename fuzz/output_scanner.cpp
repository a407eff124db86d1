// Fuzzes the output scanner against a byte-at-a-time reference, and the text rules that read
// terminal output: escape stripping, the input-box reader, tab titles and the model switch.
#include "FuzzLines.h"
#include "OstrelCore/ANSI.h"
#include "OstrelCore/ClaudeModelSwitch.h"
#include "OstrelCore/TabTitle.h"
#include "OstrelCore/TerminalComposer.h"
#include "OstrelCore/TerminalOutputScanner.h"

namespace {

using OstrelCore::TerminalOutputScanner;
using State = TerminalOutputScanner::State;

bool introducer(std::uint8_t b) {
    return b == 'P' || b == 'X' || b == ']' || b == '^' || b == '_';
}

// The scanner's table, one byte at a time, without any skipping.
TerminalOutputScanner::Result reference(State& s, std::string_view bytes) {
    TerminalOutputScanner::Result r;
    for (unsigned char b : bytes) {
        switch (s) {
        case State::normal:
            if (b == 0x07)
                r.bell = true;
            else if (b == 0x1B)
                s = State::escape;
            else if (b >= 0x20 && b != 0x7F)
                r.printable = true;
            break;
        case State::escape:
            s = introducer(b)              ? State::string
                : b == '['                 ? State::csi
                : (b >= 0x20 && b <= 0x2F) ? State::escape
                                           : State::normal;
            break;
        case State::csi:
            if (b >= 0x40 && b <= 0x7E) s = State::normal;
            break;
        case State::string:
            if (b == 0x07)
                s = State::normal;
            else if (b == 0x1B)
                s = State::stringEscape;
            break;
        case State::stringEscape:
            s = introducer(b) ? State::string : b == '[' ? State::csi : State::normal;
            break;
        }
    }
    return r;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace OstrelCore;
    auto text = OstrelFuzz::text(data, size);

    // Chunks cut where the input says, so that sequences split everywhere.
    TerminalOutputScanner scanner;
    State expectedState = State::normal;
    std::size_t at = 0, step = size ? data[0] % 17 + 1 : 1;
    while (at < size) {
        auto chunk = text.substr(at, step);
        auto got = scanner.scan(chunk);
        auto want = reference(expectedState, chunk);
        if (got != want || scanner.state != expectedState) __builtin_trap();
        at += step;
        step = step * 5 % 23 + 1;
    }

    std::string plain = ANSI::strip(text);
    auto rows = OstrelFuzz::lines(plain);
    TerminalComposer::draft(std::vector<std::string>(rows.begin(), rows.end()));
    ClaudeModelSwitch::detectInTerminalText(text);
    TabTitle::fromClaudeOSC(text);
    TabTitle::clean(text);
    TabTitle::firstSentence(text);
    return 0;
}
