// Limit notices in terminal text and transcript records: the phrase tables and the rules that
// weigh them.
#include "OstrelCore/RateLimitSignals.h"

#include "OstrelCore/ANSI.h"
#include "OstrelCore/InternetDateTime.h"
#include "OstrelCore/RateLimitReset.h"
#include "OstrelCore/SignalsJson.h"
#include "OstrelCore/Text.h"

#include <algorithm>
#include <array>
#include <vector>

#include <nlohmann/json.hpp>

namespace OstrelCore {

using Provider = RateLimitBlock::Provider;
using Confidence = RateLimitBlock::Confidence;

std::string_view RateLimitBlock::rawValue(Provider provider) {
    switch (provider) {
    case Provider::claude: return "claude";
    case Provider::codex: return "codex";
    case Provider::gemini: return "gemini";
    }
    return "claude";
}

std::optional<RateLimitBlock::Provider> RateLimitBlock::providerNamed(std::string_view raw) {
    for (Provider provider : {Provider::claude, Provider::codex, Provider::gemini})
        if (rawValue(provider) == raw) return provider;
    return std::nullopt;
}

std::string_view RateLimitBlock::rawValue(Confidence confidence) {
    return confidence == Confidence::certain ? "certain" : "likely";
}

std::optional<RateLimitBlock::Confidence> RateLimitBlock::confidenceNamed(std::string_view raw) {
    for (Confidence confidence : {Confidence::certain, Confidence::likely})
        if (rawValue(confidence) == raw) return confidence;
    return std::nullopt;
}

namespace {

using OJson = nlohmann::ordered_json;
using Date = RateLimitSignals::Date;

// ---------------------------------------------------------------------------------------------
// Phrase tables. All lower case; compared with lower-cased text.

constexpr std::string_view certainPhrases[] = {
    "you've hit your usage limit",
    "you have hit your usage limit",
    "you've reached your usage limit",
    "you're out of usage credits",
    "you are out of usage credits",
    "you're out of extra usage",
    "your org is out of usage",
    "your usage allocation has been disabled",
    "your group's usage limit is set to $0",
    "usage limit reached",
    "claude usage limit reached",
    "claude ai usage limit reached",
    "you have exhausted your daily quota",
    "you've exhausted your daily quota",
};

// Count only when the words behind them, up to the first "·", "." or ",", speak of a limit or a
// quota: "you've hit your weekly limit" but not "you've hit your stride".
constexpr std::string_view limitPrefixes[] = {
    "you've hit your ",
    "you have hit your ",
    "you've reached your ",
    "you have reached your ",
};

constexpr std::string_view likelyPhrases[] = {
    "rate limit reached",    "rate limit exceeded", "fast limit reached", "too many requests",
    "429 too many requests", "quota exceeded",      "resource_exhausted",
};

// Stripped from the front of a line, first match in this order, up to three times.
constexpr std::string_view errorPrefixes[] = {
    "api error:",        "api error", "stream error:", "stream error", "request failed:",
    "rate_limit_error:", "error:",    "429:",          "429",
};

// Lines that talk about limits rather than hit one.
constexpr std::string_view exclusions[] = {
    "grace window",  "for host", "e.g.",   "for example", "example:",
    "documentation", "docs/",    "--help", "man page",
};

// What an agent's interface sets before a line: bullets, tree and box drawing, prompts.
constexpr char32_t decorations[] = {
    U'●', U'⏺', U'⎿', U'○', U'✳', U'✗', U'✘', U'✖', U'⚠', U'⛔', U'×', U'•', U'·',
    U'│', U'┃',   U'▌', U'▎', U'▏', U'└', U'├', U'─', U'╭', U'╰', U'❯', U'›', U'»',
};
// Emoji presentation selector, which may follow a decoration such as ⚠.
constexpr char32_t presentationSelector = 0xFE0F;

// Every phrase, prefix and error fragment above contains one of these; a line without any of
// them (ASCII case ignored) can't classify and is passed over without being copied.
constexpr std::string_view lineKeywords[] = {"limit", "quota", "usage", "too many requests",
                                             "resource_exhausted"};

struct ProviderCue {
    Provider provider;
    std::array<std::string_view, 6> cues;
};

// The provider of a terminal notice, by the first row whose cue appears in it. The Codex row
// holds the host its billing pages live on, which its notices name.
constexpr std::string_view codexBillingHost = "chatgpt.com";
constexpr ProviderCue providerCues[] = {
    {Provider::codex, {"codex", codexBillingHost}},
    {Provider::gemini, {"gemini", "daily quota", "ai studio", "resource_exhausted"}},
    {Provider::claude, {"claude", "usage credits", "session limit", "weekly limit", "opus", "sonnet"}},
    {Provider::codex, {"you've hit your usage limit"}},
};

// A transcript line is decoded only if it holds one of these, spelled as written.
constexpr std::string_view transcriptMarkers[] = {
    "rate_limit_error", "usage limit", "429", "daily quota", "RESOURCE_EXHAUSTED", "quota",
};

// Keys an error record is read by, whatever its nesting.
constexpr std::string_view typeKeys[] = {"type", "error_type", "reason"};
constexpr std::string_view messageKeys[] = {"message", "text", "content", "error_message", "detail"};
constexpr std::string_view statusKeys[] = {"status", "status_code", "statusCode", "http_status"};
constexpr std::string_view retryAfterKeys[] = {"retry_after", "retryAfter", "retry_after_seconds",
                                               "retryDelaySeconds"};
constexpr std::string_view resetsKeys[] = {"resets_at", "resetsAt", "reset_at"};
constexpr std::string_view errorTypes[] = {"error", "stream_error", "api_error"};

constexpr int maxWalkDepth = 5;
constexpr std::size_t windowFollowingLines = 3;

template <std::size_t N>
bool isOneOf(std::string_view value, const std::string_view (&table)[N]) {
    return std::find(std::begin(table), std::end(table), value) != std::end(table);
}

bool contains(std::string_view text, std::string_view needle) {
    return text.find(needle) != std::string_view::npos;
}

// ---------------------------------------------------------------------------------------------
// Text

// Lower case, with typographic apostrophes read as plain ones: "You’ve hit your limit".
std::string matchingForm(std::string_view text) {
    std::string lowered = Text::lowercased(text);
    std::string out;
    out.reserve(lowered.size());
    for (std::size_t i = 0; i < lowered.size(); ++i) {
        if (lowered.compare(i, 3, "\u2019") == 0 || lowered.compare(i, 3, "\u2018") == 0) {
            out += '\'';
            i += 2;
        } else {
            out += lowered[i];
        }
    }
    return out;
}

bool isDecoration(char32_t c) {
    return std::find(std::begin(decorations), std::end(decorations), c) != std::end(decorations);
}

// Leading blanks and decorations dropped, white space collapsed to single blanks.
std::string cleanLine(std::string_view line) {
    std::size_t pos = 0;
    while (pos < line.size()) {
        std::size_t next = pos;
        char32_t c = Text::decode(line, next);
        if (!Text::isWhitespace(c) && !Text::isNewline(c) && !isDecoration(c) && c != presentationSelector)
            break;
        pos = next;
    }
    return Text::collapseWhitespace(line.substr(pos));
}

// Terminal bytes may hold broken UTF-8; what is kept for display never does.
std::string shortMessage(std::string_view text) {
    return Text::truncated(Text::collapseWhitespace(Text::sanitizeUtf8(text)),
                           RateLimitSignals::rawMessageLimit, "…");
}

bool mayClassify(std::string_view line) {
    for (std::string_view keyword : lineKeywords)
        if (Text::containsAsciiCaseless(line, keyword)) return true;
    return false;
}

std::optional<Confidence> classifyCleaned(std::string_view cleaned) {
    if (cleaned.empty()) return std::nullopt;
    std::string lowered = matchingForm(cleaned);
    if (lowered.ends_with('?')) return std::nullopt;
    for (std::string_view exclusion : exclusions)
        if (contains(lowered, exclusion)) return std::nullopt;

    std::string_view rest = lowered;
    bool stripped = false;
    for (int round = 0; round < 3; ++round) {
        auto prefix = std::find_if(std::begin(errorPrefixes), std::end(errorPrefixes),
                                   [&](std::string_view p) { return rest.starts_with(p); });
        if (prefix == std::end(errorPrefixes)) break;
        rest.remove_prefix(prefix->size());
        while (!rest.empty() && (rest.front() == ' ' || rest.front() == ':' || rest.front() == '-'))
            rest.remove_prefix(1);
        stripped = true;
    }

    for (std::string_view phrase : certainPhrases)
        if (rest.starts_with(phrase)) return Confidence::certain;
    for (std::string_view prefix : limitPrefixes) {
        if (!rest.starts_with(prefix)) continue;
        std::string_view behind = rest.substr(prefix.size());
        std::size_t end = behind.size();
        for (std::string_view stop : {"·", ".", ","})
            end = std::min(end, behind.find(stop));
        behind = behind.substr(0, end);
        if (contains(behind, "limit") || contains(behind, "quota")) return Confidence::certain;
    }
    for (std::string_view phrase : likelyPhrases)
        if (rest.starts_with(phrase)) return Confidence::likely;
    if (stripped && contains(rest, "rate_limit_error")) return Confidence::certain;
    return std::nullopt;
}

// The last `count` characters of terminal text with its escape sequences stripped. Stripping
// starts after a line feed, where no sequence is open in practice, on a window that grows from
// the end: a 64 KiB chunk costs the few kilobytes at its end.
std::string strippedTail(std::string_view text, std::size_t count) {
    std::size_t bytes = count + count / 2;
    while (bytes < text.size()) {
        std::size_t lineFeed = text.find('\n', text.size() - bytes);
        if (lineFeed != std::string_view::npos) {
            std::string stripped = ANSI::strip(text.substr(lineFeed + 1));
            std::size_t keep = Text::tail(stripped, count).size();
            if (keep < stripped.size()) {
                stripped.erase(0, stripped.size() - keep);
                return stripped;
            }
        }
        bytes *= 2;
    }
    std::string stripped = ANSI::strip(text);
    stripped.erase(0, stripped.size() - Text::tail(stripped, count).size());
    return stripped;
}

// ---------------------------------------------------------------------------------------------
// Transcript records

struct Envelope {
    std::vector<std::string> types;
    std::vector<std::string> messages;
    std::optional<std::int64_t> status;
    std::optional<double> retryAfter;
    const OJson* resets = nullptr;
    bool apiError = false;

