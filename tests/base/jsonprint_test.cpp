#include "base/jsonprint.h"

#include "base/alloc.h"

#include "support/env.h"
#include "support/jsontree.h"

#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

struct Printer {
  std::string out;
  jsonPrinter *printer;
  explicit Printer(bool utf8 = false, int codePage = 1208, bool pretty = false)
      : printer(utf8 ? makeCustomUtf8JsonPrinter(mfatest::appendToString, &out, codePage)
                     : makeCustomJsonPrinter(mfatest::appendToString, &out)) {
    if (pretty)
      jsonEnablePrettyPrint(printer);
  }
  ~Printer() { freeJsonPrinter(printer); }
  jsonPrinter *operator->() { return printer; }
  operator jsonPrinter *() { return printer; }
};

// One document holding every value kind, nested and empty containers.
void writeSample(jsonPrinter *p) {
  jsonStartObject(p, nullptr);
  jsonAddInt(p, "a", -1);
  jsonStartArray(p, "b");
  jsonAddBoolean(p, nullptr, 1);
  jsonAddNull(p, nullptr);
  jsonEndArray(p);
  jsonAddUInt(p, "u", 4294967295u);
  jsonAddInt64(p, "l", -9007199254740993LL);
  jsonAddDouble(p, "d", 2);
  jsonAddBoolean(p, "f", 0);
  jsonAddString(p, "s", nullptr);
  jsonAddJSONString(p, "j", "[1, 2]");
  jsonAddJSONString(p, "n", nullptr);
  jsonStartObject(p, "e");
  jsonEndObject(p);
  jsonEndObject(p);
}

TEST(JsonPrinter, CompactDocument) {
  Printer p;
  writeSample(p);
  EXPECT_EQ(p.out, "{\"a\":-1,\"b\":[true,null],\"u\":4294967295,\"l\":-9007199254740993,"
                   "\"d\":2.000000,\"f\":false,\"s\":\"\",\"j\":[1, 2],\"n\":null,\"e\":{}}");
}

TEST(JsonPrinter, PrettyDocument) {
  Printer p(false, 1208, true);
  writeSample(p);
  EXPECT_EQ(p.out, "{\n"
                   "  \"a\": -1,\n"
                   "  \"b\": [\n"
                   "    true,\n"
                   "    null\n"
                   "  ],\n"
                   "  \"u\": 4294967295,\n"
                   "  \"l\": -9007199254740993,\n"
                   "  \"d\": 2.000000,\n"
                   "  \"f\": false,\n"
                   "  \"s\": \"\",\n"
                   "  \"j\": [1, 2],\n"
                   "  \"n\": null,\n"
                   "  \"e\": {\n"
                   "  }\n"
                   "}");
}

TEST(JsonPrinter, SeparatesRootsAndPrintsEmptyRoot) {
  Printer p;
  jsonStart(p);
  jsonEnd(p);
  jsonStartArray(p, nullptr);
  jsonEndArray(p);
  jsonAddInt(p, nullptr, 7);
  EXPECT_EQ(p.out, "{},[],7");

  Printer pretty(false, 1208, true);
  jsonStart(pretty);
  jsonEnd(pretty);
  EXPECT_EQ(pretty.out, "{\n}");
}

TEST(JsonPrinter, NativeModeEscapesOnlyQuoteBackslashAndLineEnds) {
  Printer p;
  jsonStart(p);
  jsonAddString(p, "k\"ey", "a\"b\\c\nd\re\tf");
  jsonAddUnterminatedString(p, "n", "xy\nzzz", 3);
  jsonEnd(p);
  EXPECT_EQ(p.out, "{\"k\\\"ey\":\"a\\\"b\\\\c\\nd\\re\tf\",\"n\":\"xy\\n\"}");
}

