#include "base/json.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>
#include <string>
#include <unistd.h>

#include "support/env.h"
#include "support/jsontree.h"

namespace {

struct Heap {
  ShortLivedHeap *slh = makeShortLivedHeap(65536, 100);
  ~Heap() { SLHFree(slh); }
};

struct Result {
  Json *value;
  std::string error;
};

Result parse(ShortLivedHeap *slh, std::string_view text) {
  char error[1024] = "";
  Json *value =
      jsonParseUnterminatedString(slh, text.data(), static_cast<int>(text.size()), error, 1024);
  return {value, error};
}

using FileParser = Json *(*)(ShortLivedHeap *, const char *, char *, int);

// Parses text through one of the file entry points, from a scratch file.
Result parseFile(ShortLivedHeap *slh, std::string_view text, FileParser entry = jsonParseFile2) {
  std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("json_test_" + std::to_string(getpid()));
  std::ofstream(path, std::ios::binary) << text;
  char error[1024] = "";
  Json *value = entry(slh, path.c_str(), error, sizeof(error));
  std::filesystem::remove(path);
  return {value, error};
}

using mfatest::printJsonTree;
using mfatest::sameJsonTree;

// The property every accepted text must have: printing the tree and parsing
// the output gives the same tree.
void expectRoundTrip(ShortLivedHeap *slh, Json *tree) {
  std::string printed = printJsonTree(tree);
  Result again = parse(slh, printed);
  ASSERT_NE(again.value, nullptr) << printed << " -> " << again.error;
  EXPECT_TRUE(sameJsonTree(tree, again.value)) << printed;
}

bool isPositioned(const std::string &message) {
  static const std::regex kPosition(R"(^\d+:\d+: )");
  return std::regex_search(message, kPosition);
}

TEST(JsonParse, FailureMessagesNameThePositionAndTheCause) {
  Heap heap;
  using namespace std::string_literals;
  struct Case {
    std::string text;
    std::string message;
  };
  const Case cases[] = {
      {"", "1:1: unexpected EOF"},
      {"  \n\n   ", "3:4: unexpected EOF"},
      {"1.5", "1:2: unexpected character .(0x2e)\n"},
      {"[,1]", "1:2: unexpected ,"},
      {"{,}", "1:2: expected }, got ,"},
      {"{\"a\":1 \"b\":2}", "1:8: expected }, got string \"b\"\n"},
      {"{\"a\" 1}", "1:6: expected :, got number 1\n"},
      {"{\"a\":1,\n\n 5}", "3:2: expected }, got number 5\n"},
      {"{\"a\":1,\n tru}", "2:2: expected }, got tru"},
      {"{true:1}", "1:2: expected }, got boolean true\n"},
      {"[1 2]", "1:4: expected ], got number 2\n"},
      {"[1 null]", "1:4: expected ], got null\n"},
      {"[1", "1:3: expected ], got end of file\n"},
      {"{\"a\":1} x", "1:9: expected end of file, got x"},
      {"[1] [2]", "1:5: expected end of file, got ["},
      {"\"abc", "1:1: unterminated string \"abc"},
      {"[\"ab\ncd\"]", "1:2: unterminated string \"ab"},
      {"[1] /* open", "1:5: unterminated comment /* open"},
      {"/x 1", "1:1: invalid comment start /x, must be // or /*"},
      {"[1,/\x01]", "1:4: invalid comment start /, must be // or /*"},
      {"[nul]", "1:2: unexpected nul"},
      {"-x", "1:1: unexpected -"},
      {"[\x01]", "1:2: unexpected character \x01(0x1)\n"},
      {"\x80", "1:1: unexpected character \x80(0xffffff80)\n"},
      // An escaped line feed counts a line; a NUL in a line comment, which
      // the look-ahead drops, takes the line feed after it along.
      {"[1,\n\"a\\\nb\" x]", "3:4: expected ], got x"},
      {"[1, // a\0\n 2]"s, "2:4: unexpected EOF"},
      {"[1] /* a*\0b"s, "1:5: unterminated comment /* a*b"},
  };
  for (const Case &c : cases) {
    Result r = parse(heap.slh, c.text);
    EXPECT_EQ(r.value, nullptr) << c.text;
    EXPECT_EQ(r.error, c.message) << c.text;
  }
}

TEST(JsonParse, ErrorTextIsCutToTheCallersBufferAndMayBeOmitted) {
  Heap heap;
  char small[8];
  memset(small, 'x', sizeof(small));
  EXPECT_EQ(jsonParseString(heap.slh, "[1,", small, sizeof(small)), nullptr);
  EXPECT_STREQ(small, "1:4: un");
  EXPECT_EQ(jsonParseString(heap.slh, "[1,", nullptr, 0), nullptr);
  EXPECT_NE(jsonParseString(heap.slh, "[1]", nullptr, 0), nullptr);
  EXPECT_EQ(jsonParseString(nullptr, "[1]", small, sizeof(small)), nullptr);
  EXPECT_EQ(makeJsonParser(heap.slh, "[1]", -1), nullptr);
  freeJsonParser(nullptr);
}

TEST(JsonParse, NulAndFfBytes) {
  Heap heap;
  using namespace std::string_literals;
  // A lone NUL before a token is skipped; two in a row are an unexpected
  // character, whose message is cut short at the NUL it prints.
  EXPECT_NE(parse(heap.slh, "[1, \0"
                            "2]"s)
                .value,
            nullptr);
  Result twoNuls = parse(heap.slh, "[1,\0\0 2]"s);
  EXPECT_EQ(twoNuls.value, nullptr);
  EXPECT_EQ(twoNuls.error, "1:5: unexpected character ");
  // 0xFF reads as the end of the input.
  Json *cut = parse(heap.slh, "[7]\xff garbage").value;
  ASSERT_NE(cut, nullptr);
  EXPECT_EQ(jsonArrayGetNumber(jsonAsArray(cut), 0), 7);
  EXPECT_EQ(parse(heap.slh, "[\"a\xff\"]").error, "1:2: unterminated string \"a");
  // A NUL inside a string ends the text as the rest of the system sees it.
  Json *withNul = parse(heap.slh, "\"ab\0cd\""s).value;
  ASSERT_NE(withNul, nullptr);
  EXPECT_STREQ(jsonAsString(withNul), "ab");
  // After the digits the look-ahead drops a NUL and finds the point.
  Result decimal = parseFile(heap.slh, "[12\0.5]"s);
  ASSERT_NE(decimal.value, nullptr) << decimal.error;
  EXPECT_EQ(jsonAsDouble(jsonArrayGetItem(jsonAsArray(decimal.value), 0)), 12.5);
}

TEST(JsonParse, TokensHandedToCallersCarryTheirText) {
  Heap heap;
  const char text[] = "{\"k\": -12, tru /* c */, 1.5}";
  JsonParser *parser = makeJsonParser(heap.slh, text, sizeof(text) - 1);
  ASSERT_NE(parser, nullptr);
  parser->numberDialect = JSON_DIALECT_64BIT;
  const std::pair<int, const char *> expected[] = {
      {JSON_TOKEN_OBJECT_START, "{"}, {JSON_TOKEN_STRING, "k"},   {JSON_TOKEN_COLON, ":"},
      {JSON_TOKEN_INT64, "-12"},      {JSON_TOKEN_COMMA, ","},    {JSON_TOKEN_BAD_WORD, "tru"},
      {JSON_TOKEN_COMMA, ","},        {JSON_TOKEN_DOUBLE, "1.5"}, {JSON_TOKEN_OBJECT_END, "}"},
      {JSON_TOKEN_EOF, "EOF"}};
  for (auto [type, tokenText] : expected) {
    JsonToken *ahead = jsonLookaheadToken(parser);
    JsonToken *token = jsonNextToken(parser);
    EXPECT_EQ(ahead, token);
    EXPECT_EQ(token->type, type) << tokenText;
    EXPECT_STREQ(token->text, tokenText);
  }
  EXPECT_EQ(parser->error, nullptr);
  JsonToken *unmatched = jsonMatchToken(parser, JSON_TOKEN_COMMA);
  EXPECT_TRUE(jsonIsTokenUnmatched(unmatched));
  EXPECT_STREQ(parser->error->data.error->message, "1:29: expected ,, got end of file\n");
  freeJsonParser(parser);
}

TEST(JsonParse, AcceptsCommentsTrailingCommasAndTheAlternativeBrackets) {
  Heap heap;
  Result r = parse(heap.slh, "// leading note\n"
                             "{ /* a block\n spanning lines */ \"list\": \xba 1, 2, \xbb,\n"
                             "  \"flag\": true, // trailing note\n"
                             "  \"empty\": {},\n"
                             "}\n// end");
  ASSERT_NE(r.value, nullptr) << r.error;
  JsonObject *root = jsonAsObject(r.value);
  JsonArray *list = jsonObjectGetArray(root, "list");
  EXPECT_EQ(jsonArrayGetCount(list), 2);
  EXPECT_EQ(jsonArrayGetNumber(list, 1), 2);
  EXPECT_EQ(jsonObjectGetBoolean(root, "flag"), 1);
  EXPECT_EQ(jsonObjectGetFirstProperty(jsonObjectGetObject(root, "empty")), nullptr);
  EXPECT_NE(parse(heap.slh, "[1,2,]").value, nullptr);
  EXPECT_NE(parse(heap.slh, "[]").value, nullptr);
  EXPECT_EQ(parse(heap.slh, "[1,,]").error, "1:4: unexpected ,");
}

TEST(JsonParse, StringEscapesAreSingleCharactersWithoutUnicodeEscapes) {
  Heap heap;
  Json *value = parse(heap.slh, R"(["abc\u0041", "a\/b", "\"\\\b\f\n\r\t", "\q\
x"])")
                    .value;
  ASSERT_NE(value, nullptr);
  JsonArray *array = jsonAsArray(value);
  EXPECT_STREQ(jsonArrayGetString(array, 0), "abcu0041");
  EXPECT_STREQ(jsonArrayGetString(array, 1), "a/b");
  EXPECT_STREQ(jsonArrayGetString(array, 2), "\"\\\b\f\n\r\t");
  EXPECT_STREQ(jsonArrayGetString(array, 3), "q\nx");
  EXPECT_EQ(parse(heap.slh, "[\"ab\\").error, "1:2: unterminated string \"ab");
}

