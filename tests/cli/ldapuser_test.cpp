// The LDAP factor record: conversions to and from factor data, the field
// description for a user interface and the check of what it sends back.
#include "base/json.h"
#include "cli/ldapuser.h"
#include "mfadata/factortags.h"
#include "support/env.h"
#include "tool.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

std::string text(const char *value) {
  return value != nullptr ? value : "-";
}

// The record as one line: DN|SEARCHVAL|SEARCHVAL2|SEARCHVAL3|lastSearch, "-" for absent.
std::string flat(const ldapuser *user) {
  return text(user->DN) + "|" + text(user->SEARCHVAL) + "|" + text(user->SEARCHVAL2) + "|" +
         text(user->SEARCHVAL3) + "|" + std::to_string(user->lastSearch);
}

TEST(LdapUserRecord, FromStoredTags) {
  struct Case {
    const char *factorName, *tags;
    int status;
    std::string record; // flat(), when one is handed out
    uint32_t badOffset; // tags are given nameOffsets 10, 20, 30, ...
  };
  const Case cases[] = {
      {"QMXLDAP1", R"({"SEARCHVAL2":"s2","DN":"cn=x","LASTSEARCH":"123abc","SEARCHVAL3":""})", 0,
       "cn=x|-|s2||123", 0},
      {"QMXLDAP1", R"({"LASTSEARCH":"4294967298"})", 0, "-|-|-|-|2", 0},
      {"QMXLDAP1", "{}", LDAPUSER_NO_TAGS, "-|-|-|-|0", 0},
      {"QMXLDAP1-X", R"({"DN":"a"})", 0, "a|-|-|-|0", 0},
      {"QMXLDAP2", R"({"DN":"a"})", LDAPUSER_WRONG_FACTOR, "", 0},
      {"QMXLDAP1", R"({"DN":"","SEARCHVAL":"b","DN":"c"})", LDAPUSER_DUPLICATE_TAG, "", 30},
      {"QMXLDAP1", R"({"LASTSEARCH":"1","LASTSEARCH":"2"})", LDAPUSER_DUPLICATE_TAG, "", 20},
      {"QMXLDAP1", R"({"SEARCHVAL":"b","dn":"a"})", LDAPUSER_UNKNOWN_TAG, "", 20},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.tags);
    factorData data{};
    data.factorName = const_cast<char *>(c.factorName);
    createFactorTags(c.tags, &data, &data.numTags);
    uint32_t offset = 0;
    for (factorTag *tag = data.tags; tag != nullptr; tag = tag->next)
      tag->nameOffset = offset += 10;
    ldapuser *user = nullptr;
    uint32_t badOffset = 0;
    EXPECT_EQ(ldapuser_createFromFactorData("u", &data, &user, &badOffset), c.status);
    EXPECT_EQ(badOffset, c.badOffset);
    EXPECT_EQ(user != nullptr ? flat(user) : "", c.record);
    if (user != nullptr) {
      EXPECT_EQ(text(user->userid), "u");
    }
    ldapuser_destroy(user);
    factorTagList_destroy(data.tags);
  }
}

TEST(LdapUserRecord, ToFactorDataAndBack) {
  ldapuser record{};
  record.SEARCHVAL2 = const_cast<char *>("s2");
  factorData *data = nullptr;
  ASSERT_EQ(ldapuser_convertToFactorData("QMXLDAP1", "u", &record, 0, &data), 0);
  EXPECT_EQ(data->activeFlag, 0u);
  EXPECT_EQ(data->date, nullptr);
  ASSERT_EQ(data->numTags, 2u);
  EXPECT_EQ(text(data->tags->tagName) + "=" + text(data->tags->tagValue) + "," +
                text(data->tags->next->tagName) + "=" + text(data->tags->next->tagValue),
            "SEARCHVAL2=s2,LASTSEARCH=0");
  kfactor_factorData_destroy(data);

  record = {nullptr, const_cast<char *>("cn=x"), const_cast<char *>(""),
            nullptr, const_cast<char *>("s3"),   4294967295u};
  ASSERT_EQ(ldapuser_convertToFactorData("QMXLDAP1", "u", &record, 1, &data), 0);
  EXPECT_EQ(data->activeFlag, 1u);
  EXPECT_EQ(text(data->date), "CURRENT");
  EXPECT_EQ(data->numTags, 4u);
  ldapuser *back = nullptr;
  uint32_t badOffset = 0;
  ASSERT_EQ(ldapuser_createFromFactorData("u", data, &back, &badOffset), 0);
  EXPECT_EQ(flat(back), "cn=x||-|s3|4294967295");
  ldapuser_destroy(back);
  kfactor_factorData_destroy(data);

  factorData *untouched = nullptr;
  EXPECT_EQ(ldapuser_convertToFactorData("QMXTOTP1", "u", &record, 1, &untouched),
            LDAPUSER_WRONG_FACTOR);
  EXPECT_EQ(ldapuser_convertToFactorData("QMXLDAP1", nullptr, &record, 1, &untouched),
            LDAPUSER_CONVERSION_ARGUMENT);
  EXPECT_EQ(untouched, nullptr);
}

