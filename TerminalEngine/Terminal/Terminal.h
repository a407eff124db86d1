// The emulator core: owns the parser and both buffers and turns control functions into screen
// changes, replies to the program and calls on its delegate. Confined to one thread (the one
// that calls parse), as a rule the main thread.
#pragma once

#include "TerminalEngine/Input/KittyKeyboard.h"
#include "TerminalEngine/Input/MouseEvent.h"
#include "TerminalEngine/Model/Buffer.h"
#include "TerminalEngine/Model/CharSets.h"
#include "TerminalEngine/Model/Color.h"
#include "TerminalEngine/Model/GraphemeTable.h"
#include "TerminalEngine/Parser/EscapeSequenceParser.h"
#include "TerminalEngine/Terminal/LinkMatch.h"
#include "TerminalEngine/Terminal/TerminalDelegate.h"
#include "TerminalEngine/Terminal/TerminalOptions.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include <climits>

namespace TerminalEngine {

enum class MouseMode : std::uint8_t { off, x10, vt200, buttonEventTracking, anyEvent };
enum class MouseProtocolEncoding : std::uint8_t { x10, utf8, sgr, urxvt, sgrPixel };

// The kitty keyboard protocol state of one buffer: the active flags and the pushed ones.
// Deeper pushes than any program nests drop the oldest entry.
constexpr std::size_t maximumKeyboardStackDepth = 4096;
struct KeyboardModeState {
    int flags = 0;
    std::vector<int> stack;
    bool operator==(const KeyboardModeState&) const = default;
};

class Terminal {
public:
    static constexpr int MINIMUM_COLS = 2;
    static constexpr int MINIMUM_ROWS = 1;

    enum class TerminalConformance : std::uint8_t { vt100, vt200, vt300, vt400, vt500 };

    struct CC {
        bool send8bit = false;
    };

    // Answers DECRQSS (DCS $ q ... ST) once the string is complete.
    class DECRQSS : public DcsHandler {
    public:
        explicit DECRQSS(Terminal& terminal)
            : terminal(terminal) {}
        void hook(std::string_view collect, Params parameters, std::uint8_t flag) override;
        void put(ByteSpan data) override;
        void unhook() override;

        Bytes data;
        Terminal& terminal;
    };

    struct HyperlinkTracking {
        int startX = 0;
        int startLine = 0; // absolute line in the active buffer
        std::string payload;
    };

