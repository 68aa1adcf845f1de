#include "base/alloc.h"
#include "base/alloc_internal.h"
#include "support/env.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>

using mfatest::captureStdout;

namespace {

struct HeapDeleter {
  void operator()(ShortLivedHeap *slh) const { SLHFree(slh); }
};
using Heap = std::unique_ptr<ShortLivedHeap, HeapDeleter>;

Heap makeHeap(int blockSize, int maxBlocks) {
  return Heap(makeShortLivedHeap(blockSize, maxBlocks));
}

struct TraceLevel {
  explicit TraceLevel(int level) : previous(mallocSetTraceLevel(level)) {}
  ~TraceLevel() { mallocSetTraceLevel(previous); }
  int previous;
};

TEST(ShortLivedHeap, RoundsPiecesToEightBytes) {
  Heap slh = makeHeap(8192, 8);
  // A zero-byte request consumes nothing and obtains no block.
  EXPECT_EQ(SLHAlloc(slh.get(), 0), nullptr);
  EXPECT_EQ(slh->blockCount, 0u);
  char *first = SLHAlloc(slh.get(), 1);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(slh->remaining, 8192u - 8);
  for (int size : {7, 8, 9}) {
    uint32_t before = slh->remaining;
    char *piece = SLHAlloc(slh.get(), size);
    ASSERT_NE(piece, nullptr);
    EXPECT_EQ((piece - first) % 8, 0);
    EXPECT_EQ(before - slh->remaining, size == 9 ? 16u : 8u) << size;
  }
  EXPECT_EQ(slh->blockCount, 1u);
}

TEST(ShortLivedHeap, OversizeBlockSitsBehindTheCurrentBlock) {
  Heap slh = makeHeap(65536, 100);
  char *small = SLHAlloc(slh.get(), 16);
  char *big = SLHAlloc(slh.get(), 70000);
  ASSERT_NE(big, nullptr);
  EXPECT_EQ(slh->segmentList->data, small);
  ASSERT_NE(slh->segmentList->next, nullptr);
  EXPECT_EQ(slh->segmentList->next->data, big);
  EXPECT_EQ(slh->segmentList->next->size, 70000u);
  memset(big, 0xAB, 70000);
  EXPECT_EQ(SLHAlloc(slh.get(), 8), small + 16);
  EXPECT_EQ(slh->blockCount, 2u);
}

TEST(ShortLivedHeap, OversizeIntoEmptyHeapLeavesNothingRemaining) {
  Heap slh = makeHeap(8192, 8);
  ASSERT_NE(SLHAlloc(slh.get(), 9000), nullptr);
  EXPECT_EQ(slh->remaining, 0u);
  char *next = SLHAlloc(slh.get(), 8);
  EXPECT_EQ(slh->blockCount, 2u);
  EXPECT_EQ(slh->segmentList->data, next);
}

TEST(ShortLivedHeap, RefusesRequestsBeyondItsCapacity) {
  Heap slh = makeHeap(8192, 8);
  ASSERT_NE(SLHAlloc(slh.get(), 8), nullptr);
  // 8184 left in the first block plus 7 more blocks.
  int capacity = 8184 + 7 * 8192;
  std::string out = captureStdout([&] { EXPECT_EQ(SLHAlloc(slh.get(), capacity + 8), nullptr); });
  EXPECT_EQ(out, "cannot allocate above block size " + std::to_string(capacity + 8) + " > " +
                     std::to_string(capacity) + " mb 8 bc 1\n");
  EXPECT_NE(SLHAlloc(slh.get(), capacity), nullptr);
  SLHFree(nullptr);
}

TEST(ShortLivedHeap, ReleasedBlocksComeBackZeroFilled) {
  // Whatever a heap handed out and its owner wrote, a later heap of the same
  // block size gets zero-filled pieces: released blocks are wiped where they
  // were used, and kept for reuse only then.
  for (int round = 0; round < 3; round++) {
    Heap written = makeHeap(8192, 8);
    for (int size : {5000, 5000, 9000, 300}) { // a second block, an oversize one
      char *piece = SLHAlloc(written.get(), size);
      ASSERT_NE(piece, nullptr);
      memset(piece, 0xAB, size);
    }
    written.reset();
    Heap fresh = makeHeap(8192, 8);
    for (int block = 0; block < 3; block++) {
      const char *piece = SLHAlloc(fresh.get(), 8192);
      ASSERT_NE(piece, nullptr);
      EXPECT_EQ(std::count(piece, piece + 8192, 0), 8192) << round << " " << block;
    }
  }
}

TEST(ShortLivedHeap, AThreadReleasesTheBlocksItKeptWhenItEnds) {
  // The leak check of the sanitizer build fails this test otherwise.
  std::thread worker([] {
    for (int blockSize : {4096, 8192}) {
      Heap slh = makeHeap(blockSize, 8);
      ASSERT_NE(SLHAlloc(slh.get(), 64), nullptr);
    }
  });
  worker.join();
}

TEST(CheckedAllocation, ZeroFillsAndReportsOnlyWhenTracing) {
  std::string quiet = captureStdout([] {
    char *piece = safeMalloc(0, "quiet");
    safeFree(piece, 0);
  });
  EXPECT_EQ(quiet, "");

  TraceLevel tracing(1);
  std::string out = captureStdout([] {
    char *piece = safeMalloc(0, "zero site");
    safeFree(piece, 0);
    for (int size : {64, 1 << 20}) { // the system heap's own zero-fill for large pieces
      char *data = safeMalloc(size, "data site");
      EXPECT_EQ(std::count(data, data + size, 0), size);
      safeFree(data, size);
    }
    EXPECT_EQ(safeMalloc(-5, "negative site"), nullptr);
  });
  EXPECT_EQ(out, "MALLOC: zero alloc from zero site\n"
                 "MALLOC: negative malloc -5 from negative site\n"
                 "MALLOC failed, got NULL for size -5 at site negative site\n");
}

TEST(CheckedAllocation, UngatedVariantsAlwaysReport) {
  std::string out = captureStdout([] {
    char *wide = safeMalloc64(0, "wide");
    safeFree64(wide, 0);
    free(wide); // safeFree64 keeps 64-bit storage; release it here for the leak check
    char *key8 = safeMalloc31Key8(0, "key8");
    safeFree31Key8(key8, 0);
  });
  EXPECT_EQ(out, "MALLOC: zero alloc from wide\nMALLOC: zero alloc from key8\n");

  char *kept = safeMalloc64(16, "wide");
  strcpy(kept, "still here");
  safeFree64(kept, 16);
  EXPECT_STREQ(kept, "still here");
  free(kept);
}

TEST(CheckedAllocation, Malloc2ReportsProgress) {
  int progress = 0;
  char *piece = safeMalloc2(32, "progress", &progress);
  EXPECT_EQ(progress, 2182);
  safeFree(piece, 32);
  progress = 0;
  captureStdout([&] { EXPECT_EQ(safeMalloc2(-1, "p", &progress), nullptr); });
  EXPECT_EQ(progress, 2182);
}

TEST(CheckedAllocation, ReallocCopiesAndKeepsOldOnFailure) {
  char *old = safeMalloc(4, "old");
  memcpy(old, "abc", 4);
  char *grown = safeRealloc(old, 16, 4, "grown");
  ASSERT_NE(grown, nullptr);
  EXPECT_STREQ(grown, "abc");
  EXPECT_EQ(grown[15], 0);
  captureStdout([&] { EXPECT_EQ(safeRealloc(grown, -1, 16, "bad"), nullptr); });
  EXPECT_STREQ(grown, "abc");
  safeFree(grown, 16);
}

TEST(CheckedAllocation, NoisyMallocAddsItsLine) {
  std::string out = captureStdout([] { EXPECT_EQ(noisyMalloc(-2), nullptr); });
  EXPECT_EQ(out, "MALLOC failed, got NULL for size -2 at site NoisyMalloc\n"
                 "malloc failure for allocation of -2 bytes\n");
}

TEST(StringHelpers, DuplicatesConcatenatesAndHandlesEmptyStrings) {
  char *copy = duplicateString("");
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "");
  freeString(copy);
  EXPECT_EQ(duplicateString(nullptr), nullptr);
  freeString(nullptr);

