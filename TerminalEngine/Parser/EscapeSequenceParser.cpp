// The parser's main loop, its actions and the dispatch tables into the terminal.
#include "TerminalEngine/Parser/EscapeSequenceParser.h"

#include "TerminalEngine/Model/ByteScan.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace TerminalEngine {
namespace {

std::string_view asView(const Bytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

bool profilingRequested() {
    const char* value = std::getenv("TERMINALENGINE_PROFILE");
    return value != nullptr && std::strcmp(value, "1") == 0;
}

// The designators ESC ( and its kin accept: every key of the charset table.
bool isCharsetDesignator(std::uint8_t final) {
    return CharSets::find(static_cast<char>(final)) != nullptr;
}

// "38;5;", "48;5;", "38;2;" or "48;2;" at `p` (eight bytes readable): SGR with a colour first,
// which the terminal reads straight into the attribute.
bool startsWithColourSgr(const std::uint8_t* p) {
    std::uint64_t word;
    std::memcpy(&word, p, sizeof word);
    const unsigned form = static_cast<unsigned>(word >> 24) & 0xFF;
    const unsigned first = static_cast<unsigned>(word) & 0xFF;
    return (word & 0xFF00FFFF00ull) == 0x3B003B3800ull && (first == '3' || first == '4') &&
           (form == '5' || form == '2');
}

} // namespace

EscapeSequenceParser::EscapeSequenceParser(Terminal* terminal)
    : terminal(terminal)
    , profile_(profilingRequested()) {
    _collect.reserve(8);
    csiHandlerFallback = [](Params, std::string_view, std::uint8_t final) {
        std::printf("Cannot handle ESC-%d\n", final);
    };
}

void EscapeSequenceParser::reset() {
    currentState = initialState;
    _osc.clear();
    _apc.clear();
    _collect.clear();
    _pars.reset();
    activeDcsHandler.reset();
    if (printStateReset) printStateReset();
}

// The common shape of an "ESC [" sequence: no private marker or intermediate, one or two
// parameters of at most four digits, a final byte, read from `p` (the byte after the bracket;
// sixteen bytes must be readable). The numbers are read in registers, and a cursor move or a
// single SGR code goes to the terminal without the parameter list. Returns the offset of the
// final byte from `p`, or -1 to leave the sequence to the general reader.
[[gnu::always_inline]] inline std::int64_t EscapeSequenceParser::parseShortCsi(Terminal& t,
                                                                               const std::uint8_t* p) {
    const ByteScan::ShortParameters read = ByteScan::shortParameters(p);
    if (read.end < 0) return -1;
    const std::uint8_t final = p[read.end];
    if (final < 0x40 || final > 0x7E) return -1;
    if (final == 'H') [[likely]] {
        t.cursorPosition(read.first, read.second);
    } else if (read.two || final != 'm' || !t.sgrSingle(read.first)) {
        std::int64_t* values = _pars.values();
        values[0] = read.first;
        values[1] = read.second;
        _pars.separatorSlots()[0] = ';';
        _pars.commit(read.two ? 1 : 0);
        _collect.clear();
        csiDispatch(_pars, {}, final);
    }
    return read.end;
}

// Reads "ESC [" from `start` (the byte after the bracket): a private marker, parameters with
// their separators and the final byte, dispatched at once. The value being read stays in a
// register until a separator or the end. Returns the index of the last byte consumed and the
// state the table would be in there, so that an intermediate, a control or the end of the buffer
// carries on through the table.
[[gnu::always_inline]] inline std::int64_t
EscapeSequenceParser::parseCsi(Terminal* t, const std::uint8_t* bytes, std::int64_t start, std::int64_t len,
                               ParserState& state) {
    using S = ParserState;
    _collect.clear();
    if (printStateReset) printStateReset();
    std::int64_t j = start;
    if (j < len && bytes[j] >= 0x3C && bytes[j] <= 0x3F) _collect.push_back(bytes[j++]);
    const std::int64_t firstParameterByte = j;
    std::int64_t* values = _pars.values();
    std::uint8_t* separators = _pars.separatorSlots();
    std::size_t capacity = _pars.capacity();
    std::size_t last = 0;
    std::int64_t current = 0;
    while (true) {
        // Where the buffer has room, short numbers are read unrolled; longer ones carry on in
        // the general loop.
        bool whole = false;
        if (j + 4 <= len) [[likely]]
            whole = ByteScan::shortDecimal(bytes, j, current);
        if (!whole) {
            while (j < len) {
                const unsigned digit = static_cast<unsigned>(bytes[j]) - '0';
                if (digit > 9) break;
                const std::int64_t value = current * 10 + digit;
                current = value > parameterClamp ? 0 : value;
                ++j;
            }
            if (j == len) break;
        }
        const std::uint8_t b = bytes[j];
        // A colon before anything else is left to the table, which ignores the sequence.
        if (b != ';' && (b != ':' || j == start)) break;
        values[last] = current;
        current = 0;
        if (last + 1 < capacity) [[likely]] {
            separators[last] = b;
            ++last;
        } else {
            last = _pars.separateSlow(last, b);
            values = _pars.values();
            separators = _pars.separatorSlots();
            capacity = _pars.capacity();
        }
        ++j;
    }
    values[last] = current;
    _pars.commit(last);
    if (j < len && bytes[j] >= 0x40 && bytes[j] <= 0x7E) {
        state = S::ground;
        const std::uint8_t final = bytes[j];
        if (t != nullptr && _collect.empty()) {
            // The two sequences full-screen programs send most, without the dispatch switch.
            if (final == 'm') {
                if (last != 0 || !t->sgrSingle(values[0])) t->cmdCsiM(_pars, {});
                return j;
            }
            if (final == 'H' && last < 2) {
                t->cursorPosition(values[0], last == 1 ? values[1] : 0);
                return j;
            }
        }
        csiDispatch(_pars, asView(_collect), final);
        return j;
    }
    state = j > firstParameterByte || !_collect.empty() ? S::csiParam : S::csiEntry;
    return j - 1;
}

// The ground state with a terminal attached: text, "ESC [" sequences and line ends, the bytes
// that make up nearly all of what programs write. Kept apart from the table-driven loop so that
// its few live values stay in registers. Returns the index of the first byte it leaves to the
// table: another control, an ESC not followed by '[', or the byte after a control sequence that
// did not end in the buffer (with `state` where the table carries on).
[[gnu::noinline]] std::int64_t EscapeSequenceParser::parseGround(const std::uint8_t* bytes, std::int64_t from,
                                                                 std::int64_t len, ParserState& state) {
    Terminal& t = *terminal;
    // Anything may have changed since the last call: handlers, the table path, the caller.
    t.refreshPrintPath();
    std::int64_t i = from;
    while (i < len) {
        const std::uint8_t code = bytes[i];
        if (code >= 0x20) {
            // Every byte from 0x20 up, high bytes included, stays in one run so that UTF-8
            // sequences reach the print path whole. One scan finds where printable ASCII ends; a
            // run that is ASCII to its end skips the decoder.
            if (i + 1 < len && bytes[i + 1] < 0x20) {
                // The lone character between two controls: no scan at all.
                if (code < 0x7F)
                    t.printAsciiCharacter(bytes + i);
                else
                    t.handlePrint(ByteSpan(bytes + i, 1));
                ++i;
                continue;
            }
            auto end = static_cast<std::int64_t>(ByteScan::firstNonPrintableAscii(
                bytes, static_cast<std::size_t>(i), static_cast<std::size_t>(len)));
            const bool ascii = end == len || bytes[end] < 0x20;
            if (!ascii)
                end = static_cast<std::int64_t>(ByteScan::firstControl(bytes, static_cast<std::size_t>(end),
                                                                       static_cast<std::size_t>(len)));
            if (ascii)
                t.printAscii(bytes + i, static_cast<std::size_t>(end - i));
            else
                t.handlePrint(ByteSpan(bytes + i, static_cast<std::size_t>(end - i)));
            i = end;
        } else if (code == 0x1B) {
            // A whole "ESC [ parameters final" at a time, read straight into the terminal: the
            // common case of cursor movement and SGR. Sequences back to back, or each followed by
            // one character as when a program paints cells here and there, stay in the inner
            // loop. A sequence the fast readers turn down, or one too near the end of the
            // buffer, goes to the general reader.
            bool general = false;
            while (true) {
                if (i + 18 > len) {
                    general = true;
                    break;
                }
                if (bytes[i + 1] != '[') return i;
                const std::int64_t start = i + 2;
                if (bytes[start + 1] == '8' && startsWithColourSgr(bytes + start)) {
                    const std::int64_t end = t.readSgr(bytes, start, len);
                    if (end >= 0) {
                        i = end + 1;
                        break;
                    }
                }
                const std::int64_t end = parseShortCsi(t, bytes + start);
                if (end < 0) {
                    general = true;
                    break;
                }
                // A short sequence ends within ten bytes, so the three after it are readable.
                i = start + end + 1;
                if (bytes[i] - 0x20u < 0x5Fu && bytes[i + 1] < 0x20) {
                    t.printAsciiCharacter(bytes + i);
                    ++i;
                }
                if (bytes[i] != 0x1B) break;
            }
            if (!general) continue;
            if (i + 1 >= len || bytes[i + 1] != '[') return i;
            i = parseCsi(&t, bytes, i + 2, len, state) + 1;
            if (state != ParserState::ground) return i;
        } else if (code == '\r') {
            t.cmdCarriageReturn();
            ++i;
        } else if (code == '\n') {
            execute(code);
            ++i;
        } else {
            return i;
        }
    }
    return i;
}

void EscapeSequenceParser::parse(ByteSpan data) {
    using S = ParserState;
    using A = ParserAction;

    std::chrono::steady_clock::time_point profileStart;
    if (profile_) profileStart = std::chrono::steady_clock::now();

    const std::uint8_t* bytes = data.data();
    const std::int64_t len = static_cast<std::int64_t>(data.size());
    S state = currentState;
    std::int64_t print = -1;
    std::int64_t dcs = -1;

    auto flushPrint = [&](std::int64_t end) {
        if (print >= 0) {
            ByteSpan run(bytes + print, static_cast<std::size_t>(end - print));
            if (terminal != nullptr)
                terminal->handlePrint(run);
            else if (printHandler)
                printHandler(run);
            print = -1;
        }
    };
    auto flushDcs = [&](std::int64_t end) {
        if (dcs >= 0) {
            if (activeDcsHandler)
                activeDcsHandler->put(ByteSpan(bytes + dcs, static_cast<std::size_t>(end - dcs)));
            dcs = -1;
        }
    };
    // A control that leaves a DCS string other than through its terminator abandons it.
    auto abandonDcs = [&] {
        if (state == S::dcsPassthrough) {
            dcs = -1;
            activeDcsHandler.reset();
        }
    };
    auto clearAction = [&](std::int64_t i) {
        flushPrint(i);
        abandonDcs();
        _pars.reset();
        _collect.clear();
        _osc.clear();
        _apc.clear();
        if (printStateReset) printStateReset();
        print = -1;
        dcs = -1;
    };

    for (std::int64_t i = 0; i < len; ++i) {
        if (state == S::ground && terminal != nullptr) {
            flushPrint(i);
            i = parseGround(bytes, i, len, state);
            if (i == len) break;
        }
        std::uint8_t code = bytes[i];

        if (state == S::ground) {
            // A bare parser (no terminal, handlers only) hands text to the print handler in
            // runs, and reads "ESC [" sequences on the direct path too.
            if (code >= 0x20) {
                flushPrint(i);
                print = i;
                const auto end = static_cast<std::int64_t>(ByteScan::firstControl(
                    bytes, static_cast<std::size_t>(i), static_cast<std::size_t>(len)));
                flushPrint(end);
                i = end - 1;
                continue;
            }
            if (code == 0x1B && i + 1 < len && bytes[i + 1] == '[') {
                i = parseCsi(nullptr, bytes, i + 2, len, state);
                continue;
            }
        }
        // CSI digits without a table look-up.
        if (state == S::csiParam && code >= '0' && code <= '9') {
            std::int64_t& last = _pars.back();
            while (true) {
                std::int64_t value = last * 10 + (code - '0');
                last = value > parameterClamp ? 0 : value;
                if (i + 1 >= len) break;
                std::uint8_t next = bytes[i + 1];
                if (next < '0' || next > '9') break;
                code = next;
                ++i;
            }
            continue;
        }

        std::uint8_t clamped = code < TransitionTable::maxCode ? code : TransitionTable::maxCode;
        std::uint8_t entry = transitionTable.entry(state, clamped);
        A action = TransitionTable::action(entry);
        S next = TransitionTable::next(entry);

        switch (action) {
        case A::ignore:
            if (print >= 0)
                flushPrint(i);
            else
                flushDcs(i);
            break;
        case A::error:
            if (code >= TransitionTable::maxCode) {
                // A byte of UTF-8 text inside a control sequence.
                switch (state) {
                case S::ground:
                    if (print < 0) print = i;
                    next = state;
                    break;
                case S::csiIgnore:
                case S::dcsIgnore:
                    if (print >= 0)
                        flushPrint(i);
                    else
                        flushDcs(i);
                    next = state;
                    break;
                case S::dcsPassthrough:
                    if (dcs < 0) dcs = i;
                    next = state;
                    break;
                default: break; // the ordinary error path below
                }
                if (next == state) break;
            }
            {
                ParsingState ps;
                ps.position = i;
                ps.code = code;
                ps.currentState = state;
                ps.print = print;
                ps.dcs = dcs;
                ps.osc = _osc;
                ps.apc = _apc;
                ps.collect = _collect;
                ps.parameters.assign(_pars.begin(), _pars.end());
                ParsingState result = errorHandler ? errorHandler(std::move(ps)) : std::move(ps);
                if (result.abort) return;
            }
            break;
        case A::print:
            if (print < 0) print = i;
            break;
        case A::execute:
            flushPrint(i);
            abandonDcs();
            execute(code);
            break;
        case A::oscStart:
            flushPrint(i);
            if (next == S::apcString)
                _apc.clear();
            else
                _osc.clear();
            break;
        case A::oscPut: {
            // The string loop: everything up to a terminator (BEL, CAN, ESC), C0 bytes dropped.
            Bytes& target = state == S::apcString ? _apc : _osc;
            std::int64_t j = i;
            while (j < len) {
                std::uint8_t b = bytes[j];
                if (b == 0x07 || b == 0x18 || b == 0x1B) break;
                if (b < 0x20) {
                    ++j;
                    continue;
                }
                std::int64_t runEnd = j + 1;
                while (runEnd < len && bytes[runEnd] >= 0x20)
                    ++runEnd;
                target.insert(target.end(), bytes + j, bytes + runEnd);
                j = runEnd;
            }
            i = j - 1;
            break;
        }
        case A::oscEnd: {
            Bytes& text = state == S::apcString ? _apc : _osc;
            if (!text.empty() && code != 0x18 && code != 0x1A) {
                if (state == S::apcString) {
                    apcDispatch(text[0], ByteSpan(text.data() + 1, text.size() - 1));
                } else {
                    std::int64_t number = 0;
                    std::size_t k = 0;
                    for (; k < text.size() && text[k] >= '0' && text[k] <= '9'; ++k) {
                        number = number * 10 + (text[k] - '0');
                        if (number > parameterClamp) number = 0;
                    }
                    std::size_t semicolon = 0;
                    while (semicolon < text.size() && text[semicolon] != ';')
                        ++semicolon;
                    ByteSpan payload = semicolon < text.size() ? ByteSpan(text.data() + semicolon + 1,
                                                                          text.size() - semicolon - 1)
                                                               : ByteSpan();
                    oscDispatch(number, payload);
                }
            }
            if (code == 0x1B) next = S::escape;
            clearAction(i);
            break;
        }
        case A::csiDispatch: csiDispatch(_pars, asView(_collect), code); break;
        case A::param:
            if (code == ':' || code == ';') {
                _pars.separate(code);
            } else {
                std::int64_t value = _pars.back() * 10 + (code - '0');
                _pars.back() = value > parameterClamp ? 0 : value;
            }
            break;
        case A::collect:
            // Real sequences carry two or three of these; a flood of them is cut off.
            if (_collect.size() < maxCollect) _collect.push_back(code);
            break;
        case A::escDispatch: escDispatch(asView(_collect), code); break;
        case A::clear: clearAction(i); break;
        case A::dcsHook:
            activeDcsHandler = dcsHandlerFor(asView(_collect), code);
            if (activeDcsHandler)
                activeDcsHandler->hook(asView(_collect), _pars, code);
            else
                dscHandlerFallback(asView(_collect), _pars);
            break;
        case A::dcsPut:
            if (dcs < 0) dcs = i;
            break;
        case A::dcsUnhook:
            if (activeDcsHandler) {
                flushDcs(i);
                activeDcsHandler->unhook();
                activeDcsHandler.reset();
            }
            dcs = -1;
            if (code == 0x1B) next = S::escape;
            clearAction(i);
            break;
        }
        state = next;
    }

    if (state == S::ground) flushPrint(len);
    if (dcs >= 0 && activeDcsHandler) {
        flushDcs(len);
        state = S::dcsPassthrough;
    }
    currentState = state;

    if (profile_) {
        auto us = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() -
                                                                        profileStart);
        std::fprintf(stderr, "ParserProfile: parse %zu bytes in %lld us\n", data.size(),
                     static_cast<long long>(us.count()));
    }
}