    Terminal(std::weak_ptr<TerminalDelegate> delegate, TerminalOptions options = TerminalOptions::defaults());
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    // Bytes from the program.
    void parse(ByteSpan data);
    void feed(ByteSpan data) { parse(data); }
    void feed(std::string_view text) {
        parse({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    }

    void resize(int cols, int rows);
    void changeScrollback(std::optional<int> lines);
    // Rows of the display (scrolled by yDisp) and of the whole buffer.
    BufferLine* getLine(int row);
    BufferLine* getScrollInvariantLine(int row);
    std::string getCharacter(std::int32_t code) const { return graphemes.character(code); }
    const CharData& getCharData(int col, int row); // screen position, relative to yBase
    // Text of a screen row (relative to yBase), trailing blanks removed.
    std::string lineText(int row, bool trimRight = true);

    // Dirty rows since the last clearUpdateRange(), relative to the live screen.
    void refresh(int startRow, int endRow);
    std::optional<std::pair<int, int>> getUpdateRange() const;
    std::optional<std::pair<int, int>> getScrollInvariantUpdateRange() const;
    void clearUpdateRange();

    void cmdReset();
    void softReset();
    void resetToInitialState();
    void sendResponse(std::initializer_list<std::string_view> parts);
    void sendResponse(std::string_view text) { sendResponse({text}); }
    void registerOscHandler(std::int64_t code, std::function<void(ByteSpan)> handler);
    void log(std::string_view text);
    void garbageCollectPayload();

    static std::vector<std::string> getEnvironmentVariables(std::string_view termName = "xterm-256color",
                                                            bool trueColor = true);

    // C0 and C1 controls.
    void bell();
    void cmdBackspace();
    void cmdTab();
    void cmdLineFeedBasic();
    void cmdCarriageReturn();
    void setgLevel(int level);
    void cmdIndex();    // IND
    void cmdNextLine(); // NEL
    void cmdTabSet();   // HTS

    // CSI functions.
    void cmdInsertChars(Params pars);                                    // ICH
    void cmdCursorUp(Params pars);                                       // CUU
    void cmdCursorDown(Params pars);                                     // CUD
    void cmdCursorForward(Params pars);                                  // CUF
    void cmdCursorBackward(Params pars);                                 // CUB
    void cmdCursorNextLine(Params pars);                                 // CNL
    void cmdCursorPrecedingLine(Params pars);                            // CPL
    void cmdCursorCharAbsolute(Params pars);                             // CHA
    void cmdCursorPosition(Params pars);                                 // CUP
    void cmdCursorForwardTab(Params pars);                               // CHT
    void cmdEraseInDisplay(Params pars, std::string_view collect);       // ED, DECSED
    void cmdEraseInLine(Params pars, std::string_view collect);          // EL, DECSEL
    void cmdInsertLines(Params pars);                                    // IL
    void cmdDeleteLines(Params pars);                                    // DL
    void cmdDeleteChars(Params pars);                                    // DCH
    void cmdScrollUp(Params pars);                                       // SU
    void csiT(Params pars, std::string_view collect);                    // SD, XTRMTITLE reset
    void cmdEraseChars(Params pars);                                     // ECH
    void cmdCursorBackwardTab(Params pars);                              // CBT
    void cmdCharPosAbsolute(Params pars);                                // HPA
    void cmdHPositionRelative(Params pars);                              // HPR
    void cmdRepeatPrecedingCharacter(Params pars);                       // REP
    void cmdSendDeviceAttributes(Params pars, std::string_view collect); // DA
    void cmdLinePosAbsolute(Params pars);                                // VPA
    void cmdVPositionRelative(Params pars);                              // VPR
    void cmdHVPosition(Params pars);                                     // HVP
    void cmdTabClear(Params pars);                                       // TBC
    void cmdSetMode(Params pars, std::string_view collect);              // SM, DECSET
    void cmdResetMode(Params pars, std::string_view collect);            // RM, DECRST
    void cmdCsiM(Params pars, std::string_view collect);                 // SGR
    // SGR read straight from the bytes at `from` (after "ESC ["), for the plain forms: codes of
    // up to three digits joined by ';', with the 256-colour and direct-colour forms. Returns the
    // index of the final 'm', or -1 with nothing changed for anything else (a colon, an unknown
    // or long code, another final byte, the end of the buffer), which the parameter list and
    // cmdCsiM then read the general way.
    std::int64_t readSgr(const std::uint8_t* bytes, std::int64_t from, std::int64_t len);
    // SGR with one parameter that is a plain code; false (nothing changed) for any other.
    bool sgrSingle(std::int64_t code);
    void cmdDeviceStatus(Params pars, std::string_view collect);        // DSR
    void csiPHandler(Params pars, std::string_view collect);            // DECSTR, DECSCL, DECRQM
    void cmdSetCursorStyle(Params pars, std::string_view collect);      // DECSCUSR
    void cmdSetScrollRegion(Params pars, std::string_view collect);     // DECSTBM
    void cmdSetShiftEscape(Params pars);                                // XTSHIFTESCAPE
    void cmdSetMargins(Params pars);                                    // DECSLRM
    void csit(Params pars, std::string_view collect);                   // XTWINOPS, XTSMTITLE
    void cmdCsiU(Params pars, std::string_view collect);                // kitty keyboard, SCORC
    void csiCopyRectangularArea(Params pars, std::string_view collect); // DECCRA
    void csiX(Params pars, std::string_view collect);                   // DECFRA
    void cmdDECRQCRA(Params pars, std::string_view collect);            // DECRQCRA
    void csiZ(Params pars, std::string_view collect);                   // DECERA
    void csiOpenBrace(Params pars, std::string_view collect);           // DECSERA
    void csiCloseBrace(Params pars, std::string_view collect);
    void cmdDeleteColumns(Params pars, std::string_view collect); // DECDC
    void cmdInsertColumns(Params pars, std::string_view collect); // DECIC

    // ESC functions.
    void setSend8bit(bool on) { cc.send8bit = on; }          // S7C1T, S8C1T
    void setLineRenderMode(BufferLine::RenderLineMode mode); // DECDHL, DECSWL, DECDWL
    void cmdScreenAlignmentPattern();                        // DECALN
    void selectCharset(std::string_view collectAndFinal);    // SCS
    void setgCharset(int slot, const CharSet* charset);
    void columnIndex(bool back);        // DECBI, DECFI
    void cmdSaveCursor();               // DECSC
    void cmdRestoreCursor();            // DECRC
    void setApplicationKeypad(bool on); // DECKPAM, DECKPNM
    void reverseIndex();                // RI

    // OSC functions.
    void setTitle(std::string_view text);
    void setIconTitle(std::string_view text);
    void oscChangeOrQueryColorIndex(ByteSpan payload); // OSC 4
    void oscSetCurrentDocument(ByteSpan payload);      // OSC 6
    void oscSetCurrentDirectory(ByteSpan payload);     // OSC 7
    void oscHyperlink(ByteSpan payload);               // OSC 8
    bool oscProgressReport(ByteSpan payload);          // OSC 9;4
    void oscSetColors(ByteSpan payload, int startAt);  // OSC 10, 11, 12
    void oscClipboard(ByteSpan payload);               // OSC 52
    void oscResetColor(ByteSpan payload);              // OSC 104
    void oscResetCursorColor();                        // OSC 112
    void oscNotification(ByteSpan payload);            // OSC 777
    void osciTerm2(ByteSpan payload);                  // OSC 1337
    void kittyGraphics(ByteSpan payload);              // APC G

    // Modes, one parameter at a time.
    void setMode(std::int64_t mode, std::string_view collect);
    void resetMode(std::int64_t mode, std::string_view collect);

    void beginSynchronizedOutput();
    void endSynchronizedOutput();

    void activateAltBuffer(std::optional<Attribute> fillAttr = std::nullopt);
    void activateNormalBuffer(bool clearAlt);
    bool isAltBufferActive() const { return buffer == altBuffer.get(); }

    // Keyboard state of the active buffer (the kitty protocol's flags).
    KeyboardModeState& keyboardMode() { return isAltBufferActive() ? keyboardModeAlt : keyboardModeNormal; }
    int keyboardEnhancementFlags() const {
        return (buffer == altBuffer.get() ? keyboardModeAlt : keyboardModeNormal).flags;
    }
    bool handleKittyKeyboardProtocol(Params pars, std::string_view collect);
    void sendFocusReport();

    // Input from the view (TerminalInput.cpp). Each encoder returns the bytes for the program;
    // the send variants pass them to the delegate.
    // The kitty form of a key under the active flags: none means the legacy way applies, empty
    // bytes that the event is not reported.
    std::optional<std::string> encodeKittyKey(const KittyKeyEvent& event) const;
    // The xterm form; none for keys that send nothing (releases, modifier keys, media keys).
    std::optional<std::string> encodeLegacyKey(const KittyKeyEvent& event,
                                               LegacyKeyOptions legacy = {}) const;
    // Either form, as the program asked; empty when nothing is sent.
    std::string encodeKey(const KittyKeyEvent& event, LegacyKeyOptions legacy = {}) const;
    bool sendKey(const KittyKeyEvent& event, LegacyKeyOptions legacy = {});
    // Mouse button byte: button 0 left, 1 middle, 2 right, 4 and 5 the wheel.
    int encodeButton(int button, bool release, bool shift, bool meta, bool control) const;
    // A report in the active encoding; a release is a button value whose low bits are 3.
    void sendEvent(int buttonFlags, int x, int y);
    void sendEvent(int buttonFlags, int x, int y, int pixelX, int pixelY);
    // The report of an event under the active mouse mode and encoding; none when the mode does
    // not report it.
    std::optional<std::string> encodeMouse(const MouseEvent& event) const;
    bool sendMouse(const MouseEvent& event);
    std::string encodeMouseReport(int buttonFlags, bool release, int x, int y, int pixelX, int pixelY) const;
    // The view gained or lost focus: reported to programs that asked (mode 1004).
    void setFocused(bool focused);
    std::string encodePaste(std::string_view text) const;
    void paste(std::string_view text);
    // Moves the display to start at a buffer row (clamped), as scrolling back does.
    void scrollDisplayTo(int yDisp);

    // Links under a position (TerminalLinks.cpp).
    using LinkMatch = TerminalEngine::LinkMatch;
    using LinkLookupLocation = TerminalEngine::LinkLookupLocation;
    using LinkLookupMode = TerminalEngine::LinkLookupMode;
    std::optional<std::string> link(LinkLookupLocation at, LinkLookupMode mode);
    std::optional<LinkMatch> linkMatch(LinkLookupLocation at, LinkLookupMode mode);
    std::optional<LinkMatch> explicitLinkMatch(Position at);
    std::optional<LinkMatch> implicitLinkMatch(Position at);
    // An OSC 8 payload "params;URI" as (params, URI); none without a URI.
    static std::optional<std::pair<std::string, std::string>> parseHyperlinkPayload(std::string_view payload);

    // Palette.
    void installColors(std::vector<Color> colors);
    const std::array<Color, 256>& palette() const { return ansiColors; }
    void setAnsi256PaletteStrategy(Ansi256PaletteStrategy strategy);

    int cols = 80;
    int rows = 25;
    int tabStopWidth = 8;
    TerminalOptions options;
    std::unique_ptr<Buffer> normalBuffer;
    std::unique_ptr<Buffer> altBuffer;
    Buffer* buffer = nullptr; // the active one
    double synchronizedOutputTimeoutSeconds = 1.0;
    bool synchronizedOutputActive = false;
    bool applicationKeypad = false;
    bool applicationCursor = false;
    KeyboardModeState keyboardModeNormal;
    KeyboardModeState keyboardModeAlt;
    bool sendFocus = false;
    bool cursorHidden = false;
    bool originMode = false;
    bool marginMode = false;
    bool insertMode = false;
    bool wraparound = false;
    bool bracketedPasteMode = false;
    const CharSet* charset = nullptr;
    std::array<const CharSet*, 4> gCharsets{};
    int gcharset = 0;
    bool reverseWraparound = false;
    std::weak_ptr<TerminalDelegate> tdel;
    Attribute curAttr;
    GraphemeTable graphemes; // charToIndexMap, indexToCharMap, lastCharIndex
    bool cursorBlink = false;
    bool allow80To132 = false;
    EscapeSequenceParser parser;
    int refreshStart = INT_MAX;
    int refreshEnd = -1;
    int scrollInvariantRefreshStart = INT_MAX;
    int scrollInvariantRefreshEnd = -1;
    bool userScrolling = false;
    bool lineFeedMode = false;
    bool smoothScroll = false;
    std::vector<Color> installedColors;
    std::array<Color, 256> defaultAnsiColors{};
    std::array<Color, 256> ansiColors{};
    CC cc;
    std::optional<std::string> hostCurrentDirectory;
    std::optional<std::string> hostCurrentDocument;
    MouseProtocolEncoding mouseProtocol = MouseProtocolEncoding::x10;
    bool settingFgColor = false;
    bool settingBgColor = false;
    bool settingCursorColor = false;
    Color foregroundColor;
    Color backgroundColor;
    std::optional<Color> cursorColor;
    bool reportedFocusState = false;
    MouseMode mouseMode = MouseMode::off;
    bool mouseShiftCapture = false;
    bool xtermTitleSetUtf = false;
    bool xtermTitleSetHex = false;
    bool xtermTitleQueryUtf = false;
    bool xtermTitleQueryHex = false;
    TerminalConformance conformance = TerminalConformance::vt500;
    std::optional<HyperlinkTracking> hyperLinkTracking;
    bool silentLog = false;
    CursorStyle cursorStyle = CursorStyle::blinkBlock;
    std::string terminalTitle;
    std::string iconTitle;
    std::vector<std::string> terminalTitleStack;
    std::vector<std::string> terminalIconStack;
    // Where log() lines go; stderr by default.
    std::function<void(std::string_view)> logSink;

private:
    friend class EscapeSequenceParser;

    // The delegate as locked for the current parse() (or a single call outside it).
    TerminalDelegate* delegate();
    // Locks the weak delegate once for a whole parse (or any other entry point), so that the hot
    // paths call it through a plain pointer.
    struct DelegateScope {
        explicit DelegateScope(Terminal& t)
            : t(t) {
            if (t.delegateDepth_++ == 0) t.lockedDelegate_ = t.tdel.lock();
        }
        ~DelegateScope() {
            if (--t.delegateDepth_ == 0) t.lockedDelegate_.reset();
        }
        DelegateScope(const DelegateScope&) = delete;
        DelegateScope& operator=(const DelegateScope&) = delete;
        Terminal& t;
    };

    void setup(bool isReset);
    void configureParser();
    void recomputePalette(bool notify);

    // Print path.
    void handlePrint(ByteSpan data);
    void decodeAndPrint(ByteSpan data);
    // The cells from the cursor on, marked written, when `width` cells placed there need no wrap,
    // no insertion and no repair: inside the line with room to spare, the first and the one after
    // the last being no right halves of wide characters. The cursor moves past them. Null (and
    // nothing changed) otherwise.
    // `Plain` leaves out the insert mode check, for callers that have looked at plainPrint_.
    template <bool Plain = false>
    CharData* cellsInside(int width, int right) {
        Buffer& b = *buffer;
        // Read once: the cell stores that follow could alias anything as far as the compiler knows.
        const int x = b.x, y = b.y, end = x + width;
        if ((!Plain && insertMode) || x < 0 || end > right) return nullptr;
        const int yBase = b.yBase;
        BufferLine& line = b.lines[yBase + y];
        const CharData* current = line.getData();
        if (current[x].width == 0 || current[end].width == 0) return nullptr;
        line.touch();
        markCursorRow(y, yBase);
        b.x = end;
        return line.mutableCells(end + 1) + x;
    }
    // One cell of `width` at the cursor, when cellsInside allows it.
    template <bool Plain = false>
    bool placeInside(std::int32_t code, int width, int right) {
        CharData* at = cellsInside<Plain>(width, right);
        if (at == nullptr) return false;
        storeCell(at, curAttr, code, static_cast<std::int8_t>(width));
        if (width == 2) storeCell(at + 1, curAttr, 0, 0);
        lastPrintedCode_ = code;
        lastPrintedWidth_ = width;
        return true;
    }
    // A run of printable ASCII from the parser: a character or a word between two control
    // sequences (a cursor move, an SGR), or a line of text. When it lands inside the line, away
    // from the edge and from any wide character, it is plain stores. Runs that reach the edge
    // (and so may wrap) take printAsciiRun.
    void printAscii(const std::uint8_t* text, std::size_t count) {
        if (!plainPrint_) [[unlikely]]
            return printAsciiMapped(text, count);
        if (count < static_cast<std::size_t>(cols)) {
            CharData* at = cellsInside<true>(static_cast<int>(count), cols - 1);
            if (at == nullptr) return printAsciiRun(text, count);
            storeAsciiCells(at, curAttr, text, count);
            lastPrintedCode_ = text[count - 1];
            lastPrintedWidth_ = 1;
            return;
        }
        printAsciiRun(text, count);
    }
    // The lone printable ASCII character between two controls, as after a cursor move.
    void printAsciiCharacter(const std::uint8_t* text) {
        if (!plainPrint_) [[unlikely]]
            return printAsciiMapped(text, 1);
        if (!placeInside<true>(text[0], 1, cols - 1)) [[unlikely]]
            printAsciiRun(text, 1);
    }
    // Whether printable ASCII from the parser may go straight to the cells: no character set
    // to map it, no partial UTF-8 sequence waiting, no insert mode, no left and right margins.
    // Recomputed where any of these can change: on entry to the parser's ground loop, after
    // every CSI sequence, after every print run that went through the decoder.
    void refreshPrintPath() {
        plainPrint_ = charset == nullptr && putbackBuffer_.empty() && !insertMode && !marginMode;
    }
    void printAsciiRun(const std::uint8_t* text, std::size_t count);
    // Printable ASCII when plainPrint_ is off: through the decoder when a character set maps it
    // or a partial UTF-8 sequence waits, else the general run.
    void printAsciiMapped(const std::uint8_t* text, std::size_t count);
    void printScalar(char32_t scalar);
    void placeCharacter(std::int32_t code, int width);
    bool combineWithPrevious(char32_t scalar, int width);
    void wrapToNextLine();
    int rightEdge() const {
        // The right margin bounds text only for a cursor that stands inside the margins (or just
        // past the right one, waiting to wrap).
        const Buffer& b = *buffer;
        if (marginMode && b.x >= b.marginLeft && b.x <= b.marginRight + 1) return b.marginRight;
        return cols - 1;
    }
    int leftEdge() const { return marginMode ? buffer->marginLeft : 0; }
    void repairWideCharacterAt(BufferLine& line, int col);

    // Shared cursor and line operations.
    void restrictCursor(bool clampX = true) {
        Buffer& b = *buffer;
        if (clampX) {
            bool inMargins = originMode && marginMode;
            int lo = inMargins ? b.marginLeft : 0;
            int hi = inMargins ? b.marginRight : cols - 1;
            b.x = b.x < lo ? lo : (b.x > hi ? hi : b.x);
        }
        int top = originMode ? b.scrollTop : 0;
        int bottom = originMode ? b.scrollBottom : rows - 1;
        b.y = b.y < top ? top : (b.y > bottom ? bottom : b.y);
    }
    void cursorForward(int count);
    void cursorBackward(int count);
    void updateRange(int y, bool scrolling = false) {
        if (scrolling) {
            if (y < refreshStart) refreshStart = y;
            if (y > refreshEnd) refreshEnd = y;
            return;
        }
        markRow(y, buffer->yBase + y);
    }
    // The cursor's row `y` has changed, on a buffer whose first screen line is `yBase`. Once the
    // ranges cover that whole screen, as they do between two frames of a full-screen program,
    // this is one compare.
    void markCursorRow(int y, int yBase) {
        if (yBase != screenMarkedAt_) [[unlikely]]
            markRowAndCover(y, yBase);
    }
    void markRowAndCover(int y, int yBase);
    // Row `y` of the screen, line `absolute` of the buffer, has changed. Most writes land inside
    // the range already marked, so the stores are laid out of line.
    void markRow(int y, int absolute) {
        if (y < refreshStart) [[unlikely]]
            refreshStart = y;
        if (y > refreshEnd) [[unlikely]]
            refreshEnd = y;
        if (absolute < scrollInvariantRefreshStart) [[unlikely]]
            scrollInvariantRefreshStart = absolute;
        if (absolute > scrollInvariantRefreshEnd) [[unlikely]]
            scrollInvariantRefreshEnd = absolute;
    }
    void updateFullScreen();
    void scroll(bool isWrapped = false);
    void scrollUpRegion(int count);
    void scrollDownRegion(int count);
    void scrollFromCursorRow(int count, bool down);
    void eraseInBufferLine(int y, int start, int end, bool clearWrap = false, bool clearRenderMode = false,
                           bool clearImages = false);
    void resetBufferLine(int y);
    BufferLine& lineAt(int y) { return buffer->lines[buffer->yBase + y]; }
    CharData eraseCell() const;
    void columnScroll(bool back, int at);
    void setCursor(int x, int y) {
        Buffer& b = *buffer;
        if (originMode) {
            b.x = x + (marginMode ? b.marginLeft : 0);
            b.y = y + b.scrollTop;
        } else {
            b.x = x;
            b.y = y;
        }
        restrictCursor();
    }
    // CUP with its two parameters as read (0 when missing).
    void cursorPosition(std::int64_t row, std::int64_t col) {
        if (!originMode) [[likely]] {
            // The whole screen: 0 and 1 both mean the first row or column.
            Buffer& b = *buffer;
            b.x = static_cast<int>(std::clamp<std::int64_t>(col, 1, cols)) - 1;
            b.y = static_cast<int>(std::clamp<std::int64_t>(row, 1, rows)) - 1;
            return;
        }
        auto oneBased = [](std::int64_t v) {
            return v == 0 ? 1 : static_cast<int>(v < (1 << 20) ? v : 1 << 20);
        };
        setCursor(oneBased(col) - 1, oneBased(row) - 1);
    }
    void setScrollRegion(int top, int bottom);
    void resetNormalBuffer();
    void setCursorStyle(CursorStyle style);

    // Rectangles (DECCRA, DECFRA, DECERA, DECSERA, DECRQCRA).
    struct Rect {
        int top, left, bottom, right; // zero-based, inclusive
    };
    std::optional<Rect> getRectangleFromRequest(Params pars, std::size_t first);

    // Replies.
    std::string csi() const { return cc.send8bit ? "\x9b" : "\x1b["; }
    std::string dcs() const { return cc.send8bit ? "\x90" : "\x1bP"; }
    std::string osc() const { return cc.send8bit ? "\x9d" : "\x1b]"; }
    std::string st() const { return cc.send8bit ? "\x9c" : "\x1b\\"; }
    void cmdDecRqm(Params pars, bool decMode);
    void cmdSetConformanceLevel(Params pars);
    void cmdWindowOptions(Params pars);
    void cmdXtermTitleModeSet(Params pars);
    void cmdXtermTitleModeReset(Params pars);
    void reportColor(std::string_view oscCode, const Color& color);
    std::string currentSgr() const;
    void setMouseMode(MouseMode mode);

    static std::string stringf(const char* format, ...) __attribute__((format(printf, 1, 2)));

    std::shared_ptr<TerminalDelegate> lockedDelegate_;
    std::unordered_set<std::uint16_t> ownedAtoms_; // link atoms this terminal interned
    std::string scratch_;                          // cluster building without allocation
    int delegateDepth_ = 0;
    struct SynchronizedOutputTimer;
    std::unique_ptr<SynchronizedOutputTimer> synchronizedOutputTimer_;
    std::shared_ptr<Terminal*> alive_;
    Bytes putbackBuffer_;    // incomplete UTF-8 tail of the last print run
    bool plainPrint_ = true; // see refreshPrintPath()
    // The first line of the screen whose rows the update ranges all cover (the bounds only widen
    // until clearUpdateRange), INT_MIN when they don't. Reset with the ranges and on resize.
    int screenMarkedAt_ = INT_MIN;
    CharData blankLine_;
    // Small direct-mapped memories for the print path: the width of recent scalars (the width
    // rules ask the Unicode tables for the general category) and the cell code of recent scalars
    // outside the Basic Multilingual Plane (which would otherwise be hashed at every print).
    struct WidthMemo {
        char32_t scalar = 0xFFFFFFFF;
        std::int8_t width = 0;
    };
    struct CodeMemo {
        char32_t scalar = 0;
        std::int32_t code = 0;
    };
    // Clusters already built: a base code and a joining scalar give the cluster's code.
    struct CombineMemo {
        std::int32_t base = 0;
        char32_t scalar = 0;
        std::int32_t code = 0;
    };
    // What a cluster cell tells the next scalar: does it end with a joiner, is it half a flag.
    struct ClusterMemo {
        std::int32_t code = 0;
        bool endsWithJoiner = false;
        bool loneRegionalIndicator = false;
    };
    std::array<WidthMemo, 256> widthMemo_{};
    std::array<CombineMemo, 64> combineMemo_{};
    std::array<ClusterMemo, 64> clusterMemo_{};
    std::array<CodeMemo, 64> codeMemo_{};
    int columnWidth(char32_t scalar);
    std::int32_t supplementaryCode(char32_t scalar);
    std::int32_t lastPrintedCode_ = 0; // for REP
    int lastPrintedWidth_ = 1;
};

} // namespace TerminalEngine
