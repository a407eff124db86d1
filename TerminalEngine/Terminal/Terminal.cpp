// Terminal life cycle, buffers, scrolling and the plumbing shared by all commands.
#include "TerminalEngine/Terminal/Terminal.h"

#include "TerminalEngine/Pty/DispatchQueue.h"
#include "TerminalEngine/Terminal/EnvironmentVariables.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <unordered_set>

#include <asio/steady_timer.hpp>

namespace TerminalEngine {

struct Terminal::SynchronizedOutputTimer {
    explicit SynchronizedOutputTimer(asio::io_context& context)
        : timer(context) {}
    asio::steady_timer timer;
};

Terminal::Terminal(std::weak_ptr<TerminalDelegate> delegate, TerminalOptions opts)
    : cols(std::max(opts.cols, MINIMUM_COLS))
    , rows(std::max(opts.rows, MINIMUM_ROWS))
    , tabStopWidth(std::max(opts.tabStopWidth, 1))
    , options(std::move(opts))
    , tdel(std::move(delegate))
    , parser(this)
    , alive_(std::make_shared<Terminal*>(this)) {
    options.cols = cols;
    options.rows = rows;
    normalBuffer = std::make_unique<Buffer>(cols, rows, tabStopWidth, std::max(options.scrollback, 0), false);
    altBuffer = std::make_unique<Buffer>(cols, rows, tabStopWidth, std::nullopt, true);
    buffer = normalBuffer.get();
    normalBuffer->fillViewportRows();
    normalBuffer->setupTabStops();
    altBuffer->setupTabStops();
    cursorStyle = options.cursorStyle;
    installedColors.assign(Color::defaultInstalledColors.begin(), Color::defaultInstalledColors.end());
    foregroundColor = Color::defaultForeground;
    backgroundColor = Color::defaultBackground;
    recomputePalette(false);
    configureParser();
    setup(false);
}

Terminal::~Terminal() {
    *alive_ = nullptr;
    if (synchronizedOutputTimer_) synchronizedOutputTimer_->timer.cancel();
    for (auto code : ownedAtoms_)
        TinyAtom::release(code);
}

TerminalDelegate* Terminal::delegate() {
    return lockedDelegate_.get();
}

void Terminal::configureParser() {
    // Print runs go straight to handlePrint (the parser calls its terminal directly), and the
    // print path keeps no state that a control sequence must reset.
    parser.printHandler = nullptr;
    parser.printStateReset = nullptr;
    parser.errorHandler = [this](ParsingState state) {
        log(stringf("TerminalEngine: Parsing error, state: position=%lld code=%u state=%u",
                    (long long)state.position, state.code, static_cast<unsigned>(state.currentState)));
        state.abort = false;
        return state;
    };
    parser.csiHandlerFallback = [this](Params pars, std::string_view collect, std::uint8_t code) {
        std::string p;
        for (std::size_t i = 0; i < pars.size(); ++i)
            p += (i ? "," : "") + std::to_string(pars[i]);
        log("TerminalEngine: Unknown CSI Code (collect=" + std::string(collect) +
            " code=" + std::string(1, static_cast<char>(code)) + " pars=[" + p + "])");
    };
    parser.escHandlerFallback = [this](std::string_view collect, std::uint8_t code) {
        log("TerminalEngine: Unknown ESC Code: ESC + " + std::string(1, static_cast<char>(code)) +
            " txt=" + std::string(collect));
    };
    parser.executeHandlerFallback = [this](std::uint8_t) { log("TerminalEngine: Unknown EXECUTE code"); };
    parser.oscHandlerFallback = [this](std::int64_t number, ByteSpan) {
        log("TerminalEngine: Unknown OSC code: " + std::to_string(number));
    };
    parser.apcHandlerFallback = [this](std::uint8_t code, ByteSpan) {
        log("TerminalEngine: Unknown APC code: " + std::string(1, static_cast<char>(code)));
    };
}

std::string Terminal::stringf(const char* format, ...) {
    char buf[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buf, sizeof buf, format, args);
    va_end(args);
    return buf;
}

void Terminal::log(std::string_view text) {
    if (silentLog) return;
    if (logSink)
        logSink(text);
    else
        std::fprintf(stderr, "%.*s\n", static_cast<int>(text.size()), text.data());
}

std::vector<std::string> Terminal::getEnvironmentVariables(std::string_view termName, bool trueColor) {
    return TerminalEngine::getEnvironmentVariables(termName, trueColor);
}

void Terminal::setup(bool isReset) {
    (void)isReset;
    applicationKeypad = false;
    applicationCursor = false;
    originMode = false;
    marginMode = false;
    insertMode = false;
    bracketedPasteMode = false;
    lineFeedMode = false;
    smoothScroll = false;
    reverseWraparound = false;
    sendFocus = false;
    cursorBlink = false;
    wraparound = true;
    normalBuffer->wraparound = true;
    altBuffer->wraparound = true;
    charset = nullptr;
    gCharsets = {};
    gcharset = 0;
    curAttr = Attribute{};
}

void Terminal::parse(ByteSpan data) {
    DelegateScope scope(*this);
    parser.parse(data);
}

// MARK: Resize and history

void Terminal::resize(int newCols, int newRows) {
    DelegateScope scope(*this);
    endSynchronizedOutput();
    newCols = std::max(newCols, MINIMUM_COLS);
    newRows = std::max(newRows, MINIMUM_ROWS);
    if (newCols == cols && newRows == rows) return;
    normalBuffer->resize(newCols, newRows);
    altBuffer->resize(newCols, newRows);
    cols = newCols;
    rows = newRows;
    screenMarkedAt_ = INT_MIN;
    options.cols = cols;
    options.rows = rows;
    hyperLinkTracking.reset();
    updateFullScreen();
}

void Terminal::changeScrollback(std::optional<int> lines) {
    normalBuffer->changeHistorySize(lines);
    updateFullScreen();
}

// MARK: Lines and dirty tracking

BufferLine* Terminal::getLine(int row) {
    int index = buffer->yDisp + row;
    if (row < 0 || index < 0 || index >= buffer->lines.count()) return nullptr;
    return &buffer->lines[index];
}

BufferLine* Terminal::getScrollInvariantLine(int row) {
    if (row < 0 || row >= buffer->lines.count()) return nullptr;
    return &buffer->lines[row];
}

const CharData& Terminal::getCharData(int col, int row) {
    static const CharData blank = CharData::Null;
    if (col < 0 || col >= cols || row < 0 || row >= rows) return blank;
    return lineAt(row)[col];
}

std::string Terminal::lineText(int row, bool trimRight) {
    if (row < 0 || row >= rows) return {};
    return lineAt(row).translateToString(trimRight, 0, -1, true, &graphemes);
}

void Terminal::updateFullScreen() {
    updateRange(0);
    updateRange(rows - 1);
}

void Terminal::refresh(int startRow, int endRow) {
    updateRange(std::clamp(startRow, 0, rows - 1));
    updateRange(std::clamp(endRow, 0, rows - 1));
}

std::optional<std::pair<int, int>> Terminal::getUpdateRange() const {
    if (refreshEnd < 0) return std::nullopt;
    return std::pair{std::max(refreshStart, 0), std::min(refreshEnd, rows - 1)};
}

std::optional<std::pair<int, int>> Terminal::getScrollInvariantUpdateRange() const {
    if (scrollInvariantRefreshEnd < 0) return std::nullopt;
    return std::pair{scrollInvariantRefreshStart, scrollInvariantRefreshEnd};
}

void Terminal::markRowAndCover(int y, int yBase) {
    markRow(y, yBase + y);
    if (refreshStart <= 0 && refreshEnd >= rows - 1 && scrollInvariantRefreshStart <= yBase &&
        scrollInvariantRefreshEnd >= yBase + rows - 1)
        screenMarkedAt_ = yBase;
}

void Terminal::clearUpdateRange() {
    screenMarkedAt_ = INT_MIN;
    refreshStart = INT_MAX;
    refreshEnd = -1;
    scrollInvariantRefreshStart = INT_MAX;
    scrollInvariantRefreshEnd = -1;
}

// MARK: Resets

void Terminal::cmdReset() {
    DelegateScope scope(*this);
    parser.reset();
    resetToInitialState();
}

void Terminal::resetToInitialState() {
    DelegateScope scope(*this);
    endSynchronizedOutput();
    bool wasAlt = isAltBufferActive();
    normalBuffer = std::make_unique<Buffer>(cols, rows, tabStopWidth, std::max(options.scrollback, 0), false);
    altBuffer = std::make_unique<Buffer>(cols, rows, tabStopWidth, std::nullopt, true);
    buffer = normalBuffer.get();
    normalBuffer->fillViewportRows();
    normalBuffer->setupTabStops();
    altBuffer->setupTabStops();
    keyboardModeNormal = {};
    keyboardModeAlt = {};
    if (mouseMode != MouseMode::off) setMouseMode(MouseMode::off);
    mouseProtocol = MouseProtocolEncoding::x10;
    cc.send8bit = false;
    conformance = TerminalConformance::vt500;
    hyperLinkTracking.reset();
    putbackBuffer_.clear();
    userScrolling = false;
    ansiColors = defaultAnsiColors;
    if (cursorHidden) {
        cursorHidden = false;
        if (auto* d = delegate()) d->showCursor(*this);
    }
    setCursorStyle(options.cursorStyle);
    setup(true);
    updateFullScreen();
    if (wasAlt)
        if (auto* d = delegate()) d->bufferActivated(*this);
}

void Terminal::softReset() {
    DelegateScope scope(*this);
    if (cursorHidden) {
        cursorHidden = false;
        if (auto* d = delegate()) d->showCursor(*this);
    }
    insertMode = false;
    originMode = false;
    marginMode = false;
    wraparound = true;
    reverseWraparound = false;
    applicationKeypad = false;
    applicationCursor = false;
    buffer->scrollTop = 0;
    buffer->scrollBottom = rows - 1;
    buffer->softReset();
    buffer->wraparound = true;
    curAttr = Attribute{};
    charset = nullptr;
    gCharsets = {};
    setgLevel(0);
    ansiColors = defaultAnsiColors;
    if (auto* d = delegate()) d->colorChanged(*this, std::nullopt);
}

void Terminal::resetNormalBuffer() {
    normalBuffer = std::make_unique<Buffer>(cols, rows, tabStopWidth, std::max(options.scrollback, 0), false);
    normalBuffer->fillViewportRows();
    normalBuffer->setupTabStops();
    buffer = normalBuffer.get();
}

// MARK: Buffers

void Terminal::activateAltBuffer(std::optional<Attribute> fillAttr) {
    if (isAltBufferActive()) return;
    altBuffer->x = normalBuffer->x;
    altBuffer->y = normalBuffer->y;
    buffer = altBuffer.get();
    altBuffer->fillViewportRows(fillAttr);
    updateFullScreen();
    if (auto* d = delegate()) d->bufferActivated(*this);
}

void Terminal::activateNormalBuffer(bool clearAlt) {
    if (!isAltBufferActive()) return;
    buffer = normalBuffer.get();
    if (clearAlt) altBuffer->clear();
    updateFullScreen();
    if (auto* d = delegate()) d->bufferActivated(*this);
}

// MARK: Cursor helpers

void Terminal::cursorForward(int count) {
    Buffer& b = *buffer;
    if (b.x >= cols) b.x = cols - 1;
    int limit = (marginMode && b.x <= b.marginRight) ? b.marginRight : cols - 1;
    b.x = std::min(b.x + count, limit);
}

void Terminal::cursorBackward(int count) {
    Buffer& b = *buffer;
    if (b.x >= cols) b.x = cols - 1;
    int limit = (marginMode && b.x >= b.marginLeft) ? b.marginLeft : 0;
    b.x = std::max(b.x - count, limit);
}

CharData Terminal::eraseCell() const {
    Attribute a;
    a.bg = curAttr.bg;
    return CharData(a, 0, 1);
}

// MARK: Line feeds and scrolling

void Terminal::cmdLineFeedBasic() {
    Buffer& b = *buffer;
    bool outsideMargins = marginMode && (b.x < b.marginLeft || b.x > b.marginRight);
    if (b.y == b.scrollBottom) {
        if (!outsideMargins) scroll(false);
    } else if (b.y < rows - 1) {
        ++b.y;
    }
    if (b.x >= cols) b.x = cols - 1;
    if (auto* d = delegate()) d->linefeed(*this);
    if (lineFeedMode || options.convertEol) b.x = (originMode || marginMode) ? leftEdge() : 0;
    updateRange(b.y);
}

void Terminal::cmdIndex() {
    Buffer& b = *buffer;
    restrictCursor();
    if (b.y == b.scrollBottom)
        scroll(false);
    else if (b.y < rows - 1)
        ++b.y;
    updateRange(b.y);
}

void Terminal::cmdNextLine() {
    cmdIndex();
    buffer->x = leftEdge();
}

void Terminal::reverseIndex() {
    Buffer& b = *buffer;
    if (b.y == b.scrollTop) {
        scrollDownRegion(1);
    } else if (b.y > 0) {
        --b.y;
    } else if (b.y < 0) {
        log(stringf("Assertion on reverseIndex, state was: y=%d", b.y));
        b.y = 0;
    }
}

// Rotates the lines [top, bottom] of the ring by one, so that the top line object becomes the
// bottom one (up) or the reverse (down), then blanks it: no allocation while scrolling a region.
void Terminal::scrollUpRegion(int count) {
    Buffer& b = *buffer;
    int top = b.yBase + b.scrollTop;
    int bottom = b.yBase + b.scrollBottom;
    int height = bottom - top + 1;
    count = std::clamp(count, 0, height);
    bool lrMargins = marginMode && (b.marginLeft != 0 || b.marginRight != cols - 1);
    if (lrMargins) {
        int left = b.marginLeft, width = b.marginRight - b.marginLeft + 1;
        for (int row = top; row <= bottom; ++row) {
            BufferLine& dst = b.lines[row];
            if (row + count <= bottom)
                dst.copyFrom(b.lines[row + count], left, left, width);
            else
                dst.replaceCells(left, left + width, eraseCell());
        }
    } else if (count > 0) {
        b.lines.rotate(top, bottom, count);
        const CharData blank = eraseCell();
        for (int row = bottom - count + 1; row <= bottom; ++row)
            b.lines[row].reset(blank);
    }
    updateRange(b.scrollTop);
    updateRange(b.scrollBottom);
}

void Terminal::scrollDownRegion(int count) {
    Buffer& b = *buffer;
    int top = b.yBase + b.scrollTop;
    int bottom = b.yBase + b.scrollBottom;
    int height = bottom - top + 1;
    count = std::clamp(count, 0, height);
    bool lrMargins = marginMode && (b.marginLeft != 0 || b.marginRight != cols - 1);
    if (lrMargins) {
        int left = b.marginLeft, width = b.marginRight - b.marginLeft + 1;
        for (int row = bottom; row >= top; --row) {
            BufferLine& dst = b.lines[row];
            if (row - count >= top)
                dst.copyFrom(b.lines[row - count], left, left, width);
            else
                dst.replaceCells(left, left + width, eraseCell());
        }
    } else if (count > 0) {
        b.lines.rotate(top, bottom, -count);
        const CharData blank = eraseCell();
        for (int row = top; row < top + count; ++row)
            b.lines[row].reset(blank);
    }
    updateRange(b.scrollTop);
    updateRange(b.scrollBottom);
}

void Terminal::scroll(bool isWrapped) {
    Buffer& b = *buffer;
    int bottomRow = b.yBase + b.scrollBottom;
    if (bottomRow >= b.lines.count()) {
        log(stringf("Assertion on scroll, state was: bottomRow=%d >= lines.count %d", bottomRow,
                    b.lines.count()));
        return;
    }
    bool lrMargins = marginMode && (b.marginLeft != 0 || b.marginRight != cols - 1);
    if (lrMargins) {
        scrollUpRegion(1);
        b.lines[bottomRow].isWrapped = isWrapped;
    } else if (b.scrollTop == 0 && !b.isAlternate) {
        // The top line goes to scrollback. The new blank line is appended to the ring (reusing the
        // oldest line once the ring is full) and then moved up past any rows below the region, such
        // as a status line, so that only those rows move.
        CharData fill = eraseCell();
        bool full = b.lines.isFull();
        if (full)
            b.lines.recycle(fill.attribute, isWrapped);
        else
            b.lines.push(b.getBlankLine(fill.attribute, isWrapped));
        int target = (full ? b.yBase : b.yBase + 1) + b.scrollBottom;
        for (int k = b.lines.count() - 1; k > target; --k)
            b.lines.swap(k, k - 1);
        if (!full) {
            ++b.yBase;
            if (!userScrolling) ++b.yDisp;
        } else if (userScrolling) {
            // The ring dropped its oldest line: a reader of history stays on the same text.
            b.yDisp = std::max(b.yDisp - 1, 0);
        }
        updateRange(b.scrollTop, true);
        updateRange(b.scrollBottom, true);
    } else {
        scrollUpRegion(1);
        b.lines[bottomRow].isWrapped = isWrapped;
    }
    if (b.scroll) b.scroll(isWrapped);
    if (auto* d = delegate()) d->scrolled(*this, b.yDisp);
}

// MARK: Synchronized output

void Terminal::beginSynchronizedOutput() {
    bool changed = !synchronizedOutputActive;
    synchronizedOutputActive = true;
    if (DispatchQueue::hasMain()) {
        if (synchronizedOutputTimer_) synchronizedOutputTimer_->timer.cancel();
        synchronizedOutputTimer_ = std::make_unique<SynchronizedOutputTimer>(DispatchQueue::main().context());
        synchronizedOutputTimer_->timer.expires_after(
            std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                std::chrono::duration<double>(synchronizedOutputTimeoutSeconds)));
        std::weak_ptr<Terminal*> weak = alive_;
        synchronizedOutputTimer_->timer.async_wait([weak](const std::error_code& error) {
            if (error) return;
            if (auto alive = weak.lock(); alive && *alive) (*alive)->endSynchronizedOutput();
        });
    }
    if (changed)
        if (auto* d = delegate()) d->synchronizedOutputChanged(*this, true);
}

