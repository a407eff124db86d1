// A mouse event as the view hands it to the terminal: what happened, which button, the modifier
// keys held and where, in cells from the top left of the screen (and in pixels for SGR-pixel).
#pragma once

#include <cstdint>
#include <optional>

namespace TerminalEngine {

enum class MouseButton : std::uint8_t { left, middle, right, wheelUp, wheelDown, wheelLeft, wheelRight };

struct MouseEvent {
    enum class Action : std::uint8_t { press, release, motion };

    Action action = Action::press;
    // For motion, the button held (a drag), or none for a bare move.
    std::optional<MouseButton> button = MouseButton::left;
    int x = 0; // column, from 0
    int y = 0; // row of the screen, from 0
    int pixelX = 0;
    int pixelY = 0;
    bool shift = false;
    bool meta = false;
    bool control = false;

    bool operator==(const MouseEvent&) const = default;
};

} // namespace TerminalEngine
