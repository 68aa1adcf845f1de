#include "mfadata/factorutils.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>

#include "support/env.h"

namespace {

// Fourteen hours east of UTC, the stamp read as UTC is 14 hours ahead.
TEST(QmxLoggingCallback, WritesLocalStampComponentAndMessage) {
  LoggingContext *context = makeLocalLoggingContext();
  logConfigureDestination(context, 0x004D0010, "QMX", const_cast<char *>("QMX"),
                          qmxLoggingCallback);
  logConfigureComponent(context, 0x004D000200190000ULL, "MFADB", 0x004D0010, 2);
  const char *zone = getenv("TZ");
  const std::string saved = zone != nullptr ? zone : "";
  setenv("TZ", "XXX-14", 1);
  tzset();
  const time_t before = time(nullptr);
  const std::string out = mfatest::captureStdout(
      [&] { tvklog(context, 0x004D000200190000ULL, 1, "query failed, rc=%d\n", 80101); });
  const time_t after = time(nullptr);
  if (zone != nullptr)
    setenv("TZ", saved.c_str(), 1);
  else
    unsetenv("TZ");
  tzset();
  freeLoggingContext(context);

  ASSERT_TRUE(
      std::regex_match(out, std::regex(R"(\d{4}(-\d\d){5}\.\d{6} MFADB:query failed, rc=80101\n)")))
      << out;
  struct tm fields {};
  strptime(out.c_str(), "%Y-%m-%d-%H-%M-%S", &fields);
  const time_t shown = timegm(&fields) - 14 * 3600;
  EXPECT_TRUE(shown >= before && shown <= after) << out;
}

TEST(Clock, ReadingsAgreeWithTheSystemClock) {
  uint32_t seconds = 0, micros = 1000000;
  EXPECT_EQ(VELDLIBC_currentSecondsAndMicrosSince1970(&seconds, &micros), 0);
  EXPECT_LE(std::abs(VELDLIBC_currentSecondsSinceJan1970() - static_cast<time_t>(seconds)), 1);
  EXPECT_LT(micros, 1000000u);
  const int value = VELDLIBC_rand();
  EXPECT_TRUE(value >= 1 && value <= 256) << value;
}

// The text of a checked-allocation copy, which it releases, or "<null>".
std::string taken(char *copy) {
  const std::string text = copy != nullptr ? copy : "<null>";
  if (copy != nullptr)
    safeFree(copy, static_cast<int>(strlen(copy)) + 1);
  return text;
}

TEST(TextHelpers, TrimmingAndPrintableChecks) {
  EXPECT_EQ(taken(makeString("    ", 4)), "");
  EXPECT_EQ(taken(makeString("  lead \0 \0", 10)), "  lead");
  EXPECT_EQ(taken(makeString("abc", -1)), "<null>");

  // Both trimming copies agree; the heap one lives in its SLH.
  ShortLivedHeap *slh = makeShortLivedHeap(4096, 4);
  for (const char *blank : {static_cast<const char *>(nullptr), "", " \t\n "}) {
    EXPECT_EQ(VELDLIBC_copyTrimmingLeadingTrailingSpaces(blank), nullptr);
    EXPECT_EQ(VELDLIBC_slhCopyTrimmingLeadingTrailingSpaces(slh, blank), nullptr);
  }
  EXPECT_EQ(taken(VELDLIBC_copyTrimmingLeadingTrailingSpaces(" \ta b\r\n")), "a b");
  EXPECT_STREQ(VELDLIBC_slhCopyTrimmingLeadingTrailingSpaces(slh, " \ta b\r\n"), "a b");
  SLHFree(slh);

  for (const char *text : {"", "A1~!{}"})
    EXPECT_EQ(isStringHasPrintableCharsOnly(text), 1) << text;
  for (const char *text : {"a b", "tab\t", "\x7f", "caf\xc3\xa9"})
    EXPECT_EQ(isStringHasPrintableCharsOnly(text), 0) << text;
  EXPECT_EQ(isStringHasPrintableCharsOnly(nullptr), 0);
}

} // namespace
