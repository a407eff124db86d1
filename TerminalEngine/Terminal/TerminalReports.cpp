// Everything by which the terminal answers the program or takes higher-level orders from it:
// device attributes and status, mode and setting queries, window commands, titles, OSC
// commands (colours, directory, links, clipboard, notifications, progress, inline files).
#include "TerminalEngine/Model/Base64.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>
#include <cstdio>

namespace TerminalEngine {
namespace {

std::int64_t raw(Params pars, std::size_t index) {
    return index < pars.size() ? pars[index] : 0;
}

std::string_view asText(ByteSpan payload) {
    return {reinterpret_cast<const char*>(payload.data()), payload.size()};
}

bool isValidUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        auto b = static_cast<unsigned char>(text[i]);
        if (b < 0x80) {
            ++i;
            continue;
        }
        std::uint8_t entry = UnicodeUtil::utf8LeadTable[b];
        int length = UnicodeUtil::sequenceLength(entry);
        if (length < 2 || length > 4 || i + static_cast<std::size_t>(length) > text.size()) return false;
        if (!UnicodeUtil::utf8SecondByteOk(entry, static_cast<std::uint8_t>(text[i + 1]))) return false;
        for (int k = 2; k < length; ++k)
            if ((static_cast<unsigned char>(text[i + static_cast<std::size_t>(k)]) & 0xC0) != 0x80)
                return false;
        i += static_cast<std::size_t>(length);
    }
    return true;
}

std::vector<std::string_view> splitOn(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (true) {
        std::size_t at = text.find(separator, start);
        if (at == std::string_view::npos) {
            parts.push_back(text.substr(start));
            return parts;
        }
        parts.push_back(text.substr(start, at - start));
        start = at + 1;
    }
}

std::optional<int> parseInt(std::string_view text) {
    if (text.empty() || text.size() > 9) return std::nullopt;
    int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}

// The payload as UTF-8; bytes that are not are read one by one as ASCII would, each bad one as
// U+FFFD, so that what is stored is always text (it ends up in JSON and in window titles).
std::string decodeUtf8OrAscii(std::string_view text) {
    if (isValidUtf8(text)) return std::string(text);
    std::string out;
    std::size_t i = 0;
    while (i < text.size()) {
        auto b = static_cast<unsigned char>(text[i]);
        std::uint8_t entry = UnicodeUtil::utf8LeadTable[b];
        auto length = static_cast<std::size_t>(UnicodeUtil::sequenceLength(entry));
        if (b >= 0x80 && length >= 2 && length <= 4 && i + length <= text.size() &&
            isValidUtf8(text.substr(i, length))) {
            out.append(text.substr(i, length));
            i += length;
        } else if (b < 0x80) {
            out.push_back(static_cast<char>(b));
            ++i;
        } else {
            out += "\xEF\xBF\xBD";
            ++i;
        }
    }
    return out;
}

std::string hex4(unsigned value) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "%04x", value & 0xFFFF);
    return buf;
}

} // namespace

// MARK: Device attributes and status

void Terminal::cmdSendDeviceAttributes(Params pars, std::string_view collect) {
    if (raw(pars, 0) >= 1) {
        std::string p;
        for (std::size_t i = 0; i < pars.size(); ++i)
            p += (i ? ";" : "") + std::to_string(pars[i]);
        log("SendDeviceAttributes got " + p + " and " + std::string(collect));
        return;
    }
    if (collect.empty()) {
        std::string_view name = options.termName;
        if (name.starts_with("xterm")) {
            sendResponse(
                {csi(), options.enableSixelReported ? "?65;4;1;2;6;21;22;17;28c" : "?65;1;2;6;21;22;17;28c"});
        } else if (name.starts_with("screen") || name.starts_with("rxvt-unicode")) {
            sendResponse({csi(), "?1;2c"});
        } else if (name.starts_with("linux")) {
            sendResponse({csi(), "?6c"});
        }
    } else if (collect == ">") {
        sendResponse({csi(), ">65;20;1c"});
    } else {
        log("SendDeviceAttributes got unknown collect " + std::string(collect));
    }
}