TEST(JsonParse, FirstDialectReadsThirtyTwoBitIntegers) {
  Heap heap;
  Json *value = parse(heap.slh, "[-2147483648, 2147483647, 4294967297, 007, 99999999999999999999,"
                                " -99999999999999999999, 0000000000000000000000000001]")
                    .value;
  ASSERT_NE(value, nullptr);
  JsonArray *array = jsonAsArray(value);
  EXPECT_TRUE(jsonVerifyHomogeneity(array, JSON_TYPE_NUMBER));
  // Overflow is not detected: 64 bits saturate, then the value is cut to 32.
  const int expected[] = {INT_MIN, INT_MAX, 1, 7, -1, 0, 1};
  for (int i = 0; i < 7; i++)
    EXPECT_EQ(jsonArrayGetNumber(array, i), expected[i]) << i;
  EXPECT_EQ(parse(heap.slh, "1e5").error, "1:2: expected end of file, got e");
  EXPECT_EQ(parse(heap.slh, "+1").error, "1:1: unexpected character +(0x2b)\n");
}

TEST(JsonParse, SecondDialectReadsSixtyFourBitIntegersAndDecimals) {
  Heap heap;
  Result r = parseFile(heap.slh, "[12, 1.5, -0.25, 9223372036854775807, -9223372036854775808]");
  ASSERT_NE(r.value, nullptr) << r.error;
  JsonArray *array = jsonAsArray(r.value);
  Json *twelve = jsonArrayGetItem(array, 0), *oneHalf = jsonArrayGetItem(array, 1);
  EXPECT_TRUE(jsonIsInt64(twelve));
  EXPECT_TRUE(jsonIsDouble(oneHalf));
  EXPECT_TRUE(jsonIsNumber(twelve) && jsonIsNumber(oneHalf));
  EXPECT_EQ(jsonAsNumber(twelve), 12);
  EXPECT_EQ(jsonAsNumber(oneHalf), 0); // doubles are deliberately not converted
  EXPECT_EQ(jsonAsInt64(oneHalf), 1);
  EXPECT_EQ(jsonAsDouble(jsonArrayGetItem(array, 2)), -0.25);
  EXPECT_EQ(jsonAsInt64(jsonArrayGetItem(array, 3)), INT64_MAX);
  EXPECT_EQ(jsonAsInt64(jsonArrayGetItem(array, 4)), INT64_MIN);
  EXPECT_EQ(parseFile(heap.slh, "[12.]").error, "1:2: unexpected 12.");
  EXPECT_EQ(parseFile(heap.slh, "{\"a\" 1.5}").error, "1:6: expected :, got 1.5");

  // Thousands of digits: the tokenizer keeps what fits, the value saturates.
  std::string huge(20000, '9'), tiny = "0." + std::string(400, '0') + "1";
  Result big = parseFile(heap.slh, "[" + huge + ".5, -" + huge + ", " + tiny + "]");
  ASSERT_NE(big.value, nullptr) << big.error;
  JsonArray *bigArray = jsonAsArray(big.value);
  EXPECT_EQ(jsonAsDouble(jsonArrayGetItem(bigArray, 0)), HUGE_VAL);
  EXPECT_EQ(jsonAsInt64(jsonArrayGetItem(bigArray, 0)), INT64_MAX);
  EXPECT_EQ(jsonAsInt64(jsonArrayGetItem(bigArray, 1)), INT64_MIN);
  EXPECT_EQ(jsonAsDouble(jsonArrayGetItem(bigArray, 2)), 0.0);
}

