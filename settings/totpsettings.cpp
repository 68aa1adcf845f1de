#include "settings/totpsettings.h"

#include "settings/settingsrecord_internal.h"
#include "settings/validators.h"

namespace {

using mfasettings::Field;
using mfasettings::OnInvalid;
using mfasettings::Write;
using T = totpSettings;

constexpr int kDatabaseCapacity = 1024;
constexpr uint64_t kJsonInitialSize = 1024;

int traceLevel(int value) {
  return value >= 0 && value <= 3;
}
int zeroOrOne(int value) {
  return value == 0 || value == 1;
}
int clockCorrection(int value) {
  return value >= -43200 && value <= 43200;
}
int nothing(const char *) {
  return 0;
}

// In the order of the JSON form.
constexpr Field<T> kFields[] = {
    {.key = "realmName",
     .text = &T::realmName,
     .validText = validateRealmName,
     .onInvalid = OnInvalid::Refuse,
     .status = TOTPSETTINGS_BAD_REALM},
    {.key = "digestAlgDefault",
     .text = &T::digestAlgDefault,
     .validText = validateDigestAlg,
     .onInvalid = OnInvalid::Fail,
     .status = TOTPSETTINGS_BAD_DIGEST,
     .write = Write::WhenValid,
     .textFallback = "SHA256"},
    {.key = "webTraceLvl",
     .number = &T::webTraceLvl,
     .read = mfasettings::readNumber,
     .validNumber = traceLevel,
     .onInvalid = OnInvalid::Fail,
     .status = TOTPSETTINGS_BAD_TRACE_LEVEL,
     .write = Write::WhenValid},
    {.key = "pluginTraceLvl",
     .number = &T::pluginTraceLvl,
     .read = mfasettings::readNumber,
     .validNumber = traceLevel,
     .onInvalid = OnInvalid::Fail,
     .status = TOTPSETTINGS_BAD_TRACE_LEVEL,
     .write = Write::WhenValid},
    {.key = "tokenNumDigitsDefault",
     .number = &T::tokenNumDigitsDefault,
     .read = mfasettings::readNumber,
     .validNumber = validateTokenNumDigitsInt,
     .onInvalid = OnInvalid::Fail,
     .status = TOTPSETTINGS_BAD_DIGITS,
     .write = Write::WhenValid,
     .fallback = 8},
    {.key = "tokenPeriodSecondsDefault",
     .number = &T::tokenPeriodSecondsDefault,
     .read = mfasettings::readNumberOrDecimal,
     .validNumber = validateTokenPeriodInt,
     .onInvalid = OnInvalid::Fail,
     .status = TOTPSETTINGS_BAD_PERIOD,
     .write = Write::WhenValid,
     .fallback = 30},
    {.key = "authWindowDefault",
     .number = &T::authWindowDefault,
     .read = mfasettings::readNumber,
     .validNumber = validateTOTPAuthWindowInt,
     .onInvalid = OnInvalid::Fail,
     .status = TOTPSETTINGS_BAD_AUTH_WINDOW,
     .write = Write::WhenValid,
     .fallback = 1},
    {.key = "p11token", .text = &T::p11token, .validText = nothing},
    {.key = "p11label", .text = &T::p11label},
    {.key = "useSecret",
     .number = &T::useSecret,
     .read = mfasettings::readFlag,
     .validNumber = zeroOrOne,
     .onInvalid = OnInvalid::Fail,
     .status = TOTPSETTINGS_BAD_USE_SECRET,
     .write = Write::WhenNonZero},
    {.key = "numFailsAllow",
     .number = &T::numFailsAllow,
     .read = mfasettings::readNumber,
     .write = Write::WhenNonNegative},
    {.key = "regDiags",
     .number = &T::regDiags,
     .read = mfasettings::readFlag,
     .write = Write::AsOneWhenNonZero},
    {.key = "todCorr",
     .number = &T::todCorr,
     .read = mfasettings::readNumber,
     .validNumber = clockCorrection,
     .onInvalid = OnInvalid::Fail,
     .status = TOTPSETTINGS_BAD_CLOCK_CORRECTION,
     .write = Write::WhenValid},
};

} // namespace

bool mfasettings::sameSettings(const totpSettings *a, const totpSettings *b) {
  return sameFields<T>(kFields, a, b);
}

extern "C" {

int totpSettingsCreateFromJSON(const char *jsonText, int length, totpSettings **result) {
  if (result == nullptr || length < 0 || (jsonText == nullptr && length > 0))
    return SETTINGS_MISSING_ARGUMENT;
  auto *settings = safeMallocRecord<totpSettings>("totp settings");
  if (settings == nullptr)
    return SETTINGS_OUT_OF_MEMORY;
  int status = 0;
  if (length > 0)
    status = mfasettings::applyJsonText(jsonText, length, settings, totpSettingsApplyJsonProperty);
  if (status == 0)
    status = totpSettingsApplyDefaults(settings, length);
  if (status != 0) {
    totpSettingsDestroy(settings);
    return status;
  }
  *result = settings;
  return 0;
}

int totpSettingsApplyDefaults(totpSettings *settings, int jsonLength) {
  if (settings == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  if (int status = mfasettings::applyFallbacks<T>(kFields, settings))
    return status;
  if (jsonLength == 0)
    settings->numFailsAllow = 100;
  // Seeds are always kept as token secrets; the member is accepted for
  // compatibility with older settings only.
  settings->useSecret = 1;
  return 0;
}

int totpSettingsApplyNameValue(totpSettings *settings, const char *key, Json *value) {
  return mfasettings::applyNameValue<T>(kFields, settings, key, value);
}

int totpSettingsApplyJsonProperty(totpSettings *settings, JsonProperty *property) {
  if (property == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  return totpSettingsApplyNameValue(settings, jsonPropertyGetKey(property),
                                    jsonPropertyGetValue(property));
}

int totpSettingsConvertToJSON(const totpSettings *settings, char *buffer, int *length) {
  return mfasettings::convertToJson<T>(kFields, settings, kJsonInitialSize, buffer, length);
}

int totpSettingsCopy(const totpSettings *settings, totpSettings **copy) {
  return mfasettings::copyRecord<T>(kFields, settings, "totpSettings copy", copy);
}

void totpSettingsDestroy(totpSettings *settings) {
  mfasettings::destroyRecord<T>(kFields, settings);
}

int totpSettingsGetFromDB(totpSettings **result, dbctx *context, int *gavrc, int *korsrc,
                          int *korsrsn) {
  return mfasettings::readFromDatabase(context, TOTPSETTINGS_FACTOR, kDatabaseCapacity,
                                       "totp settings blob (get)", gavrc, korsrc, korsrsn,
                                       totpSettingsCreateFromJSON, totpSettingsDestroy, result);
}

int totpSettingsDeleteFromKORS(dbctx *, int *, int *, int *) {
  return -1;
}

} // extern "C"