void Terminal::cmdDeviceStatus(Params pars, std::string_view collect) {
    const Buffer& b = *buffer;
    int row = b.y + 1 - (originMode ? b.scrollTop : 0);
    int col = std::min(b.x, cols - 1) + 1 - ((originMode && marginMode) ? b.marginLeft : 0);
    row = std::max(row, 1);
    col = std::max(col, 1);
    if (collect.empty()) {
        switch (raw(pars, 0)) {
        case 5: sendResponse({csi(), "0n"}); break;
        case 6: sendResponse({csi(), std::to_string(row), ";", std::to_string(col), "R"}); break;
        default: break;
        }
        return;
    }
    if (collect != "?") return;
    switch (raw(pars, 0)) {
    case 6: sendResponse({csi(), "?", std::to_string(row), ";", std::to_string(col), ";1R"}); break;
    case 15: sendResponse({csi(), "?10n"}); break;
    case 25: sendResponse({csi(), "?21n"}); break;
    case 26: sendResponse({csi(), "?27;1;0;0n"}); break;
    case 55: sendResponse({csi(), "?53n"}); break;
    case 56: sendResponse({csi(), "?57;1n"}); break;
    case 62: sendResponse({csi(), "0*{"}); break;
    case 63: sendResponse({dcs(), std::to_string(raw(pars, 1)), "!~0000", st()}); break;
    case 75: sendResponse({csi(), "?70n"}); break;
    case 85: sendResponse({csi(), "?83n"}); break;
    default: break;
    }
}

void Terminal::csiPHandler(Params pars, std::string_view collect) {
    if (collect == "!")
        softReset();
    else if (collect == "\"")
        cmdSetConformanceLevel(pars);
    else if (collect == "$")
        cmdDecRqm(pars, false);
    else if (collect == "?$")
        cmdDecRqm(pars, true);
    else
        log("TerminalEngine: Unknown CSI Code (collect=" + std::string(collect) + " code=p)");
}

void Terminal::cmdDecRqm(Params pars, bool decMode) {
    std::int64_t mode = raw(pars, 0);
    auto flag = [](bool on) { return on ? 1 : 2; };
    int state = 0;
    if (!decMode) {
        if (mode == 4)
            state = flag(insertMode);
        else if (mode == 20)
            state = flag(lineFeedMode);
    } else {
        switch (mode) {
        case 1: state = flag(applicationCursor); break;
        case 3: state = flag(cols == 132); break;
        case 4: state = flag(smoothScroll); break;
        case 5: state = flag(curAttr.bg == Attribute::Color::defaultInvertedColor()); break;
        case 6: state = flag(originMode); break;
        case 7: state = flag(wraparound); break;
        case 9: state = flag(mouseMode == MouseMode::x10); break;
        case 12: state = flag(cursorBlink); break;
        case 25: state = flag(!cursorHidden); break;
        case 40: state = flag(allow80To132); break;
        case 45: state = flag(reverseWraparound); break;
        case 66: state = flag(applicationKeypad); break;
        case 69: state = flag(marginMode); break;
        case 1000: state = flag(mouseMode == MouseMode::vt200); break;
        case 1002: state = flag(mouseMode == MouseMode::buttonEventTracking); break;
        case 1003: state = flag(mouseMode == MouseMode::anyEvent); break;
        case 1004: state = flag(sendFocus); break;
        case 1005: state = flag(mouseProtocol == MouseProtocolEncoding::utf8); break;
        case 1006: state = flag(mouseProtocol == MouseProtocolEncoding::sgr); break;
        case 1015: state = flag(mouseProtocol == MouseProtocolEncoding::urxvt); break;
        case 1016: state = flag(mouseProtocol == MouseProtocolEncoding::sgrPixel); break;
        case 2004: state = flag(bracketedPasteMode); break;
        case 2026: state = flag(synchronizedOutputActive); break;
        case 47:
        case 1047:
        case 1049: state = flag(isAltBufferActive()); break;
        // Fixed by design: always ANSI mode, auto-repeat belongs to the host, no printer.
        case 2: state = 3; break;
        case 8: state = 3; break;
        case 18:
        case 19: state = 4; break;
        case 10:
        case 42:
        case 44:
        case 46: state = 4; break;
        case 13:
        case 14:
        case 30:
        case 41:
        case 1001: state = 2; break;
        default: state = 0; break;
        }
    }
    sendResponse({csi(), decMode ? "?" : "", std::to_string(mode), ";", std::to_string(state), "$y"});
}

