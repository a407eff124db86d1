// Keys to bytes: the legacy xterm forms and the kitty protocol under each flag combination.
#include "TerminalHarness.h"

#include <sstream>

#include <gtest/gtest.h>

namespace TerminalEngine {
namespace {

using testing::TerminalHarness;
using FK = KittyFunctionalKey;
using M = KittyKeyboardModifiers;
using T = KittyKeyboardEventType;

constexpr M none = M::none, shift = M::shift, alt = M::alt, ctrl = M::ctrl, caps = M::capsLock,
            num = M::numLock;

KittyKeyEvent key(char32_t c, M mods = none, T type = T::press, std::optional<std::string> text = {}) {
    return {KittyKey::unicode(c), mods, type, std::move(text)};
}
KittyKeyEvent fn(FK k, M mods = none, T type = T::press) {
    return {KittyKey::functional(k), mods, type};
}
KittyKeyEvent with(KittyKeyEvent e, std::optional<char32_t> shifted, std::optional<char32_t> base = {}) {
    e.shiftedKey = shifted;
    e.baseLayoutKey = base;
    return e;
}
KittyKeyEvent composing(KittyKeyEvent e) {
    e.composing = true;
    return e;
}

struct KeyCase {
    const char* name;
    int flags;
    KittyKeyEvent event;
    std::string expected;
    bool applicationCursor = false;
    bool applicationKeypad = false;
};

const KeyCase keyCases[] = {
    // Legacy: text, control codes, Alt as an ESC prefix.
    {"LegacyLetter", 0, key('a'), "a"},
    {"LegacyShiftedLetterUsesText", 0, key('a', shift, T::press, "A"), "A"},
    {"LegacyCtrlLetter", 0, key('a', ctrl), "\x01"},
    {"LegacyCtrlSpaceIsNul", 0, key(' ', ctrl), std::string(1, '\0')},
    {"LegacyCtrlBracketIsEscape", 0, key('[', ctrl), "\x1b"},
    {"LegacyCtrlSlashIsUnitSeparator", 0, key('/', ctrl), "\x1f"},
    {"LegacyAltLetter", 0, key('a', alt, T::press, "\xc3\xa5"),
     "\x1b"
     "a"},
    {"LegacyCtrlAltLetter", 0, key('c', ctrl | alt), "\x1b\x03"},
    {"LegacyReleaseSendsNothing", 0, key('a', none, T::release), ""},
    {"LegacyModifierKeySendsNothing", 0, fn(FK::leftShift, shift), ""},
    // Legacy: cursor keys in both modes, with modifiers.
    {"LegacyUpNormal", 0, fn(FK::up), "\x1b[A"},
    {"LegacyUpApplication", 0, fn(FK::up), "\x1bOA", true},
    {"LegacyCtrlUpIgnoresCursorMode", 0, fn(FK::up, ctrl), "\x1b[1;5A", true},
    {"LegacyAltShiftLeft", 0, fn(FK::left, alt | shift), "\x1b[1;4D"},
    {"LegacyKeypadBegin", 0, fn(FK::keypadBegin), "\x1b[E"},
    // Legacy: editing keys.
    {"LegacyDelete", 0, fn(FK::delete_), "\x1b[3~"},
    {"LegacyCtrlDelete", 0, fn(FK::delete_, ctrl), "\x1b[3;5~"},
    {"LegacyInsert", 0, fn(FK::insert), "\x1b[2~"},
    {"LegacyPageUp", 0, fn(FK::pageUp), "\x1b[5~"},
    {"LegacyEnter", 0, fn(FK::enter), "\r"},
    {"LegacyAltEnter", 0, fn(FK::enter, alt), "\x1b\r"},
    {"LegacyShiftTab", 0, fn(FK::tab, shift), "\x1b[Z"},
    {"LegacyBackspace", 0, fn(FK::backspace), "\x7f"},
    {"LegacyCtrlBackspace", 0, fn(FK::backspace, ctrl), "\x08"},
    {"LegacyEscape", 0, fn(FK::escape), "\x1b"},
    // Legacy: function keys, F13 and on in xterm's shifted forms.
    {"LegacyF1", 0, fn(FK::f1), "\x1bOP"},
    {"LegacyShiftF1", 0, fn(FK::f1, shift), "\x1b[1;2P"},
    {"LegacyF5", 0, fn(FK::f5), "\x1b[15~"},
    {"LegacyF12", 0, fn(FK::f12), "\x1b[24~"},
    {"LegacyF13", 0, fn(FK::f13), "\x1b[1;2P"},
    {"LegacyF20", 0, fn(FK::f20), "\x1b[19;2~"},
    {"LegacyCtrlF13", 0, fn(FK::f13, ctrl), "\x1b[1;6P"},
    {"LegacyF25IsCtrlF1", 0, fn(FK::f25), "\x1b[1;5P"},
    // Legacy: keypad in numeric and application modes.
    {"LegacyKeypadDigit", 0, fn(FK::keypad1), "1"},
    {"LegacyKeypadDigitApplication", 0, fn(FK::keypad1), "\x1bOq", false, true},
    {"LegacyKeypadEnter", 0, fn(FK::keypadEnter), "\r"},
    {"LegacyKeypadEnterApplication", 0, fn(FK::keypadEnter), "\x1bOM", false, true},

    // Disambiguate: text stays text, everything ambiguous becomes CSI u.
    {"DisambiguateShiftedLetter", 1, key('a', shift, T::press, "A"), "A"},
    {"DisambiguateCtrlLetter", 1, key('a', ctrl), "\x1b[97;5u"},
    {"DisambiguateCtrlUpperCaseKey", 1, key('A', ctrl), "\x1b[97;5u"},
    {"DisambiguateCtrlShiftLetter", 1, key('a', ctrl | shift), "\x1b[97;6u"},
    {"DisambiguateCapsLockLeftOutOfTextKeys", 1, key('a', ctrl | caps), "\x1b[97;5u"},
    {"DisambiguateEscape", 1, fn(FK::escape), "\x1b[27u"},
    {"DisambiguateEnterStaysLegacy", 1, fn(FK::enter), "\r"},
    {"DisambiguateEnterWithNumLockStaysLegacy", 1, fn(FK::enter, num), "\r"},
    {"DisambiguateCtrlEnter", 1, fn(FK::enter, ctrl), "\x1b[13;5u"},
    {"DisambiguateShiftTab", 1, fn(FK::tab, shift), "\x1b[9;2u"},
    {"DisambiguateBackspace", 1, fn(FK::backspace), "\x7f"},
    {"DisambiguateUpKeepsCursorMode", 1, fn(FK::up), "\x1bOA", true},
    {"DisambiguateNumLockUp", 1, fn(FK::up, num), "\x1b[1;129A"},
    {"DisambiguateShiftF3", 1, fn(FK::f3, shift), "\x1b[13;2~"},
    {"DisambiguateF13", 1, fn(FK::f13), "\x1b[57376u"},
    {"DisambiguateKeypadDigit", 1, fn(FK::keypad1), "\x1b[57400u"},
    {"DisambiguateReleaseDropped", 1, key('a', ctrl, T::release), ""},
    {"DisambiguateModifierKeyDropped", 1, fn(FK::leftControl, ctrl), ""},
    {"DisambiguateComposingDropped", 1, composing(key('a')), ""},

    // Event types.
    {"EventsRepeatOfCtrlLetter", 3, key('a', ctrl, T::repeatPress), "\x1b[97;5:2u"},
    {"EventsReleaseOfCtrlLetter", 3, key('a', ctrl, T::release), "\x1b[97;5:3u"},
    {"EventsReleaseOfTextKey", 3, key('a', none, T::release), "\x1b[97;1:3u"},
    {"EventsRepeatOfTextKeyIsText", 3, key('a', none, T::repeatPress), "a"},
    {"EventsReleaseOfEnterDropped", 3, fn(FK::enter, none, T::release), ""},
    {"EventsPressOfUpIsLegacy", 3, fn(FK::up), "\x1b[A"},
    {"EventsRepeatOfUp", 3, fn(FK::up, none, T::repeatPress), "\x1b[1;1:2A"},
    {"EventsWithoutDisambiguate", 2, key('a', none, T::release), "\x1b[97;1:3u"},

    // All keys as escape codes.
    {"AllKeysLetter", 9, key('a'), "\x1b[97u"},
    {"AllKeysShiftedLetter", 9, key('a', shift, T::press, "A"), "\x1b[97;2u"},
    {"AllKeysCapsLockReported", 9, key('a', caps), "\x1b[97;65u"},
    {"AllKeysEnter", 9, fn(FK::enter), "\x1b[13u"},
    {"AllKeysBackspace", 9, fn(FK::backspace), "\x1b[127u"},
    {"AllKeysUp", 9, fn(FK::up), "\x1b[A"},
    {"AllKeysF3", 9, fn(FK::f3), "\x1b[13~"},
    {"AllKeysLeftShift", 9, fn(FK::leftShift, shift), "\x1b[57441;2u"},
    {"AllKeysComposingModifierKey", 9, composing(fn(FK::rightAlt, alt)), "\x1b[57449;3u"},
    {"AllKeysComposingLetterDropped", 9, composing(key('a')), ""},
    {"AllKeysReleaseNeedsEvents", 9, key('a', none, T::release), ""},

    // Alternate keys.
    {"AlternatesShifted", 13, with(key('a', shift, T::press, "A"), U'A'), "\x1b[97:65;2u"},
    {"AlternatesShiftedOnlyWithShift", 13, with(key('a'), U'A'), "\x1b[97u"},
    {"AlternatesBaseOnly", 13, with(key(U'\u0444'), {}, U'a'), "\x1b[1092::97u"},
    {"AlternatesBoth", 13, with(key(U'\u0444', shift), U'\u0424', U'a'), "\x1b[1092:1060:97;2u"},
    {"AlternatesIgnoredWithoutFlag", 9, with(key('a', shift), U'A'), "\x1b[97;2u"},

    // Associated text.
    {"TextWithoutModifiers", 25, key('a', none, T::press, "a"), "\x1b[97;;97u"},
    {"TextWithShift", 25, key('a', shift, T::press, "A"), "\x1b[97;2;65u"},
    {"TextOfSeveralScalars", 25, key('e', none, T::press, "e\xcc\x81"), "\x1b[101;;101:769u"},
    {"ControlTextLeftOut", 25, key('a', ctrl, T::press, "\x01"), "\x1b[97;5u"},
    {"NoTextOnRelease", 31, with(key('a', shift, T::release, "A"), U'A'), "\x1b[97:65;2:3u"},
    {"TextNeedsAllKeys", 17, key('a', none, T::press, "a"), "a"},
};

TEST(KeyEncoding, GivesTheBytesTheProgramAskedFor) {
    for (const KeyCase& c : keyCases) {
        TerminalHarness h;
        h.terminal->keyboardMode().flags = c.flags;
        h.terminal->applicationCursor = c.applicationCursor;
        h.terminal->applicationKeypad = c.applicationKeypad;
        EXPECT_EQ(h.terminal->encodeKey(c.event), c.expected) << c.name;
    }
}

// The fields of a "CSI code[:shifted[:base]] ; mods[:event] ; text final" reply.
struct CsiKey {
    std::vector<std::vector<std::string>> fields; // by ";", each split at ":"
    char final = 0;
};

std::optional<CsiKey> parseCsiKey(const std::string& bytes) {
    if (bytes.size() < 3 || !bytes.starts_with("\x1b[")) return std::nullopt;
    CsiKey out{{}, bytes.back()};
    std::istringstream body(bytes.substr(2, bytes.size() - 3));
    for (std::string field; std::getline(body, field, ';');) {
        std::istringstream parts(field + ":");
        out.fields.emplace_back();
        for (std::string part; std::getline(parts, part, ':');)
            out.fields.back().push_back(part);
    }
    return out;
}

// Every combination of the five flags, for keys of each kind and each event type: what may be
// reported at all, and that each field of a CSI reply is there exactly when its flag asks for it
// and says what the event was.
TEST(KeyEncoding, EveryFlagCombinationKeepsTheFieldsToTheirFlags) {
    const KittyKeyEvent samples[] = {
        key('a', ctrl),
        key('a', ctrl, T::repeatPress),
        key('a', ctrl | alt, T::release),
        with(key('a', shift, T::press, "A"), U'A', U'a'),
        key('a', none, T::press, "a"),
        key('a', none, T::release, "a"),
        fn(FK::escape),
        fn(FK::enter),
        fn(FK::enter, none, T::release),
        fn(FK::backspace, ctrl),
        fn(FK::up, shift, T::repeatPress),
        fn(FK::f5, alt),
        fn(FK::keypad1),
        fn(FK::leftShift, shift),
        fn(FK::leftShift, none, T::release),
        composing(key('a')),
    };
    for (int flags = 0; flags < 32; ++flags) {
        TerminalHarness h;
        h.terminal->keyboardMode().flags = flags;
        const bool reportsEvents = flags & 2, alternates = flags & 4, allKeys = flags & 8, text = flags & 16;
        for (std::size_t i = 0; i < std::size(samples); ++i) {
            const KittyKeyEvent& e = samples[i];
            SCOPED_TRACE(::testing::Message() << "flags " << flags << ", event " << i);
            std::optional<std::string> bytes = h.terminal->encodeKittyKey(e);
            if (flags == 0) {
                EXPECT_EQ(bytes, std::nullopt);
                continue;
            }
            ASSERT_TRUE(bytes.has_value());
            const bool release = e.eventType == T::release;
            const bool functional = e.key.kind() == KittyKey::Kind::functional;
            const bool modifierKey = functional && isKittyModifierKey(e.key.functionalKey());
            if ((release && !reportsEvents) || (modifierKey && !allKeys) || (e.composing && !modifierKey)) {
                EXPECT_EQ(*bytes, "");
                continue;
            }
            auto csi = parseCsiKey(*bytes);
            if (allKeys) {
                ASSERT_TRUE(csi) << "every key is an escape code: " << *bytes;
            }
            if (!csi) continue; // text or a legacy form, only without reportAllKeys
            KittyKeyCode code = functional ? kittyKeyCode(e.key.functionalKey()) : KittyKeyCode{'a', 'u'};
            EXPECT_EQ(csi->final, code.final);
            const auto& keyField = csi->fields[0];
            if (!(code.number == 1 && keyField[0].empty())) {
                EXPECT_EQ(keyField[0], std::to_string(code.number));
            }
            if (!alternates) {
                EXPECT_EQ(keyField.size(), 1u);
            }
            const int modifiers = 1 + static_cast<int>(e.modifiers);
            const int eventCode = e.eventType == T::press ? 1 : e.eventType == T::repeatPress ? 2 : 3;
            if (csi->fields.size() > 1 && !csi->fields[1][0].empty()) {
                EXPECT_EQ(csi->fields[1][0], std::to_string(modifiers));
                if (csi->fields[1].size() > 1) {
                    EXPECT_TRUE(reportsEvents);
                    EXPECT_EQ(csi->fields[1][1], std::to_string(eventCode));
                }
            } else {
                EXPECT_EQ(modifiers, 1);
            }
            if (reportsEvents && eventCode != 1) {
                ASSERT_GT(csi->fields.size(), 1u);
                ASSERT_EQ(csi->fields[1].size(), 2u);
            }
            if (csi->fields.size() > 2) {
                EXPECT_TRUE(text && allKeys) << *bytes;
            }
        }
    }
}

TEST(KeyEncoding, AStreamOfPushesKeepsABoundedStack) {
    TerminalHarness h;
    std::string pushes;
    for (std::size_t i = 0; i < maximumKeyboardStackDepth + 100; ++i)
        pushes += i % 2 ? "\x1b[>1u" : "\x1b[>3u";
    h.feed(pushes);
    EXPECT_EQ(h.terminal->keyboardMode().stack.size(), maximumKeyboardStackDepth);
    EXPECT_EQ(h.terminal->keyboardMode().stack.back(), 3);
    h.feed("\x1b[<1u\x1b[?u");
    EXPECT_EQ(h.takeSent(), "\x1b[?3u");
}

// Modes set by the program or the person that change what a key sends.
TEST(KeyEncoding, ModesOfTheScreenAndOptionsChangeTheBytes) {
    struct Case {
        const char* name;
        const char* feed;
        LegacyKeyOptions options;
        KittyKeyEvent event;
        std::string expected;
    };
    const Case cases[] = {
        {"flags of the alternate screen", "\x1b[?1049h\x1b[>1u", {}, key('a', ctrl), "\x1b[97;5u"},
        {"main screen keeps its own", "\x1b[?1049h\x1b[>1u\x1b[?1049l", {}, key('a', ctrl), "\x01"},
        {"alt without escape prefix",
         "",
         {.altSendsEscape = false},
         key('a', alt, T::press, "\xc3\xa5"),
         "\xc3\xa5"},
        {"enter in new line mode", "\x1b[20h", {}, fn(FK::enter), "\r\n"},
    };
    for (const Case& c : cases) {
        TerminalHarness h;
        h.feed(c.feed);
        EXPECT_EQ(h.terminal->encodeKey(c.event, c.options), c.expected) << c.name;
    }
}

TEST(KeyEncoding, SendKeyReachesTheDelegateOnlyWhenThereAreBytes) {
    TerminalHarness h;
    EXPECT_TRUE(h.terminal->sendKey(fn(FK::up, ctrl)));
    EXPECT_FALSE(h.terminal->sendKey(key('a', none, T::release)));
    EXPECT_EQ(h.takeSent(), "\x1b[1;5A");
}

} // namespace
} // namespace TerminalEngine
