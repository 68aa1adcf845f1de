// Reading JSON from memory: a document of typical settings-like records and
// one long string, where the cost per character dominates. Throughput is
// reported in bytes of input per second.
#include "base/json.h"

#include <benchmark/benchmark.h>

#include <string>

namespace {

std::string recordsDocument(int records) {
  std::string text = "[\n";
  for (int i = 0; i < records; i++) {
    std::string n = std::to_string(i);
    text.append("  {\"DN\": \"cn=user").append(n).append(", ou=people, o=example\", ");
    text.append("\"SEARCHVAL\": \"uid=").append(n).append("\", \"count\": ").append(n);
    text.append(", \"active\": true, \"tags\": [1, 2, 3]},\n");
  }
  return text.append("]\n");
}

void parseLoop(benchmark::State &state, const std::string &text) {
  for (auto _ : state) {
    ShortLivedHeap *slh = makeShortLivedHeap(1 << 20, 100);
    Json *value =
        jsonParseUnterminatedString(slh, text.data(), static_cast<int>(text.size()), nullptr, 0);
    benchmark::DoNotOptimize(value);
    if (value == nullptr)
      state.SkipWithError("parse failed");
    SLHFree(slh);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

void BM_ParseRecords(benchmark::State &state) {
  parseLoop(state, recordsDocument(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_ParseRecords)->Arg(100)->Arg(5000);

void BM_ParseLongString(benchmark::State &state) {
  std::string text(static_cast<size_t>(state.range(0)) + 2, 'x');
  text.front() = text.back() = '"';
  parseLoop(state, text);
}
BENCHMARK(BM_ParseLongString)->Arg(1 << 20);

} // namespace