void Terminal::cmdSetConformanceLevel(Params pars) {
    // "CSI " p" with nothing in it arrives as a single 0, which names no level.
    if (pars.empty() || (pars.size() == 1 && pars[0] == 0)) return;
    std::int64_t level = pars[0];
    if (level == 61) {
        conformance = TerminalConformance::vt100;
        cc.send8bit = false;
        return;
    }
    switch (level) {
    case 62: conformance = TerminalConformance::vt200; break;
    case 63: conformance = TerminalConformance::vt300; break;
    case 64: conformance = TerminalConformance::vt400; break;
    default: conformance = TerminalConformance::vt500; break;
    }
    if (pars.size() > 1) cc.send8bit = pars[1] == 0 || pars[1] == 2;
}

// MARK: DECRQSS

void Terminal::DECRQSS::hook(std::string_view, Params, std::uint8_t) {
    data.clear();
}

void Terminal::DECRQSS::put(ByteSpan bytes) {
    // A request is a few bytes; anything longer is not one we answer.
    if (data.size() + bytes.size() <= 64)
        data.insert(data.end(), bytes.begin(), bytes.end());
    else
        data.assign(65, 0);
}

void Terminal::DECRQSS::unhook() {
    Terminal& t = terminal;
    std::string request(data.begin(), data.end());
    std::string reply;
    if (request == "\"p") {
        reply = "1$r65;1\"p";
    } else if (request == "\"q") {
        reply = "1$r0\"q";
    } else if (request == " q") {
        reply = "1$r" + std::to_string(static_cast<int>(t.cursorStyle) + 1) + " q";
    } else if (request == "m") {
        reply = "1$r" + t.currentSgr() + "m";
    } else if (request == "r") {
        reply = "1$r" + std::to_string(t.buffer->scrollTop + 1) + ";" +
                std::to_string(t.buffer->scrollBottom + 1) + "r";
    } else if (request == "s") {
        reply = "1$r" + std::to_string(t.buffer->marginLeft + 1) + ";" +
                std::to_string(t.buffer->marginRight + 1) + "s";
    } else {
        std::string printable;
        for (char c : request)
            printable += (c >= 0x20 && c < 0x7F) ? c : '?';
        t.log("Unknown DCS + " + printable);
        reply = "0$r";
    }
    t.sendResponse({t.dcs(), reply, t.st()});
}

std::string Terminal::currentSgr() const {
    std::string out = "0";
    const Attribute& a = curAttr;
    auto add = [&](std::string_view s) {
        out += ';';
        out += s;
    };
    if (has(a.style, CharacterStyle::bold)) add("1");
    if (has(a.style, CharacterStyle::dim)) add("2");
    if (has(a.style, CharacterStyle::italic)) add("3");
    if (has(a.style, CharacterStyle::underline)) {
        switch (a.underlineStyle) {
        case UnderlineStyle::double_: add("21"); break;
        case UnderlineStyle::curly: add("4:3"); break;
        case UnderlineStyle::dotted: add("4:4"); break;
        case UnderlineStyle::dashed: add("4:5"); break;
        default: add("4"); break;
        }
    }
    if (has(a.style, CharacterStyle::blink)) add("5");
    if (has(a.style, CharacterStyle::inverse)) add("7");
    if (has(a.style, CharacterStyle::invisible)) add("8");
    if (has(a.style, CharacterStyle::crossedOut)) add("9");
    auto color = [&](const Attribute::Color& c, int base, int extended) {
        switch (c.kind()) {
        case Attribute::Color::Kind::ansi256:
            if (c.code() < 8)
                add(std::to_string(base + c.code()));
            else if (c.code() < 16)
                add(std::to_string(base + 60 + c.code() - 8));
            else
                add(std::to_string(extended) + ";5;" + std::to_string(c.code()));
            break;
        case Attribute::Color::Kind::trueColor:
            add(std::to_string(extended) + ";2;" + std::to_string(c.red()) + ";" + std::to_string(c.green()) +
                ";" + std::to_string(c.blue()));
            break;
        default: break;
        }
    };
    color(a.fg, 30, 38);
    color(a.bg, 40, 48);
    return out;
}

