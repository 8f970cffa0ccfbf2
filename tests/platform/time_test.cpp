#include <ctime>
#include <limits>

#include <gtest/gtest.h>

#include "platform/Platform.h"

namespace {

// Every test leaves the process-wide scale as it found it.
class PlatformTimeScale : public ::testing::Test {
protected:
    void SetUp() override { saved_ = platform::timeScale(); }
    void TearDown() override { platform::setTimeScale(saved_); }

    static int64_t elapsedMs(int ms) {
        const int64_t start = platform::steadyMs();
        platform::sleepMs(ms);
        return platform::steadyMs() - start;
    }
    double saved_ = 1.0;
};

TEST_F(PlatformTimeScale, SleepsFollowTheScale) {
    ASSERT_TRUE(platform::setTimeScale(0.01));
    const int64_t shortened = elapsedMs(2000);
    EXPECT_GE(shortened, 19);
    EXPECT_LT(shortened, 1000);
    ASSERT_TRUE(platform::setTimeScale(1.0));
    EXPECT_GE(elapsedMs(50), 45);
    EXPECT_LT(elapsedMs(-5000) + elapsedMs(0), 1000);  // nothing to wait for
}

TEST_F(PlatformTimeScale, InvalidScalesAreRefusedAndDurationsClamped) {
    ASSERT_TRUE(platform::setTimeScale(0.5));
    for (double bad : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN(),
                       std::numeric_limits<double>::infinity()}) {
        EXPECT_FALSE(platform::setTimeScale(bad)) << bad;
    }
    EXPECT_DOUBLE_EQ(platform::timeScale(), 0.5);

    using std::chrono::milliseconds;
    EXPECT_EQ(platform::scaledDuration(milliseconds(1000)), milliseconds(500));
    EXPECT_EQ(platform::scaledDuration(milliseconds(-3)), std::chrono::nanoseconds(0));
    ASSERT_TRUE(platform::setTimeScale(1e12));
    // Clamped instead of overflowing into a negative duration.
    EXPECT_GT(platform::scaledDuration(std::chrono::hours(24 * 365)).count(), 0);
}

TEST(PlatformTimestamp, LayoutIsZeroPaddedWithMilliseconds) {
    platform::LocalTime t;
    t.year = 2024;
    t.month = 3;
    t.day = 5;
    t.hour = 7;
    t.minute = 8;
    t.second = 9;
    t.millisecond = 42;
    EXPECT_EQ(platform::formatTimestamp(t), "2024-03-05 07:08:09:042");

    const platform::LocalTime now = platform::localNow();
    std::tm tm{};
    ASSERT_TRUE(platform::localTime(std::time(nullptr), tm));
    EXPECT_EQ(now.year, tm.tm_year + 1900);
    EXPECT_EQ(platform::formatTimestamp(now).size(), 23u);
}

TEST(PlatformTimestamp, FormatLocalTimeFollowsStrftimeAndRefusesBadFormats) {
    std::tm tm{};
    tm.tm_year = 2021 - 1900;
    tm.tm_mon = 5;
    tm.tm_mday = 17;
    tm.tm_hour = 13;
    tm.tm_min = 4;
    tm.tm_sec = 59;
    tm.tm_isdst = -1;
    const std::time_t t = std::mktime(&tm);
    ASSERT_NE(t, static_cast<std::time_t>(-1));
    EXPECT_EQ(platform::formatLocalTime(t, "%Y-%m-%d %H:%M:%S"), "2021-06-17 13:04:59");
    EXPECT_EQ(platform::formatLocalTime(0, "100%%"), "100%");
    for (const char* bad : {static_cast<const char*>(nullptr), "", "%Q", "trailing %"}) {
        EXPECT_EQ(platform::formatLocalTime(0, bad), "") << (bad != nullptr ? bad : "null");
    }
}

}  // namespace
