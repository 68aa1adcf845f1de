// The factor-data buffer readers: the three userMFAData creators, with and
// without a short-lived heap. Whatever the buffer holds, the status and the
// record must be what a model of the buffer format written here reads from
// it; the counts must match the lists, a deep copy must equal the original,
// the duplicate check must agree with a set of names, and every factor's
// tags must survive the stored JSON round trip.
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/check.h"
#include "fuzz/tags.h"
#include "mfadata/usermfadata.h"

namespace {

using fuzzcheck::sameText;
using fuzzcheck::Tags;

constexpr char kUserid[] = "fuzz user";
constexpr uint32_t kTagsSection = 1;
constexpr uint32_t kDateSection = 2;
// Overlapping sections and tag entries let a few kilobytes name the same
// bytes without bound, and the reader copies every naming; inputs past these
// would measure only memory, so the target leaves them out.
constexpr size_t kTagBudget = 1024;
constexpr size_t kTextBudget = 65536;
// The model's status for an input past the budget.
constexpr int kOverBudget = -1;

struct Factor {
  std::string name;
  std::optional<std::string> date;
  Tags tags;
};

struct Model {
  int status = MFADATA_BAD_ARGUMENT;
  std::vector<Factor> factors;
  std::vector<std::optional<std::string>> policyNames;
  size_t tagCount = 0;
  size_t textBytes = 0;
};

// The buffer as the format reads it: integers in the machine's byte order,
// texts up to their first NUL, every range checked before it is read.
class Buffer {
public:
  explicit Buffer(std::string_view bytes) : bytes_(bytes) {}
  uint64_t size() const { return bytes_.size(); }
  bool holds(uint64_t at, uint64_t length) const {
    return at <= bytes_.size() && length <= bytes_.size() - at;
  }
  template <typename T> T integer(uint64_t at) const {
    T value;
    memcpy(&value, bytes_.data() + at, sizeof value);
    return value;
  }
  std::string text(uint64_t at, uint64_t length) const {
    std::string_view run = bytes_.substr(at, length);
    return std::string(run.substr(0, run.find('\0')));
  }

private:
  std::string_view bytes_;
};

// A tags section: a reserved 2-byte field, then entries of entry length
// (2 bytes, not counting itself and the reserved field after it), reserved
// (2), name length (2), name, value length (2), value. Offsets count from the
// section's table entry, modulo 2^32. Returns 0 or the model's status.
int readTags(const Buffer &buffer, uint64_t tableEntry, uint64_t at, uint64_t length,
             Factor &factor, Model &model) {
  const uint64_t end = at + length;
  auto inside = [end](uint64_t from, uint64_t count) { return count <= end - from; };
  for (uint64_t position = at + 2; position < end;) {
    if (!inside(position, 6))
      return MFADATA_BAD_ARGUMENT;
    const auto nameLength = buffer.integer<uint16_t>(position + 4);
    const uint64_t valueField = position + 6 + nameLength;
    if (!inside(position + 6, nameLength + 2u))
      return MFADATA_BAD_ARGUMENT;
    const auto valueLength = buffer.integer<uint16_t>(valueField);
    if (!inside(valueField + 2, valueLength))
      return MFADATA_BAD_ARGUMENT;
    model.textBytes += nameLength + valueLength;
    if (++model.tagCount > kTagBudget || model.textBytes > kTextBudget)
      return kOverBudget;
    factor.tags.push_back({buffer.text(position + 6, nameLength),
                           buffer.text(valueField + 2, valueLength),
                           static_cast<uint32_t>(position - tableEntry),
                           static_cast<uint32_t>(valueField - tableEntry)});
    position += buffer.integer<uint16_t>(position) + 2u;
  }
  return 0;
}

// Factor entries of 16 bytes from offset 0: name length, name offset,
// section count, section table offset. Table entries of 12 bytes: type (1
// tags, 2 date), length, offset. Policy entries of 16 bytes from
// policyOffset: name length, name offset, 8 unused bytes.
Model readModel(const Buffer &buffer, uint32_t numFactors, uint32_t numPolicies,
                uint32_t policyOffset) {
  Model model;
  if (uint64_t{numFactors} * 16 > buffer.size())
    return model;
  for (uint64_t entry = 0; entry < uint64_t{numFactors} * 16; entry += 16) {
    const auto nameLength = buffer.integer<uint32_t>(entry);
    const auto nameAt = buffer.integer<uint32_t>(entry + 4);
    const auto sections = buffer.integer<uint32_t>(entry + 8);
    const auto table = buffer.integer<uint32_t>(entry + 12);
    if (!buffer.holds(nameAt, nameLength))
      return model;
    Factor factor{buffer.text(nameAt, nameLength), std::nullopt, {}};
    for (uint64_t s = 0; s < sections; s++) {
      const uint64_t tableEntry = table + 12 * s;
      if (!buffer.holds(tableEntry, 12))
        return model;
      const auto type = buffer.integer<uint32_t>(tableEntry);
      const auto length = buffer.integer<uint32_t>(tableEntry + 4);
      const auto at = buffer.integer<uint32_t>(tableEntry + 8);
      if (!buffer.holds(at, length))
        return model;
      if (type == kDateSection && factor.date)
        return model;
      if (type == kDateSection) {
        factor.date = buffer.text(at, length);
      } else if (type != kTagsSection) {
        model.status = MFADATA_BAD_SECTION;
        return model;
      } else if (int status = readTags(buffer, tableEntry, at, length, factor, model)) {
        model.status = status;
        return model;
      }
    }
    model.factors.push_back(std::move(factor));
  }
  for (uint64_t i = 0; i < numPolicies; i++) {
    const uint64_t entry = policyOffset + 16 * i;
    if (entry >= buffer.size()) {
      model.policyNames.resize(numPolicies);
      break;
    }
    if (!buffer.holds(entry, 16))
      return model;
    const auto nameLength = buffer.integer<uint32_t>(entry);
    const auto nameAt = buffer.integer<uint32_t>(entry + 4);
    if (nameLength != 0 && !buffer.holds(nameAt, nameLength))
      return model;
    model.policyNames.push_back(nameLength == 0 ? std::nullopt
                                                : std::optional(buffer.text(nameAt, nameLength)));
  }
  model.status = 0;
  return model;
}

// One factor of a record against the model, and what can be done with it:
// copying it whole and in part, the duplicate check, the stored JSON.
void checkFactor(const userMFAData &record, factorData *factor, const Factor &expected,
                 int messageLength) {
  FUZZ_EXPECT(factor != nullptr);
  FUZZ_EXPECT(strcmp(factor->factorName, expected.name.c_str()) == 0);
  FUZZ_EXPECT(sameText(factor->date, expected.date));
  FUZZ_EXPECT(factor->activeFlag == (expected.date ? 1u : 0u));
  FUZZ_EXPECT(factor->numTags == expected.tags.size());
  FUZZ_EXPECT(fuzzcheck::sameTags(factor->tags, expected.tags));
  FUZZ_EXPECT(factor->stateFlag == 0 && factor->capabilityBits == 0);
  FUZZ_EXPECT(factor->heap == record.heap && factor->inHeap == (record.heap ? 1 : 0) &&
              factor->ownsHeap == 0);
  FUZZ_EXPECT(userMFAData_hasFactor(&record, expected.name.c_str()) == 1);
  // Names are compared in their first 21 characters only.
  if (expected.name.size() >= 21)
    FUZZ_EXPECT(userMFAData_hasFactor(&record, (expected.name.substr(0, 21) + "~").c_str()) == 1);

  factorData *copy = nullptr;
  FUZZ_EXPECT(kfactor_factorData_copy(factor, &copy) == 0 && copy != nullptr);
  FUZZ_EXPECT(strcmp(copy->factorName, expected.name.c_str()) == 0);
  FUZZ_EXPECT(sameText(copy->date, expected.date) && copy->activeFlag == factor->activeFlag);
  FUZZ_EXPECT(copy->numTags == expected.tags.size() && fuzzcheck::sameTags(copy->tags, expected.tags));
  FUZZ_EXPECT(copy->stateFlag == 0 && copy->capabilityBits == 0 && copy->heap == nullptr &&
              copy->inHeap == 0 && copy->ownsHeap == 0);
  kfactor_factorData_destroy(copy);

  const Tags half(expected.tags.begin(), expected.tags.begin() + expected.tags.size() / 2);
  factorData part{};
  FUZZ_EXPECT(factorTagList_copy(factor->tags, static_cast<uint32_t>(half.size()), &part) == 0);
  FUZZ_EXPECT(fuzzcheck::sameTags(part.tags, half));
  factorTagList_destroy(part.tags);

  fuzzcheck::checkPrevalidate(factor, expected.tags, messageLength);
  fuzzcheck::checkStoredRoundTrip(factor->tags, expected.tags);
}

} // namespace