// MARK: Rectangular checksum

void Terminal::cmdDECRQCRA(Params pars, std::string_view collect) {
    if (collect != "*") {
        log("TerminalEngine: Unknown CSI Code (collect=" + std::string(collect) + " code=y)");
        return;
    }
    std::int64_t id = raw(pars, 0);
    unsigned sum = 0;
    if (auto rect = getRectangleFromRequest(pars, 2)) {
        for (int row = rect->top; row <= rect->bottom; ++row) {
            const BufferLine& line = lineAt(row);
            for (int c = rect->left; c <= rect->right; ++c)
                sum += static_cast<unsigned>(line[c].code);
        }
    }
    sendResponse({dcs(), std::to_string(id), "!~", hex4(sum), st()});
}

// MARK: Window commands and titles

void Terminal::csit(Params pars, std::string_view collect) {
    if (collect.empty())
        cmdWindowOptions(pars);
    else if (collect == ">")
        cmdXtermTitleModeSet(pars);
    else
        log("TerminalEngine: Unknown CSI Code (collect=" + std::string(collect) + " code=t)");
}

void Terminal::cmdWindowOptions(Params pars) {
    using W = WindowManipulationCommand;
    std::int64_t p = raw(pars, 0);
    std::int64_t sub = raw(pars, 1);
    std::optional<W> command;
    switch (p) {
    case 1: command = W::deiconifyWindow; break;
    case 2: command = W::iconifyWindow; break;
    case 3: command = W::moveWindowTo; break;
    case 4: command = W::resizeWindowTo; break;
    case 5: command = W::bringToFront; break;
    case 6: command = W::sendToBack; break;
    case 7: command = W::refreshWindow; break;
    case 8: command = W::resizeTo; break;
    case 9:
        command = sub == 0   ? W::restoreMaximizedWindow
                  : sub == 1 ? W::maximizeWindow
                  : sub == 2 ? W::maximizeWindowVertically
                             : W::maximizeWindowHorizontally;
        break;
    case 10:
        command = sub == 0 ? W::undoFullScreen : sub == 1 ? W::switchToFullScreen : W::toggleFullScreen;
        break;
    case 11: command = W::reportTerminalState; break;
    case 13: command = sub == 2 ? W::reportTextAreaPosition : W::reportTerminalPosition; break;
    case 14:
        command = sub == 2 ? W::reportTerminalWindowPixelDimension : W::reportTextAreaPixelDimension;
        break;
    case 15: command = W::reportSizeOfScreenInPixels; break;
    case 16: {
        std::optional<std::pair<int, int>> cell;
        if (auto* d = delegate()) cell = d->cellSizeInPixels(*this);
        if (cell)
            sendResponse({csi(), "6;", std::to_string(cell->second), ";", std::to_string(cell->first), "t"});
        else
            sendResponse({csi(), "6;16;10t"});
        return;
    }
    case 18: sendResponse({csi(), "8;", std::to_string(rows), ";", std::to_string(cols), "t"}); return;
    case 19: sendResponse({csi(), "9;", std::to_string(rows), ";", std::to_string(cols), "t"}); return;
    case 20: command = W::reportIconLabel; break;
    case 21: command = W::reportWindowTitle; break;
    case 22:
        if (sub == 0 || sub == 1) terminalIconStack.push_back(iconTitle);
        if (sub == 0 || sub == 2) terminalTitleStack.push_back(terminalTitle);
        // A program that pushes without popping must not grow the stacks without end.
        if (terminalIconStack.size() > 10) terminalIconStack.erase(terminalIconStack.begin());
        if (terminalTitleStack.size() > 10) terminalTitleStack.erase(terminalTitleStack.begin());
        return;
    case 23:
        if ((sub == 0 || sub == 1) && !terminalIconStack.empty()) {
            std::string title = std::move(terminalIconStack.back());
            terminalIconStack.pop_back();
            setIconTitle(title);
        }
        if ((sub == 0 || sub == 2) && !terminalTitleStack.empty()) {
            std::string title = std::move(terminalTitleStack.back());
            terminalTitleStack.pop_back();
            setTitle(title);
        }
        return;
    default:
        if (p >= 24) command = W::resizeTerminal;
        break;
    }
    if (!command) {
        log("Unhandled Window command: " + std::to_string(p));
        return;
    }
    if (auto* d = delegate()) {
        WindowCommand request{*command, std::vector<std::int64_t>(pars.begin(), pars.end())};
        if (auto reply = d->windowCommand(*this, request); reply && !reply->empty())
            d->send(*this, std::span<const std::uint8_t>(reply->data(), reply->size()));
    }
}

