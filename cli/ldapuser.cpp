#include "cli/ldapuser.h"

#include "base/alloc.h"
#include "base/jsonprint.h"
#include "mfadata/factordata.h"
#include "mfadata/factorutils.h"
#include "mfadata/usermfadata_internal.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kLdapFactor = "QMXLDAP1";
// Only the first eight characters of a factor name decide whether it is ours.
constexpr size_t kFactorNameCompared = 8;
constexpr int kJsonCapacity = 4096;

bool isLdapFactor(const char *factorName) {
  return factorName != nullptr && strncmp(factorName, kLdapFactor.data(), kFactorNameCompared) == 0;
}

// The record's tags in the order they are written: the four value fields,
// then the counter.
enum Tag { kDN, kSearchVal, kSearchVal2, kSearchVal3, kLastSearch, kTagCount };
constexpr std::array<std::string_view, kTagCount> kTagNames = {"DN", "SEARCHVAL", "SEARCHVAL2",
                                                               "SEARCHVAL3", "LASTSEARCH"};

int tagIndex(std::string_view name) {
  for (int i = 0; i < kTagCount; i++)
    if (kTagNames[i] == name)
      return i;
  return -1;
}

// The record's string field for one of the four value tags.
char **valueField(ldapuser *user, int tag) {
  char **const fields[] = {&user->DN, &user->SEARCHVAL, &user->SEARCHVAL2, &user->SEARCHVAL3};
  return fields[tag];
}

// The start of this module's two error lines: time stamp and factor name.
void printErrorPrefix(const char *factorName) {
  printStamp();
  printf("%s:", factorName);
}

using PrinterPtr = mfadata::Owned<jsonPrinter, destroyStringWriterCustomJsonPrinter>;

// Runs write on a string writer and hands out a copy of the text and its
// length; a non-zero status from write is returned as it is.
template <typename Write> int writeJson(char **json, int *length, Write write) {
  PrinterPtr printer(makeStringWriterCustomJsonPrinter(kJsonCapacity));
  if (printer == nullptr)
    return LDAPUSER_WRITER_OUT_OF_MEMORY;
  if (int status = write(printer.get()))
    return status;
  int textLength = static_cast<int>(SWCJP_getLength(printer.get()));
  char *copy = duplicateStringWithSize(SWCJP_getStringPtr(printer.get()), textLength);
  if (copy == nullptr)
    return LDAPUSER_WRITER_OUT_OF_MEMORY;
  *json = copy;
  *length = textLength;
  return 0;
}

// Appends a tag with copies of name and value; false when out of memory.
bool appendTag(factorData *data, factorTag **tail, const char *name, const char *value) {
  auto *tag = reinterpret_cast<factorTag *>(safeMalloc(sizeof(factorTag), "ldap factor tag"));
  if (tag == nullptr)
    return false;
  *tail = tag;
  data->numTags++;
  tag->tagName = duplicateString(name);
  tag->tagValue = duplicateString(value);
  return tag->tagName != nullptr && tag->tagValue != nullptr;
}

} // namespace

