#include <zel/Date.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

/// Each case runs in a process of its own, so the zone may be set here.
void useZone(const char* zone) {
    setenv("TZ", zone, 1); // NOLINT(concurrency-mt-unsafe): no other thread runs
    tzset();
}

TEST(DateTest, IsTheEpochByDefault) {
    const zel::Date date;
    EXPECT_EQ(date.getSeconds(), 0);
    EXPECT_EQ(date.getMicroSeconds(), 0);
}

TEST(DateTest, NowLiesBetweenTwoReadingsOfTheSystemClock) {
    const std::time_t before = std::time(nullptr);
    const zel::Date now = zel::Date::now();
    // time() may lag behind the finer clock by a tick, never lead it.
    EXPECT_GE(now.getSeconds(), before);
    timespec after{};
    clock_gettime(CLOCK_REALTIME, &after);
    EXPECT_LE(now, zel::Date(after.tv_sec, after.tv_nsec / 1000));
    EXPECT_GE(now.getMicroSeconds(), 0);
    EXPECT_LT(now.getMicroSeconds(), 1'000'000);
}

TEST(DateTest, WritesDateAndTimeInUtc) {
    useZone("UTC0");
    EXPECT_EQ(zel::Date(1'717'175'039, 123'456).toStringDateAndTime(), "2024-05-31 17:03:59");
    EXPECT_EQ(zel::Date(0, 0).toStringDateAndTime(), "1970-01-01 00:00:00");
    EXPECT_EQ(zel::Date(-1, 0).toStringDateAndTime(), "1969-12-31 23:59:59");
}

TEST(DateTest, WritesTheLocalTime) {
    useZone("XYZ-5:30"); // five and a half hours east
    EXPECT_EQ(zel::Date(0, 0).toStringDateAndTime(), "1970-01-01 05:30:00");
    EXPECT_EQ(zel::Date(0, 0).localTime().tm_hour, 5);
}

TEST(DateTest, TheEarlierInstantIsTheSmaller) {
    EXPECT_LT(zel::Date(1, 999'999), zel::Date(2, 0));
    EXPECT_LT(zel::Date(2, 0), zel::Date(2, 1));
    EXPECT_EQ(zel::Date(2, 1), zel::Date(2, 1));
}

} // namespace
