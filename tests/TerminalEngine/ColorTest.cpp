// Colours: component scaling, CIELAB conversion, the 256-colour table strategies and colour
// name parsing.
#include "TerminalEngine/Model/Color.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

Color rgb(std::uint32_t hex) {
    return Color::fromRgb8(static_cast<std::uint8_t>(hex >> 16), static_cast<std::uint8_t>(hex >> 8),
                           static_cast<std::uint8_t>(hex));
}

// Equal to within one step of 8 bits per component: the Lab round trip rounds.
bool near(const Color& a, const Color& b) {
    auto close = [](int x, int y) { return std::abs((x >> 8) - (y >> 8)) <= 1; };
    return close(a.red, b.red) && close(a.green, b.green) && close(a.blue, b.blue);
}

const std::vector<Color> lightTheme = {rgb(0xeee8d5), rgb(0xdc322f), rgb(0x859900), rgb(0xb58900),
                                       rgb(0x268bd2), rgb(0xd33682), rgb(0x2aa198), rgb(0x073642)};
const Color lightForeground = rgb(0x333333);
const Color lightBackground = rgb(0xfdf6e3);

TEST(Color, ComponentsScaleToSixteenBits) {
    EXPECT_EQ(Color::fromRgb8(0xFF, 0x80, 0x00), Color(0xFFFF, 0x8080, 0x0000));
    EXPECT_EQ(Color::fromRgb4(0xF, 0xA, 0x1), Color(0xF0F0, 0xA0A0, 0x1010));
    std::unordered_set<Color> set{rgb(0x123456), rgb(0x123456), rgb(0x654321)};
    EXPECT_EQ(set.size(), 2u);
}

TEST(Color, LabConversionMatchesReferenceValues) {
    struct Case {
        std::uint32_t color;
        double l, a, b;
    };
    const Case cases[] = {
        {0xffffff, 100.0, 0.0, 0.0},       {0x000000, 0.0, 0.0, 0.0},   {0xff0000, 53.24, 80.09, 67.20},
        {0x0000ff, 32.30, 79.19, -107.86}, {0x808080, 53.59, 0.0, 0.0},
    };
    for (const auto& c : cases) {
        auto lab = rgb(c.color).toLab();
        EXPECT_NEAR(lab.l, c.l, 0.05) << std::hex << c.color;
        EXPECT_NEAR(lab.a, c.a, 0.05) << std::hex << c.color;
        EXPECT_NEAR(lab.b, c.b, 0.05) << std::hex << c.color;
    }
    for (std::uint32_t color : {0x000000u, 0xffffffu, 0x123456u, 0xdc322fu, 0x00ff7fu, 0x7f7f7fu})
        EXPECT_EQ(Color::fromLab(rgb(color).toLab()), rgb(color)) << std::hex << color;
    // Out of gamut clamps instead of wrapping.
    EXPECT_EQ(Color::fromLab({150, 0, 0}), rgb(0xffffff));
    EXPECT_EQ(Color::fromLab({-20, 0, 0}), rgb(0x000000));
}

// With the default colours: the xterm table has the fixed cube and grey ramp, the blended one has
// the theme's colours at the cube's corners (index 16 + 36 r + 6 g + b, r, g, b in {0, 5}; ANSI bit 0
// is red). Both keep the sixteen base colours.
TEST(Color, XtermTableIsTheFixedCubeAndBlendedOneHasTheThemeAtTheCorners) {
    const auto installed = Color::defaultInstalledColors;
    const auto palette = [&](Ansi256PaletteStrategy strategy) {
        return Color::ansi256Palette(installed, Color::defaultForeground, Color::defaultBackground, strategy);
    };
    const auto xterm = palette(Ansi256PaletteStrategy::xterm),
               lab = palette(Ansi256PaletteStrategy::base16Lab);
    const std::pair<std::size_t, std::uint32_t> fixed[] = {
        {16, 0x000000},  {17, 0x00005f},  {21, 0x0000ff},  {22, 0x005f00},  {46, 0x00ff00},
        {52, 0x5f0000},  {88, 0x870000},  {124, 0xaf0000}, {160, 0xd70000}, {196, 0xff0000},
        {231, 0xffffff}, {232, 0x080808}, {244, 0x808080}, {255, 0xeeeeee},
    };
    for (const auto& [index, expected] : fixed)
        EXPECT_EQ(xterm[index], rgb(expected)) << index;
    const std::pair<std::size_t, Color> corners[] = {{16, Color::defaultBackground},
                                                     {196, installed[1]},
                                                     {46, installed[2]},
                                                     {226, installed[3]},
                                                     {21, installed[4]},
                                                     {201, installed[5]},
                                                     {51, installed[6]},
                                                     {231, Color::defaultForeground}};
    for (const auto& [index, expected] : corners)
        EXPECT_TRUE(near(lab[index], expected)) << index;
    for (std::size_t i = 0; i < 16; ++i) {
        EXPECT_EQ(xterm[i], installed[i]) << i;
        EXPECT_EQ(lab[i], installed[i]) << i;
    }
}

