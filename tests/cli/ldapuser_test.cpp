// The LDAP factor record: conversions to and from factor data, the field
// description for a user interface and the check of what it sends back.
#include "base/alloc.h"
#include "base/json.h"
#include "cli/ldapuser.h"
#include "mfadata/dbctx.h"
#include "mfadata/factortags.h"
#include "mfadata/usermfadata.h"
#include "support/env.h"
#include "tool.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

struct RecordDeleter {
  void operator()(ldapuser *user) const { ldapuser_destroy(user); }
};
using Record = std::unique_ptr<ldapuser, RecordDeleter>;

struct FactorDeleter {
  void operator()(factorData *data) const { kfactor_factorData_destroy(data); }
};
using Factor = std::unique_ptr<factorData, FactorDeleter>;

// A factor named name whose tags come from stored tag text; each tag's
// nameOffset is 10 times its position plus 10, so that reports can be traced.
struct StoredFactor {
  factorData data{};
  std::string name;
  StoredFactor(const char *factorName, const char *tags) : name(factorName) {
    data.factorName = name.data();
    createFactorTags(tags, &data, &data.numTags);
    uint32_t offset = 10;
    for (factorTag *tag = data.tags; tag != nullptr; tag = tag->next, offset += 10)
      tag->nameOffset = offset;
  }
  ~StoredFactor() { factorTagList_destroy(data.tags); }
};

std::string text(const char *value) {
  return value != nullptr ? value : "(null)";
}

struct Tag {
  std::string name, value;
  bool operator==(const Tag &) const = default;
};

std::vector<Tag> tagsOf(const factorData *data) {
  std::vector<Tag> tags;
  for (const factorTag *tag = data->tags; tag != nullptr; tag = tag->next)
    tags.push_back({text(tag->tagName), text(tag->tagValue)});
  return tags;
}

TEST(LdapUserFromFactorData, ReadsTheKnownTags) {
  StoredFactor factor("QMXLDAP1",
                      R"({"SEARCHVAL2":"s2","DN":"cn=x","LASTSEARCH":"123abc","SEARCHVAL3":""})");
  ldapuser *user = nullptr;
  uint32_t offset = 99;
  ASSERT_EQ(ldapuser_createFromFactorData("u1", &factor.data, &user, &offset), 0);
  Record owned(user);
  EXPECT_EQ(text(user->userid), "u1");
  EXPECT_EQ(text(user->DN), "cn=x");
  EXPECT_EQ(user->SEARCHVAL, nullptr);
  EXPECT_EQ(text(user->SEARCHVAL2), "s2");
  EXPECT_EQ(text(user->SEARCHVAL3), "");
  EXPECT_EQ(user->lastSearch, 123u);
  EXPECT_EQ(offset, 99u);
}

TEST(LdapUserFromFactorData, CounterKeepsTheLow32Bits) {
  StoredFactor factor("QMXLDAP1", R"({"LASTSEARCH":"4294967298"})");
  ldapuser *user = nullptr;
  uint32_t offset = 0;
  ASSERT_EQ(ldapuser_createFromFactorData("u", &factor.data, &user, &offset), 0);
  Record owned(user);
  EXPECT_EQ(user->lastSearch, 2u);
}

TEST(LdapUserFromFactorData, FactorWithoutTagsGivesARecordWithTheUserOnly) {
  StoredFactor factor("QMXLDAP1", "{}");
  ldapuser *user = nullptr;
  uint32_t offset = 0;
  ASSERT_EQ(ldapuser_createFromFactorData("u", &factor.data, &user, &offset), LDAPUSER_NO_TAGS);
  Record owned(user);
  ASSERT_NE(user, nullptr);
  EXPECT_EQ(text(user->userid), "u");
  EXPECT_EQ(user->DN, nullptr);
  EXPECT_EQ(user->lastSearch, 0u);
}

TEST(LdapUserFromFactorData, OnlyTheFirstEightCharactersOfTheNameCount) {
  StoredFactor longer("QMXLDAP1-EXTRA", R"({"DN":"a"})");
  StoredFactor other("QMXLDAP2", R"({"DN":"a"})");
  ldapuser *user = nullptr;
  uint32_t offset = 0;
  ASSERT_EQ(ldapuser_createFromFactorData("u", &longer.data, &user, &offset), 0);
  Record owned(user);
  ldapuser *untouched = owned.get();
  EXPECT_EQ(ldapuser_createFromFactorData("u", &other.data, &untouched, &offset),
            LDAPUSER_WRONG_FACTOR);
  EXPECT_EQ(untouched, owned.get());
}

