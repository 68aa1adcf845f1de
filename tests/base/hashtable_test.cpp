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

// Records what the reclaimers and hooks see.
struct Reclaimed {
  std::vector<uintptr_t> keys;
  std::vector<uintptr_t> values;
};
Reclaimed reclaimed;
int hookAnswer;

void reclaimKey(void *key) {
  reclaimed.keys.push_back(fromWord(key));
}
void reclaimValue(void *value) {
  reclaimed.values.push_back(fromWord(value));
}
int answer(void *) {
  return hookAnswer;
}

int blockCount(const fixedBlockMgr *manager) {
  int count = 0;
  for (char *block = manager->blocks; block != nullptr; block = *reinterpret_cast<char **>(block)) {
    count++;
  }
  return count;
}

class HashTableTest : public testing::Test {
protected:
  void SetUp() override { reclaimed = {}; }
  void TearDown() override { htDestroy(table); }
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
  table = htCreate(7, nullptr, nullptr, nullptr, nullptr);
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
  EXPECT_EQ(htCount(table), 3);
}

TEST_F(HashTableTest, StringKeysWithEqualHashesStayApart) {
  char aa[] = "Aa", bq[] = "BQ", high[] = "\xff";
  ASSERT_EQ(stringHash(aa), stringHash(bq));
  EXPECT_EQ(stringHash(high), 0x7FFFFFFF); // a signed byte, the top bit cleared
  table = htCreate(31, stringHash, stringCompare, nullptr, nullptr);
  htPut(table, aa, word(1));
  htPut(table, bq, word(2));
  char lookup[] = "Aa"; // equal text, different address
  EXPECT_EQ(fromWord(htGet(table, lookup)), 1u);
  EXPECT_EQ(fromWord(htGet(table, bq)), 2u);
  EXPECT_EQ(htRemove(table, lookup), 1);
  EXPECT_EQ(htRemove(table, lookup), 0);
  EXPECT_EQ(fromWord(htGet(table, bq)), 2u);
}

TEST_F(HashTableTest, ReplacingReclaimsTheOldPairUnlessTheHookKeepsIt) {
  table = htCreate(7, nullptr, nullptr, reclaimKey, reclaimValue);
  EXPECT_EQ(htUIntPut(table, 5, word(50)), 0);
  EXPECT_EQ(htUIntPut(table, 5, word(51)), 1);
  EXPECT_EQ(fromWord(htUIntGet(table, 5)), 51u);
  EXPECT_EQ(reclaimed.keys, std::vector<uintptr_t>{5});
  EXPECT_EQ(reclaimed.values, std::vector<uintptr_t>{50});

  void *previous = nullptr;
  EXPECT_EQ(htIntPut2(table, 5, word(52), &previous), 1);
  EXPECT_EQ(fromWord(previous), 51u); // handed back, not reclaimed
  EXPECT_EQ(reclaimed.values.size(), 1u);

  hookAnswer = 1;
  htAlter(table, answer, nullptr, nullptr);
  EXPECT_EQ(htUIntPut(table, 5, word(53)), 2);
  EXPECT_EQ(fromWord(htUIntGet(table, 5)), 52u);
  EXPECT_EQ(reclaimed.values.size(), 1u);
  EXPECT_EQ(htCount(table), 1);
}

TEST_F(HashTableTest, TakeOnceDequeuesWithoutReclaimingTheValue) {
  table = htCreate(7, nullptr, nullptr, reclaimKey, reclaimValue);
  hookAnswer = 1;
  htAlter(table, nullptr, nullptr, answer);
  htPut(table, word(8), word(80));
  EXPECT_EQ(fromWord(htGet(table, word(8))), 80u);
  EXPECT_EQ(htGet(table, word(8)), nullptr);
  EXPECT_EQ(reclaimed.keys, std::vector<uintptr_t>{8});
  EXPECT_TRUE(reclaimed.values.empty());
}

TEST_F(HashTableTest, ExpiryHasTheOppositeSenseForSignedKeys) {
  table = htCreate(7, nullptr, nullptr, reclaimKey, reclaimValue);
  hookAnswer = 0;
  htAlter(table, nullptr, answer, nullptr);
  htIntPut(table, 1, word(10));
  htUIntPut(table, 2, word(20));
  EXPECT_EQ(htIntGet(table, 1), nullptr);
  EXPECT_EQ(htCount(table), 1);
  EXPECT_EQ(fromWord(htUIntGet(table, 2)), 20u);

  hookAnswer = 1; // expired for the unsigned and generic families
  EXPECT_EQ(htUIntGet(table, 2), nullptr);
  EXPECT_EQ(htCount(table), 0);
  EXPECT_EQ(reclaimed.values, (std::vector<uintptr_t>{10, 20}));
}