void Terminal::endSynchronizedOutput() {
    if (!synchronizedOutputActive) return;
    DelegateScope scope(*this);
    synchronizedOutputActive = false;
    if (synchronizedOutputTimer_) {
        synchronizedOutputTimer_->timer.cancel();
        synchronizedOutputTimer_.reset();
    }
    updateFullScreen();
    if (auto* d = delegate()) d->synchronizedOutputChanged(*this, false);
}

// MARK: Responses and logging

void Terminal::sendResponse(std::initializer_list<std::string_view> parts) {
    DelegateScope scope(*this);
    std::string out;
    for (auto part : parts)
        out += part;
    if (auto* d = delegate())
        d->send(*this,
                std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(out.data()), out.size()));
}

void Terminal::registerOscHandler(std::int64_t code, std::function<void(ByteSpan)> handler) {
    parser.oscHandlers[code] = std::move(handler);
}

void Terminal::garbageCollectPayload() {
    std::unordered_set<std::uint16_t> used;
    for (Buffer* b : {normalBuffer.get(), altBuffer.get()}) {
        for (int i = 0; i < b->lines.count(); ++i) {
            const BufferLine& line = b->lines[i];
            const CharData* cells = line.getData();
            for (int c = 0; c < line.count(); ++c)
                if (cells[c].payload.code != 0) used.insert(cells[c].payload.code);
        }
    }
    for (auto it = ownedAtoms_.begin(); it != ownedAtoms_.end();) {
        if (!used.contains(*it)) {
            TinyAtom::release(*it);
            it = ownedAtoms_.erase(it);
        } else {
            ++it;
        }
    }
}

} // namespace TerminalEngine
