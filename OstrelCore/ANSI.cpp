// Escape stripping over Unicode scalars, with the same five states as the output scanner.
#include "OstrelCore/ANSI.h"

#include "OstrelCore/Text.h"

namespace OstrelCore::ANSI {
namespace {

enum class State { normal, escape, csi, string, stringEscape };

constexpr bool isStringIntroducer(char32_t c) {
    return c == 'P' || c == 'X' || c == ']' || c == '^' || c == '_';
}

} // namespace

std::string strip(std::string_view text) {
    std::string out;
    if (text.empty()) return out;
    out.reserve(text.size());
    State state = State::normal;
    for (std::size_t i = 0; i < text.size();) {
        std::size_t start = i;
        char32_t c = Text::decode(text, i);
        switch (state) {
        case State::normal:
            if (c == 0x1B)
                state = State::escape;
            else if (c >= 0x20 || c == '\t' || c == '\n' || c == '\r')
                out.append(text.substr(start, i - start));
            break;
        case State::escape:
            if (isStringIntroducer(c))
                state = State::string;
            else if (c == '[')
                state = State::csi;
            else if (c < 0x20 || c > 0x2F)
                state = State::normal;
            break;
        case State::csi:
            if (c >= 0x40 && c <= 0x7E) state = State::normal;
            break;
        case State::string:
            if (c == 0x07)
                state = State::normal;
            else if (c == 0x1B)
                state = State::stringEscape;
            break;
        case State::stringEscape:
            if (isStringIntroducer(c))
                state = State::string;
            else if (c == '[')
                state = State::csi;
            else
                state = State::normal;
            break;
        }
    }
    return out;
}

} // namespace OstrelCore::ANSI
