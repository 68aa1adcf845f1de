// The JSON reader and printer side by side with libraries that engineers
// pick for the same job: the same texts parsed and the same trees printed.
// Each run includes what its caller pays for: our reader's short-lived heap
// made and released, the others' trees built and destroyed, every printed
// text allocated and released.
//
// Names are "<work>/<implementation>"; scripts/bench turns the medians into
// one table of ratios against "mfa", this project.
#include "base/alloc.h"
#include "base/json.h"
#include "base/jsonprint.h"

#include <benchmark/benchmark.h>
#include <cjson/cJSON.h>
#include <nlohmann/json.hpp>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr size_t kOneMegabyte = 1 << 20;
constexpr size_t kQuarterMegabyte = 1 << 18;
constexpr int kTagDocuments = 1000;
constexpr int kUtf8 = 1208;

// The heaps this system makes: configuration and general work, and the
// factor tag reader's one per stored tag text.
constexpr int kGeneralBlockSize = 65536, kGeneralMaxBlocks = 100;
constexpr int kTagBlockSize = 65536, kTagMaxBlocks = 8;

// Settings-like records of strings, a number, a flag and a short list.
std::string recordsText(size_t bytes) {
  std::string text = "[";
  for (int i = 0; text.size() < bytes; i++) {
    std::string n = std::to_string(i);
    text.append(i ? ",\n" : "\n").append("  {\"DN\": \"cn=user").append(n);
    text.append(", ou=people, o=example\", \"SEARCHVAL\": \"uid=").append(n);
    text.append("\", \"count\": ").append(n).append(", \"active\": true, \"tags\": [1, 2, 3]}");
  }
  return text.append("\n]\n");
}

std::string integersText(size_t bytes) {
  std::mt19937 random(20261125);
  std::string text = "[";
  while (text.size() < bytes)
    text.append(std::to_string(static_cast<int32_t>(random()))).append(", ");
  return text.append("0]");
}

// A stored factor tag text of about 170 bytes.
std::string tagText(int i) {
  std::string n = std::to_string(i);
  return "{\"DN\":\"cn=User " + n + ",ou=People,dc=example,dc=com\",\"SEARCHVAL\":\"user" + n +
         "@example.com\",\"SEARCHVAL2\":\"" + n + "\",\"SEARCHVAL3\":\"\",\"LASTSEARCH\":\"" +
         "2026-11-25 10:15:" + std::to_string(10 + i % 50) + "\"}";
}

const std::string &text(const std::string &shape, size_t bytes) {
  static std::map<std::pair<std::string, size_t>, std::string> texts;
  std::string &t = texts[{shape, bytes}];
  if (t.empty())
    t = shape == "records" ? recordsText(bytes) : integersText(bytes);
  return t;
}

const std::vector<std::string> &tagTexts() {
  static const std::vector<std::string> texts = [] {
    std::vector<std::string> all;
    for (int i = 0; i < kTagDocuments; i++)
      all.push_back(tagText(i));
    return all;
  }();
  return texts;
}

// ---- One parse per library, the tree released before it returns ---------

bool parseMfa(const std::string &t, int blockSize, int maxBlocks) {
  ShortLivedHeap *slh = makeShortLivedHeap(blockSize, maxBlocks);
  Json *root = jsonParseUnterminatedString(slh, t.data(), static_cast<int>(t.size()), nullptr, 0);
  benchmark::DoNotOptimize(root);
  SLHFree(slh);
  return root != nullptr;
}

bool parseCJson(const std::string &t) {
  cJSON *root = cJSON_ParseWithLength(t.data(), t.size());
  benchmark::DoNotOptimize(root);
  cJSON_Delete(root);
  return root != nullptr;
}

bool parseNlohmann(const std::string &t) {
  nlohmann::json root = nlohmann::json::parse(t, nullptr, false);
  benchmark::DoNotOptimize(root);
  return !root.is_discarded();
}

bool parseRapidJson(const std::string &t) {
  rapidjson::Document root;
  root.Parse(t.data(), t.size());
  benchmark::DoNotOptimize(root);
  return !root.HasParseError();
}

enum class Library { mfa, cJSON, nlohmann, RapidJSON };

bool parseWith(Library library, const std::string &t, int blockSize, int maxBlocks) {
  switch (library) {
  case Library::mfa:
    return parseMfa(t, blockSize, maxBlocks);
  case Library::cJSON:
    return parseCJson(t);
  case Library::nlohmann:
    return parseNlohmann(t);
  case Library::RapidJSON:
    return parseRapidJson(t);
  }
  return false;
}

void parseLarge(benchmark::State &state, std::string shape, Library library) {
  const std::string &t = text(shape, kOneMegabyte);
  for (auto _ : state)
    if (!parseWith(library, t, kGeneralBlockSize, kGeneralMaxBlocks))
      return state.SkipWithError("parse failed");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(t.size()));
}

