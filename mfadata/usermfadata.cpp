// User MFA data: building from a factor-data buffer, copying, checking,
// dumping and releasing.
#include "mfadata/usermfadata.h"
#include "mfadata/usermfadata_internal.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

namespace {

using mfadata::FactorPtr;
using mfadata::HeapPtr;
using mfadata::RecordPtr;
using mfadata::TagListPtr;

constexpr int kOwnHeapBlockSize = 16384;
constexpr int kOwnHeapMaxBlocks = 64;
constexpr size_t kFactorEntrySize = 16;
constexpr size_t kSectionEntrySize = 12;
constexpr size_t kPolicyEntrySize = 16;
constexpr uint32_t kTagsSection = 1;
constexpr uint32_t kDateSection = 2;
// A tags section starts with a reserved 2-byte field, and every tag entry has
// one after its length; the model keeps neither.
constexpr size_t kReservedFieldSize = 2;
constexpr size_t kFactorNameCompareLength = 21;
constexpr char kDuplicateTagMessage[] = "KVTR2310E Tag validation detected duplicate tag names";

// Reads integers and byte runs from a factor-data buffer. Every read and
// every move is checked against the bytes it was given, so lengths and
// offsets taken from the buffer itself can never lead outside it.
class Cursor {
public:
  Cursor() = default;
  explicit Cursor(std::span<const unsigned char> bytes, uint64_t origin = 0)
      : bytes_(bytes), origin_(origin) {}

  // A cursor over length bytes from offset of this one's bytes.
  bool slice(uint64_t offset, uint64_t length, Cursor &out) const {
    if (offset > bytes_.size() || length > bytes_.size() - offset)
      return false;
    out = Cursor(bytes_.subspan(offset, length), origin_ + offset);
    return true;
  }

  // The length bytes from offset of this one's bytes, as text.
  bool view(uint64_t offset, uint64_t length, std::string_view &out) const {
    Cursor part;
    return slice(offset, length, part) && part.bytes(length, out);
  }

  bool seek(uint64_t position) {
    if (position > bytes_.size())
      return false;
    position_ = position;
    return true;
  }

  bool skip(uint64_t count) { return count <= remaining() && seek(position_ + count); }

  bool u16(uint16_t &value) { return readInteger(value); }
  bool u32(uint32_t &value) { return readInteger(value); }

  bool bytes(uint64_t count, std::string_view &out) {
    if (count > remaining())
      return false;
    out = std::string_view(reinterpret_cast<const char *>(bytes_.data() + position_), count);
    position_ += count;
    return true;
  }

  uint64_t size() const { return bytes_.size(); }
  // The position counted from the start of the whole buffer.
  uint64_t absolute() const { return origin_ + position_; }

private:
  uint64_t remaining() const { return bytes_.size() - position_; }

  // The buffer is in the machine's byte order and may be unaligned.
  template <typename T> bool readInteger(T &value) {
    if (sizeof(T) > remaining())
      return false;
    memcpy(&value, bytes_.data() + position_, sizeof(T));
    position_ += sizeof(T);
    return true;
  }

  std::span<const unsigned char> bytes_;
  uint64_t origin_ = 0;
  uint64_t position_ = 0;
};

// Where the pieces of one record come from: its heap, or checked allocation.
class Pieces {
public:
  explicit Pieces(ShortLivedHeap *heap) : heap_(heap) {}

  template <typename T> T *make(const char *label) {
    return reinterpret_cast<T *>(take(sizeof(T), label));
  }

  template <typename T> T **array(uint64_t count, const char *label) {
    if (count > INT_MAX / sizeof(T *))
      return nullptr;
    return reinterpret_cast<T **>(take(count * sizeof(T *), label));
  }

  // A terminated copy of text up to its first NUL, so that the copy's
  // length plus one is always its allocated size.
  char *text(std::string_view text, const char *label) {
    const size_t length = std::min(text.size(), text.find('\0'));
    if (length >= INT_MAX)
      return nullptr;
    char *copy = take(length + 1, label);
    if (copy)
      memcpy(copy, text.data(), length);
    return copy;
  }

private:
  char *take(size_t size, const char *label) {
    if (!heap_)
      return safeMalloc(static_cast<int>(size), label);
    char *piece = SLHAlloc(heap_, static_cast<int>(size));
    if (piece)
      memset(piece, 0, size);
    return piece;
  }

