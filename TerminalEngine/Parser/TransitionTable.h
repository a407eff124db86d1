// The parser's state machine as data: one byte per (state, code), the action in the high nibble
// and the next state in the low nibble. Built at compile time from rows laid out like the
// state diagram, so the table in the code reads like the table it implements.
#pragma once

#include <array>
#include <cstdint>

namespace TerminalEngine {

enum class ParserState : std::uint8_t {
    ground,
    escape,
    escapeIntermediate,
    csiEntry,
    csiParam,
    csiIntermediate,
    csiIgnore,
    sosPmApcString,
    oscString,
    apcString,
    dcsEntry,
    dcsParam,
    dcsIgnore,
    dcsIntermediate,
    dcsPassthrough,
};

enum class ParserAction : std::uint8_t {
    ignore,
    error,
    print,
    execute,
    oscStart,
    oscPut,
    oscEnd,
    csiDispatch,
    param,
    collect,
    escDispatch,
    clear,
    dcsHook,
    dcsPut,
    dcsUnhook,
};

class TransitionTable {
public:
    // Codes above this are never looked up: they are clamped to it first.
    static constexpr std::uint8_t maxCode = 0xA0;
    static constexpr std::size_t size = 4095;

    constexpr TransitionTable();

    constexpr std::uint8_t entry(ParserState state, std::uint8_t code) const {
        return table[(static_cast<std::size_t>(state) << 8) | code];
    }
    static constexpr ParserAction action(std::uint8_t entry) { return static_cast<ParserAction>(entry >> 4); }
    static constexpr ParserState next(std::uint8_t entry) { return static_cast<ParserState>(entry & 0x0F); }

