// Key events as the view hands them to the terminal, and the kitty keyboard protocol's flags,
// modifiers and functional key codes (the published numbering).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

namespace TerminalEngine {

// Progressive enhancements a program can ask for (CSI > flags u).
enum class KittyKeyboardFlags : std::int32_t {
    none = 0,
    disambiguate = 1,
    reportEvents = 2,
    reportAlternates = 4,
    reportAllKeys = 8,
    reportText = 16,
    knownMask = 31,
};

enum class KittyKeyboardModifiers : std::uint8_t {
    none = 0,
    shift = 1,
    alt = 2,
    ctrl = 4,
    super = 8,
    hyper = 16,
    meta = 32,
    capsLock = 64,
    numLock = 128,
};

template <typename E>
struct IsKittyOptionSet : std::false_type {};
template <>
struct IsKittyOptionSet<KittyKeyboardFlags> : std::true_type {};
template <>
struct IsKittyOptionSet<KittyKeyboardModifiers> : std::true_type {};

template <typename E>
requires IsKittyOptionSet<E>::value constexpr E operator|(E a, E b) {
    using U = std::underlying_type_t<E>;
    return static_cast<E>(static_cast<U>(a) | static_cast<U>(b));
}
template <typename E>
requires IsKittyOptionSet<E>::value constexpr E operator&(E a, E b) {
    using U = std::underlying_type_t<E>;
    return static_cast<E>(static_cast<U>(a) & static_cast<U>(b));
}
template <typename E>
requires IsKittyOptionSet<E>::value constexpr E operator~(E a) {
    using U = std::underlying_type_t<E>;
    return static_cast<E>(static_cast<U>(~static_cast<U>(a)));
}
template <typename E>
requires IsKittyOptionSet<E>::value constexpr E& operator|=(E& a, E b) {
    return a = a | b;
}
template <typename E>
requires IsKittyOptionSet<E>::value constexpr bool has(E set, E flag) {
    return (set & flag) == flag && flag != E{};
}

enum class KittyKeyboardEventType : std::uint8_t { press, repeatPress, release };

// Keys that produce no text of their own, in the protocol's order.
enum class KittyFunctionalKey : std::uint8_t {
    escape,
    enter,
    tab,
    backspace,
    insert,
    delete_,
    up,
    down,
    left,
    right,
    home,
    end,
    pageUp,
    pageDown,
    f1,
    f2,
    f3,
    f4,
    f5,
    f6,
    f7,
    f8,
    f9,
    f10,
    f11,
    f12,
    f13,
    f14,
    f15,
    f16,
    f17,
    f18,
    f19,
    f20,
    f21,
    f22,
    f23,
    f24,
    f25,
    f26,
    f27,
    f28,
    f29,
    f30,
    f31,
    f32,
    f33,
    f34,
    f35,
    menu,
    capsLock,
    scrollLock,
    numLock,
    printScreen,
    pause,
    keypad0,
    keypad1,
    keypad2,
    keypad3,
    keypad4,
    keypad5,
    keypad6,
    keypad7,
    keypad8,
    keypad9,
    keypadDecimal,
    keypadDivide,
    keypadMultiply,
    keypadSubtract,
    keypadAdd,
    keypadEnter,
    keypadEqual,
    keypadSeparator,
    keypadLeft,
    keypadRight,
    keypadUp,
    keypadDown,
    keypadPageUp,
    keypadPageDown,
    keypadHome,
    keypadEnd,
    keypadInsert,
    keypadDelete,
    keypadBegin,
    mediaPlay,
    mediaPause,
    mediaPlayPause,
    mediaReverse,
    mediaStop,
    mediaFastForward,
    mediaRewind,
    mediaTrackNext,
    mediaTrackPrevious,
    mediaRecord,
    volumeDown,
    volumeUp,
    volumeMute,
    leftShift,
    leftControl,
    leftAlt,
    leftSuper,
    leftHyper,
    leftMeta,
    rightShift,
    rightControl,
    rightAlt,
    rightSuper,
    rightHyper,
    rightMeta,
    isoLevel3Shift,
    isoLevel5Shift,
};

// How a functional key is written in CSI form: its number and the final byte ('u', '~' or the
// letter of its legacy form).
struct KittyKeyCode {
    std::uint32_t number = 0;
    char final = 'u';
    bool operator==(const KittyKeyCode&) const = default;
};

// The code of a functional key in the protocol's table.
KittyKeyCode kittyKeyCode(KittyFunctionalKey key);
// The modifier keys themselves (shifts, controls, alts, supers, hypers, metas, level shifts).
bool isKittyModifierKey(KittyFunctionalKey key);

// A key: a scalar for keys that type text, a functional key, or nothing known.
class KittyKey {
public:
    enum class Kind : std::uint8_t { unicode, functional, none };

    constexpr KittyKey() = default;
    static constexpr KittyKey unicode(char32_t scalar) { return KittyKey(Kind::unicode, scalar, {}); }
    static constexpr KittyKey functional(KittyFunctionalKey key) {
        return KittyKey(Kind::functional, 0, key);
    }
    static constexpr KittyKey none() { return {}; }

    constexpr Kind kind() const { return kind_; }
    constexpr char32_t scalar() const { return scalar_; }
    constexpr KittyFunctionalKey functionalKey() const { return functional_; }
    constexpr bool isFunctional(KittyFunctionalKey key) const {
        return kind_ == Kind::functional && functional_ == key;
    }

    constexpr bool operator==(const KittyKey&) const = default;

private:
    constexpr KittyKey(Kind kind, char32_t scalar, KittyFunctionalKey key)
        : kind_(kind)
        , scalar_(scalar)
        , functional_(key) {}
    Kind kind_ = Kind::none;
    char32_t scalar_ = 0;
    KittyFunctionalKey functional_ = KittyFunctionalKey::escape;
};

// One key event from the view. `key` carries the unshifted key (the lower-case letter);
// `text` what the platform would type for it, `shiftedKey` and `baseLayoutKey` the alternates.
struct KittyKeyEvent {
    KittyKey key;
    KittyKeyboardModifiers modifiers = KittyKeyboardModifiers::none;
    KittyKeyboardEventType eventType = KittyKeyboardEventType::press;
    std::optional<std::string> text;
    std::optional<char32_t> shiftedKey;
    std::optional<char32_t> baseLayoutKey;
    bool composing = false;

    bool operator==(const KittyKeyEvent&) const = default;
};

// Choices of the view for the legacy encoding.
struct LegacyKeyOptions {
    // Alt (Option) with a key sends ESC before the key's bytes; off, the key's text goes alone
    // (what the platform composed, an accented letter say).
    bool altSendsEscape = true;
    bool operator==(const LegacyKeyOptions&) const = default;
};

} // namespace TerminalEngine
