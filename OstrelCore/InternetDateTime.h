// Internet date-times (RFC 3339) as agents write them in transcripts: "2025-12-16T02:00:00.000Z",
// "2024-01-01T10:00:00Z", "2026-01-02T03:04:05+02:00". Parsed by hand, without streams or locales.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace OstrelCore::InternetDateTime {

using Time = std::chrono::sys_time<std::chrono::milliseconds>;

// Fractions beyond milliseconds are cut; a missing zone, a bad field or trailing text gives absent.
std::optional<Time> parse(std::string_view text);

// UTC with a "Z"; whole seconds when the fraction is zero, else three fraction digits.
std::string format(Time time);

} // namespace OstrelCore::InternetDateTime