// Eight bytes of parameters, then the buffer: how to create (bits 0-1 of the
// first byte: create3, create2, create, create3; for create3 bit 2 gives a
// heap, bit 3 asks to use one, bit 4 to own one), fallback, factor count,
// policy count, policy offset.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzzcheck::Input input(data, size);
  const auto how = input.take<uint8_t>();
  const auto fallback = input.take<uint8_t>();
  const uint32_t numFactors = input.take<uint8_t>();
  uint32_t numPolicies = input.take<uint8_t>();
  const auto policyOffset = input.take<uint32_t>();
  const std::string_view bytes = input.rest();
  const Buffer buffer(bytes);
  const int creator = how & 3;
  if (creator == 2)
    numPolicies = 0;
  const bool heapGiven = creator != 1 && creator != 2 && (how & 4) != 0;
  const bool useHeap = creator != 1 && creator != 2 && (how & 8) != 0;
  const bool ownHeap = creator != 1 && creator != 2 && (how & 16) != 0;

  Model model;
  if (numFactors == 0 || bytes.empty())
    model.status = MFADATA_BAD_ARGUMENT;
  else if (!heapGiven && useHeap && !ownHeap)
    model.status = MFADATA_NO_HEAP;
  else
    model = readModel(buffer, numFactors, numPolicies, policyOffset);
  if (model.status == kOverBudget)
    return 0;

  ShortLivedHeap *heap = heapGiven ? makeShortLivedHeap(16384, 64) : nullptr;
  FUZZ_EXPECT(heap != nullptr || !heapGiven);
  // A non-null pointer for an empty buffer, which must still be refused.
  const char *start = bytes.empty() ? "" : bytes.data();
  const auto length = static_cast<uint32_t>(bytes.size());
  userMFAData *record = nullptr;
  int status;
  if (creator == 1)
    status = kfactor_userMFAData_create2(kUserid, fallback, numFactors, numPolicies, policyOffset,
                                         start, length, &record);
  else if (creator == 2)
    status = kfactor_userMFAData_create(kUserid, fallback, numFactors, start, length, &record);
  else
    status = kfactor_userMFAData_create3(heap, useHeap, ownHeap, kUserid, fallback, numFactors,
                                         numPolicies, policyOffset, start, length, &record);
  FUZZ_EXPECT(status == model.status);
  FUZZ_EXPECT((record != nullptr) == (status == 0));
  if (record == nullptr) {
    SLHFree(heap);
    return 0;
  }

  FUZZ_EXPECT(strcmp(record->userid, kUserid) == 0 && record->fallback == fallback);
  FUZZ_EXPECT(heapGiven ? record->heap == heap : (record->heap != nullptr) == ownHeap);
  FUZZ_EXPECT(record->inHeap == (record->heap && useHeap ? 1 : 0));
  FUZZ_EXPECT(record->ownsHeap == (ownHeap ? 1 : 0));
  FUZZ_EXPECT(record->numFactors == model.factors.size() && record->factors != nullptr);
  for (size_t i = 0; i < model.factors.size(); i++)
    checkFactor(*record, record->factors[i], model.factors[i], fallback % 61);
  // A buffer's record keeps room for at least 16 factors, the unused ones empty.
  for (size_t i = model.factors.size(); i < MFADATA_FACTOR_SLOTS; i++)
    FUZZ_EXPECT(record->factors[i] == nullptr);
  FUZZ_EXPECT(record->numPolicies == numPolicies && record->policies == nullptr);
  FUZZ_EXPECT((record->policyNames != nullptr) == (numPolicies != 0));
  for (uint32_t i = 0; i < numPolicies; i++)
    FUZZ_EXPECT(sameText(record->policyNames[i], model.policyNames[i]));

  kfactor_userMFAData_destroy(record);
  if (!ownHeap)
    SLHFree(heap);
  return 0;
}