void parseTags(benchmark::State &state, Library library) {
  const std::vector<std::string> &texts = tagTexts();
  for (auto _ : state)
    for (const std::string &t : texts)
      if (!parseWith(library, t, kTagBlockSize, kTagMaxBlocks))
        return state.SkipWithError("parse failed");
  state.SetItemsProcessed(state.iterations() * kTagDocuments);
}

// ---- Printing the same tree ---------------------------------------------

// Trees of one records text, parsed once by each library and kept.
struct Trees {
  ShortLivedHeap *slh = makeShortLivedHeap(kGeneralBlockSize, kGeneralMaxBlocks);
  Json *mfa = nullptr;
  cJSON *cjson = nullptr;
  nlohmann::json nlohmann;
  rapidjson::Document rapid;
  size_t printedSize = 0; // compact text, as all four print it

  explicit Trees(const std::string &t) {
    mfa = jsonParseUnterminatedString(slh, t.data(), static_cast<int>(t.size()), nullptr, 0);
    cjson = cJSON_ParseWithLength(t.data(), t.size());
    nlohmann = nlohmann::json::parse(t);
    rapid.Parse(t.data(), t.size());
    char *printed = cJSON_PrintUnformatted(cjson);
    printedSize = strlen(printed);
    cJSON_free(printed);
  }
  ~Trees() {
    cJSON_Delete(cjson);
    SLHFree(slh);
  }
};

Trees &trees(size_t bytes) {
  static std::map<size_t, Trees> all;
  auto found = all.find(bytes);
  if (found == all.end())
    found = all.emplace(std::piecewise_construct, std::forward_as_tuple(bytes),
                        std::forward_as_tuple(text("records", bytes)))
                .first;
  return found->second;
}

enum class Printer { writer, buffer, cJSON, nlohmann, RapidJSON };

// The printed length, so that a sink too small shows as a failure.
size_t printWith(Printer printer, Trees &tree) {
  switch (printer) {
  case Printer::writer: {
    // Sized as callers do, with room to spare.
    jsonPrinter *p = makeStringWriterCustomJsonPrinter(2 * tree.printedSize);
    jsonPrint(p, tree.mfa);
    size_t length = SWCJP_getLength(p);
    destroyStringWriterCustomJsonPrinter(p);
    return length;
  }
  case Printer::buffer: {
    JsonBuffer *buffer = makeJsonBuffer();
    jsonPrinter *p = makeBufferJsonPrinter(kUtf8, buffer);
    jsonPrint(p, tree.mfa);
    size_t length = static_cast<size_t>(buffer->len);
    freeJsonPrinter(p);
    freeJsonBuffer(buffer);
    return length;
  }
  case Printer::cJSON: {
    char *printed = cJSON_PrintUnformatted(tree.cjson);
    size_t length = strlen(printed);
    cJSON_free(printed);
    return length;
  }
  case Printer::nlohmann:
    return tree.nlohmann.dump().size();
  case Printer::RapidJSON: {
    rapidjson::StringBuffer out;
    rapidjson::Writer<rapidjson::StringBuffer> writer(out);
    tree.rapid.Accept(writer);
    return out.GetSize();
  }
  }
  return 0;
}

void print(benchmark::State &state, size_t bytes, Printer printer) {
  Trees &tree = trees(bytes);
  for (auto _ : state)
    if (printWith(printer, tree) != tree.printedSize)
      return state.SkipWithError("printed text has the wrong length");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(tree.printedSize));
}

void registerAll() {
  const std::pair<const char *, Library> libraries[] = {{"mfa", Library::mfa},
                                                        {"cJSON", Library::cJSON},
                                                        {"nlohmann", Library::nlohmann},
                                                        {"RapidJSON", Library::RapidJSON}};
  for (auto [name, library] : libraries) {
    for (const char *shape : {"records", "integers"})
      benchmark::RegisterBenchmark((std::string("parse_") + shape + "_1MB/" + name).c_str(),
                                   parseLarge, std::string(shape), library)
          ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark((std::string("parse_tags_1000/") + name).c_str(), parseTags,
                                 library)
        ->Unit(benchmark::kMicrosecond);
  }
  // Each of our two sinks is a row of its own, against the same printers.
  const std::pair<const char *, Printer> others[] = {{"cJSON", Printer::cJSON},
                                                     {"nlohmann", Printer::nlohmann},
                                                     {"RapidJSON", Printer::RapidJSON}};
  for (auto [size, bytes] : {std::pair{"256KB", kQuarterMegabyte}, {"1MB", kOneMegabyte}}) {
    for (auto [sink, ours] : {std::pair{"writer", Printer::writer}, {"buffer", Printer::buffer}}) {
      std::string row = std::string("print_") + size + "_" + sink + "/";
      benchmark::RegisterBenchmark((row + "mfa").c_str(), print, bytes, ours)
          ->Unit(benchmark::kMicrosecond);
      for (auto [name, printer] : others)
        benchmark::RegisterBenchmark((row + name).c_str(), print, bytes, printer)
            ->Unit(benchmark::kMicrosecond);
    }
  }
}

} // namespace

int main(int argc, char **argv) {
  registerAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
