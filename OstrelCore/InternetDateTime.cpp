// Strict RFC 3339 date-time parsing and formatting over civil-date arithmetic.
#include "OstrelCore/InternetDateTime.h"

#include <date/date.h>
#include <fmt/format.h>

namespace OstrelCore::InternetDateTime {
namespace {

bool digits(std::string_view text, std::size_t at, std::size_t count, int& out) {
    if (at + count > text.size()) return false;
    int value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        char c = text[i];
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    out = value;
    return true;
}

} // namespace

std::optional<Time> parse(std::string_view s) {
    int year, month, day, hour, minute, second;
    if (!digits(s, 0, 4, year) || s.size() < 20 || s[4] != '-' || !digits(s, 5, 2, month) || s[7] != '-' ||
        !digits(s, 8, 2, day) || (s[10] != 'T' && s[10] != 't') || !digits(s, 11, 2, hour) || s[13] != ':' ||
        !digits(s, 14, 2, minute) || s[16] != ':' || !digits(s, 17, 2, second))
        return std::nullopt;
    // A leap second is folded into the last second of its minute.
    if (hour > 23 || minute > 59 || second > 60) return std::nullopt;
    if (second == 60) second = 59;
    auto ymd =
        date::year{year} / date::month{static_cast<unsigned>(month)} / date::day{static_cast<unsigned>(day)};
    if (!ymd.ok()) return std::nullopt;

    std::size_t at = 19;
    int millis = 0;
    if (at < s.size() && s[at] == '.') {
        ++at;
        std::size_t start = at;
        while (at < s.size() && s[at] >= '0' && s[at] <= '9') {
            if (at - start < 3) millis = millis * 10 + (s[at] - '0');
            ++at;
        }
        if (at == start) return std::nullopt;
        for (std::size_t n = at - start; n < 3; ++n)
            millis *= 10;
    }
    int offsetMinutes = 0;
    if (at < s.size() && (s[at] == 'Z' || s[at] == 'z')) {
        ++at;
    } else if (at < s.size() && (s[at] == '+' || s[at] == '-')) {
        int oh, om;
        if (!digits(s, at + 1, 2, oh) || at + 3 >= s.size() || s[at + 3] != ':' ||
            !digits(s, at + 4, 2, om) || oh > 23 || om > 59)
            return std::nullopt;
        offsetMinutes = (oh * 60 + om) * (s[at] == '-' ? -1 : 1);
        at += 6;
    } else {
        return std::nullopt;
    }
    if (at != s.size()) return std::nullopt;

    using namespace std::chrono;
    auto days = date::sys_days{ymd}.time_since_epoch();
    auto time = Time{duration_cast<milliseconds>(days) + hours{hour} + minutes{minute} + seconds{second} +
                     milliseconds{millis} - minutes{offsetMinutes}};
    return time;
}

std::string format(Time time) {
    using namespace std::chrono;
    auto day = floor<days>(time);
    date::year_month_day ymd{date::sys_days{day.time_since_epoch()}};
    auto rest = time - day;
    auto h = duration_cast<hours>(rest);
    auto m = duration_cast<minutes>(rest - h);
    auto s = duration_cast<seconds>(rest - h - m);
    auto ms = (rest - h - m - s).count();
    auto head = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", static_cast<int>(ymd.year()),
                            static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()), h.count(),
                            m.count(), s.count());
    return ms == 0 ? head + "Z" : fmt::format("{}.{:03}Z", head, ms);
}

} // namespace OstrelCore::InternetDateTime
