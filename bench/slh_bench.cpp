// Small pieces from a short-lived heap against the system heap: 1,000
// pieces of 16 to 64 bytes, each touched once, then all released. The heap
// side includes making the heap (as the factor tag reader makes it) and
// releasing it, which wipes what was handed out.
#include "base/alloc.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

namespace {

constexpr int kPieces = 1000;

int pieceSize(int i) {
  return 16 + (i * 37) % 49;
}

void BM_Heap(benchmark::State &state) {
  for (auto _ : state) {
    ShortLivedHeap *slh = makeShortLivedHeap(65536, 8);
    for (int i = 0; i < kPieces; ++i) {
      char *piece = SLHAlloc(slh, pieceSize(i));
      piece[0] = static_cast<char>(i);
      benchmark::DoNotOptimize(piece);
    }
    SLHFree(slh);
  }
  state.SetItemsProcessed(state.iterations() * kPieces);
}

void BM_Malloc(benchmark::State &state) {
  std::vector<char *> pieces(kPieces);
  for (auto _ : state) {
    for (int i = 0; i < kPieces; ++i) {
      pieces[i] = static_cast<char *>(malloc(pieceSize(i)));
      pieces[i][0] = static_cast<char>(i);
      benchmark::DoNotOptimize(pieces[i]);
    }
    for (char *piece : pieces)
      free(piece);
  }
  state.SetItemsProcessed(state.iterations() * kPieces);
}

BENCHMARK(BM_Heap)->Name("pieces_1000/mfa")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Malloc)->Name("pieces_1000/malloc")->Unit(benchmark::kMicrosecond);

} // namespace
