// Oracles shared by the targets that build factor tag lists: the list as
// expected, the duplicate check against a set of names built here, and the
// round trip through the stored JSON form.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/alloc.h"
#include "fuzz/check.h"
#include "mfadata/factortags.h"
#include "mfadata/usermfadata.h"

namespace fuzzcheck {

struct Tag {
  std::optional<std::string> name;
  std::optional<std::string> value;
  uint32_t nameOffset = 0;
  uint32_t valueOffset = 0;
};
using Tags = std::vector<Tag>;

inline bool sameText(const char *text, const std::optional<std::string> &expected) {
  return text == nullptr ? !expected : expected && *expected == text;
}

// Exactly the expected tags, in order, then the end of the list.
inline bool sameTags(const factorTag *tag, const Tags &expected) {
  for (const Tag &want : expected) {
    if (tag == nullptr || !sameText(tag->tagName, want.name) ||
        !sameText(tag->tagValue, want.value) || tag->nameOffset != want.nameOffset ||
        tag->valueOffset != want.valueOffset)
      return false;
    tag = tag->next;
  }
  return tag == nullptr;
}

// kfactor_factorData_prevalidate on factor, whose list holds tags, with a
// message buffer of exactly messageLength bytes: the first name seen before
// is reported with the offset of its first holder; a list that claims one
// tag more than it holds is short unless a duplicate comes first.
inline void checkPrevalidate(factorData *factor, const Tags &tags, int messageLength) {
  static constexpr char kMessage[] = "KVTR2310E Tag validation detected duplicate tag names";
  std::map<std::string, uint32_t> firstHolder;
  std::optional<uint32_t> duplicateOffset;
  for (const Tag &tag : tags) {
    if (!tag.name)
      continue;
    auto [seen, added] = firstHolder.emplace(*tag.name, tag.nameOffset);
    if (!added) {
      duplicateOffset = seen->second;
      break;
    }
  }
  for (uint32_t extra = 0; extra < 2; extra++) {
    factor->numTags = static_cast<uint32_t>(tags.size()) + extra;
    Exact message(static_cast<size_t>(messageLength));
    int field = -1;
    uint32_t offset = 0xFFFFFFFF;
    const int status =
        kfactor_factorData_prevalidate(factor, &field, &offset, message.data(), messageLength);
    if (duplicateOffset) {
      FUZZ_EXPECT(status == MFADATA_DUPLICATE_TAG);
      FUZZ_EXPECT(field == MFADATA_ERROR_FIELD_TAG_NAME && offset == *duplicateOffset);
      // As strncpy fills it: the text, then NULs up to the length.
      std::string filled(kMessage, std::min(sizeof kMessage - 1, message.size));
      filled.resize(message.size, '\0');
      FUZZ_EXPECT(message.view() == filled);
    } else {
      FUZZ_EXPECT(status == (extra == 0 ? 0 : MFADATA_TOO_FEW_TAGS));
      FUZZ_EXPECT(field == -1 && offset == 0xFFFFFFFF && message.untouched());
    }
  }
  factor->numTags = static_cast<uint32_t>(tags.size());
}

// The stored JSON of the list read back gives the same names and values (an
// absent one is written as the empty text), and printing that gives the
// same JSON again.
inline void checkStoredRoundTrip(factorTag *first, const Tags &tags) {
  char *json = nullptr;
  const int status = createFactorJson(first, &json);
  if (first == nullptr) {
    FUZZ_EXPECT(status == FACTORTAGS_EMPTY_LIST && json == nullptr);
    return;
  }
  // The JSON reader takes the byte 0xFF for the end of its input, so a list
  // holding it is refused rather than written beyond reading back.
  bool unreadable = false;
  for (const Tag &tag : tags)
    for (const auto &text : {tag.name, tag.value})
      unreadable = unreadable || (text && text->find('\xFF') != std::string::npos);
  if (unreadable) {
    FUZZ_EXPECT(status == FACTORTAGS_EMPTY_LIST && json == nullptr);
    return;
  }
  FUZZ_EXPECT(status == 0 && json != nullptr);
  Tags expected;
  for (const Tag &tag : tags)
    expected.push_back({tag.name.value_or(""), tag.value.value_or("")});
  factorData again{};
  uint32_t count = 0xFFFFFFFF;
  createFactorTags(json, &again, &count);
  FUZZ_EXPECT(count == expected.size() && sameTags(again.tags, expected));
  char *printedAgain = nullptr;
  FUZZ_EXPECT(createFactorJson(again.tags, &printedAgain) == 0);
  FUZZ_EXPECT(strcmp(json, printedAgain) == 0);
  freeString(printedAgain);
  factorTagList_destroy(again.tags);
  freeString(json);
}

} // namespace fuzzcheck
