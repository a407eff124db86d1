// Tells printable output from escape traffic in a session's raw output, and notices bells. Sees
// every chunk of every session, so it is one pass, allocation-free, and skips plain text in words.
#pragma once

#include <cstdint>
#include <string_view>

namespace OstrelCore {

struct TerminalOutputScanner {
    enum class State : std::uint8_t { normal, escape, csi, string, stringEscape };

    struct Result {
        bool printable = false; // some byte would show on screen
        bool bell = false;      // a BEL outside any escape sequence
        bool operator==(const Result&) const = default;
    };

    // Survives between chunks: a sequence may be split anywhere.
    State state = State::normal;

    Result scan(std::string_view bytes);

    bool operator==(const TerminalOutputScanner&) const = default;
};

} // namespace OstrelCore
