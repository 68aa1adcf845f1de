// Checks shared by the settings record suites: a record is observed through
// its JSON form, and a case states how that form differs from a base one.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>

#include "base/json.h"
#include "settings/settingsrecord_internal.h"
#include "support/jsontree.h"

namespace mfatest {

// The functions of one settings record.
template <typename Record> struct SettingsApi {
  int (*create)(const char *, int, Record **);
  int (*convert)(const Record *, char *, int *);
  void (*destroy)(Record *);
};

// The record's JSON form.
template <typename Record>
std::string jsonOf(const SettingsApi<Record> &api, const Record *record) {
  char buffer[8192];
  int length = sizeof buffer;
  int status = api.convert(record, buffer, &length);
  return status == 0 ? std::string(buffer, length) : "<convert " + std::to_string(status) + ">";
}

// The status of creating a record from text, and the record's JSON form or
// "<none>" when no record was handed out.
template <typename Record>
std::pair<int, std::string> created(const SettingsApi<Record> &api, const std::string &text) {
  Record *record = nullptr;
  int status = api.create(text.data(), static_cast<int>(text.size()), &record);
  std::string json = record != nullptr ? jsonOf(api, record) : "<none>";
  api.destroy(record);
  return {status, json};
}

// The record made of text, which must be accepted.
template <typename Record> Record *made(const SettingsApi<Record> &api, const std::string &text) {
  Record *record = nullptr;
  EXPECT_EQ(api.create(text.data(), static_cast<int>(text.size()), &record), 0) << text;
  return record;
}

// The members of json that differ from those of base, as "key=value" in
// json's order and "-key" for members base has and json lacks, separated by
// blanks; json itself when either is not an object.
inline std::string memberChanges(const std::string &base, const std::string &json) {
  ShortLivedHeap *heap = makeShortLivedHeap(65536, 10);
  JsonObject *before = jsonAsObject(jsonParseString(heap, base.c_str(), nullptr, 0));
  JsonObject *after = jsonAsObject(jsonParseString(heap, json.c_str(), nullptr, 0));
  std::string changes;
  for (JsonProperty *p = jsonObjectGetFirstProperty(after); p != nullptr; p = p->next) {
    Json *old = jsonObjectGetPropertyValue(before, p->key);
    if (old == nullptr || !sameJsonTree(old, p->value))
      changes += " " + std::string(p->key) + "=" + printJsonTree(p->value);
  }
  for (JsonProperty *p = jsonObjectGetFirstProperty(before); p != nullptr; p = p->next)
    if (!jsonObjectHasKey(after, p->key))
      changes += " -" + std::string(p->key);
  SLHFree(heap);
  return before != nullptr && after != nullptr ? changes.substr(changes.empty() ? 0 : 1) : json;
}

// One case: a JSON text, the status of creating a record from it, and how
// the record's JSON form differs from that of the base text ("<none>": no
// record handed out).
struct SettingsCase {
  std::string json;
  int status;
  std::string changes;
};

// The base text must give exactly the base JSON form.
template <typename Record>
void expectCases(const SettingsApi<Record> &api, const std::string &baseText,
                 const std::string &base, std::initializer_list<SettingsCase> cases) {
  ASSERT_EQ(created(api, baseText), std::make_pair(0, base)) << baseText;
  for (const SettingsCase &c : cases) {
    auto [status, json] = created(api, c.json);
    EXPECT_EQ(status, c.status) << c.json;
    EXPECT_EQ(json == "<none>" ? json : memberChanges(base, json), c.changes) << c.json;
  }
}

// A record's JSON form, read again, gives an equal record; a buffer one byte
// short, or none, is refused with the needed length; a null text or a
// negative length is refused.
template <typename Record>
void expectRoundTrip(const SettingsApi<Record> &api, const Record *record) {
  std::string json = jsonOf(api, record);
  Record *again = made(api, json);
  EXPECT_TRUE(again != nullptr && mfasettings::sameSettings(record, again)) << json;
  api.destroy(again);
  again = nullptr;

  std::string shortBuffer(json.size() - 1, '\0');
  int length = static_cast<int>(shortBuffer.size());
  EXPECT_EQ(api.convert(record, shortBuffer.data(), &length), SETTINGS_BUFFER_TOO_SMALL);
  EXPECT_EQ(length, static_cast<int>(json.size()));
  EXPECT_EQ(shortBuffer, std::string(json.size() - 1, '\0')) << "written although refused";
  length = 0;
  EXPECT_EQ(api.convert(record, nullptr, &length), SETTINGS_BUFFER_TOO_SMALL);
  EXPECT_EQ(length, static_cast<int>(json.size()));

  EXPECT_EQ(api.create(nullptr, 1, &again), SETTINGS_MISSING_ARGUMENT);
  EXPECT_EQ(api.create("{}", -1, &again), SETTINGS_MISSING_ARGUMENT);
  EXPECT_EQ(again, nullptr);
}

} // namespace mfatest
