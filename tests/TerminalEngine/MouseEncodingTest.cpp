// Mouse reports under each mode and encoding, focus reports and bracketed paste.
#include "TerminalHarness.h"

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

using testing::TerminalHarness;
using A = MouseEvent::Action;
using B = MouseButton;

MouseEvent mouse(A action, std::optional<B> button, int x = 0, int y = 0) {
    MouseEvent e;
    e.action = action;
    e.button = button;
    e.x = x;
    e.y = y;
    return e;
}
MouseEvent modified(MouseEvent e, bool shift, bool meta, bool control) {
    e.shift = shift;
    e.meta = meta;
    e.control = control;
    return e;
}
MouseEvent pixels(MouseEvent e, int px, int py) {
    e.pixelX = px;
    e.pixelY = py;
    return e;
}

struct MouseCase {
    const char* name;
    const char* modes; // DECSET sequence choosing mode and encoding
    MouseEvent event;
    std::optional<std::string> expected;
};

const MouseCase mouseCases[] = {
    {"OffReportsNothing", "", mouse(A::press, B::left), std::nullopt},
    {"X10Press", "\x1b[?9h", mouse(A::press, B::left), "\x1b[M !!"},
    {"X10PressIgnoresModifiers", "\x1b[?9h", modified(mouse(A::press, B::left), true, true, true),
     "\x1b[M !!"},
    {"X10NoRelease", "\x1b[?9h", mouse(A::release, B::left), std::nullopt},
    {"X10WheelUp", "\x1b[?9h", mouse(A::press, B::wheelUp), "\x1b[M`!!"},
    {"Vt200Release", "\x1b[?1000h", mouse(A::release, B::right), "\x1b[M#!!"},
    {"Vt200CtrlPress", "\x1b[?1000h", modified(mouse(A::press, B::left, 4, 2), false, false, true),
     "\x1b[M0%#"},
    {"Vt200ShiftMetaMiddle", "\x1b[?1000h", modified(mouse(A::press, B::middle), true, true, false),
     "\x1b[M-!!"},
    {"Vt200NoDrag", "\x1b[?1000h", mouse(A::motion, B::left, 1, 1), std::nullopt},
    {"Vt200WheelHasNoRelease", "\x1b[?1000h", mouse(A::release, B::wheelUp), std::nullopt},
    {"ButtonEventDrag", "\x1b[?1002h", mouse(A::motion, B::left, 1, 1), "\x1b[M@\"\""},
    {"ButtonEventNoBareMotion", "\x1b[?1002h", mouse(A::motion, std::nullopt), std::nullopt},
    {"AnyEventBareMotion", "\x1b[?1003h", mouse(A::motion, std::nullopt), "\x1b[MC!!"},
    {"X10EncodingCapsAt255", "\x1b[?1000h", mouse(A::press, B::left, 300, 0), "\x1b[M \xff!"},
    {"Utf8TwoBytes", "\x1b[?1000h\x1b[?1005h", mouse(A::press, B::left, 200, 0), "\x1b[M \xc3\xa9!"},
    {"Utf8TooFar", "\x1b[?1000h\x1b[?1005h", mouse(A::press, B::left, 3000, 0), std::string("\x1b[M \0!", 6)},
    {"SgrPress", "\x1b[?1000h\x1b[?1006h", mouse(A::press, B::left, 9, 4), "\x1b[<0;10;5M"},
    {"SgrLeftReleaseKeepsButton", "\x1b[?1000h\x1b[?1006h", mouse(A::release, B::left, 9, 4),
     "\x1b[<0;10;5m"},
    {"SgrWheelDown", "\x1b[?1000h\x1b[?1006h", mouse(A::press, B::wheelDown), "\x1b[<65;1;1M"},
    {"SgrLargeColumn", "\x1b[?1000h\x1b[?1006h", mouse(A::press, B::left, 2999, 0), "\x1b[<0;3000;1M"},
    {"SgrDragWithShift", "\x1b[?1002h\x1b[?1006h",
     modified(mouse(A::motion, B::right, 2, 3), true, false, false), "\x1b[<38;3;4M"},
    {"UrxvtPress", "\x1b[?1000h\x1b[?1015h", mouse(A::press, B::left), "\x1b[32;1;1M"},
    {"UrxvtRelease", "\x1b[?1000h\x1b[?1015h", mouse(A::release, B::left, 5, 6), "\x1b[35;6;7M"},
    {"SgrPixels", "\x1b[?1000h\x1b[?1016h", pixels(mouse(A::press, B::left, 3, 3), 123, 45),
     "\x1b[<0;123;45M"},
    {"ResetEncodingBackToX10", "\x1b[?1000h\x1b[?1006h\x1b[?1006l", mouse(A::press, B::left), "\x1b[M !!"},
};

TEST(MouseEncoding, ReportsWhatTheModeAsksFor) {
    for (const MouseCase& c : mouseCases) {
        TerminalHarness h;
        h.feed(c.modes);
        EXPECT_EQ(h.terminal->encodeMouse(c.event), c.expected) << c.name;
    }
}

TEST(MouseEncoding, SendEventTellsReleasesBySgrFinal) {
    TerminalHarness h;
    h.feed("\x1b[?1000h\x1b[?1006h");
    Terminal& t = *h.terminal;
    t.sendEvent(t.encodeButton(0, false, false, false, false), 2, 3);
    t.sendEvent(t.encodeButton(0, true, false, false, false), 2, 3);
    t.sendEvent(35, 4, 4); // motion with no button is no release
    EXPECT_EQ(h.takeSent(), "\x1b[<0;3;4M\x1b[<0;3;4m\x1b[<35;5;5M");
}

TEST(FocusReports, FollowFocusChangesOnlyWhileAskedFor) {
    TerminalHarness h;
    h.terminal->setFocused(true);
    EXPECT_EQ(h.takeSent(), "");
    h.feed("\x1b[?1004h");
    EXPECT_EQ(h.takeSent(), "\x1b[I");
    h.terminal->setFocused(false);
    h.terminal->setFocused(false);
    h.terminal->setFocused(true);
    EXPECT_EQ(h.takeSent(), "\x1b[O\x1b[I");
}

TEST(BracketedPaste, WrapsTextOnlyWhileTheModeIsOnAndTheTextCannotCloseItEarly) {
    TerminalHarness h;
    EXPECT_EQ(h.terminal->encodePaste("ls\r\necho hi\n"), "ls\recho hi\r");
    h.feed("\x1b[?2004h");
    EXPECT_EQ(h.terminal->encodePaste("a\nb"), "\x1b[200~a\rb\x1b[201~");
    EXPECT_EQ(h.terminal->encodePaste("safe\x1b[201~rm -rf ~\n"), "\x1b[200~saferm -rf ~\r\x1b[201~");
    h.terminal->paste("x");
    EXPECT_EQ(h.takeSent(), "\x1b[200~x\x1b[201~");
}

} // namespace
} // namespace TerminalEngine