TEST(JsonParse, FileEntryPoints) {
  Heap heap;
  char error[256];
  EXPECT_EQ(jsonParseFile(heap.slh, "/nonexistent/dir/x.json", error, sizeof(error)), nullptr);
  EXPECT_STREQ(error, "Couldn't open '/nonexistent/dir/x.json'");
  std::string dir = std::filesystem::temp_directory_path().string();
  EXPECT_EQ(jsonParseFile(heap.slh, dir.c_str(), error, sizeof(error)), nullptr);
  EXPECT_EQ(std::string(error), std::string("Couldn't open '") + dir + "'");

  EXPECT_EQ(parseFile(heap.slh, "{\"n\": 1.5}", jsonParseFile).error,
            "1:8: unexpected character .(0x2e)\n");
}

TEST(JsonParse, Utf8EntryConvertsToTheHostCodePage) {
  Heap heap;
  char error[256] = "";
  const char text[] = "{\"name\": \"caf\xc3\xa9\"}";
  Json *value =
      jsonParseUnterminatedUtf8String(heap.slh, 819, text, sizeof(text) - 1, error, sizeof(error));
  ASSERT_NE(value, nullptr) << error;
  EXPECT_STREQ(jsonObjectGetString(jsonAsObject(value), "name"), "caf\xe9");

  const char invalid[] = "[\"\xc3\"]";
  EXPECT_EQ(jsonParseUnterminatedUtf8String(heap.slh, 819, invalid, sizeof(invalid) - 1, error,
                                            sizeof(error)),
            nullptr);
  EXPECT_STREQ(error, "could not convert from UTF8: conversion rc 16, reason 0");
  EXPECT_EQ(jsonParseUnterminatedUtf8String(heap.slh, 819, "", 0, error, sizeof(error)), nullptr);
  EXPECT_STREQ(error, "1:1: unexpected EOF");
}

