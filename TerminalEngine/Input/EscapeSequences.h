// The bytes of keys in the legacy (xterm) encoding: what a program that never asked for the kitty
// protocol reads for arrows, editing keys, function keys and the keypad.
#pragma once

#include <array>
#include <string_view>

namespace TerminalEngine {

struct EscapeSequences {
    static constexpr std::string_view cmdNewLine = "\n";
    static constexpr std::string_view cmdRet = "\r";
    static constexpr std::string_view cmdEsc = "\x1b";
    static constexpr std::string_view cmdDel = "\x7f";
    static constexpr std::string_view cmdDelKey = "\x1b[3~";
    static constexpr std::string_view cmdTab = "\t";
    static constexpr std::string_view cmdBackTab = "\x1b[Z";
    static constexpr std::string_view cmdPageUp = "\x1b[5~";
    static constexpr std::string_view cmdPageDown = "\x1b[6~";
    static constexpr std::string_view cmdInsert = "\x1b[2~";
    static constexpr std::string_view moveUpApp = "\x1bOA";
    static constexpr std::string_view moveUpNormal = "\x1b[A";
    static constexpr std::string_view moveDownApp = "\x1bOB";
    static constexpr std::string_view moveDownNormal = "\x1b[B";
    static constexpr std::string_view moveLeftApp = "\x1bOD";
    static constexpr std::string_view moveLeftNormal = "\x1b[D";
    static constexpr std::string_view moveRightApp = "\x1bOC";
    static constexpr std::string_view moveRightNormal = "\x1b[C";
    static constexpr std::string_view moveHomeApp = "\x1bOH";
    static constexpr std::string_view moveHomeNormal = "\x1b[H";
    static constexpr std::string_view moveEndApp = "\x1bOF";
    static constexpr std::string_view moveEndNormal = "\x1b[F";
    static constexpr std::string_view emacsBack = "\x1b"
                                                  "b";
    static constexpr std::string_view emacsForward = "\x1b"
                                                     "f";
    static constexpr std::string_view controlLeft = "\x1b[1;5D";
    static constexpr std::string_view controlRight = "\x1b[1;5C";
    static constexpr std::string_view bracketedPasteStart = "\x1b[200~";
    static constexpr std::string_view bracketedPasteEnd = "\x1b[201~";

    // F1 to F20. F13 to F20 are xterm's shifted F1 to F8, as its terminfo entry describes them, so
    // that programs reading TERM=xterm-256color recognise them.
    static constexpr std::array<std::string_view, 20> cmdF = {
        "\x1bOP",    "\x1bOQ",    "\x1bOR",     "\x1bOS",     "\x1b[15~",   "\x1b[17~",   "\x1b[18~",
        "\x1b[19~",  "\x1b[20~",  "\x1b[21~",   "\x1b[23~",   "\x1b[24~",   "\x1b[1;2P",  "\x1b[1;2Q",
        "\x1b[1;2R", "\x1b[1;2S", "\x1b[15;2~", "\x1b[17;2~", "\x1b[18;2~", "\x1b[19;2~",
    };
};

} // namespace TerminalEngine
