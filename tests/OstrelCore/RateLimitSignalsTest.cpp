// Limit notices in terminal text and transcript records, and the resume
// decisions built on them.
#include "OstrelCore/RateLimitSignals.h"

#include <string>
#include <vector>

#include <date/date.h>
#include <date/tz.h>
#include <gtest/gtest.h>

namespace OstrelCore {
namespace {

using namespace std::chrono;
using namespace date::literals;
using Date = RateLimitSignals::Date;
using Confidence = RateLimitBlock::Confidence;
using Provider = RateLimitBlock::Provider;

Date utc(date::year_month_day day, int hour, int minute = 0, int second = 0) {
    return time_point_cast<Date::duration>(date::sys_days(day) + hours(hour) + minutes(minute) +
                                           seconds(second));
}

// Sunday 1 June 2025, 14:00 in Berlin, 08:00 in New York.
const Date now = utc(2025_y / 6 / 1, 12);
const date::time_zone* newYork() {
    return date::locate_zone("America/New_York");
}

std::optional<RateLimitBlock> fromTranscript(std::vector<std::string> lines,
                                             Provider provider = Provider::claude) {
    return RateLimitSignals::detect(std::span<const std::string>(lines), provider, now, newYork());
}

TEST(RateLimitSignalsTest, TerminalLinesMustBeginWithAKnownPhrase) {
    struct Case {
        std::string_view line;
        Confidence expected;
    } cases[] = {
        {"⏺ You've hit your usage limit · resets 3:45pm (Europe/Berlin)", Confidence::certain},
        {"  ⎿  Claude usage limit reached. Your limit will reset at 5pm", Confidence::certain},
        {"You’ve reached your usage limit.", Confidence::certain}, // typographic apostrophe
        {"⚠️ You're out of extra usage", Confidence::certain},
        {"You've hit your weekly quota. Ok", Confidence::certain},
        {"You've hit your limit · resets 3pm", Confidence::certain},
        {"API Error: 429 rate limit exceeded", Confidence::likely},
        {"Error: stream error: Too Many Requests", Confidence::likely},
        {R"(API Error: {"type":"error","error":{"type":"rate_limit_error"}})", Confidence::certain},
        {"RESOURCE_EXHAUSTED: quota metric exceeded", Confidence::likely},
    };
    for (const auto& c : cases)
        EXPECT_EQ(RateLimitSignals::classifyTerminalLine(c.line), c.expected) << c.line;
    // Questions, quotes, prose and a marker without an error prefix are no notices.
    for (std::string_view line :
         {"You've hit your stride, great limit", R"({"type":"rate_limit_error"})",
          "Why did I hit my usage limit?", "Usage limit reached?",
          "see docs/ for example: usage limit reached", "usage limit reached (e.g. after 5 hours)",
          "The usage limit reached its maximum", "> usage limit reached", "", "● ⏺  "})
        EXPECT_EQ(RateLimitSignals::classifyTerminalLine(line), std::nullopt) << line;
}

TEST(RateLimitSignalsTest, TheProviderIsGuessedFromTheNoticeWords) {
    struct Case {
        std::string_view window;
        Provider expected;
    } cases[] = {
        {"You've hit your usage limit. Upgrade at "
         "chatgpt.com/codex/settings/usage",
         Provider::codex},
        {"Quota exceeded: you have exhausted your daily quota", Provider::gemini},
        {"RESOURCE_EXHAUSTED", Provider::gemini},
        {"Claude usage limit reached", Provider::claude},
        {"You've hit your weekly limit · resets Jun 3", Provider::claude},
        {"You've hit your usage limit · try again at 3pm", Provider::codex},
        {"Too many requests", Provider::claude},
    };
    for (const auto& c : cases)
        EXPECT_EQ(RateLimitSignals::guessProvider(c.window), c.expected) << c.window;
}

TEST(RateLimitSignalsTest, TheNewestTerminalNoticeGivesItsTextAndTheResetNearBelowIt) {
    struct Case {
        const char* name;
        std::string text;
        std::optional<std::string> raw; // none: no block
        std::optional<Date> resumeAt;
        Provider provider = Provider::claude;
    } cases[] = {
        {"a named zone resets on that zone's clock",
         "\x1b[1m⏺ You've hit your usage limit · resets 3:45pm "
         "(Europe/Berlin)\x1b[0m\r\n",
         "You've hit your usage limit · resets 3:45pm (Europe/Berlin)", utc(2025_y / 6 / 1, 13, 45),
         Provider::codex},
        {"the reset on a line below",
         "\x1b[31m● Claude usage limit reached.\x1b[0m\r\n  ⎿  Try again in 1h "
         "30m\r\n\r\n> \r\n",
         "Claude usage limit reached.", now + seconds(5400)},
        {"four lines down the time no longer belongs to it",
         "Claude usage limit reached.\na\nb\nc\nTry again in 1h 30m", "Claude usage limit reached.",
         std::nullopt},
        {"the newest notice wins", "Rate limit exceeded\nlater output\nUsage limit reached, resets 5pm\nok",
         "Usage limit reached, resets 5pm", utc(2025_y / 6 / 1, 21)},
        {"a long notice is cut to 240 characters", "Usage limit reached " + std::string(300, 'z'),
         "Usage limit reached " + std::string(219, 'z') + "…", std::nullopt},
        {"buried behind the window",
         "Usage limit reached\n" + std::string(RateLimitSignals::terminalWindow, 'x'), std::nullopt,
         std::nullopt},
        {"only escapes", "\x1b[2J\x1b[H", std::nullopt, std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto block = RateLimitSignals::detect(c.text, now, newYork());
        ASSERT_EQ(block.has_value(), c.raw.has_value());
        if (!block) continue;
        EXPECT_EQ(block->rawMessage, *c.raw);
        EXPECT_EQ(block->resumeAt, c.resumeAt);
        EXPECT_EQ(block->confidence, Confidence::certain);
        EXPECT_EQ(block->provider, c.provider);
    }
}

TEST(RateLimitSignalsTest, TheWindowIsTheLast8000CharactersCountedAsUsersSeeThem) {
    // The notice line (19 characters and its line feed) fits only while the text
    // behind it leaves room; "é" and CR LF are one character each.
    struct Case {
        std::string filler;
        std::size_t count;
        bool found;
    } cases[] = {
        {"é", 7980, true},     {"é", 7981, false},      {"\r\n", 7980, true},
        {"\r\n", 7981, false}, {"e\u0301", 7980, true},
    };
    std::string before;
    for (int i = 0; i < 2000; ++i)
        before += "\x1b[32m●\x1b[0m compiling module\r\n";
    for (const Case& c : cases) {
        std::string text = before + "Usage limit reached\n";
        for (std::size_t i = 0; i < c.count; ++i)
            text += c.filler;
        EXPECT_EQ(RateLimitSignals::detect(text, now, newYork()).has_value(), c.found) << c.count;
    }
}

TEST(RateLimitSignalsTest, TranscriptRecordsAreJudgedByTypeFlagStatusAndPhrase) {
    struct Case {
        std::string name;
        std::string line;
        std::optional<Confidence> confidence;
        std::optional<Date> resumeAt;
    } cases[] = {
        {"explicit type without a phrase",
         R"({"type":"error","error":{"type":"rate_limit_error","message":"Slow down"}})", Confidence::certain,
         std::nullopt},
        {"api error flag and 429",
         R"({"type":"assistant","isApiErrorMessage":true,"error":{"status":429},"message":{"content":[{"type":"text","text":"API Error"}]}})",
         Confidence::likely, std::nullopt},
        {"429 without an error type",
         R"({"type":"system","subtype":"error","error":{"status":429,"message":"x"}})", std::nullopt,
         std::nullopt},
        {"conversation about limits",
         R"({"type":"user","message":{"content":"what is my usage limit reached state?"}})", std::nullopt,
         std::nullopt},
        {"certain phrase with an epoch reset",
         R"({"type":"assistant","isApiErrorMessage":true,"message":{"content":[{"type":"text","text":"Claude AI usage limit reached|1748790000"}]}})",
         Confidence::certain, utc(2025_y / 6 / 1, 15)},
        {"resets_at in milliseconds",
         R"({"type":"error","message":"quota exceeded","resets_at":1750000000000})", Confidence::likely,
         utc(2025_y / 6 / 15, 15, 6, 40)},
        {"resets_at as text",
         R"({"type":"error","message":"usage limit reached","resetsAt":"2025-06-01T18:00:00Z"})",
         Confidence::certain, utc(2025_y / 6 / 1, 18)},
        {"retry after seconds",
         R"({"type":"error","error":{"type":"api_error","message":"429 rate limit exceeded","retry_after":120}})",
         Confidence::likely, now + seconds(120)},
        {"retry after too far falls back to the text",
         R"({"type":"error","message":"usage limit reached, resets 5pm","retryAfter":9999999})",
         Confidence::certain, utc(2025_y / 6 / 1, 21)},
        {"gemini quota error",
         R"({"id":"e1","type":"error","content":"[API Error: You have exhausted your daily quota on this model.] RESOURCE_EXHAUSTED"})",
         Confidence::certain, std::nullopt},
        {"status read from a float", R"({"type":"error","status":429.0,"message":"quota"})",
         Confidence::likely, std::nullopt},
        {"status that isn't whole", R"({"type":"error","status":429.5,"message":"quota"})", std::nullopt,
         std::nullopt},
        {"subagent record", R"({"isSidechain":true,"type":"error","error":{"type":"rate_limit_error"}})",
         std::nullopt, std::nullopt},
        {"marker spelled otherwise", R"({"type":"error","message":"Rate Limit"})", std::nullopt,
         std::nullopt},
        {"too deep", R"({"type":"error","a":{"b":{"c":{"d":{"e":{"f":{"type":"rate_limit_error"}}}}}}})",
         std::nullopt, std::nullopt},
        {"torn line", R"({"type":"error","error":{"type":"rate_limit_error")", std::nullopt, std::nullopt},
    };
    for (const Case& c : cases) {
        auto block = fromTranscript({c.line});
        ASSERT_EQ(block.has_value(), c.confidence.has_value()) << c.name;
        if (!block) continue;
        EXPECT_EQ(block->confidence, *c.confidence) << c.name;
        EXPECT_EQ(block->resumeAt, c.resumeAt) << c.name;
        EXPECT_EQ(block->provider, Provider::claude) << c.name;
    }
}

TEST(RateLimitSignalsTest, TheNewestTranscriptRecordWithABlockWins) {
    auto block = fromTranscript(
        {
            R"({"type":"error","message":"usage limit reached, resets 5pm"})",
            R"({"type":"error","status":429,"message":"Too many requests"})",
            R"({"type":"error","message":"Too many requests, but no marker"})",
            R"({"type":"user","message":{"content":"ok, quota noted"}})",
            "not json with quota",
        },
        Provider::gemini);
    ASSERT_TRUE(block);
    EXPECT_EQ(block->confidence, Confidence::likely);
    EXPECT_EQ(block->rawMessage, "Too many requests");
    EXPECT_EQ(block->provider, Provider::gemini);

    // A record without any message carries a generic text.
    block = fromTranscript({R"({"error_type":"rate_limit_error"})"});
    ASSERT_TRUE(block);
    EXPECT_EQ(block->rawMessage, "rate limit");
}

TEST(RateLimitSignalsTest, ResumeDateTakesTheLatestCandidateWithinTheHorizonPlusAMargin) {
    RateLimitBlock block;
    auto margin = seconds(90);
    struct Case {
        std::string name;
        std::optional<Date> resumeAt, quota, expected;
    } cases[] = {
        {"none", std::nullopt, std::nullopt, std::nullopt},
        {"block only", now + hours(2), std::nullopt, now + hours(2) + margin},
        {"quota later", now + hours(2), now + hours(3), now + hours(3) + margin},
        {"block beyond horizon", now + days(8), std::nullopt, std::nullopt},
        {"block beyond horizon, quota kept", now + days(8), now + hours(1), now + hours(1) + margin},
        {"exactly at the horizon", now + days(7), std::nullopt, now + days(7) + margin},
        {"in the past", now - hours(1), std::nullopt, now + margin},
    };
    for (const Case& c : cases) {
        block.resumeAt = c.resumeAt;
        EXPECT_EQ(RateLimitSignals::resumeDate(block, c.quota, now), c.expected) << c.name;
    }
}

TEST(RateLimitSignalsTest, OnlyCertainBlocksAreRetriedMoreThanOnce) {
    struct Case {
        Confidence confidence;
        int attempts, maxAttempts;
        bool expected;
    } cases[] = {
        {Confidence::certain, 0, 3, true},  {Confidence::certain, 2, 3, true},
        {Confidence::certain, 3, 3, false}, {Confidence::certain, -1, 3, false},
        {Confidence::certain, 0, 0, false}, {Confidence::likely, 0, 3, true},
        {Confidence::likely, 1, 5, false},  {Confidence::likely, 0, 0, false},
    };
    for (const Case& c : cases) {
        RateLimitBlock block;
        block.confidence = c.confidence;
        EXPECT_EQ(RateLimitSignals::shouldAutoResume(block, c.attempts, c.maxAttempts), c.expected)
            << RateLimitBlock::rawValue(c.confidence) << " " << c.attempts << "/" << c.maxAttempts;
    }
}

} // namespace
} // namespace OstrelCore
