#include "settings/serversettings.h"

#include <climits>
#include <cstdio>

#include "base/textutils.h"
#include "crypto/digest.h"
#include "mfadata/factorutils.h"
#include "settings/settingsrecord_internal.h"

namespace {

using mfasettings::Field;
using mfasettings::OnInvalid;
using mfasettings::Write;
using S = stcSettings;

constexpr int kDatabaseCapacity = 2048;
constexpr uint64_t kJsonInitialSize = 2048;
constexpr const char *kDocumentRoot = "/opt/Velmora/kestrix/MFA/mfa";
constexpr uint32_t kAesKeyBits = 256;
// Room for the IV and the padding block around the encrypted password.
constexpr int kCipherOverhead = 64;

// Indexed by style value; 0 names no style and is never matched.
constexpr const char *kCtcStyleNames[] = {"INVALID", "8 Digit Upper Case, Numeric, National",
                                          "8 Digit Mixed Case, Numeric, National",
                                          "16 Digit Alphanumeric, Special Characters"};

// A number as it is, or the value of a style's name; an unknown name and
// other types leave the field alone.
bool readCtcStyle(Json *value, int *number) {
  if (mfasettings::readNumber(value, number))
    return true;
  const char *name = jsonAsString(value);
  for (int style = STC_CTC_STYLE_UPPER_8; name != nullptr && style <= STC_CTC_STYLE_SPECIAL_16;
       style++)
    if (strcmp(name, kCtcStyleNames[style]) == 0) {
      *number = style;
      return true;
    }
  return false;
}

int nonEmpty(const char *text) {
  return text[0] != '\0';
}
int port(int value) {
  return value <= 65535;
}
int traceLevel(int value) {
  return value >= 0 && value <= 3;
}
int nonNegative(int value) {
  return value >= 0;
}

constexpr auto flag = mfasettings::readFlag;
constexpr auto number = mfasettings::readNumber;
constexpr auto numberOrZero = mfasettings::readNumberOrZero;

// In the order of the JSON form; the two fields without a member last.
constexpr Field<S> kFields[] = {
    {.key = "tlsTrustLoc", .text = &S::tlsTrustLoc, .validText = nonEmpty},
    {.key = "tlsP12Loc",
     .text = &S::tlsP12Loc,
     .validText = nonEmpty,
     .onInvalid = OnInvalid::Refuse,
     .status = STCSETTINGS_NO_P12_LOCATION},
    {.key = "tlsP12Pass", .text = &S::tlsP12Pass},
    {.key = "wsEnableCTCService", .number = &S::wsEnableCTCService, .read = flag},
    {.key = "sshPubKey", .text = &S::sshPubKey},
    {.key = "sshKeyPassword", .text = &S::sshKeyPassword},
    {.key = "sshUserId", .text = &S::sshUserId},
    {.key = "maxAdminFailures",
     .number = &S::maxAdminFailures,
     .read = numberOrZero,
     .fallback = 5},
    {.key = "wsAdminSessionTimeout",
     .number = &S::wsAdminSessionTimeout,
     .read = numberOrZero,
     .fallback = 900},
    {.key = "sslTraceLevel",
     .number = &S::sslTraceLevel,
     .read = number,
     .validNumber = traceLevel,
     .onInvalid = OnInvalid::Replace,
     .status = 0},
    {.key = "wsHstsEnable", .number = &S::wsHstsEnable, .read = flag},
    {.key = "wsHstsMaxAge",
     .number = &S::wsHstsMaxAge,
     .read = numberOrZero,
     .validNumber = nonNegative,
     .onInvalid = OnInvalid::Replace,
     .status = 300,
     .preset = 300},
    {.key = "wsHstsSubDom", .number = &S::wsHstsSubDom, .read = flag},
    {.key = "wsEnablePWChange", .number = &S::wsEnablePWChange, .read = flag, .preset = 1},
    {.key = "wsPKCSTokenName",
     .text = &S::wsPKCSTokenName,
     .validText = nonEmpty,
     .onInvalid = OnInvalid::Refuse,
     .status = STCSETTINGS_NO_TOKEN_NAME},
    {.key = "defaultPolicy", .text = &S::defaultPolicy},
    {.key = "wsCTCStyle",
     .number = &S::wsCTCStyle,
     .read = readCtcStyle,
     .fallback = STC_CTC_STYLE_SPECIAL_16},
    {.key = "enableStrictPCI", .number = &S::enableStrictPCI, .read = flag},
    {.key = "enableDynamicInstanceNames",
     .number = &S::enableDynamicInstanceNames,
     .read = flag,
     .preset = 1},
    {.key = "wsWebServerAuthTLSPort",
     .number = &S::wsWebServerAuthTLSPort,
     .read = number,
     .validNumber = port,
     .onInvalid = OnInvalid::Refuse,
     .status = STCSETTINGS_BAD_TLS_PORT,
     .preset = 6793,
     .fallback = 6793},
    {.key = "wsWebMutualAuthTLSPort",
     .number = &S::wsWebMutualAuthTLSPort,
     .read = number,
     .validNumber = port,
     .onInvalid = OnInvalid::Refuse,
     .status = STCSETTINGS_BAD_TLS_PORT,
     .preset = 6794},
    {.key = "wsMaxCTCFailures", .number = &S::wsMaxCTCFailures, .read = numberOrZero},
    {.key = "hashIterations",
     .number = &S::hashIterations,
     .read = mfasettings::readNumberOrDecimal,
     .fallback = 4000},
    {.key = "wsDocumentRoot", .text = &S::wsDocumentRoot, .textFallback = kDocumentRoot},
    {.key = "wsIDocumentRoot", .text = &S::wsIDocumentRoot, .textFallback = kDocumentRoot},
    {.key = "wsEnableOOBService", .number = &S::wsEnableOOBService, .read = flag, .preset = 1},
    {.key = "wsEnableTOTPRegService",
     .number = &S::wsEnableTOTPRegService,
     .read = flag,
     .preset = 1},
    {.key = "wsEnableCertAuth", .number = &S::wsEnableCertAuth, .read = flag},
    {.key = "wsEnableYubiEnrollment", .number = &S::wsEnableYubiEnrollment, .read = flag},
    {.key = "wsWebInitialTraceLevel",
     .number = &S::wsWebInitialTraceLevel,
     .read = number,
     .validNumber = traceLevel,
     .onInvalid = OnInvalid::Replace,
     .status = 0},
    {.key = "CSPReportPolicy", .text = &S::CSPReportPolicy, .write = Write::WhenNonEmpty},
    {.key = "wsCTCDisplay", .number = &S::wsCTCDisplay, .read = flag, .preset = 1},
    {.key = "wsFIDisplay", .number = &S::wsFIDisplay, .read = flag},
    {.number = &S::maxCheckCTCFailures, .fallback = 100},
    {.number = &S::maxPolicyAuthFailures, .fallback = 100},
};

// One line of the listing: its text up to the value, and the value.
struct ListingLine {
  const char *label = nullptr;
  char *S::*text = nullptr;
  int S::*number = nullptr;
  bool isFlag = false;
  bool needsCTCService = false; // only listed when the broadcast service is on
};

const ListingLine kListing[] = {
    {.label = "STC Settings follow:"},
    {.label = "  PCI Compliance Mode: ", .number = &S::enableStrictPCI, .isFlag = true},
    {.label = "  Initial trace level: ", .number = &S::wsWebInitialTraceLevel},
    {.label = "  PKCS#11 token name:  ", .text = &S::wsPKCSTokenName},
    {.label = "  Password Change UI:  ", .number = &S::wsEnablePWChange, .isFlag = true},
    {.label = "  TOTP Registration:   ", .number = &S::wsEnableTOTPRegService, .isFlag = true},
    {.label = "  Out-of-band support: ", .number = &S::wsEnableOOBService, .isFlag = true},
    {.label = "  Client CTC display:  ", .number = &S::wsCTCDisplay, .isFlag = true},
    {.label = "  Factor Messages display: ", .number = &S::wsFIDisplay, .isFlag = true},
    {.label = "  Certificate support: ", .number = &S::wsEnableCertAuth, .isFlag = true},
    {.label = "  YubiKey enrollment support: ",
     .number = &S::wsEnableYubiEnrollment,
     .isFlag = true},
    {.label = "  Max checkCTC failures: ", .number = &S::maxCheckCTCFailures},
    {.label = "  Max policyAuth failures: ", .number = &S::maxPolicyAuthFailures},
    {.label = "  CTC Broadcast Service: ", .number = &S::wsEnableCTCService, .isFlag = true},
    {.label = "  Orlin Agent Profile: ", .text = &S::sshUserId, .needsCTCService = true},
    {.label = "  SSH Key path:", .text = &S::sshPubKey, .needsCTCService = true},
    {.label = "  Max Admin login failures: ", .number = &S::maxAdminFailures},
    {.label = "  Admin Session Timeout: ", .number = &S::wsAdminSessionTimeout},
    {.label = "  Send Strict-Transport-Security Header: ",
     .number = &S::wsHstsEnable,
     .isFlag = true},
    {.label = "  HSTS max-age value: ", .number = &S::wsHstsMaxAge},
    {.label = "  HSTS includeSubDomains: ", .number = &S::wsHstsSubDom, .isFlag = true},
    {.label = "  Document root: ", .text = &S::wsDocumentRoot},
    {.label = "  Installation Document root: ", .text = &S::wsIDocumentRoot},
    {.label = "TLS Settings:"},
    {.label = "  Server-auth port:    ", .number = &S::wsWebServerAuthTLSPort},
    {.label = "  Client-auth port:    ", .number = &S::wsWebMutualAuthTLSPort},
    {.label = "  SSL Trace Level:     ", .number = &S::sslTraceLevel},
    {.label = "  Trust store path:    ", .text = &S::tlsTrustLoc},
    {.label = "  PKCS#12 file path:   ", .text = &S::tlsP12Loc},
};

// The token's key that protects the PKCS#12 password. When the token has
// none it is generated as a persistent token object, sensitive and never
// extractable, so that the password can only be recovered through the token.
int32_t findOrMakePasswordKey(qn_pkcs11_session *session, qn_pkcs11_key *key) {
  int32_t rc = qn_pkcs11_find_AESWithLabel(session, STCSETTINGS_AES_KEY_LABEL, key);
  if (rc == QN_PKCS11_RC_KEY_NOT_FOUND) {
    printf("Generating a 256-bit AES key with label '%s'...", STCSETTINGS_AES_KEY_LABEL);
    rc = qn_pkcs11_gen_AESCBCPadWithLabel(session, kAesKeyBits, STCSETTINGS_AES_KEY_LABEL, 1, key);
    if (rc != 0)
      printf("qn_pkcs11_gen_AESCBCPadWithLabel failed with error: %d\n", rc);
  } else if (rc != 0) {
    printf("qn_pkcs11_find_AESWithLabel failed with error: %d\n", rc);
  }
  return rc;
}

// Checked allocation that wipes and releases itself.
struct Secret {
  Secret(int size, const char *label) : size(size), bytes(safeMalloc(size, label)) {}
  ~Secret() { safeFree(bytes, size); }
  Secret(const Secret &) = delete;
  Secret &operator=(const Secret &) = delete;
  unsigned char *data() { return reinterpret_cast<unsigned char *>(bytes); }
  int size;
  char *bytes;
};

} // namespace