TEST(LdapUserFromFactorData, RejectsBadTagsAndReportsWhere) {
  struct Case {
    const char *tags;
    int status;
    uint32_t offset; // 0: not reported
  };
  const Case cases[] = {
      {R"({"DN":"a","SEARCHVAL":"b","DN":"c"})", LDAPUSER_DUPLICATE_TAG, 30},
      {R"({"DN":"","DN":"c"})", LDAPUSER_DUPLICATE_TAG, 20},
      {R"({"LASTSEARCH":"1","SEARCHVAL":"b","LASTSEARCH":"2"})", LDAPUSER_DUPLICATE_TAG, 30},
      {R"({"SEARCHVAL":"b","dn":"a"})", LDAPUSER_UNKNOWN_TAG, 20},
      {R"({"DN":"a","SEARCHVAL4":"a"})", LDAPUSER_UNKNOWN_TAG, 20},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.tags);
    StoredFactor factor("QMXLDAP1", c.tags);
    ldapuser *user = nullptr;
    uint32_t offset = 0;
    EXPECT_EQ(ldapuser_createFromFactorData("u", &factor.data, &user, &offset), c.status);
    EXPECT_EQ(user, nullptr);
    EXPECT_EQ(offset, c.offset);
  }

  SCOPED_TRACE("tag without a name");
  StoredFactor factor("QMXLDAP1", R"({"DN":"a"})");
  char *name = factor.data.tags->tagName;
  factor.data.tags->tagName = nullptr;
  ldapuser *user = nullptr;
  uint32_t offset = 0;
  EXPECT_EQ(ldapuser_createFromFactorData("u", &factor.data, &user, &offset),
            LDAPUSER_TAG_WITHOUT_NAME);
  EXPECT_EQ(user, nullptr);
  factor.data.tags->tagName = name;
}

TEST(LdapUserFromFactorData, LooksAtNoMoreThanNumTags) {
  StoredFactor factor("QMXLDAP1", R"({"DN":"a","UNKNOWN":"x"})");
  factor.data.numTags = 1;
  ldapuser *user = nullptr;
  uint32_t offset = 0;
  ASSERT_EQ(ldapuser_createFromFactorData("u", &factor.data, &user, &offset), 0);
  Record owned(user);
  EXPECT_EQ(text(user->DN), "a");
}

TEST(LdapUserFromFactorData, MissingArguments) {
  StoredFactor factor("QMXLDAP1", R"({"DN":"a"})");
  ldapuser *user = nullptr;
  uint32_t offset = 0;
  EXPECT_EQ(ldapuser_createFromFactorData("u", nullptr, &user, &offset), LDAPUSER_MISSING_ARGUMENT);
  EXPECT_EQ(ldapuser_createFromFactorData("u", &factor.data, nullptr, &offset),
            LDAPUSER_MISSING_ARGUMENT);
  EXPECT_EQ(ldapuser_createFromFactorData("u", &factor.data, &user, nullptr),
            LDAPUSER_MISSING_ARGUMENT);
  ldapuser_destroy(nullptr);
}

// A record made the way the tool makes one, with copies of the given values.
Record makeRecord(const char *dn, const char *s1, const char *s2, const char *s3,
                  uint32_t lastSearch) {
  auto *user = reinterpret_cast<ldapuser *>(safeMalloc(sizeof(ldapuser), "ldapuser"));
  user->userid = duplicateString("u");
  user->DN = duplicateString(dn);
  user->SEARCHVAL = duplicateString(s1);
  user->SEARCHVAL2 = duplicateString(s2);
  user->SEARCHVAL3 = duplicateString(s3);
  user->lastSearch = lastSearch;
  return Record(user);
}

TEST(LdapUserToFactorData, WritesPresentFieldsInFixedOrderAndAlwaysTheCounter) {
  Record only2 = makeRecord(nullptr, nullptr, "s2", nullptr, 0);
  factorData *data = nullptr;
  ASSERT_EQ(ldapuser_convertToFactorData("QMXLDAP1", "u", only2.get(), 0, &data), 0);
  Factor owned(data);
  EXPECT_EQ(text(data->factorName), "QMXLDAP1");
  EXPECT_EQ(data->activeFlag, 0u);
  EXPECT_EQ(data->date, nullptr);
  EXPECT_EQ(tagsOf(data), (std::vector<Tag>{{"SEARCHVAL2", "s2"}, {"LASTSEARCH", "0"}}));
  EXPECT_EQ(data->numTags, 2u);

  Record full = makeRecord("cn=x", "", "s2", "s3", 4294967295u);
  factorData *current = nullptr;
  ASSERT_EQ(ldapuser_convertToFactorData("QMXLDAP1", "u", full.get(), 1, &current), 0);
  Factor ownedCurrent(current);
  EXPECT_EQ(current->activeFlag, 1u);
  EXPECT_EQ(text(current->date), "CURRENT");
  EXPECT_EQ(tagsOf(current), (std::vector<Tag>{{"DN", "cn=x"},
                                               {"SEARCHVAL", ""},
                                               {"SEARCHVAL2", "s2"},
                                               {"SEARCHVAL3", "s3"},
                                               {"LASTSEARCH", "4294967295"}}));
  EXPECT_EQ(current->numTags, 5u);

  SCOPED_TRACE("and back");
  ldapuser *back = nullptr;
  uint32_t offset = 0;
  ASSERT_EQ(ldapuser_createFromFactorData("u", current, &back, &offset), 0);
  Record ownedBack(back);
  EXPECT_EQ(text(back->DN), "cn=x");
  EXPECT_EQ(text(back->SEARCHVAL), "");
  EXPECT_EQ(text(back->SEARCHVAL3), "s3");
  EXPECT_EQ(back->lastSearch, 4294967295u);
}

