// ANSI and DEC private modes (SM, RM, DECSET, DECRST), the kitty keyboard flag stacks and focus
// reports.
#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>

namespace TerminalEngine {

void Terminal::cmdSetMode(Params pars, std::string_view collect) {
    for (std::int64_t p : pars)
        setMode(p, collect);
}

void Terminal::cmdResetMode(Params pars, std::string_view collect) {
    for (std::int64_t p : pars)
        resetMode(p, collect);
}

void Terminal::setMouseMode(MouseMode mode) {
    if (mouseMode == mode) return;
    mouseMode = mode;
    if (auto* d = delegate()) d->mouseModeChanged(*this);
}

void Terminal::setMode(std::int64_t mode, std::string_view collect) {
    Buffer& b = *buffer;
    if (collect.empty()) {
        switch (mode) {
        case 4:
            insertMode = true;
            b.insertMode = true;
            break;
        case 20: lineFeedMode = true; break;
        case 2: break; // keyboard action mode: accepted, no effect
        default: log("Unhandled setMode (SM) with " + std::to_string(mode)); break;
        }
        return;
    }
    if (collect != "?") {
        log("Unhandled verbatim setMode with " + std::string(collect) + std::to_string(mode));
        return;
    }
    switch (mode) {
    case 1: applicationCursor = true; break;
    case 2: gCharsets = {}, charset = nullptr; break;
    case 3:
        if (allow80To132) {
            resize(132, rows);
            resetToInitialState();
            if (auto* d = delegate()) d->sizeChanged(*this);
        }
        break;
    case 4: smoothScroll = true; break;
    case 5:
        curAttr.fg = Attribute::Color::defaultInvertedColor();
        curAttr.bg = Attribute::Color::defaultInvertedColor();
        updateFullScreen();
        break;
    case 6:
        originMode = true;
        setCursor(0, 0);
        break;
    case 7:
        wraparound = true;
        normalBuffer->wraparound = true;
        altBuffer->wraparound = true;
        break;
    case 9: setMouseMode(MouseMode::x10); break;
    case 12: cursorBlink = true; break;
    case 25:
        if (cursorHidden) {
            cursorHidden = false;
            if (auto* d = delegate()) d->showCursor(*this);
        }
        break;
    case 40: allow80To132 = true; break;
    case 45:
        if (wraparound) reverseWraparound = true;
        break;
    case 47: activateAltBuffer(std::nullopt); break;
    case 66: applicationKeypad = true; break;
    case 69:
        marginMode = true;
        b.marginMode = true;
        break;
    case 1000: setMouseMode(MouseMode::vt200); break;
    case 1002: setMouseMode(MouseMode::buttonEventTracking); break;
    case 1003: setMouseMode(MouseMode::anyEvent); break;
    case 1004:
        sendFocus = true;
        sendFocusReport();
        break;
    case 1005: mouseProtocol = MouseProtocolEncoding::utf8; break;
    case 1006: mouseProtocol = MouseProtocolEncoding::sgr; break;
    case 1015: mouseProtocol = MouseProtocolEncoding::urxvt; break;
    case 1016: mouseProtocol = MouseProtocolEncoding::sgrPixel; break;
    case 1034:
    case 63:
    case 95: break; // accepted, no effect
    case 1047: activateAltBuffer(std::nullopt); break;
    case 1048: cmdSaveCursor(); break;
    case 1049:
        cmdSaveCursor();
        if (!isAltBufferActive()) altBuffer->clear();
        activateAltBuffer(eraseCell().attribute);
        break;
    case 2004: bracketedPasteMode = true; break;
    case 2026: beginSynchronizedOutput(); break;
    default: log("Unhandled DEC Private Mode Set (DECSET) with " + std::to_string(mode)); break;
    }
}

void Terminal::resetMode(std::int64_t mode, std::string_view collect) {
    Buffer& b = *buffer;
    if (collect.empty()) {
        switch (mode) {
        case 4:
            insertMode = false;
            b.insertMode = false;
            break;
        case 20: lineFeedMode = false; break;
        case 2: break;
        default: log("Unhandled setMode (SM) with " + std::to_string(mode)); break;
        }
        return;
    }
    if (collect != "?") {
        log("Unhandled verbatim setMode with " + std::string(collect) + std::to_string(mode));
        return;
    }
    switch (mode) {
    case 1: applicationCursor = false; break;
    case 2: gCharsets = {}, charset = nullptr; break;
    case 3:
        if (allow80To132) {
            resize(80, rows);
            resetToInitialState();
            if (auto* d = delegate()) d->sizeChanged(*this);
        }
        break;
    case 4: smoothScroll = false; break;
    case 5:
        curAttr.fg = Attribute::Color::defaultColor();
        curAttr.bg = Attribute::Color::defaultColor();
        updateFullScreen();
        break;
    case 6:
        originMode = false;
        setCursor(0, 0);
        break;
    case 7:
        wraparound = false;
        normalBuffer->wraparound = false;
        altBuffer->wraparound = false;
        break;
    case 9:
    case 1000:
    case 1002:
    case 1003: setMouseMode(MouseMode::off); break;
    case 12: cursorBlink = false; break;
    case 25:
        if (!cursorHidden) {
            cursorHidden = true;
            if (auto* d = delegate()) d->hideCursor(*this);
        }
        break;
    case 40: allow80To132 = false; break;
    case 45: reverseWraparound = false; break;
    case 47: activateNormalBuffer(false); break;
    case 66: applicationKeypad = false; break;
    case 69:
        marginMode = false;
        b.marginMode = false;
        b.marginLeft = 0;
        b.marginRight = cols - 1;
        break;
    case 1004: sendFocus = false; break;
    case 1005:
    case 1006:
    case 1015:
    case 1016: mouseProtocol = MouseProtocolEncoding::x10; break;
    case 1034:
    case 63:
    case 95: break;
    case 1047: activateNormalBuffer(true); break;
    case 1048: cmdRestoreCursor(); break;
    case 1049:
        activateNormalBuffer(true);
        cmdRestoreCursor();
        break;
    case 2004: bracketedPasteMode = false; break;
    case 2026: endSynchronizedOutput(); break;
    default: log("Unhandled DEC Private Mode Reset (DECRST) with " + std::to_string(mode)); break;
    }
}

bool Terminal::handleKittyKeyboardProtocol(Params pars, std::string_view collect) {
    if (collect.size() != 1) return false;
    KeyboardModeState& state = keyboardMode();
    constexpr int knownMask = 31;
    auto at = [&](std::size_t i, std::int64_t fallback) {
        return i < pars.size() && pars[i] != 0 ? pars[i] : fallback;
    };
    switch (collect[0]) {
    case '<': {
        auto n = static_cast<std::size_t>(std::max<std::int64_t>(at(0, 1), 1));
        if (n > state.stack.size()) {
            state.stack.clear();
            state.flags = 0;
        } else {
            state.flags = state.stack[state.stack.size() - n];
            state.stack.resize(state.stack.size() - n);
        }
        return true;
    }
    case '=': {
        std::int64_t value = pars.empty() ? 0 : pars[0];
        std::int64_t mode = at(1, 1);
        int masked = static_cast<int>(value & knownMask);
        switch (mode) {
        case 1: state.flags = masked; break;
        case 2: state.flags |= masked; break;
        case 3: state.flags &= ~masked; break;
        default: break;
        }
        return true;
    }
    case '>': {
        std::int64_t value = pars.empty() ? 0 : pars[0];
        // Programs push once when they start and pop when they leave; a stream that only pushes
        // must not grow the stack without end, so past the limit the oldest entries go.
        if (state.stack.size() >= maximumKeyboardStackDepth)
            state.stack.erase(state.stack.begin(),
                              state.stack.begin() + static_cast<std::ptrdiff_t>(
                                                        state.stack.size() - maximumKeyboardStackDepth + 1));
        state.stack.push_back(state.flags);
        state.flags = static_cast<int>(value & knownMask);
        return true;
    }
    case '?': sendResponse({csi(), "?", std::to_string(state.flags), "u"}); return true;
    default: return false;
    }
}

void Terminal::cmdCsiU(Params pars, std::string_view collect) {
    if (handleKittyKeyboardProtocol(pars, collect)) return;
    if (collect.empty()) cmdRestoreCursor();
}

void Terminal::sendFocusReport() {
    if (!sendFocus) return;
    sendResponse({csi(), reportedFocusState ? "I" : "O"});
}

} // namespace TerminalEngine
