#include "settings/yubisettings.h"

#include "settings/settingsrecord_internal.h"

namespace {

using mfasettings::Field;
using mfasettings::OnInvalid;
using mfasettings::Write;
using Y = yubiSettings;

constexpr int kDatabaseCapacity = 1024;
constexpr uint64_t kJsonInitialSize = 1024;

int traceLevel(int value) {
  return value >= 0 && value <= 3;
}

constexpr Field<Y> kFields[] = {
    {.key = "initialTraceLevel",
     .number = &Y::initialTraceLevel,
     .read = mfasettings::readNumber,
     .validNumber = traceLevel,
     .onInvalid = OnInvalid::Replace,
     .status = 0},
    {.key = "p11label", .text = &Y::p11label, .write = Write::Never},
};

} // namespace

bool mfasettings::sameSettings(const yubiSettings *a, const yubiSettings *b) {
  return sameFields<Y>(kFields, a, b);
}

extern "C" {

int yubiSettingsCreateFromJSON(const char *jsonText, int length, yubiSettings **result) {
  if (result == nullptr || length < 0 || (jsonText == nullptr && length > 0))
    return SETTINGS_MISSING_ARGUMENT;
  auto *settings = safeMallocRecord<yubiSettings>("YUBI settings");
  if (settings == nullptr)
    return SETTINGS_OUT_OF_MEMORY;
  int status = 0;
  if (length > 0)
    status = mfasettings::applyJsonText(jsonText, length, settings, yubiSettingsApplyJsonProperty);
  if (status != 0) {
    yubiSettingsDestroy(settings);
    return status;
  }
  yubiSettingsApplyDefaults(settings);
  *result = settings;
  return 0;
}

int yubiSettingsApplyDefaults(yubiSettings *settings) {
  if (settings == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  if (!traceLevel(settings->initialTraceLevel))
    settings->initialTraceLevel = 0;
  return 0;
}

int yubiSettingsApplyNameValue(yubiSettings *settings, const char *key, Json *value) {
  return mfasettings::applyNameValue<Y>(kFields, settings, key, value);
}

int yubiSettingsApplyJsonProperty(yubiSettings *settings, JsonProperty *property) {
  if (property == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  return yubiSettingsApplyNameValue(settings, jsonPropertyGetKey(property),
                                    jsonPropertyGetValue(property));
}

int yubiSettingsConvertToJSON(const yubiSettings *settings, char *buffer, int *length) {
  return mfasettings::convertToJson<Y>(kFields, settings, kJsonInitialSize, buffer, length);
}

int yubiSettingsCopy(const yubiSettings *settings, yubiSettings **copy) {
  return mfasettings::copyRecord<Y>(kFields, settings, "yubiSettings copy", copy);
}

void yubiSettingsDestroy(yubiSettings *settings) {
  mfasettings::destroyRecord<Y>(kFields, settings);
}

int yubiSettingsGetFromKORS(yubiSettings **result, dbctx *context, int *gavrc, int *korsrc,
                            int *korsrsn) {
  return mfasettings::readFromDatabase(context, YUBISETTINGS_FACTOR, kDatabaseCapacity,
                                       "YUBI settings blob (get)", gavrc, korsrc, korsrsn,
                                       yubiSettingsCreateFromJSON, yubiSettingsDestroy, result);
}

} // extern "C"