void EscapeSequenceParser::execute(std::uint8_t code) {
    if (terminal == nullptr) {
        executeHandlerFallback(code);
        return;
    }
    Terminal& t = *terminal;
    switch (code) {
    case 0x07: t.bell(); break;
    case 0x08: t.cmdBackspace(); break;
    case 0x09: t.cmdTab(); break;
    case 0x0A:
    case 0x0B:
    case 0x0C: t.cmdLineFeedBasic(); break;
    case 0x0D: t.cmdCarriageReturn(); break;
    case 0x0E: t.setgLevel(1); break;
    case 0x0F: t.setgLevel(0); break;
    case 0x84: t.cmdIndex(); break;
    case 0x85: t.cmdNextLine(); break;
    case 0x88: t.cmdTabSet(); break;
    default: break; // codes without an entry do nothing
    }
}

void EscapeSequenceParser::csiDispatch(Params pars, std::string_view collect, std::uint8_t final) {
    if (terminal == nullptr) {
        csiHandlerFallback(pars, collect, final);
        return;
    }
    csiCommand(pars, collect, final);
    // Modes, margins, character sets and buffers all change through CSI sequences.
    terminal->refreshPrintPath();
}

void EscapeSequenceParser::csiCommand(Params pars, std::string_view collect, std::uint8_t final) {
    Terminal& t = *terminal;
    // Handlers for CSI sequences without private markers or intermediates look at `collect`
    // themselves where a marked variant exists; plain movement ignores it.
    switch (final) {
    case '@': t.cmdInsertChars(pars); break;
    case 'A': t.cmdCursorUp(pars); break;
    case 'B': t.cmdCursorDown(pars); break;
    case 'C': t.cmdCursorForward(pars); break;
    case 'D': t.cmdCursorBackward(pars); break;
    case 'E': t.cmdCursorNextLine(pars); break;
    case 'F': t.cmdCursorPrecedingLine(pars); break;
    case 'G': t.cmdCursorCharAbsolute(pars); break;
    case 'H': t.cmdCursorPosition(pars); break;
    case 'I': t.cmdCursorForwardTab(pars); break;
    case 'J': t.cmdEraseInDisplay(pars, collect); break;
    case 'K': t.cmdEraseInLine(pars, collect); break;
    case 'L': t.cmdInsertLines(pars); break;
    case 'M': t.cmdDeleteLines(pars); break;
    case 'P': t.cmdDeleteChars(pars); break;
    case 'S': t.cmdScrollUp(pars); break;
    case 'T': t.csiT(pars, collect); break;
    case 'X': t.cmdEraseChars(pars); break;
    case 'Z': t.cmdCursorBackwardTab(pars); break;
    case '`': t.cmdCharPosAbsolute(pars); break;
    case 'a': t.cmdHPositionRelative(pars); break;
    case 'b': t.cmdRepeatPrecedingCharacter(pars); break;
    case 'c': t.cmdSendDeviceAttributes(pars, collect); break;
    case 'd': t.cmdLinePosAbsolute(pars); break;
    case 'e': t.cmdVPositionRelative(pars); break;
    case 'f': t.cmdHVPosition(pars); break;
    case 'g': t.cmdTabClear(pars); break;
    case 'h': t.cmdSetMode(pars, collect); break;
    case 'l': t.cmdResetMode(pars, collect); break;
    case 'm': t.cmdCsiM(pars, collect); break;
    case 'n': t.cmdDeviceStatus(pars, collect); break;
    case 'p': t.csiPHandler(pars, collect); break;
    case 'q': t.cmdSetCursorStyle(pars, collect); break;
    case 'r': t.cmdSetScrollRegion(pars, collect); break;
    case 's':
        if (collect == ">")
            t.cmdSetShiftEscape(pars);
        else if (!collect.empty())
            break;
        else if (t.marginMode)
            t.cmdSetMargins(pars);
        else
            t.cmdSaveCursor();
        break;
    case 't': t.csit(pars, collect); break;
    case 'u': t.cmdCsiU(pars, collect); break;
    case 'v': t.csiCopyRectangularArea(pars, collect); break;
    case 'x': t.csiX(pars, collect); break;
    case 'y': t.cmdDECRQCRA(pars, collect); break;
    case 'z': t.csiZ(pars, collect); break;
    case '{': t.csiOpenBrace(pars, collect); break;
    case '}':
        if (collect == "'")
            t.cmdInsertColumns(pars, collect);
        else
            t.csiCloseBrace(pars, collect);
        break;
    case '~': t.cmdDeleteColumns(pars, collect); break;
    default: csiHandlerFallback(pars, collect, final); break;
    }
}

