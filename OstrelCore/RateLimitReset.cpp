// Reset times in the free words of limit notices, on date/tz's Gregorian calendar and zones.
#include "OstrelCore/RateLimitReset.h"

#include "OstrelCore/InternetDateTime.h"
#include "OstrelCore/Text.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <string>

#include <date/date.h>

namespace OstrelCore::RateLimitReset {
namespace {

using std::chrono::days;
using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using std::chrono::sys_seconds;

// ---------------------------------------------------------------------------------------------
// Tables

struct Abbreviation {
    std::string_view abbreviation;
    std::string_view zone;
};

// Short zone names as notices print them. A daylight name maps to the zone that uses it, so
// "3pm PDT" is read on the Pacific clock of that day. Names that are also zone identifiers
// ("EST", "CET", "UTC") never get here: identifiers are tried first.
constexpr Abbreviation abbreviations[] = {
    {"UTC", "Etc/UTC"},
    {"GMT", "Etc/UTC"},
    {"Z", "Etc/UTC"},
    {"EST", "America/New_York"},
    {"EDT", "America/New_York"},
    {"CST", "America/Chicago"},
    {"CDT", "America/Chicago"},
    {"MST", "America/Denver"},
    {"MDT", "America/Denver"},
    {"PST", "America/Los_Angeles"},
    {"PDT", "America/Los_Angeles"},
    {"AKST", "America/Anchorage"},
    {"AKDT", "America/Anchorage"},
    {"HST", "Pacific/Honolulu"},
    {"AST", "America/Halifax"},
    {"ADT", "America/Halifax"},
    {"NST", "America/St_Johns"},
    {"NDT", "America/St_Johns"},
    {"BRT", "America/Sao_Paulo"},
    {"ART", "America/Argentina/Buenos_Aires"},
    {"CLT", "America/Santiago"},
    {"CLST", "America/Santiago"},
    {"WET", "Europe/Lisbon"},
    {"WEST", "Europe/Lisbon"},
    {"BST", "Europe/London"},
    {"IST", "Asia/Kolkata"},
    {"CET", "Europe/Paris"},
    {"CEST", "Europe/Paris"},
    {"EET", "Europe/Athens"},
    {"EEST", "Europe/Athens"},
    {"MSK", "Europe/Moscow"},
    {"GST", "Asia/Dubai"},
    {"PKT", "Asia/Karachi"},
    {"ICT", "Asia/Bangkok"},
    {"WIB", "Asia/Jakarta"},
    {"SGT", "Asia/Singapore"},
    {"HKT", "Asia/Hong_Kong"},
    {"JST", "Asia/Tokyo"},
    {"KST", "Asia/Seoul"},
    {"AWST", "Australia/Perth"},
    {"ACST", "Australia/Adelaide"},
    {"ACDT", "Australia/Adelaide"},
    {"AEST", "Australia/Sydney"},
    {"AEDT", "Australia/Sydney"},
    {"NZST", "Pacific/Auckland"},
    {"NZDT", "Pacific/Auckland"},
};

constexpr std::string_view monthNames[] = {
    "january", "february", "march",     "april",   "may",      "june",
    "july",    "august",   "september", "october", "november", "december",
};

constexpr std::string_view relativeCues[] = {
    "again in ",     "retry in ", "retrying in ", "resets in ",   "reset in ",
    "available in ", "back in ",  "again after ", "retry after ", "wait ",
};

struct Unit {
    std::string_view word;
    double seconds;
};

constexpr Unit units[] = {
    {"s", 1},      {"sec", 1},     {"secs", 1},     {"second", 1},   {"seconds", 1}, {"m", 60},
    {"min", 60},   {"mins", 60},   {"minute", 60},  {"minutes", 60}, {"h", 3600},    {"hr", 3600},
    {"hrs", 3600}, {"hour", 3600}, {"hours", 3600}, {"d", 86400},    {"day", 86400}, {"days", 86400},
};

constexpr std::string_view clockCues[] = {"at ", "reset", "until ", "back "};

// How many characters before a bare time are searched for a clock cue.
constexpr std::size_t clockCueReach = 16;
// At most this many shortened tries per timestamp candidate.
constexpr int timestampTries = 4;
// A failed timestamp candidate moves the search on by this many characters.
constexpr std::size_t timestampStride = 10;
constexpr int minimumYear = 2000;
// Years searched for a 29 February: a leap year comes within eight years, even across 2100.
constexpr int leapYearSearch = 8;
constexpr int maximumYear = 2100;

// ---------------------------------------------------------------------------------------------
// Characters

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isAsciiLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool startsWithCaseless(std::string_view text, std::size_t pos, std::string_view word) {
    if (pos > text.size() || text.size() - pos < word.size()) return false;
    for (std::size_t i = 0; i < word.size(); ++i)
        if (lower(text[pos + i]) != word[i]) return false;
    return true;
}

std::size_t findCaseless(std::string_view text, std::string_view word, std::size_t from = 0) {
    if (word.empty() || text.size() < word.size()) return std::string_view::npos;
    for (std::size_t i = from; i + word.size() <= text.size(); ++i)
        if (startsWithCaseless(text, i, word)) return i;
    return std::string_view::npos;
}

// ---------------------------------------------------------------------------------------------
// Zones

const date::time_zone* findZone(std::string_view name) {
    if (name.empty() || name.size() > 64) return nullptr;
    // date/tz reports an unknown name by throwing; here that is an ordinary "no".
    try {
        return date::locate_zone(name);
    } catch (...) {
        return nullptr;
    }
}

const date::time_zone* utcZone() {
    static const date::time_zone* zone = findZone("Etc/UTC");
    return zone;
}

date::local_seconds toLocal(const date::time_zone* zone, sys_seconds time) {
    if (zone == nullptr) return date::local_seconds(time.time_since_epoch());
    return zone->to_local(time);
}

// Times that a notice counts forward to (bare clocks, named dates): the first of a repeated time,
// and the first valid time after a gap.
sys_seconds firstValid(const date::time_zone* zone, date::local_seconds local) {
    if (zone == nullptr) return sys_seconds(local.time_since_epoch());
    date::local_info info = zone->get_info(local);
    if (info.result == date::local_info::nonexistent) return info.second.begin;
    return sys_seconds(local.time_since_epoch() - info.first.offset);
}

// Times written out in full: a time inside a gap is read with the offset in force before it.
sys_seconds asWritten(const date::time_zone* zone, date::local_seconds local) {
    if (zone == nullptr) return sys_seconds(local.time_since_epoch());
    date::local_info info = zone->get_info(local);
    return sys_seconds(local.time_since_epoch() - info.first.offset);
}

Date toDate(sys_seconds time) {
    return std::chrono::time_point_cast<Date::duration>(time);
}

// ---------------------------------------------------------------------------------------------
// Pieces of text

std::optional<int> fixedDigits(std::string_view text, std::size_t pos, std::size_t width) {
    if (pos + width > text.size()) return std::nullopt;
    int value = 0;
    for (std::size_t i = 0; i < width; ++i) {
        if (!isDigit(text[pos + i])) return std::nullopt;
        value = value * 10 + (text[pos + i] - '0');
    }
    return value;
}

struct Clock {
    int hour = 0;
    int minute = 0;
};

// hour[:mm][ am|pm|a.m.|p.m.]: with a meridiem the hour runs 1 to 12; without one the minutes are
// required, so that a lone number is never read as a time.
std::optional<Clock> readClock(std::string_view text, std::size_t pos) {
    std::size_t p = pos;
    int hour = 0;
    std::size_t hourDigits = 0;
    while (p < text.size() && isDigit(text[p]) && hourDigits < 3) {
        hour = hour * 10 + (text[p] - '0');
        ++p;
        ++hourDigits;
    }
    if (hourDigits == 0 || hourDigits > 2) return std::nullopt;

    std::optional<int> minute;
    if (p < text.size() && text[p] == ':') {
        auto mm = fixedDigits(text, p + 1, 2);
        bool exactlyTwo = mm && (p + 3 >= text.size() || !isDigit(text[p + 3]));
        if (exactlyTwo) {
            if (*mm > 59) return std::nullopt;
            minute = *mm;
            p += 3;
        }
    }

    std::size_t q = p;
    while (q < text.size() && (text[q] == ' ' || text[q] == '\t'))
        ++q;
    std::optional<bool> afternoon;
    for (std::string_view meridiem : {"a.m.", "p.m.", "am", "pm"}) {
        if (!startsWithCaseless(text, q, meridiem)) continue;
        std::size_t after = q + meridiem.size();
        // "3 amazing" is not a time; a dotted meridiem ends itself.
        if (meridiem.back() != '.' && after < text.size() && isAsciiLetter(text[after])) break;
        afternoon = meridiem.front() == 'p';
        break;
    }

    if (afternoon) {
        if (hour < 1 || hour > 12) return std::nullopt;
        hour = hour % 12 + (*afternoon ? 12 : 0);
    } else {
        if (!minute || hour > 23) return std::nullopt;
    }
    return Clock{hour, minute.value_or(0)};
}

// The next moment after `now` at which the zone's clock shows hour:minute:00.
Date nextClockTime(int hour, int minute, Date now, const date::time_zone* zone) {
    auto nowSeconds = std::chrono::floor<seconds>(now);
    date::local_days today = std::chrono::floor<days>(toLocal(zone, nowSeconds));
    for (int offset = 0; offset < 3; ++offset) {
        date::local_seconds local = today + days(offset) + hours(hour) + minutes(minute);
        Date candidate = toDate(firstValid(zone, local));
        if (candidate > now) return candidate;
    }
    // Unreachable for real zones; a clock time always recurs within two days.
    return toDate(firstValid(zone, today + days(3) + hours(hour) + minutes(minute)));
}

// ---------------------------------------------------------------------------------------------
// Form 1: timestamp

bool looksLikeTimestamp(std::string_view text, std::size_t i) {
    if (i > 0 && isDigit(text[i - 1])) return false;
    if (i + 11 > text.size()) return false;
    for (std::size_t k : {0, 1, 2, 3, 5, 6, 8, 9})
        if (!isDigit(text[i + k])) return false;
    return text[i + 4] == '-' && text[i + 7] == '-' && (text[i + 10] == 'T' || text[i + 10] == 't');
}

bool isTimestampCharacter(char c) {
    return isDigit(c) || c == '-' || c == ':' || c == 'T' || c == 't' || c == '.' || c == '+' || c == 'Z' ||
           c == 'z';
}

std::optional<Date> parseLocalTimestamp(std::string_view token, const date::time_zone* zone) {
    // yyyy-MM-ddTHH:mm:ss, then yyyy-MM-ddTHH:mm
    if (token.size() != 19 && token.size() != 16) return std::nullopt;
    auto year = fixedDigits(token, 0, 4);
    auto month = fixedDigits(token, 5, 2);
    auto day = fixedDigits(token, 8, 2);
    auto hour = fixedDigits(token, 11, 2);
    auto minute = fixedDigits(token, 14, 2);
    if (!year || !month || !day || !hour || !minute || token[13] != ':') return std::nullopt;
    int second = 0;
    if (token.size() == 19) {
        auto s = fixedDigits(token, 17, 2);
        if (!s || token[16] != ':') return std::nullopt;
        second = *s;
    }
    date::year_month_day ymd{date::year(*year), date::month(static_cast<unsigned>(*month)),
                             date::day(static_cast<unsigned>(*day))};
    if (!ymd.ok() || *year < 1900 || *year > 2200 || *hour > 23 || *minute > 59 || second > 59)
        return std::nullopt;
    date::local_seconds local = date::local_days(ymd) + hours(*hour) + minutes(*minute) + seconds(second);
    return toDate(asWritten(zone, local));
}

std::optional<Date> parseTimestampToken(std::string_view token, const date::time_zone* zone) {
    bool zoned = token.back() == 'Z' || token.back() == 'z';
    if (!zoned) {
        std::size_t t = token.find_first_of("Tt");
        zoned = t != std::string_view::npos && token.find_first_of("+-", t) != std::string_view::npos;
    }
    if (zoned) return InternetDateTime::parse(token);
    return parseLocalTimestamp(token, zone);
}

// ---------------------------------------------------------------------------------------------
// Form 2: epoch number

std::optional<Date> epochNumber(std::string_view text, Date now) {
    for (std::size_t i = 0; i < text.size();) {
        if (!isDigit(text[i])) {
            ++i;
            continue;
        }
        std::size_t start = i;
        while (i < text.size() && isDigit(text[i]))
            ++i;
        std::size_t length = i - start;
        char before = start > 0 ? text[start - 1] : ' ';
        if (before == '-' || before == ':' || before == '.') continue;
        if (length != 10 && length != 13) continue;
        auto value = Text::parseInteger(text.substr(start, length));
        if (!value) continue;
        // Compared in seconds first: a far-off number must not overflow the clock's unit.
        double at = length == 10 ? static_cast<double>(*value) : static_cast<double>(*value) / 1000.0;
        double distance = std::abs(at - InternetDateTime::secondsSince1970(now));
        if (distance > epochWindow) continue;
        Date date = length == 10
                        ? Date(std::chrono::duration_cast<Date::duration>(seconds(*value)))
                        : Date(std::chrono::duration_cast<Date::duration>(std::chrono::milliseconds(*value)));
        return date;
    }
    return std::nullopt;
}

// ---------------------------------------------------------------------------------------------
// Form 3: named date

std::optional<unsigned> monthOfWord(std::string_view word) {
    if (word.size() < 3 || word.size() > 9) return std::nullopt;
    for (unsigned m = 0; m < 12; ++m) {
        std::string_view name = monthNames[m];
        // An abbreviation of the month's name ("sep", "sept", "september"), not just any word
        // that starts with its three letters ("marble", "decided").
        if (word.size() <= name.size() && startsWithCaseless(word, 0, name.substr(0, word.size())))
            return m + 1;
    }
    return std::nullopt;
}

// Blanks, "," and "@", and the word "at", between the parts of a named date.
std::size_t skipDateSeparators(std::string_view text, std::size_t p, bool allowAt) {
    while (p < text.size()) {
        char c = text[p];
        if (c == ' ' || c == '\t' || c == ',' || c == '@') {
            ++p;
        } else if (allowAt && startsWithCaseless(text, p, "at") &&
                   (p + 2 >= text.size() || !isAsciiLetter(text[p + 2]))) {
            p += 2;
        } else {
            break;
        }
    }
    return p;
}

std::optional<Date> namedDateAt(std::string_view text, std::size_t wordEnd, unsigned month, Date now,
                                const date::time_zone* zone) {
    std::size_t p = wordEnd;
    if (p < text.size() && text[p] == '.') ++p; // "Sept. 5"
    p = skipDateSeparators(text, p, true);

    std::size_t dayStart = p;
    while (p < text.size() && isDigit(text[p]) && p - dayStart < 3)
        ++p;
    if (p == dayStart || p - dayStart > 2) return std::nullopt;
    int day = *fixedDigits(text, dayStart, p - dayStart);
    if (day < 1 || day > 31) return std::nullopt;
    for (std::string_view ordinal : {"st", "nd", "rd", "th"}) {
        if (startsWithCaseless(text, p, ordinal) && (p + 2 >= text.size() || !isAsciiLetter(text[p + 2]))) {
            p += 2;
            break;
        }
    }

    std::optional<int> year;
    std::size_t q = skipDateSeparators(text, p, false);
    if (auto y = fixedDigits(text, q, 4); y && (q + 4 >= text.size() || !isDigit(text[q + 4]))) {
        if (*y >= minimumYear && *y <= maximumYear) {
            year = *y;
            p = q + 4;
        }
    }

    std::optional<Clock> clock;
    q = skipDateSeparators(text, p, true);
    if (q < text.size() && isDigit(text[q])) clock = readClock(text, q);

    auto nowSeconds = std::chrono::floor<seconds>(now);
    date::local_days today = std::chrono::floor<days>(toLocal(zone, nowSeconds));
    int thisYear = static_cast<int>(date::year_month_day(today).year());

    auto build = [&](int y) -> std::optional<Date> {
        date::year_month_day ymd{date::year(y), date::month(month), date::day(static_cast<unsigned>(day))};
        if (!ymd.ok()) return std::nullopt;
        date::local_seconds local =
            date::local_days(ymd) + hours(clock ? clock->hour : 0) + minutes(clock ? clock->minute : 0);
        return toDate(firstValid(zone, local));
    };

    if (year) return build(*year);
    // Without a year: this year, unless the day has passed (or, with a time, the moment has); a
    // 29 February waits for the next leap year. A date without a time stands for the start of
    // that day, so "resets Jun 1" said on 1 June stays in this year.
    int y = thisYear;
    std::optional<Date> date = build(y);
    if (date) {
        bool passed =
            clock ? *date < now
                  : date::local_days(date::year_month_day{date::year(y), date::month(month),
                                                          date::day(static_cast<unsigned>(day))}) < today;
        if (passed) date.reset();
    }
    while (!date && y < thisYear + leapYearSearch)
        date = build(++y);
    return date;
}

std::optional<Date> namedDate(std::string_view text, Date now, const date::time_zone* zone) {
    for (std::size_t i = 0; i < text.size();) {
        if (!isAsciiLetter(text[i])) {
            ++i;
            continue;
        }
        std::size_t start = i;
        while (i < text.size() && isAsciiLetter(text[i]))
            ++i;
        auto month = monthOfWord(text.substr(start, i - start));
        if (!month) continue;
        if (auto date = namedDateAt(text, i, *month, now, zone)) return date;
    }
    return std::nullopt;
}

// ---------------------------------------------------------------------------------------------
// Form 4: relative time

std::optional<Date> relativeTime(std::string_view text, Date now) {
    std::size_t cueEnd = std::string_view::npos;
    std::size_t earliest = std::string_view::npos;
    for (std::string_view cue : relativeCues) {
        std::size_t at = findCaseless(text, cue);
        if (at != std::string_view::npos && (earliest == std::string_view::npos || at < earliest)) {
            earliest = at;
            cueEnd = at + cue.size();
        }
    }
    if (earliest == std::string_view::npos) return std::nullopt;

    double total = 0;
    bool any = false;
    std::size_t p = cueEnd;
    while (true) {
        while (p < text.size() && (text[p] == ' ' || text[p] == ','))
            ++p;
        if (startsWithCaseless(text, p, "and ")) p += 4;
        std::size_t numberStart = p;
        while (p < text.size() && isDigit(text[p]) && p - numberStart < 12)
            ++p;
        if (p == numberStart) break;
        if (p + 1 < text.size() && text[p] == '.' && isDigit(text[p + 1])) {
            ++p;
            while (p < text.size() && isDigit(text[p]) && p - numberStart < 24)
                ++p;
        }
        auto amount = Text::parseDouble(text.substr(numberStart, p - numberStart));
        while (p < text.size() && text[p] == ' ')
            ++p;
        std::size_t wordStart = p;
        while (p < text.size() && isAsciiLetter(text[p]))
            ++p;
        std::string word = Text::asciiLowercased(text.substr(wordStart, p - wordStart));
        const Unit* unit = nullptr;
        for (const Unit& u : units)
            if (u.word == word) unit = &u;
        if (unit == nullptr || !amount) break;
        total += *amount * unit->seconds;
        any = true;
    }
    if (!any || !(total > 0) || total > relativeLimit) return std::nullopt;
    return now + std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(total));
}

// ---------------------------------------------------------------------------------------------
// Form 5: bare clock

std::optional<Date> bareClock(std::string_view text, Date now, const date::time_zone* zone) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (!isDigit(text[i])) continue;
        if (i > 0 && (isDigit(text[i - 1]) || text[i - 1] == ':')) continue;
        std::string_view before = Text::tail(text.substr(0, i), clockCueReach);
        bool cued = false;
        for (std::string_view cue : clockCues)
            cued = cued || findCaseless(before, cue) != std::string_view::npos;
        if (!cued) continue;
        if (auto clock = readClock(text, i)) return nextClockTime(clock->hour, clock->minute, now, zone);
    }
    return std::nullopt;
}

} // namespace

