#include "base/charsets.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

// Text converted in mode 1 into a buffer of capacity bytes (ample by
// default), or "<code>" on failure.
std::string convert(const std::string &text, int from, int to, size_t capacity = 0) {
  std::string buffer(capacity ? capacity : 3 * text.size() + 4, '\0');
  char *target = buffer.data();
  int length = -1, reason = -1;
  int rc = convertCharset(text.data(), static_cast<int>(text.size()), from, 1, &target,
                          static_cast<int>(buffer.size()), to, nullptr, &length, &reason);
  EXPECT_EQ(target, buffer.data());
  EXPECT_EQ(reason, 0);
  return rc ? "<" + std::to_string(rc) + ">" : buffer.substr(0, static_cast<size_t>(length));
}

std::string allBytes() {
  std::string bytes(256, '\0');
  for (int i = 0; i < 256; ++i)
    bytes[i] = static_cast<char>(i);
  return bytes;
}

std::string translated(std::string bytes, const char *table) {
  translate(bytes.data(), getTranslationTable(table), static_cast<int>(bytes.size()));
  return bytes;
}

TEST(Charsets, ConvertsBetweenCodePagesInEveryMode) {
  EXPECT_EQ(convert("A", 1208, 1047), "\xC1");
  EXPECT_EQ(convert("A\xC3\xBC", 1208, 1201), std::string("\0A\0\xFC", 4));
  EXPECT_EQ(convert("A\xC3\xBC", 1208, 1202), std::string("A\0\xFC\0", 4));
  const std::string text = "Gr\xC3\xBC\xC3\x9F"
                           "e, {x} [y] \xE2\x82\xAC"; // with a euro sign
  EXPECT_EQ(convert(convert(text, 1208, 1200), 1200, 1208), text);
  EXPECT_EQ(convert(convert("caf\xC3\xA9 | ~", 1208, 1047), 1047, 819), "caf\xE9 | ~");

  // Modes 2 and 3.
  char *out = nullptr;
  int length = 0, reason = 0;
  ASSERT_EQ(convertCharset("\xC1\xC2\xC3", 3, 1047, 2, &out, 0, 1201, nullptr, &length, &reason),
            0);
  EXPECT_EQ(std::string(out, static_cast<size_t>(length)), std::string("\0A\0B\0C", 6));
  safeFree(out, length); // exact size, so the sanitizers catch a short copy

  ShortLivedHeap *slh = makeShortLivedHeap(8192, 8);
  out = nullptr;
  ASSERT_EQ(convertCharset("\xC1\xC2\xC3", 3, 1047, 3, &out, 0, 1208, slh, &length, &reason), 0);
  EXPECT_EQ(std::string(out, static_cast<size_t>(length)), "ABC");
  SLHFree(slh);
}

TEST(Charsets, ConversionFailures) {
  EXPECT_EQ(convert("ABC", 1208, 1047, 2), "<8>");
  EXPECT_EQ(convert("A\xFF", 1208, 819), "<16>");        // invalid UTF-8
  EXPECT_EQ(convert("A\xC3", 1208, 819), "<16>");        // incomplete sequence
  EXPECT_EQ(convert("\xE2\x82\xAC", 1208, 819), "<16>"); // no euro sign in 819

  char *target = nullptr;
  int length = 7, reason = 5;
  EXPECT_EQ(convertCharset("A", 1, 37, 1, &target, 4, 1208, nullptr, &length, &reason), 24);
  EXPECT_EQ(convertCharset("A", 1, 1208, 1, &target, 4, 500, nullptr, &length, &reason), 24);
  EXPECT_EQ(convertCharset("A", 1, 1208, 9, &target, 4, 1047, nullptr, &length, &reason), 12);
  EXPECT_EQ(convertCharset("A", 1, 1208, 3, &target, 0, 1047, nullptr, &length, &reason), 12);
  EXPECT_EQ(reason, 0);
  EXPECT_EQ(target, nullptr);
  EXPECT_EQ(length, 7);

  // The work buffer of mode 2 is released on failure (the leak checker watches).
  EXPECT_EQ(convertCharset("A\xFF", 2, 1208, 2, &target, 0, 819, nullptr, &length, &reason), 16);
  EXPECT_EQ(target, nullptr);
}

// The tables agree with the system converter except for the deliberate
// differences; the pairs but the plain ASCII one are inverses.
TEST(Charsets, TranslationTables) {
  EXPECT_EQ(getTranslationTable("E2ATABLE"), getTranslationTable("e2atable"));
  EXPECT_EQ(getTranslationTable("e2a"), nullptr);
  EXPECT_EQ(getTranslationTable(nullptr), nullptr);
  EXPECT_EQ(getTranslationTable("e2atable                        "), nullptr); // 32 characters

  std::string fromIconv = convert(allBytes(), 1047, 819);
  ASSERT_EQ(fromIconv.size(), 256u);
  std::string e2aTable = translated(allBytes(), "e2atable");
  EXPECT_EQ(e2aTable[0xFA], '\xB4');
  EXPECT_EQ(e2aTable[0xBE], '\xB4');
  e2aTable[0xFA] = fromIconv[0xFA];
  EXPECT_EQ(e2aTable, fromIconv);
  EXPECT_EQ(translated(fromIconv, "a2etable"), allBytes());

  std::string hostLines = fromIconv;
  std::swap(hostLines[0x15], hostLines[0x25]);
  EXPECT_EQ(translated(allBytes(), "velmora1047_to_iso88591"), hostLines);
  EXPECT_EQ(translated(hostLines, "iso88591_to_velmora1047"), allBytes());
  // Code page 037 differs from 1047 in the brackets among others, not in
  // the line ends.
  std::string from037 = translated(allBytes(), "velmora037_to_iso88591");
  EXPECT_EQ(from037.substr(0xBA, 2) + from037[0x15] + from037[0x25], "[]\x0A\x85");
  EXPECT_EQ(translated(from037, "iso88591_to_velmora037"), allBytes());

  // In place, under either name, with the host line ends.
  std::string bytes = allBytes();
  EXPECT_EQ(e2a(bytes.data(), 256), bytes.data());
  EXPECT_EQ(bytes, hostLines);
  EXPECT_EQ(a2e(bytes.data(), 256), bytes.data());
  EXPECT_EQ(bytes, allBytes());
  convert1047to8859InPlace(bytes.data(), 256);
  EXPECT_EQ(bytes, hostLines);
  convert8859to1047InPlace(bytes.data(), 256);
  EXPECT_EQ(bytes, allBytes());
}

} // namespace
