// Cleaning and picking tab titles.
#include "OstrelCore/TabTitle.h"

#include "OstrelCore/JSONRead.h"
#include "OstrelCore/Text.h"

#include <array>
#include <vector>

namespace OstrelCore::TabTitle {
namespace {

constexpr std::size_t cutCharacters = maxCharacters - 1; // room for the ellipsis
constexpr std::size_t earliestWordCut = 24;              // a blank before this would cut too much
constexpr std::size_t minSentenceCharacters = 20;

constexpr std::array<std::string_view, 8> sentenceEnds = {". ", "! ", "? ", " : ", ": ", " ; ", "; ", "\n"};
constexpr std::string_view sentenceTrim = ".!?:;, ";

constexpr std::array<std::string_view, 3> injectedPrefixes = {"<", "[", "Caveat:"};

bool isInjected(std::string_view text) {
    for (auto p : injectedPrefixes)
        if (Text::startsWith(text, p)) return true;
    return false;
}

// Tokens separated by white space that isn't a newline.
std::vector<std::string_view> blankSeparatedTokens(std::string_view text) {
    std::vector<std::string_view> tokens;
    std::size_t start = 0;
    for (std::size_t i = 0; i < text.size();) {
        std::size_t at = i;
        char32_t c = Text::decode(text, i);
        if (Text::isWhitespace(c) && !Text::isNewline(c)) {
            if (at > start) tokens.push_back(text.substr(start, at - start));
            start = i;
        }
    }
    if (start < text.size()) tokens.push_back(text.substr(start));
    return tokens;
}

bool hasAlphanumeric(std::string_view text) {
    for (std::size_t i = 0; i < text.size();)
        if (Text::isAlphanumeric(Text::decode(text, i))) return true;
    return false;
}

} // namespace

std::optional<std::string> clean(std::string_view text) {
    std::string joined = Text::collapseWhitespace(text);
    if (joined.empty()) return std::nullopt;
    if (Text::count(joined) <= maxCharacters) return joined;
    std::string_view head = Text::prefix(joined, cutCharacters);
    std::size_t blank = head.rfind(' ');
    if (blank != std::string_view::npos && Text::count(head.substr(0, blank)) >= earliestWordCut)
        head = head.substr(0, blank);
    return std::string(head) + "…";
}

std::optional<std::string> fromClaudeOSC(std::string_view title) {
    auto tokens = blankSeparatedTokens(title);
    if (!tokens.empty() && !hasAlphanumeric(tokens.front())) tokens.erase(tokens.begin()); // spinner glyph
    if (tokens.empty()) return std::nullopt;
    std::string joined;
    for (auto t : tokens) {
        if (!joined.empty()) joined += ' ';
        joined += t;
    }
    std::string_view first = tokens.front();
    if (joined == "Claude Code" || first == "claude" || Text::startsWith(first, "/") ||
        Text::startsWith(first, "~"))
        return std::nullopt;
    return clean(joined);
}

std::optional<std::string> fromClaudeUserRecord(const nlohmann::json& record) {
    using namespace JSONRead;
    const std::string* type = text(record, "type");
    if (!type || *type != "user") return std::nullopt;
    if (isTrue(record, "isSidechain") || isTrue(record, "isMeta") || isTrue(record, "isCompactSummary") ||
        member(record, "toolUseResult"))
        return std::nullopt;
    const nlohmann::json* message = object(record, "message");
    const nlohmann::json* content = message ? member(*message, "content") : nullptr;
    if (!content) return std::nullopt;
    const std::string* words = text(*content);
    if (content->is_array()) {
        for (const auto& block : *content) {
            const std::string* blockType = text(block, "type");
            if (block.is_object() && blockType && *blockType == "text") {
                words = text(block, "text");
                break;
            }
        }
    }
    if (!words) return std::nullopt;
    std::string_view trimmed = Text::trim(*words);
    if (trimmed.empty() || isInjected(trimmed)) return std::nullopt;
    return clean(trimmed);
}

std::optional<std::string> fromClaudeUserLine(std::string_view line) {
    auto record = JSONRead::parseObject(line);
    return record ? fromClaudeUserRecord(*record) : std::nullopt;
}

std::optional<std::string> fromCodexAgentMessage(const nlohmann::ordered_json& record) {
    using namespace JSONRead;
    const nlohmann::ordered_json* payload = object(record, "payload");
    if (!payload) return std::nullopt;
    const std::string* type = text(*payload, "type");
    const std::string* phase = text(*payload, "phase");
    const std::string* message = text(*payload, "message");
    if (!type || *type != "agent_message" || !phase || *phase != "commentary" || !message)
        return std::nullopt;
    auto sentence = firstSentence(*message);
    return sentence ? clean(*sentence) : std::nullopt;
}

std::optional<std::string> fromCodexAgentMessageLine(std::string_view line) {
    auto record = JSONRead::parseObject<nlohmann::ordered_json>(line);
    return record ? fromCodexAgentMessage(*record) : std::nullopt;
}

std::optional<std::string> firstSentence(std::string_view text) {
    std::string_view rest = Text::trim(text);
    // Next occurrence of each end at or after the current start, found again only once passed,
    // so that a long text of many short sentences stays linear.
    std::array<std::size_t, sentenceEnds.size()> next{};
    for (std::size_t k = 0; k < sentenceEnds.size(); ++k)
        next[k] = rest.find(sentenceEnds[k]);
    std::size_t start = 0;
    while (start < rest.size()) {
        std::size_t best = std::string_view::npos, bestLength = 0;
        for (std::size_t k = 0; k < sentenceEnds.size(); ++k) {
            if (next[k] != std::string_view::npos && next[k] < start)
                next[k] = rest.find(sentenceEnds[k], start);
            if (next[k] < best) { // strict: on equal starts the earlier end of the list wins
                best = next[k];
                bestLength = sentenceEnds[k].size();
            }
        }
        std::string_view sentence;
        if (best == std::string_view::npos) {
            sentence = rest.substr(start);
            start = rest.size();
        } else {
            sentence = rest.substr(start, best - start);
            start = best + bestLength;
        }
        while (!sentence.empty() && sentenceTrim.find(sentence.back()) != std::string_view::npos)
            sentence.remove_suffix(1);
        if (Text::count(sentence) >= minSentenceCharacters) return std::string(sentence);
    }
    return std::nullopt;
}

} // namespace OstrelCore::TabTitle
