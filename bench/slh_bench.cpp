// Small pieces from a short-lived heap against the system heap: 1,000
// pieces of 16 to 64 bytes, each touched once, then all released. The heap
// side includes making the heap (as the factor tag reader makes it) and
// releasing it, which wipes what was handed out.
#include "base/alloc.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstdlib>
#include <vector>

namespace {

constexpr int kPieces = 1000;

// Sizes from 16 to 64 bytes in a fixed mixed order, worked out beforehand
// so that neither side pays for them.
const std::array<int, kPieces> kSizes = [] {
  std::array<int, kPieces> sizes{};
  for (int i = 0; i < kPieces; ++i)
    sizes[i] = 16 + (i * 37) % 49;
  return sizes;
}();

// Through the C entry, or through the C++ one that the JSON reader uses,
// which has the common case inline.
template <char *(*allocate)(ShortLivedHeap *, int)> void BM_Heap(benchmark::State &state) {
  for (auto _ : state) {
    ShortLivedHeap *slh = makeShortLivedHeap(65536, 8);
    for (int i = 0; i < kPieces; ++i) {
      char *piece = allocate(slh, kSizes[i]);
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
      pieces[i] = static_cast<char *>(malloc(kSizes[i]));
      pieces[i][0] = static_cast<char>(i);
      benchmark::DoNotOptimize(pieces[i]);
    }
    for (char *piece : pieces)
      free(piece);
  }
  state.SetItemsProcessed(state.iterations() * kPieces);
}

BENCHMARK(BM_Heap<SLHAlloc>)->Name("pieces_1000_c/mfa")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Malloc)->Name("pieces_1000_c/malloc")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Heap<SLHAllocInline>)->Name("pieces_1000_cpp/mfa")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Malloc)->Name("pieces_1000_cpp/malloc")->Unit(benchmark::kMicrosecond);

} // namespace