    bool hasType(std::string_view type) const {
        return std::find(types.begin(), types.end(), type) != types.end();
    }
};

void record(std::string_view key, const OJson& value, Envelope& envelope) {
    if (isOneOf(key, typeKeys)) {
        if (const std::string* text = SignalsJson::text(value); text && !envelope.hasType(*text))
            envelope.types.push_back(*text);
    } else if (isOneOf(key, messageKeys)) {
        if (const std::string* text = SignalsJson::text(value)) envelope.messages.push_back(*text);
    } else if (isOneOf(key, statusKeys)) {
        if (auto status = SignalsJson::exactInteger(value)) envelope.status = *status;
    } else if (isOneOf(key, retryAfterKeys)) {
        if (auto seconds = SignalsJson::number(value)) envelope.retryAfter = *seconds;
    } else if (isOneOf(key, resetsKeys)) {
        envelope.resets = &value;
    } else if (key == "isApiErrorMessage") {
        if (value.is_boolean() && value.get<bool>()) envelope.apiError = true;
    }
}

void walk(const OJson& value, int depth, Envelope& envelope) {
    if (depth > maxWalkDepth) return;
    if (value.is_array()) {
        for (const OJson& element : value)
            walk(element, depth + 1, envelope);
    } else if (value.is_object()) {
        for (auto it = value.begin(); it != value.end(); ++it) {
            record(it.key(), it.value(), envelope);
            walk(it.value(), depth + 1, envelope);
        }
    }
}

std::optional<Date> resetsDate(const OJson& resets, const date::time_zone* zone) {
    if (auto number = SignalsJson::number(resets)) {
        double value = *number;
        if (value <= 1e9) return std::nullopt;
        double seconds = value > 1e11 ? value / 1000.0 : value;
        // Past the year 2262 a nanosecond clock overflows; no limit lifts that late.
        if (seconds > 9e9) return std::nullopt;
        return Date(std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(seconds)));
    }
    if (const std::string* text = SignalsJson::text(resets)) return RateLimitReset::timestamp(*text, zone);
    return std::nullopt;
}

std::optional<RateLimitBlock> judge(const Envelope& envelope, Provider provider, Date now,
                                    const date::time_zone* zone) {
    std::string text;
    for (const std::string& message : envelope.messages) {
        if (!text.empty()) text += ' ';
        text += message;
    }
    std::string lowered = matchingForm(text);

    bool explicitType = envelope.hasType("rate_limit_error");
    bool explicitLimit = explicitType || contains(lowered, "rate_limit_error");
    bool errorish = explicitType || envelope.apiError ||
                    std::any_of(std::begin(errorTypes), std::end(errorTypes),
                                [&](std::string_view type) { return envelope.hasType(type); });

    std::optional<Confidence> phrase;
    for (std::string_view p : certainPhrases)
        if (contains(lowered, p)) phrase = Confidence::certain;
    if (!phrase)
        for (std::string_view p : likelyPhrases)
            if (contains(lowered, p)) phrase = Confidence::likely;

    std::optional<Confidence> confidence;
    if (explicitLimit)
        confidence = Confidence::certain;
    else if (!errorish)
        return std::nullopt;
    else if (phrase == Confidence::certain)
        confidence = Confidence::certain;
    else if (envelope.status == 429 || phrase == Confidence::likely)
        confidence = Confidence::likely;
    else
        return std::nullopt;

    RateLimitBlock block;
    block.provider = provider;
    block.confidence = *confidence;
    block.rawMessage = text.empty() ? std::string("rate limit") : shortMessage(text);
    if (envelope.resets != nullptr)
        block.resumeAt = resetsDate(*envelope.resets, RateLimitReset::noticeZone(text, zone));
    if (!block.resumeAt && envelope.retryAfter && *envelope.retryAfter > 0 &&
        *envelope.retryAfter <= RateLimitReset::relativeLimit)
        block.resumeAt = now + std::chrono::duration_cast<Date::duration>(
                                   std::chrono::duration<double>(*envelope.retryAfter));
    if (!block.resumeAt && !text.empty()) block.resumeAt = RateLimitReset::parse(text, now, zone);
    return block;
}

template <typename Line>
std::optional<RateLimitBlock> detectInLines(std::span<const Line> lines, Provider provider, Date now,
                                            const date::time_zone* zone) {
    for (std::size_t i = lines.size(); i-- > 0;) {
        std::string_view line = lines[i];
        if (line.empty() || line.front() != '{') continue;
        if (std::none_of(std::begin(transcriptMarkers), std::end(transcriptMarkers),
                         [&](std::string_view marker) { return contains(line, marker); }))
            continue;
        auto object = SignalsJson::parseObject<OJson>(line);
        if (!object || SignalsJson::isTrue(*object, "isSidechain")) continue;
        Envelope envelope;
        walk(*object, 0, envelope);
        if (auto block = judge(envelope, provider, now, zone)) return block;
    }
    return std::nullopt;
}

} // namespace