TEST(LdapUserToFactorData, RefusesMissingArgumentsAndOtherFactors) {
  Record user = makeRecord("cn=x", nullptr, nullptr, nullptr, 0);
  factorData *data = nullptr;
  EXPECT_EQ(ldapuser_convertToFactorData("QMXLDAP1", nullptr, user.get(), 1, &data),
            LDAPUSER_CONVERSION_ARGUMENT);
  EXPECT_EQ(ldapuser_convertToFactorData("QMXLDAP1", "u", nullptr, 1, &data),
            LDAPUSER_CONVERSION_ARGUMENT);
  EXPECT_EQ(ldapuser_convertToFactorData("QMXLDAP1", "u", user.get(), 1, nullptr),
            LDAPUSER_CONVERSION_ARGUMENT);
  EXPECT_EQ(ldapuser_convertToFactorData("QMXTOTP1", "u", user.get(), 1, &data),
            LDAPUSER_WRONG_FACTOR);
  EXPECT_EQ(ldapuser_convertToFactorData(nullptr, "u", user.get(), 1, &data),
            LDAPUSER_WRONG_FACTOR);
  EXPECT_EQ(data, nullptr);
}

// Parses text into an array that lives as long as the fixture.
class LdapUserValidate : public testing::Test {
protected:
  void TearDown() override { SLHFree(heap_); }
  JsonArray *parse(const std::string &json) {
    char error[128] = "";
    Json *value = jsonParseString(heap_, json.c_str(), error, sizeof error);
    EXPECT_NE(value, nullptr) << error;
    return value != nullptr ? jsonAsArray(value) : nullptr;
  }
  // Status and, on success, the text handed out.
  std::pair<int, std::string> validate(const std::string &json) {
    char *out = nullptr;
    int length = -1;
    int status = ldapuser_validateTagsFieldsJson(nullptr, parse(json), &out, &length);
    std::string result;
    if (status == 0) {
      result.assign(out, static_cast<size_t>(length));
      EXPECT_EQ(strlen(out), static_cast<size_t>(length));
      freeString(out);
    } else {
      EXPECT_EQ(out, nullptr);
      EXPECT_EQ(length, -1);
    }
    return {status, result};
  }

private:
  ShortLivedHeap *heap_ = makeShortLivedHeap(65536, 10);
};

TEST_F(LdapUserValidate, KeepsStringValuesOfKnownFields) {
  EXPECT_EQ(validate(R"([{"fieldName":"DN","fieldValue":"cn=a \"b\""},
                         {"fieldName":"SEARCHVAL3","fieldValue":""},
                         {"fieldName":"SEARCHVAL"},
                         {"fieldName":"LASTSEARCH","fieldValue":17}])"),
            std::make_pair(0, std::string(R"({"DN":"cn=a \"b\"","SEARCHVAL3":""})")));
  EXPECT_EQ(validate("[]"), std::make_pair(0, std::string("{}")));
}

TEST_F(LdapUserValidate, RejectsUnknownFieldsAndLongValues) {
  const std::string max(255, 'x');
  EXPECT_EQ(validate(R"([{"fieldName":"SEARCHVAL2","fieldValue":")" + max + "\"}]").first, 0);
  EXPECT_EQ(validate(R"([{"fieldName":"SEARCHVAL2","fieldValue":")" + max + "x\"}]").first,
            LDAPUSER_VALUE_TOO_LONG);
  EXPECT_EQ(validate(R"([{"fieldName":"DN","fieldValue":"a"},{"fieldName":"PIN"}])").first,
            LDAPUSER_UNKNOWN_TAG);
  EXPECT_EQ(validate(R"([{"fieldValue":"a"}])").first, LDAPUSER_UNKNOWN_TAG);
  EXPECT_EQ(validate(R"(["DN"])").first, LDAPUSER_UNKNOWN_TAG);
  char *out = nullptr;
  int length = 0;
  EXPECT_EQ(ldapuser_validateTagsFieldsJson(nullptr, nullptr, &out, &length),
            LDAPUSER_CONVERSION_ARGUMENT);
}