void Terminal::cmdXtermTitleModeSet(Params pars) {
    for (std::int64_t p : pars) {
        switch (p) {
        case 0: xtermTitleSetHex = true; break;
        case 1: xtermTitleQueryHex = true; break;
        case 2: xtermTitleSetUtf = true; break;
        case 3: xtermTitleQueryUtf = true; break;
        default: break;
        }
    }
}

void Terminal::cmdXtermTitleModeReset(Params pars) {
    for (std::int64_t p : pars) {
        switch (p) {
        case 0: xtermTitleSetHex = false; break;
        case 1: xtermTitleQueryHex = false; break;
        case 2: xtermTitleSetUtf = false; break;
        case 3: xtermTitleQueryUtf = false; break;
        default: break;
        }
    }
}

void Terminal::setTitle(std::string_view text) {
    terminalTitle = isValidUtf8(text) ? std::string(text) : std::string();
    if (auto* d = delegate()) d->setTerminalTitle(*this, terminalTitle);
}

void Terminal::setIconTitle(std::string_view text) {
    iconTitle = isValidUtf8(text) ? std::string(text) : std::string();
    if (auto* d = delegate()) d->setTerminalIconTitle(*this, iconTitle);
}

// MARK: Working directory and document

void Terminal::oscSetCurrentDirectory(ByteSpan payload) {
    hostCurrentDirectory = decodeUtf8OrAscii(asText(payload));
    if (auto* d = delegate()) d->hostCurrentDirectoryUpdated(*this);
}

void Terminal::oscSetCurrentDocument(ByteSpan payload) {
    hostCurrentDocument = decodeUtf8OrAscii(asText(payload));
    if (auto* d = delegate()) d->hostCurrentDocumentUpdated(*this);
}

// MARK: Hyperlinks

void Terminal::oscHyperlink(ByteSpan payload) {
    std::string_view text = asText(payload);
    std::size_t semicolon = text.find(';');
    if (semicolon == std::string_view::npos) return;
    std::string_view uri = text.substr(semicolon + 1);
    const Buffer& b = *buffer;
    int x = std::min(b.x, cols);
    int line = b.yBase + b.y;

    // Closing (or opening the next link while one is open) marks the cells of the open link.
    if (hyperLinkTracking) {
        HyperlinkTracking tracking = std::move(*hyperLinkTracking);
        hyperLinkTracking.reset();
        if (auto atom = TinyAtom::lookup(tracking.payload)) {
            ownedAtoms_.insert(atom->code);
            for (int row = std::max(tracking.startLine, 0); row <= line && row < b.lines.count(); ++row) {
                BufferLine& cells = buffer->lines[row];
                int from = row == tracking.startLine ? tracking.startX : 0;
                int to = row == line ? x : cells.count();
                from = std::clamp(from, 0, cells.count());
                to = std::clamp(to, from, cells.count());
                CharData* data = cells.mutableData();
                for (int c = from; c < to; ++c)
                    data[c].payload = *atom;
                if (to > from) {
                    cells.touch();
                    if (row >= b.yBase) updateRange(row - b.yBase);
                }
            }
            // Links come and go with the output; drop the atoms no cell holds any more.
            if (ownedAtoms_.size() >= 4096 && ownedAtoms_.size() % 1024 == 0) garbageCollectPayload();
        }
    }
    if (!uri.empty()) hyperLinkTracking = HyperlinkTracking{x, line, std::string(text)};
}