TEST(JsonParse, HostileSizesFailCleanly) {
  Heap heap;
  // Deep nesting stops at a fixed depth with a positioned message.
  Result deep = parse(heap.slh, std::string(100000, '['));
  EXPECT_EQ(deep.value, nullptr);
  EXPECT_EQ(deep.error, "1:1001: nesting deeper than 1000 levels");
  std::string nested = std::string(1000, '[') + std::string(1000, ']');
  Result ok = parse(heap.slh, nested);
  ASSERT_NE(ok.value, nullptr) << ok.error;
  EXPECT_EQ(printJsonTree(ok.value), nested);

  // Strings beyond the first token buffer grow it.
  std::string longText(100000, 'x');
  Json *longString = parse(heap.slh, "\"" + longText + "\"").value;
  ASSERT_NE(longString, nullptr);
  EXPECT_EQ(jsonAsString(longString), longText);

  // A heap too small for the tree: the parse fails with a positioned message.
  ShortLivedHeap *small = makeShortLivedHeap(1024, 2);
  std::string many = "[";
  for (int i = 0; i < 500; i++)
    many += "\"abcdefgh\",";
  many += "1]";
  Result exhausted;
  std::string out = mfatest::captureStdout([&] { exhausted = parse(small, many); });
  EXPECT_EQ(exhausted.value, nullptr);
  EXPECT_TRUE(isPositioned(exhausted.error)) << exhausted.error;
  EXPECT_NE(exhausted.error.find("not enough memory"), std::string::npos) << exhausted.error;
  SLHFree(small);
}

