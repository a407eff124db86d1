// Construction-time options of a terminal.
#pragma once

#include "TerminalEngine/Model/Color.h"
#include "TerminalEngine/Model/UnicodeUtil.h"

#include <cstdint>
#include <string>

namespace TerminalEngine {

enum class CursorStyle : std::uint8_t {
    blinkBlock,
    steadyBlock,
    blinkUnderline,
    steadyUnderline,
    blinkBar,
    steadyBar
};

struct TerminalOptions {
    int cols = 80;
    int rows = 25;
    bool convertEol = false;
    std::string termName = "xterm-256color";
    CursorStyle cursorStyle = CursorStyle::blinkBlock;
    bool screenReaderMode = false;
    int scrollback = 500;
    int tabStopWidth = 8;
    bool enableSixelReported = true;
    std::int64_t kittyImageCacheLimitBytes = 335544320; // 320 MiB
    Ansi256PaletteStrategy ansi256PaletteStrategy = Ansi256PaletteStrategy::base16Lab;
    RegionalIndicatorWidth regionalIndicatorWidth = RegionalIndicatorWidth::wide;

    static TerminalOptions defaults() { return {}; }
    bool operator==(const TerminalOptions&) const = default;
};

} // namespace TerminalEngine
