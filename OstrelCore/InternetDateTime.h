// Internet date-time as agents write it in transcripts and notices: "2025-10-31T13:05:12Z",
// "2025-10-31T15:05:12.250+02:00". Pure parsing, no locale and no clock.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace OstrelCore::InternetDateTime {

// The whole text must be one date-time with a zone designator ("Z" or an offset, "+hh:mm" or
// "+hhmm") and an optional fraction of a second. Anything else, or an impossible date, is absent.
std::optional<std::chrono::system_clock::time_point> parse(std::string_view text);

// The same, cut to whole milliseconds, the precision feed entries keep.
using Time = std::chrono::sys_time<std::chrono::milliseconds>;
std::optional<Time> parseMilliseconds(std::string_view text);

// UTC with a "Z"; whole seconds when the fraction is zero, else three fraction digits.
std::string format(Time time);

// Seconds since 1970 as a floating-point number, the unit the tool trace works in.
double secondsSince1970(std::chrono::system_clock::time_point time);

} // namespace OstrelCore::InternetDateTime