TEST(JsonValue, ObjectsKeepOrderAndDuplicates) {
  Heap heap;
  JsonObject *object = jsonAsObject(parse(heap.slh, R"({"a":1,"b":"x","a":2})").value);
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(jsonObjectGetNumber(object, "a"), 1);
  std::string keys;
  for (JsonProperty *p = jsonObjectGetFirstProperty(object); p != nullptr;
       p = jsonObjectGetNextProperty(p))
    keys += jsonPropertyGetKey(p);
  EXPECT_EQ(keys, "aba");
  EXPECT_TRUE(jsonObjectHasKey(object, "b"));
  EXPECT_FALSE(jsonObjectHasKey(object, "c"));
  EXPECT_EQ(jsonObjectGetString(object, "a"), nullptr);
  EXPECT_EQ(jsonObjectGetNumber(object, "b"), 0);
  EXPECT_EQ(jsonObjectGetPropertyValue(nullptr, "a"), nullptr);
}

TEST(JsonValue, ArraysGrowAndGuardTheirIndex) {
  Heap heap;
  JsonArray *array = jsonAsArray(parse(heap.slh, R"([1,2,3,4,5,6,7,"eight",9])").value);
  ASSERT_NE(array, nullptr);
  EXPECT_EQ(jsonArrayGetCount(array), 9);
  EXPECT_EQ(jsonArrayGetNumber(array, 8), 9);
  EXPECT_EQ(jsonArrayGetItem(array, 9), nullptr);
  EXPECT_EQ(jsonArrayGetItem(array, -1), nullptr);
  EXPECT_TRUE(jsonArrayContainsString(array, "eight"));
  EXPECT_FALSE(jsonArrayContainsString(array, "nine"));
  EXPECT_FALSE(jsonVerifyHomogeneity(array, JSON_TYPE_NUMBER));
  EXPECT_TRUE(jsonVerifyHomogeneity(jsonAsArray(parse(heap.slh, "[]").value), JSON_TYPE_STRING));
}

