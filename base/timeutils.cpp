#include "base/timeutils.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/timeutils_internal.h"

namespace {

constexpr uint64_t kMicrosPerSecond = 1000000;
constexpr uint64_t kMicrosPerMinute = 60 * kMicrosPerSecond;
constexpr uint64_t kMicrosPerHour = 60 * kMicrosPerMinute;
constexpr uint64_t kMicrosPerDay = 24 * kMicrosPerHour;
// Microseconds since 1900 must leave room for the 12-bit shift.
constexpr uint64_t kMaxTodMicros = (UINT64_MAX >> 12);

struct ZoneState {
  bool computed;
  bool west;
  int64_t seconds;
  uint64_t tod;
};
ZoneState zone;

// A second count that ignores leap days; the difference of two of them for
// one moment is the zone offset, exact except across a year end after a leap
// year.
int64_t approximateSeconds(const struct tm &t) {
  return t.tm_sec +
         60LL * (t.tm_min +
                 60LL * (t.tm_hour + 24LL * (t.tm_yday + 365LL * static_cast<int64_t>(t.tm_year))));
}

// Local time minus UTC at the given moment, in seconds.
int64_t localMinusUtc(time_t moment) {
  struct tm local {};
  struct tm utc {};
  if (localtime_r(&moment, &local) == nullptr || gmtime_r(&moment, &utc) == nullptr) {
    return 0;
  }
  return approximateSeconds(local) - approximateSeconds(utc);
}

void computeCurrentZoneDifference() {
  tzset();
  int64_t offset = localMinusUtc(time(nullptr));
  zone.west = offset < 0;
  zone.seconds = offset < 0 ? -offset : offset;
  zone.tod = static_cast<uint64_t>(zone.seconds) * kMicrosPerSecond * TOD_UNITS_PER_MICROSECOND;
  zone.computed = true;
}

// The TOD value of a count of microseconds since 1900, or 0 outside the range.
uint64_t todFromMicros(int64_t seconds1900, uint64_t micros) {
  if (seconds1900 <= 0 ||
      static_cast<uint64_t>(seconds1900) > (kMaxTodMicros - micros) / kMicrosPerSecond) {
    return 0;
  }
  return (static_cast<uint64_t>(seconds1900) * kMicrosPerSecond + micros) << 12;
}

uint32_t pairDivisorOf(int scale) {
  return scale >= 10 ? static_cast<uint32_t>(scale / 10) : 0;
}

} // namespace

extern "C" void timeZoneReset(void) {
  zone = ZoneState{};
}

extern "C" int getSTCK(uint64_t *tod) {
  struct timeval now {};
  if (gettimeofday(&now, nullptr) != 0) {
    int error = errno;
    printf("gettimeofday failed: errno=%d (%s)\n", error, strerror(error));
    *tod = 0;
    return -1;
  }
  *tod = stckFromTimeval(&now);
  return 0;
}

extern "C" int getSTCKU(uint64_t *tod) {
  return getSTCK(tod);
}

extern "C" uint64_t stckFromTimeval(const struct timeval *time) {
  if (time == nullptr || time->tv_usec < 0 ||
      static_cast<uint64_t>(time->tv_usec) >= kMicrosPerSecond) {
    return 0;
  }
  return todFromMicros(static_cast<int64_t>(time->tv_sec) + TOD_EPOCH_OFFSET,
                       static_cast<uint64_t>(time->tv_usec));
}

extern "C" int stckToTimeval(struct timeval *time, uint64_t tod) {
  uint64_t micros = tod >> 12;
  time->tv_sec =
      static_cast<time_t>(static_cast<int64_t>(micros / kMicrosPerSecond) - TOD_EPOCH_OFFSET);
  time->tv_usec = static_cast<suseconds_t>(micros % kMicrosPerSecond);
  return 0;
}