class LdapUserStored : public clitest::LdapFactorDb {
protected:
  std::string fields(const char *userid) {
    char *json = nullptr;
    int length = 0;
    int status = 0;
    mfatest::captureStdout(
        [&] { status = ldapuser_createTagsFieldsJson(ctx, "QMXLDAP1", userid, &json, &length); });
    EXPECT_EQ(status, 0);
    std::string result(json != nullptr ? json : "", static_cast<size_t>(length));
    freeString(json);
    return result;
  }
};

TEST_F(LdapUserStored, FieldDescriptionCarriesTheStoredValues) {
  addUser("carol");
  addLdapFactor("carol", R"({"DN":"cn=\"c\"","SEARCHVAL3":"s3","LASTSEARCH":"9"})");
  const std::string attr = R"("fieldAttr":{"isOptional":1,"maxLength":255})";
  auto field = [&](const char *label, const char *name, const std::string &value) {
    return std::string(R"({"fieldLabel":")") + label +
           R"(","fieldType":"textField","fieldName":")" + name + "\"," + attr + value + "}";
  };
  EXPECT_EQ(fields("carol"),
            "\"fields\":[" + field("Fully Qualified DN", "DN", R"(,"fieldValue":"cn=\"c\"")") +
                "," + field("Search value 1", "SEARCHVAL", R"(,"fieldValue":"")") + "," +
                field("Search value 2", "SEARCHVAL2", R"(,"fieldValue":"")") + "," +
                field("Search value 3", "SEARCHVAL3", R"(,"fieldValue":"s3")") + "," +
                R"({"fieldLabel":"Last search timestamp","fieldType":"textField",)"
                R"("fieldName":"LASTSEARCH","fieldValue":9,)"
                R"("fieldAttr":{"isOptional":1,"displayOnly":1}}])");

  SCOPED_TRACE("without stored data the values are left out");
  EXPECT_EQ(fields("nobody"),
            "\"fields\":[" + field("Fully Qualified DN", "DN", "") + "," +
                field("Search value 1", "SEARCHVAL", "") + "," +
                field("Search value 2", "SEARCHVAL2", "") + "," +
                field("Search value 3", "SEARCHVAL3", "") + "," +
                R"({"fieldLabel":"Last search timestamp","fieldType":"textField",)"
                R"("fieldName":"LASTSEARCH","fieldAttr":{"isOptional":1,"displayOnly":1}}])");
}

TEST_F(LdapUserStored, RetrieveAndCommitRoundTrip) {
  addUser("dave");
  ldapuser *user = nullptr;
  std::string out = mfatest::captureStdout([&] {
    EXPECT_EQ(ldapuser_retrieveFromKORS(ctx, "QMXLDAP1", "dave", &user), LDAPUSER_NO_FACTOR);
  });
  EXPECT_EQ(out, "No factors returned for user dave\n");
  EXPECT_EQ(user, nullptr);

  Record record = makeRecord("cn=dave", nullptr, nullptr, "s3", 5);
  int gavrc = 7, korsrc = 7, korsrsn = 7;
  EXPECT_EQ(
      ldapuser_commitToKORS(ctx, "QMXLDAP1", "dave", record.get(), 1, &gavrc, &korsrc, &korsrsn),
      0);
  EXPECT_EQ(gavrc + korsrc + korsrsn, 21) << "the codes are not written";
  EXPECT_EQ(storedTags("dave"), R"({"DN":"cn=dave","SEARCHVAL3":"s3","LASTSEARCH":"5"})");

  ASSERT_EQ(ldapuser_retrieveFromKORS(ctx, "QMXLDAP1", "dave", &user), 0);
  Record back(user);
  EXPECT_EQ(text(user->userid), "dave");
  EXPECT_EQ(text(user->DN), "cn=dave");
  EXPECT_EQ(user->SEARCHVAL, nullptr);
  EXPECT_EQ(text(user->SEARCHVAL3), "s3");
  EXPECT_EQ(user->lastSearch, 5u);

  SCOPED_TRACE("another factor name is refused before anything is written");
  EXPECT_EQ(
      ldapuser_commitToKORS(ctx, "QMXTOTP1", "dave", record.get(), 1, &gavrc, &korsrc, &korsrsn),
      LDAPUSER_WRONG_FACTOR);
}

} // namespace
