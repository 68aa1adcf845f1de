#include "mfadata/usermfadata.h"
#include "support/env.h"
#include "support/factorbuffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>

using mfatest::captureStdout;
using mfatest::FactorBuffer;
using mfatest::FactorBufferLayout;
using mfatest::put16;
using mfatest::put32;

namespace {

struct RecordDeleter {
  void operator()(userMFAData *data) const { kfactor_userMFAData_destroy(data); }
};
using Record = std::unique_ptr<userMFAData, RecordDeleter>;

struct FactorDeleter {
  void operator()(factorData *factor) const { kfactor_factorData_destroy(factor); }
};
using Factor = std::unique_ptr<factorData, FactorDeleter>;

// Creates in checked allocations, or in a heap the record makes and owns.
int create(const std::string &buffer, const FactorBufferLayout &layout, bool ownHeap,
           Record &record) {
  userMFAData *result = nullptr;
  int rc = kfactor_userMFAData_create3(nullptr, ownHeap, ownHeap, "ALICE", 1, layout.numFactors,
                                       layout.numPolicies, layout.policyOffset, buffer.data(),
                                       static_cast<uint32_t>(buffer.size()), &result);
  record.reset(result);
  return rc;
}

FactorBuffer sample() {
  FactorBuffer builder;
  builder.factor("QMXLDAP1")
      .tags({{"DN", "cn=alice"}, {"SEARCHVAL", "alice"}})
      .date("2024-01-31")
      .tags({{"LASTSEARCH", ""}});
  builder.factor("QMXTOTP1");
  builder.policy("GOLD").policy("");
  return builder;
}

std::vector<std::string> tagNames(const factorData *factor) {
  std::vector<std::string> names;
  for (const factorTag *tag = factor->tags; tag; tag = tag->next)
    names.push_back(std::string(tag->tagName) + "=" + tag->tagValue);
  return names;
}

TEST(UserMFADataCreate, BuildsFactorsTagsAndPolicyNames) {
  FactorBufferLayout layout;
  const std::string buffer = sample().build(&layout);
  for (bool ownHeap : {false, true}) {
    Record record;
    ASSERT_EQ(create(buffer, layout, ownHeap, record), 0);
    EXPECT_STREQ(record->userid, "ALICE");
    EXPECT_EQ(record->fallback, 1);
    ASSERT_EQ(record->numFactors, 2u);

    const factorData *ldap = record->factors[0];
    EXPECT_STREQ(ldap->factorName, "QMXLDAP1");
    EXPECT_STREQ(ldap->date, "2024-01-31");
    EXPECT_EQ(ldap->activeFlag, 1u);
    EXPECT_EQ(ldap->numTags, 3u);
    EXPECT_EQ(tagNames(ldap),
              (std::vector<std::string>{"DN=cn=alice", "SEARCHVAL=alice", "LASTSEARCH="}));
    // Offsets count from the table entry of the tag's own section.
    const factorTag *second = ldap->tags->next;
    EXPECT_EQ(second->nameOffset, layout.tagEntry[0][1] - layout.sectionEntry[0][0]);
    EXPECT_EQ(second->valueOffset, second->nameOffset + 6 + strlen("SEARCHVAL"));
    EXPECT_EQ(second->next->nameOffset, layout.tagEntry[0][2] - layout.sectionEntry[0][2]);

    const factorData *totp = record->factors[1];
    EXPECT_STREQ(totp->factorName, "QMXTOTP1");
    EXPECT_EQ(totp->date, nullptr);
    EXPECT_EQ(totp->activeFlag, 0u);
    EXPECT_EQ(totp->tags, nullptr);

    ASSERT_EQ(record->numPolicies, 2u);
    EXPECT_STREQ(record->policyNames[0], "GOLD");
    EXPECT_EQ(record->policyNames[1], nullptr);
    EXPECT_EQ(record->policies, nullptr);
    EXPECT_EQ(record->ownsHeap, ownHeap ? 1 : 0);
    EXPECT_EQ(totp->inHeap, ownHeap ? 1 : 0);
  }
}

TEST(UserMFADataCreate, ShortTagSectionsAndManyFactors) {
  FactorBuffer builder;
  builder.factor("EMPTY").section(mfatest::kTagsSection, "").section(mfatest::kTagsSection, "xy");
  for (int i = 0; i < 19; ++i)
    builder.factor("F" + std::to_string(i)).tags({{"n", std::to_string(i)}});
  FactorBufferLayout layout;
  const std::string buffer = builder.build(&layout);
  Record record;
  ASSERT_EQ(create(buffer, layout, false, record), 0);
  EXPECT_EQ(record->factors[0]->numTags, 0u);
  EXPECT_EQ(record->factors[0]->tags, nullptr);
  ASSERT_EQ(record->numFactors, 20u);
  EXPECT_STREQ(record->factors[19]->tags->tagValue, "18");
}

TEST(UserMFADataCreate, RejectsMissingArguments) {
  const std::string buffer = sample().build();
  const uint32_t size = static_cast<uint32_t>(buffer.size());
  userMFAData *untouched = reinterpret_cast<userMFAData *>(0x1);
  userMFAData *result = untouched;
  EXPECT_EQ(kfactor_userMFAData_create(nullptr, 0, 2, buffer.data(), size, &result), 1200007);
  EXPECT_EQ(kfactor_userMFAData_create("U", 0, 0, buffer.data(), size, &result), 1200007);
  EXPECT_EQ(kfactor_userMFAData_create("U", 0, 2, nullptr, size, &result), 1200007);
  EXPECT_EQ(kfactor_userMFAData_create("U", 0, 2, buffer.data(), 0, &result), 1200007);
  EXPECT_EQ(kfactor_userMFAData_create("U", 0, 2, buffer.data(), size, nullptr), 1200007);
  EXPECT_EQ(
      kfactor_userMFAData_create3(nullptr, 1, 0, "U", 0, 2, 0, 0, buffer.data(), size, &result),
      1200058);
  EXPECT_EQ(result, untouched);
}

TEST(UserMFADataCreate, RejectsBadSections) {
  FactorBufferLayout layout;
  Record record;
  const std::string unknown = FactorBuffer().factor("F").section(7, "x").build(&layout);
  EXPECT_EQ(create(unknown, layout, false, record), 1200015);
  const std::string twoDates = FactorBuffer().factor("F").date("a").date("b").build(&layout);
  EXPECT_EQ(create(twoDates, layout, true, record), 1200007);
  EXPECT_EQ(record, nullptr);
}

// Every prefix of a valid buffer either parses or is refused; a prefix that
// cuts into the factor data is always refused.
TEST(UserMFADataCreate, TruncatedBuffers) {
  FactorBufferLayout layout;
  const std::string full = sample().build(&layout);
  for (bool ownHeap : {false, true}) {
    for (size_t length = 1; length < full.size(); ++length) {
      // A copy of exactly the prefix, so that the sanitizers see any read past it.
      const std::string prefix = full.substr(0, length);
      Record record;
      const int rc = create(prefix, layout, ownHeap, record);
      if (length < layout.policyOffset)
        EXPECT_EQ(rc, 1200007) << "length " << length;
      else
        EXPECT_TRUE(rc == 0 || rc == 1200007) << "length " << length << " rc " << rc;
    }
  }
}

TEST(UserMFADataCreate, LyingLengthsAndOffsets) {
  using Patch = std::function<void(std::string &, const FactorBufferLayout &)>;
  const uint32_t huge = 0xFFFFFFFFu;
  const struct {
    const char *what;
    Patch patch;
  } cases[] = {
      {"factor name length", [&](auto &b, auto &l) { put32(b, l.factorEntry[0], huge); }},
      {"factor name offset", [&](auto &b, auto &l) { put32(b, l.factorEntry[0] + 4, huge - 2); }},
      {"section count", [&](auto &b, auto &l) { put32(b, l.factorEntry[0] + 8, huge / 12); }},
      {"section table offset", [&](auto &b, auto &l) { put32(b, l.factorEntry[0] + 12, huge); }},
      {"section length", [&](auto &b, auto &l) { put32(b, l.sectionEntry[0][1] + 4, huge); }},
      {"section offset", [&](auto &b, auto &l) { put32(b, l.sectionEntry[0][0] + 8, huge - 1); }},
      {"tag name length", [&](auto &b, auto &l) { put16(b, l.tagEntry[0][1] + 4, 0xFFFF); }},
      {"tag value length",
       [&](auto &b, auto &l) { put16(b, l.tagEntry[0][2] + 6 + strlen("LASTSEARCH"), 1); }},
      {"policy name length", [&](auto &b, auto &l) { put32(b, l.policyEntry[0], 5); }},
      {"policy name offset", [&](auto &b, auto &l) { put32(b, l.policyEntry[0] + 4, huge); }},
  };
  FactorBufferLayout layout;
  const std::string valid = sample().build(&layout);
  for (const auto &c : cases) {
    for (bool ownHeap : {false, true}) {
      std::string buffer = valid;
      c.patch(buffer, layout);
      Record record;
      EXPECT_EQ(create(buffer, layout, ownHeap, record), 1200007) << c.what;
      EXPECT_EQ(record, nullptr);
    }
  }

  Record record;
  FactorBufferLayout lying = layout;
  lying.numFactors = 3;
  EXPECT_EQ(create(valid, lying, false, record), 1200007) << "factor count";
  lying = layout;
  lying.policyOffset = static_cast<uint32_t>(valid.size() - 8);
  EXPECT_EQ(create(valid, lying, false, record), 1200007) << "policy entry cut off";
  // Policy entries that would start past the end are absent, not an error.
  lying.policyOffset = static_cast<uint32_t>(valid.size());
  ASSERT_EQ(create(valid, lying, false, record), 0);
  EXPECT_EQ(record->numPolicies, 2u);
  EXPECT_EQ(record->policyNames[0], nullptr);
}

TEST(UserMFADataHeap, CallerHeapOutlivesTheRecord) {
  FactorBufferLayout layout;
  const std::string buffer = sample().build(&layout);
  ShortLivedHeap *heap = makeShortLivedHeap(8192, 8);
  ASSERT_NE(heap, nullptr);
  userMFAData *record = nullptr;
  ASSERT_EQ(kfactor_userMFAData_create3(heap, 1, 0, "BOB", 0, layout.numFactors, layout.numPolicies,
                                        layout.policyOffset, buffer.data(),
                                        static_cast<uint32_t>(buffer.size()), &record),
            0);
  EXPECT_EQ(record->inHeap, 1);
  EXPECT_EQ(record->factors[0]->heap, heap);
  kfactor_userMFAData_destroy(record);
  // The record lives on in the heap, cleared.
  const userMFAData zero{};
  EXPECT_EQ(memcmp(record, &zero, sizeof zero), 0);
  EXPECT_NE(SLHAlloc(heap, 16), nullptr);

  // A record outside the heap whose pieces are inside it.
  ASSERT_EQ(kfactor_userMFAData_create3(heap, 0, 0, "BOB", 0, layout.numFactors, 0, 0,
                                        buffer.data(), static_cast<uint32_t>(buffer.size()),
                                        &record),
            0);
  EXPECT_EQ(record->inHeap, 0);
  kfactor_userMFAData_destroy(record);

  // A failed call does not take over a heap it was offered.
  const std::string unknown = FactorBuffer().factor("F").section(9, "").build();
  EXPECT_EQ(kfactor_userMFAData_create3(heap, 1, 1, "BOB", 0, 1, 0, 0, unknown.data(),
                                        static_cast<uint32_t>(unknown.size()), &record),
            1200015);
  EXPECT_NE(SLHAlloc(heap, 16), nullptr);
  SLHFree(heap);
}

TEST(FactorDataCopy, DeepCopyWithoutStateOrHeap) {
  FactorBufferLayout layout;
  const std::string buffer = sample().build(&layout);
  for (bool ownHeap : {false, true}) {
    Record record;
    ASSERT_EQ(create(buffer, layout, ownHeap, record), 0);
    factorData *source = record->factors[0];
    source->stateFlag = 1;
    source->capabilityBits = 3;
    factorData *raw = nullptr;
    ASSERT_EQ(kfactor_factorData_copy(source, &raw), 0);
    Factor copy(raw);
    record.reset(); // the copy owns all of its pieces
    EXPECT_STREQ(copy->factorName, "QMXLDAP1");
    EXPECT_STREQ(copy->date, "2024-01-31");
    EXPECT_EQ(copy->activeFlag, 1u);
    EXPECT_EQ(copy->numTags, 3u);
    EXPECT_EQ(tagNames(copy.get()),
              (std::vector<std::string>{"DN=cn=alice", "SEARCHVAL=alice", "LASTSEARCH="}));
    EXPECT_EQ(copy->tags->next->nameOffset, layout.tagEntry[0][1] - layout.sectionEntry[0][0]);
    EXPECT_EQ(copy->stateFlag, 0u);
    EXPECT_EQ(copy->capabilityBits, 0u);
    EXPECT_EQ(copy->heap, nullptr);
    EXPECT_EQ(copy->inHeap, 0);
  }

  factorData *copy = reinterpret_cast<factorData *>(0x1);
  EXPECT_EQ(kfactor_factorData_copy(nullptr, &copy), 0);
  EXPECT_EQ(copy, nullptr);
}

TEST(FactorDataCopy, TagListCopyStopsAtCount) {
  FactorBufferLayout layout;
  const std::string buffer = sample().build(&layout);
  Record record;
  ASSERT_EQ(create(buffer, layout, false, record), 0);
  Factor target(reinterpret_cast<factorData *>(safeMalloc(sizeof(factorData), "test")));
  ASSERT_EQ(factorTagList_copy(record->factors[0]->tags, 2, target.get()), 0);
  EXPECT_EQ(tagNames(target.get()), (std::vector<std::string>{"DN=cn=alice", "SEARCHVAL=alice"}));
  // A second copy onto the same factor would lose the first.
  EXPECT_EQ(factorTagList_copy(record->factors[0]->tags, 1, target.get()), 1200007);
}

TEST(FactorDataPrevalidate, ReportsEarlierDuplicate) {
  FactorBufferLayout layout;
  const std::string buffer = FactorBuffer()
                                 .factor("F")
                                 .tags({{"A", "1"}, {"B", "2"}, {"b", "3"}})
                                 .tags({{"B", "4"}})
                                 .factor("G")
                                 .tags({{"A", "1"}})
                                 .build(&layout);
  Record record;
  ASSERT_EQ(create(buffer, layout, false, record), 0);
  factorData *factor = record->factors[0];

  int field = 0;
  uint32_t offset = 0;
  char message[80];
  memset(message, 'x', sizeof message);
  ASSERT_EQ(kfactor_factorData_prevalidate(factor, &field, &offset, message, sizeof message),
            1200056);
  EXPECT_EQ(field, 32);
  EXPECT_EQ(offset, layout.tagEntry[0][1] - layout.sectionEntry[0][0]);
  EXPECT_STREQ(message, "KVTR2310E Tag validation detected duplicate tag names");

  // A short buffer gets what fits and no terminator.
  memset(message, 'x', sizeof message);
  kfactor_factorData_prevalidate(factor, &field, &offset, message, 9);
  EXPECT_EQ(std::string(message, 10), "KVTR2310Ex");

  // Only the first numTags tags are checked, and names are case-sensitive.
  factor->numTags = 3;
  EXPECT_EQ(kfactor_factorData_prevalidate(factor, &field, &offset, message, 80), 0);
  factor->numTags = 4;
  EXPECT_EQ(kfactor_factorData_prevalidate(factor, &field, &offset, message, 80), 1200056);
  record->factors[1]->numTags = 2;
  EXPECT_EQ(kfactor_factorData_prevalidate(record->factors[1], &field, &offset, message, 80),
            1200013);
}

TEST(UserMFADataHasFactor, ComparesTheFirst21Characters) {
  FactorBufferLayout layout;
  const std::string buffer =
      FactorBuffer().factor("QMXLDAP1").factor("ABCDEFGHIJKLMNOPQRSTU-one").build(&layout);
  Record record;
  ASSERT_EQ(create(buffer, layout, false, record), 0);
  EXPECT_EQ(userMFAData_hasFactor(record.get(), "QMXLDAP1"), 1);
  EXPECT_EQ(userMFAData_hasFactor(record.get(), "QMXLDAP"), 0);
  EXPECT_EQ(userMFAData_hasFactor(record.get(), "ABCDEFGHIJKLMNOPQRSTU-two"), 1);
  EXPECT_EQ(userMFAData_hasFactor(record.get(), "ABCDEFGHIJKLMNOPQRST-"), 0);
  EXPECT_EQ(userMFAData_hasFactor(record.get(), nullptr), 0);
  EXPECT_EQ(userMFAData_hasFactor(nullptr, "QMXLDAP1"), 0);
}

char *copyText(const char *text) {
  return strcpy(safeMalloc(static_cast<int>(strlen(text) + 1), "test"), text);
}

TEST(PrintUserMFAData, DumpsPoliciesAndFactors) {
  FactorBufferLayout layout;
  const std::string buffer = sample().build(&layout);
  Record record;
  ASSERT_EQ(create(buffer, layout, false, record), 0);
  // Policy data as the factor-data service fills it in, for the second slot
  // only; the destroy releases it with the record.
  record->policies = reinterpret_cast<policyData **>(safeMalloc(2 * sizeof(policyData *), "test"));
  policyData *policy = reinterpret_cast<policyData *>(safeMalloc(sizeof(policyData), "test"));
  record->policies[1] = policy;
  policy->policyName = copyText("SILVER");
  policy->tokenTimeout = 300;
  policy->tokenReuse = -1;
  policy->numFactors = 2;
  policy->factorNames = reinterpret_cast<char **>(safeMalloc(2 * sizeof(char *), "test"));
  policy->factorNames[0] = copyText("QMXLDAP1");
  policy->factorNames[1] = copyText("QMXTOTP1");

  EXPECT_EQ(captureStdout([&] { printUserMFAData(record.get()); }),
            "User MFA Data contents:\n"
            "userid: ALICE, numpolicies: 2, numfactors: 2, fallback: 1\n"
            "(policy and factor data entries follow)\n"
            "null policy data at index 0!\n"
            "- - - - -\n"
            "Policy data at array index: 1\n"
            "policyName: SILVER\n"
            "token Timeout: 300, tokenReuse: -1\n"
            "num factors: 2 -->QMXLDAP1 QMXTOTP1 \n"
            "- - - - -\n"
            "- - - - -\n"
            "Factor data at array index: 0\n"
            "factorName: QMXLDAP1\n"
            "activeFlag: 1, Date: 2024-01-31\n"
            "numTags: 3\n"
            "(tag items follow)\n"
            "tagName: DN, tagValue: cn=alice\n"
            "tagName: SEARCHVAL, tagValue: alice\n"
            "tagName: LASTSEARCH, tagValue: \n"
            "- - - - -\n"
            "Factor data at array index: 1\n"
            "factorName: QMXTOTP1\n"
            "activeFlag: 0, Date: (null)\n"
            "numTags: 0\n"
            "(tag items follow)\n"
            "- - - - -\n");
}

} // namespace
