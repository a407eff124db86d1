// The terminal's callbacks to its owner (a view, a headless host). Every operation but send()
// has a default, so owners override only what they care about.
#pragma once

#include "TerminalEngine/Model/Color.h"
#include "TerminalEngine/Terminal/TerminalOptions.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace TerminalEngine {

class Terminal;

enum class WindowManipulationCommand : std::uint8_t {
    moveWindowTo,
    resizeWindowTo,
    resizeTo,
    resizeTerminal,
    deiconifyWindow,
    iconifyWindow,
    bringToFront,
    sendToBack,
    refreshWindow,
    restoreMaximizedWindow,
    maximizeWindow,
    maximizeWindowVertically,
    maximizeWindowHorizontally,
    undoFullScreen,
    switchToFullScreen,
    toggleFullScreen,
    reportTerminalState,
    reportTerminalPosition,
    reportTextAreaPosition,
    reportTextAreaPixelDimension,
    reportTerminalWindowPixelDimension,
    reportSizeOfScreenInPixels,
    reportCellSizeInPixels,
    reportTextAreaCharacters,
    reportScreenSizeCharacters,
    reportIconLabel,
    reportWindowTitle,
};

// A window command with its numeric arguments as the program sent them (CSI Ps ; ... t).
struct WindowCommand {
    WindowManipulationCommand command;
    std::vector<std::int64_t> parameters;
    bool operator==(const WindowCommand&) const = default;
};

enum class ProgressReportState : std::uint8_t { remove, set, error, indeterminate, pause };

struct ProgressReport {
    ProgressReportState state = ProgressReportState::remove;
    std::optional<int> progress;
    bool operator==(const ProgressReport&) const = default;
};

// How big an inline image asks to be drawn.
struct ImageSizeRequest {
    enum class Kind : std::uint8_t { cells, pixels, percent, automatic };
    Kind kind = Kind::automatic;
    int value = 0;
    bool operator==(const ImageSizeRequest&) const = default;
};

class TerminalDelegate {
public:
    virtual ~TerminalDelegate() = default;

    virtual void showCursor(Terminal&) {}
    virtual void hideCursor(Terminal&) {}
    virtual void setTerminalTitle(Terminal&, const std::string&) {}
    virtual void setTerminalIconTitle(Terminal&, const std::string&) {}
    virtual std::optional<std::vector<std::uint8_t>> windowCommand(Terminal&, const WindowCommand&) {
        return std::nullopt;
    }
    virtual void sizeChanged(Terminal&) {}
    virtual void send(Terminal& source, std::span<const std::uint8_t> data) = 0;
    virtual void scrolled(Terminal&, int /*yDisp*/) {}
    virtual void linefeed(Terminal&) {}
    virtual void bufferActivated(Terminal&) {}
    virtual void synchronizedOutputChanged(Terminal&, bool /*active*/) {}
    virtual void bell(Terminal&) {}
    virtual void selectionChanged(Terminal&) {}
    virtual bool isProcessTrusted(Terminal&) { return true; }
    virtual std::optional<std::pair<int, int>> cellSizeInPixels(Terminal&) { return std::nullopt; }
    virtual void mouseModeChanged(Terminal&) {}
    virtual void cursorStyleChanged(Terminal&, CursorStyle) {}
    virtual void hostCurrentDirectoryUpdated(Terminal&) {}
    virtual void hostCurrentDocumentUpdated(Terminal&) {}
    virtual void colorChanged(Terminal&, std::optional<int> /*idx*/) {}
    virtual void setForegroundColor(Terminal& source, const Color& color);
    virtual void setBackgroundColor(Terminal& source, const Color& color);
    virtual void setCursorColor(Terminal& source, const std::optional<Color>& color);
    virtual std::pair<Color, Color> getColors(Terminal& source);
    virtual void iTermContent(Terminal&, std::span<const std::uint8_t>) {}
    virtual void clipboardCopy(Terminal&, std::span<const std::uint8_t>) {}
    virtual std::optional<std::vector<std::uint8_t>> clipboardRead(Terminal&) { return std::nullopt; }
    virtual void notify(Terminal&, const std::string& /*title*/, const std::string& /*body*/) {}
    virtual void progressReport(Terminal&, const ProgressReport&) {}
    virtual void createImageFromBitmap(Terminal&, std::vector<std::uint8_t>& /*bytes*/, int /*width*/,
                                       int /*height*/) {}
    virtual void createImage(Terminal&, std::vector<std::uint8_t>& /*data*/, ImageSizeRequest /*width*/,
                             ImageSizeRequest /*height*/, bool /*preserveAspectRatio*/) {}
};

} // namespace TerminalEngine
