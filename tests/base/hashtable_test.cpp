#include "base/hashtable.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <regex>
#include <vector>

#include "support/env.h"

namespace {

void *word(uintptr_t value) {
  return reinterpret_cast<void *>(value);
}
uintptr_t fromWord(void *value) {
  return reinterpret_cast<uintptr_t>(value);
}

// What the reclaimers see, and what the hooks answer.
std::vector<uintptr_t> keysReclaimed, valuesReclaimed;
int hookAnswer;
void reclaimKey(void *key) {
  keysReclaimed.push_back(fromWord(key));
}
void reclaimValue(void *value) {
  valuesReclaimed.push_back(fromWord(value));
}
int answer(void *) {
  return hookAnswer;
}

class HashTableTest : public testing::Test {
protected:
  void SetUp() override {
    keysReclaimed.clear();
    valuesReclaimed.clear();
  }
  void TearDown() override { htDestroy(table); }
  void make(int size = 7) { table = htCreate(size, nullptr, nullptr, reclaimKey, reclaimValue); }
  hashtable *table = nullptr;
};

TEST_F(HashTableTest, BackboneIsOddAndNodeBlocksFollowItsSize) {
  struct {
    int requested, backbone, nodes;
  } cases[] = {{0, 7, 2}, {10, 9, 5}, {127, 127, 21}, {128, 127, 21}, {800, 799, 341}};
  for (auto c : cases) {
    hashtable *t = htCreate(c.requested, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->backboneSize, c.backbone) << c.requested;
    EXPECT_EQ(t->nodes->objectsPerBlock, static_cast<uint32_t>(c.nodes)) << c.requested;
    htDestroy(t);
  }
}

TEST_F(HashTableTest, KeysSharingABucketAreFoundInEitherOrder) {
  make();
  // Unsigned keys 3 and 10 meet in bucket 3; signed -4 keeps its low 31 bits.
  EXPECT_EQ(htUIntPut(table, 3, word(30)), 0);
  EXPECT_EQ(htUIntPut(table, 10, word(100)), 0);
  EXPECT_EQ(fromWord(table->backbone[3]->key), 10u); // the later one heads the chain
  EXPECT_EQ(fromWord(htUIntGet(table, 3)), 30u);
  EXPECT_EQ(fromWord(htUIntGet(table, 10)), 100u);
  EXPECT_EQ(htUIntGet(table, 17), nullptr);
  EXPECT_EQ(htIntPut(table, -4, word(44)), 0);
  EXPECT_EQ(fromWord(htIntGet(table, -4)), 44u);
  EXPECT_EQ(htIntGet(table, 4), nullptr);

  // String keys with equal hashes stay apart; equal text at another address
  // finds its entry.
  hashtable *strings = htCreate(31, stringHash, stringCompare, nullptr, nullptr);
  char aa[] = "Aa", bq[] = "BQ", lookup[] = "Aa", high[] = "\xff";
  ASSERT_EQ(stringHash(aa), stringHash(bq));
  EXPECT_EQ(stringHash(high), 0x7FFFFFFF); // a signed byte, the top bit cleared
  htPut(strings, aa, word(1));
  htPut(strings, bq, word(2));
  EXPECT_EQ(fromWord(htGet(strings, lookup)), 1u);
  EXPECT_EQ(htRemove(strings, lookup), 1);
  EXPECT_EQ(htRemove(strings, lookup), 0);
  EXPECT_EQ(fromWord(htGet(strings, bq)), 2u);
  htDestroy(strings);
}

TEST_F(HashTableTest, ReplacingReclaimsTheOldPairUnlessTheHookKeepsIt) {
  make();
  EXPECT_EQ(htUIntPut(table, 5, word(50)), 0);
  EXPECT_EQ(htUIntPut(table, 5, word(51)), 1);
  EXPECT_EQ(fromWord(htUIntGet(table, 5)), 51u);
  void *previous = nullptr;
  EXPECT_EQ(htIntPut2(table, 5, word(52), &previous), 1);
  EXPECT_EQ(fromWord(previous), 51u); // handed back, not reclaimed
  hookAnswer = 1;
  htAlter(table, answer, nullptr, nullptr);
  EXPECT_EQ(htUIntPut(table, 5, word(53)), 2);
  EXPECT_EQ(fromWord(htUIntGet(table, 5)), 52u);
  EXPECT_EQ(keysReclaimed, (std::vector<uintptr_t>{5, 5}));
  EXPECT_EQ(valuesReclaimed, std::vector<uintptr_t>{50});
  EXPECT_EQ(htCount(table), 1);
}

TEST_F(HashTableTest, GetHooks) {
  make();
  // Take-once dequeues without reclaiming the value.
  hookAnswer = 1;
  htAlter(table, nullptr, nullptr, answer);
  htPut(table, word(8), word(80));
  EXPECT_EQ(fromWord(htGet(table, word(8))), 80u);
  EXPECT_EQ(htGet(table, word(8)), nullptr);
  EXPECT_EQ(keysReclaimed, std::vector<uintptr_t>{8});
  EXPECT_TRUE(valuesReclaimed.empty());

  // Expiry has the opposite sense for signed keys.
  hookAnswer = 0;
  htAlter(table, nullptr, answer, nullptr);
  htIntPut(table, 1, word(10));
  htUIntPut(table, 2, word(20));
  EXPECT_EQ(htIntGet(table, 1), nullptr);
  EXPECT_EQ(fromWord(htUIntGet(table, 2)), 20u);
  hookAnswer = 1; // expired for the unsigned and generic families
  EXPECT_EQ(htUIntGet(table, 2), nullptr);
  EXPECT_EQ(htCount(table), 0);
  EXPECT_EQ(valuesReclaimed, (std::vector<uintptr_t>{10, 20}));
}

TEST_F(HashTableTest, PruneRemovesWhatThePredicateSelects) {
  make();
  for (uint32_t key = 1; key <= 20; key++)
    htUIntPut(table, key, word(key * 10));
  std::vector<uintptr_t> removed;
  auto even = [](void *, void *key, void *) { return fromWord(key) % 2 == 0 ? 1 : 0; };
  auto collect = [](void *data, void *value) {
    static_cast<std::vector<uintptr_t> *>(data)->push_back(fromWord(value));
  };
  EXPECT_EQ(htPrune(table, even, collect, &removed), 10);
  EXPECT_EQ(removed.size(), 10u);
  EXPECT_EQ(keysReclaimed.size(), 10u);
  EXPECT_TRUE(valuesReclaimed.empty());
  EXPECT_EQ(fromWord(htUIntGet(table, 7)), 70u);
  EXPECT_EQ(htUIntGet(table, 8), nullptr);
  auto all = [](void *, void *, void *) { return 1; };
  EXPECT_EQ(htPrune(table, all, nullptr, nullptr), 10);
  EXPECT_EQ(htCount(table), 0);
}

TEST(FreeBlockManager, CarvesAlignedObjectsRecyclesThemAndComplainsAboutNull) {
  fixedBlockMgr *manager = fbMgrCreate(12, 3, nullptr);
  ASSERT_NE(manager, nullptr);
  EXPECT_EQ(manager->objectSize, 16u);
  char *first = static_cast<char *>(fbMgrAlloc(manager));
  char *second = static_cast<char *>(fbMgrAlloc(manager));
  EXPECT_EQ(second - first, 16);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % 8, 0u);
  // Freed objects come back most recent first, before any carving.
  fbMgrFree(manager, first);
  fbMgrFree(manager, second);
  EXPECT_EQ(fbMgrAlloc(manager), second);
  EXPECT_EQ(fbMgrAlloc(manager), first);
  EXPECT_EQ(manager->remaining, 1u);
  fbMgrDestroy(manager);
  fbMgrDestroy(nullptr);
  EXPECT_EQ(mfatest::captureStdout([] { EXPECT_EQ(fbMgrAlloc(nullptr), nullptr); }),
            "fbMgr of 0 is NULL!!\n");