extern "C" time_t stckToUnix(uint64_t tod) {
  struct timeval time {};
  stckToTimeval(&time, tod);
  return time.tv_sec;
}

extern "C" int stckToUnixSecondsAndMicros(uint64_t tod, uint32_t *seconds, uint32_t *microseconds) {
  struct timeval time {};
  stckToTimeval(&time, tod);
  *seconds = static_cast<uint32_t>(time.tv_sec);
  *microseconds = static_cast<uint32_t>(time.tv_usec);
  return 0;
}

extern "C" void convertTODToLocal(uint64_t *tod) {
  if (!zone.computed) {
    computeCurrentZoneDifference();
  }
  *tod = zone.west ? *tod - zone.tod : *tod + zone.tod;
}

extern "C" int stckToTimestamp(uint64_t tod, unsigned char timestamp[PACKED_TIMESTAMP_SIZE]) {
  struct timeval time {};
  stckToTimeval(&time, tod);
  struct tm utc {};
  gmtime_r(&time.tv_sec, &utc);
  std::memset(timestamp, 0, PACKED_TIMESTAMP_SIZE);
  writePackedDecimal(timestamp, 0, 10, static_cast<uint32_t>(utc.tm_hour));
  writePackedDecimal(timestamp, 1, 10, static_cast<uint32_t>(utc.tm_min));
  writePackedDecimal(timestamp, 2, 10, static_cast<uint32_t>(utc.tm_sec));
  writePackedDecimal(timestamp, 3, 100000, static_cast<uint32_t>(time.tv_usec));
  writePackedDecimal(timestamp, 8, 1000, static_cast<uint32_t>(utc.tm_year + 1900));
  writePackedDecimal(timestamp, 10, 10, static_cast<uint32_t>(utc.tm_mon + 1));
  writePackedDecimal(timestamp, 11, 10, static_cast<uint32_t>(utc.tm_mday));
  return 0;
}

extern "C" int timestampToSTCK(const unsigned char timestamp[PACKED_TIMESTAMP_SIZE], uint64_t *tod,
                               uint64_t addend) {
  int year = static_cast<int>(extractFromPackedDecimal(timestamp, 8, 1000));
  if (year < 1900) {
    return -1;
  }
  struct tm fields {};
  fields.tm_hour = static_cast<int>(extractFromPackedDecimal(timestamp, 0, 10));
  fields.tm_min = static_cast<int>(extractFromPackedDecimal(timestamp, 1, 10));
  fields.tm_sec = static_cast<int>(extractFromPackedDecimal(timestamp, 2, 10));
  uint32_t micros = extractFromPackedDecimal(timestamp, 3, 100000);
  fields.tm_year = year - 1900;
  fields.tm_mon = static_cast<int>(extractFromPackedDecimal(timestamp, 10, 10)) - 1;
  fields.tm_mday = static_cast<int>(extractFromPackedDecimal(timestamp, 11, 10));
  fields.tm_isdst = -1;
  if (fields.tm_hour > 23 || fields.tm_min > 59 || fields.tm_sec > 59 ||
      micros >= kMicrosPerSecond || fields.tm_mon < 0 || fields.tm_mon > 11 || fields.tm_mday < 1 ||
      fields.tm_mday > 31) {
    return 1;
  }
  // mktime reads the fields as local time; adding the zone offset of that
  // moment gives the UTC reading of the same fields.
  errno = 0;
  time_t local = mktime(&fields);
  if (local == static_cast<time_t>(-1) && errno != 0) {
    return 1;
  }
  int64_t utc = static_cast<int64_t>(local) + localMinusUtc(local);
  uint64_t value = todFromMicros(utc + TOD_EPOCH_OFFSET, micros);
  if (value == 0) {
    return 1;
  }
  *tod = value + addend;
  return 0;
}