  ShortLivedHeap *heap_;
};

// Every destructor: nothing for null; without a heap the pieces are released
// one by one (heap pieces go with the heap); then the object is cleared,
// freed unless it lives in its heap, and the heap released when owned.
template <typename T, typename ReleasePieces>
void destroyObject(T *object, ReleasePieces releasePieces,
                   void (*release)(char *, int) = safeFree) {
  if (!object)
    return;
  if (!object->heap)
    releasePieces(*object);
  ShortLivedHeap *heap = object->heap;
  const bool inHeap = object->inHeap != 0;
  const bool ownsHeap = object->ownsHeap != 0;
  explicit_bzero(object, sizeof(T));
  if (!inHeap)
    release(reinterpret_cast<char *>(object), sizeof(T));
  if (heap && ownsHeap)
    SLHFree(heap);
}

// Destroys each of count items, then the array itself.
template <typename T> void destroyArray(T **items, uint32_t count, void (*destroy)(T *)) {
  if (!items)
    return;
  for (uint32_t i = 0; i < count; ++i)
    destroy(items[i]);
  safeFree(reinterpret_cast<char *>(items), static_cast<int>(count * sizeof(T *)));
}

// Appends the tags of one tags section. sectionEntry is the position of the
// section's table entry, from which the tag offsets are counted.
int readTags(Cursor section, uint64_t sectionEntry, Pieces &pieces, factorData &factor) {
  factorTag **tail = &factor.tags;
  while (*tail)
    tail = &(*tail)->next;
  for (uint64_t position = kReservedFieldSize; position < section.size();) {
    Cursor entry = section;
    entry.seek(position); // inside the section by the loop condition
    const uint64_t entryStart = entry.absolute();
    uint16_t entryLength = 0, nameLength = 0, valueLength = 0;
    std::string_view name, value;
    if (!entry.u16(entryLength) || !entry.skip(kReservedFieldSize) || !entry.u16(nameLength) ||
        !entry.bytes(nameLength, name))
      return MFADATA_BAD_ARGUMENT;
    const uint64_t valueStart = entry.absolute();
    if (!entry.u16(valueLength) || !entry.bytes(valueLength, value))
      return MFADATA_BAD_ARGUMENT;

    factorTag *tag = pieces.make<factorTag>("USERFACTOR tag item");
    if (!tag)
      return MFADATA_NO_MEMORY;
    *tail = tag;
    tail = &tag->next;
    ++factor.numTags;
    tag->tagName = pieces.text(name, "USERFACTOR temp tag name");
    tag->tagValue = pieces.text(value, "USERFACTOR tag vale");
    if (!tag->tagName || !tag->tagValue)
      return MFADATA_NO_MEMORY;
    // Data may lie before its section table; the offsets then wrap, which
    // keeps them exact modulo 2^32.
    tag->nameOffset = static_cast<uint32_t>(entryStart - sectionEntry);
    tag->valueOffset = static_cast<uint32_t>(valueStart - sectionEntry);
    position += entryLength + kReservedFieldSize;
  }
  return 0;
}

int readFactor(const Cursor &buffer, uint32_t index, Pieces &pieces, ShortLivedHeap *heap,
               FactorPtr &out) {
  Cursor entry = buffer;
  uint32_t nameLength = 0, nameOffset = 0, numSections = 0, tableOffset = 0;
  if (!entry.seek(uint64_t{index} * kFactorEntrySize) || !entry.u32(nameLength) ||
      !entry.u32(nameOffset) || !entry.u32(numSections) || !entry.u32(tableOffset))
    return MFADATA_BAD_ARGUMENT;
  std::string_view name;
  if (!buffer.view(nameOffset, nameLength, name))
    return MFADATA_BAD_ARGUMENT;

  FactorPtr factor(pieces.make<factorData>("USERFACTOR data"));
  if (!factor)
    return MFADATA_NO_MEMORY;
  if (heap) {
    factor->heap = heap;
    factor->inHeap = 1;
  }
  factor->factorName = pieces.text(name, "USERFACTOR factorname");
  if (!factor->factorName)
    return MFADATA_NO_MEMORY;

  for (uint32_t s = 0; s < numSections; ++s) {
    Cursor table = buffer;
    const uint64_t sectionEntry = uint64_t{tableOffset} + uint64_t{s} * kSectionEntrySize;
    uint32_t type = 0, length = 0, offset = 0;
    if (!table.seek(sectionEntry) || !table.u32(type) || !table.u32(length) || !table.u32(offset))
      return MFADATA_BAD_ARGUMENT;
    Cursor section;
    if (!buffer.slice(offset, length, section))
      return MFADATA_BAD_ARGUMENT;
    if (type == kTagsSection) {
      if (int rc = readTags(section, sectionEntry, pieces, *factor))
        return rc;
    } else if (type == kDateSection) {
      std::string_view date;
      if (factor->date || !section.bytes(length, date))
        return MFADATA_BAD_ARGUMENT;
      factor->date = pieces.text(date, "USERFACTOR tmpField");
      if (!factor->date)
        return MFADATA_NO_MEMORY;
      factor->activeFlag = 1;
    } else {
      return MFADATA_BAD_SECTION;
    }
  }
  out = std::move(factor);
  return 0;
}

int readPolicyNames(const Cursor &buffer, uint32_t policyOffset, Pieces &pieces,
                    userMFAData &data) {
  for (uint32_t i = 0; i < data.numPolicies; ++i) {
    const uint64_t start = uint64_t{policyOffset} + uint64_t{i} * kPolicyEntrySize;
    if (start >= buffer.size())
      break;
    Cursor entry = buffer;
    uint32_t nameLength = 0, nameOffset = 0;
    if (!entry.seek(start) || !entry.u32(nameLength) || !entry.u32(nameOffset) ||
        !entry.skip(kPolicyEntrySize - 2 * sizeof(uint32_t)))
      return MFADATA_BAD_ARGUMENT;
    if (nameLength == 0)
      continue;
    std::string_view name;
    if (!buffer.view(nameOffset, nameLength, name))
      return MFADATA_BAD_ARGUMENT;
    data.policyNames[i] = pieces.text(name, "policy name");
    if (!data.policyNames[i])
      return MFADATA_NO_MEMORY;
  }
  return 0;
}

const char *orNull(const char *text) {
  return text ? text : "(null)";
}

void printSeparator() {
  printf("- - - - -\n");
}

} // namespace

