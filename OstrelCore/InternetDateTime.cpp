// Internet date-time parsing on date/tz's civil calendar.
#include "OstrelCore/InternetDateTime.h"

#include <cstdint>

#include <date/date.h>
#include <fmt/format.h>

namespace OstrelCore::InternetDateTime {
namespace {

constexpr int minimumYear = 1900;
constexpr int maximumYear = 2200;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Reads exactly `width` ASCII digits at `pos`.
std::optional<int> digits(std::string_view text, std::size_t& pos, std::size_t width) {
    if (pos + width > text.size()) return std::nullopt;
    int value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        char c = text[pos + i];
        if (!isDigit(c)) return std::nullopt;
        value = value * 10 + (c - '0');
    }
    pos += width;
    return value;
}

bool expect(std::string_view text, std::size_t& pos, char a, char b = '\0') {
    if (pos >= text.size() || (text[pos] != a && (b == '\0' || text[pos] != b))) return false;
    ++pos;
    return true;
}

} // namespace

std::optional<std::chrono::system_clock::time_point> parse(std::string_view text) {
    using namespace std::chrono;
    std::size_t pos = 0;
    auto year = digits(text, pos, 4);
    if (!year || !expect(text, pos, '-')) return std::nullopt;
    auto month = digits(text, pos, 2);
    if (!month || !expect(text, pos, '-')) return std::nullopt;
    auto day = digits(text, pos, 2);
    if (!day || !expect(text, pos, 'T', 't')) return std::nullopt;
    auto hour = digits(text, pos, 2);
    if (!hour || !expect(text, pos, ':')) return std::nullopt;
    auto minute = digits(text, pos, 2);
    if (!minute || !expect(text, pos, ':')) return std::nullopt;
    auto second = digits(text, pos, 2);
    if (!second) return std::nullopt;

    nanoseconds fraction{0};
    if (pos < text.size() && text[pos] == '.') {
        ++pos;
        std::size_t start = pos;
        std::int64_t scale = 100000000;
        while (pos < text.size() && isDigit(text[pos])) {
            fraction += nanoseconds((text[pos] - '0') * scale);
            scale /= 10;
            ++pos;
        }
        if (pos == start) return std::nullopt;
    }

    minutes offset{0};
    if (pos >= text.size()) return std::nullopt;
    if (text[pos] == 'Z' || text[pos] == 'z') {
        ++pos;
    } else if (text[pos] == '+' || text[pos] == '-') {
        int sign = text[pos] == '-' ? -1 : 1;
        ++pos;
        auto offsetHours = digits(text, pos, 2);
        if (!offsetHours) return std::nullopt;
        if (pos < text.size() && text[pos] == ':') ++pos;
        auto offsetMinutes = digits(text, pos, 2);
        if (!offsetMinutes || *offsetHours > 23 || *offsetMinutes > 59) return std::nullopt;
        offset = minutes(sign * (*offsetHours * 60 + *offsetMinutes));
    } else {
        return std::nullopt;
    }
    if (pos != text.size()) return std::nullopt;

    date::year_month_day ymd{date::year(*year), date::month(static_cast<unsigned>(*month)),
                             date::day(static_cast<unsigned>(*day))};
    // A leap second (":60") is accepted and lands on the next minute. Years far from now are
    // refused: they mean nothing to an agent and would overflow a nanosecond clock.
    if (!ymd.ok() || *year < minimumYear || *year > maximumYear || *hour > 23 || *minute > 59 || *second > 60)
        return std::nullopt;
    auto local = date::sys_days(ymd) + hours(*hour) + minutes(*minute) + seconds(*second);
    return time_point_cast<system_clock::duration>(local - offset + fraction);
}

double secondsSince1970(std::chrono::system_clock::time_point time) {
    return std::chrono::duration<double>(time.time_since_epoch()).count();
}

std::optional<Time> parseMilliseconds(std::string_view text) {
    auto time = parse(text);
    if (!time) return std::nullopt;
    return std::chrono::floor<std::chrono::milliseconds>(*time);
}

std::string format(Time time) {
    auto day = std::chrono::floor<date::days>(time);
    date::year_month_day ymd{day};
    date::hh_mm_ss<std::chrono::milliseconds> clock{time - day};
    auto millis = clock.subseconds().count();
    std::string out = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", static_cast<int>(ymd.year()),
                                  static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                                  clock.hours().count(), clock.minutes().count(), clock.seconds().count());
    if (millis != 0) out += fmt::format(".{:03}", millis);
    return out + "Z";
}

} // namespace OstrelCore::InternetDateTime