// -----------------------------------------------------------------------------------------------

std::optional<Confidence> RateLimitSignals::classifyTerminalLine(std::string_view line) {
    if (!mayClassify(line)) return std::nullopt;
    return classifyCleaned(cleanLine(line));
}

Provider RateLimitSignals::guessProvider(std::string_view window) {
    std::string lowered = matchingForm(window);
    for (const ProviderCue& row : providerCues)
        for (std::string_view cue : row.cues)
            if (!cue.empty() && contains(lowered, cue)) return row.provider;
    return Provider::claude;
}

std::optional<RateLimitBlock> RateLimitSignals::detect(std::string_view terminalText, Date now,
                                                       const date::time_zone* timeZone) {
    std::string stripped = strippedTail(terminalText, terminalWindow);
    std::string_view view = stripped;
    if (view.empty()) return std::nullopt;

    // Lines from the last to the first; the few lines after a hit carry its reset time.
    std::array<std::string_view, windowFollowingLines> following{};
    std::size_t lineEnd = view.size();
    while (true) {
        std::size_t newline = view.substr(0, lineEnd).rfind('\n');
        std::size_t lineStart = newline == std::string_view::npos ? 0 : newline + 1;
        std::string_view line = view.substr(lineStart, lineEnd - lineStart);
        if (mayClassify(line)) {
            std::string cleaned = cleanLine(line);
            if (auto confidence = classifyCleaned(cleaned)) {
                std::string window = cleaned;
                for (std::string_view next : following) {
                    std::string part = cleanLine(next);
                    if (part.empty()) continue;
                    window += ' ';
                    window += part;
                }
                RateLimitBlock block;
                block.provider = guessProvider(window);
                block.resumeAt = RateLimitReset::parse(window, now, timeZone);
                block.rawMessage = shortMessage(cleaned);
                block.confidence = *confidence;
                return block;
            }
        }
        for (std::size_t k = following.size() - 1; k > 0; --k)
            following[k] = following[k - 1];
        following[0] = line;
        if (newline == std::string_view::npos) break;
        lineEnd = newline;
    }
    return std::nullopt;
}

