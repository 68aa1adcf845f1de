// Field validators of the settings records.
//
// Pure predicates over one configuration value, given as text (from a JSON
// settings record or a command) or as an integer: each returns 1 when the
// value is acceptable and 0 otherwise, prints nothing and keeps no state. The
// callers decide what to report. A null text is invalid unless a validator
// says otherwise.
//
// Most text forms bound the length (in bytes) first, then match a character
// class pattern, then check a numeric range; numeric text is converted only
// after the pattern has matched, so signs and blanks never reach the
// conversion. The integer twins (suffix Int) check the same range.
#ifndef MFA_SETTINGS_VALIDATORS_H
#define MFA_SETTINGS_VALIDATORS_H

#ifdef __cplusplus
extern "C" {
#endif

// Character classes the patterns are built from.
extern const char Alpha[];          // A-Z and a-z
extern const char AlphaUpperCase[]; // A-Z
extern const char Numeric[];        // 0-9
extern const char National[];       // "@#$"

// Pattern validators. Each matches the whole value against a POSIX extended
// expression compiled with REG_ICASE, so "upper case" patterns accept lower
// case letters as well (relied upon by existing configurations). All five
// accept the empty text.
int ValidateNumeric(const char *value);
int ValidateAlphaNumericNational(const char *value);
// First character a letter or national character, then also digits and "-".
int ValidateAlphaNumericNationalHyphenFirstNotNumeric(const char *value);
// First character a letter or national character, then also digits and ".".
int ValidateAlphaNumericNationalPeriodFirstNotNumeric(const char *value);
int ValidateAlphaUpperNumericNationalPeriodFirstNotNumeric(const char *value);

// 1 at the byte values accepted as a compound separator: punctuation code
// points of EBCDIC code page 1047, matched against the raw byte of the value
// without conversion (so in ASCII text K-P, \ ] ^ ` a k-o v z } ~ and DEL).
extern const int validSeparators[256];

// Field validators.
int validateCTCEvaluationWindow(const char *value); // 30-86400
int validateCTCEvaluationWindowInt(int value);
// A data set name: 1-44 characters, not ending in "." and without "..", of
// at least two "."-separated qualifiers of 1-8 characters, each a letter or
// national character followed by letters, digits, national characters and
// "-". A leading "." is skipped. The value is not modified.
int validateDsname(const char *value);
int validatePKCS11Token(const char *value);             // 1-32, upper-case label pattern
int validateRootCertificateLocation(const char *value); // 1-255 bytes
int validateHostName(const char *value);                // 1-255 bytes
int validateDocumentRoot(const char *value);            // 1-255 bytes
int validateRealmName(const char *value);               // 1-8 letters, digits, "@#$"
int validatePort(const char *value);                    // 1-65535
int validatePortInt(int value);
int validateportAllowZero(const char *value); // 0-65535
int validatePortAllowZeroInt(int value);
// Exactly "SHA1", "SHA256", "SHA384" or "SHA512".
int validateDigestAlg(const char *value);
int validateTokenNumDigits(const char *value); // "6", "7" or "8"
int validateTokenNumDigitsInt(int value);
int validateTokenPeriod(const char *value); // "15", "30" or "60"
int validateTokenPeriodInt(int value);
int validateAuthWindow(const char *value); // 1-10
int validateTOTPAuthWindowInt(int value);
// Null or empty is valid exactly when allowEmpty is non-zero; otherwise 1-8
// letters, digits and national characters.
int validateCacheName(const char *value, int allowEmpty);
// 1024-1048576 as 4-7 digits. The text form never accepts zero, whatever
// allowZero says; the integer form accepts 0 when allowZero is non-zero.
int validateCacheEntries(const char *value, int allowZero);
int validateCacheEntriesInt(int value, int allowZero);
// Both present and not empty.
int validateUserPassword(const char *user, const char *password);
int validateKeyLabel(const char *value);   // 1-64, upper-case label pattern
int validateRetryCount(const char *value); // 1-15
int validateRetryCountInt(int value);
int validateTimeout(const char *value); // 1-30
int validateTimeoutInt(int value);
int validateSharedSecret(const char *value); // 1-511 bytes
// Exactly one byte, accepted by validSeparators.
int validateCompoundSeparator(const char *value);

#ifdef __cplusplus
}
#endif

#endif