extern "C" {

int kfactor_userMFAData_create3(ShortLivedHeap *heap, int useHeap, int ownHeap, const char *userid,
                                int fallback, uint32_t numFactors, uint32_t numPolicies,
                                uint32_t policyOffset, const char *buffer, uint32_t bufferLength,
                                userMFAData **result) {
  if (!userid || numFactors == 0 || !buffer || bufferLength == 0 || !result)
    return MFADATA_BAD_ARGUMENT;
  if (!heap && useHeap && !ownHeap)
    return MFADATA_NO_HEAP;
  const Cursor input(std::span<const unsigned char>(reinterpret_cast<const unsigned char *>(buffer),
                                                    bufferLength));
  if (uint64_t{numFactors} * kFactorEntrySize > input.size())
    return MFADATA_BAD_ARGUMENT;

  HeapPtr madeHeap;
  if (!heap && ownHeap) {
    madeHeap.reset(makeShortLivedHeap(kOwnHeapBlockSize, kOwnHeapMaxBlocks));
    if (!madeHeap)
      return MFADATA_NO_MEMORY;
    heap = madeHeap.get();
  }
  const bool recordInHeap = heap && useHeap;
  RecordPtr data(recordInHeap ? reinterpret_cast<userMFAData *>(
                                    SLHAlloc(heap, static_cast<int>(sizeof(userMFAData))))
                              : reinterpret_cast<userMFAData *>(safeMalloc31(
                                    static_cast<int>(sizeof(userMFAData)), "USERFACTOR MFA Data")));
  if (!data)
    return MFADATA_NO_MEMORY;
  memset(data.get(), 0, sizeof(userMFAData));
  data->heap = heap;
  data->inHeap = recordInHeap ? 1 : 0;

  Pieces pieces(heap);
  data->factors = pieces.array<factorData>(std::max<uint32_t>(numFactors, MFADATA_FACTOR_SLOTS),
                                           "USERFACTOR data array");
  data->userid = pieces.text(userid, "USERFACTOR userid");
  if (!data->factors || !data->userid)
    return MFADATA_NO_MEMORY;
  data->fallback = static_cast<uint8_t>(fallback);

  for (uint32_t i = 0; i < numFactors; ++i) {
    FactorPtr factor;
    if (int rc = readFactor(input, i, pieces, heap, factor))
      return rc;
    data->factors[i] = factor.release();
    data->numFactors = i + 1;
  }

  data->numPolicies = numPolicies;
  if (numPolicies) {
    data->policyNames = pieces.array<char>(numPolicies, "policy name pointers");
    if (!data->policyNames)
      return MFADATA_NO_MEMORY;
    if (int rc = readPolicyNames(input, policyOffset, pieces, *data))
      return rc;
  }
  // The record takes over the heap only on success, so that a failed call
  // leaves a caller's heap to the caller.
  data->ownsHeap = ownHeap ? 1 : 0;
  madeHeap.release();
  *result = data.release();
  return 0;
}

int kfactor_userMFAData_create2(const char *userid, int fallback, uint32_t numFactors,
                                uint32_t numPolicies, uint32_t policyOffset, const char *buffer,
                                uint32_t bufferLength, userMFAData **result) {
  return kfactor_userMFAData_create3(nullptr, 0, 0, userid, fallback, numFactors, numPolicies,
                                     policyOffset, buffer, bufferLength, result);
}

int kfactor_userMFAData_create(const char *userid, int fallback, uint32_t numFactors,
                               const char *buffer, uint32_t bufferLength, userMFAData **result) {
  return kfactor_userMFAData_create2(userid, fallback, numFactors, 0, 0, buffer, bufferLength,
                                     result);
}

void factorTagList_destroy(factorTag *first) {
  while (first) {
    factorTag *next = first->next;
    freeString(first->tagName);
    freeString(first->tagValue);
    safeFree(reinterpret_cast<char *>(first), sizeof(factorTag));
    first = next;
  }
}

void kfactor_factorData_destroy(factorData *factor) {
  destroyObject(factor, [](factorData &f) {
    factorTagList_destroy(f.tags);
    freeString(f.factorName);
    freeString(f.date);
  });
}

void policyData_destroy(policyData *policy) {
  destroyObject(policy, [](policyData &p) {
    destroyArray(p.factorNames, p.numFactors, freeString);
    freeString(p.policyName);
  });
}

void kfactor_userMFAData_destroy(userMFAData *data) {
  destroyObject(
      data,
      [](userMFAData &d) {
        destroyArray(d.policyNames, d.numPolicies, freeString);
        destroyArray(d.policies, d.numPolicies, policyData_destroy);
        // Arrays built from a buffer have spare slots; the used ones are all
        // that can hold anything.
        destroyArray(d.factors, d.numFactors, kfactor_factorData_destroy);
        freeString(d.userid);
      },
      safeFree31);
}

int factorTagList_copy(const factorTag *first, uint32_t count, factorData *factorCopy) {
  // Copies are checked allocations, which a factor inside a heap would never
  // release.
  if (!factorCopy || factorCopy->tags || factorCopy->heap)
    return MFADATA_BAD_ARGUMENT;
  Pieces pieces(nullptr);
  TagListPtr copies;
  factorTag **tail = nullptr;
  for (uint32_t i = 0; first && i < count; ++i, first = first->next) {
    factorTag *tag = pieces.make<factorTag>("tagitem");
    if (!tag)
      return MFADATA_NO_MEMORY;
    if (tail)
      *tail = tag;
    else
      copies.reset(tag);
    tail = &tag->next;
    tag->nameOffset = first->nameOffset;
    tag->valueOffset = first->valueOffset;
    if (first->tagName && !(tag->tagName = pieces.text(first->tagName, "tagitem")))
      return MFADATA_NO_MEMORY;
    if (first->tagValue && !(tag->tagValue = pieces.text(first->tagValue, "tagitem")))
      return MFADATA_NO_MEMORY;
  }
  factorCopy->tags = copies.release();
  return 0;
}

int kfactor_factorData_copy(const factorData *factor, factorData **copy) {
  if (!copy)
    return MFADATA_BAD_ARGUMENT;
  if (!factor) {
    *copy = nullptr;
    return 0;
  }
  Pieces pieces(nullptr);
  FactorPtr result(pieces.make<factorData>("factorData"));
  if (!result)
    return MFADATA_NO_MEMORY;
  if (factor->factorName && !(result->factorName = pieces.text(factor->factorName, "factorData")))
    return MFADATA_NO_MEMORY;
  if (factor->date && !(result->date = pieces.text(factor->date, "factorData")))
    return MFADATA_NO_MEMORY;
  if (int rc = factorTagList_copy(factor->tags, factor->numTags, result.get()))
    return rc;
  result->activeFlag = factor->activeFlag;
  result->numTags = factor->numTags;
  *copy = result.release();
  return 0;
}

int kfactor_factorData_prevalidate(const factorData *factor, int *errorField, uint32_t *errorOffset,
                                   char *message, int messageLength) {
  if (!factor)
    return MFADATA_BAD_ARGUMENT;
  const factorTag *tag = factor->tags;
  for (uint32_t i = 0; i < factor->numTags; ++i, tag = tag->next) {
    if (!tag)
      return MFADATA_TOO_FEW_TAGS;
    for (const factorTag *earlier = factor->tags; earlier != tag; earlier = earlier->next) {
      if (!tag->tagName || !earlier->tagName || strcmp(tag->tagName, earlier->tagName) != 0)
        continue;
      if (errorField)
        *errorField = MFADATA_ERROR_FIELD_TAG_NAME;
      if (errorOffset)
        *errorOffset = earlier->nameOffset;
      if (message && messageLength > 0)
        strncpy(message, kDuplicateTagMessage, static_cast<size_t>(messageLength));
      return MFADATA_DUPLICATE_TAG;
    }
  }
  return 0;
}

int userMFAData_hasFactor(const userMFAData *data, const char *factorName) {
  if (!data || !factorName || !data->factors)
    return 0;
  for (uint32_t i = 0; i < data->numFactors; ++i) {
    const factorData *factor = data->factors[i];
    if (factor && factor->factorName &&
        strncmp(factor->factorName, factorName, kFactorNameCompareLength) == 0)
      return 1;
  }
  return 0;
}

void printUserMFAData(const userMFAData *data) {
  if (!data)
    return;
  printf("User MFA Data contents:\nuserid: %s, numpolicies: %d, numfactors: %d, fallback: %d\n"
         "(policy and factor data entries follow)\n",
         orNull(data->userid), static_cast<int>(data->numPolicies),
         static_cast<int>(data->numFactors), data->fallback);
  for (uint32_t i = 0; i < data->numPolicies; ++i) {
    const policyData *policy = data->policies ? data->policies[i] : nullptr;
    if (policy) {
      printf("Policy data at array index: %d\npolicyName: %s\ntoken Timeout: %d, tokenReuse: "
             "%d\nnum factors: %d -->",
             static_cast<int>(i), orNull(policy->policyName), policy->tokenTimeout,
             policy->tokenReuse, static_cast<int>(policy->numFactors));
      for (uint32_t f = 0; policy->factorNames && f < policy->numFactors; ++f)
        printf("%s ", orNull(policy->factorNames[f]));
      printf("\n");
    } else {
      printf("null policy data at index %d!\n", static_cast<int>(i));
    }
    printSeparator();
  }
  printSeparator();
  for (uint32_t i = 0; data->factors && i < data->numFactors; ++i) {
    const factorData *factor = data->factors[i];
    if (!factor)
      continue;
    printf("Factor data at array index: %d\nfactorName: %s\nactiveFlag: %d, Date: %s\nnumTags: "
           "%d\n(tag items follow)\n",
           static_cast<int>(i), orNull(factor->factorName), static_cast<int>(factor->activeFlag),
           orNull(factor->date), static_cast<int>(factor->numTags));
    for (const factorTag *tag = factor->tags; tag; tag = tag->next)
      printf("tagName: %s, tagValue: %s\n", orNull(tag->tagName), orNull(tag->tagValue));
    printSeparator();
  }
}

} // extern "C"
