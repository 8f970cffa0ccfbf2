// The process-wide time scale of every wait, and local time stamps.
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

TEST(PlatformTimestamp, LayoutIsZeroPaddedWithMillisecondsAndBadFormatsGiveNothing) {
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

    EXPECT_EQ(platform::formatLocalTime(0, "100%%"), "100%");
    for (const char* bad : {static_cast<const char*>(nullptr), "", "%Q", "trailing %"}) {
        EXPECT_EQ(platform::formatLocalTime(0, bad), "") << (bad != nullptr ? bad : "null");
    }
}

}  // namespace
