#include "mfadata/factortags.h"
#include "support/env.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using Tags = std::vector<std::pair<std::string, std::string>>;

const char kAbsent[] = "<absent>";

Tags collect(const factorTag *first) {
  Tags tags;
  for (const factorTag *tag = first; tag != nullptr; tag = tag->next) {
    EXPECT_EQ(tag->nameOffset + tag->valueOffset, 0u);
    tags.emplace_back(tag->tagName != nullptr ? tag->tagName : kAbsent,
                      tag->tagValue != nullptr ? tag->tagValue : kAbsent);
  }
  return tags;
}

// The tags createFactorTags reads from text, released afterwards.
Tags readStored(const char *json, uint32_t *count) {
  factorData data{};
  createFactorTags(json, &data, count);
  Tags tags = collect(data.tags);
  factorTagList_destroy(data.tags);
  return tags;
}

TEST(FactorTags, StoredShapeKeepsOrderAndDuplicates) {
  uint32_t count = 99;
  Tags tags = readStored(R"({"DN":"cn=a, o=b","SEARCHVAL":"x\"y","DN":"second","N":7})", &count);
  EXPECT_EQ(count, 4u);
  EXPECT_EQ(tags,
            (Tags{{"DN", "cn=a, o=b"}, {"SEARCHVAL", "x\"y"}, {"DN", "second"}, {"N", kAbsent}}));
}

TEST(FactorTags, TextThatIsNotAnObjectGivesNoTags) {
  // The last one is beyond what the parsing heap holds: no tags rather than
  // some of them.
  const std::string large = "{\"A\":\"" + std::string(600000, 'v') + "\"}";
  for (const char *json : {"[\"DN\",\"x\"]", "\"DN\"", "{\"DN\":", "", "{}", large.c_str()}) {
    SCOPED_TRACE(std::string(json).substr(0, 16));
    uint32_t count = 99;
    mfatest::captureStdout([&] { EXPECT_TRUE(readStored(json, &count).empty()); });
    EXPECT_EQ(count, 0u);
  }
}

TEST(FactorTags, InterfaceShapeTurnsNumbersIntoText) {
  ShortLivedHeap *slh = makeShortLivedHeap(65536, 8);
  Json *fields = jsonParseString(slh, R"([{"fieldName":"DN","fieldValue":"cn=x"},
    {"fieldName":"PIN","fieldValue":7}, {"fieldName":"NEG","fieldValue":-2147483648},
    {"fieldName":"FLAG","fieldValue":true}, {"fieldValue":"nameless"}])",
                                 nullptr, 0);
  ASSERT_NE(fields, nullptr);
  factorTag *first = nullptr;
  uint32_t count = 0;
  createFactorTagsUI(jsonAsArray(fields), &first, &count);
  EXPECT_EQ(count, 5u);
  const Tags expected = {{"DN", "cn=x"},
                         {"PIN", "7"},
                         {"NEG", "-2147483648"},
                         {"FLAG", kAbsent},
                         {kAbsent, "nameless"}};
  EXPECT_EQ(collect(first), expected);
  factorTagList_destroy(first);
  createFactorTagsUI(nullptr, &first, &count);
  EXPECT_EQ(first, nullptr);
  EXPECT_EQ(count, 0u);
  SLHFree(slh);
}

TEST(FactorTags, JsonOfAListReadsBackAsTheSameList) {
  uint32_t count = 0;
  const char *original = R"({"DN":"cn=\"q\"\\x","SEARCHVAL":"line1\nline2","EMPTY":""})";
  factorData data{};
  createFactorTags(original, &data, &count);
  char *json = nullptr;
  ASSERT_EQ(createFactorJson(data.tags, &json), 0);
  EXPECT_STREQ(json, original);
  freeString(json);
  factorTagList_destroy(data.tags);

  // Far beyond the writer's first 1024 bytes, and every byte needing an escape.
  std::string value(5000, '"');
  factorTag second{nullptr, const_cast<char *>("B"), value.data(), 0, 0};
  factorTag first{&second, const_cast<char *>("A"), nullptr, 0, 0};
  ASSERT_EQ(createFactorJson(&first, &json), 0);
  EXPECT_EQ(readStored(json, &count), (Tags{{"A", ""}, {"B", value}}));
  freeString(json);

  json = const_cast<char *>("untouched");
  EXPECT_EQ(createFactorJson(nullptr, &json), FACTORTAGS_EMPTY_LIST);
  EXPECT_STREQ(json, "untouched");
}

} // namespace