std::optional<RateLimitBlock> RateLimitSignals::detect(std::span<const std::string_view> transcriptLines,
                                                       Provider provider, Date now,
                                                       const date::time_zone* timeZone) {
    return detectInLines(transcriptLines, provider, now, timeZone);
}

std::optional<RateLimitBlock> RateLimitSignals::detect(std::span<const std::string> transcriptLines,
                                                       Provider provider, Date now,
                                                       const date::time_zone* timeZone) {
    return detectInLines(transcriptLines, provider, now, timeZone);
}

std::optional<Date> RateLimitSignals::resumeDate(const RateLimitBlock& block,
                                                 std::optional<Date> quotaResetsAt, Date now) {
    auto toDuration = [](double seconds) {
        return std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(seconds));
    };
    const Date horizon = now + toDuration(maxHorizon);
    std::optional<Date> latest;
    for (const std::optional<Date>& candidate : {block.resumeAt, quotaResetsAt}) {
        if (!candidate || *candidate > horizon) continue;
        if (!latest || *candidate > *latest) latest = candidate;
    }
    if (!latest) return std::nullopt;
    return std::max(*latest + toDuration(safetyMargin), now + toDuration(safetyMargin));
}

bool RateLimitSignals::shouldAutoResume(const RateLimitBlock& block, int attempts, int maxAttempts) {
    if (attempts < 0 || maxAttempts < 1) return false;
    if (block.confidence == Confidence::certain) return attempts < maxAttempts;
    return attempts < 1;
}

} // namespace OstrelCore
