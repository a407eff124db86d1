// The byte-level state machine of the terminal: cuts the stream into print runs and control
// functions (C0/C1, ESC, CSI, OSC, DCS, APC) and hands them to its terminal. It does not decode
// UTF-8; that belongs to the print path. Every sequence resumes across calls of parse().
#pragma once

#include "TerminalEngine/Parser/ParameterList.h"
#include "TerminalEngine/Parser/TransitionTable.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace TerminalEngine {

class Terminal;

using Bytes = std::vector<std::uint8_t>;
using ByteSpan = std::span<const std::uint8_t>;
using Params = std::span<const std::int64_t>;

// What the error handler is shown; setting `abort` stops the current parse() at once.
struct ParsingState {
    std::int64_t position = 0;
    std::uint8_t code = 0;
    ParserState currentState = ParserState::ground;
    std::int64_t print = -1;
    std::int64_t dcs = -1;
    Bytes osc;
    Bytes apc;
    Bytes collect;
    std::vector<std::int64_t> parameters;
    bool abort = false;
};

// The consumer of one DCS string.
class DcsHandler {
public:
    virtual ~DcsHandler() = default;
    virtual void hook(std::string_view collect, Params parameters, std::uint8_t flag) = 0;
    virtual void put(ByteSpan data) = 0;
    virtual void unhook() = 0;
};

class EscapeSequenceParser {
public:
    // Parameters never overflow: a value growing past this becomes 0.
    static constexpr std::int64_t parameterClamp = 0x0CCCCCCCCCCCCCC2;
    // Private markers and intermediates kept per sequence.
    static constexpr std::size_t maxCollect = 64;

    explicit EscapeSequenceParser(Terminal* terminal);

    void parse(ByteSpan data);
    void reset();

    ParserState state() const { return currentState; }
    // Separators (":" or ";") between the parameters of the CSI being dispatched.
    std::string_view parsTxt() const { return _pars.separators(); }

    std::unordered_map<std::int64_t, std::function<void(ByteSpan)>> oscHandlers;
    std::unique_ptr<DcsHandler> activeDcsHandler;
    std::function<ParsingState(ParsingState)> errorHandler = [](ParsingState s) { return s; };
    Terminal* terminal;
    ParserState initialState = ParserState::ground;
    ParserState currentState = ParserState::ground;

    std::function<void(ByteSpan)> printHandler;
    std::function<void()> printStateReset;
    std::function<void(std::string_view collect, std::uint8_t final)> escHandlerFallback = [](auto, auto) {};
    std::function<void(std::string_view collect, Params parameters)> dscHandlerFallback = [](auto, auto) {};
    std::function<void(std::uint8_t code)> executeHandlerFallback = [](auto) {};
    std::function<void(Params parameters, std::string_view collect, std::uint8_t final)> csiHandlerFallback;
    std::function<void(std::int64_t number, ByteSpan payload)> oscHandlerFallback = [](auto, auto) {};
    std::function<void(std::uint8_t code, ByteSpan payload)> apcHandlerFallback = [](auto, auto) {};
    std::int64_t logFileCounter = 1;

private:
    std::int64_t parseShortCsi(Terminal& t, const std::uint8_t* p);
    // `t` is the terminal, or null for a bare parser.
    std::int64_t parseCsi(Terminal* t, const std::uint8_t* bytes, std::int64_t start, std::int64_t len,
                          ParserState& state);
    std::int64_t parseGround(const std::uint8_t* bytes, std::int64_t from, std::int64_t len,
                             ParserState& state);
    void execute(std::uint8_t code);
    void csiDispatch(Params pars, std::string_view collect, std::uint8_t final);
    void csiCommand(Params pars, std::string_view collect, std::uint8_t final);
    void escDispatch(std::string_view collect, std::uint8_t final);
    void oscDispatch(std::int64_t number, ByteSpan payload);
    void apcDispatch(std::uint8_t code, ByteSpan payload);
    std::unique_ptr<DcsHandler> dcsHandlerFor(std::string_view collect, std::uint8_t final);

    Bytes _osc;
    Bytes _apc;
    ParameterList _pars;
    Bytes _collect;
    bool profile_ = false;
};

} // namespace TerminalEngine
