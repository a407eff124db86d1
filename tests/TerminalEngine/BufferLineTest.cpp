// Cell operations of one line: wide characters kept whole across inserts, deletes, erases and
// cuts, margins respected, text extraction, and the generation counter.
#include "TerminalEngine/Model/BufferLine.h"

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

// A line from a pattern: '#' is a wide character (two cells), '.' an empty cell, anything else
// a narrow character.
BufferLine lineFrom(std::string_view pattern) {
    BufferLine line(static_cast<int>(pattern.size() + std::count(pattern.begin(), pattern.end(), '#')));
    int col = 0;
    for (char c : pattern) {
        if (c == '#') {
            line.set(col++, CharData(Attribute::empty(), U'中', 2));
            line.set(col++, CharData(Attribute::empty(), 0, 0));
        } else {
            line.set(col++, CharData(Attribute::empty(), c == '.' ? 0 : c, 1));
        }
    }
    return line;
}

// The inverse, with '?' for a half of a wide character that lost its other half.
std::string pattern(const BufferLine& line) {
    std::string out;
    for (int col = 0; col < line.count(); ++col) {
        const CharData& cell = line[col];
        if (cell.width == 2 && col + 1 < line.count() && line[col + 1].width == 0) {
            out += '#';
            ++col;
        } else {
            out += cell.width != 1 ? '?' : cell.code == 0 ? '.' : static_cast<char>(cell.code);
        }
    }
    return out;
}

TEST(BufferLine, EditsKeepWideCharactersWhole) {
    enum Op { insert, erase, replace, cut };
    struct Case {
        std::string_view line;
        Op op;
        int a, b, rightMargin;
        std::string_view expected;
    };
    const Case cases[] = {
        {"ab#cd", insert, 1, 1, 5, "a.b#c"},   // plain shift, the last cell falls off
        {"ab#cd", insert, 3, 1, 5, "ab...c"},  // inside the wide character: both halves blank
        {"abcd#", insert, 2, 1, 5, "ab.cd."},  // pushed against the edge: blanked whole
        {"a#bcd", insert, 0, 1, 1, ".a.bcd"},  // margin through it: its right half goes too
        {"ab#cd", insert, 1, 2, 3, "a..bcd"},  // cells past the margin stay put
        {"ab#cd", erase, 0, 1, 5, "b#cd."},    // plain shift, blank at the end
        {"ab#cd", erase, 2, 1, 5, "ab.cd."},   // first half deleted
        {"ab#cd", erase, 3, 1, 5, "ab.cd."},   // second half deleted
        {"a#bcd", erase, 0, 1, 1, "...bcd"},   // across the margin it cannot move: blanked
        {"#abc", erase, 0, 1, 4, ".abc."},     // a lone second half at column 0
        {"ab#cd", replace, 0, 3, 0, "....cd"}, // erasing the first half erases the second
        {"ab#cd", replace, 3, 5, 0, "ab...d"}, // and the other way round
        {"ab#cd", cut, 3, 0, 0, "ab."},        // a cut through it leaves no half behind
        {"ab#cd", cut, 4, 0, 0, "ab#"},
        {"ab#", insert, 50, 1, 99, "ab.."}, // positions out of range are clamped
    };
    for (const auto& c : cases) {
        BufferLine line = lineFrom(c.line);
        switch (c.op) {
        case insert: line.insertCells(c.a, c.b, c.rightMargin, CharData::Null); break;
        case erase: line.deleteCells(c.a, c.b, c.rightMargin, CharData::Null); break;
        case replace: line.replaceCells(c.a, c.b, CharData::Null); break;
        case cut: line.resize(c.a, CharData::Null); break;
        }
        EXPECT_EQ(pattern(line), c.expected) << c.line << " op " << c.op << " " << c.a << "," << c.b;
    }
}

TEST(BufferLine, TextEndsAfterTheLastCharacter) {
    BufferLine line = lineFrom("ab#c..");
    Attribute red;
    red.bg = Attribute::Color::ansi256(1);
    line.set(6, CharData(red, 0, 1)); // a coloured blank is not text
    EXPECT_EQ(line.getTrimmedLength(), 5);
    EXPECT_EQ(lineFrom("..#").getTrimmedLength(), 4);
    EXPECT_EQ(line.translateToString(), "ab中c  ");
    EXPECT_EQ(line.translateToString(true), "ab中c");
    EXPECT_EQ(line.translateToString(false, 1, 4), "b中");
    EXPECT_EQ(line.translateToString(false, 0, -1, false), "ab中 c  ");
    EXPECT_EQ(line.translateToString(false, -3, 2), "ab");

    // Codes that are no scalar never turn into malformed UTF-8.
    BufferLine odd(3);
    for (int col = 0; std::int32_t code : {-5, 0xD800, 0x110000})
        odd.set(col++, CharData(Attribute::empty(), code, 1));
    EXPECT_EQ(odd.translateToString(), "   ");
}

TEST(BufferLine, GenerationIncreasesOnEveryWrite) {
    const BufferLine source = lineFrom("xyzxyz");
    const CharData a(Attribute::empty(), 'a', 1);
    const std::function<void(BufferLine&)> writes[] = {
        [&](BufferLine& l) { l.set(1, a); },
        [&](BufferLine& l) { l.fill(a); },
        [&](BufferLine& l) { l.fill(a, 2, 2); },
        [&](BufferLine& l) { l.copyFrom(source); },
        [&](BufferLine& l) { l.copyFrom(source, 0, 3, 2); },
        [&](BufferLine& l) { l.insertCells(1, 1, 5, CharData::Null); },
        [&](BufferLine& l) { l.deleteCells(1, 1, 5, CharData::Null); },
        [&](BufferLine& l) { l.replaceCells(0, 2, CharData::Null); },
        [&](BufferLine& l) { l.resize(9, CharData::Null); },
    };
    for (std::size_t i = 0; i < std::size(writes); ++i) {
        BufferLine line = lineFrom("ab#cd");
        const auto before = line.generation;
        writes[i](line);
        EXPECT_GT(line.generation, before) << "write " << i;
    }
}

} // namespace
} // namespace TerminalEngine
