#include "base/logging.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "support/env.h"

namespace {

constexpr uint64_t kMfaDb = 0x004D000200190000ULL;
constexpr uint32_t kQmxDestination = 0x004D0010;

// A print callback that appends to the std::string given as destination data.
void collect(LoggingContext *, LoggingComponent *component, void *data, const char *format,
             va_list args) {
  char text[512];
  vsnprintf(text, sizeof text, format, args);
  *static_cast<std::string *>(data) += std::string(component->name) + ":" + text;
}

uint64_t componentId(uint16_t vendor, uint16_t a, uint16_t b, uint16_t c) {
  return static_cast<uint64_t>(vendor) << 48 | static_cast<uint64_t>(a) << 32 |
         static_cast<uint64_t>(b) << 16 | c;
}

class LoggingTest : public testing::Test {
protected:
  void SetUp() override { context = makeLocalLoggingContext(); }
  void TearDown() override { freeLoggingContext(context); }

  // Destination 16 of the vendor, collecting into written.
  void collectOn(uint16_t vendor) {
    ASSERT_NE(logConfigureDestination(context, static_cast<uint32_t>(vendor) << 16 | 16, "collect",
                                      &written, collect),
              nullptr);
  }

  LoggingContext *context = nullptr;
  std::string written;
};

TEST_F(LoggingTest, ComponentLevelDecidesWhatIsWritten) {
  collectOn(77);
  logConfigureComponent(context, kMfaDb, "MFADB", kQmxDestination, 2);
  for (int level = 1; level <= 3; level++) {
    tvklog(context, kMfaDb, level, "level %d\n", level);
    EXPECT_EQ(logShouldTraceInternal(context, kMfaDb, level), level <= 2 ? 1 : 0);
  }
  EXPECT_EQ(written, "MFADB:level 1\nMFADB:level 2\n");

  logSetLevel(context, kMfaDb, 3);
  EXPECT_EQ(logGetLevel(context, kMfaDb), 3);
  tvklog(context, kMfaDb, 3, "now");
  EXPECT_EQ(written, "MFADB:level 1\nMFADB:level 2\nMFADB:now");

  // Unknown components: nothing written, nothing changed.
  uint64_t unknown = componentId(77, 2, 26, 0);
  tvklog(context, unknown, 1, "lost");
  logSetLevel(context, unknown, 9);
  EXPECT_EQ(logGetLevel(context, unknown), -1);
  EXPECT_EQ(logGetLevel(context, componentId(12, 1, 0, 0)), -1);
}

// The system vendor keeps direct-indexed tables, others hash tables; both must
// behave the same.
class ComponentTreeTest : public LoggingTest, public testing::WithParamInterface<uint16_t> {};

TEST_P(ComponentTreeTest, LevelsAreInheritedDownThePath) {
  uint16_t vendor = GetParam();
  collectOn(vendor);
  uint32_t destination = static_cast<uint32_t>(vendor) << 16 | 16;
  uint64_t leaf = componentId(vendor, 300, 7, 65535);
  uint64_t middle = componentId(vendor, 300, 7, 0);
  uint64_t top = componentId(vendor, 300, 0, 0);

  logConfigureComponent(context, leaf, "LEAF", destination, 1);
  EXPECT_EQ(logGetLevel(context, leaf), 1);
  EXPECT_EQ(logGetLevel(context, middle), -1); // made on the way, not configured
  EXPECT_EQ(logGetLevel(context, top), -1);

  tvklog(context, leaf, 2, "dropped");
  EXPECT_EQ(written, "");
  logConfigureComponent(context, top, "TOP", destination, 5);
  tvklog(context, leaf, 5, "inherited");
  tvklog(context, leaf, 6, "dropped");
  tvklog(context, middle, 1, "unconfigured");
  EXPECT_EQ(written, "LEAF:inherited");
  EXPECT_EQ(logGetLevel(context, leaf), 1);

  // A sibling added later leaves the configured entries intact.
  uint64_t sibling = componentId(vendor, 2, 0, 0);
  logConfigureComponent(context, sibling, "SIB", destination, 1);
  EXPECT_EQ(logGetLevel(context, leaf), 1);
  EXPECT_EQ(logGetLevel(context, top), 5);
  EXPECT_EQ(logGetLevel(context, sibling), 1);
}

INSTANTIATE_TEST_SUITE_P(Vendors, ComponentTreeTest, testing::Values(77, 0x1234));

TEST_F(LoggingTest, StandardDestinationsAndBadOnes) {
  logConfigureStandardDestinations(context);
  uint64_t quiet = componentId(77, 1, 0, 0), loud = componentId(77, 1, 1, 0);
  uint64_t far = componentId(77, 3, 0, 0), idle = componentId(77, 4, 0, 0);
  logConfigureComponent(context, quiet, "QUIET", LOG_DEST_DEV_NULL, 1);
  logConfigureComponent(context, loud, "LOUD", LOG_DEST_PRINTF_STDOUT, 1);
  logConfigureComponent(context, far, "FAR", 0x004D0028, 1);
  logConfigureComponent(context, idle, "IDLE", 0x004D0005, 1);
  const char bytes[4] = {1, 2, 3, 4};
  std::string out = mfatest::captureStdout([&] {
    EXPECT_EQ(logConfigureDestination(context, 0x004D0020, "big", nullptr, collect), nullptr);
    tvklog(context, quiet, 1, "hidden %d", 1);
    tvklog(context, loud, 1, "shown %d\n", 2);
    tvklog(context, far, 1, "x");
    tvkdump(context, far, 1, bytes, 4);
    tvklog(context, idle, 1, "x");
    tvkdump(context, idle, 1, bytes, 4);
  });
  EXPECT_EQ(out, "logConfigureDestination: destination ID too big 32, original ID 0x4D0020\n\n"
                 "dev/null caseshown 2\n"
                 "Destination 40 is out of range (log)\n\n"
                 "Destination 40 is out of range (dump)\n\n"
                 "Destination 5 is not initialized for logging\n\n"
                 "Destination 5 is not initialized for dumping\n\n");
  logConfigureComponent(context, loud, "LOUD", LOG_DEST_PRINTF_STDERR, 1);
  EXPECT_EQ(mfatest::captureStderr([&] { tvklog(context, loud, 1, "to stderr"); }), "to stderr");
}

TEST_F(LoggingTest, DumpShowsHexAndEbcdicText) {
  collectOn(77);
  logConfigureComponent(context, kMfaDb, "MFADB", kQmxDestination, 1);
  // "ABCDEFGHI", "@", blank, "0123456789", "abcdefghi", 0x00, ".", "STUVWXYZ" in EBCDIC.
  const unsigned char data[40] = {0xC1, 0xC2, 0xC3, 0xC4, 0xC5, 0xC6, 0xC7, 0xC8, 0xC9, 0x7C,
                                  0x40, 0xF0, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8,
                                  0xF9, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89,
                                  0x00, 0x4B, 0xE2, 0xE3, 0xE4, 0xE5, 0xE6, 0xE7, 0xE8, 0xE9};
  tvkdump(context, kMfaDb, 1, data, sizeof data);
  tvkdump(context, kMfaDb, 2, data, sizeof data); // above the level: nothing
  EXPECT_EQ(written, "MFADB:00000000  C1C2C3C4 C5C6C7C8 C97C40F0 F1F2F3F4  F5F6F7F8 F9818283 "
                     "84858687 8889004B |ABCDEFGHI. 0123456789abcdefghi..|\n"
                     "MFADB:00000020  E2E3E4E5 E6E7E8E9" +
                         std::string(55, ' ') + " |STUVWXYZ|\n");

  char line[LOG_DUMP_LINE_SIZE];
  EXPECT_EQ(standardDumperFunction(line, sizeof line, data, 32, 1), nullptr);
  EXPECT_EQ(standardDumperFunction(line, sizeof line, data, 0, 0), nullptr);
  EXPECT_EQ(standardDumperFunction(line, 16, data, 32, 0), nullptr);
}

TEST(LoggingContextTest, ProcessWideContextIsSharedAndRemovable) {
  LoggingContext *context = makeLoggingContext();
  ASSERT_NE(context, nullptr);
  EXPECT_EQ(makeLoggingContext(), context);
  EXPECT_EQ(getLoggingContext(), context);

  // A null context means the installed one; another vendor's tree is torn
  // down with it.
  std::string written;
  logConfigureDestination(nullptr, 0x00420003, "collect", &written, collect);
  logConfigureComponent(nullptr, componentId(0x42, 1, 2, 3), "DEEP", 0x00420003, 1);
  tvklog(nullptr, componentId(0x42, 1, 2, 3), 1, "via %s", "installed");
  EXPECT_EQ(written, "DEEP:via installed");

  removeLoggingContext();
  EXPECT_EQ(getLoggingContext(), nullptr);
  tvklog(nullptr, componentId(0x42, 1, 2, 3), 1, "nowhere");
  EXPECT_EQ(logGetLevel(nullptr, componentId(0x42, 1, 2, 3)), -1);
  removeLoggingContext();
}

} // namespace