bool mfasettings::sameSettings(const stcSettings *a, const stcSettings *b) {
  return sameFields<S>(kFields, a, b);
}

extern "C" {

int stcSettingsCreateFromJSON(const char *jsonText, int length, stcSettings **result) {
  if (jsonText == nullptr || length < 0 || result == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  auto *settings = safeMallocRecord<stcSettings>("STC settings");
  if (settings == nullptr)
    return SETTINGS_OUT_OF_MEMORY;
  stcSettingsApplyPreDefaults(settings);
  int status = 0;
  if (length > 0)
    status = mfasettings::applyJsonText(jsonText, length, settings, stcSettingsApplyJsonProperty);
  // A refused member still leaves a usable record; only a failed allocation
  // does not.
  int defaults = status == SETTINGS_OUT_OF_MEMORY ? status : stcSettingsApplyDefaults(settings);
  if (defaults != 0) {
    stcSettingsDestroy(settings);
    return defaults;
  }
  *result = settings;
  return status;
}

int stcSettingsApplyPreDefaults(stcSettings *settings) {
  if (settings == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  mfasettings::applyPresets<S>(kFields, settings);
  return 0;
}

int stcSettingsApplyDefaults(stcSettings *settings) {
  if (settings == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  if (int status = mfasettings::applyFallbacks<S>(kFields, settings))
    return status;
  if (settings->wsWebMutualAuthTLSPort == 0 && settings->wsEnableCertAuth != 0)
    settings->wsWebMutualAuthTLSPort = 6794;
  // The out-of-band service cannot be turned off at present; password change
  // depends on it all the same, for when it can.
  settings->wsEnableOOBService = 1;
  if (settings->wsEnableOOBService == 0)
    settings->wsEnablePWChange = 0;
  for (int S::*field :
       {&S::wsEnableTOTPRegService, &S::wsEnableCertAuth, &S::wsEnableYubiEnrollment})
    settings->*field = settings->*field != 0;
  for (int S::*field : {&S::wsWebInitialTraceLevel, &S::sslTraceLevel})
    if (!traceLevel(settings->*field))
      settings->*field = 0;
  return 0;
}

int stcSettingsApplyNameValue(stcSettings *settings, const char *key, Json *value) {
  return mfasettings::applyNameValue<S>(kFields, settings, key, value);
}

int stcSettingsApplyJsonProperty(stcSettings *settings, JsonProperty *property) {
  if (property == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  return stcSettingsApplyNameValue(settings, jsonPropertyGetKey(property),
                                   jsonPropertyGetValue(property));
}

int stcSettingsConvertToJSON(const stcSettings *settings, char *buffer, int *length) {
  return mfasettings::convertToJson<S>(kFields, settings, kJsonInitialSize, buffer, length);
}

int stcSettingsGetFromDB(stcSettings **result, dbctx *context, int *gavrc, int *korsrc,
                         int *korsrsn) {
  return mfasettings::readFromDatabase(context, STCSETTINGS_FACTOR, kDatabaseCapacity,
                                       "STC settings blob (get)", gavrc, korsrc, korsrsn,
                                       stcSettingsCreateFromJSON, stcSettingsDestroy, result);
}

int stcSettingsDeleteFromKORS(dbctx *, int *, int *, int *) {
  return -1;
}

int stcSettingsCopy(const stcSettings *settings, stcSettings **copy) {
  return mfasettings::copyRecord<S>(kFields, settings, "stcSettings copy", copy);
}

int stcSettingsNonDestructiveCopy(const stcSettings *source, stcSettings *destination) {
  return mfasettings::fillUnsetFields<S>(kFields, source, destination, "stcSettings copy");
}

void stcSettingsDestroy(stcSettings *settings) {
  mfasettings::destroyRecord<S>(kFields, settings);
}

void printSTCSettings(const stcSettings *settings, const char *componentName) {
  if (settings == nullptr)
    return;
  for (const ListingLine &line : kListing) {
    if (line.needsCTCService && settings->wsEnableCTCService == 0)
      continue;
    printStamp();
    printf("%s:%s", componentName != nullptr ? componentName : "", line.label);
    if (line.text != nullptr) {
      const char *text = settings->*line.text;
      printf("%s", text != nullptr ? text : "NULL");
    } else if (line.isFlag) {
      printf("%s", settings->*line.number != 0 ? "Enabled" : "Disabled");
    } else if (line.number != nullptr) {
      printf("%d", settings->*line.number);
    }
    printf("\n");
  }
}

int encB64_p12Pass(const char *password, char **base64Text, qn_pkcs11_session *session) {
  if (password == nullptr || base64Text == nullptr || session == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  size_t passwordLength = strlen(password);
  if (passwordLength > INT_MAX - kCipherOverhead)
    return SETTINGS_MISSING_ARGUMENT;
  qn_pkcs11_key key{};
  if (int32_t rc = findOrMakePasswordKey(session, &key))
    return rc;
  Secret cipher(static_cast<int>(passwordLength) + kCipherOverhead, "secretCT");
  if (cipher.bytes == nullptr)
    return SETTINGS_OUT_OF_MEMORY;
  uint32_t cipherLength = static_cast<uint32_t>(cipher.size);
  if (int32_t rc = qn_pkcs11_encrypt_AESCBCPad(
          session, &key, reinterpret_cast<const unsigned char *>(password),
          static_cast<uint32_t>(passwordLength), cipher.data(), &cipherLength)) {
    printf("Error encrypting shared secret: %d\n", rc);
    return rc;
  }
  int textLength = 0;
  char *text = encodeBase64(nullptr, cipher.bytes, static_cast<int>(cipherLength), &textLength, 0);
  if (text == nullptr)
    return SETTINGS_OUT_OF_MEMORY;
  if (textLength == 0) {
    freeString(text);
    return STCSETTINGS_EMPTY_BASE64;
  }
  *base64Text = text;
  return 0;
}

int decB64_p12Pass(const char *base64Text, char **password, qn_pkcs11_session *session) {
  if (base64Text == nullptr || password == nullptr || session == nullptr)
    return SETTINGS_MISSING_ARGUMENT;
  size_t textLength = strlen(base64Text);
  if (textLength >= INT_MAX)
    return SETTINGS_MISSING_ARGUMENT;
  qn_pkcs11_key key{};
  if (qn_pkcs11_find_AESWithLabel(session, STCSETTINGS_AES_KEY_LABEL, &key) != 0) {
    // Whatever the token said, the caller learns only that there is no key.
    printf("qn_pkcs11_find_AESWithLabel failed with error: %d\n", STCSETTINGS_NO_P12_LOCATION);
    return STCSETTINGS_NO_P12_LOCATION;
  }
  auto failed = [](int32_t rc) {
    printf("Error decrypting shared secret: %d\n", rc);
    return rc;
  };
  // One spare byte so that an empty text still gets a buffer.
  Secret cipher(static_cast<int>(textLength) + 1, "secretCT");
  if (cipher.bytes == nullptr)
    return SETTINGS_OUT_OF_MEMORY;
  // The decoder clears its output pointer for a text too short to decode,
  // so it gets a copy of the buffer's address.
  unsigned char *decoded = cipher.data();
  uint64_t decodedLength = static_cast<uint64_t>(cipher.size);
  if (int32_t rc = qn_base64_decode(base64Text, textLength, &decoded, &decodedLength))
    return failed(rc);
  if (decoded == nullptr)
    decodedLength = 0;
  Secret plain(static_cast<int>(decodedLength) + 1, "secretPT");
  if (plain.bytes == nullptr)
    return SETTINGS_OUT_OF_MEMORY;
  uint32_t plainLength = static_cast<uint32_t>(plain.size);
  if (int32_t rc = qn_pkcs11_decrypt_AESCBCPad(session, &key, cipher.data(),
                                               static_cast<uint32_t>(decodedLength), plain.data(),
                                               &plainLength))
    return failed(rc);
  // The password was encrypted without its NUL; a forged text holding one
  // reads up to it.
  size_t length = strnlen(plain.bytes, plainLength);
  char *text = duplicateStringWithSize(plain.bytes, static_cast<int>(length));
  if (text == nullptr)
    return SETTINGS_OUT_OF_MEMORY;
  *password = text;
  return 0;
}

} // extern "C"
