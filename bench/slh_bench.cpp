// Small pieces from a short-lived heap against the system heap: the heap
// carves pieces by pointer bumping and releases them all at once, so both
// sides include the release of every piece.
#include "base/alloc.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

namespace {

constexpr int kPieces = 1000;
constexpr int kBlockSize = 64 * 1024;

void BM_SLHAlloc(benchmark::State &state) {
  const int size = static_cast<int>(state.range(0));
  const int maxBlocks = kPieces * size / kBlockSize + 2;
  for (auto _ : state) {
    ShortLivedHeap *slh = makeShortLivedHeap(kBlockSize, maxBlocks);
    for (int i = 0; i < kPieces; ++i) {
      char *piece = SLHAlloc(slh, size);
      piece[0] = static_cast<char>(i);
      benchmark::DoNotOptimize(piece);
    }
    SLHFree(slh);
  }
  state.SetItemsProcessed(state.iterations() * kPieces);
}

void BM_Malloc(benchmark::State &state) {
  const size_t size = static_cast<size_t>(state.range(0));
  std::vector<char *> pieces(kPieces);
  for (auto _ : state) {
    for (int i = 0; i < kPieces; ++i) {
      pieces[i] = static_cast<char *>(malloc(size));
      pieces[i][0] = static_cast<char>(i);
      benchmark::DoNotOptimize(pieces[i]);
    }
    for (char *piece : pieces)
      free(piece);
  }
  state.SetItemsProcessed(state.iterations() * kPieces);
}

BENCHMARK(BM_SLHAlloc)->Arg(16)->Arg(64)->Arg(256);
BENCHMARK(BM_Malloc)->Arg(16)->Arg(64)->Arg(256);

} // namespace