  // A table's nodes come from its pool, which it lends for small objects.
  hashtable *table = htCreate(10, nullptr, nullptr, nullptr, nullptr); // blocks of 5 nodes
  for (uint32_t key = 0; key < 6; key++)
    htUIntPut(table, key, word(key));
  EXPECT_EQ(table->nodes->remaining, 4u); // the sixth opened a second block
  hashentry *freed = table->backbone[1];
  EXPECT_EQ(htRemove(table, word(1)), 1);
  EXPECT_EQ(htAllocSmallObject(table), freed);
  htFreeSmallObject(table, freed);
  EXPECT_EQ(table->nodes->freeList, reinterpret_cast<char *>(freed));
  htDestroy(table);
}

TEST_F(HashTableTest, DumpShowsStringKeysAsText) {
  table = htCreate(7, stringHash, stringCompare, nullptr, nullptr);
  char key[] = "abc";
  htPut(table, key, word(0x2a));
  std::string out = mfatest::captureStdout([&] { htDump(table); });
  std::regex expected("ht backboneSize=7\nin slot " + std::to_string(stringHash(key) % 7) +
                      ": entry=[0-9a-f]+\n  key=[0-9a-f]+ 'abc' value: 2a\n");
  EXPECT_TRUE(std::regex_match(out, expected)) << out;
}

} // namespace
