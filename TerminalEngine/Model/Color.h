// Palette colours with 16-bit components: the defaults, the 256-colour table derived from the
// host's base colours, and the "#rgb" and "rgb:r/g/b" colour names that OSC commands carry.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string_view>

namespace TerminalEngine {

// How entries 16 to 255 of the palette are made from the installed colours.
enum class Ansi256PaletteStrategy : std::uint8_t {
    xterm,               // the fixed xterm cube and grey ramp
    base16Lab,           // blended in CIELAB from the theme's eight base colours, dark to light
    base16LabHarmonious, // the same, keeping the theme's own order of dark and light
};

class Color {
public:
    struct LabColor {
        double l = 0;
        double a = 0;
        double b = 0;
        bool operator==(const LabColor&) const = default;
    };

    constexpr Color() = default;
    constexpr Color(std::uint16_t red, std::uint16_t green, std::uint16_t blue)
        : red(red)
        , green(green)
        , blue(blue) {}
    // 8-bit components, scaled so that 0xFF becomes 0xFFFF.
    static constexpr Color fromRgb8(std::uint8_t red, std::uint8_t green, std::uint8_t blue) {
        return Color(static_cast<std::uint16_t>(red * 257), static_cast<std::uint16_t>(green * 257),
                     static_cast<std::uint16_t>(blue * 257));
    }
    // 4-bit components (only the low nibble is read), each becoming the high nibble of both bytes.
    static constexpr Color fromRgb4(std::uint8_t red, std::uint8_t green, std::uint8_t blue) {
        return Color(static_cast<std::uint16_t>((red & 0xF) * 4112),
                     static_cast<std::uint16_t>((green & 0xF) * 4112),
                     static_cast<std::uint16_t>((blue & 0xF) * 4112));
    }

    // "#rgb", "#rrggbb", "#rrrgggbbb", "#rrrrggggbbbb" or "rgb:r/g/b" with 1 to 4 hex digits per
    // part; none for anything else.
    static std::optional<Color> parse(std::string_view text);

    LabColor toLab() const;
    // Back from CIELAB, clamped to the sRGB gamut and rounded to 8 bits per component.
    static Color fromLab(const LabColor& lab);

    // The 256-entry table. Entries 0 to 15 are the installed colours (defaults fill a short
    // list); a host that installs all 256 gets them as they stand.
    static std::array<Color, 256> ansi256Palette(std::span<const Color> installed, const Color& foreground,
                                                 const Color& background, Ansi256PaletteStrategy strategy);

    static const Color defaultForeground;
    static const Color defaultBackground;
    static const std::array<Color, 16> defaultInstalledColors;

    constexpr bool operator==(const Color&) const = default;

    std::uint16_t red = 0;
    std::uint16_t green = 0;
    std::uint16_t blue = 0;
};

inline constexpr Color Color::defaultForeground = Color::fromRgb8(0xE5, 0xE5, 0xE5);
inline constexpr Color Color::defaultBackground = Color::fromRgb8(0x00, 0x00, 0x00);
// The classic xterm set: normal colours at 0xCD (blue a little brighter to stay readable on
// black), bright ones at full strength.
inline constexpr std::array<Color, 16> Color::defaultInstalledColors = {
    Color::fromRgb8(0x00, 0x00, 0x00), Color::fromRgb8(0xCD, 0x00, 0x00), Color::fromRgb8(0x00, 0xCD, 0x00),
    Color::fromRgb8(0xCD, 0xCD, 0x00), Color::fromRgb8(0x00, 0x00, 0xEE), Color::fromRgb8(0xCD, 0x00, 0xCD),
    Color::fromRgb8(0x00, 0xCD, 0xCD), Color::fromRgb8(0xE5, 0xE5, 0xE5), Color::fromRgb8(0x7F, 0x7F, 0x7F),
    Color::fromRgb8(0xFF, 0x00, 0x00), Color::fromRgb8(0x00, 0xFF, 0x00), Color::fromRgb8(0xFF, 0xFF, 0x00),
    Color::fromRgb8(0x5C, 0x5C, 0xFF), Color::fromRgb8(0xFF, 0x00, 0xFF), Color::fromRgb8(0x00, 0xFF, 0xFF),
    Color::fromRgb8(0xFF, 0xFF, 0xFF),
};

} // namespace TerminalEngine

template <>
struct std::hash<TerminalEngine::Color> {
    std::size_t operator()(const TerminalEngine::Color& color) const noexcept {
        std::uint64_t packed =
            (std::uint64_t{color.red} << 32) | (std::uint64_t{color.green} << 16) | color.blue;
        return std::hash<std::uint64_t>{}(packed);
    }
};
