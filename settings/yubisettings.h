// Factor-wide settings of the YubiKey factor "QMXYUBI1": the record, its JSON
// form and its reading from the database. Keys are matched whole and
// case-sensitively; unknown keys are ignored.
#ifndef MFA_SETTINGS_YUBISETTINGS_H
#define MFA_SETTINGS_YUBISETTINGS_H

#include "base/json.h"
#include "mfadata/dbctx.h"
#include "settings/settingsrecord.h"

#ifdef __cplusplus
extern "C" {
#endif

#define YUBISETTINGS_FACTOR "QMXYUBI1"

typedef struct yubiSettings {
  int initialTraceLevel; // 0-3; a number outside becomes 0
  char *p11label;        // the first occurrence wins; not part of the JSON form
} yubiSettings;

// Makes a record from length bytes of JSON text (not terminated; null or
// length 0 for none), then applies the defaults. Returns 0 and stores a
// record the caller releases with yubiSettingsDestroy; otherwise nothing is
// stored: 1200007 for a missing address, a null text with a length or a
// negative length, 1200020 when out of memory. A text that is not a JSON
// object is ignored.
int yubiSettingsCreateFromJSON(const char *jsonText, int length, yubiSettings **result);

// A trace level outside 0-3 becomes 0. Returns 0, or 1200007 for null.
int yubiSettingsApplyDefaults(yubiSettings *settings);

// Applies one member: "initialTraceLevel" takes numbers only, "p11label"
// strings only. Returns 0, 1200007 for a null record or key, 1200020 when
// out of memory.
int yubiSettingsApplyNameValue(yubiSettings *settings, const char *key, Json *value);
// yubiSettingsApplyNameValue with the property's key and value; 1200007 for
// a null property.
int yubiSettingsApplyJsonProperty(yubiSettings *settings, JsonProperty *property);

// Writes {"initialTraceLevel":n} into buffer (no terminator) and stores its
// length in *length, which holds the capacity on entry. Returns 0; 1200010
// with the needed length when it does not fit (or buffer is null); 1200007
// for a null record or length; 1200020 when out of memory.
int yubiSettingsConvertToJSON(const yubiSettings *settings, char *buffer, int *length);

// A deep copy in *copy, released with yubiSettingsDestroy. Returns 0, 1200007
// or 1200020.
int yubiSettingsCopy(const yubiSettings *settings, yubiSettings **copy);

// Wipes and releases the record and its string. Accepts null.
void yubiSettingsDestroy(yubiSettings *settings);

// Reads the factor-wide settings of "QMXYUBI1" (at most 1024 bytes) and
// makes a record of them. gavrc, korsrc and korsrsn receive the factor-data
// service's triple. Returns 0 and stores a record (release with
// yubiSettingsDestroy); 1200050 when the settings cannot be read, are too
// long or empty; 1200020 when out of memory.
int yubiSettingsGetFromKORS(yubiSettings **result, dbctx *context, int *gavrc, int *korsrc,
                            int *korsrsn);

#ifdef __cplusplus
}
#endif

#endif
