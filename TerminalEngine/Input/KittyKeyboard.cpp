// The functional key table of the kitty keyboard protocol: each key's number and final byte.
#include "TerminalEngine/Input/KittyKeyboard.h"

#include <array>

namespace TerminalEngine {
namespace {

using K = KittyFunctionalKey;

constexpr std::size_t keyCount = static_cast<std::size_t>(K::isoLevel5Shift) + 1;

// Indexed by KittyFunctionalKey. Keys with a legacy letter or tilde form keep it, so that a
// program that only half understands the protocol still reads arrows and function keys.
constexpr std::array<KittyKeyCode, keyCount> codeTable = [] {
    std::array<KittyKeyCode, keyCount> t{};
    auto set = [&](K key, std::uint32_t number, char final) {
        t[static_cast<std::size_t>(key)] = {number, final};
    };
    set(K::escape, 27, 'u');
    set(K::enter, 13, 'u');
    set(K::tab, 9, 'u');
    set(K::backspace, 127, 'u');
    set(K::insert, 2, '~');
    set(K::delete_, 3, '~');
    set(K::up, 1, 'A');
    set(K::down, 1, 'B');
    set(K::left, 1, 'D');
    set(K::right, 1, 'C');
    set(K::home, 1, 'H');
    set(K::end, 1, 'F');
    set(K::pageUp, 5, '~');
    set(K::pageDown, 6, '~');
    set(K::f1, 1, 'P');
    set(K::f2, 1, 'Q');
    set(K::f3, 13, '~'); // "CSI R" would read as a cursor position report
    set(K::f4, 1, 'S');
    set(K::f5, 15, '~');
    set(K::f6, 17, '~');
    set(K::f7, 18, '~');
    set(K::f8, 19, '~');
    set(K::f9, 20, '~');
    set(K::f10, 21, '~');
    set(K::f11, 23, '~');
    set(K::f12, 24, '~');
    for (int i = 0; i <= static_cast<int>(K::f35) - static_cast<int>(K::f13); ++i)
        set(static_cast<K>(static_cast<int>(K::f13) + i), 57376 + static_cast<std::uint32_t>(i), 'u');
    set(K::capsLock, 57358, 'u');
    set(K::scrollLock, 57359, 'u');
    set(K::numLock, 57360, 'u');
    set(K::printScreen, 57361, 'u');
    set(K::pause, 57362, 'u');
    set(K::menu, 57363, 'u');
    // Keypad, media, volume and modifier keys run on from 57399 in declaration order.
    for (int k = static_cast<int>(K::keypad0); k <= static_cast<int>(K::isoLevel5Shift); ++k)
        set(static_cast<K>(k), 57399 + static_cast<std::uint32_t>(k - static_cast<int>(K::keypad0)), 'u');
    return t;
}();

static_assert(codeTable[static_cast<std::size_t>(K::keypadBegin)].number == 57427);
static_assert(codeTable[static_cast<std::size_t>(K::mediaPlay)].number == 57428);
static_assert(codeTable[static_cast<std::size_t>(K::volumeMute)].number == 57440);
static_assert(codeTable[static_cast<std::size_t>(K::leftShift)].number == 57441);
static_assert(codeTable[static_cast<std::size_t>(K::rightMeta)].number == 57452);
static_assert(codeTable[static_cast<std::size_t>(K::isoLevel5Shift)].number == 57454);
static_assert(codeTable[static_cast<std::size_t>(K::f35)].number == 57398);

} // namespace

KittyKeyCode kittyKeyCode(KittyFunctionalKey key) {
    auto index = static_cast<std::size_t>(key);
    return index < codeTable.size() ? codeTable[index] : KittyKeyCode{};
}

bool isKittyModifierKey(KittyFunctionalKey key) {
    return key >= K::leftShift && key <= K::isoLevel5Shift;
}

} // namespace TerminalEngine
