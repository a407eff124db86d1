// The parser on its own (no terminal: everything reaches the fallbacks) and through a terminal.
#include "TerminalEngine/Parser/EscapeSequenceParser.h"

#include "TerminalHarness.h"

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

// A parser with no terminal, recording what reaches its handlers.
struct Recorder {
    EscapeSequenceParser parser{nullptr};
    std::vector<std::string> events;

    Recorder() {
        parser.printHandler = [this](ByteSpan d) { events.push_back("print:" + text(d)); };
        parser.executeHandlerFallback = [this](std::uint8_t c) {
            events.push_back("exec:" + std::to_string(c));
        };
        parser.csiHandlerFallback = [this](Params pars, std::string_view collect, std::uint8_t final) {
            std::string p;
            for (std::size_t i = 0; i < pars.size(); ++i)
                p += (i ? "," : "") + std::to_string(pars[i]);
            events.push_back("csi:" + std::string(collect) + "[" + p + "]" + static_cast<char>(final) + ":" +
                             std::string(parser.parsTxt()));
        };
        parser.escHandlerFallback = [this](std::string_view collect, std::uint8_t final) {
            events.push_back("esc:" + std::string(collect) + static_cast<char>(final));
        };
        parser.oscHandlerFallback = [this](std::int64_t n, ByteSpan d) {
            events.push_back("osc:" + std::to_string(n) + ":" + text(d));
        };
        parser.apcHandlerFallback = [this](std::uint8_t code, ByteSpan d) {
            events.push_back("apc:" + std::string(1, static_cast<char>(code)) + ":" + text(d));
        };
        parser.errorHandler = [this](ParsingState s) {
            events.push_back("error:" + std::to_string(s.code));
            return s;
        };
    }
    static std::string text(ByteSpan d) {
        return std::string(reinterpret_cast<const char*>(d.data()), d.size());
    }
    Recorder& feed(std::string_view s) {
        parser.parse({reinterpret_cast<const std::uint8_t*>(s.data()), s.size()});
        return *this;
    }
};

TEST(EscapeSequenceParser, HugeParameterWrapsToZeroInsteadOfOverflowing) {
    Recorder r;
    // Eighteen nines pass the clamp and wrap to 0; the last two digits start again from there.
    r.feed("\x1b[99999999999999999999m\x1b[999999999999999999m");
    EXPECT_EQ(r.events, (std::vector<std::string>{"csi:[99]m:", "csi:[0]m:"}));
}

TEST(EscapeSequenceParser, ColonKeepsSubparametersAndRecordsSeparator) {
    Recorder r;
    r.feed("\x1b[1:2m");
    EXPECT_EQ(r.events, std::vector<std::string>{"csi:[1,2]m::"});
}

TEST(EscapeSequenceParser, ColonRightAfterCsiIsAnErrorThatReturnsToGround) {
    Recorder r;
    r.feed("\x1b[:5mA");
    ASSERT_GE(r.events.size(), 2u);
    EXPECT_EQ(r.events[0], "error:58");
    EXPECT_EQ(r.parser.state(), ParserState::ground);
    EXPECT_EQ(r.events.back(), "print:5mA");
}

TEST(EscapeSequenceParser, TenThousandParametersAreKept) {
    std::string seq = "\x1b[";
    for (int i = 0; i < 10000; ++i)
        seq += (i ? ";" : "") + std::to_string(i % 10);
    seq += "m";
    EscapeSequenceParser parser(nullptr);
    std::size_t count = 0;
    parser.csiHandlerFallback = [&](Params pars, std::string_view, std::uint8_t) { count = pars.size(); };
    parser.parse({reinterpret_cast<const std::uint8_t*>(seq.data()), seq.size()});
    EXPECT_EQ(count, 10000u);
}

TEST(EscapeSequenceParser, OscWithoutLeadingDigitsIsNumberZero) {
    Recorder r;
    r.feed("\x1b]foo;bar\x07");
    EXPECT_EQ(r.events, std::vector<std::string>{"osc:0:bar"});
}

TEST(EscapeSequenceParser, OscEndedByStringTerminatorDispatchesOnceAndEatsBackslash) {
    Recorder r;
    r.feed("\x1b]0;text\x1b\\after");
    // Without a terminal the backslash reaches the ESC fallback; with one it is a no-op.
    EXPECT_EQ(r.events, (std::vector<std::string>{"osc:0:text", "esc:\\", "print:after"}));
    testing::TerminalHarness h;
    h.feed("\x1b]0;text\x1b\\after");
    EXPECT_EQ(h.delegate->titles, std::vector<std::string>{"text"});
    EXPECT_EQ(h.row(0), "after");
}

TEST(EscapeSequenceParser, OscResumesAcrossReads) {
    Recorder r;
    r.feed("\x1b]2;hel").feed("lo wor").feed("ld\x07");
    EXPECT_EQ(r.events, std::vector<std::string>{"osc:2:hello world"});
}

TEST(EscapeSequenceParser, SubInsideOscIsDroppedAndCanAbandonsIt) {
    Recorder r;
    r.feed("\x1b]2;a\x1a"
           "b\x07");
    EXPECT_EQ(r.events, std::vector<std::string>{"osc:2:ab"});
    Recorder c;
    c.feed("\x1b]2;ab\x18"
           "x");
    EXPECT_EQ(c.events, std::vector<std::string>{"print:x"});
}

TEST(EscapeSequenceParser, ByteC1StringTerminatorInsideOscTextStaysAsText) {
    // "\xe2\x80\x9c" is a left double quotation mark whose last byte is 0x9C.
    Recorder r;
    r.feed("\x1b]2;\xe2\x80\x9cq\xe2\x80\x9d\x07");
    EXPECT_EQ(r.events, std::vector<std::string>{"osc:2:\xe2\x80\x9cq\xe2\x80\x9d"});
}

