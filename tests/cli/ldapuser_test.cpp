// The LDAP factor record: conversions to and from factor data and the check
// of what a user interface sends back.
#include "base/json.h"
#include "cli/ldapuser.h"
#include "mfadata/factortags.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::string text(const char *value) {
  return value != nullptr ? value : "-";
}

// The record as one line: userid|DN|SEARCHVAL|SEARCHVAL2|SEARCHVAL3|lastSearch,
// "-" for absent.
std::string flat(const ldapuser *user) {
  return text(user->userid) + "|" + text(user->DN) + "|" + text(user->SEARCHVAL) + "|" +
         text(user->SEARCHVAL2) + "|" + text(user->SEARCHVAL3) + "|" +
         std::to_string(user->lastSearch);
}

TEST(LdapUserRecord, FromStoredTags) {
  const struct {
    const char *factorName, *tags;
    int status;
    std::string record; // flat(), when one is handed out
    uint32_t badOffset; // tags are given nameOffsets 10, 20, 30, ...
  } cases[] = {
      {"QMXLDAP1", R"({"SEARCHVAL2":"s2","DN":"cn=x","LASTSEARCH":"123abc","SEARCHVAL3":""})", 0,
       "u|cn=x|-|s2||123", 0},
      {"QMXLDAP1", R"({"LASTSEARCH":"4294967298"})", 0, "u|-|-|-|-|2", 0},
      {"QMXLDAP1", "{}", LDAPUSER_NO_TAGS, "u|-|-|-|-|0", 0},
      {"QMXLDAP1-X", R"({"DN":"a"})", 0, "u|a|-|-|-|0", 0},
      {"QMXLDAP2", R"({"DN":"a"})", LDAPUSER_WRONG_FACTOR, "", 0},
      {"QMXLDAP1", R"({"DN":"","SEARCHVAL":"b","DN":"c"})", LDAPUSER_DUPLICATE_TAG, "", 30},
      // A DN stored without a string value sets nothing, so a later DN is no repeat.
      {"QMXLDAP1", R"({"DN":1,"DN":"c"})", 0, "u|c|-|-|-|0", 0},
      {"QMXLDAP1", R"({"SEARCHVAL":"b","dn":"a"})", LDAPUSER_UNKNOWN_TAG, "", 20},
  };
  for (const auto &c : cases) {
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
    ldapuser_destroy(user);
    factorTagList_destroy(data.tags);
  }
}

// Committing through the tool covers the tags written; here the paths it
// never takes.
TEST(LdapUserRecord, ToFactorData) {
  ldapuser record{};
  record.lastSearch = 4294967295u;
  factorData *data = nullptr;
  ASSERT_EQ(ldapuser_convertToFactorData("QMXLDAP1", "u", &record, 0, &data), 0);
  EXPECT_EQ(data->date, nullptr);
  EXPECT_EQ(text(data->tags->tagName) + "=" + text(data->tags->tagValue), "LASTSEARCH=4294967295");
  kfactor_factorData_destroy(data);
  data = nullptr;
  EXPECT_EQ(ldapuser_convertToFactorData("QMXTOTP1", "u", &record, 1, &data),
            LDAPUSER_WRONG_FACTOR);
  EXPECT_EQ(ldapuser_convertToFactorData("QMXLDAP1", nullptr, &record, 1, &data),
            LDAPUSER_CONVERSION_ARGUMENT);
  EXPECT_EQ(data, nullptr);
}

TEST(LdapUserRecord, ValidatesWhatAnInterfaceSends) {
  ShortLivedHeap *heap = makeShortLivedHeap(65536, 10);
  auto validate = [&](const std::string &fields) {
    Json *parsed = jsonParseString(heap, fields.c_str(), nullptr, 0);
    char *json = nullptr;
    int length = -1;
    int status = ldapuser_validateTagsFieldsJson(nullptr, jsonAsArray(parsed), &json, &length);
    std::string result =
        std::to_string(status) + ":" + (json != nullptr ? std::string(json, length) : "-");
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

} // namespace