extern "C" int stckFromYYYYMMDD(int year, int month, int day, uint64_t *tod) {
  if (year < 0 || month < 0 || day < 0) {
    return 1;
  }
  unsigned char timestamp[PACKED_TIMESTAMP_SIZE] = {};
  writePackedDecimal(timestamp, 8, 1000, static_cast<uint32_t>(year));
  writePackedDecimal(timestamp, 10, 10, static_cast<uint32_t>(month));
  writePackedDecimal(timestamp, 11, 10, static_cast<uint32_t>(day));
  return timestampToSTCK(timestamp, tod, 0);
}

extern "C" int elapsedTime(uint64_t *tod, int days, int hours, int minutes, int seconds) {
  uint64_t micros = static_cast<uint64_t>(days) * kMicrosPerDay +
                    static_cast<uint64_t>(hours) * kMicrosPerHour +
                    static_cast<uint64_t>(minutes) * kMicrosPerMinute +
                    static_cast<uint64_t>(seconds) * kMicrosPerSecond;
  *tod = micros << 12;
  return 0;
}

extern "C" int getDayAndMonth(unsigned char dayAndMonth[2], int dayOfYear, int year) {
  static constexpr int kDaysInMonth[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  bool leap = year % 4 == 0;
  dayAndMonth[0] = 0;
  dayAndMonth[1] = 0;
  if (dayOfYear < 1 || dayOfYear > (leap ? 366 : 365)) {
    return -1;
  }
  int day = dayOfYear;
  int month = 0;
  for (; month < 12; month++) {
    int length = kDaysInMonth[month] + (month == 1 && leap ? 1 : 0);
    if (day <= length) {
      break;
    }
    day -= length;
  }
  dayAndMonth[0] = static_cast<unsigned char>(day);
  dayAndMonth[1] = static_cast<unsigned char>(month + 1);
  return 0;
}

extern "C" void unixToTimestamp(time_t seconds, char buffer[PACKED_TIMESTAMP_SIZE]) {
  std::memset(buffer, 0, PACKED_TIMESTAMP_SIZE);
  struct tm utc {};
  if (gmtime_r(&seconds, &utc) == nullptr) {
    return;
  }
  // Years past 9999 are cut rather than written past the 14 digits.
  char digits[PACKED_TIMESTAMP_SIZE + 32];
  snprintf(digits, sizeof digits, "%04d%02d%02d%02d%02d%02d", (utc.tm_year + 1900) % 10000,
           utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  std::memcpy(buffer, digits, 14);
}

extern "C" int snprintLocalTime(char *buffer, int size, int style) {
  if (style != 0 && style != 1) {
    return 0;
  }
  struct timeval now {};
  gettimeofday(&now, nullptr);
  struct tm local {};
  localtime_r(&now.tv_sec, &local);
  return snprintf(buffer, size < 0 ? 0 : static_cast<size_t>(size),
                  "%04d-%02d-%02d-%02d-%02d-%02d.%06d", local.tm_year + 1900, local.tm_mon + 1,
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(now.tv_usec));
}

extern "C" void writePackedDecimal(unsigned char *buffer, int offset, int scale, uint32_t value) {
  uint32_t divisor = pairDivisorOf(scale);
  if (divisor == 0) {
    return;
  }
  value = static_cast<uint32_t>(value % (10ULL * static_cast<uint64_t>(scale)));
  for (unsigned char *out = buffer + offset; divisor > 0; divisor /= 100, out++) {
    uint32_t pair = value / divisor % 100;
    *out = static_cast<unsigned char>((pair / 10) << 4 | pair % 10);
  }
}

extern "C" uint32_t extractFromPackedDecimal(const unsigned char *buffer, int offset, int scale) {
  uint32_t value = 0;
  const unsigned char *in = buffer + offset;
  for (uint32_t divisor = pairDivisorOf(scale); divisor > 0; divisor /= 100, in++) {
    value = value * 100 + (*in >> 4) * 10 + (*in & 0x0F);
  }
  return value;
}
