// Recognises an agent's usage-limit notice in its terminal output or transcript: whose limit it
// is, how sure the recognition is, and when it lifts. A missed notice is preferred to a false alarm.
#pragma once

#include "OstrelCore/RateLimitBlock.h"

#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <date/tz.h>

namespace OstrelCore {

// A terminal line must begin with a known phrase to count, and questions and lines of
// documentation never do; only a `certain` block may be resumed more than once.
class RateLimitSignals {
public:
    using Date = std::chrono::system_clock::time_point;

    // Added to every resume date, so that the agent isn't resumed the moment before the limit
    // truly lifts.
    static constexpr double safetyMargin = 90.0;
    // Reset dates further ahead than seven days are not planned for.
    static constexpr double maxHorizon = 604800.0;
    // Only the end of a terminal chunk is read, in characters.
    static constexpr std::size_t terminalWindow = 8000;
    static constexpr std::size_t rawMessageLimit = 240;

    // `timeZone` is the user's (null means UTC); a zone the notice names overrides it.
    static std::optional<RateLimitBlock> detect(std::string_view terminalText, Date now,
                                                const date::time_zone* timeZone);
    static std::optional<RateLimitBlock> detect(std::span<const std::string_view> transcriptLines,
                                                RateLimitBlock::Provider provider, Date now,
                                                const date::time_zone* timeZone);
    static std::optional<RateLimitBlock> detect(std::span<const std::string> transcriptLines,
                                                RateLimitBlock::Provider provider, Date now,
                                                const date::time_zone* timeZone);

    static std::optional<Date> resumeDate(const RateLimitBlock& block, std::optional<Date> quotaResetsAt,
                                          Date now);
    static bool shouldAutoResume(const RateLimitBlock& block, int attempts, int maxAttempts);

    // The pieces of terminal detection, for `ostrel inspect` and tests.
    static std::optional<RateLimitBlock::Confidence> classifyTerminalLine(std::string_view line);
    static RateLimitBlock::Provider guessProvider(std::string_view window);
};

} // namespace OstrelCore
