// Reset times read from limit notices: the five forms, the notice's own zone,
// and clock changes.
#include "OstrelCore/RateLimitReset.h"

#include <span>
#include <string>

#include <date/date.h>
#include <date/tz.h>
#include <gtest/gtest.h>

namespace OstrelCore {
namespace {

using namespace std::chrono;
using namespace date::literals;
using Date = RateLimitReset::Date;

Date utc(date::year_month_day day, int hour, int minute = 0, int second = 0) {
    return time_point_cast<Date::duration>(date::sys_days(day) + hours(hour) + minutes(minute) +
                                           seconds(second));
}

const date::time_zone* zone(std::string_view name) {
    return date::locate_zone(name);
}

struct Case {
    std::string_view notice;
    std::optional<Date> expected;
};

void expectAll(std::span<const Case> cases, Date now, const date::time_zone* tz) {
    for (const Case& c : cases) {
        auto got = RateLimitReset::parse(c.notice, now, tz);
        if (c.expected && got)
            EXPECT_EQ(date::format("%FT%TZ", *got), date::format("%FT%TZ", *c.expected)) << c.notice;
        else
            EXPECT_EQ(got.has_value(), c.expected.has_value()) << c.notice;
    }
}

// Sunday 1 June 2025, 08:00 in New York (EDT, UTC-4).
const Date june1 = utc(2025_y / 6 / 1, 12);

TEST(RateLimitResetTest, TimestampsAreReadWithTheirOffsetOrInTheNoticeZone) {
    const Case cases[] = {
        {"resets 2025-06-01T15:30:00Z", utc(2025_y / 6 / 1, 15, 30)},
        {"resets 2025-06-01T15:30:00.250Z", utc(2025_y / 6 / 1, 15, 30) + milliseconds(250)},
        {"until 2025-06-01T15:30:00+02:00.", utc(2025_y / 6 / 1, 13, 30)},
        {"until 2025-06-01t15:30:00-0130", utc(2025_y / 6 / 1, 17, 0)},
        {"at 2025-06-01T15:30:00", utc(2025_y / 6 / 1, 19, 30)},
        {"at 2025-06-01T15:30 (Europe/Berlin)", utc(2025_y / 6 / 1, 13, 30)},
        {"id 12025-06-01T15:30:00Z", std::nullopt}, // preceded by a digit
        {"on 2025-02-30T10:00:00Z", std::nullopt},
        {"on 2025-06-01T15:30:00+2", std::nullopt}, // ends in a digit: no shortened retry
    };
    expectAll(cases, june1, zone("America/New_York"));
}

TEST(RateLimitResetTest, EpochNumbersCountOnlyNearNow) {
    const Case cases[] = {
        {"Claude AI usage limit reached|1748790000", utc(2025_y / 6 / 1, 15)},
        {"reset 1748790000123", utc(2025_y / 6 / 1, 15, 0, 0) + milliseconds(123)},
        {"reset 1600000000", std::nullopt},     // 2020: too far from now
        {"offset -1748790000", std::nullopt},   // a negative number is no date
        {"version 1.1748790000", std::nullopt}, // nor a fraction
        {"reset 17487900001", std::nullopt},    // eleven digits
    };
    expectAll(cases, june1, zone("America/New_York"));
}

TEST(RateLimitResetTest, NamedDatesUseTheNextYearOnlyOnceTheDayHasPassed) {
    const Case cases[] = {
        {"resets Jun 3 at 5pm", utc(2025_y / 6 / 3, 21)},
        {"resets June 3, 2026 at 17:00", utc(2026_y / 6 / 3, 21)},
        {"resets Jan 5", utc(2026_y / 1 / 5, 5)}, // passed: next year, midnight EST
        {"resets Jun 1", utc(2025_y / 6 / 1, 4)}, // today: stays, even though midnight has passed
        {"resets Jun 1 at 7:00", utc(2026_y / 6 / 1, 11)},
        {"back on Sept. 5th", utc(2025_y / 9 / 5, 4)},
        {"resets feb 29", utc(2028_y / 2 / 29, 5)},
        {"Marble 5 at 3pm", utc(2025_y / 6 / 1, 19)}, // not a month; the clock time still counts
        {"March 32", std::nullopt},
    };
    expectAll(cases, june1, zone("America/New_York"));
}

TEST(RateLimitResetTest, RelativeTimesAddUpTheirUnitsWithinThirtyDays) {
    const Case cases[] = {
        {"Try again in 1h 30m", june1 + seconds(5400)},
        {"retry in 2.5 hours", june1 + seconds(9000)},
        {"Available in 3 hours, and 20 minutes.", june1 + seconds(12000)},
        {"please wait 30s", june1 + seconds(30)},
        {"resets in 1d2h", june1 + hours(26)},
        {"retry after 45 days", std::nullopt},
        {"retry in 30", std::nullopt},
        {"retry in 0 seconds", std::nullopt},
    };
    expectAll(cases, june1, zone("America/New_York"));
}

TEST(RateLimitResetTest, BareClockTimesNeedACueAndAreTheNextMatchInTheZone) {
    const Case cases[] = {
        {"resets 3:45pm", utc(2025_y / 6 / 1, 19, 45)},
        {"resets 7am", utc(2025_y / 6 / 2, 11)}, // 07:00 has passed today
        {"until 23:00", utc(2025_y / 6 / 2, 3)},
        {"back at 9 a.m.", utc(2025_y / 6 / 1, 13)},
        {"resets 12am", utc(2025_y / 6 / 2, 4)},
        {"at 3", std::nullopt},
        {"at 13pm", std::nullopt},
        {"at 3 amazing", std::nullopt},
        {"limit of 3:45pm", std::nullopt}, // no cue
        {"resets 3pm (PST)", utc(2025_y / 6 / 1, 22)},
        {"resets 3pm (UTC)", utc(2025_y / 6 / 1, 15)},
        {"resets 15:00 UTC", utc(2025_y / 6 / 1, 15)},
        {"resets 3pm (soon)", utc(2025_y / 6 / 1, 19)}, // not a zone: the user's stands
    };
    expectAll(cases, june1, zone("America/New_York"));
}

// Clock times around clock changes, in other zones than the notice's and with
// no zone at all.
TEST(RateLimitResetTest, ClockChangesAndZonesOtherThanNewYork) {
    const date::time_zone* newYork = zone("America/New_York");
    struct ZoneCase {
        std::string_view notice;
        Date now;
        const date::time_zone* zone;
        Date expected;
    } cases[] = {
        {"resets 3pm", june1, nullptr, utc(2025_y / 6 / 1, 15)}, // no zone: UTC
        // 9 March 2025, 01:00 EST; at 02:00 the clocks in New York jump to 03:00:
        // a time in the gap moves to the first valid one, and a written-out one
        // is read with the earlier offset.
        {"resets at 2:30am", utc(2025_y / 3 / 9, 6), newYork, utc(2025_y / 3 / 9, 7)},
        {"resets at 3:30am", utc(2025_y / 3 / 9, 6), newYork, utc(2025_y / 3 / 9, 7, 30)},
        {"at 2025-03-09T02:30:00", utc(2025_y / 3 / 9, 6), newYork, utc(2025_y / 3 / 9, 7, 30)},
        // 2 November 2025, 00:00 EDT; 01:00 to 02:00 happens twice: the first
        // occurrence counts.
        {"resets at 1:30am", utc(2025_y / 11 / 2, 4), newYork, utc(2025_y / 11 / 2, 5, 30)},
        {"resets at 2:30am", utc(2025_y / 11 / 2, 4), newYork, utc(2025_y / 11 / 2, 7, 30)},
        // Saturday 29 March 2025 in Paris; the clocks go forward that night.
        // Elapsed time is not clock time.
        {"resets at 9am (Europe/Paris)", utc(2025_y / 3 / 29, 12), newYork, utc(2025_y / 3 / 30, 7)},
        {"resets in 24 hours (Europe/Paris)", utc(2025_y / 3 / 29, 12), newYork, utc(2025_y / 3 / 30, 12)},
        // Santiago skips midnight on 7 September 2025: a bare date starts at
        // 01:00 (-03).
        {"resets Sep 7", utc(2025_y / 9 / 5, 12), zone("America/Santiago"), utc(2025_y / 9 / 7, 4)},
    };
    for (const ZoneCase& c : cases) {
        const Case one[] = {{c.notice, c.expected}};
        expectAll(one, c.now, c.zone);
    }
}

TEST(RateLimitResetTest, NoticeZoneTriesIdentifiersThenAbbreviationsThenUtc) {
    const date::time_zone* fallback = zone("Asia/Tokyo");
    struct ZoneCase {
        std::string_view notice;
        std::string_view expected;
    } cases[] = {
        {"resets 3pm (Europe/Berlin)", "Europe/Berlin"},
        {"(in a bit) resets 3pm (pdt)", "America/Los_Angeles"},
        {"resets 3pm (EST)", "EST"}, // an identifier of its own: standard time all year
        {"resets 15:00 gmt", "Etc/UTC"},
        {"resets 15:00 GMT+2", "Etc/UTC"},
        {"resets at 15:00", "Asia/Tokyo"},
        {"resets (Mars/Olympus) soon", "Asia/Tokyo"},
        {"resets (", "Asia/Tokyo"},
    };
    for (const ZoneCase& c : cases)
        EXPECT_EQ(RateLimitReset::noticeZone(c.notice, fallback)->name(), c.expected) << c.notice;
}

} // namespace
} // namespace OstrelCore
