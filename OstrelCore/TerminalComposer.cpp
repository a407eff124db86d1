// The input-box reader: frame glyphs, prompt glyphs and soft wraps of a full row.
#include "OstrelCore/TerminalComposer.h"

#include "OstrelCore/Text.h"

#include <array>

namespace OstrelCore::TerminalComposer {
namespace {

constexpr std::array<std::string_view, 4> promptGlyphs = {">", "❯", "›", "»"};
constexpr std::array<std::string_view, 7> frameGlyphs = {"│", "┃", "|", "║", "╎", "┆", "▌"};
constexpr std::array<std::string_view, 4> ruleGlyphs = {"─", "━", "-", "═"};
constexpr std::array<std::string_view, 9> placeholderPrefixes = {
    "try \"",         "try “",         "try '", "ask claude", "ask codex", "ask gemini", "type your message",
    "send a message", "how can i help"};

// Agents pad their boxes with blanks; some draw the blank after the prompt glyph as a no-break space.
constexpr std::array<std::string_view, 2> blanks = {" ", "\u00A0"};

template <std::size_t N>
std::size_t matchPrefix(std::string_view text, const std::array<std::string_view, N>& set) {
    for (auto g : set)
        if (Text::startsWith(text, g)) return g.size();
    return 0;
}

template <std::size_t N>
std::size_t matchSuffix(std::string_view text, const std::array<std::string_view, N>& set) {
    for (auto g : set)
        if (Text::endsWith(text, g)) return g.size();
    return 0;
}

std::string_view trimBlanksStart(std::string_view text) {
    while (std::size_t n = matchPrefix(text, blanks))
        text.remove_prefix(n);
    return text;
}

std::string_view trimBlanksEnd(std::string_view text) {
    while (std::size_t n = matchSuffix(text, blanks))
        text.remove_suffix(n);
    return text;
}

std::string_view trimBlanks(std::string_view text) {
    return trimBlanksEnd(trimBlanksStart(text));
}

int characters(std::string_view text) {
    return static_cast<int>(Text::count(text));
}

bool isRule(std::string_view text) {
    while (!text.empty()) {
        std::size_t n = matchPrefix(text, ruleGlyphs);
        if (n == 0) return false;
        text.remove_prefix(n);
    }
    return true;
}

} // namespace

Cell frame(std::string_view row) {
    std::string_view s = trimBlanksStart(row);
    if (std::size_t left = matchPrefix(s, frameGlyphs)) {
        std::string_view inner = s.substr(left);
        int filled = characters(trimBlanksEnd(inner));
        if (std::size_t right = matchSuffix(inner, frameGlyphs)) {
            inner.remove_suffix(right);
            return {std::string(inner), characters(inner), characters(trimBlanksEnd(inner))};
        }
        return {std::string(inner), std::nullopt, filled};
    }
    return {std::string(s), std::nullopt, characters(trimBlanksEnd(s))};
}

std::optional<Cell> promptRow(std::string_view row) {
    Cell cell = frame(row);
    std::string_view text = trimBlanksStart(cell.text);
    std::size_t glyph = matchPrefix(text, promptGlyphs);
    if (text.empty() || glyph == 0) return std::nullopt;
    text.remove_prefix(glyph);
    if (!text.empty() && matchPrefix(text, blanks) == 0)
        return std::nullopt; // ">foo" is output, not a prompt
    cell.text = std::string(trimBlanks(text));
    return cell;
}

std::optional<Cell> continuationRow(std::string_view row) {
    Cell cell = frame(row);
    if (!cell.width) return std::nullopt; // only rows framed on both sides continue a box
    std::string_view text = trimBlanks(cell.text);
    if (text.empty() || isRule(text)) return std::nullopt; // the box's bottom line
    cell.text = std::string(text);
    return cell;
}

std::optional<std::string> draft(const std::vector<std::string>& visibleRows) {
    std::size_t at = visibleRows.size();
    std::optional<Cell> prompt;
    while (at > 0 && !prompt)
        prompt = promptRow(visibleRows[--at]);
    if (!prompt) return std::nullopt;
    if (prompt->text.empty()) return std::string();
    std::string lower = Text::lowercased(prompt->text);
    if (matchPrefix(lower, placeholderPrefixes) != 0) return std::string(); // the box shows its hint

    std::string result = prompt->text;
    Cell previous = *prompt;
    for (std::size_t i = at + 1; i < visibleRows.size(); ++i) {
        auto row = continuationRow(visibleRows[i]);
        if (!row) break;
        bool softWrap = previous.width && previous.filled >= *previous.width - 1;
        if (!softWrap) result += '\n';
        result += row->text;
        previous = std::move(*row);
    }
    return result;
}

} // namespace OstrelCore::TerminalComposer
