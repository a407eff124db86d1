// Control functions that move the cursor and change the screen: C0 controls, cursor movement,
// erasing, insertion and deletion, scroll regions and margins, tabs, character sets,
// rectangles and SGR.
#include "TerminalEngine/Model/ByteScan.h"
#include "TerminalEngine/Terminal/Terminal.h"

#include <algorithm>
#include <cstring>

namespace TerminalEngine {
namespace {

// A missing or zero parameter takes the default.
int param(Params pars, std::size_t index, int fallback) {
    if (index >= pars.size() || pars[index] == 0) return fallback;
    return static_cast<int>(std::min<std::int64_t>(pars[index], 1 << 20));
}

// The parameter as sent, 0 when missing.
std::int64_t raw(Params pars, std::size_t index) {
    return index < pars.size() ? pars[index] : 0;
}

} // namespace

// MARK: C0 controls

void Terminal::bell() {
    if (auto* d = delegate()) d->bell(*this);
}

void Terminal::cmdBackspace() {
    Buffer& b = *buffer;
    restrictCursor(!reverseWraparound);
    if (b.x >= cols) b.x = cols - 1;
    int left = (marginMode && b.x >= b.marginLeft) ? b.marginLeft : 0;
    if (reverseWraparound && b.x <= left) {
        // Backspace from the left edge of a continued line goes back to the end of the line above.
        if (b.y > 0 && lineAt(b.y).isWrapped) {
            --b.y;
            b.x = marginMode ? b.marginRight : cols - 1;
        }
        return;
    }
    b.x = std::max(b.x - 1, left);
}

void Terminal::cmdTab() {
    Buffer& b = *buffer;
    if (b.x >= cols) return;
    int next = b.nextTabStop(b.x);
    if (marginMode && b.x <= b.marginRight) next = std::min(next, b.marginRight);
    b.x = next;
}

void Terminal::cmdCarriageReturn() {
    Buffer& b = *buffer;
    b.x = (originMode && marginMode) ? b.marginLeft : 0;
}

void Terminal::setgLevel(int level) {
    gcharset = std::clamp(level, 0, 3);
    charset = gCharsets[static_cast<std::size_t>(gcharset)];
}

void Terminal::setgCharset(int slot, const CharSet* newCharset) {
    if (slot < 0 || slot > 3) return;
    gCharsets[static_cast<std::size_t>(slot)] = newCharset;
    if (slot == gcharset) charset = newCharset;
}

void Terminal::selectCharset(std::string_view p) {
    if (p.size() != 2) {
        setgLevel(0);
        setgCharset(0, nullptr);
        return;
    }
    int slot;
    switch (p[0]) {
    case '(': slot = 0; break;
    case ')':
    case '-': slot = 1; break;
    case '*':
    case '.': slot = 2; break;
    case '+':
    case '/': slot = 3; break;
    default: return; // "," and anything else select nothing
    }
    setgCharset(slot, CharSets::find(p[1]));
}

void Terminal::cmdTabSet() {
    Buffer& b = *buffer;
    if (b.x < cols) b.setTabStop(b.x);
}

// MARK: Cursor movement

void Terminal::cmdCursorUp(Params pars) {
    Buffer& b = *buffer;
    int top = b.y >= b.scrollTop ? b.scrollTop : 0;
    b.y = std::max(b.y - param(pars, 0, 1), top);
    if (b.x >= cols) b.x = cols - 1;
}

void Terminal::cmdCursorDown(Params pars) {
    Buffer& b = *buffer;
    int bottom = b.y <= b.scrollBottom ? b.scrollBottom : rows - 1;
    b.y = std::min(b.y + param(pars, 0, 1), bottom);
    if (b.x >= cols) b.x = cols - 1;
}

void Terminal::cmdCursorForward(Params pars) {
    cursorForward(param(pars, 0, 1));
}

void Terminal::cmdCursorBackward(Params pars) {
    cursorBackward(param(pars, 0, 1));
}

void Terminal::cmdCursorNextLine(Params pars) {
    cmdCursorDown(pars);
    buffer->x = leftEdge();
}

void Terminal::cmdCursorPrecedingLine(Params pars) {
    cmdCursorUp(pars);
    buffer->x = leftEdge();
}

void Terminal::cmdCursorCharAbsolute(Params pars) {
    Buffer& b = *buffer;
    b.x = param(pars, 0, 1) - 1 + ((originMode && marginMode) ? b.marginLeft : 0);
    restrictCursor();
}

void Terminal::cmdCharPosAbsolute(Params pars) {
    cmdCursorCharAbsolute(pars);
}

void Terminal::cmdHPositionRelative(Params pars) {
    cursorForward(param(pars, 0, 1));
}

void Terminal::cmdCursorPosition(Params pars) {
    cursorPosition(raw(pars, 0), raw(pars, 1));
}

void Terminal::cmdHVPosition(Params pars) {
    cmdCursorPosition(pars);
}

void Terminal::cmdLinePosAbsolute(Params pars) {
    Buffer& b = *buffer;
    b.y = param(pars, 0, 1) - 1 + (originMode ? b.scrollTop : 0);
    if (b.x >= cols) b.x = cols - 1;
    restrictCursor();
}

void Terminal::cmdVPositionRelative(Params pars) {
    Buffer& b = *buffer;
    b.y += param(pars, 0, 1);
    if (b.x >= cols) b.x = cols - 1;
    restrictCursor();
}

void Terminal::cmdCursorForwardTab(Params pars) {
    for (int n = param(pars, 0, 1); n > 0 && buffer->x < cols - 1; --n)
        cmdTab();
}

void Terminal::cmdCursorBackwardTab(Params pars) {
    Buffer& b = *buffer;
    if (b.x >= cols) b.x = cols - 1;
    for (int n = param(pars, 0, 1); n > 0 && b.x > 0; --n)
        b.x = b.previousTabStop(b.x);
}

void Terminal::cmdTabClear(Params pars) {
    Buffer& b = *buffer;
    switch (raw(pars, 0)) {
    case 0:
        if (b.x < cols) b.clearTabStop(b.x);
        break;
    case 3: b.clearAllTabStops(); break;
    default: break;
    }
}

void Terminal::cmdSaveCursor() {
    Buffer& b = *buffer;
    b.savedX = b.x;
    b.savedY = b.y;
    b.savedAttr = curAttr;
    b.savedCharset = charset;
    b.savedOriginMode = originMode;
    b.savedMarginMode = marginMode;
    b.savedWraparound = wraparound;
    b.savedReverseWraparound = reverseWraparound;
}

void Terminal::cmdRestoreCursor() {
    Buffer& b = *buffer;
    b.x = std::clamp(b.savedX, 0, cols);
    b.y = std::clamp(b.savedY, 0, rows - 1);
    curAttr = b.savedAttr;
    charset = b.savedCharset;
    originMode = b.savedOriginMode;
    marginMode = b.savedMarginMode;
    wraparound = b.savedWraparound;
    reverseWraparound = b.savedReverseWraparound;
    if (b.x >= cols) b.x = cols - 1;
}

void Terminal::cmdSetScrollRegion(Params pars, std::string_view collect) {
    if (!collect.empty()) return; // XTRESTORE and kin: the modes are not saved
    int top = param(pars, 0, 1);
    int bottom = param(pars, 1, rows);
    bottom = std::min(bottom, rows);
    if (top >= bottom) return;
    setScrollRegion(top - 1, bottom - 1);
}

void Terminal::setScrollRegion(int top, int bottom) {
    Buffer& b = *buffer;
    b.scrollTop = top;
    b.scrollBottom = bottom;
    setCursor(0, 0);
}

void Terminal::cmdSetMargins(Params pars) {
    Buffer& b = *buffer;
    int left = std::max(param(pars, 0, 1) - 1, 0);
    int right = std::max(param(pars, 1, cols) - 1, 0);
    right = std::min(right, cols - 1);
    left = std::min(left, right);
    b.marginLeft = left;
    b.marginRight = right;
}

void Terminal::cmdSetShiftEscape(Params) {
    // Shift-escape only concerns mouse reporting with shift held, which the view decides.
}

void Terminal::setCursorStyle(CursorStyle style) {
    cursorStyle = style;
    if (auto* d = delegate()) d->cursorStyleChanged(*this, style);
}

void Terminal::cmdSetCursorStyle(Params pars, std::string_view collect) {
    if (collect == ">") {
        // XTVERSION: name and version of the terminal.
        if (raw(pars, 0) == 0) sendResponse({dcs(), ">|Ostrel(0.1.0)", st()});
        return;
    }
    if (collect != " ") {
        if (collect != "\"")
            log("TerminalEngine: Unknown CSI Code (collect=" + std::string(collect) + " code=q)");
        return;
    }
    std::int64_t p = raw(pars, 0);
    if (p > 6) return;
    int index = p <= 1 ? 0 : static_cast<int>(p) - 1;
    setCursorStyle(static_cast<CursorStyle>(index));
}

// MARK: Erasing

void Terminal::eraseInBufferLine(int y, int start, int end, bool clearWrap, bool clearRenderMode,
                                 bool clearImages) {
    BufferLine& line = lineAt(y);
    line.replaceCells(start, end, eraseCell());
    if (clearWrap) line.isWrapped = false;
    if (clearRenderMode) line.renderMode = BufferLine::RenderLineMode::single;
    if (clearImages) line.images.reset();
    updateRange(y);
}

void Terminal::resetBufferLine(int y) {
    eraseInBufferLine(y, 0, cols, true, true, true);
}

void Terminal::cmdEraseInDisplay(Params pars, std::string_view) {
    Buffer& b = *buffer;
    int x = std::min(b.x, cols - 1);
    switch (raw(pars, 0)) {
    case 0:
        eraseInBufferLine(b.y, x, cols, x == 0);
        for (int row = b.y + 1; row < rows; ++row)
            resetBufferLine(row);
        break;
    case 1:
        for (int row = 0; row < b.y; ++row)
            resetBufferLine(row);
        eraseInBufferLine(b.y, 0, x + 1);
        if (x + 1 >= cols && b.y + 1 < rows) lineAt(b.y + 1).isWrapped = false;
        break;
    case 2:
        for (int row = 0; row < rows; ++row)
            resetBufferLine(row);
        break;
    case 3: {
        // Scrollback only; the screen stays.
        int scrolled = b.yBase;
        if (scrolled > 0) {
            b.lines.trimStart(scrolled);
            b.yBase = 0;
            b.yDisp = 0;
            b.savedY = std::max(b.savedY, 0);
            if (auto* d = delegate()) d->scrolled(*this, b.yDisp);
        }
        updateFullScreen();
        break;
    }
    default: break;
    }
}

void Terminal::cmdEraseInLine(Params pars, std::string_view) {
    Buffer& b = *buffer;
    int x = std::min(b.x, cols - 1);
    switch (raw(pars, 0)) {
    case 0: eraseInBufferLine(b.y, x, cols); break;
    case 1: eraseInBufferLine(b.y, 0, x + 1); break;
    case 2: eraseInBufferLine(b.y, 0, cols); break;
    default: break;
    }
}

void Terminal::cmdEraseChars(Params pars) {
    Buffer& b = *buffer;
    int x = std::min(b.x, cols - 1);
    eraseInBufferLine(b.y, x, x + param(pars, 0, 1));
}

// MARK: Insertion and deletion

void Terminal::cmdInsertChars(Params pars) {
    Buffer& b = *buffer;
    if (b.x >= cols) b.x = cols - 1;
    if (marginMode && (b.x < b.marginLeft || b.x > b.marginRight)) return;
    int right = marginMode ? b.marginRight : cols - 1;
    lineAt(b.y).insertCells(b.x, param(pars, 0, 1), right, eraseCell());
    updateRange(b.y);
}

void Terminal::cmdDeleteChars(Params pars) {
    Buffer& b = *buffer;
    if (b.x >= cols) b.x = cols - 1;
    if (marginMode && (b.x < b.marginLeft || b.x > b.marginRight)) return;
    int right = marginMode ? b.marginRight : cols - 1;
    lineAt(b.y).deleteCells(b.x, param(pars, 0, 1), right, eraseCell());
    updateRange(b.y);
}

// Inserting or deleting lines scrolls the part of the region from the cursor's row down.
void Terminal::scrollFromCursorRow(int count, bool down) {
    Buffer& b = *buffer;
    if (b.y < b.scrollTop || b.y > b.scrollBottom) return;
    if (marginMode && (b.x < b.marginLeft || b.x > b.marginRight)) return;
    int savedTop = b.scrollTop;
    b.scrollTop = b.y;
    if (down)
        scrollDownRegion(count);
    else
        scrollUpRegion(count);
    b.scrollTop = savedTop;
    b.x = leftEdge();
    updateRange(b.y);
    updateRange(b.scrollBottom);
}

void Terminal::cmdInsertLines(Params pars) {
    scrollFromCursorRow(param(pars, 0, 1), true);
}

void Terminal::cmdDeleteLines(Params pars) {
    scrollFromCursorRow(param(pars, 0, 1), false);
}

void Terminal::cmdScrollUp(Params pars) {
    scrollUpRegion(param(pars, 0, 1));
}

void Terminal::csiT(Params pars, std::string_view collect) {
    if (!collect.empty()) {
        if (collect == ">") cmdXtermTitleModeReset(pars);
        return;
    }
    // CSI Ps ; Ps ; Ps ; Ps ; Ps T is mouse highlight tracking, not a scroll.
    if (pars.size() > 1) return;
    scrollDownRegion(param(pars, 0, 1));
}

void Terminal::cmdDeleteColumns(Params pars, std::string_view collect) {
    if (collect != "'") {
        log("TerminalEngine: Unknown CSI Code (collect=" + std::string(collect) + " code=~)");
        return;
    }
    Buffer& b = *buffer;
    if (b.y < b.scrollTop || b.y > b.scrollBottom) return;
    if (marginMode && (b.x < b.marginLeft || b.x > b.marginRight)) return;
    int right = marginMode ? b.marginRight : cols - 1;
    int n = param(pars, 0, 1);
    for (int row = b.scrollTop; row <= b.scrollBottom; ++row) {
        lineAt(row).deleteCells(std::min(b.x, cols - 1), n, right, eraseCell());
        updateRange(row);
    }
}

void Terminal::cmdInsertColumns(Params pars, std::string_view) {
    Buffer& b = *buffer;
    if (b.y < b.scrollTop || b.y > b.scrollBottom) return;
    if (marginMode && (b.x < b.marginLeft || b.x > b.marginRight)) return;
    int right = marginMode ? b.marginRight : cols - 1;
    int n = param(pars, 0, 1);
    for (int row = b.scrollTop; row <= b.scrollBottom; ++row) {
        lineAt(row).insertCells(std::min(b.x, cols - 1), n, right, eraseCell());
        updateRange(row);
    }
}

void Terminal::columnScroll(bool back, int at) {
    // Moves the columns between the margins one step, opening a blank column at `at`.
    Buffer& b = *buffer;
    int left = marginMode ? b.marginLeft : 0;
    int right = marginMode ? b.marginRight : cols - 1;
    for (int row = b.scrollTop; row <= b.scrollBottom; ++row) {
        BufferLine& line = lineAt(row);
        if (back)
            line.insertCells(at, 1, right, eraseCell());
        else
            line.deleteCells(left, 1, right, eraseCell());
        updateRange(row);
    }
}

void Terminal::columnIndex(bool back) {
    Buffer& b = *buffer;
    int left = marginMode ? b.marginLeft : 0;
    int right = marginMode ? b.marginRight : cols - 1;
    if (b.x >= cols) b.x = cols - 1;
    if (back) {
        if (b.x == left)
            columnScroll(true, left);
        else if (b.x > 0)
            --b.x;
    } else {
        if (b.x == right)
            columnScroll(false, right);
        else if (b.x < cols - 1)
            ++b.x;
    }
}

// MARK: Line modes and alignment

void Terminal::setLineRenderMode(BufferLine::RenderLineMode mode) {
    BufferLine& line = lineAt(buffer->y);
    line.renderMode = mode;
    line.touch();
    updateRange(buffer->y);
}

void Terminal::cmdScreenAlignmentPattern() {
    Buffer& b = *buffer;
    curAttr = Attribute{};
    b.scrollTop = 0;
    b.scrollBottom = rows - 1;
    b.marginLeft = 0;
    b.marginRight = cols - 1;
    originMode = false;
    b.x = 0;
    b.y = 0;
    CharData e(Attribute{}, 'E', 1);
    for (int row = 0; row < rows; ++row) {
        BufferLine& line = lineAt(row);
        line.fill(e);
        line.isWrapped = false;
        line.renderMode = BufferLine::RenderLineMode::single;
    }
    updateFullScreen();
}

void Terminal::setApplicationKeypad(bool on) {
    applicationKeypad = on;
}

// MARK: Rectangles

std::optional<Terminal::Rect> Terminal::getRectangleFromRequest(Params pars, std::size_t first) {
    const Buffer& b = *buffer;
    int offsetY = originMode ? b.scrollTop : 0;
    int offsetX = (originMode && marginMode) ? b.marginLeft : 0;
    int maxY = originMode ? b.scrollBottom : rows - 1;
    int maxX = (originMode && marginMode) ? b.marginRight : cols - 1;
    Rect r;
    r.top = std::min(param(pars, first, 1) - 1 + offsetY, maxY);
    r.left = std::min(param(pars, first + 1, 1) - 1 + offsetX, maxX);
    r.bottom = std::min(param(pars, first + 2, maxY - offsetY + 1) - 1 + offsetY, maxY);
    r.right = std::min(param(pars, first + 3, maxX - offsetX + 1) - 1 + offsetX, maxX);
    if (r.top > r.bottom || r.left > r.right) return std::nullopt;
    return r;
}

void Terminal::csiCopyRectangularArea(Params pars, std::string_view collect) {
    if (collect != "$") {
        log("TerminalEngine: Unknown CSI Code (collect=" + std::string(collect) + " code=v)");
        return;
    }
    auto source = getRectangleFromRequest(pars, 0);
    if (!source) return;
    const Buffer& b = *buffer;
    int offsetY = originMode ? b.scrollTop : 0;
    int offsetX = (originMode && marginMode) ? b.marginLeft : 0;
    int top = param(pars, 5, 1) - 1 + offsetY;
    int left = param(pars, 6, 1) - 1 + offsetX;
    if (top >= rows || left >= cols) return;
    int height = std::min(source->bottom - source->top + 1, rows - top);
    int width = std::min(source->right - source->left + 1, cols - left);
    // Copy through a scratch area so that overlapping rectangles move correctly.
    std::vector<CharData> area(static_cast<std::size_t>(height * width));
    for (int r = 0; r < height; ++r)
        for (int c = 0; c < width; ++c)
            area[static_cast<std::size_t>(r * width + c)] = lineAt(source->top + r)[source->left + c];
    for (int r = 0; r < height; ++r) {
        BufferLine& line = lineAt(top + r);
        CharData* cells = line.mutableData();
        for (int c = 0; c < width; ++c)
            cells[left + c] = area[static_cast<std::size_t>(r * width + c)];
        line.touch();
        updateRange(top + r);
    }
}

void Terminal::csiX(Params pars, std::string_view collect) {
    if (collect != "$") {
        log("TerminalEngine: Unknown CSI Code (collect=" + std::string(collect) + " code=x)");
        return;
    }
    // DECFRA: the character must be printable in the GL or GR range.
    std::int64_t ch = raw(pars, 0);
    if (!((ch >= 32 && ch <= 126) || (ch >= 160 && ch <= 255))) return;
    auto rect = getRectangleFromRequest(pars, 1);
    if (!rect) return;
    CharData fill(curAttr, static_cast<std::int32_t>(ch), 1);
    for (int row = rect->top; row <= rect->bottom; ++row) {
        BufferLine& line = lineAt(row);
        repairWideCharacterAt(line, rect->left);
        line.fill(fill, rect->left, rect->right - rect->left + 1);
        if (rect->right + 1 < cols && line[rect->right + 1].width == 0)
            line.set(rect->right + 1, eraseCell());
        updateRange(row);
    }
}

void Terminal::csiZ(Params pars, std::string_view collect) {
    if (collect == "'") {
        log("TODO: Enable Locator Reporting (DECELR)");
        return;
    }
    if (collect != "$") {
        log("TerminalEngine: Unknown CSI Code (collect=" + std::string(collect) + " code=z)");
        return;
    }
    // DECERA
    auto rect = getRectangleFromRequest(pars, 0);
    if (!rect) return;
    for (int row = rect->top; row <= rect->bottom; ++row) {
        lineAt(row).replaceCells(rect->left, rect->right + 1, eraseCell());
        updateRange(row);
    }
}

void Terminal::csiOpenBrace(Params pars, std::string_view collect) {
    if (collect == "#") {
        log("CSI # { not implemented - XTPUSHSGR with " + std::to_string(pars.size()) + " parameters");
        return;
    }
    if (collect != "$") {
        log("TerminalEngine: Unknown CSI Code (collect=" + std::string(collect) + " code={)");
        return;
    }
    // DECSERA: erases the characters and keeps their attributes (no cell is protected).
    auto rect = getRectangleFromRequest(pars, 0);
    if (!rect) return;
    for (int row = rect->top; row <= rect->bottom; ++row) {
        BufferLine& line = lineAt(row);
        CharData* cells = line.mutableData();
        for (int c = rect->left; c <= rect->right; ++c) {
            cells[c].code = 0;
            cells[c].width = 1;
        }
        line.touch();
        updateRange(row);
    }
}

void Terminal::csiCloseBrace(Params pars, std::string_view collect) {
    if (collect == "#")
        log("CSI # } not implemented- XTPOPSGR with " + std::to_string(pars.size()) + " parameters");
    else
        log("TerminalEngine: Unknown CSI Code (collect=" + std::string(collect) + " code=})");
}

// MARK: SGR

namespace {

std::uint8_t colorByte(std::int64_t value) {
    return static_cast<std::uint8_t>(value < 255 ? value : 255);
}

// 1 to 9 but 6: each turns one style on (4 with the single underline). Small enough to sit
// inline where SGR is read straight from the bytes; false for any other code.
inline bool applyStyleSgr(Attribute& a, std::int64_t code) {
    static constexpr CharacterStyle styles[10] = {
        CharacterStyle::none,      CharacterStyle::bold,      CharacterStyle::dim,  CharacterStyle::italic,
        CharacterStyle::underline, CharacterStyle::blink,     CharacterStyle::none, CharacterStyle::inverse,
        CharacterStyle::invisible, CharacterStyle::crossedOut};
    if (static_cast<std::uint64_t>(code) - 1 >= 9 || code == 6) return false;
    a.style |= styles[code];
    if (code == 4) a.underlineStyle = UnderlineStyle::single;
    return true;
}

// The codes that stand alone (no colour parameters follow). Returns false for any other code.
// Fields are changed in place: a copy of the attribute would be taken apart into bytes and put
// together again.
bool applyPlainSgr(Attribute& a, std::int64_t code) {
    if (applyStyleSgr(a, code)) return true;
    switch (code) {
    case 0: a = Attribute{}; return true;
    case 21:
        a.style |= CharacterStyle::underline;
        a.underlineStyle = UnderlineStyle::double_;
        return true;
    case 22: a.style &= ~(CharacterStyle::bold | CharacterStyle::dim); return true;
    case 23: a.style &= ~CharacterStyle::italic; return true;
    case 24:
        a.style &= ~CharacterStyle::underline;
        a.underlineStyle = UnderlineStyle::none;
        return true;
    case 25: a.style &= ~CharacterStyle::blink; return true;
    case 27: a.style &= ~CharacterStyle::inverse; return true;
    case 28: a.style &= ~CharacterStyle::invisible; return true;
    case 29: a.style &= ~CharacterStyle::crossedOut; return true;
    case 39: a.fg = Attribute::Color::defaultColor(); return true;
    case 49: a.bg = Attribute::Color::defaultColor(); return true;
    case 59: a.underlineColor.reset(); return true;
    default: break;
    }
    if (code >= 30 && code <= 37)
        a.fg = Attribute::Color::ansi256(static_cast<std::uint8_t>(code - 30));
    else if (code >= 40 && code <= 47)
        a.bg = Attribute::Color::ansi256(static_cast<std::uint8_t>(code - 40));
    else if (code >= 90 && code <= 97)
        a.fg = Attribute::Color::ansi256(static_cast<std::uint8_t>(code - 82));
    else if (code >= 100 && code <= 107)
        a.bg = Attribute::Color::ansi256(static_cast<std::uint8_t>(code - 92));
    else
        return false;
    return true;
}

// 38, 48 and 58 with the colour they were given.
void applyExtendedColor(Attribute& a, std::int64_t code, Attribute::Color color) {
    if (code == 38)
        a.fg = color;
    else if (code == 48)
        a.bg = color;
    else
        a.underlineColor = color;
}

// An extended colour (38, 48, 58) whose parameters follow the code at `i` as colon-joined
// subparameters. Returns the index of the last parameter consumed; `out` is left alone when the
// form is not understood.
std::size_t extendedColorSubparameters(Params pars, std::string_view seps, std::size_t i,
                                       Attribute::Color& out, bool& set) {
    std::size_t j = i;
    while (j + 1 < pars.size() && j < seps.size() && seps[j] == ':')
        ++j;
    const Params sub = pars.subspan(i + 1, j - i);
    if (sub.size() >= 2 && sub[0] == 5) {
        out = Attribute::Color::ansi256(colorByte(sub[1]));
        set = true;
    } else if (sub.size() >= 4 && sub[0] == 2) {
        const std::size_t k = sub.size() >= 5 ? 2 : 1; // a colour-space slot is present and skipped
        out = Attribute::Color::trueColor(colorByte(sub[k]), colorByte(sub[k + 1]), colorByte(sub[k + 2]));
        set = true;
    }
    return j;
}

// An extended colour in the semicolon form: "5;N" or "2;R;G;B" after the code at `i`.
std::size_t extendedColorParameters(Params pars, std::size_t i, Attribute::Color& out, bool& set) {
    const std::size_t n = pars.size();
    if (i + 1 >= n) return i;
    const std::int64_t type = pars[i + 1];
    if (type == 5) {
        if (i + 2 >= n) return n - 1;
        out = Attribute::Color::ansi256(colorByte(pars[i + 2]));
        set = true;
        return i + 2;
    }
    if (type == 2) {
        if (i + 4 >= n) return n - 1;
        out = Attribute::Color::trueColor(colorByte(pars[i + 2]), colorByte(pars[i + 3]),
                                          colorByte(pars[i + 4]));
        set = true;
        return i + 4;
    }
    return i + 1;
}

} // namespace

void Terminal::cmdCsiM(Params pars, std::string_view collect) {
    if (!collect.empty()) {
        // CSI > Ps ; Ps m sets key modifier options; nothing to do for the screen.
        if (collect != ">" && collect != "?")
            log("TerminalEngine: Unknown CSI Code (collect=" + std::string(collect) + " code=m)");
        return;
    }
    const std::size_t n = pars.size();
    if (n == 1 && pars[0] == 0) {
        curAttr = Attribute{};
        return;
    }
    // Separators matter only to the codes that take subparameters.
    const std::string_view seps = parser.parsTxt();
    auto joinedToNext = [&](std::size_t i) { return i + 1 < n && seps[i] == ':'; };

    Attribute& a = curAttr;
    for (std::size_t i = 0; i < n; ++i) {
        const std::int64_t code = pars[i];
        if (code == 38 || code == 48 || code == 58) {
            Attribute::Color color;
            bool set = false;
            i = joinedToNext(i) ? extendedColorSubparameters(pars, seps, i, color, set)
                                : extendedColorParameters(pars, i, color, set);
            if (set) applyExtendedColor(a, code, color);
            continue;
        }
        if (code == 4 && joinedToNext(i)) {
            // 4:N picks the underline style; 4:0 removes it.
            static constexpr UnderlineStyle styles[] = {UnderlineStyle::none,    UnderlineStyle::single,
                                                        UnderlineStyle::double_, UnderlineStyle::curly,
                                                        UnderlineStyle::dotted,  UnderlineStyle::dashed};
            const std::int64_t sub = pars[++i];
            if (sub == 0) {
                a.style &= ~CharacterStyle::underline;
                a.underlineStyle = UnderlineStyle::none;
            } else if (sub > 0 && sub <= 5) {
                a.style |= CharacterStyle::underline;
                a.underlineStyle = styles[sub];
            }
        } else if (!applyPlainSgr(a, code)) {
            // Codes this terminal does not draw (fonts, fraktur, proportional spacing) are
            // known and skipped quietly.
            const bool known = code == 6 || code == 26 || (code >= 10 && code <= 20);
            if (!known) log("TerminalEngine: Unknown SGR attribute: " + std::to_string(code));
        }
        // Subparameters of codes that take none are skipped whole.
        while (joinedToNext(i))
            ++i;
    }
}

bool Terminal::sgrSingle(std::int64_t code) {
    return applyPlainSgr(curAttr, code);
}

std::int64_t Terminal::readSgr(const std::uint8_t* bytes, std::int64_t from, std::int64_t len) {
    Attribute a = curAttr;
    std::int64_t j = from;
    std::int64_t value = 0;
    std::uint8_t after = 0;
    // One parameter of at most three digits (none reads as 0) and the byte after it.
    auto next = [&] {
        if (j + 4 > len || !ByteScan::shortDecimal(bytes, j, value)) return false;
        after = bytes[j++];
        return after == ';' || after == 'm';
    };
    // "38;5;" and "48;5;" as little-endian words: the 256-colour forms are matched whole.
    constexpr std::uint64_t fg256 = 0x3B353B3833ull, bg256 = 0x3B353B3834ull;
    while (true) {
        if (j + 8 <= len && bytes[j + 1] == '8') {
            std::uint64_t word;
            std::memcpy(&word, bytes + j, sizeof word);
            word &= 0xFFFFFFFFFFull;
            if (word == fg256 || word == bg256) {
                j += 5;
                if (!next()) return -1;
                applyExtendedColor(a, word == fg256 ? 38 : 48, Attribute::Color::ansi256(colorByte(value)));
                if (after == 'm') break;
                continue;
            }
        }
        if (!next()) return -1;
        const std::int64_t code = value;
        if (code == 38 || code == 48 || code == 58) {
            if (after != ';' || !next() || after != ';') return -1;
            Attribute::Color color;
            if (value == 5) {
                if (!next()) return -1;
                color = Attribute::Color::ansi256(colorByte(value));
            } else if (value == 2) {
                std::uint8_t rgb[3];
                for (std::uint8_t& channel : rgb) {
                    if (!next()) return -1;
                    channel = colorByte(value);
                    if (after != ';' && &channel != &rgb[2]) return -1;
                }
                color = Attribute::Color::trueColor(rgb[0], rgb[1], rgb[2]);
            } else {
                return -1;
            }
            applyExtendedColor(a, code, color);
        } else if (!applyStyleSgr(a, code) && !applyPlainSgr(a, code)) {
            return -1;
        }
        if (after == 'm') break;
    }
    curAttr = a;
    return j - 1;
}

} // namespace TerminalEngine