// MARK: Clipboard, notifications, progress

void Terminal::oscClipboard(ByteSpan payload) {
    std::string_view text = asText(payload);
    std::size_t semicolon = text.find(';');
    if (semicolon == std::string_view::npos) return;
    std::string_view selection = text.substr(0, semicolon);
    std::string_view data = text.substr(semicolon + 1);
    auto* d = delegate();
    if (d == nullptr) return;
    if (data == "?") {
        auto content = d->clipboardRead(*this);
        if (!content) return;
        sendResponse({osc(), "52;", selection, ";", Base64::encode(*content), st()});
        return;
    }
    if (auto decoded = Base64::decode(data)) d->clipboardCopy(*this, *decoded);
}

void Terminal::oscNotification(ByteSpan payload) {
    std::string_view text = asText(payload);
    if (!isValidUtf8(text)) return;
    auto parts = splitOn(text, ';');
    if (parts.size() < 3 || parts[0] != "notify") return;
    std::string body;
    for (std::size_t i = 2; i < parts.size(); ++i) {
        if (i > 2) body += ';';
        body += parts[i];
    }
    if (auto* d = delegate()) d->notify(*this, std::string(parts[1]), body);
}

bool Terminal::oscProgressReport(ByteSpan payload) {
    auto parts = splitOn(asText(payload), ';');
    if (parts.empty() || parts[0] != "4") return false;
    if (parts.size() < 2) return false;
    auto state = parseInt(parts[1]);
    if (!state || *state > 4) return false;
    ProgressReport report;
    report.state = static_cast<ProgressReportState>(*state);
    if (parts.size() > 2 &&
        (report.state == ProgressReportState::set || report.state == ProgressReportState::error ||
         report.state == ProgressReportState::pause)) {
        if (auto value = parseInt(parts[2])) report.progress = std::min(*value, 100);
    }
    if (auto* d = delegate()) d->progressReport(*this, report);
    return true;
}

// MARK: Inline files

void Terminal::osciTerm2(ByteSpan payload) {
    std::string_view text = asText(payload);
    auto* d = delegate();
    if (d == nullptr) return;
    if (!text.starts_with("File=")) {
        d->iTermContent(*this, payload);
        return;
    }
    std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        d->iTermContent(*this, payload);
        return;
    }
    std::string_view arguments = text.substr(5, colon - 5);
    bool isInline = false;
    bool preserveAspectRatio = true;
    ImageSizeRequest width, height;
    auto sizeRequest = [](std::string_view v) {
        ImageSizeRequest r;
        if (v.empty() || v == "auto") return r;
        ImageSizeRequest::Kind kind = ImageSizeRequest::Kind::cells;
        if (v.ends_with("px")) {
            kind = ImageSizeRequest::Kind::pixels;
            v.remove_suffix(2);
        } else if (v.ends_with("%")) {
            kind = ImageSizeRequest::Kind::percent;
            v.remove_suffix(1);
        }
        if (auto n = parseInt(v)) r = {kind, *n};
        return r;
    };
    for (std::string_view pair : splitOn(arguments, ';')) {
        std::size_t eq = pair.find('=');
        if (eq == std::string_view::npos) continue;
        std::string_view key = pair.substr(0, eq), value = pair.substr(eq + 1);
        if (key == "inline")
            isInline = value == "1";
        else if (key == "width")
            width = sizeRequest(value);
        else if (key == "height")
            height = sizeRequest(value);
        else if (key == "preserveAspectRatio")
            preserveAspectRatio = value != "0";
    }
    if (!isInline) {
        d->iTermContent(*this, payload);
        return;
    }
    if (auto data = Base64::decode(text.substr(colon + 1)))
        d->createImage(*this, *data, width, height, preserveAspectRatio);
}

void Terminal::kittyGraphics(ByteSpan) {
    // Image payloads are accepted and dropped: the engine draws no images, and answering
    // nothing tells a program that queries support that it should not send any.
}

// MARK: Colours

