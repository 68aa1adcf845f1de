// The factor tag JSON readers. Any text read in the stored shape gives one
// tag per property of an object, in order; an array read in the interface
// shape gives one tag per element. Either list must count right, agree with
// a set of names on duplicates, and survive the stored JSON round trip.
#include <cstdint>
#include <cstring>
#include <string>

#include "base/json.h"
#include "fuzz/check.h"
#include "fuzz/tags.h"

namespace {

using fuzzcheck::Tags;

std::optional<std::string> stringOf(const Json *value) {
  if (value == nullptr || value->type != JSON_TYPE_STRING)
    return std::nullopt;
  return value->data.string;
}

// The first property named key, as the interface reader looks it up.
const Json *firstNamed(const Json *element, const char *key) {
  if (element == nullptr || element->type != JSON_TYPE_OBJECT)
    return nullptr;
  for (const JsonProperty *p = element->data.object->firstProperty; p != nullptr; p = p->next)
    if (strcmp(p->key, key) == 0)
      return p->value;
  return nullptr;
}

// A number's decimal text: 32-bit as is, 64-bit cut to 32 bits, a double as
// 0 (the reader takes numbers as 32-bit integers).
std::optional<std::string> fieldValueOf(const Json *value) {
  if (value != nullptr && value->type == JSON_TYPE_NUMBER)
    return std::to_string(value->data.number);
  if (value != nullptr && value->type == JSON_TYPE_INT64)
    return std::to_string(static_cast<int32_t>(value->data.number64));
  if (value != nullptr && value->type == JSON_TYPE_DOUBLE)
    return "0";
  return stringOf(value);
}

// Offsets are 0 in lists made from JSON; giving each tag its position makes
// the duplicate check's offset name the first holder.
void numberTags(factorTag *tag, Tags &tags) {
  for (uint32_t i = 0; tag != nullptr; tag = tag->next, i++)
    tag->nameOffset = tags[i].nameOffset = i;
}

void checkList(factorTag *first, uint32_t count, Tags &expected, int messageLength) {
  FUZZ_EXPECT(count == expected.size() && fuzzcheck::sameTags(first, expected));
  numberTags(first, expected);
  factorData factor{};
  factor.tags = first;
  fuzzcheck::checkPrevalidate(&factor, expected, messageLength);
  fuzzcheck::checkStoredRoundTrip(first, expected);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const fuzzcheck::Exact text =
      fuzzcheck::terminated({reinterpret_cast<const char *>(data), size});
  const size_t length = strlen(text.data());
  const int messageLength = static_cast<int>(length % 61);

  // Parsed here as the stored-shape reader parses it: the whole text up to
  // its NUL, in a heap of the same size.
  ShortLivedHeap *slh = makeShortLivedHeap(65536, 8);
  FUZZ_EXPECT(slh != nullptr);
  Json *root = jsonParseUnterminatedString(slh, text.data(), static_cast<int>(length),
                                           nullptr, 0);

  Tags expected;
  if (root != nullptr && root->type == JSON_TYPE_OBJECT)
    for (const JsonProperty *p = root->data.object->firstProperty; p != nullptr; p = p->next)
      expected.push_back({p->key, stringOf(p->value)});
  factorData stored{};
  uint32_t count = 0xFFFFFFFF;
  createFactorTags(text.data(), &stored, &count);
  checkList(stored.tags, count, expected, messageLength);
  factorTagList_destroy(stored.tags);

  if (root != nullptr && root->type == JSON_TYPE_ARRAY) {
    JsonArray *fields = root->data.array;
    expected.clear();
    for (int i = 0; i < fields->count; i++)
      expected.push_back({stringOf(firstNamed(fields->elements[i], "fieldName")),
                          fieldValueOf(firstNamed(fields->elements[i], "fieldValue"))});
    factorTag *first = nullptr;
    count = 0xFFFFFFFF;
    createFactorTagsUI(fields, &first, &count);
    checkList(first, count, expected, messageLength);
    factorTagList_destroy(first);
  }
  SLHFree(slh);
  return 0;
}
