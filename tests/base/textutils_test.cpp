#include "base/textutils.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "support/env.h"

namespace {

std::string encode(const std::string &bytes, int ebcdic = 0) {
  int length = -1;
  char *text = encodeBase64(nullptr, bytes.data(), static_cast<int>(bytes.size()), &length, ebcdic);
  EXPECT_NE(text, nullptr);
  std::string result(text, static_cast<size_t>(length));
  EXPECT_EQ(text[length], '\0');
  safeFree(text, length + 1);
  return result;
}

// Decoded bytes, or "<n>" for a negative result.
std::string decode(const std::string &text) {
  char out[256];
  int n = decodeBase64(text.c_str(), out);
  return n < 0 ? "<" + std::to_string(n) + ">" : std::string(out, static_cast<size_t>(n));
}

TEST(StringsNotEqual, NullIsNeverEqual) {
  EXPECT_EQ(stringsNotEqual("abc", "abc"), 0);
  EXPECT_NE(stringsNotEqual("abc", "abd"), 0);
  EXPECT_NE(stringsNotEqual("abc", nullptr), 0);
  EXPECT_NE(stringsNotEqual(nullptr, nullptr), 0);
  EXPECT_EQ(stringsNotEqualWithSize("abcX", "abcY", 3), 0);
  EXPECT_NE(stringsNotEqualWithSize("abcX", "abcY", 4), 0);
  EXPECT_NE(stringsNotEqualWithSize("abc", "abc", 0), 0);
  EXPECT_NE(stringsNotEqualWithSize(nullptr, "abc", 3), 0);
}

TEST(Base64, EncodesWithPaddingAndDecodesPartialGroups) {
  const std::pair<std::string, std::string> pairs[] = {
      {"", ""}, {"A", "QQ=="}, {"AB", "QUI="}, {"ABC", "QUJD"}, {"ABCD", "QUJDRA=="}};
  for (const auto &[bytes, text] : pairs) {
    EXPECT_EQ(encode(bytes), text);
    EXPECT_EQ(decode(text), bytes);
  }
  EXPECT_EQ(encode(std::string("\xfb\xff\x00", 3)), "+/8A");
  // EBCDIC letters, ASCII padding.
  EXPECT_EQ(encode("A", 1), "\xd8\xd8==");
  EXPECT_EQ(encode(std::string("\xfb\xff\x00", 3), 1), "\x4e\x61\xf8\xc1");

  std::string out = mfatest::captureStdout([] { EXPECT_EQ(decode("QUJ"), "<-1>"); });
  EXPECT_EQ(out, "non 4-mult");
  // Not validated: a foreign character still yields bytes.
  EXPECT_EQ(decode("Q!==").size(), 1u);

  char buffer[8];
  EXPECT_EQ(decodeBase64Unterminated("QUJDxxxx", buffer, 4), 3);
  EXPECT_EQ(std::string(buffer, 3), "ABC");

  // Every byte value, hence every character, and the remainders 1 and 2.
  std::string bytes;
  for (int i = 0; i < 256; i++)
    bytes.push_back(static_cast<char>(i));
  for (size_t length : {256u, 47u, 2u})
    EXPECT_EQ(decode(encode(bytes.substr(256 - length))), bytes.substr(256 - length));

  ShortLivedHeap *slh = makeShortLivedHeap(1024, 4);
  int length = -1;
  EXPECT_STREQ(encodeBase64(slh, "AB", 2, &length, 0), "QUI=");
  EXPECT_EQ(length, 4);
  SLHFree(slh);
}

TEST(Base64Url, ConvertsBothWaysWithinTheCapacity) {
  char text[16] = "+/+/ab==";
  EXPECT_EQ(base64ToBase64url(text), 6);
  EXPECT_STREQ(text, "-_-_ab");
  EXPECT_EQ(base64urlToBase64(text, sizeof text), 2);
  EXPECT_STREQ(text, "+/+/ab==");

  char three[16] = "abc";
  EXPECT_EQ(base64urlToBase64(three, sizeof three), 1);
  EXPECT_STREQ(three, "abc=");
  char four[16] = "ab_d";
  EXPECT_EQ(base64urlToBase64(four, sizeof four), 0);
  EXPECT_STREQ(four, "ab/d");
  char five[16] = "abcde";
  EXPECT_EQ(base64urlToBase64(five, sizeof five), -3);

  // "ab" needs "==" and a terminator: five bytes.
  char buffer[8] = "ab";
  EXPECT_EQ(base64urlToBase64(buffer, 3), -2);
  EXPECT_EQ(base64urlToBase64(buffer, 4), -1);
  EXPECT_STREQ(buffer, "ab");
  EXPECT_EQ(base64urlToBase64(buffer, 5), 2);
  char tight[8] = "abc";
  EXPECT_EQ(base64urlToBase64(tight, 4), -1);
  char full[4] = {'a', 'b', 'c', 'd'}; // no terminator within the capacity
  EXPECT_EQ(base64urlToBase64(full, sizeof full), -1);
}

} // namespace
