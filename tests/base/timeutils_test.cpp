#include "base/timeutils.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <regex>
#include <string>

#include "base/timeutils_internal.h"

namespace {

using namespace std::string_literals;

constexpr uint64_t kUnitsPerSecond = 1000000ULL * TOD_UNITS_PER_MICROSECOND;

// 2024-02-29 13:05:09 UTC
constexpr time_t kLeapDay = 1709211909;

uint64_t todOf(time_t seconds, long micros) {
  struct timeval time = {seconds, micros};
  return stckFromTimeval(&time);
}

// Runs each test under a fixed zone and restores the caller's afterwards.
class TimeUtilsTest : public testing::Test {
protected:
  void SetUp() override {
    if (const char *tz = getenv("TZ"))
      saved = tz;
  }
  void TearDown() override {
    if (saved)
      setenv("TZ", saved->c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
    timeZoneReset();
  }
  static void useZone(const char *tz) {
    setenv("TZ", tz, 1);
    tzset();
    timeZoneReset();
  }
  std::optional<std::string> saved;
};

TEST_F(TimeUtilsTest, TodValuesConvertBothWays) {
  EXPECT_EQ(todOf(0, 0), 2208988800ULL * kUnitsPerSecond);
  EXPECT_EQ(todOf(-TOD_EPOCH_OFFSET, 0), 0u); // 1900 itself is not positive
  EXPECT_EQ(todOf(4000000000LL, 0), 0u);      // past the TOD range

  uint64_t tod = todOf(kLeapDay, 123);
  struct timeval back {};
  stckToTimeval(&back, tod);
  uint32_t seconds = 0, micros = 0;
  stckToUnixSecondsAndMicros(tod, &seconds, &micros);
  EXPECT_EQ(std::to_string(back.tv_sec) + "." + std::to_string(back.tv_usec) + " " +
                std::to_string(stckToUnix(tod)) + " " + std::to_string(seconds) + "." +
                std::to_string(micros),
            "1709211909.123 1709211909 1709211909.123");
  uint64_t duration = 0;
  elapsedTime(&duration, 1, 1, 2, 3);
  EXPECT_EQ(duration, (86400000000ULL + 3723000000ULL) * 4096);
}

TEST_F(TimeUtilsTest, PackedTimestampsRoundTripInAnyZone) {
  const unsigned char expected[PACKED_TIMESTAMP_SIZE] = {0x13, 0x05, 0x09, 0x00, 0x01, 0x23,
                                                         0x00, 0x00, 0x20, 0x24, 0x02, 0x29};
  uint64_t tod = todOf(kLeapDay, 123);
  unsigned char stamp[PACKED_TIMESTAMP_SIZE];
  stckToTimestamp(tod, stamp);
  EXPECT_EQ(0, memcmp(stamp, expected, sizeof stamp));

  // Winter and summer dates, east and west of UTC, with daylight saving.
  for (const char *tz : {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT,M3.2.0,M11.1.0"}) {
    useZone(tz);
    for (time_t moment : {kLeapDay, static_cast<time_t>(1719835200) /* 2024-07-01 12:00 */}) {
      uint64_t original = todOf(moment, 654321);
      stckToTimestamp(original, stamp);
      uint64_t back = 0;
      ASSERT_EQ(timestampToSTCK(stamp, &back, 0), 0) << tz;
      EXPECT_EQ(back, original) << tz << " " << moment;
      ASSERT_EQ(timestampToSTCK(stamp, &back, 5), 0);
      EXPECT_EQ(back, original + 5);
    }
  }
}

TEST_F(TimeUtilsTest, TimestampsOutsideTheRangeAreRefused) {
  useZone("UTC0");
  uint64_t tod = 77;
  unsigned char stamp[PACKED_TIMESTAMP_SIZE] = {};
  writePackedDecimal(stamp, 8, 1000, 11899); // keeps the low four digits
  writePackedDecimal(stamp, 10, 10, 12);
  writePackedDecimal(stamp, 11, 10, 31);
  EXPECT_EQ(timestampToSTCK(stamp, &tod, 0), -1);
  writePackedDecimal(stamp, 8, 1000, 2024);
  writePackedDecimal(stamp, 10, 10, 13);
  EXPECT_EQ(timestampToSTCK(stamp, &tod, 0), 1);
  EXPECT_EQ(stckFromYYYYMMDD(2100, 1, 1, &tod), 1);
  EXPECT_EQ(tod, 77u);

  EXPECT_EQ(stckFromYYYYMMDD(2024, 2, 29, &tod), 0);
  EXPECT_EQ(tod, todOf(kLeapDay - (13 * 3600 + 5 * 60 + 9), 0));
}

TEST_F(TimeUtilsTest, ZoneOffsetIsAppliedInItsDirection) {
  uint64_t base = todOf(kLeapDay, 0);
  useZone("XXX-3"); // three hours east of UTC
  uint64_t tod = base;
  convertTODToLocal(&tod);
  EXPECT_EQ(tod, base + 3 * 3600 * kUnitsPerSecond);

  useZone("YYY5"); // five hours west
  tod = base;
  convertTODToLocal(&tod);
  EXPECT_EQ(tod, base - 5 * 3600 * kUnitsPerSecond);

  // Computed once: a later zone change goes unnoticed until a reset.
  setenv("TZ", "UTC0", 1);
  tzset();
  tod = base;
  convertTODToLocal(&tod);
  EXPECT_EQ(tod, base - 5 * 3600 * kUnitsPerSecond);
}

TEST_F(TimeUtilsTest, DayOfYearFollowsTheEveryFourthYearRule) {
  // {day of year, year, result, day, month}; 2100 has no century rule.
  const int cases[][5] = {{60, 2024, 0, 29, 2}, {60, 2023, 0, 1, 3},   {366, 2024, 0, 31, 12},
                          {60, 2100, 0, 29, 2}, {366, 2023, -1, 0, 0}, {0, 2023, -1, 0, 0}};
  for (const auto &c : cases) {
    unsigned char dm[2] = {9, 9};
    EXPECT_EQ(getDayAndMonth(dm, c[0], c[1]), c[2]) << c[0] << " " << c[1];
    EXPECT_EQ(dm[0], c[3]) << c[0] << " " << c[1];
    EXPECT_EQ(dm[1], c[4]) << c[0] << " " << c[1];
  }
}

TEST_F(TimeUtilsTest, TextForms) {
  char stamp[PACKED_TIMESTAMP_SIZE];
  memset(stamp, 'x', sizeof stamp);
  unixToTimestamp(kLeapDay, stamp);
  EXPECT_EQ(std::string(stamp, sizeof stamp), std::string("20240229130509\0\0", 16));

  char buffer[64];
  memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(snprintLocalTime(buffer, sizeof buffer, 2), 0);
  EXPECT_EQ(buffer[0], 'x');
  EXPECT_EQ(snprintLocalTime(buffer, sizeof buffer, 1), 26);
  EXPECT_TRUE(std::regex_match(buffer, std::regex(R"(\d{4}(-\d\d){5}\.\d{6})"))) << buffer;
}

} // namespace