TEST(JsonPrinter, Utf8ModeEscapesControlCharactersAsUnicode) {
  Printer p(true, 1208);
  jsonStart(p);
  // A two-byte sequence passes whole; a lead byte followed by a quote does
  // not swallow the quote.
  jsonAddString(p, "s", "a\"b\\c\nd\te\x01 caf\xC3\xA9 \xC3\"");
  jsonEnd(p);
  EXPECT_EQ(p.out, "{\"s\":\"a\\\"b\\\\c\\u000ad\\u0009e\\u0001 caf\xC3\xA9 \xC3\\\"\"}");
}

TEST(JsonPrinter, Utf8ModeConvertsStringsAndKeysFromSourceCodePage) {
  Printer latin(true, 819);
  jsonStart(latin);
  jsonAddString(latin, "caf\xE9", "\xE9\"");
  jsonAddJSONString(latin, "raw", "\"\xE9\"");
  jsonEnd(latin);
  EXPECT_EQ(latin.out, "{\"caf\xC3\xA9\":\"\xC3\xA9\\\"\",\"raw\":\"\xC3\xA9\"}");

  Printer ebcdic(true, 1047);
  jsonAddString(ebcdic, "\xC1", "\xC2\xC3");
  EXPECT_EQ(ebcdic.out, "\"A\":\"BC\"");

  // A piece longer than the conversion buffer makes it grow: up front when
  // it is plainly too long, after a failed attempt when a buffer left by
  // earlier calls was too small.
  auto quotedEAcutes = [](int n) {
    std::string text = "\"";
    while (n-- > 0)
      text += "\xC3\xA9";
    return text + "\"";
  };
  Printer large(true, 819);
  jsonAddString(large, nullptr, std::string(10000, '\xE9').c_str());
  EXPECT_EQ(large.out, quotedEAcutes(10000));
  EXPECT_GE(large->conversionBufferSize, 30001);
  Printer retried(true, 819);
  retried->conversionBuffer = safeMalloc(4, "test");
  retried->conversionBufferSize = 4;
  jsonAddString(retried, nullptr, "\xE9\xE9\xE9");
  EXPECT_EQ(retried.out, quotedEAcutes(3));
  EXPECT_EQ(retried->conversionBufferSize, 4 + 8192);
}

TEST(JsonPrinter, ConversionFailureDropsThePieceOnly) {
  Printer p(true, 37); // a code page without a converter
  std::string err = mfatest::captureStderr([&] { jsonAddString(p, nullptr, "x"); });
  EXPECT_EQ(err, "JSON: conversion error, rc 24, reason 0\n"
                 "jsonConvertAndWriteBuffer() error: newLen = -1\n");
  EXPECT_EQ(p.out, "\"\"");
  EXPECT_EQ(jsonCheckIOErrorFlag(p), 0);
}

TEST(JsonPrinter, MultipartStringAndLimitedString) {
  Printer p;
  jsonAppendStringPart(p, "ignored");
  jsonEndMultipartString(p);
  jsonStart(p);
  jsonStartMultipartString(p, "m");
  jsonAppendStringPart(p, "ab\"");
  jsonAppendUnterminatedStringPart(p, "c\nxx", 2);
  jsonEndMultipartString(p);
  jsonEndMultipartString(p);
  jsonAddLimitedString(p, "l", "abc\n\xC3", 5);
  jsonAddLimitedString(p, "all", "\x01\x80", 2);
  jsonEnd(p);
  EXPECT_EQ(p.out, "{\"m\":\"ab\\\"c\\n\",\"l\":\"abc\",\"all\":\"\"}");
}

