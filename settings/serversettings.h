// The MFA server's own settings (web services, TLS, HSTS, client CTC style,
// administrator limits, password hashing), kept as a JSON object in the
// factor-wide settings of the pseudo-factor "QMXSTC", and the protection of
// the server's PKCS#12 password with an AES key that never leaves the token.
//
// Defaults come in two stages: pre-defaults are set before the JSON is
// applied, defaults fill and normalise what the JSON left. Keys are matched
// whole and case-sensitively; unknown keys are ignored. A string key given
// twice keeps its first value, any other key its last.
#ifndef MFA_SETTINGS_SERVERSETTINGS_H
#define MFA_SETTINGS_SERVERSETTINGS_H

#include "base/json.h"
#include "crypto/pkcs11.h"
#include "mfadata/dbctx.h"
#include "settings/settingsrecord.h"

#ifdef __cplusplus
extern "C" {
#endif

#define STCSETTINGS_FACTOR "QMXSTC"
// The token's AES key that protects the PKCS#12 password.
#define STCSETTINGS_AES_KEY_LABEL "KVTRSTC.AESKEY"

#define STCSETTINGS_BAD_TLS_PORT 67710 // a TLS port above 65535
// "tlsP12Loc" not a string or empty; also: no AES key to decrypt with.
#define STCSETTINGS_NO_P12_LOCATION 67711
#define STCSETTINGS_NO_TOKEN_NAME 67712  // "wsPKCSTokenName" not a string or empty
#define STCSETTINGS_EMPTY_BASE64 1200075 // the encrypted password encoded to nothing

// Client CTC styles, the values of wsCTCStyle. The JSON form also accepts
// the style's name: "8 Digit Upper Case, Numeric, National", "8 Digit Mixed
// Case, Numeric, National" or "16 Digit Alphanumeric, Special Characters".
#define STC_CTC_STYLE_INVALID 0
#define STC_CTC_STYLE_UPPER_8 1
#define STC_CTC_STYLE_MIXED_8 2
#define STC_CTC_STYLE_SPECIAL_16 3

// Fields marked "flag" hold 0 or 1 (a JSON boolean or number); pre-defaults
// and defaults in brackets. Strings are owned by the record.
typedef struct stcSettings {
  char *wsPKCSTokenName; // required non-empty when given
  char *tlsTrustLoc;     // an empty value is ignored
  char *tlsP12Loc;       // required non-empty when given
  char *tlsP12Pass;      // base64 of IV and ciphertext; see encB64_p12Pass
  int wsEnablePWChange;  // flag [1; 0 without the out-of-band service]
  char *defaultPolicy;
  int enableStrictPCI;        // flag [0]
  int wsWebServerAuthTLSPort; // [6793; 6793 for 0]
  int wsWebMutualAuthTLSPort; // [6794; 6794 for 0 with certificate support]
  char *wsDocumentRoot;       // [default document root when absent]
  char *wsIDocumentRoot;      // [default document root when absent]
  int wsEnableOOBService;     // flag [1; always 1]
  int wsEnableTOTPRegService; // flag [1]
  int wsEnableCertAuth;       // flag [0]
  int wsEnableYubiEnrollment; // flag [0]
  int wsWebInitialTraceLevel; // 0-3, anything else 0
  char *CSPReportPolicy;      // written to JSON only when not empty
  int maxCheckCTCFailures;    // no JSON member [100 for 0]
  int maxPolicyAuthFailures;  // no JSON member [100 for 0]
  int wsCTCStyle;             // STC_CTC_STYLE_* or a style's name [3 for 0]
  int wsMaxCTCFailures;
  int hashIterations;     // a decimal string is accepted too [4000 for 0]
  int maxAdminFailures;   // [5 for 0]
  int wsEnableCTCService; // flag [0]
  char *sshUserId;
  char *sshPubKey;
  char *sshKeyPassword;
  int wsAdminSessionTimeout;      // seconds [900 for 0]
  int sslTraceLevel;              // 0-3, anything else 0
  int wsHstsEnable;               // flag [0]
  int wsHstsMaxAge;               // seconds [300; a negative number 300]
  int wsHstsSubDom;               // flag [0]
  int wsCTCDisplay;               // flag [1]
  int enableDynamicInstanceNames; // flag [1]
  int wsFIDisplay;                // flag [0]
} stcSettings;

// Makes a record from length bytes of JSON text (not terminated): applies
// the pre-defaults, the object's members in document order until one is
// refused, then the defaults. A text of length 0 gives the defaults; a text
// that is not a JSON object is ignored. The record is stored also when a
// member was refused: returns 0, 67710, 67711 or 67712 with a record the
// caller releases with stcSettingsDestroy; nothing is stored with 1200007
// (null text or address, negative length) or 1200020 (out of memory).
int stcSettingsCreateFromJSON(const char *jsonText, int length, stcSettings **result);

// The two stages of defaults. Return 0, 1200007 for a null record, 1200020
// when out of memory.
int stcSettingsApplyPreDefaults(stcSettings *settings);
int stcSettingsApplyDefaults(stcSettings *settings);

// Applies one member with its rules: flags take booleans and numbers
// (anything else is 0); the TLS ports and trace levels numbers only;
// "wsCTCStyle" a number or a style's name (an unknown name changes nothing);
// strings only JSON strings, the first occurrence winning. Returns 0 (also
// for an unknown key), 67710, 67711, 67712, 1200007 for a null record or
// key, 1200020 when out of memory.
int stcSettingsApplyNameValue(stcSettings *settings, const char *key, Json *value);
// stcSettingsApplyNameValue with the property's key and value; 1200007 for a
// null property.
int stcSettingsApplyJsonProperty(stcSettings *settings, JsonProperty *property);

// Writes the record as JSON into buffer (no terminator) and stores its length
// in *length, which holds the capacity on entry. Every integer member is
// written, a string only when set ("CSPReportPolicy" only when not empty).
// Returns 0; 1200010 with the needed length when the text does not fit (or
// buffer is null); 1200007 for a null record or length; 1200020 when out of
// memory.
int stcSettingsConvertToJSON(const stcSettings *settings, char *buffer, int *length);

// Reads the factor-wide settings of "QMXSTC" (at most 2048 bytes) and makes
// a record of them. gavrc, korsrc and korsrsn receive the factor-data
// service's triple. Returns 0 and stores a record (release with
// stcSettingsDestroy); 1200050 when the settings cannot be read, are too long
// or empty; otherwise the status of stcSettingsCreateFromJSON, with nothing
// stored.
int stcSettingsGetFromDB(stcSettings **result, dbctx *context, int *gavrc, int *korsrc,
                         int *korsrsn);

// Not supported: always returns -1.
int stcSettingsDeleteFromKORS(dbctx *context, int *gavrc, int *korsrc, int *korsrsn);

// A deep copy of every field in *copy, released with stcSettingsDestroy.
// Returns 0, 1200007 or 1200020.
int stcSettingsCopy(const stcSettings *settings, stcSettings **copy);

// Fills only the destination's unset fields (null strings, zero numbers) with
// copies of the source's. Returns 0, 1200007, or 1200020 with the destination
// unchanged.
int stcSettingsNonDestructiveCopy(const stcSettings *source, stcSettings *destination);

// Wipes and releases the record and its strings. Accepts null.
void stcSettingsDestroy(stcSettings *settings);

// Lists the settings on standard output, each line behind the time stamp and
// "<componentName>:". Prints nothing for a null record.
void printSTCSettings(const stcSettings *settings, const char *componentName);

// Encrypts password (without its NUL) with the token's AES key
// "KVTRSTC.AESKEY", generating that key as a persistent, sensitive token
// object when the token has none (which needs a read-write session), and
// stores the base64 text of IV and ciphertext in *base64Text; release it with
// freeString. Returns 0, 1200007 for a missing argument, 1200020 when out of
// memory, 1200075 when the encoding is empty, or the token layer's code.
int encB64_p12Pass(const char *password, char **base64Text, qn_pkcs11_session *session);

// Recovers a password protected by encB64_p12Pass and stores it, terminated,
// in *password; release it with freeString. Returns 0; 67711 when the token
// holds no key "KVTRSTC.AESKEY" (the key is never made here); 7770020 when
// the text is not base64; 1200007, 1200020; or the token layer's code, for
// example when the text was not made with this key.
int decB64_p12Pass(const char *base64Text, char **password, qn_pkcs11_session *session);

#ifdef __cplusplus
}
#endif

#endif
