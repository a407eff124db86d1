// Colour arithmetic: sRGB to CIELAB and back, the 256-colour table strategies, and reading
// "#rgb" and "rgb:r/g/b" colour names.
#include "TerminalEngine/Model/Color.h"

#include <algorithm>
#include <cmath>

namespace TerminalEngine {
namespace {

// Component levels of the xterm 6x6x6 cube.
constexpr std::array<int, 6> cubeLevels = {0, 95, 135, 175, 215, 255};
// The grey ramp after the cube: 8, 18, ..., 238.
constexpr int greyBase = 8;
constexpr int greyStep = 10;
constexpr int greyCount = 24;

// sRGB (D65) to CIE XYZ, and its inverse.
constexpr double rgbToXyz[3][3] = {
    {0.4124564, 0.3575761, 0.1804375},
    {0.2126729, 0.7151522, 0.0721750},
    {0.0193339, 0.1191920, 0.9503041},
};
constexpr double xyzToRgb[3][3] = {
    {3.2404542, -1.5371385, -0.4985314},
    {-0.9692660, 1.8760108, 0.0415560},
    {0.0556434, -0.2040259, 1.0572252},
};
constexpr double whitePoint[3] = {0.95047, 1.0, 1.08883};
// CIELAB's piecewise cube root: below the threshold a straight line takes over.
constexpr double labThreshold = 0.008856;
constexpr double labSlope = 7.787;
constexpr double labOffset = 16.0 / 116.0;

double toLinear(double c) {
    return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
}

double fromLinear(double c) {
    return c <= 0.0031308 ? 12.92 * c : 1.055 * std::pow(c, 1.0 / 2.4) - 0.055;
}

double labF(double t) {
    return t > labThreshold ? std::cbrt(t) : labSlope * t + labOffset;
}

double labFInverse(double f) {
    double cube = f * f * f;
    return cube > labThreshold ? cube : (f - labOffset) / labSlope;
}

std::uint8_t to8Bit(double unit) {
    double scaled = std::clamp(unit * 255.0, 0.0, 255.0) + 0.5;
    return static_cast<std::uint8_t>(std::min(std::floor(scaled), 255.0));
}

Color::LabColor mix(const Color::LabColor& from, const Color::LabColor& to, double t) {
    return {from.l + (to.l - from.l) * t, from.a + (to.a - from.a) * t, from.b + (to.b - from.b) * t};
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::optional<std::uint32_t> parseHex(std::string_view digits) {
    if (digits.empty() || digits.size() > 4) return std::nullopt;
    std::uint32_t value = 0;
    for (char c : digits) {
        int d = hexDigit(c);
        if (d < 0) return std::nullopt;
        value = value << 4 | static_cast<std::uint32_t>(d);
    }
    return value;
}

// A value of `digits` hex digits stretched to 16 bits by repeating its bits, so that all-ones
// stays all-ones: f -> ffff, ab -> abab, abc -> abca.
std::uint16_t scaleTo16(std::uint32_t value, std::size_t digits) {
    switch (digits) {
    case 1: return static_cast<std::uint16_t>(value * 0x1111);
    case 2: return static_cast<std::uint16_t>(value * 0x0101);
    case 3: return static_cast<std::uint16_t>(value << 4 | value >> 8);
    default: return static_cast<std::uint16_t>(value);
    }
}

std::optional<Color> parseHashForm(std::string_view digits) {
    if (digits.size() != 3 && digits.size() != 6 && digits.size() != 9 && digits.size() != 12)
        return std::nullopt;
    const std::size_t n = digits.size() / 3;
    std::uint16_t parts[3];
    for (std::size_t i = 0; i < 3; ++i) {
        auto value = parseHex(digits.substr(i * n, n));
        if (!value) return std::nullopt;
        parts[i] = scaleTo16(*value, n);
    }
    return Color(parts[0], parts[1], parts[2]);
}

std::optional<Color> parseRgbForm(std::string_view body) {
    std::string_view parts[3];
    for (int i = 0; i < 3; ++i) {
        auto slash = body.find('/');
        if ((i < 2) != (slash != std::string_view::npos)) return std::nullopt;
        parts[i] = body.substr(0, slash);
        body = i < 2 ? body.substr(slash + 1) : std::string_view{};
    }
    std::size_t longest = 0;
    std::uint32_t values[3];
    for (int i = 0; i < 3; ++i) {
        auto value = parseHex(parts[i]);
        if (!value) return std::nullopt;
        values[i] = *value;
        longest = std::max(longest, parts[i].size());
    }
    return Color(scaleTo16(values[0], longest), scaleTo16(values[1], longest), scaleTo16(values[2], longest));
}

bool startsWithRgbPrefix(std::string_view text) {
    if (text.size() < 4) return false;
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return lower(text[0]) == 'r' && lower(text[1]) == 'g' && lower(text[2]) == 'b' && text[3] == ':';
}

void fillXtermEntries(std::array<Color, 256>& table) {
    for (int r = 0; r < 6; ++r)
        for (int g = 0; g < 6; ++g)
            for (int b = 0; b < 6; ++b)
                table[static_cast<std::size_t>(16 + 36 * r + 6 * g + b)] =
                    Color::fromRgb8(static_cast<std::uint8_t>(cubeLevels[static_cast<std::size_t>(r)]),
                                    static_cast<std::uint8_t>(cubeLevels[static_cast<std::size_t>(g)]),
                                    static_cast<std::uint8_t>(cubeLevels[static_cast<std::size_t>(b)]));
    for (int i = 0; i < greyCount; ++i) {
        auto level = static_cast<std::uint8_t>(greyBase + greyStep * i);
        table[static_cast<std::size_t>(232 + i)] = Color::fromRgb8(level, level, level);
    }
}

// The cube blended in CIELAB between eight corners, indexed like the ANSI colours: bit 0 is
// red, bit 1 green, bit 2 blue. Corner 0 is the background and corner 7 the foreground.
void fillLabEntries(std::array<Color, 256>& table, std::span<const Color> installed, const Color& foreground,
                    const Color& background, bool keepThemeOrder) {
    std::array<Color::LabColor, 8> corners;
    corners[0] = background.toLab();
    for (std::size_t i = 1; i < 7; ++i)
        corners[i] = installed[i].toLab();
    corners[7] = foreground.toLab();
    // A light theme has a light background: swapping the ends keeps the cube running from
    // dark (16) to light (231), which programs that use it assume.
    if (!keepThemeOrder && corners[7].l < corners[0].l) std::swap(corners[0], corners[7]);

    for (int r = 0; r < 6; ++r) {
        const double tr = r / 5.0;
        Color::LabColor c0 = mix(corners[0], corners[1], tr); // green 0, blue 0
        Color::LabColor c1 = mix(corners[2], corners[3], tr); // green 1, blue 0
        Color::LabColor c2 = mix(corners[4], corners[5], tr); // green 0, blue 1
        Color::LabColor c3 = mix(corners[6], corners[7], tr); // green 1, blue 1
        for (int g = 0; g < 6; ++g) {
            const double tg = g / 5.0;
            Color::LabColor lowBlue = mix(c0, c1, tg);
            Color::LabColor highBlue = mix(c2, c3, tg);
            for (int b = 0; b < 6; ++b)
                table[static_cast<std::size_t>(16 + 36 * r + 6 * g + b)] =
                    Color::fromLab(mix(lowBlue, highBlue, b / 5.0));
        }
    }
    // The greys stop short of both ends, which the cube already holds.
    for (int i = 0; i < greyCount; ++i)
        table[static_cast<std::size_t>(232 + i)] =
            Color::fromLab(mix(corners[0], corners[7], (i + 1) / (greyCount + 1.0)));
}

} // namespace

Color::LabColor Color::toLab() const {
    const double rgb[3] = {toLinear(red / 65535.0), toLinear(green / 65535.0), toLinear(blue / 65535.0)};
    double f[3];
    for (int row = 0; row < 3; ++row) {
        double v = rgbToXyz[row][0] * rgb[0] + rgbToXyz[row][1] * rgb[1] + rgbToXyz[row][2] * rgb[2];
        f[row] = labF(v / whitePoint[row]);
    }
    return {116.0 * f[1] - 16.0, 500.0 * (f[0] - f[1]), 200.0 * (f[1] - f[2])};
}

Color Color::fromLab(const LabColor& lab) {
    const double fy = (lab.l + 16.0) / 116.0;
    const double f[3] = {fy + lab.a / 500.0, fy, fy - lab.b / 200.0};
    double xyz[3];
    for (int i = 0; i < 3; ++i)
        xyz[i] = labFInverse(f[i]) * whitePoint[i];
    std::uint8_t out[3];
    for (int row = 0; row < 3; ++row) {
        double linear = xyzToRgb[row][0] * xyz[0] + xyzToRgb[row][1] * xyz[1] + xyzToRgb[row][2] * xyz[2];
        out[row] = to8Bit(fromLinear(std::max(linear, 0.0)));
    }
    return fromRgb8(out[0], out[1], out[2]);
}

std::array<Color, 256> Color::ansi256Palette(std::span<const Color> installed, const Color& foreground,
                                             const Color& background, Ansi256PaletteStrategy strategy) {
    std::array<Color, 256> table{};
    if (installed.size() >= table.size()) {
        std::copy_n(installed.begin(), table.size(), table.begin());
        return table;
    }
    for (std::size_t i = 0; i < 16; ++i)
        table[i] = i < installed.size() ? installed[i] : defaultInstalledColors[i];
    // Blending needs the theme's eight base colours; with fewer, the fixed cube serves.
    if (strategy == Ansi256PaletteStrategy::xterm || installed.size() < 8)
        fillXtermEntries(table);
    else
        fillLabEntries(table, installed, foreground, background,
                       strategy == Ansi256PaletteStrategy::base16LabHarmonious);
    return table;
}

std::optional<Color> Color::parse(std::string_view text) {
    if (!text.empty() && text.front() == '#') return parseHashForm(text.substr(1));
    if (startsWithRgbPrefix(text)) return parseRgbForm(text.substr(4));
    return std::nullopt;
}

} // namespace TerminalEngine