TEST(StringWriter, DropsPiecesThatDoNotFitWhole) {
  jsonPrinter *p = makeStringWriterCustomJsonPrinter(16);
  ASSERT_NE(p, nullptr);
  jsonStart(p);
  jsonAddString(p, "name", "abcdefghij");
  jsonEnd(p);
  EXPECT_STREQ(SWCJP_getStringPtr(p), "{\"name\":\"\"}");
  EXPECT_EQ(SWCJP_getLength(p), 11u);
  EXPECT_EQ(jsonCheckIOErrorFlag(p), 0);

  char exact[12];
  memset(exact, '#', sizeof exact);
  EXPECT_EQ(SWCJP_copyBytes(p, exact, 10), 0u);
  EXPECT_EQ(exact[0], '#');
  EXPECT_EQ(SWCJP_copyBytes(p, exact, 11), 11u);
  EXPECT_EQ(std::string(exact, 12), "{\"name\":\"\"}#");
  destroyStringWriterCustomJsonPrinter(p);

  // A NUL ends what is appended of a piece; the room still shrinks by all of it.
  p = makeStringWriterCustomJsonPrinter(16);
  jsonAddUnterminatedJSONString(p, nullptr, "ab\0cd", 5);
  jsonAddInt(p, nullptr, 7);
  EXPECT_STREQ(SWCJP_getStringPtr(p), "ab7");
  EXPECT_EQ(SWCJP_getLength(p), 6u);
  destroyStringWriterCustomJsonPrinter(p);

  // Capacity 0 is taken as 1: only the terminator fits.
  p = makeStringWriterCustomJsonPrinter(0);
  ASSERT_NE(p, nullptr);
  jsonAddInt(p, nullptr, 1);
  EXPECT_STREQ(SWCJP_getStringPtr(p), "");
  EXPECT_EQ(SWCJP_getLength(p), 0u);
  destroyStringWriterCustomJsonPrinter(p);
  destroyStringWriterCustomJsonPrinter(nullptr);
}

TEST(JsonBuffer, GrowsTerminatesCopiesAndRewinds) {
  JsonBuffer *buffer = makeJsonBuffer();
  jsonPrinter *p = makeBufferJsonPrinter(1208, buffer);
  ASSERT_NE(p, nullptr);
  std::string text(3000, 'x');
  jsonAddString(p, nullptr, text.c_str());
  EXPECT_EQ(buffer->len, 3002);
  EXPECT_EQ(buffer->size, 4096);
  jsonBufferTerminateString(buffer);
  EXPECT_EQ(buffer->len, 3003);
  EXPECT_EQ(std::string(buffer->data), "\"" + text + "\"");

  char *copy = jsonBufferCopy(buffer);
  EXPECT_EQ(std::string(copy, 3003), std::string(buffer->data, 3003));
  safeFree(copy, buffer->len);

  jsonBufferRewind(buffer);
  EXPECT_EQ(buffer->len, 0);
  EXPECT_EQ(buffer->data[0], '\0');
  freeJsonPrinter(p);
  freeJsonBuffer(buffer);
}

TEST(JsonPrinter, WritesToDescriptor) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  jsonPrinter *p = makeUtf8JsonPrinter(fds[1], 819);
  jsonStart(p);
  jsonAddString(p, "k", "\xE9\n");
  jsonEnd(p);
  close(fds[1]);
  char got[64] = {};
  ASSERT_GT(read(fds[0], got, sizeof got - 1), 0);
  close(fds[0]);
  EXPECT_STREQ(got, "{\"k\":\"\xC3\xA9\\u000a\"}");
  EXPECT_EQ(jsonCheckIOErrorFlag(p), 0);
  freeJsonPrinter(p);
}

TEST(JsonPrinter, WriteErrorLatches) {
  // Open for reading only, so every write fails.
  int fd = open("/dev/null", O_RDONLY);
  ASSERT_GE(fd, 0);
  jsonPrinter *p = makeJsonPrinter(fd);
  std::string err = mfatest::captureStderr([&] { jsonStart(p); });
  EXPECT_EQ(err, "JSON: write error, rc -1, return code 0, reason code 00000000\n");
  EXPECT_EQ(jsonCheckIOErrorFlag(p), 1);
  EXPECT_EQ(jsonShouldStopWriting(p), 1);
  err = mfatest::captureStderr([&] {
    jsonAddInt(p, "a", 1);
    jsonEnd(p);
  });
  EXPECT_EQ(err, "");
  freeJsonPrinter(p);
  close(fd);
}

} // namespace