TEST(JsonValue, ConversionsOfTheWrongTypeGiveZeroOrNull) {
  Heap heap;
  JsonArray *array = jsonAsArray(parse(heap.slh, R"(["s", true, null, [], -5])").value);
  ASSERT_NE(array, nullptr);
  Json *s = jsonArrayGetItem(array, 0), *five = jsonArrayGetItem(array, 4);
  EXPECT_EQ(jsonAsNumber(s) + jsonAsBoolean(s) + jsonAsInt64(s), 0);
  EXPECT_EQ(jsonAsString(jsonArrayGetItem(array, 1)), nullptr);
  EXPECT_EQ(jsonArrayGetObject(array, 3), nullptr);
  EXPECT_EQ(jsonAsDouble(jsonArrayGetItem(array, 2)), 0.0);
  EXPECT_EQ(jsonAsDouble(five), -5.0);

  Json big{JSON_TYPE_INT64, {}};
  big.data.number64 = (int64_t{1} << 32) + 3;
  EXPECT_EQ(jsonAsNumber(&big), 3);
}

TEST(JsonValue, CheckedReadersReportStatusAndProblems) {
  Heap heap;
  JsonObject *object =
      jsonAsObject(parse(heap.slh, R"({"list":[1],"name":"n","sub":{},"count":4})").value);
  ASSERT_NE(object, nullptr);
  int status = -1;
  EXPECT_NE(jsonArrayProperty(object, "list", &status), nullptr);
  EXPECT_EQ(status, JSON_PROPERTY_FOUND);
  EXPECT_EQ(jsonArrayProperty(object, "name", &status), nullptr);
  EXPECT_EQ(status, JSON_PROPERTY_WRONG_TYPE);
  EXPECT_STREQ(jsonStringProperty(object, "name", &status), "n");
  EXPECT_EQ(jsonObjectProperty(object, "nothing", &status), nullptr);
  EXPECT_EQ(status, JSON_PROPERTY_MISSING);
  EXPECT_EQ(jsonIntProperty(object, "count", &status, 9), 4);
  EXPECT_EQ(jsonIntProperty(object, "sub", &status, 9), 9);
  EXPECT_EQ(status, JSON_PROPERTY_WRONG_TYPE);

  auto address = static_cast<unsigned>(reinterpret_cast<uintptr_t>(object));
  char expected[128];
  snprintf(expected, sizeof(expected),
           "JSON property 'x' not found in object at 0x%x\n"
           "JSON property 'y' has wrong type in object at 0x%x\n",
           address, address);
  EXPECT_EQ(mfatest::captureStdout([&] {
              reportJSONDataProblem(object, JSON_PROPERTY_MISSING, "x");
              reportJSONDataProblem(object, JSON_PROPERTY_WRONG_TYPE, "y");
              reportJSONDataProblem(object, JSON_PROPERTY_FOUND, "z");
            }),
            expected);
}

TEST(JsonValue, HashesKeepTheTypeInTheTopByte) {
  EXPECT_EQ(hashString("\xff"), 5381 * 33 - 1); // bytes count as signed characters
  Json number{JSON_TYPE_NUMBER, {}};
  number.data.number = -1;
  EXPECT_EQ(jsonLongHash(&number), 0x00ffffffffffffff);
  Json dnumber{JSON_TYPE_DOUBLE, {}};
  dnumber.data.dnumber = -2.75;
  EXPECT_EQ(jsonLongHash(&dnumber), (int64_t{7} << 56) | (uint64_t(-2) & 0x00ffffffffffffff));
}

