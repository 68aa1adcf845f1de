// The one mechanism behind the three settings records.
//
// Each record describes itself with a table of fields, one row per field:
// its JSON key, where it lives in the record, how a JSON value is read into
// it, the rule the value must pass and what a refused value does, when the
// member is written back, and its pre-default and default. Applying a key,
// converting to JSON, copying, comparing and releasing all walk that table,
// so a new field is a new row. Rules that tie fields together (one default
// depending on another field, forced values) stay in each record's own
// defaults function.
#ifndef MFA_SETTINGS_SETTINGSRECORD_INTERNAL_H
#define MFA_SETTINGS_SETTINGSRECORD_INTERNAL_H

#include <cassert>
#include <cstdint>
#include <cstring>
#include <span>

#include "base/alloc.h"
#include "base/json.h"
#include "base/jsonprint.h"
#include "mfadata/dbctx.h"
#include "settings/serversettings.h"
#include "settings/settingsrecord.h"
#include "settings/totpsettings.h"
#include "settings/yubisettings.h"

namespace mfasettings {

// Reads a JSON value as an integer field's value; false leaves the field
// (and its rule) alone.
using NumberReader = bool (*)(Json *value, int *number);

// A boolean as 0 or 1, a number as it is, anything else as 0.
bool readFlag(Json *value, int *number);
// Numbers only.
bool readNumber(Json *value, int *number);
// A number as it is, anything else as 0.
bool readNumberOrZero(Json *value, int *number);
// A number, or a string holding nothing but a decimal integer that fits in
// 32 bits; anything else as 0.
bool readNumberOrDecimal(Json *value, int *number);

// What a value that fails the field's rule does. A text field's rule also
// fails for a value that is not a JSON string.
enum class OnInvalid : uint8_t {
  Ignore,  // the field keeps its value; status 0
  Fail,    // the value is stored all the same and the status returned
  Refuse,  // the field keeps its value; the status is returned
  Replace, // the row's status is stored in its place; status 0
};

// When conversion writes the member.
enum class Write : uint8_t {
  Standard,        // a text when present, a number always
  Never,           // kept out of the JSON form
  WhenNonEmpty,    // a text that is present and not empty
  WhenValid,       // a value that passes the rule
  WhenNonZero,     // a number other than 0
  WhenNonNegative, // a number of 0 or more
  AsOneWhenNonZero // a flag: 1 when the number is not 0, else nothing
};

template <typename Record> struct Field {
  const char *key = nullptr;                // the JSON member; null for a field without one
  char *Record::*text = nullptr;            // a string field, owned by the record
  int Record::*number = nullptr;            // an integer field
  NumberReader read = nullptr;              // an integer field's reader
  int (*validText)(const char *) = nullptr; // the rule of a text; null: any string
  int (*validNumber)(int) = nullptr;        // the rule of a number; null: any number
  OnInvalid onInvalid = OnInvalid::Ignore;
  int status = 0; // the status of Fail and Refuse, the value stored by Replace
  Write write = Write::Standard;
  int preset = 0;                     // stored before any JSON is applied
  int fallback = 0;                   // stored by the defaults in place of 0
  const char *textFallback = nullptr; // copied by the defaults in place of null
};

template <typename Record> using Table = std::span<const Field<Record>>;

// Applies value to the row's field (the caller has matched the key).
template <typename Record> int applyField(const Field<Record> &row, Record *record, Json *value) {
  if (row.text != nullptr) {
    char *&field = record->*row.text;
    if (field != nullptr)
      return 0; // the first occurrence of a text key wins
    const char *text = jsonAsString(value);
    bool valid = text != nullptr && (row.validText == nullptr || row.validText(text));
    if (valid || (row.onInvalid == OnInvalid::Fail && text != nullptr)) {
      field = duplicateString(text);
      if (field == nullptr)
        return SETTINGS_OUT_OF_MEMORY;
    }
    if (valid)
      return 0;
  } else {
    assert(row.number != nullptr && row.read != nullptr);
    int number = 0;
    if (!row.read(value, &number))
      return 0;
    bool valid = row.validNumber == nullptr || row.validNumber(number);
    if (valid || row.onInvalid == OnInvalid::Fail)
      record->*row.number = number;
    else if (row.onInvalid == OnInvalid::Replace)
      record->*row.number = row.status;
    if (valid)
      return 0;
  }
  return row.onInvalid == OnInvalid::Fail || row.onInvalid == OnInvalid::Refuse ? row.status : 0;
}

// Applies the value to the field named key (compared whole and exactly);
// unknown keys are ignored.
template <typename Record>
int applyNameValue(Table<Record> table, Record *record, const char *key, Json *value) {
  if (record == nullptr || key == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  for (const Field<Record> &row : table)
    if (row.key != nullptr && strcmp(row.key, key) == 0)
      return applyField(row, record, value);
  return 0;
}

template <typename Record> void applyPresets(Table<Record> table, Record *record) {
  for (const Field<Record> &row : table)
    if (row.number != nullptr && row.preset != 0)
      record->*row.number = row.preset;
}

// Stores each row's default in an unset field.
template <typename Record> int applyFallbacks(Table<Record> table, Record *record) {
  for (const Field<Record> &row : table) {
    if (row.number != nullptr && row.fallback != 0 && record->*row.number == 0)
      record->*row.number = row.fallback;
    if (row.text != nullptr && row.textFallback != nullptr && record->*row.text == nullptr) {
      record->*row.text = duplicateString(row.textFallback);
      if (record->*row.text == nullptr)
        return SETTINGS_OUT_OF_MEMORY;
    }
  }
  return 0;
}

// Whether conversion writes the row, and the number it writes.
template <typename Record>
bool written(const Field<Record> &row, const Record *record, int *number) {
  if (row.key == nullptr || row.write == Write::Never)
    return false;
  if (row.text != nullptr) {
    const char *text = record->*row.text;
    if (text == nullptr)
      return false;
    if (row.write == Write::WhenNonEmpty)
      return text[0] != '\0';
    return row.write != Write::WhenValid || row.validText == nullptr || row.validText(text);
  }
  int value = record->*row.number;
  *number = value;
  switch (row.write) {
  case Write::WhenValid:
    return row.validNumber == nullptr || row.validNumber(value);
  case Write::WhenNonZero:
    return value != 0;
  case Write::WhenNonNegative:
    return value >= 0;
  case Write::AsOneWhenNonZero:
    *number = 1;
    return value != 0;
  default:
    return true;
  }
}

// A string-writer printer of capacity bytes with the object opened, or null.
jsonPrinter *startJson(uint64_t capacity);
// Closes the object, copies the text (no terminator) to out when it fits
// *length bytes and releases the printer. Stores the text's length, or the
// needed length with SETTINGS_BUFFER_TOO_SMALL (also for a null out).
int finishJson(jsonPrinter *printer, char *out, int *length);

// Writes the record as one JSON object, members in table order, into a
// string writer of at least initialSize bytes. A string writer drops what
// does not fit, so it is sized for the worst case.
template <typename Record>
int convertToJson(Table<Record> table, const Record *record, uint64_t initialSize, char *out,
                  int *length) {
  if (record == nullptr || length == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  // Per member: quotes, colon, comma and an integer; texts may double when
  // every byte is escaped.
  uint64_t bound = 3;
  for (const Field<Record> &row : table) {
    if (row.key != nullptr)
      bound += strlen(row.key) + 16;
    if (row.text != nullptr && record->*row.text != nullptr)
      bound += 2 * strlen(record->*row.text);
  }
  jsonPrinter *printer = startJson(bound > initialSize ? bound : initialSize);
  if (printer == nullptr)
    return SETTINGS_OUT_OF_MEMORY;
  for (const Field<Record> &row : table) {
    int number = 0;
    if (!written(row, record, &number))
      continue;
    if (row.text != nullptr)
      jsonAddString(printer, row.key, record->*row.text);
    else
      jsonAddInt(printer, row.key, number);
  }
  return finishJson(printer, out, length);
}

// Releases the record's strings, then the record; both are wiped first.
template <typename Record> void destroyRecord(Table<Record> table, Record *record) {
  if (record == nullptr)
    return;
  for (const Field<Record> &row : table)
    if (row.text != nullptr)
      freeString(record->*row.text);
  safeFreeRecord(record);
}

// A deep copy of every field in a new record allocated under label.
template <typename Record>
int copyRecord(Table<Record> table, const Record *source, const char *label, Record **copy) {
  if (source == nullptr || copy == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  Record *made = safeMallocRecord<Record>(label);
  if (made == nullptr)
    return SETTINGS_OUT_OF_MEMORY;
  for (const Field<Record> &row : table) {
    if (row.number != nullptr) {
      made->*row.number = source->*row.number;
    } else if (source->*row.text != nullptr) {
      made->*row.text = duplicateString(source->*row.text);
      if (made->*row.text == nullptr) {
        destroyRecord(table, made);
        return SETTINGS_OUT_OF_MEMORY;
      }
    }
  }
  *copy = made;
  return 0;
}

// Fills only the destination's unset fields (null texts, zero numbers) from
// the source. The copies are made first, so a failure changes nothing.
template <typename Record>
int fillUnsetFields(Table<Record> table, const Record *source, Record *destination,
                    const char *label) {
  if (destination == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  Record *copy = nullptr;
  if (int status = copyRecord(table, source, label, &copy))
    return status;
  for (const Field<Record> &row : table) {
    if (row.number != nullptr && destination->*row.number == 0)
      destination->*row.number = copy->*row.number;
    if (row.text != nullptr && destination->*row.text == nullptr) {
      destination->*row.text = copy->*row.text;
      copy->*row.text = nullptr;
    }
  }
  destroyRecord(table, copy);
  return 0;
}

// Whether every field of the two records holds the same value.
template <typename Record> bool sameFields(Table<Record> table, const Record *a, const Record *b) {
  for (const Field<Record> &row : table) {
    if (row.number != nullptr && a->*row.number != b->*row.number)
      return false;
    if (row.text != nullptr) {
      const char *x = a->*row.text, *y = b->*row.text;
      if ((x == nullptr) != (y == nullptr) || (x != nullptr && strcmp(x, y) != 0))
        return false;
    }
  }
  return true;
}

// The heap a settings text is parsed in (64 KiB blocks), or null.
ShortLivedHeap *makeParseHeap();
// The object parsed from text (length bytes, not terminated), or null for a
// text that is not a JSON object.
JsonObject *parseObject(ShortLivedHeap *heap, const char *text, int length);

// Applies each property of the JSON object in text in document order through
// apply, stopping at the first non-zero status, which is returned. A text
// that is not a JSON object is ignored.
template <typename Record>
int applyJsonText(const char *text, int length, Record *record,
                  int (*apply)(Record *, JsonProperty *)) {
  ShortLivedHeap *heap = makeParseHeap();
  if (heap == nullptr)
    return SETTINGS_OUT_OF_MEMORY;
  int status = 0;
  JsonObject *object = parseObject(heap, text, length);
  for (JsonProperty *property = jsonObjectGetFirstProperty(object);
       property != nullptr && status == 0; property = jsonObjectGetNextProperty(property))
    status = apply(record, property);
  SLHFree(heap);
  return status;
}

// The settings text of factorName in buffer: its length, or -1 when it cannot
// be read or is empty.
int readSettingsText(dbctx *context, const char *factorName, char *buffer, int capacity, int *gavrc,
                     int *korsrc, int *korsrsn);

// Reads the factor-wide settings of factorName into a buffer of capacity
// bytes (allocated under label) and creates a record from them. Anything but
// a readable, non-empty value gives SETTINGS_NOT_READABLE; otherwise the
// status of create, and the record only when it is 0.
template <typename Record>
int readFromDatabase(dbctx *context, const char *factorName, int capacity, const char *label,
                     int *gavrc, int *korsrc, int *korsrsn,
                     int (*create)(const char *, int, Record **), void (*destroy)(Record *),
                     Record **result) {
  if (result == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  char *buffer = safeMalloc(capacity, label);
  if (buffer == nullptr)
    return SETTINGS_OUT_OF_MEMORY;
  int status = SETTINGS_NOT_READABLE;
  int length = readSettingsText(context, factorName, buffer, capacity, gavrc, korsrc, korsrsn);
  if (length > 0) {
    Record *record = nullptr;
    status = create(buffer, length, &record);
    if (status == 0)
      *result = record;
    else
      destroy(record);
  }
  safeFree(buffer, capacity);
  return status;
}

// Equality over every field, for checks that a record survives its JSON form.
bool sameSettings(const stcSettings *a, const stcSettings *b);
bool sameSettings(const totpSettings *a, const totpSettings *b);
bool sameSettings(const yubiSettings *a, const yubiSettings *b);

} // namespace mfasettings

#endif