    std::array<std::uint8_t, size> table{};

private:
    constexpr void add(std::uint8_t code, ParserState state, ParserAction action, ParserState next) {
        table[(static_cast<std::size_t>(state) << 8) | code] =
            static_cast<std::uint8_t>((static_cast<unsigned>(action) << 4) | static_cast<unsigned>(next));
    }
    constexpr void addRange(unsigned lo, unsigned hi, ParserState state, ParserAction action,
                            ParserState next) {
        for (unsigned c = lo; c <= hi; ++c)
            add(static_cast<std::uint8_t>(c), state, action, next);
    }
};

constexpr TransitionTable::TransitionTable() {
    using S = ParserState;
    using A = ParserAction;
    constexpr S allStates[] = {S::ground,    S::escape,          S::escapeIntermediate, S::csiEntry,
                               S::csiParam,  S::csiIntermediate, S::csiIgnore,          S::sosPmApcString,
                               S::oscString, S::apcString,       S::dcsEntry,           S::dcsParam,
                               S::dcsIgnore, S::dcsIntermediate, S::dcsPassthrough};
    // C0 controls that execute: 0x00-0x17 and 0x1C-0x1F (0x18 and 0x1A are "anywhere" rows).
    auto addC0 = [&](S state, A action, S next) {
        addRange(0x00, 0x17, state, action, next);
        addRange(0x1C, 0x1F, state, action, next);
    };

    // Default: every code is an error that returns to ground.
    for (S s : allStates)
        addRange(0x00, maxCode, s, A::error, S::ground);

    // Rows that hold in every state unless the state's own rows say otherwise.
    for (S s : allStates) {
        add(0x18, s, A::execute, S::ground);
        add(0x1A, s, A::execute, S::ground);
        addRange(0x80, 0x8F, s, A::execute, S::ground);
        addRange(0x91, 0x97, s, A::execute, S::ground);
        add(0x99, s, A::execute, S::ground);
        add(0x9A, s, A::execute, S::ground);
        add(0x19, s, A::error, S::ground);
        add(0x1B, s, A::clear, S::escape);
        add(0x90, s, A::clear, S::dcsEntry);
        add(0x98, s, A::ignore, S::sosPmApcString);
        add(0x9E, s, A::ignore, S::sosPmApcString);
        add(0x9B, s, A::clear, S::csiEntry);
        add(0x9C, s, A::ignore, S::ground);
        add(0x9D, s, A::oscStart, S::oscString);
        add(0x9F, s, A::oscStart, S::apcString);
        add(0xA0, s, A::error, S::ground);
    }

    // ground
    addC0(S::ground, A::execute, S::ground);
    addRange(0x20, 0x7E, S::ground, A::print, S::ground);
    add(0x7F, S::ground, A::error, S::ground);

    // escape
    addC0(S::escape, A::execute, S::escape);
    add(0x7F, S::escape, A::ignore, S::escape);
    addRange(0x20, 0x2F, S::escape, A::collect, S::escapeIntermediate);
    addRange(0x30, 0x4F, S::escape, A::escDispatch, S::ground);
    addRange(0x51, 0x57, S::escape, A::escDispatch, S::ground);
    add(0x59, S::escape, A::escDispatch, S::ground);
    add(0x5A, S::escape, A::escDispatch, S::ground);
    add(0x5C, S::escape, A::escDispatch, S::ground);
    addRange(0x60, 0x7E, S::escape, A::escDispatch, S::ground);
    add(0x50, S::escape, A::clear, S::dcsEntry);
    add(0x58, S::escape, A::ignore, S::sosPmApcString);
    add(0x5E, S::escape, A::ignore, S::sosPmApcString);
    add(0x5B, S::escape, A::clear, S::csiEntry);
    add(0x5D, S::escape, A::oscStart, S::oscString);
    add(0x5F, S::escape, A::oscStart, S::apcString);

    // escapeIntermediate
    addC0(S::escapeIntermediate, A::execute, S::escapeIntermediate);
    add(0x7F, S::escapeIntermediate, A::ignore, S::escapeIntermediate);
    addRange(0x20, 0x2F, S::escapeIntermediate, A::collect, S::escapeIntermediate);
    addRange(0x30, 0x7E, S::escapeIntermediate, A::escDispatch, S::ground);

    // csiEntry
    addC0(S::csiEntry, A::execute, S::csiEntry);
    add(0x7F, S::csiEntry, A::ignore, S::csiEntry);
    addRange(0x20, 0x2F, S::csiEntry, A::collect, S::csiIntermediate);
    addRange(0x30, 0x39, S::csiEntry, A::param, S::csiParam);
    add(0x3B, S::csiEntry, A::param, S::csiParam);
    add(0x3A, S::csiEntry, A::error, S::ground);
    addRange(0x3C, 0x3F, S::csiEntry, A::collect, S::csiParam);
    addRange(0x40, 0x7E, S::csiEntry, A::csiDispatch, S::ground);

    // csiParam
    addC0(S::csiParam, A::execute, S::csiParam);
    add(0x7F, S::csiParam, A::ignore, S::csiParam);
    addRange(0x20, 0x2F, S::csiParam, A::collect, S::csiIntermediate);
    addRange(0x30, 0x3B, S::csiParam, A::param, S::csiParam);
    addRange(0x3C, 0x3F, S::csiParam, A::ignore, S::csiIgnore);
    addRange(0x40, 0x7E, S::csiParam, A::csiDispatch, S::ground);

    // csiIntermediate
    addC0(S::csiIntermediate, A::execute, S::csiIntermediate);
    add(0x7F, S::csiIntermediate, A::ignore, S::csiIntermediate);
    addRange(0x20, 0x2F, S::csiIntermediate, A::collect, S::csiIntermediate);
    addRange(0x30, 0x3F, S::csiIntermediate, A::ignore, S::csiIgnore);
    addRange(0x40, 0x7E, S::csiIntermediate, A::csiDispatch, S::ground);

    // csiIgnore
    addC0(S::csiIgnore, A::execute, S::csiIgnore);
    addRange(0x20, 0x3F, S::csiIgnore, A::ignore, S::csiIgnore);
    add(0x7F, S::csiIgnore, A::ignore, S::csiIgnore);
    addRange(0x40, 0x7E, S::csiIgnore, A::ignore, S::ground);

    // sosPmApcString
    addRange(0x00, 0x17, S::sosPmApcString, A::ignore, S::sosPmApcString);
    addRange(0x1C, 0x7F, S::sosPmApcString, A::ignore, S::sosPmApcString);

    // oscString and apcString share their rows.
    for (S s : {S::oscString, S::apcString}) {
        addRange(0x00, 0x06, s, A::ignore, s);
        addRange(0x08, 0x17, s, A::ignore, s);
        addRange(0x1C, 0x1F, s, A::ignore, s);
        for (unsigned c : {0x07u, 0x18u, 0x1Au, 0x1Bu, 0x9Cu})
            add(static_cast<std::uint8_t>(c), s, A::oscEnd, S::ground);
        addRange(0x20, 0x7F, s, A::oscPut, s);
        add(0xA0, s, A::oscPut, s);
    }

    // dcsEntry
    addRange(0x00, 0x17, S::dcsEntry, A::ignore, S::dcsEntry);
    addRange(0x1C, 0x1F, S::dcsEntry, A::ignore, S::dcsEntry);
    add(0x7F, S::dcsEntry, A::ignore, S::dcsEntry);
    addRange(0x20, 0x2F, S::dcsEntry, A::collect, S::dcsIntermediate);
    addRange(0x30, 0x39, S::dcsEntry, A::param, S::dcsParam);
    add(0x3B, S::dcsEntry, A::param, S::dcsParam);
    add(0x3A, S::dcsEntry, A::ignore, S::dcsIgnore);
    addRange(0x3C, 0x3F, S::dcsEntry, A::collect, S::dcsParam);
    addRange(0x40, 0x7E, S::dcsEntry, A::dcsHook, S::dcsPassthrough);

    // dcsParam
    addRange(0x00, 0x17, S::dcsParam, A::ignore, S::dcsParam);
    addRange(0x1C, 0x1F, S::dcsParam, A::ignore, S::dcsParam);
    add(0x7F, S::dcsParam, A::ignore, S::dcsParam);
    addRange(0x20, 0x2F, S::dcsParam, A::collect, S::dcsIntermediate);
    addRange(0x30, 0x39, S::dcsParam, A::param, S::dcsParam);
    add(0x3B, S::dcsParam, A::param, S::dcsParam);
    add(0x3A, S::dcsParam, A::ignore, S::dcsIgnore);
    addRange(0x3C, 0x3F, S::dcsParam, A::ignore, S::dcsIgnore);
    addRange(0x40, 0x7E, S::dcsParam, A::dcsHook, S::dcsPassthrough);

    // dcsIgnore
    addRange(0x00, 0x17, S::dcsIgnore, A::ignore, S::dcsIgnore);
    addRange(0x1C, 0x7F, S::dcsIgnore, A::ignore, S::dcsIgnore);

    // dcsIntermediate
    addRange(0x00, 0x17, S::dcsIntermediate, A::ignore, S::dcsIntermediate);
    addRange(0x1C, 0x1F, S::dcsIntermediate, A::ignore, S::dcsIntermediate);
    add(0x7F, S::dcsIntermediate, A::ignore, S::dcsIntermediate);
    addRange(0x20, 0x2F, S::dcsIntermediate, A::collect, S::dcsIntermediate);
    addRange(0x30, 0x3F, S::dcsIntermediate, A::ignore, S::dcsIgnore);
    addRange(0x40, 0x7E, S::dcsIntermediate, A::dcsHook, S::dcsPassthrough);

    // dcsPassthrough
    addRange(0x00, 0x17, S::dcsPassthrough, A::dcsPut, S::dcsPassthrough);
    addRange(0x1C, 0x7E, S::dcsPassthrough, A::dcsPut, S::dcsPassthrough);
    add(0x1B, S::dcsPassthrough, A::dcsUnhook, S::ground);
    add(0x9C, S::dcsPassthrough, A::dcsUnhook, S::ground);
    add(0x7F, S::dcsPassthrough, A::ignore, S::dcsPassthrough);
}

inline constexpr TransitionTable transitionTable{};

} // namespace TerminalEngine