TEST(EscapeSequenceParser, LoneEmInsideCsiLosesTheSequence) {
    Recorder r;
    r.feed("\x1b[3\x19"
           "1mX");
    EXPECT_EQ(r.events.front(), "error:25");
    EXPECT_EQ(r.events.back(), "print:1mX");
}

TEST(EscapeSequenceParser, C1BytesAtGroundAreText) {
    Recorder r;
    r.feed("a\x85\x9b"
           "b");
    EXPECT_EQ(r.events, std::vector<std::string>{"print:a\x85\x9b"
                                                 "b"});
}

TEST(EscapeSequenceParser, DcsWithoutHandlerSwallowsUntilStringTerminator) {
    Recorder r;
    r.feed("\x1bPzabc\x1b[31mdef\x1b\\tail");
    // ESC inside the passthrough ends the string; the rest is an ordinary CSI.
    EXPECT_EQ(r.events.back(), "print:tail");
    Recorder quiet;
    quiet.feed("\x1bP1$zjunk junk\x1b\\ok");
    EXPECT_EQ(quiet.events, (std::vector<std::string>{"esc:\\", "print:ok"}));
}

TEST(EscapeSequenceParser, ControlsInsideCsiExecuteWithoutEndingIt) {
    Recorder r;
    r.feed("\x1b[1\r2H");
    EXPECT_EQ(r.events, (std::vector<std::string>{"exec:13", "csi:[12]H:"}));
}

TEST(EscapeSequenceParser, ApcCarriesItsCommandByte) {
    Recorder r;
    r.feed("\x1b_Xpayload\x07");
    EXPECT_EQ(r.events, std::vector<std::string>{"apc:X:payload"});
}

TEST(EscapeSequenceParser, EscapeWithIntermediatesReachesFallback) {
    Recorder r;
    r.feed("\x1b(0\x1b#8\x1b%G");
    EXPECT_EQ(r.events, (std::vector<std::string>{"esc:(0", "esc:#8", "esc:%G"}));
}

TEST(EscapeSequenceParser, PrintRunIsOneSliceWithUtf8Intact) {
    Recorder r;
    r.feed("héllo wörld \xe4\xb8\xad");
    EXPECT_EQ(r.events, std::vector<std::string>{"print:héllo wörld \xe4\xb8\xad"});
}

TEST(EscapeSequenceParser, AbortFromErrorHandlerStopsParsing) {
    Recorder r;
    r.parser.errorHandler = [](ParsingState s) {
        s.abort = true;
        return s;
    };
    r.feed("a\x1b[:bc");
    EXPECT_EQ(r.events, std::vector<std::string>{"print:a"});
}

TEST(EscapeSequenceParser, EveryReadSplitGivesTheSameScreen) {
    const char* streams[] = {
        "plain \x1b[1;31mred\x1b[0m text\r\nnext \x1b]0;title\x07 line\r\n",
        "\x1b[2J\x1b[5;10Hxy\x1b[?25l\x1b[?2004h\x1b]2;na\xc3\xafve\x1b\\",
        "wide \xe4\xb8\xad\xe6\x96\x87 and e\xcc\x81 and \xf0\x9f\x98\x80 done",
        "\x1bP$q\"p\x1b\\\x1b[6n\x1b[c\x1b[>c",
        "\x1b(0lqqk\x1b(B\x1b[3;5r\x1b[4H\n\n\n\x1bM",
        "\x1b[38;5;123;48;5;7;1;3;4mA\x1b[38:2::10:200:3mB\x1b[0m\x1b[12;345Hc\x1b[1234567;2Hd\x1b[?1049h",
        "\x1b[7;1Hx\x1b[8;2Hy\r\ne\xcc\x81\x65\xcc\x81\xe4\xb8\xad\x7f\xe2\x94\x80",
        "\x1b[48;5;9;38;2;1;2;3;1mA\x1b[38;5;12;6;1000mB\x1b[32mC\x1b[38;7;1mD\x1b[48;5;1:2;4mE\x1b[mF",
        // Short sequences read in registers when enough bytes follow, and the shapes that must
        // go back to the general reader: more than four digits, a third parameter, a colon, a
        // marker, an intermediate, a control or a high byte inside.
        ("\x1b[;5Ha\x1b[5;Hb\x1b[Hc\x1b[3Hd\x1b[1234567;2He\x1b[12345678;3Hf\x1b[2;3;4Hg\x1b[5:3mh"
         "\x1b[2 qi\x1b[?5;6hj\x1b[4\n;6Hk\x1b[4;6\xc3Hl\x1b[1;31mm\x1b[;mn\x1b[5;7Xp\x1b[0000009;12Hq"
         "\x1b[2;3rr\x1b[31ms\x1b[1;2;3mt and text enough to read every sequence above in registers"),
        // A UTF-8 sequence cut short by a control, then plain text after a cursor move; insert mode
        // and margins switched on and off between characters.
        ("a\xc3\x1b[5;5Hx\xe4\xb8\x1b[2;2Hy\x1b[4hz\x1b[2;2Hw\x1b[4l\x1b[?69h\x1b[2;5s\x1b[3;3Hlong enough "
         "to pass the margin\x1b[?69lv and more text after it"),
    };
    for (const char* s : streams)
        EXPECT_EQ(testing::firstSplitThatDiffers(s), -1) << s;
}

} // namespace
} // namespace TerminalEngine
