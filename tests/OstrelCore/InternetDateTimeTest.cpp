// Internet date-times as agents write them.
#include "OstrelCore/InternetDateTime.h"

#include <gtest/gtest.h>

using namespace OstrelCore;
using namespace std::chrono;

TEST(InternetDateTime, ParsesTheFormsAgentsWrite) {
    auto base = sys_days{2025y / December / 16} + 2h;
    EXPECT_EQ(InternetDateTime::parse("2025-12-16T02:00:00Z"), base);
    EXPECT_EQ(InternetDateTime::parse("2025-12-16T02:00:00.250Z"), base + 250ms);
    EXPECT_EQ(InternetDateTime::parseMilliseconds("2025-12-16T02:00:00.123456789Z"), base + 123ms);
    EXPECT_EQ(InternetDateTime::parse("2025-12-16T04:00:00+0200"), base);
    EXPECT_EQ(InternetDateTime::parse("2025-12-16T04:30:00+02:30"), base);
    EXPECT_EQ(InternetDateTime::parse("2025-12-15T23:00:00-03:00"), base);
    EXPECT_EQ(InternetDateTime::parse("2025-12-16t02:00:00z"), base);
}

TEST(InternetDateTime, RefusesWhatIsNotOne) {
    for (const char* text :
         {"", "2025-12-16", "2025-12-16T02:00:00", "2025-02-30T00:00:00Z", "2025-12-16T24:00:00Z",
          "2025-12-16T02:00:00.Z", "2025-12-16T02:00:00Z ", "2025-12-16 02:00:00Z", "[trimmed for fixture]"})
        EXPECT_EQ(InternetDateTime::parse(text), std::nullopt) << text;
}

TEST(InternetDateTime, FormatsInUTCWithMillisecondsOnlyWhenPresent) {
    auto t = sys_days{2024y / January / 1} + 10h;
    EXPECT_EQ(InternetDateTime::format(t), "2024-01-01T10:00:00Z");
    EXPECT_EQ(InternetDateTime::format(t + 7ms), "2024-01-01T10:00:00.007Z");
    EXPECT_EQ(InternetDateTime::format(sys_days{1969y / December / 31} + 23h + 59min + 59s + 500ms),
              "1969-12-31T23:59:59.500Z");
}