void EscapeSequenceParser::escDispatch(std::string_view collect, std::uint8_t final) {
    if (terminal == nullptr) {
        escHandlerFallback(collect, final);
        return;
    }
    Terminal& t = *terminal;
    if (collect.size() == 1) {
        char intermediate = collect[0];
        switch (intermediate) {
        case ' ':
            if (final == 'F' || final == 'G') {
                t.setSend8bit(final == 'G');
                return;
            }
            break;
        case '#':
            switch (final) {
            case '3': t.setLineRenderMode(BufferLine::RenderLineMode::doubledTop); return;
            case '4': t.setLineRenderMode(BufferLine::RenderLineMode::doubledDown); return;
            case '5': t.setLineRenderMode(BufferLine::RenderLineMode::single); return;
            case '6': t.setLineRenderMode(BufferLine::RenderLineMode::doubleWidth); return;
            case '8': t.cmdScreenAlignmentPattern(); return;
            default: break;
            }
            break;
        case '%':
            if (final == '@' || final == 'G') {
                t.setgLevel(0);
                t.setgCharset(0, CharSets::find('B'));
                return;
            }
            break;
        case '(':
        case ')':
        case '*':
        case '+':
        case '-':
        case '.':
        case '/':
            if (isCharsetDesignator(final)) {
                char pair[2] = {intermediate, static_cast<char>(final)};
                t.selectCharset(std::string_view(pair, 2));
                return;
            }
            break;
        default: break;
        }
    } else if (collect.empty()) {
        switch (final) {
        case '6': t.columnIndex(true); return;
        case '7': t.cmdSaveCursor(); return;
        case '8': t.cmdRestoreCursor(); return;
        case '9': t.columnIndex(false); return;
        case '=': t.setApplicationKeypad(true); return;
        case '>': t.setApplicationKeypad(false); return;
        case 'D': t.cmdIndex(); return;
        case 'E': t.cmdNextLine(); return;
        case 'H': t.cmdTabSet(); return;
        case 'M': t.reverseIndex(); return;
        case '\\': return; // the second byte of a string terminator
        case 'c': t.cmdReset(); return;
        case 'n': t.setgLevel(2); return;
        case 'o': t.setgLevel(3); return;
        case '|': t.setgLevel(3); return;
        case '}': t.setgLevel(2); return;
        case '~': t.setgLevel(1); return;
        default: break;
        }
    }
    escHandlerFallback(collect, final);
}

