// Input from the view turned into bytes for the program: keys in the kitty protocol or the legacy
// xterm forms, mouse reports in five encodings under four modes, focus changes and pastes.
#include "TerminalEngine/Input/EscapeSequences.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>
#include <array>

#include <utf8proc.h>

namespace TerminalEngine {
namespace {

using Flags = KittyKeyboardFlags;
using Mods = KittyKeyboardModifiers;
using FK = KittyFunctionalKey;

constexpr Mods lockModifiers = Mods::capsLock | Mods::numLock;

void appendUtf8(std::string& out, char32_t scalar) {
    if (scalar > 0x10FFFF || (scalar >= 0xD800 && scalar <= 0xDFFF)) return;
    GraphemeTable::appendUtf8(scalar, out);
}

void appendNumber(std::string& out, std::uint32_t value) {
    char digits[10];
    int n = 0;
    do {
        digits[n++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (n > 0)
        out.push_back(digits[--n]);
}

// Ctrl with a key gives a C0 control, as on a VT220 keyboard: the letters, and the punctuation
// and digits that sit where @ [ \ ] ^ _ and DEL did.
struct ControlKey {
    char32_t key;
    char code;
};
constexpr std::array<ControlKey, 18> controlKeys = {{
    {'@', 0x00},
    {' ', 0x00},
    {'2', 0x00},
    {'[', 0x1b},
    {'3', 0x1b},
    {'\\', 0x1c},
    {'4', 0x1c},
    {']', 0x1d},
    {'5', 0x1d},
    {'^', 0x1e},
    {'6', 0x1e},
    {'~', 0x1e},
    {'_', 0x1f},
    {'7', 0x1f},
    {'-', 0x1f},
    {'/', 0x1f},
    {'8', 0x7f},
    {'?', 0x7f},
}};

std::optional<char> controlCode(char32_t key) {
    if (key >= 'a' && key <= 'z') return static_cast<char>(key - 'a' + 1);
    if (key >= 'A' && key <= 'Z') return static_cast<char>(key - 'A' + 1);
    for (const ControlKey& c : controlKeys)
        if (c.key == key) return c.code;
    return std::nullopt;
}

// What the numeric keypad types, and its final byte in application keypad mode (SS3 x).
struct KeypadKey {
    FK key;
    char numeric;
    char application;
};
constexpr std::array<KeypadKey, 18> keypadKeys = {{
    {FK::keypad0, '0', 'p'},
    {FK::keypad1, '1', 'q'},
    {FK::keypad2, '2', 'r'},
    {FK::keypad3, '3', 's'},
    {FK::keypad4, '4', 't'},
    {FK::keypad5, '5', 'u'},
    {FK::keypad6, '6', 'v'},
    {FK::keypad7, '7', 'w'},
    {FK::keypad8, '8', 'x'},
    {FK::keypad9, '9', 'y'},
    {FK::keypadDecimal, '.', 'n'},
    {FK::keypadDivide, '/', 'o'},
    {FK::keypadMultiply, '*', 'j'},
    {FK::keypadSubtract, '-', 'm'},
    {FK::keypadAdd, '+', 'k'},
    {FK::keypadEnter, '\r', 'M'},
    {FK::keypadEqual, '=', 'X'},
    {FK::keypadSeparator, ',', 'l'},
}};

// Cursor and editing keys in the legacy encoding: the letter keys follow DECCKM, the tilde keys
// carry their number.
struct CursorKey {
    FK key;
    std::uint8_t number; // 0 for the letter forms
    char final;
};
constexpr std::array<CursorKey, 22> cursorKeys = {{
    {FK::up, 0, 'A'},           {FK::down, 0, 'B'},         {FK::right, 0, 'C'},
    {FK::left, 0, 'D'},         {FK::home, 0, 'H'},         {FK::end, 0, 'F'},
    {FK::keypadUp, 0, 'A'},     {FK::keypadDown, 0, 'B'},   {FK::keypadRight, 0, 'C'},
    {FK::keypadLeft, 0, 'D'},   {FK::keypadHome, 0, 'H'},   {FK::keypadEnd, 0, 'F'},
    {FK::keypadBegin, 0, 'E'},  {FK::insert, 2, '~'},       {FK::delete_, 3, '~'},
    {FK::pageUp, 5, '~'},       {FK::pageDown, 6, '~'},     {FK::keypadInsert, 2, '~'},
    {FK::keypadDelete, 3, '~'}, {FK::keypadPageUp, 5, '~'}, {FK::keypadPageDown, 6, '~'},
    {FK::menu, 29, '~'},
}};

// F1 to F12 in the legacy encoding: F1 to F4 are SS3 letters, the rest tilde numbers.
struct FunctionKey {
    std::uint8_t number;
    char final;
};
constexpr std::array<FunctionKey, 12> functionKeys = {{
    {1, 'P'},
    {1, 'Q'},
    {1, 'R'},
    {1, 'S'},
    {15, '~'},
    {17, '~'},
    {18, '~'},
    {19, '~'},
    {20, '~'},
    {21, '~'},
    {23, '~'},
    {24, '~'},
}};

// The xterm modifier parameter: 1 plus shift 1, alt 2, ctrl 4, meta (or super) 8.
int legacyModifierParameter(Mods m) {
    int value = 0;
    if (has(m, Mods::shift)) value |= 1;
    if (has(m, Mods::alt)) value |= 2;
    if (has(m, Mods::ctrl)) value |= 4;
    if (has(m, Mods::super) || has(m, Mods::meta)) value |= 8;
    return value == 0 ? 0 : value + 1;
}

// "CSI number ; m final", or the plain form when there is no modifier.
void appendModifiedForm(std::string& out, std::uint32_t number, char final, int modifier, bool ss3) {
    if (modifier == 0) {
        out += ss3 ? "\x1bO" : "\x1b[";
        if (number != 0) appendNumber(out, number);
        out.push_back(final);
        return;
    }
    out += "\x1b[";
    appendNumber(out, number == 0 ? 1 : number);
    out.push_back(';');
    appendNumber(out, static_cast<std::uint32_t>(modifier));
    out.push_back(final);
}

std::size_t digitCount(std::uint32_t value) {
    std::size_t n = 1;
    while (value >= 10) {
        value /= 10;
        ++n;
    }
    return n;
}

bool isTextScalar(char32_t c) {
    return c >= 0x20 && c != 0x7F && !(c >= 0x80 && c < 0xA0);
}

char32_t lowerCase(char32_t c) {
    if (c < 0x80) return (c >= 'A' && c <= 'Z') ? c + 32 : c;
    return static_cast<char32_t>(utf8proc_tolower(static_cast<utf8proc_int32_t>(c)));
}

// The scalars of a UTF-8 text that a program may take as typed text (no controls).
template <typename Visit>
void forEachTextScalar(std::string_view text, Visit&& visit) {
    const auto* p = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
    auto remaining = static_cast<utf8proc_ssize_t>(text.size());
    while (remaining > 0) {
        utf8proc_int32_t c = 0;
        utf8proc_ssize_t n = utf8proc_iterate(p, remaining, &c);
        if (n <= 0) {
            n = 1; // a stray byte is skipped, never sent as a scalar
        } else if (isTextScalar(static_cast<char32_t>(c))) {
            visit(static_cast<char32_t>(c));
        }
        p += n;
        remaining -= n;
    }
}

// What a text key types when the view gave no text: the shifted key with shift held.
void appendKeyText(std::string& out, const KittyKeyEvent& e) {
    if (e.text) {
        out += *e.text;
        return;
    }
    char32_t c = e.key.scalar();
    if (has(e.modifiers, Mods::shift)) c = e.shiftedKey.value_or(c >= 'a' && c <= 'z' ? c - 32 : c);
    appendUtf8(out, c);
}

} // namespace

// MARK: Keys

std::optional<std::string> Terminal::encodeKittyKey(const KittyKeyEvent& e) const {
    auto flags = static_cast<Flags>(keyboardEnhancementFlags()) & Flags::knownMask;
    if (flags == Flags::none) return std::nullopt;
    const bool events = has(flags, Flags::reportEvents);
    const bool allKeys = has(flags, Flags::reportAllKeys);
    const bool isRelease = e.eventType == KittyKeyboardEventType::release;
    const bool isFunctional = e.key.kind() == KittyKey::Kind::functional;
    const bool isText = e.key.kind() == KittyKey::Kind::unicode;
    const bool modifierKey = isFunctional && isKittyModifierKey(e.key.functionalKey());

    if (isRelease && !events) return std::string();
    if (e.composing && !(allKeys && modifierKey)) return std::string();
    if (modifierKey && !allKeys) return std::string();
    if (e.key.kind() == KittyKey::Kind::none) {
        // A key the view could not name: only its text, if any, is worth sending.
        return isRelease || !e.text ? std::string() : *e.text;
    }

    Mods mods = e.modifiers;
    // Lock keys are left out for keys that type text, so that Caps Lock does not turn every
    // letter into an escape code for programs that only asked to disambiguate.
    if (isText && !allKeys) mods = mods & ~lockModifiers;
    const Mods active = mods & ~lockModifiers;

    if (isFunctional && !allKeys) {
        FK key = e.key.functionalKey();
        if (key == FK::enter || key == FK::tab || key == FK::backspace) {
            // These keep their legacy bytes so that a shell stays usable after a program that
            // set the flags crashed; a modifier makes them ambiguous, and CSI u tells them apart.
            if (isRelease) return std::string();
            if (active == Mods::none) return encodeLegacyKey(e).value_or(std::string());
        }
    }
    if (isText && !allKeys && (active & ~Mods::shift) == Mods::none && !isRelease) {
        std::string out;
        appendKeyText(out, e);
        return out;
    }

    KittyKeyCode code = isFunctional
                            ? kittyKeyCode(e.key.functionalKey())
                            : KittyKeyCode{static_cast<std::uint32_t>(lowerCase(e.key.scalar())), 'u'};
    const std::uint32_t eventCode = !events                                              ? 0
                                    : e.eventType == KittyKeyboardEventType::repeatPress ? 2
                                    : isRelease                                          ? 3
                                                                                         : 0;
    // Unmodified arrows, editing and function keys are not ambiguous in the legacy encoding; it
    // keeps cursor-key mode working for programs that asked only to disambiguate.
    if (isFunctional && code.final != 'u' && !allKeys && mods == Mods::none && eventCode == 0)
        return encodeLegacyKey(e).value_or(std::string());

    const std::uint32_t modifierValue = 1 + static_cast<std::uint32_t>(mods);
    const bool modifierField = modifierValue != 1 || eventCode != 0;
    std::optional<char32_t> shifted, base;
    if (has(flags, Flags::reportAlternates) && isText) {
        if (e.shiftedKey && has(active, Mods::shift) && *e.shiftedKey != code.number) shifted = e.shiftedKey;
        if (e.baseLayoutKey && *e.baseLayoutKey != code.number) base = e.baseLayoutKey;
    }
    const bool textField =
        has(flags, Flags::reportText) && allKeys && !isRelease && e.text && !e.text->empty();

    bool bare = code.final != 'u' && code.number == 1 && !modifierField && !textField;
    // The exact length first, so that the reply costs at most the one allocation of its own.
    std::size_t length = 3 + (bare ? 0 : digitCount(code.number));
    if (shifted) length += 1 + digitCount(*shifted);
    if (base) length += (shifted ? 1 : 2) + digitCount(*base);
    if (modifierField) length += 1 + digitCount(modifierValue) + (eventCode != 0 ? 2 : 0);
    if (textField) {
        std::size_t scalars = 0, digits = 0;
        forEachTextScalar(*e.text, [&](char32_t c) {
            ++scalars;
            digits += digitCount(c);
        });
        if (scalars > 0) length += (modifierField ? 1 : 2) + digits + scalars - 1;
    }
    std::string out;
    out.reserve(length);
    out += "\x1b[";
    if (!bare) appendNumber(out, code.number);
    if (shifted) {
        out.push_back(':');
        appendNumber(out, static_cast<std::uint32_t>(*shifted));
    }
    if (base) {
        out += shifted ? ":" : "::";
        appendNumber(out, static_cast<std::uint32_t>(*base));
    }
    if (modifierField) {
        out.push_back(';');
        appendNumber(out, modifierValue);
        if (eventCode != 0) {
            out.push_back(':');
            appendNumber(out, eventCode);
        }
    }
    if (textField) {
        std::size_t mark = out.size();
        out += modifierField ? ";" : ";;";
        bool first = true;
        forEachTextScalar(*e.text, [&](char32_t c) {
            if (!first) out.push_back(':');
            appendNumber(out, static_cast<std::uint32_t>(c));
            first = false;
        });
        if (first) out.resize(mark); // only control characters: no text field
    }
    out.push_back(code.final);
    return out;
}

std::optional<std::string> Terminal::encodeLegacyKey(const KittyKeyEvent& e, LegacyKeyOptions legacy) const {
    if (e.eventType == KittyKeyboardEventType::release || e.composing) return std::nullopt;
    const Mods m = e.modifiers;
    const bool alt = has(m, Mods::alt);
    const bool escapePrefix = alt && legacy.altSendsEscape;
    std::string out;

    if (e.key.kind() == KittyKey::Kind::none) {
        if (!e.text) return std::nullopt;
        if (escapePrefix) out += EscapeSequences::cmdEsc;
        out += *e.text;
        return out;
    }

    if (e.key.kind() == KittyKey::Kind::unicode) {
        if (has(m, Mods::ctrl)) {
            if (auto code = controlCode(e.key.scalar())) {
                if (escapePrefix) out += EscapeSequences::cmdEsc;
                out.push_back(*code);
                return out;
            }
        }
        if (escapePrefix) {
            // The key itself, not what the platform composed with Alt (an accented letter).
            out += EscapeSequences::cmdEsc;
            KittyKeyEvent plain = e;
            plain.text.reset();
            appendKeyText(out, plain);
            return out;
        }
        appendKeyText(out, e);
        return out;
    }

    const FK key = e.key.functionalKey();
    const int modifier = legacyModifierParameter(m);
    auto withAlt = [&](std::string_view bytes) {
        if (escapePrefix) out += EscapeSequences::cmdEsc;
        out += bytes;
        return out;
    };
    switch (key) {
    case FK::escape: return withAlt(EscapeSequences::cmdEsc);
    case FK::enter:
        // In new-line mode Return sends CR LF, as the mode promises.
        return withAlt(lineFeedMode ? "\r\n" : EscapeSequences::cmdRet);
    case FK::tab:
        if (has(m, Mods::shift)) return std::string(EscapeSequences::cmdBackTab);
        return withAlt(EscapeSequences::cmdTab);
    case FK::backspace: return withAlt(has(m, Mods::ctrl) ? "\x08" : EscapeSequences::cmdDel);
    default: break;
    }

    for (const CursorKey& c : cursorKeys) {
        if (c.key != key) continue;
        bool ss3 = c.number == 0 && applicationCursor && modifier == 0;
        appendModifiedForm(out, c.number, c.final, modifier, ss3);
        return out;
    }

    if (key >= FK::f1 && key <= FK::f35) {
        int index = static_cast<int>(key) - static_cast<int>(FK::f1);
        int extra = 0;
        // Beyond F12, xterm's keyboard counts F13 to F24 as shifted and F25 on as with Ctrl.
        if (index >= 24) {
            index -= 24;
            extra = 4;
        } else if (index >= 12) {
            index -= 12;
            extra = 1;
        }
        int mod = modifier == 0 ? (extra == 0 ? 0 : extra + 1) : (((modifier - 1) | extra) + 1);
        const FunctionKey& f = functionKeys[static_cast<std::size_t>(index)];
        if (f.final == '~')
            appendModifiedForm(out, f.number, '~', mod, false);
        else
            appendModifiedForm(out, mod == 0 ? 0 : 1, f.final, mod, true);
        return out;
    }

    for (const KeypadKey& k : keypadKeys) {
        if (k.key != key) continue;
        if (applicationKeypad) {
            out += "\x1bO";
            out.push_back(k.application);
            return out;
        }
        if (k.key == FK::keypadEnter) return withAlt(lineFeedMode ? "\r\n" : EscapeSequences::cmdRet);
        KittyKeyEvent typed = e;
        typed.key = KittyKey::unicode(static_cast<char32_t>(k.numeric));
        typed.text.reset();
        typed.modifiers = m & ~Mods::shift;
        return encodeLegacyKey(typed, legacy);
    }
    // Lock, media and modifier keys have no legacy bytes.
    return std::nullopt;
}

std::string Terminal::encodeKey(const KittyKeyEvent& event, LegacyKeyOptions legacy) const {
    if (auto kitty = encodeKittyKey(event)) return std::move(*kitty);
    return encodeLegacyKey(event, legacy).value_or(std::string());
}

bool Terminal::sendKey(const KittyKeyEvent& event, LegacyKeyOptions legacy) {
    std::string bytes = encodeKey(event, legacy);
    if (bytes.empty()) return false;
    auto d = tdel.lock();
    if (!d) return false;
    d->send(*this, {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
    return true;
}

// MARK: Mouse

int Terminal::encodeButton(int button, bool release, bool shift, bool meta, bool control) const {
    int value;
    if (release) {
        value = 3;
    } else {
        switch (button) {
        case 1: value = 1; break;
        case 2: value = 2; break;
        case 4: value = 64; break;
        case 5: value = 65; break;
        default: value = 0; break;
        }
    }
    if (mouseMode == MouseMode::vt200 || mouseMode == MouseMode::buttonEventTracking ||
        mouseMode == MouseMode::anyEvent) {
        if (shift) value |= 4;
        if (meta) value |= 8;
        if (control) value |= 16;
    }
    return value;
}

namespace {

// One coordinate or button value in the UTF-8 extension (mode 1005): one byte up to 127, two
// bytes of UTF-8 above, and 0 for what two bytes cannot hold.
void appendMouseUtf(std::string& out, int value) {
    if (value < 0x80) {
        out.push_back(static_cast<char>(value));
    } else if (value < 2047) {
        out.push_back(static_cast<char>(0xC0 | (value >> 6)));
        out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
    } else {
        out.push_back('\0');
    }
}

} // namespace

std::string Terminal::encodeMouseReport(int flags, bool release, int x, int y, int pixelX, int pixelY) const {
    x = std::max(x, 0);
    y = std::max(y, 0);
    // The encodings without a release marker say "some button went up" with 3, and have no
    // release for wheel steps.
    const int legacyFlags = release ? ((flags & ~(3 | 64 | 128)) | 3) : flags;
    std::string out;
    switch (mouseProtocol) {
    case MouseProtocolEncoding::x10:
        out += "\x1b[M";
        for (int v : {legacyFlags + 32, x + 33, y + 33})
            out.push_back(static_cast<char>(std::min(v, 255)));
        break;
    case MouseProtocolEncoding::utf8:
        out += "\x1b[M";
        appendMouseUtf(out, legacyFlags + 32);
        appendMouseUtf(out, x + 33);
        appendMouseUtf(out, y + 33);
        break;
    case MouseProtocolEncoding::sgr:
    case MouseProtocolEncoding::sgrPixel: {
        bool pixels = mouseProtocol == MouseProtocolEncoding::sgrPixel;
        out += "\x1b[<";
        appendNumber(out, static_cast<std::uint32_t>(std::max(flags, 0)));
        out.push_back(';');
        appendNumber(out, static_cast<std::uint32_t>(pixels ? std::max(pixelX, 0) : x + 1));
        out.push_back(';');
        appendNumber(out, static_cast<std::uint32_t>(pixels ? std::max(pixelY, 0) : y + 1));
        out.push_back(release ? 'm' : 'M');
        break;
    }
    case MouseProtocolEncoding::urxvt:
        out += "\x1b[";
        appendNumber(out, static_cast<std::uint32_t>(std::max(legacyFlags + 32, 0)));
        out.push_back(';');
        appendNumber(out, static_cast<std::uint32_t>(x + 1));
        out.push_back(';');
        appendNumber(out, static_cast<std::uint32_t>(y + 1));
        out.push_back('M');
        break;
    }
    return out;
}

void Terminal::sendEvent(int buttonFlags, int x, int y) {
    sendEvent(buttonFlags, x, y, 0, 0);
}

void Terminal::sendEvent(int buttonFlags, int x, int y, int pixelX, int pixelY) {
    // A value built by encodeButton for a release has the low bits 3 and no motion or wheel bit;
    // SGR then reports the release with button 0, the button it cannot name.
    bool release = (buttonFlags & 3) == 3 && (buttonFlags & (32 | 64)) == 0;
    int flags = release ? (buttonFlags & ~3) : buttonFlags;
    std::string bytes = encodeMouseReport(flags, release, x, y, pixelX, pixelY);
    if (auto d = tdel.lock())
        d->send(*this, {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
}

std::optional<std::string> Terminal::encodeMouse(const MouseEvent& event) const {
    if (mouseMode == MouseMode::off) return std::nullopt;
    int code = 3; // motion with no button
    if (event.button) {
        static constexpr int buttonCodes[] = {0, 1, 2, 64, 65, 66, 67};
        code = buttonCodes[static_cast<std::size_t>(*event.button)];
    }
    const bool wheel = code >= 64;
    bool release = false;
    switch (event.action) {
    case MouseEvent::Action::press:
        if (!event.button) return std::nullopt;
        break;
    case MouseEvent::Action::release:
        // X10 mode reports presses only, and a wheel step has no release.
        if (mouseMode == MouseMode::x10 || wheel || !event.button) return std::nullopt;
        release = true;
        break;
    case MouseEvent::Action::motion:
        if (event.button ? (mouseMode != MouseMode::buttonEventTracking && mouseMode != MouseMode::anyEvent)
                         : mouseMode != MouseMode::anyEvent)
            return std::nullopt;
        if (wheel) return std::nullopt;
        code += 32;
        break;
    }
    if (mouseMode != MouseMode::x10) {
        if (event.shift) code |= 4;
        if (event.meta) code |= 8;
        if (event.control) code |= 16;
    }
    return encodeMouseReport(code, release, event.x, event.y, event.pixelX, event.pixelY);
}

bool Terminal::sendMouse(const MouseEvent& event) {
    auto bytes = encodeMouse(event);
    if (!bytes) return false;
    auto d = tdel.lock();
    if (!d) return false;
    d->send(*this, {reinterpret_cast<const std::uint8_t*>(bytes->data()), bytes->size()});
    return true;
}

// MARK: Focus, paste, scrolling

void Terminal::setFocused(bool focused) {
    if (reportedFocusState == focused) return;
    reportedFocusState = focused;
    sendFocusReport();
}

std::string Terminal::encodePaste(std::string_view text) const {
    std::string out;
    out.reserve(text.size() + (bracketedPasteMode ? 12 : 0));
    if (bracketedPasteMode) out += EscapeSequences::bracketedPasteStart;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        // Lines end in CR, what the Return key sends, whatever the clipboard used.
        if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') continue;
        if (c == '\n') c = '\r';
        // Pasted text must not be able to end the bracket early and type the rest as keys.
        if (bracketedPasteMode && c == '\x1b' &&
            (text.substr(i).starts_with(EscapeSequences::bracketedPasteEnd) ||
             text.substr(i).starts_with(EscapeSequences::bracketedPasteStart))) {
            i += EscapeSequences::bracketedPasteEnd.size() - 1;
            continue;
        }
        out.push_back(c);
    }
    if (bracketedPasteMode) out += EscapeSequences::bracketedPasteEnd;
    return out;
}

void Terminal::paste(std::string_view text) {
    std::string bytes = encodePaste(text);
    if (bytes.empty()) return;
    if (auto d = tdel.lock())
        d->send(*this, {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
}

void Terminal::scrollDisplayTo(int yDisp) {
    DelegateScope scope(*this);
    Buffer& b = *buffer;
    int target = std::clamp(yDisp, 0, b.yBase);
    if (target == b.yDisp) return;
    b.yDisp = target;
    userScrolling = target != b.yBase;
    updateFullScreen();
    if (auto* d = delegate()) d->scrolled(*this, b.yDisp);
}

} // namespace TerminalEngine
