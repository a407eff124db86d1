// A 16-bit interned reference to a value (a hyperlink payload, say), so that a cell can carry
// one without growing. The table is shared by every terminal of the process.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace TerminalEngine {

class TinyAtom {
public:
    // Largest code handed out; the table holds at most this many values at once.
    static constexpr std::uint16_t maxCode = 65534;

    constexpr TinyAtom() = default;
    constexpr explicit TinyAtom(std::uint16_t code)
        : code(code) {}

    // Interns a value under a fresh code. Every call takes a new code (no de-duplication);
    // when all codes are taken the answer is none and the caller simply attaches nothing.
    static std::optional<TinyAtom> lookup(std::string_view value);
    // Drops the value of a code; the code may be handed out again later.
    static void release(std::uint16_t code);
    // Number of codes in use, for diagnostics and tests.
    static std::size_t liveCount();

    std::optional<std::string> target() const;
    constexpr bool isNone() const { return code == 0; }
    constexpr bool operator==(const TinyAtom&) const = default;

    std::uint16_t code = 0;
};

} // namespace TerminalEngine
