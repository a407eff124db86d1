// The character set tables, laid out as designator and (byte, replacement) pairs.
#include "TerminalEngine/Model/CharSets.h"

namespace TerminalEngine {
namespace {

constexpr CharSet::Entry decSpecialGraphics[] = {
    {'`', "◆"}, {'a', "▒"}, {'b', "␉"}, {'c', "␌"}, {'d', "␍"}, {'e', "␊"}, {'f', "°"}, {'g', "±"},
    {'h', "␤"}, {'i', "␋"}, {'j', "┘"}, {'k', "┐"}, {'l', "┌"}, {'m', "└"}, {'n', "┼"}, {'o', "⎺"},
    {'p', "⎻"}, {'q', "─"}, {'r', "⎼"}, {'s', "⎽"}, {'t', "├"}, {'u', "┤"}, {'v', "┴"}, {'w', "┬"},
    {'x', "│"}, {'y', "≤"}, {'z', "≥"}, {'{', "π"}, {'|', "≠"}, {'}', "£"}, {'~', "·"},
};
constexpr CharSet::Entry unitedKingdom[] = {{'#', "£"}};
constexpr CharSet::Entry dutch[] = {
    {'#', "£"}, {'@', "¾"}, {'[', "ĳ"}, {'\\', "½"}, {']', "|"},
    {'{', "¨"}, {'|', "f"}, {'}', "¼"}, {'~', "´"},
};
constexpr CharSet::Entry finnish[] = {
    {'[', "Ä"}, {'\\', "Ö"}, {']', "Å"}, {'^', "Ü"}, {'`', "é"},
    {'{', "ä"}, {'|', "ö"},  {'}', "å"}, {'~', "ü"},
};
constexpr CharSet::Entry french[] = {
    {'#', "£"}, {'@', "à"}, {'[', "°"}, {'\\', "ç"}, {']', "§"},
    {'{', "é"}, {'|', "ù"}, {'}', "è"}, {'~', "¨"},
};
constexpr CharSet::Entry frenchCanadian[] = {
    {'@', "à"}, {'[', "â"}, {'\\', "ç"}, {']', "ê"}, {'^', "î"},
    {'`', "ô"}, {'{', "é"}, {'|', "ù"},  {'}', "è"}, {'~', "û"},
};
constexpr CharSet::Entry german[] = {
    {'@', "§"}, {'[', "Ä"}, {'\\', "Ö"}, {']', "Ü"}, {'{', "ä"}, {'|', "ö"}, {'}', "ü"}, {'~', "ß"},
};
constexpr CharSet::Entry italian[] = {
    {'#', "£"}, {'@', "§"}, {'[', "°"}, {'\\', "ç"}, {']', "é"},
    {'`', "ù"}, {'{', "à"}, {'|', "ò"}, {'}', "è"},  {'~', "ì"},
};
constexpr CharSet::Entry norwegianDanish[] = {
    {'@', "Ä"}, {'[', "Æ"}, {'\\', "Ø"}, {']', "Å"}, {'^', "Ü"},
    {'`', "ä"}, {'{', "æ"}, {'|', "ø"},  {'}', "å"}, {'~', "ü"},
};
constexpr CharSet::Entry spanish[] = {
    {'#', "£"}, {'@', "§"}, {'[', "¡"}, {'\\', "Ñ"}, {']', "¿"}, {'{', "°"}, {'|', "ñ"}, {'}', "ç"},
};
constexpr CharSet::Entry swedish[] = {
    {'@', "É"}, {'[', "Ä"}, {'\\', "Ö"}, {']', "Å"}, {'^', "Ü"},
    {'`', "é"}, {'{', "ä"}, {'|', "ö"},  {'}', "å"}, {'~', "ü"},
};
constexpr CharSet::Entry swiss[] = {
    {'#', "ù"}, {'@', "à"}, {'[', "é"}, {'\\', "ç"}, {']', "ê"}, {'^', "î"},
    {'_', "è"}, {'`', "ô"}, {'{', "ä"}, {'|', "ö"},  {'}', "ü"}, {'~', "û"},
};

constexpr CharSet decSpecialGraphicsSet(decSpecialGraphics);
constexpr CharSet unitedKingdomSet(unitedKingdom);
constexpr CharSet unitedStatesSet{};
constexpr CharSet dutchSet(dutch);
constexpr CharSet finnishSet(finnish);
constexpr CharSet frenchSet(french);
constexpr CharSet frenchCanadianSet(frenchCanadian);
constexpr CharSet germanSet(german);
constexpr CharSet italianSet(italian);
constexpr CharSet norwegianDanishSet(norwegianDanish);
constexpr CharSet spanishSet(spanish);
constexpr CharSet swedishSet(swedish);
constexpr CharSet swissSet(swiss);

} // namespace

const std::map<char, const CharSet*>& CharSets::all() {
    static const std::map<char, const CharSet*> sets = {
        {'0', &decSpecialGraphicsSet},
        {'2', &decSpecialGraphicsSet},
        {'A', &unitedKingdomSet},
        {'B', &unitedStatesSet},
        {'4', &dutchSet},
        {'5', &finnishSet},
        {'C', &finnishSet},
        {'R', &frenchSet},
        {'Q', &frenchCanadianSet},
        {'K', &germanSet},
        {'Y', &italianSet},
        {'6', &norwegianDanishSet},
        {'E', &norwegianDanishSet},
        {'Z', &spanishSet},
        {'7', &swedishSet},
        {'H', &swedishSet},
        {'=', &swissSet},
    };
    return sets;
}

const CharSet* CharSets::find(char designator) {
    const auto& sets = all();
    auto it = sets.find(designator);
    return it == sets.end() ? nullptr : it->second;
}

} // namespace TerminalEngine