TEST_F(HashTableTest, PruneRemovesWhatThePredicateSelects) {
  table = htCreate(7, nullptr, nullptr, reclaimKey, reclaimValue);
  for (uint32_t key = 1; key <= 20; key++) {
    htUIntPut(table, key, word(key * 10));
  }
  std::vector<uintptr_t> removed;
  auto even = [](void *, void *key, void *) { return fromWord(key) % 2 == 0 ? 1 : 0; };
  auto collect = [](void *data, void *value) {
    static_cast<std::vector<uintptr_t> *>(data)->push_back(fromWord(value));
  };
  EXPECT_EQ(htPrune(table, even, collect, &removed), 10);
  EXPECT_EQ(removed.size(), 10u);
  EXPECT_EQ(reclaimed.keys.size(), 10u);
  EXPECT_TRUE(reclaimed.values.empty());
  EXPECT_EQ(fromWord(htUIntGet(table, 7)), 70u);
  EXPECT_EQ(htUIntGet(table, 8), nullptr);

  auto all = [](void *, void *, void *) { return 1; };
  EXPECT_EQ(htPrune(table, all, nullptr, nullptr), 10);
  EXPECT_EQ(htCount(table), 0);
}

TEST_F(HashTableTest, NodesComeFromThePoolAndAreRecycled) {
  table = htCreate(10, nullptr, nullptr, nullptr, nullptr); // blocks of 5 nodes
  fixedBlockMgr *pool = table->nodes;
  for (uint32_t key = 0; key < 5; key++) {
    htUIntPut(table, key, word(key));
  }
  EXPECT_EQ(blockCount(pool), 1);
  htUIntPut(table, 5, word(5));
  EXPECT_EQ(blockCount(pool), 2);
  EXPECT_EQ(pool->remaining, 4u);

  // Removed nodes are reused, most recent first, before any carving.
  hashentry *freed = table->backbone[1];
  hookAnswer = 1;
  htAlter(table, nullptr, nullptr, answer);
  EXPECT_EQ(fromWord(htUIntGet(table, 1)), 1u);
  EXPECT_EQ(pool->freeList, reinterpret_cast<char *>(freed));
  htUIntPut(table, 40, word(40));
  EXPECT_EQ(pool->freeList, nullptr);
  EXPECT_EQ(pool->remaining, 4u);
  EXPECT_EQ(blockCount(pool), 2);

  void *small = htAllocSmallObject(table);
  EXPECT_EQ(pool->remaining, 3u);
  htFreeSmallObject(table, small);
  EXPECT_EQ(pool->freeList, small);
}

TEST(FreeBlockManager, CarvesAlignedObjectsAndComplainsAboutNull) {
  fixedBlockMgr *manager = fbMgrCreate(12, 3, nullptr);
  ASSERT_NE(manager, nullptr);
  EXPECT_EQ(manager->objectSize, 16u);
  char *first = static_cast<char *>(fbMgrAlloc(manager));
  EXPECT_EQ(static_cast<char *>(fbMgrAlloc(manager)) - first, 16);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % 8, 0u);
  fbMgrDestroy(manager);
  fbMgrDestroy(nullptr);

  EXPECT_EQ(mfatest::captureStdout([] { EXPECT_EQ(fbMgrAlloc(nullptr), nullptr); }),
            "fbMgr of 0 is NULL!!\n");
}

TEST_F(HashTableTest, DumpShowsStringKeysAsText) {
  table = htCreate(7, stringHash, stringCompare, nullptr, nullptr);
  char key[] = "abc";
  htPut(table, key, word(0x2a));
  std::string out = mfatest::captureStdout([&] { htDump(table); });
  int slot = stringHash(key) % 7;
  std::regex expected("ht backboneSize=7\nin slot " + std::to_string(slot) +
                      ": entry=[0-9a-f]+\n  key=[0-9a-f]+ 'abc' value: 2a\n");
  EXPECT_TRUE(std::regex_match(out, expected)) << out;
}

} // namespace
