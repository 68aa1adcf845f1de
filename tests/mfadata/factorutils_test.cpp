#include "mfadata/factorutils.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>

#include "support/env.h"

namespace {

// Reads "YYYY-MM-DD-hh-mm-ss.uuuuuu " as a UTC time, or -1.
time_t stampSeconds(const std::string &text) {
  std::smatch m;
  if (!std::regex_match(text, m,
                        std::regex(R"((\d{4})-(\d\d)-(\d\d)-(\d\d)-(\d\d)-(\d\d)\.\d{6} )"))) {
    return -1;
  }
  struct tm fields {};
  fields.tm_year = std::stoi(m[1]) - 1900;
  fields.tm_mon = std::stoi(m[2]) - 1;
  fields.tm_mday = std::stoi(m[3]);
  fields.tm_hour = std::stoi(m[4]);
  fields.tm_min = std::stoi(m[5]);
  fields.tm_sec = std::stoi(m[6]);
  return timegm(&fields);
}

// Runs fn with TZ pinned, restoring the caller's zone afterwards.
template <typename Fn> void inZone(const char *tz, Fn fn) {
  const char *old = getenv("TZ");
  std::string saved = old != nullptr ? old : "";
  setenv("TZ", tz, 1);
  tzset();
  fn();
  if (old != nullptr) {
    setenv("TZ", saved.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}

TEST(PrintStamp, PrintsLocalTimeAndABlank) {
  // Fourteen hours east of UTC: the stamp, read as UTC, is 14 hours ahead.
  inZone("XXX-14", [] {
    time_t before = time(nullptr);
    std::string out = mfatest::captureStdout([] { printStamp(); });
    time_t after = time(nullptr);
    time_t shown = stampSeconds(out) - 14 * 3600;
    EXPECT_GE(shown, before) << out;
    EXPECT_LE(shown, after) << out;
  });
}

TEST(QmxLoggingCallback, WritesStampComponentAndMessage) {
  LoggingContext *context = makeLocalLoggingContext();
  logConfigureDestination(context, 0x004D0010, "QMX", const_cast<char *>("QMX"),
                          qmxLoggingCallback);
  logConfigureComponent(context, 0x004D000200190000ULL, "MFADB", 0x004D0010, 2);
  std::string out = mfatest::captureStdout(
      [&] { tvklog(context, 0x004D000200190000ULL, 1, "query failed, rc=%d\n", 80101); });
  EXPECT_TRUE(
      std::regex_match(out, std::regex(R"(\d{4}(-\d\d){5}\.\d{6} MFADB:query failed, rc=80101\n)")))
      << out;
  freeLoggingContext(context);
}

TEST(Clock, ReadingsAgreeWithTheSystemClock) {
  time_t before = time(nullptr);
  uint32_t seconds = 0, micros = 1000000;
  EXPECT_EQ(VELDLIBC_currentSecondsAndMicrosSince1970(&seconds, &micros), 0);
  time_t after = VELDLIBC_currentSecondsSinceJan1970();
  EXPECT_GE(static_cast<time_t>(seconds), before);
  EXPECT_LE(static_cast<time_t>(seconds), after);
  EXPECT_LT(micros, 1000000u);
  for (int i = 0; i < 1000; i++) {
    int value = VELDLIBC_rand();
    ASSERT_GE(value, 1);
    ASSERT_LE(value, 256);
  }
}

TEST(MakeString, DropsTrailingBlanksAndZeros) {
  struct {
    std::string field;
    const char *expected;
  } cases[] = {{"", ""},
               {"    ", ""},
               {std::string("AB \0 \0", 6), "AB"},
               {"  lead  ", "  lead"},
               {std::string("a\0b ", 4), "a"}};
  for (const auto &c : cases) {
    char *text = makeString(c.field.data(), static_cast<int>(c.field.size()));
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, c.expected);
    safeFree(text, static_cast<int>(strlen(text)) + 1);
  }
  EXPECT_EQ(makeString("abc", -1), nullptr);
}

// Both trimming copies must agree; the heap one lives in its SLH.
TEST(Trimming, BothCopiesTrimWhiteSpaceAlike) {
  struct {
    const char *text;
    const char *expected; // null: no copy
  } cases[] = {{nullptr, nullptr}, {"", nullptr},         {" \t\n ", nullptr},
               {"x", "x"},         {" \ta b\r\n", "a b"}, {"abc  ", "abc"}};
  ShortLivedHeap *slh = makeShortLivedHeap(4096, 4);
  for (const auto &c : cases) {
    char *copy = VELDLIBC_copyTrimmingLeadingTrailingSpaces(c.text);
    char *slhCopy = VELDLIBC_slhCopyTrimmingLeadingTrailingSpaces(slh, c.text);
    if (c.expected == nullptr) {
      EXPECT_EQ(copy, nullptr);
      EXPECT_EQ(slhCopy, nullptr);
      continue;
    }
    EXPECT_STREQ(copy, c.expected);
    EXPECT_STREQ(slhCopy, c.expected);
    safeFree(copy, static_cast<int>(strlen(copy)) + 1);
  }
  SLHFree(slh);
}

TEST(PrintableOnly, BlanksAndControlsAreRejected) {
  EXPECT_EQ(isStringHasPrintableCharsOnly(""), 1);
  EXPECT_EQ(isStringHasPrintableCharsOnly("A1~!{}"), 1);
  EXPECT_EQ(isStringHasPrintableCharsOnly("a b"), 0);
  EXPECT_EQ(isStringHasPrintableCharsOnly("tab\t"), 0);
  EXPECT_EQ(isStringHasPrintableCharsOnly("\x7f"), 0);
  EXPECT_EQ(isStringHasPrintableCharsOnly("caf\xc3\xa9"), 0);
  EXPECT_EQ(isStringHasPrintableCharsOnly(nullptr), 0);
}

} // namespace