void Terminal::recomputePalette(bool notify) {
    defaultAnsiColors = Color::ansi256Palette(installedColors, foregroundColor, backgroundColor,
                                              options.ansi256PaletteStrategy);
    ansiColors = defaultAnsiColors;
    if (notify)
        if (auto* d = delegate()) d->colorChanged(*this, std::nullopt);
}

void Terminal::installColors(std::vector<Color> colors) {
    DelegateScope scope(*this);
    installedColors = std::move(colors);
    recomputePalette(true);
}

void Terminal::setAnsi256PaletteStrategy(Ansi256PaletteStrategy strategy) {
    DelegateScope scope(*this);
    options.ansi256PaletteStrategy = strategy;
    recomputePalette(true);
}

void Terminal::reportColor(std::string_view oscCode, const Color& color) {
    sendResponse(
        {osc(), oscCode, ";rgb:", hex4(color.red), "/", hex4(color.green), "/", hex4(color.blue), st()});
}

void Terminal::oscChangeOrQueryColorIndex(ByteSpan payload) {
    auto parts = splitOn(asText(payload), ';');
    for (std::size_t i = 0; i + 1 < parts.size(); i += 2) {
        auto index = parseInt(parts[i]);
        if (!index || *index > 255) return;
        std::string_view spec = parts[i + 1];
        if (spec == "?") {
            reportColor("4;" + std::to_string(*index), ansiColors[static_cast<std::size_t>(*index)]);
            continue;
        }
        if (auto color = Color::parse(spec)) {
            ansiColors[static_cast<std::size_t>(*index)] = *color;
            if (auto* d = delegate()) d->colorChanged(*this, *index);
        }
    }
}

void Terminal::oscSetColors(ByteSpan payload, int startAt) {
    auto parts = splitOn(asText(payload), ';');
    int position = startAt;
    for (std::string_view spec : parts) {
        if (position > 2) break;
        auto* d = delegate();
        if (spec == "?") {
            if (d) {
                auto [fg, bg] = d->getColors(*this);
                if (position == 0)
                    reportColor("10", fg);
                else if (position == 1)
                    reportColor("11", bg);
                else
                    reportColor("12", cursorColor.value_or(fg));
            }
        } else if (auto color = Color::parse(spec); color && d) {
            if (position == 0 && !settingFgColor) {
                settingFgColor = true;
                d->setForegroundColor(*this, *color);
                settingFgColor = false;
            } else if (position == 1 && !settingBgColor) {
                settingBgColor = true;
                d->setBackgroundColor(*this, *color);
                settingBgColor = false;
            } else if (position == 2 && !settingCursorColor) {
                settingCursorColor = true;
                d->setCursorColor(*this, *color);
                settingCursorColor = false;
            }
        }
        ++position;
    }
}

void Terminal::oscResetColor(ByteSpan payload) {
    std::string_view text = asText(payload);
    if (text.empty()) {
        ansiColors = defaultAnsiColors;
        if (auto* d = delegate()) d->colorChanged(*this, std::nullopt);
        return;
    }
    for (std::string_view item : splitOn(text, ';')) {
        auto index = parseInt(item);
        if (!index || *index > 255) continue;
        ansiColors[static_cast<std::size_t>(*index)] = defaultAnsiColors[static_cast<std::size_t>(*index)];
        if (auto* d = delegate()) d->colorChanged(*this, *index);
    }
}

void Terminal::oscResetCursorColor() {
    if (auto* d = delegate()) d->setCursorColor(*this, std::nullopt);
}

// MARK: Delegate defaults that touch the terminal

void TerminalDelegate::setForegroundColor(Terminal& source, const Color& color) {
    source.foregroundColor = color;
}
void TerminalDelegate::setBackgroundColor(Terminal& source, const Color& color) {
    source.backgroundColor = color;
}
void TerminalDelegate::setCursorColor(Terminal& source, const std::optional<Color>& color) {
    source.cursorColor = color;
}
std::pair<Color, Color> TerminalDelegate::getColors(Terminal& source) {
    return {source.foregroundColor, source.backgroundColor};
}

} // namespace TerminalEngine