  char *cut = duplicateStringWithSize("abcdef", 3);
  EXPECT_STREQ(cut, "abc");
  freeString(cut);

  Heap slh = makeHeap(1024, 4);
  EXPECT_EQ(slhDuplicateString(slh.get(), ""), nullptr);
  EXPECT_STREQ(slhDuplicateStringWithSize(slh.get(), "", 0), "");
  EXPECT_STREQ(slhDuplicateString(slh.get(), "text"), "text");
  EXPECT_EQ(slhDuplicateString(nullptr, "text"), nullptr);
  EXPECT_STREQ(stringConcatenate(slh.get(), "ab", "cd"), "abcd");
  EXPECT_STREQ(stringConcatenateMultiple(slh.get(), 4, "a", "", "bc", "d"), "abcd");
}

TEST(StringList, AppendsUniqueAndPrints) {
  Heap slh = makeHeap(1024, 4);
  StringList *list = makeStringList(slh.get());
  char a[] = "a", b[] = "b", c[] = "c", again[] = "b";
  addToStringList(list, a);
  EXPECT_EQ(addToStringListUnique(list, b), 1);
  EXPECT_EQ(addToStringListUnique(list, again), 0);
  addToStringList(list, c);
  EXPECT_EQ(stringListLength(list), 3);
  EXPECT_TRUE(stringListContains(list, "c"));
  EXPECT_FALSE(stringListContains(list, "d"));
  EXPECT_STREQ(stringListLast(list), "c");
  EXPECT_STREQ(stringListPrint(list, 1, 5, ", ", '"'), "\"b\", \"c\"");
  EXPECT_STREQ(stringListPrint(list, 0, 2, "-", 0), "a-b");
  EXPECT_STREQ(stringListPrint(list, 3, 2, "-", 0), "");
}

} // namespace