// -----------------------------------------------------------------------------------------------

const date::time_zone* noticeZone(std::string_view notice, const date::time_zone* fallback) {
    for (std::size_t open = notice.find('('); open != std::string_view::npos;
         open = notice.find('(', open + 1)) {
        std::size_t close = notice.find(')', open + 1);
        if (close == std::string_view::npos) break;
        std::string_view content = Text::trim(notice.substr(open + 1, close - open - 1));
        if (content.empty()) continue;
        if (const date::time_zone* zone = findZone(content)) return zone;
        if (Text::count(content) < 6) {
            std::string upper = Text::uppercased(content);
            for (const Abbreviation& entry : abbreviations)
                if (entry.abbreviation == upper)
                    if (const date::time_zone* zone = findZone(entry.zone)) return zone;
        }
    }
    for (std::string_view name : {"utc", "gmt"}) {
        for (std::size_t at = findCaseless(notice, name); at != std::string_view::npos;
             at = findCaseless(notice, name, at + 1)) {
            if (at == 0 || notice[at - 1] == ' ') return utcZone();
        }
    }
    return fallback;
}

std::optional<Date> timestamp(std::string_view text, const date::time_zone* zone) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (!looksLikeTimestamp(text, i)) continue;
        std::size_t end = i;
        while (end < text.size() && isTimestampCharacter(text[end]))
            ++end;
        std::string_view token = text.substr(i, end - i);
        for (int attempt = 0; attempt < timestampTries && !token.empty(); ++attempt) {
            if (auto date = parseTimestampToken(token, zone)) return date;
            char last = token.back();
            if (isDigit(last) || last == 'Z' || last == 'z') break;
            token.remove_suffix(1);
        }
        i += timestampStride - 1;
    }
    return std::nullopt;
}

std::optional<Date> parse(std::string_view notice, Date now, const date::time_zone* zone) {
    zone = noticeZone(notice, zone);
    if (auto date = timestamp(notice, zone)) return date;
    if (auto date = epochNumber(notice, now)) return date;
    if (auto date = namedDate(notice, now, zone)) return date;
    if (auto date = relativeTime(notice, now)) return date;
    if (auto date = bareClock(notice, now, zone)) return date;
    return std::nullopt;
}

} // namespace OstrelCore::RateLimitReset