void EscapeSequenceParser::oscDispatch(std::int64_t number, ByteSpan payload) {
    if (auto it = oscHandlers.find(number); it != oscHandlers.end()) {
        it->second(payload);
        return;
    }
    if (terminal == nullptr) {
        oscHandlerFallback(number, payload);
        return;
    }
    Terminal& t = *terminal;
    std::string_view text(reinterpret_cast<const char*>(payload.data()), payload.size());
    switch (number) {
    case 0:
    case 2: t.setTitle(text); break;
    case 1: t.setIconTitle(text); break;
    case 4: t.oscChangeOrQueryColorIndex(payload); break;
    case 6: t.oscSetCurrentDocument(payload); break;
    case 7: t.oscSetCurrentDirectory(payload); break;
    case 8: t.oscHyperlink(payload); break;
    case 9:
        if (!t.oscProgressReport(payload)) oscHandlerFallback(9, payload);
        break;
    case 10: t.oscSetColors(payload, 0); break;
    case 11: t.oscSetColors(payload, 1); break;
    case 12: t.oscSetColors(payload, 2); break;
    case 52: t.oscClipboard(payload); break;
    case 104: t.oscResetColor(payload); break;
    case 112: t.oscResetCursorColor(); break;
    case 777: t.oscNotification(payload); break;
    case 1337: t.osciTerm2(payload); break;
    default: oscHandlerFallback(number, payload); break;
    }
}

void EscapeSequenceParser::apcDispatch(std::uint8_t code, ByteSpan payload) {
    if (code == 'G' && terminal != nullptr) {
        terminal->kittyGraphics(payload);
        return;
    }
    apcHandlerFallback(code, payload);
}

namespace {

// Sixel images are accepted and dropped: the engine draws no images, but the string must be
// consumed whole without disturbing the parser.
class SixelDcsHandler final : public DcsHandler {
public:
    void hook(std::string_view, Params, std::uint8_t) override {}
    void put(ByteSpan) override {}
    void unhook() override {}
};

} // namespace

std::unique_ptr<DcsHandler> EscapeSequenceParser::dcsHandlerFor(std::string_view collect,
                                                                std::uint8_t final) {
    if (final != 'q' || terminal == nullptr) return nullptr;
    if (collect.find('$') != std::string_view::npos) return std::make_unique<Terminal::DECRQSS>(*terminal);
    if (collect.empty()) return std::make_unique<SixelDcsHandler>();
    return nullptr;
}

} // namespace TerminalEngine