TEST(LdapUserRecord, ValidatesWhatAnInterfaceSends) {
  ShortLivedHeap *heap = makeShortLivedHeap(65536, 10);
  auto validate = [&](const std::string &fields) {
    Json *parsed = jsonParseString(heap, fields.c_str(), nullptr, 0);
    char *json = nullptr;
    int length = -1;
    int status = ldapuser_validateTagsFieldsJson(nullptr, jsonAsArray(parsed), &json, &length);
    std::string result = std::to_string(status) + ":" + text(json);
    if (json != nullptr) {
      EXPECT_EQ(strlen(json), static_cast<size_t>(length));
    }
    freeString(json);
    return result;
  };
  const std::string max(255, 'x');
  EXPECT_EQ(validate(R"([{"fieldName":"DN","fieldValue":"cn=\"b\""},{"fieldName":"SEARCHVAL"},
                         {"fieldName":"LASTSEARCH","fieldValue":17},
                         {"fieldName":"SEARCHVAL3","fieldValue":")" +
                     max + "\"}]"),
            R"(0:{"DN":"cn=\"b\"","SEARCHVAL3":")" + max + "\"}");
  EXPECT_EQ(validate(R"([{"fieldName":"SEARCHVAL2","fieldValue":")" + max + "x\"}]"), "67054:-");
  EXPECT_EQ(validate(R"([{"fieldName":"DN","fieldValue":"a"},{"fieldName":"PIN"}])"), "67053:-");
  EXPECT_EQ(validate(R"([{"fieldValue":"a"}])"), "67053:-");
  EXPECT_EQ(validate(R"(["DN"])"), "67053:-");
  EXPECT_EQ(validate("{}"), "1200007:-");
  SLHFree(heap);
}

class LdapUserStored : public clitest::LdapFactorDb {};

TEST_F(LdapUserStored, FieldDescriptionShowsTheStoredValues) {
  addUser("carol");
  addLdapFactor("carol", R"({"DN":"cn=\"c\"","SEARCHVAL3":"s3","LASTSEARCH":"9"})");
  auto fields = [&](const char *userid) {
    char *json = nullptr;
    int length = 0;
    mfatest::captureStdout([&] {
      EXPECT_EQ(ldapuser_createTagsFieldsJson(ctx, "QMXLDAP1", userid, &json, &length), 0);
    });
    std::string result(json != nullptr ? json : "", static_cast<size_t>(length));
    freeString(json);
    return result;
  };
  auto field = [](const char *label, const char *name, const std::string &value) {
    return std::string(R"({"fieldLabel":")") + label +
           R"(","fieldType":"textField","fieldName":")" + name +
           R"(","fieldAttr":{"isOptional":1,"maxLength":255})" + value + "},";
  };
  const std::string last = R"({"fieldLabel":"Last search timestamp","fieldType":"textField",)"
                           R"("fieldName":"LASTSEARCH",)";
  const std::string lastAttr = R"("fieldAttr":{"isOptional":1,"displayOnly":1}}])";
  EXPECT_EQ(fields("carol"), "\"fields\":[" +
                                 field("Fully Qualified DN", "DN", R"(,"fieldValue":"cn=\"c\"")") +
                                 field("Search value 1", "SEARCHVAL", R"(,"fieldValue":"")") +
                                 field("Search value 2", "SEARCHVAL2", R"(,"fieldValue":"")") +
                                 field("Search value 3", "SEARCHVAL3", R"(,"fieldValue":"s3")") +
                                 last + R"("fieldValue":9,)" + lastAttr);
  EXPECT_EQ(fields("nobody"), "\"fields\":[" + field("Fully Qualified DN", "DN", "") +
                                  field("Search value 1", "SEARCHVAL", "") +
                                  field("Search value 2", "SEARCHVAL2", "") +
                                  field("Search value 3", "SEARCHVAL3", "") + last + lastAttr);
}

} // namespace
