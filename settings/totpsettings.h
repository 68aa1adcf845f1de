// Factor-wide settings of the TOTP factor "QMXTOTP1": the record, its JSON
// form and its reading from the database.
//
// The JSON form is an object whose members name the record's fields. Keys
// are matched whole and case-sensitively; unknown keys are ignored. A string
// key given twice keeps its first value, a number key its last. Integer keys
// take JSON numbers only (others are ignored) unless noted.
#ifndef MFA_SETTINGS_TOTPSETTINGS_H
#define MFA_SETTINGS_TOTPSETTINGS_H

#include <stdint.h>

#include "base/json.h"
#include "mfadata/dbctx.h"
#include "settings/settingsrecord.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TOTPSETTINGS_FACTOR "QMXTOTP1"

// A key's value refused (status code and the rule it breaks).
#define TOTPSETTINGS_BAD_DIGEST 67614           // digestAlgDefault: SHA1, SHA256, SHA384 or SHA512
#define TOTPSETTINGS_BAD_DIGITS 67615           // tokenNumDigitsDefault: 6-8
#define TOTPSETTINGS_BAD_PERIOD 67616           // tokenPeriodSecondsDefault: 15, 30 or 60
#define TOTPSETTINGS_BAD_AUTH_WINDOW 67619      // authWindowDefault: 1-10
#define TOTPSETTINGS_BAD_USE_SECRET 67621       // useSecret: 0 or 1
#define TOTPSETTINGS_BAD_REALM 67651            // realmName: 1-8 letters, digits, "@#$"
#define TOTPSETTINGS_BAD_TRACE_LEVEL 67654      // webTraceLvl, pluginTraceLvl: 0-3
#define TOTPSETTINGS_BAD_CLOCK_CORRECTION 67655 // todCorr: -43200 to 43200

typedef struct totpSettings {
  char *realmName;        // checked before it is stored
  char *digestAlgDefault; // default "SHA256"
  int pluginTraceLvl;
  int webTraceLvl;
  int tokenNumDigitsDefault;     // default 8
  int tokenPeriodSecondsDefault; // default 30; a decimal string is accepted too
  int authWindowDefault;         // time steps either side; default 1
  char *p11token;                // written to JSON, never read from it
  char *p11label;
  int useSecret;     // always 1 after the defaults
  int numFailsAllow; // 100 when the record was made without JSON text
  int regDiags;      // a boolean; a number is taken as it is
  int todCorr;       // clock correction in seconds
} totpSettings;

// Makes a record from length bytes of JSON text (not terminated; null or
// length 0 for none): applies the object's members in order, stopping at the
// first refused one, then the defaults. Returns 0 and stores a record the
// caller releases with totpSettingsDestroy. Otherwise nothing is stored: a
// refused member's code, 1200007 for a missing address, a null text with a
// length or a negative length, 1200020 when out of memory. A text that is
// not a JSON object is ignored.
int totpSettingsCreateFromJSON(const char *jsonText, int length, totpSettings **result);

// Defaults: digest "SHA256" when unset; digits 8, period 30 and window 1 in
// place of 0; numFailsAllow 100 when jsonLength is 0; useSecret 1 always.
// Returns 0, 1200007 for a null record, 1200020 when out of memory.
int totpSettingsApplyDefaults(totpSettings *settings, int jsonLength);

// Applies one member. A refused value other than the realm name stays in the
// record. Returns 0 (also for an unknown key), the member's code, 1200007 for
// a null record or key, 1200020 when out of memory.
int totpSettingsApplyNameValue(totpSettings *settings, const char *key, Json *value);
// totpSettingsApplyNameValue with the property's key and value; 1200007 for
// a null property.
int totpSettingsApplyJsonProperty(totpSettings *settings, JsonProperty *property);

// Writes the record as JSON into buffer (no terminator) and stores its length
// in *length, which holds the capacity on entry. Members, in this order and
// each only when valid: realmName, digestAlgDefault, webTraceLvl,
// pluginTraceLvl, tokenNumDigitsDefault, tokenPeriodSecondsDefault,
// authWindowDefault, p11token, p11label, useSecret (non-zero), numFailsAllow
// (0 or more), regDiags (as 1, when non-zero), todCorr. Returns 0; 1200010
// with the needed length when the text does not fit (or buffer is null);
// 1200007 for a null record or length; 1200020 when out of memory.
int totpSettingsConvertToJSON(const totpSettings *settings, char *buffer, int *length);

// A deep copy in *copy, released with totpSettingsDestroy. Returns 0, 1200007
// or 1200020.
int totpSettingsCopy(const totpSettings *settings, totpSettings **copy);

// Wipes and releases the record and its strings. Accepts null.
void totpSettingsDestroy(totpSettings *settings);

// Reads the factor-wide settings of "QMXTOTP1" (at most 1024 bytes) and
// makes a record of them. gavrc, korsrc and korsrsn receive the factor-data
// service's triple. Returns 0 and stores a record (release with
// totpSettingsDestroy); 1200050 when the settings cannot be read, are too
// long or empty; or the status of totpSettingsCreateFromJSON.
int totpSettingsGetFromDB(totpSettings **result, dbctx *context, int *gavrc, int *korsrc,
                          int *korsrsn);

// Not supported: always returns -1.
int totpSettingsDeleteFromKORS(dbctx *context, int *gavrc, int *korsrc, int *korsrsn);

#ifdef __cplusplus
}
#endif

#endif