TEST(Color, Base16LabWithFewerThanEightColoursIsTheXtermTable) {
    const std::vector<Color> installed(lightTheme.begin(), lightTheme.begin() + 7);
    for (auto strategy : {Ansi256PaletteStrategy::base16Lab, Ansi256PaletteStrategy::base16LabHarmonious}) {
        auto blended = Color::ansi256Palette(installed, lightForeground, lightBackground, strategy);
        auto fixed =
            Color::ansi256Palette(installed, lightForeground, lightBackground, Ansi256PaletteStrategy::xterm);
        EXPECT_EQ(blended, fixed);
        EXPECT_EQ(blended[3], lightTheme[3]);
        EXPECT_EQ(blended[12], Color::defaultInstalledColors[12])
            << "missing base colours come from the defaults";
    }
    // A host that installs all 256 colours gets them as they stand.
    std::vector<Color> full;
    for (int i = 0; i < 256; ++i)
        full.push_back(Color(static_cast<std::uint16_t>(i), 1, 2));
    auto table =
        Color::ansi256Palette(full, lightForeground, lightBackground, Ansi256PaletteStrategy::base16Lab);
    EXPECT_TRUE(std::equal(table.begin(), table.end(), full.begin()));
}

TEST(Color, Base16LabRunsDarkToLightEvenForALightTheme) {
    auto lightness = [](const Color& c) { return c.toLab().l; };
    const auto swapped = Color::ansi256Palette(lightTheme, lightForeground, lightBackground,
                                               Ansi256PaletteStrategy::base16Lab);
    EXPECT_TRUE(near(swapped[16], lightForeground));
    EXPECT_TRUE(near(swapped[231], lightBackground));
    for (int i = 232; i < 255; ++i)
        EXPECT_LT(lightness(swapped[static_cast<std::size_t>(i)]),
                  lightness(swapped[static_cast<std::size_t>(i) + 1]))
            << i;

    const auto themed = Color::ansi256Palette(lightTheme, lightForeground, lightBackground,
                                              Ansi256PaletteStrategy::base16LabHarmonious);
    EXPECT_TRUE(near(themed[16], lightBackground));
    EXPECT_TRUE(near(themed[231], lightForeground));
    EXPECT_GT(lightness(themed[232]), lightness(themed[255]));
    // Only the ends swap: the coloured corners stay where the theme put them.
    EXPECT_EQ(swapped[196], themed[196]);
}

TEST(Color, ParsesColourNames) {
    struct Case {
        std::string_view text;
        std::optional<Color> expected;
    };
    const Case cases[] = {
        {"#abc", Color(0xAAAA, 0xBBBB, 0xCCCC)},
        {"#a0b1c2", Color(0xA0A0, 0xB1B1, 0xC2C2)},
        {"#abcdef012", Color(0xABCA, 0xDEFD, 0x0120)},
        {"#0123456789ab", Color(0x0123, 0x4567, 0x89AB)},
        {"rgb:f/0/8", Color(0xFFFF, 0x0000, 0x8888)},
        {"rgb:ffff/8000/0001", Color(0xFFFF, 0x8000, 0x0001)},
        {"RGB:1/2/3", Color(0x1111, 0x2222, 0x3333)},
        // Every part is scaled as if it had as many digits as the longest one.
        {"rgb:f/ff/fff", Color(0x00F0, 0x0FF0, 0xFFFF)},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Color::parse(c.text), c.expected) << '"' << c.text << '"';
    for (const char* text : {"", "#ab", "#abcd", "#ggg", " #abc", "#abc ", "rgb:1/2", "rgb:1/2/3/4",
                             "rgb:1/2/", "rgb:12345/0/0", "rgb:0x1/0/0", "red"})
        EXPECT_EQ(Color::parse(text), std::nullopt) << '"' << text << '"';
}

} // namespace
} // namespace TerminalEngine
