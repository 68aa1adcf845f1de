#include "mfadata/usermfadata.h"
#include "mfadata/usermfadata_internal.h"
#include "support/env.h"
#include "support/factorbuffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

using mfadata::FactorPtr;
using mfadata::RecordPtr;
using mfatest::FactorBuffer;
using mfatest::FactorBufferLayout;
using mfatest::put;

namespace {

// Creates in checked allocations, or in a heap the record makes and owns.
// The parser sees an exactly sized copy, so that the sanitizers catch any
// read past its end.
int create(const std::string &buffer, const FactorBufferLayout &layout, bool ownHeap,
           RecordPtr &record) {
  const std::vector<char> exact(buffer.begin(), buffer.end());
  userMFAData *result = nullptr;
  int rc = kfactor_userMFAData_create3(nullptr, ownHeap, ownHeap, "ALICE", 1, layout.numFactors,
                                       layout.numPolicies, layout.policyOffset, exact.data(),
                                       static_cast<uint32_t>(exact.size()), &result);
  record.reset(result);
  return rc;
}

// Two factors, the first with its date between two tag sections, and two
// policies, the second without a name.
const FactorBuffer kSample = FactorBuffer()
                                 .factor("QMXLDAP1")
                                 .tags({{"DN", "cn=alice"}, {"SEARCHVAL", "alice"}})
                                 .date("2024-01-31")
                                 .tags({{"LASTSEARCH", ""}})
                                 .factor("QMXTOTP1")
                                 .policy("GOLD")
                                 .policy("");

// The sample, in checked allocations or in a heap of its own.
RecordPtr sampleRecord(bool ownHeap, FactorBufferLayout *layout = nullptr) {
  FactorBufferLayout built;
  RecordPtr record;
  EXPECT_EQ(create(kSample.build(&built), built, ownHeap, record), 0);
  if (layout)
    *layout = built;
  return record;
}

std::vector<std::string> tagList(const factorData *factor) {
  std::vector<std::string> tags;
  for (const factorTag *tag = factor->tags; tag; tag = tag->next)
    tags.push_back(std::string(tag->tagName) + "=" + tag->tagValue);
  return tags;
}

const std::vector<std::string> kSampleTags = {"DN=cn=alice", "SEARCHVAL=alice", "LASTSEARCH="};

// What the dump below does not show: offsets, policy names, heap records.
TEST(UserMFADataCreate, OffsetsPolicyNamesAndHeapRecords) {
  for (bool ownHeap : {false, true}) {
    FactorBufferLayout layout;
    RecordPtr record = sampleRecord(ownHeap, &layout);
    ASSERT_TRUE(record);
    const factorData *ldap = record->factors[0];
    // Offsets count from the table entry of the tag's own section.
    const factorTag *second = ldap->tags->next;
    EXPECT_EQ(second->nameOffset, layout.tagEntry[0][1] - layout.sectionEntry[0][0]);
    EXPECT_EQ(second->valueOffset, second->nameOffset + 6 + strlen("SEARCHVAL"));
    EXPECT_EQ(second->next->nameOffset, layout.tagEntry[0][2] - layout.sectionEntry[0][2]);
    ASSERT_EQ(record->numPolicies, 2u);
    EXPECT_STREQ(record->policyNames[0], "GOLD");
    EXPECT_EQ(record->policyNames[1], nullptr);
  }
}

TEST(UserMFADataCreate, ShortTagSectionsManyFactorsAndLongNames) {
  FactorBuffer builder;
  builder.factor("ABCDEFGHIJKLMNOPQRSTU-one")
      .section(mfatest::kTagsSection, "")
      .section(mfatest::kTagsSection, "xy");
  for (int i = 0; i < 19; ++i)
    builder.factor("F" + std::to_string(i)).tags({{"n", std::to_string(i)}});
  FactorBufferLayout layout;
  const std::string buffer = builder.build(&layout);
  RecordPtr record;
  ASSERT_EQ(create(buffer, layout, false, record), 0);
  EXPECT_EQ(record->factors[0]->numTags, 0u);
  ASSERT_EQ(record->numFactors, 20u);
  EXPECT_STREQ(record->factors[19]->tags->tagValue, "18");
  // Factor names match in their first 21 characters.
  EXPECT_EQ(userMFAData_hasFactor(record.get(), "F18"), 1);
  EXPECT_EQ(userMFAData_hasFactor(record.get(), "ABCDEFGHIJKLMNOPQRSTU-two"), 1);
  EXPECT_EQ(userMFAData_hasFactor(record.get(), "ABCDEFGHIJKLMNOPQRST-"), 0);
  EXPECT_EQ(userMFAData_hasFactor(record.get(), nullptr), 0);
  EXPECT_EQ(userMFAData_hasFactor(nullptr, "F1"), 0);
}

TEST(UserMFADataCreate, RejectsMissingArguments) {
  const std::string b = kSample.build();
  const uint32_t n = static_cast<uint32_t>(b.size());
  userMFAData *result = nullptr;
  EXPECT_EQ(kfactor_userMFAData_create(nullptr, 0, 2, b.data(), n, &result), 1200007);
  EXPECT_EQ(kfactor_userMFAData_create("U", 0, 0, b.data(), n, &result), 1200007);
  EXPECT_EQ(kfactor_userMFAData_create("U", 0, 2, nullptr, n, &result), 1200007);
  EXPECT_EQ(kfactor_userMFAData_create("U", 0, 2, b.data(), 0, &result), 1200007);
  EXPECT_EQ(kfactor_userMFAData_create("U", 0, 2, b.data(), n, nullptr), 1200007);
  EXPECT_EQ(kfactor_userMFAData_create3(nullptr, 1, 0, "U", 0, 2, 0, 0, b.data(), n, &result),
            1200058);
  EXPECT_EQ(result, nullptr);
}

// Truncated buffers and fields that point outside the buffer are refused
// without a read past its end.
TEST(UserMFADataCreate, MalformedBuffersAreRefused) {
  using Patch = std::function<void(std::string &, FactorBufferLayout &)>;
  const uint32_t huge = 0xFFFFFFFFu;
  const struct {
    const char *what;
    Patch patch;
    int status = 1200007;
  } cases[] = {
      {"factor name length", [&](auto &b, auto &l) { put(b, l.factorEntry[0], huge); }},
      {"factor name offset", [&](auto &b, auto &l) { put(b, l.factorEntry[0] + 4, huge - 2); }},
      {"section count", [&](auto &b, auto &l) { put(b, l.factorEntry[0] + 8, huge / 12); }},
      {"section table offset", [&](auto &b, auto &l) { put(b, l.factorEntry[0] + 12, huge); }},
      {"section length", [&](auto &b, auto &l) { put(b, l.sectionEntry[0][1] + 4, huge); }},
      {"section offset", [&](auto &b, auto &l) { put(b, l.sectionEntry[0][0] + 8, huge - 1); }},
      {"tag name length", [](auto &b, auto &l) { put<uint16_t>(b, l.tagEntry[0][1] + 4, 0xFFFF); }},
      {"tag value length",
       [](auto &b, auto &l) { put<uint16_t>(b, l.tagEntry[0][2] + 6 + strlen("LASTSEARCH"), 1); }},
      {"policy name length", [](auto &b, auto &l) { put(b, l.policyEntry[0], 5u); }},
      {"policy name offset", [&](auto &b, auto &l) { put(b, l.policyEntry[0] + 4, huge); }},
      {"factor count", [](auto &, auto &l) { l.numFactors = 3; }},
      {"policy entry cut off",
       [](auto &b, auto &l) { l.policyOffset = static_cast<uint32_t>(b.size() - 8); }},
      {"second date",
       [](auto &b, auto &l) { put(b, l.sectionEntry[0][2], mfatest::kDateSection); }},
      {"unknown section type", [](auto &b, auto &l) { put(b, l.sectionEntry[0][0], 7u); }, 1200015},
  };
  FactorBufferLayout layout;
  const std::string valid = kSample.build(&layout);
  for (bool ownHeap : {false, true}) {
    // A prefix that cuts into the factor data is always refused.
    for (size_t length = 1; length < valid.size(); ++length) {
      RecordPtr record;
      const int rc = create(valid.substr(0, length), layout, ownHeap, record);
      if (length < layout.policyOffset)
        EXPECT_EQ(rc, 1200007) << "length " << length;
      else
        EXPECT_TRUE(rc == 0 || rc == 1200007) << "length " << length << " rc " << rc;
    }
  }
  for (const auto &c : cases) {
    for (bool ownHeap : {false, true}) {
      std::string buffer = valid;
      FactorBufferLayout lying = layout;
      c.patch(buffer, lying);
      RecordPtr record;
      EXPECT_EQ(create(buffer, lying, ownHeap, record), c.status) << c.what;
      EXPECT_EQ(record, nullptr);
    }
  }

  // Policy entries that would start past the end are absent, not an error.
  layout.policyOffset = static_cast<uint32_t>(valid.size());
  RecordPtr record;
  ASSERT_EQ(create(valid, layout, false, record), 0);
  EXPECT_EQ(record->policyNames[0], nullptr);
}

TEST(UserMFADataHeap, CallerHeapOutlivesTheRecord) {
  FactorBufferLayout layout;
  const std::string b = kSample.build(&layout);
  const uint32_t n = static_cast<uint32_t>(b.size());
  ShortLivedHeap *heap = makeShortLivedHeap(8192, 8);
  userMFAData *record = nullptr;
  ASSERT_EQ(kfactor_userMFAData_create3(heap, 1, 0, "BOB", 0, 2, 2, layout.policyOffset, b.data(),
                                        n, &record),
            0);
  kfactor_userMFAData_destroy(record);
  // The record lives on in the heap, cleared.
  const userMFAData zero{};
  EXPECT_EQ(memcmp(record, &zero, sizeof zero), 0);

  // A failed call does not take over a heap it was offered.
  const std::string unknown = FactorBuffer().factor("F").section(9, "").build();
  EXPECT_EQ(kfactor_userMFAData_create3(heap, 1, 1, "BOB", 0, 1, 0, 0, unknown.data(),
                                        static_cast<uint32_t>(unknown.size()), &record),
            1200015);
  EXPECT_NE(SLHAlloc(heap, 16), nullptr);
  SLHFree(heap);
}

TEST(FactorDataCopy, DeepCopyWithoutStateOrHeap) {
  RecordPtr record = sampleRecord(true);
  ASSERT_TRUE(record);
  factorData *source = record->factors[0];
  source->stateFlag = 1;
  source->capabilityBits = 3;
  const uint32_t secondOffset = source->tags->next->nameOffset;
  factorData *raw = nullptr;
  ASSERT_EQ(kfactor_factorData_copy(source, &raw), 0);
  FactorPtr copy(raw);
  record.reset(); // the source's heap goes; the copy owns all of its pieces
  EXPECT_EQ(std::string(copy->factorName) + " " + copy->date + " " +
                std::to_string(copy->activeFlag) + " " + std::to_string(copy->numTags),
            "QMXLDAP1 2024-01-31 1 3");
  EXPECT_EQ(tagList(copy.get()), kSampleTags);
  EXPECT_EQ(copy->tags->next->nameOffset, secondOffset);
  EXPECT_EQ(copy->stateFlag + copy->capabilityBits, 0u);
  EXPECT_EQ(copy->heap, nullptr);
  EXPECT_EQ(kfactor_factorData_copy(nullptr, &raw), 0);
  EXPECT_EQ(raw, nullptr);

  // The list copy stops at count, and refuses a factor that already has tags.
  FactorPtr target(reinterpret_cast<factorData *>(safeMalloc(sizeof(factorData), "test")));
  ASSERT_EQ(factorTagList_copy(copy->tags, 2, target.get()), 0);
  EXPECT_EQ(tagList(target.get()), (std::vector<std::string>{"DN=cn=alice", "SEARCHVAL=alice"}));
  EXPECT_EQ(factorTagList_copy(copy->tags, 1, target.get()), 1200007);
}

TEST(FactorDataPrevalidate, ReportsTheEarlierOfTwoEqualNames) {
  FactorBufferLayout layout;
  RecordPtr record = sampleRecord(true, &layout);
  ASSERT_TRUE(record);
  factorData *factor = record->factors[0];
  // Heap pieces are never freed one by one, so a name can be swapped.
  factorTag *third = factor->tags->next->next;
  int field = 0;
  uint32_t offset = 0;
  char message[80];
  third->tagName = const_cast<char *>("searchval");
  EXPECT_EQ(kfactor_factorData_prevalidate(factor, &field, &offset, message, 80), 0);
  third->tagName = const_cast<char *>("SEARCHVAL");
  ASSERT_EQ(kfactor_factorData_prevalidate(factor, &field, &offset, message, sizeof message),
            1200056);
  EXPECT_EQ(field, 32);
  EXPECT_EQ(offset, layout.tagEntry[0][1] - layout.sectionEntry[0][0]);
  EXPECT_STREQ(message, "KVTR2310E Tag validation detected duplicate tag names");
  // A short buffer gets what fits and no terminator.
  memset(message, 'x', sizeof message);
  kfactor_factorData_prevalidate(factor, &field, &offset, message, 9);
  EXPECT_EQ(std::string(message, 10), "KVTR2310Ex");

  // Only the first numTags tags are checked, and they must be there.
  factor->numTags = 2;
  EXPECT_EQ(kfactor_factorData_prevalidate(factor, &field, &offset, message, 80), 0);
  record->factors[1]->numTags = 1;
  EXPECT_EQ(kfactor_factorData_prevalidate(record->factors[1], &field, &offset, message, 80),
            1200013);
}

TEST(PrintUserMFAData, DumpsPoliciesAndFactors) {
  RecordPtr record = sampleRecord(false);
  ASSERT_TRUE(record);
  // Policy data as the factor-data service fills it in, for the second slot
  // only.
  char *names[] = {const_cast<char *>("QMXLDAP1"), const_cast<char *>("QMXTOTP1")};
  policyData silver = {const_cast<char *>("SILVER"), 300, -1, 2, names, 0, nullptr, 0, 0};
  policyData *policies[] = {nullptr, &silver};
  record->policies = policies;
  EXPECT_EQ(mfatest::captureStdout([&] { printUserMFAData(record.get()); }),
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
  record->policies = nullptr;
}

} // namespace
