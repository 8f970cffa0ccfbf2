#include <cmath>
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
    double saved_ = 1.0;
};

TEST_F(PlatformTimeScale, SmallScaleShortensWaits) {
    ASSERT_TRUE(platform::setTimeScale(0.01));
    const int64_t start = platform::steadyMs();
    platform::sleepMs(2000);
    const int64_t elapsed = platform::steadyMs() - start;
    EXPECT_GE(elapsed, 19);
    EXPECT_LT(elapsed, 1000);
}

TEST_F(PlatformTimeScale, UnitScaleSleepsTheFullTime) {
    ASSERT_TRUE(platform::setTimeScale(1.0));
    const int64_t start = platform::steadyMs();
    platform::sleepMs(50);
    EXPECT_GE(platform::steadyMs() - start, 45);
}

TEST_F(PlatformTimeScale, NegativeWaitDoesNotSleep) {
    ASSERT_TRUE(platform::setTimeScale(1.0));
    const int64_t start = platform::steadyMs();
    platform::sleepMs(-5000);
    platform::sleepMs(0);
    EXPECT_LT(platform::steadyMs() - start, 1000);
}

TEST_F(PlatformTimeScale, InvalidScalesAreRefused) {
    ASSERT_TRUE(platform::setTimeScale(0.25));
    EXPECT_FALSE(platform::setTimeScale(0.0));
    EXPECT_FALSE(platform::setTimeScale(-1.0));
    EXPECT_FALSE(platform::setTimeScale(std::numeric_limits<double>::quiet_NaN()));
    EXPECT_FALSE(platform::setTimeScale(std::numeric_limits<double>::infinity()));
    EXPECT_DOUBLE_EQ(platform::timeScale(), 0.25);
}

TEST_F(PlatformTimeScale, ScaledDurationFollowsTheScale) {
    using std::chrono::milliseconds;
    using std::chrono::nanoseconds;
    ASSERT_TRUE(platform::setTimeScale(0.5));
    EXPECT_EQ(platform::scaledDuration(milliseconds(1000)), milliseconds(500));
    EXPECT_EQ(platform::scaledDuration(milliseconds(-3)), nanoseconds(0));
    ASSERT_TRUE(platform::setTimeScale(1e12));
    // Clamped instead of overflowing into a negative duration.
    const auto huge = platform::scaledDuration(std::chrono::hours(24 * 365));
    EXPECT_GT(huge.count(), 0);
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
}

TEST(PlatformTimestamp, LocalNowAgreesWithTheCalendar) {
    const platform::LocalTime now = platform::localNow();
    std::tm tm{};
    ASSERT_TRUE(platform::localTime(std::time(nullptr), tm));
    EXPECT_EQ(now.year, tm.tm_year + 1900);
    EXPECT_GE(now.month, 1);
    EXPECT_LE(now.month, 12);
    EXPECT_GE(now.day, 1);
    EXPECT_LE(now.day, 31);
    EXPECT_GE(now.millisecond, 0);
    EXPECT_LE(now.millisecond, 999);
    EXPECT_EQ(platform::formatTimestamp(now).size(), 23u);
}

TEST(PlatformTimestamp, FormatLocalTimeRoundTripsMktime) {
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
}

TEST(PlatformTimestamp, FormatLocalTimeRefusesBadFormats) {
    EXPECT_EQ(platform::formatLocalTime(0, nullptr), "");
    EXPECT_EQ(platform::formatLocalTime(0, ""), "");
    EXPECT_EQ(platform::formatLocalTime(0, "%Q"), "");
    EXPECT_EQ(platform::formatLocalTime(0, "trailing %"), "");
    EXPECT_EQ(platform::formatLocalTime(0, "100%%"), "100%");
}

}  // namespace
