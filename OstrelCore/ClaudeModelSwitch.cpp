// Model-switch detection on Claude's terminal output.
#include "OstrelCore/ClaudeModelSwitch.h"

#include "OstrelCore/ANSI.h"
#include "OstrelCore/Text.h"

#include <array>
#include <vector>

namespace OstrelCore::ClaudeModelSwitch {
namespace {

constexpr std::string_view switchPhrase = "set model to ";
constexpr std::string_view clauseBreak = " and ";
constexpr std::array<std::string_view, 4> modelFamilies = {"opus", "sonnet", "haiku", "fable"};
constexpr std::array<char32_t, 11> labelTrim = {U' ', U'\t', U'.', U',', U';', U'│',
                                                U'┃', U'|',  U'╎', U'┆', U'║'};

bool inLabelTrim(char32_t c) {
    for (char32_t t : labelTrim)
        if (t == c) return true;
    return false;
}

// Byte length of the last scalar of a non-empty valid text.
std::size_t lastScalarLength(std::string_view text) {
    std::size_t start = text.size() - 1;
    while (start > 0 && (static_cast<unsigned char>(text[start]) & 0xC0) == 0x80)
        --start;
    return text.size() - start;
}

std::string_view trimLabel(std::string_view text) {
    while (!text.empty()) {
        std::size_t i = 0;
        if (!inLabelTrim(Text::decode(text, i))) break;
        text.remove_prefix(i);
    }
    while (!text.empty()) {
        std::size_t n = lastScalarLength(text), i = text.size() - n;
        if (!inLabelTrim(Text::decode(text, i))) break;
        text.remove_suffix(n);
    }
    return text;
}

std::size_t findCaseless(std::string_view haystack, std::string_view needle) {
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    for (std::size_t i = 0; i + needle.size() <= haystack.size(); ++i) {
        std::size_t k = 0;
        while (k < needle.size() && lower(haystack[i + k]) == needle[k])
            ++k;
        if (k == needle.size()) return i;
    }
    return std::string_view::npos;
}

bool isVersion(std::string_view text) { // ^[0-9]+(\.[0-9]+)?$
    auto digits = [&](std::size_t& i) {
        std::size_t start = i;
        while (i < text.size() && text[i] >= '0' && text[i] <= '9')
            ++i;
        return i > start;
    };
    std::size_t i = 0;
    if (!digits(i)) return false;
    if (i == text.size()) return true;
    if (text[i] != '.') return false;
    ++i;
    return digits(i) && i == text.size();
}

bool isIdentifierSpelling(std::string_view lower) {
    for (std::size_t i = 0; i < lower.size();) {
        char32_t c = Text::decode(lower, i);
        if (c != '-' && c != '.' && !Text::isAlphanumeric(c)) return false;
    }
    return true;
}

} // namespace

std::optional<std::string> identifier(std::string_view label) {
    std::string_view trimmed = trimLabel(label);
    if (trimmed.empty()) return std::nullopt;
    std::string lower = Text::lowercased(trimmed);
    if (Text::startsWith(lower, "claude-") && isIdentifierSpelling(lower)) return lower;
    auto tokens = Text::split(trimmed, ' ');
    if (tokens.empty() || tokens.size() > 2) return std::nullopt;
    std::string family = Text::lowercased(tokens[0]);
    bool known = false;
    for (auto f : modelFamilies)
        known = known || family == f;
    if (!known) return std::nullopt;
    if (tokens.size() == 1) return "claude-" + family;
    if (!isVersion(tokens[1])) return std::nullopt;
    return "claude-" + family + "-" + std::string(tokens[1]);
}

std::optional<std::string> detectInLine(std::string_view line) {
    std::size_t at = findCaseless(line, switchPhrase);
    if (at == std::string_view::npos) return std::nullopt;
    std::string_view label = line.substr(at + switchPhrase.size());
    if (std::size_t cut = findCaseless(label, clauseBreak); cut != std::string_view::npos)
        label = label.substr(0, cut);
    return identifier(label);
}

std::optional<std::string> detectInTerminalText(std::string_view text) {
    std::string plain = ANSI::strip(text);
    std::string_view rest = plain;
    while (true) {
        // Lines end at any Unicode newline, not only at line feeds.
        std::size_t end = 0, next = rest.size();
        for (std::size_t i = 0; i < rest.size();) {
            std::size_t at = i;
            if (Text::isNewline(Text::decode(rest, i))) {
                end = at;
                next = i;
                break;
            }
            end = i;
        }
        if (auto id = detectInLine(rest.substr(0, end))) return id;
        if (next >= rest.size()) return std::nullopt;
        rest.remove_prefix(next);
    }
}

} // namespace OstrelCore::ClaudeModelSwitch
