#include "mfadata/factortags.h"
#include "support/env.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// A tag list as text: name=value per tag, separated by "|", "-" for absent.
std::string listed(const factorTag *first) {
  std::string text;
  for (const factorTag *tag = first; tag != nullptr; tag = tag->next) {
    EXPECT_EQ(tag->nameOffset + tag->valueOffset, 0u);
    text += std::string(text.empty() ? "" : "|") + (tag->tagName ? tag->tagName : "-") + "=" +
            (tag->tagValue ? tag->tagValue : "-");
  }
  return text;
}

// What createFactorTags makes of json, as "count:tags", marked with "!" when
// isStoredFactorJson finds that the tags do not hold the whole text.
std::string readStored(const char *json) {
  factorData data{};
  uint32_t count = 99;
  createFactorTags(json, &data, &count);
  std::string text = std::to_string(count) + ":" + listed(data.tags);
  factorTagList_destroy(data.tags);
  return text + (isStoredFactorJson(json) ? "" : "!");
}

TEST(FactorTags, StoredShapeKeepsOrderAndDuplicates) {
  EXPECT_EQ(readStored(R"({"DN":"cn=a, o=b","SEARCHVAL":"x\"y","DN":"second"})"),
            R"(3:DN=cn=a, o=b|SEARCHVAL=x"y|DN=second)");
  // A value that is not a string is read as none.
  EXPECT_EQ(readStored(R"({"DN":"a","N":7,"F":false,"O":{}})"), "4:DN=a|N=-|F=-|O=-!");
}

TEST(FactorTags, TextThatIsNotAnObjectGivesNoTags) {
  // The last one is beyond what the parsing heap holds: no tags rather than
  // some of them.
  const std::string large = "{\"A\":\"" + std::string(600000, 'v') + "\"}";
  for (const char *json : {"[\"DN\",\"x\"]", "\"DN\"", "{\"DN\":", "", large.c_str()}) {
    SCOPED_TRACE(std::string(json).substr(0, 16));
    std::string tags;
    mfatest::captureStdout([&] { tags = readStored(json); });
    EXPECT_EQ(tags, "0:!");
  }
  EXPECT_EQ(readStored("{}"), "0:");
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
  EXPECT_EQ(std::to_string(count) + ":" + listed(first),
            "5:DN=cn=x|PIN=7|NEG=-2147483648|FLAG=-|-=nameless");
  factorTagList_destroy(first);
  createFactorTagsUI(nullptr, &first, &count);
  EXPECT_EQ(first, nullptr);
  EXPECT_EQ(count, 0u);
  SLHFree(slh);
}

TEST(FactorTags, JsonOfAListReadsBackAsTheSameList) {
  const char *original = R"({"DN":"cn=\"q\"\\x","SEARCHVAL":"line1\nline2","EMPTY":""})";
  factorData data{};
  uint32_t count = 0;
  createFactorTags(original, &data, &count);
  char *json = nullptr;
  ASSERT_EQ(createFactorJson(data.tags, &json), 0);
  EXPECT_STREQ(json, original);
  freeString(json);
  factorTagList_destroy(data.tags);

  // Far beyond the writer's first 1024 bytes, and every byte needing an
  // escape; a tag without a value gets an empty one.
  std::string value(5000, '"');
  factorTag second{nullptr, const_cast<char *>("B"), value.data(), 0, 0};
  factorTag first{&second, const_cast<char *>("A"), nullptr, 0, 0};
  ASSERT_EQ(createFactorJson(&first, &json), 0);
  EXPECT_EQ(readStored(json), "2:A=|B=" + value);
  freeString(json);

  json = const_cast<char *>("untouched");
  EXPECT_EQ(createFactorJson(nullptr, &json), FACTORTAGS_EMPTY_LIST);
  // A byte the reader would take for the end of the text is refused.
  second.tagValue = const_cast<char *>("a\xff");
  EXPECT_EQ(createFactorJson(&first, &json), FACTORTAGS_EMPTY_LIST);
  EXPECT_STREQ(json, "untouched");
}

} // namespace