TEST(JsonPrint, PrintsEveryTypeInSourceOrder) {
  Heap heap;
  Result r =
      parseFile(heap.slh, "{\"a\":[1,\"t\\\"x\\n\",true,null,{}],\"b\":-2.5,\"c\":{\"d\":[]}}");
  ASSERT_NE(r.value, nullptr) << r.error;
  EXPECT_EQ(printJsonTree(r.value),
            "{\"a\":[1,\"t\\\"x\\n\",true,null,{}],\"b\":-2.500000,\"c\":{\"d\":[]}}");
  Json error{JSON_TYPE_ERROR, {}};
  EXPECT_EQ(printJsonTree(&error), "");
}

// Random documents from a grammar close to what the parser accepts, with
// the extensions and the awkward characters mixed in.
class DocumentGenerator {
public:
  explicit DocumentGenerator(unsigned seed) : random_(seed) {}

  std::string document() { return space() + value(0) + space(); }

private:
  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }

  std::string space() {
    static const std::string kSpaces[] = {" ", "\n\t", "/* c */", "// c\n", std::string(1, '\0')};
    int i = pick(10);
    return i < 5 ? kSpaces[i] : "";
  }

  std::string string() {
    static const char kPieces[][4] = {"a",    "\\n", "\\\"",     "\\\\", "\\u", "\\t", "\\r",
                                      "\x01", "\t",  "\xc3\xa9", "\xba", "\\/", "\\b"};
    std::string s = "\"";
    for (int i = pick(6); i > 0; i--)
      s += kPieces[pick(13)];
    return s + "\"";
  }

  // Containers only down to a few levels; members may end in a trailing comma.
  std::string value(int depth) {
    static const std::string kWords[] = {"true", "false", "null"};
    int kind = pick(depth > 4 ? 3 : 5);
    if (kind == 0)
      return pick(2) ? std::to_string(static_cast<int>(random_())) : kWords[pick(3)];
    if (kind == 1)
      return pick(2) ? string() : "-" + std::to_string(pick(1000));
    if (kind == 2)
      return std::to_string(pick(10));
    bool array = kind == 3;
    std::string s = array ? (pick(2) ? "[" : "\xba") : "{";
    for (int i = pick(5); i > 0; i--)
      s += space() + (array ? "" : string() + ":" + space()) + value(depth + 1) + space() +
           (i > 1 || pick(2) ? "," : "");
    return s + (array ? (pick(2) ? "]" : "\xbb") : "}");
  }

  std::mt19937 random_;
};

TEST(JsonPrint, PrintingAnAcceptedTreeAndParsingItAgainGivesTheSameTree) {
  DocumentGenerator generator(20261122);
  int accepted = 0;
  for (int i = 0; i < 2000; i++) {
    Heap heap;
    Result r = parse(heap.slh, generator.document());
    EXPECT_TRUE(r.value != nullptr || isPositioned(r.error)) << r.error;
    if (r.value != nullptr) {
      accepted++;
      expectRoundTrip(heap.slh, r.value);
    }
  }
  EXPECT_GT(accepted, 1000);
}

TEST(JsonCorpus, EveryFileGivesATreeOrAPositionedMessage) {
  std::filesystem::path folder =
      std::filesystem::path(MFA_SOURCE_DIR) / "../shared/testdata/json-suite/test_parsing";
  if (!std::filesystem::is_directory(folder))
    GTEST_SKIP() << "JSON test corpus not found at " << folder;
  int files = 0;
  for (const auto &entry : std::filesystem::directory_iterator(folder)) {
    std::ifstream in(entry.path(), std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    SCOPED_TRACE(entry.path().filename().string());
    files++;
    Heap heap;
    Result r = parse(heap.slh, text);
    EXPECT_TRUE(r.value != nullptr || isPositioned(r.error)) << r.error;
    if (r.value != nullptr)
      expectRoundTrip(heap.slh, r.value);
    char error[1024] = "";
    Json *wide = jsonParseFile2(heap.slh, entry.path().c_str(), error, sizeof(error));
    EXPECT_TRUE(wide != nullptr || isPositioned(error)) << error;
  }
  EXPECT_GT(files, 300);
}

} // namespace
