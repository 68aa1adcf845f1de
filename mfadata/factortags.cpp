#include "mfadata/factortags.h"

#include <climits>
#include <cstdio>
#include <cstring>

#include "base/jsonprint.h"
#include "mfadata/usermfadata_internal.h"

namespace {

using PrinterPtr = mfadata::Owned<jsonPrinter, destroyStringWriterCustomJsonPrinter>;

// A list under construction; released whole unless taken.
class TagListBuilder {
public:
  // Appends a tag owning name and value (either may be null); false when the
  // tag cannot be allocated (name and value are then released).
  bool append(char *name, char *value) {
    auto *tag = reinterpret_cast<factorTag *>(safeMalloc(sizeof(factorTag), "factor tag"));
    if (tag == nullptr) {
      freeString(name);
      freeString(value);
      return false;
    }
    tag->tagName = name;
    tag->tagValue = value;
    if (tail_ != nullptr)
      tail_->next = tag;
    else
      head_.reset(tag);
    tail_ = tag;
    count_++;
    return true;
  }
  uint32_t count() const { return count_; }
  factorTag *release() { return head_.release(); }

private:
  mfadata::TagListPtr head_;
  factorTag *tail_ = nullptr;
  uint32_t count_ = 0;
};

// A copy in the system heap; false when text was given but not copied.
bool copyText(const char *text, char **copy) {
  *copy = duplicateString(text);
  return text == nullptr || *copy != nullptr;
}

// The decimal text of a number in its own buffer.
char *numberText(Json *value) {
  constexpr int kSize = 16;
  char *text = safeMalloc31(kSize, "numbervalue");
  if (text != nullptr)
    snprintf(text, kSize, "%d", jsonAsNumber(value));
  return text;
}

bool appendStoredTag(TagListBuilder &list, JsonProperty *property) {
  char *name = nullptr;
  char *value = nullptr;
  if (!copyText(jsonPropertyGetKey(property), &name) ||
      !copyText(jsonAsString(jsonPropertyGetValue(property)), &value)) {
    freeString(name);
    return false;
  }
  return list.append(name, value);
}

bool appendInterfaceTag(TagListBuilder &list, JsonObject *field) {
  char *name = nullptr;
  if (!copyText(jsonObjectGetString(field, "fieldName"), &name))
    return false;
  Json *fieldValue = jsonObjectGetPropertyValue(field, "fieldValue");
  char *value = nullptr;
  bool copied = jsonIsNumber(fieldValue) ? (value = numberText(fieldValue)) != nullptr
                                         : copyText(jsonAsString(fieldValue), &value);
  if (!copied) {
    freeString(name);
    return false;
  }
  return list.append(name, value);
}

// Room for the object even if every byte of every name and value needed an
// escape: quotes, colon and comma per tag, braces and terminator.
// The JSON reader takes byte 0xFF for the end of its input, so a stored
// text holding one could never be read back: the whole object would be lost.
bool readableBack(const factorTag *first) {
  for (const factorTag *tag = first; tag != nullptr; tag = tag->next)
    for (const char *text : {tag->tagName, tag->tagValue})
      if (text != nullptr && std::strchr(text, '\xff') != nullptr)
        return false;
  return true;
}

uint64_t documentBound(const factorTag *first) {
  uint64_t bound = 3;
  for (const factorTag *tag = first; tag != nullptr; tag = tag->next) {
    bound += 6;
    bound += 2 * (tag->tagName != nullptr ? strlen(tag->tagName) : 0);
    bound += 2 * (tag->tagValue != nullptr ? strlen(tag->tagValue) : 0);
  }
  return bound;
}

constexpr int kStoredHeapSize = 65536;

// The stored text's object, parsed into heap; null when the text does not
// parse or is not an object. Why it did not parse is of no use to the
// callers: such a text has no tags.
JsonObject *parseStored(ShortLivedHeap *heap, const char *json) {
  size_t length = strlen(json);
  char error[128];
  return jsonAsObject(jsonParseUnterminatedString(
      heap, json, length > INT_MAX ? INT_MAX : static_cast<int>(length), error, sizeof(error)));
}

} // namespace

extern "C" {

void createFactorTags(const char *json, factorData *data, uint32_t *count) {
  if (data == nullptr || count == nullptr)
    return;
  data->tags = nullptr;
  *count = 0;
  mfadata::HeapPtr heap(makeShortLivedHeap(kStoredHeapSize, 8));
  if (json == nullptr || heap == nullptr)
    return;
  TagListBuilder list;
  for (JsonProperty *property = jsonObjectGetFirstProperty(parseStored(heap.get(), json));
       property != nullptr; property = jsonObjectGetNextProperty(property)) {
    if (!appendStoredTag(list, property))
      return;
  }
  *count = list.count();
  data->tags = list.release();
}

int isStoredFactorJson(const char *json) {
  mfadata::HeapPtr heap(makeShortLivedHeap(kStoredHeapSize, 8));
  if (json == nullptr || heap == nullptr)
    return 0;
  JsonObject *object = parseStored(heap.get(), json);
  if (object == nullptr)
    return 0;
  for (JsonProperty *property = jsonObjectGetFirstProperty(object); property != nullptr;
       property = jsonObjectGetNextProperty(property)) {
    if (!jsonIsString(jsonPropertyGetValue(property)))
      return 0;
  }
  return 1;
}

void createFactorTagsUI(JsonArray *fields, factorTag **firstTag, uint32_t *count) {
  if (firstTag == nullptr || count == nullptr)
    return;
  *firstTag = nullptr;
  *count = 0;
  TagListBuilder list;
  for (int i = 0; i < jsonArrayGetCount(fields); i++) {
    if (!appendInterfaceTag(list, jsonArrayGetObject(fields, i)))
      return;
  }
  *count = list.count();
  *firstTag = list.release();
}

int createFactorJson(factorTag *firstTag, char **result) {
  if (firstTag == nullptr || result == nullptr || !readableBack(firstTag))
    return FACTORTAGS_EMPTY_LIST;
  // A string writer drops what does not fit, so it is sized for the worst case.
  uint64_t capacity = documentBound(firstTag);
  PrinterPtr printer(makeStringWriterCustomJsonPrinter(capacity < 1024 ? 1024 : capacity));
  if (printer == nullptr)
    return MFADATA_NO_MEMORY;
  jsonStartObject(printer.get(), nullptr);
  for (const factorTag *tag = firstTag; tag != nullptr; tag = tag->next)
    jsonAddString(printer.get(), tag->tagName != nullptr ? tag->tagName : "", tag->tagValue);
  jsonEndObject(printer.get());
  char *text = duplicateString(SWCJP_getStringPtr(printer.get()));
  if (text == nullptr)
    return MFADATA_NO_MEMORY;
  *result = text;
  return 0;
}

} // extern "C"
