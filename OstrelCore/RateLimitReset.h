// When a usage limit lifts, read from the free words of an agent's notice, in the zone the notice
// names or else the user's. "Now" and the zone are arguments; the calendar is the Gregorian one.
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

#include <date/tz.h>

namespace OstrelCore::RateLimitReset {

using Date = std::chrono::system_clock::time_point;

// Relative times beyond this many seconds (30 days) are not believed.
inline constexpr double relativeLimit = 2592000.0;
// Epoch numbers further than this from now (365 days) are not taken for dates.
inline constexpr double epochWindow = 31536000.0;

// The zone a notice names: the first pair of parentheses holding a zone identifier
// ("(Europe/Berlin)") or a short abbreviation ("(PST)"); else UTC where the notice says " UTC" or
// " GMT"; else `fallback`. A null zone stands for UTC throughout.
const date::time_zone* noticeZone(std::string_view notice, const date::time_zone* fallback);

// The reset time of a notice: the first of the five forms that yields a date.
std::optional<Date> parse(std::string_view notice, Date now, const date::time_zone* zone);

// The first form alone: a timestamp anywhere in the text, with its own offset or else in `zone`.
std::optional<Date> timestamp(std::string_view text, const date::time_zone* zone);

} // namespace OstrelCore::RateLimitReset