extern "C" {

int ldapuser_retrieveFromKORS(dbctx *context, const char *factorName, const char *userid,
                              ldapuser **result) {
  if (result == nullptr)
    return LDAPUSER_MISSING_ARGUMENT;
  userMFAData *data = nullptr;
  int status = pq_userMFAData_create(context, userid, &data);
  if (status != 0) {
    printErrorPrefix(factorName);
    printf("pq_userMFAData_create error (userid=%s,status=%d)\n", userid, status);
    return LDAPUSER_READ_FAILED;
  }
  factorData *factor = nullptr;
  for (uint32_t i = 0; i < data->numFactors && factor == nullptr; i++) {
    factorData *candidate = data->factors[i];
    if (candidate != nullptr && candidate->factorName != nullptr && factorName != nullptr &&
        strcmp(candidate->factorName, factorName) == 0)
      factor = candidate;
  }
  status = LDAPUSER_NO_FACTOR;
  if (factor != nullptr) {
    ldapuser *user = nullptr;
    uint32_t badOffset = 0;
    status = ldapuser_createFromFactorData(userid, factor, &user, &badOffset);
    if (status == 0 || status == LDAPUSER_NO_TAGS) {
      *result = user;
      status = 0;
    } else {
      status = LDAPUSER_BAD_FACTOR_DATA;
    }
  }
  kfactor_userMFAData_destroy(data);
  return status;
}

int ldapuser_createFromFactorData(const char *userid, factorData *data, ldapuser **result,
                                  uint32_t *badOffset) {
  if (data == nullptr || result == nullptr || badOffset == nullptr)
    return LDAPUSER_MISSING_ARGUMENT;
  if (!isLdapFactor(data->factorName))
    return LDAPUSER_WRONG_FACTOR;
  auto *user = reinterpret_cast<ldapuser *>(safeMalloc(sizeof(ldapuser), "ldap user object"));
  if (user == nullptr)
    return LDAPUSER_OUT_OF_MEMORY;
  user->userid = duplicateString(userid);
  if (userid != nullptr && user->userid == nullptr) {
    ldapuser_destroy(user);
    return LDAPUSER_OUT_OF_MEMORY;
  }
  if (data->numTags == 0) {
    *result = user;
    return LDAPUSER_NO_TAGS;
  }

  int status = 0;
  bool lastSearchSeen = false;
  factorTag *tag = data->tags;
  for (uint32_t i = 0; i < data->numTags && tag != nullptr && status == 0; i++, tag = tag->next) {
    if (tag->tagName == nullptr) {
      status = LDAPUSER_TAG_WITHOUT_NAME;
      break;
    }
    int index = tagIndex(tag->tagName);
    // A value tag is a repeat only when an earlier one actually set its field;
    // one stored without a value leaves the field open.
    bool repeated =
        index == kLastSearch ? lastSearchSeen : index >= 0 && *valueField(user, index) != nullptr;
    if (index < 0 || repeated) {
      *badOffset = tag->nameOffset;
      status = index < 0 ? LDAPUSER_UNKNOWN_TAG : LDAPUSER_DUPLICATE_TAG;
      break;
    }
    if (index == kLastSearch) {
      lastSearchSeen = true;
      // Digits up to the first other character; the counter keeps the low 32 bits.
      user->lastSearch = static_cast<uint32_t>(tag->tagValue != nullptr ? atoll(tag->tagValue) : 0);
    } else if (tag->tagValue != nullptr) {
      char *copy = duplicateString(tag->tagValue);
      if (copy == nullptr)
        status = LDAPUSER_OUT_OF_MEMORY;
      *valueField(user, index) = copy;
    }
  }
  if (status != 0) {
    ldapuser_destroy(user);
    return status;
  }
  *result = user;
  return 0;
}

void ldapuser_destroy(ldapuser *user) {
  if (user == nullptr)
    return;
  for (char *text : {user->userid, user->DN, user->SEARCHVAL, user->SEARCHVAL2, user->SEARCHVAL3})
    freeString(text);
  safeFree(reinterpret_cast<char *>(user), sizeof(ldapuser));
}

int ldapuser_convertToFactorData(const char *factorName, const char *userid, ldapuser *user,
                                 int setCurrent, factorData **result) {
  if (userid == nullptr || user == nullptr || result == nullptr)
    return LDAPUSER_CONVERSION_ARGUMENT;
  if (!isLdapFactor(factorName))
    return LDAPUSER_WRONG_FACTOR;
  auto *data =
      reinterpret_cast<factorData *>(safeMalloc(sizeof(factorData), "ldap user factor data"));
  if (data == nullptr)
    return LDAPUSER_OUT_OF_MEMORY;
  bool complete = (data->factorName = duplicateString(factorName)) != nullptr;
  if (complete && setCurrent != 0) {
    data->activeFlag = 1;
    complete = (data->date = duplicateString("CURRENT")) != nullptr;
  }
  factorTag **tail = &data->tags;
  for (int tag = kDN; tag < kLastSearch && complete; tag++) {
    const char *value = *valueField(user, tag);
    if (value != nullptr && (complete = appendTag(data, tail, kTagNames[tag].data(), value)))
      tail = &(*tail)->next;
  }
  if (complete) {
    char counter[16];
    snprintf(counter, sizeof counter, "%u", user->lastSearch);
    complete = appendTag(data, tail, kTagNames[kLastSearch].data(), counter);
  }
  if (!complete) {
    kfactor_factorData_destroy(data);
    return LDAPUSER_OUT_OF_MEMORY;
  }
  *result = data;
  return 0;
}

int ldapuser_commitToKORS(dbctx *context, const char *factorName, const char *userid,
                          ldapuser *user, int setCurrent, int * /* gavrc */, int * /* korsrc */,
                          int * /* korsrsn */) {
  uint32_t rowsWritten = 0;
  return ldapuser_commitToKORS2(context, factorName, userid, user, setCurrent, &rowsWritten);
}

int ldapuser_commitToKORS2(dbctx *context, const char *factorName, const char *userid,
                           ldapuser *user, int setCurrent, uint32_t *rowsWritten) {
  factorData *data = nullptr;
  int status = ldapuser_convertToFactorData(factorName, userid, user, setCurrent, &data);
  if (status != 0)
    return status;
  status = kfactor_update_UserFactorData2(context, userid, data, rowsWritten);
  if (status != 0) {
    printErrorPrefix(factorName);
    printf("Error setting LDAP factor data (sts=%d)\n", status);
  }
  kfactor_factorData_destroy(data);
  return status;
}

int ldapuser_createTagsFieldsJson(dbctx *context, const char *factorName, const char *userid,
                                  char **json, int *length) {
  if (json == nullptr || length == nullptr)
    return LDAPUSER_CONVERSION_ARGUMENT;
  ldapuser *user = nullptr;
  // Without stored data the fields are described without values.
  ldapuser_retrieveFromKORS(context, factorName, userid, &user);

  int status = writeJson(json, length, [user](jsonPrinter *printer) {
    static constexpr const char *kLabels[] = {"Fully Qualified DN", "Search value 1",
                                              "Search value 2", "Search value 3",
                                              "Last search timestamp"};
    auto startField = [&](int tag) {
      jsonStartObject(printer, nullptr);
      jsonAddString(printer, "fieldLabel", kLabels[tag]);
      jsonAddString(printer, "fieldType", "textField");
      jsonAddString(printer, "fieldName", kTagNames[tag].data());
    };
    jsonStartArray(printer, "fields");
    for (int tag = kDN; tag < kLastSearch; tag++) {
      startField(tag);
      jsonStartObject(printer, "fieldAttr");
      jsonAddInt(printer, "isOptional", 1);
      jsonAddInt(printer, "maxLength", LDAPUSER_MAX_VALUE_LENGTH);
      jsonEndObject(printer);
      if (user != nullptr)
        jsonAddString(printer, "fieldValue", *valueField(user, tag));
      jsonEndObject(printer);
    }
    // The counter is shown, not edited, and carries its value ahead of its
    // attributes.
    startField(kLastSearch);
    if (user != nullptr)
      jsonAddUInt(printer, "fieldValue", user->lastSearch);
    jsonStartObject(printer, "fieldAttr");
    jsonAddInt(printer, "isOptional", 1);
    jsonAddInt(printer, "displayOnly", 1);
    jsonEndObject(printer);
    jsonEndObject(printer);
    jsonEndArray(printer);
    return 0;
  });
  ldapuser_destroy(user);
  return status;
}

int ldapuser_validateTagsFieldsJson(void * /* unused */, JsonArray *fields, char **json,
                                    int *length) {
  if (fields == nullptr || json == nullptr || length == nullptr)
    return LDAPUSER_CONVERSION_ARGUMENT;
  return writeJson(json, length, [fields](jsonPrinter *printer) {
    jsonStartObject(printer, nullptr);
    int count = jsonArrayGetCount(fields);
    for (int i = 0; i < count; i++) {
      JsonObject *field = jsonArrayGetObject(fields, i);
      const char *name = field != nullptr ? jsonObjectGetString(field, "fieldName") : nullptr;
      if (name == nullptr || tagIndex(name) < 0)
        return LDAPUSER_UNKNOWN_TAG;
      const char *value = jsonObjectGetString(field, "fieldValue");
      if (value == nullptr)
        continue;
      if (strlen(value) > LDAPUSER_MAX_VALUE_LENGTH)
        return LDAPUSER_VALUE_TOO_LONG;
      jsonAddString(printer, name, value);
    }
    jsonEndObject(printer);
    return 0;
  });
}

} // extern "C"
