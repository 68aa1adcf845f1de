#include "settings/validators.h"

#include <regex.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include "base/textutils.h"

extern "C" {
const char Alpha[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
const char AlphaUpperCase[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
const char Numeric[] = "0123456789";
const char National[] = "@#$";
}

namespace {

// Compiles pattern, matches the whole of value and frees the expression.
// A pattern that does not compile accepts nothing.
int matches(const char *pattern, const char *value) {
  if (value == nullptr)
    return 0;
  regex_t expression;
  if (regcomp(&expression, pattern, REG_EXTENDED | REG_ICASE | REG_NOSUB) != 0)
    return 0;
  int found = regexec(&expression, value, 0, nullptr, 0) == 0;
  regfree(&expression);
  return found;
}

// Whether the length of value in bytes is between low and high; a null value
// never is.
bool lengthWithin(const char *value, size_t low, size_t high) {
  if (value == nullptr)
    return false;
  size_t length = strnlen(value, high + 1);
  return length >= low && length <= high;
}

bool within(int value, int low, int high) {
  return value >= low && value <= high;
}

// Digits only, at most maxDigits of them, with a value from low to high.
// The pattern runs before the conversion, so atoi never sees a sign or blank
// and never more digits than an int holds.
int decimalWithin(const char *value, size_t maxDigits, int low, int high) {
  return lengthWithin(value, 1, maxDigits) && ValidateNumeric(value) &&
         within(atoi(value), low, high);
}

bool oneOf(const char *value, std::initializer_list<const char *> words) {
  for (const char *word : words)
    if (stringsNotEqual(value, word) == 0)
      return true;
  return false;
}

// A qualifier of a data set name: 1-8 characters, first not numeric.
bool validQualifier(std::string_view qualifier) {
  if (qualifier.empty() || qualifier.size() > 8)
    return false;
  char text[9] = {};
  qualifier.copy(text, qualifier.size());
  return ValidateAlphaNumericNationalHyphenFirstNotNumeric(text);
}

} // namespace

extern "C" {

const int validSeparators[256] = {
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, // 0x00
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, // 0x10
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, // 0x20
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, // 0x30
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, // 0x40
    1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 0, // 0x50
    1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, // 0x60
    0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 1, 1, 1, // 0x70
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, // 0x80
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, // 0x90
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, // 0xA0
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, // 0xB0
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, // 0xC0
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, // 0xD0
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, // 0xE0
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, // 0xF0
};

int ValidateNumeric(const char *value) {
  char pattern[128] = {};
  snprintf(pattern, sizeof pattern, "^([%s]*){0,1}$", Numeric);
  return matches(pattern, value);
}

int ValidateAlphaNumericNational(const char *value) {
  char pattern[128] = {};
  snprintf(pattern, sizeof pattern, "^([%s%s%s]*){0,1}$", Alpha, Numeric, National);
  return matches(pattern, value);
}

int ValidateAlphaNumericNationalHyphenFirstNotNumeric(const char *value) {
  char pattern[256] = {};
  snprintf(pattern, sizeof pattern, "^([%s%s][%s%s%s-]*){0,1}$", Alpha, National, Alpha, Numeric,
           National);
  return matches(pattern, value);
}

int ValidateAlphaNumericNationalPeriodFirstNotNumeric(const char *value) {
  char pattern[256] = {};
  snprintf(pattern, sizeof pattern, "^([%s%s][%s%s%s.]*){0,1}$", Alpha, National, Alpha, Numeric,
           National);
  return matches(pattern, value);
}

int ValidateAlphaUpperNumericNationalPeriodFirstNotNumeric(const char *value) {
  char pattern[256] = {};
  snprintf(pattern, sizeof pattern, "^([%s%s][%s%s%s.]*){0,1}$", AlphaUpperCase, National,
           AlphaUpperCase, Numeric, National);
  return matches(pattern, value);
}

int validateCTCEvaluationWindow(const char *value) {
  return decimalWithin(value, 5, 30, 86400);
}
int validateCTCEvaluationWindowInt(int value) {
  return within(value, 30, 86400);
}

int validateDsname(const char *value) {
  if (!lengthWithin(value, 1, 44))
    return 0;
  std::string_view name(value);
  if (name.back() == '.' || name.find("..") != std::string_view::npos)
    return 0;
  if (name.front() == '.')
    name.remove_prefix(1);
  int qualifiers = 0;
  for (;;) {
    size_t dot = name.find('.');
    if (!validQualifier(name.substr(0, dot)))
      return 0;
    qualifiers++;
    if (dot == std::string_view::npos)
      break;
    name.remove_prefix(dot + 1);
  }
  return qualifiers >= 2;
}

int validatePKCS11Token(const char *value) {
  return lengthWithin(value, 1, 32) &&
         ValidateAlphaUpperNumericNationalPeriodFirstNotNumeric(value);
}

int validateRootCertificateLocation(const char *value) {
  return lengthWithin(value, 1, 255);
}
int validateHostName(const char *value) {
  return lengthWithin(value, 1, 255);
}
int validateDocumentRoot(const char *value) {
  return lengthWithin(value, 1, 255);
}

int validateRealmName(const char *value) {
  return lengthWithin(value, 1, 8) && ValidateAlphaNumericNational(value);
}

int validatePort(const char *value) {
  return decimalWithin(value, 5, 1, 65535);
}
int validatePortInt(int value) {
  return within(value, 1, 65535);
}
int validateportAllowZero(const char *value) {
  return decimalWithin(value, 5, 0, 65535);
}
int validatePortAllowZeroInt(int value) {
  return within(value, 0, 65535);
}

int validateDigestAlg(const char *value) {
  return lengthWithin(value, 1, 6) && oneOf(value, {"SHA1", "SHA256", "SHA384", "SHA512"});
}

int validateTokenNumDigits(const char *value) {
  return lengthWithin(value, 1, 1) && oneOf(value, {"6", "7", "8"});
}
int validateTokenNumDigitsInt(int value) {
  return within(value, 6, 8);
}

int validateTokenPeriod(const char *value) {
  return lengthWithin(value, 1, 2) && oneOf(value, {"15", "30", "60"});
}
int validateTokenPeriodInt(int value) {
  return value == 15 || value == 30 || value == 60;
}

int validateAuthWindow(const char *value) {
  return decimalWithin(value, 2, 1, 10);
}
int validateTOTPAuthWindowInt(int value) {
  return within(value, 1, 10);
}

int validateCacheName(const char *value, int allowEmpty) {
  if (value == nullptr || value[0] == '\0')
    return allowEmpty != 0;
  return lengthWithin(value, 1, 8) && ValidateAlphaNumericNational(value);
}

int validateCacheEntries(const char *value, int) {
  // Zero is accepted only by the integer form: the length bound below
  // already refuses a one-digit text.
  return lengthWithin(value, 4, 7) && ValidateNumeric(value) && within(atoi(value), 1024, 1048576);
}
int validateCacheEntriesInt(int value, int allowZero) {
  return (value == 0 && allowZero != 0) || within(value, 1024, 1048576);
}

int validateUserPassword(const char *user, const char *password) {
  return user != nullptr && user[0] != '\0' && password != nullptr && password[0] != '\0';
}

int validateKeyLabel(const char *value) {
  return lengthWithin(value, 1, 64) &&
         ValidateAlphaUpperNumericNationalPeriodFirstNotNumeric(value);
}

int validateRetryCount(const char *value) {
  return decimalWithin(value, 2, 1, 15);
}
int validateRetryCountInt(int value) {
  return within(value, 1, 15);
}

int validateTimeout(const char *value) {
  return decimalWithin(value, 2, 1, 30);
}
int validateTimeoutInt(int value) {
  return within(value, 1, 30);
}

int validateSharedSecret(const char *value) {
  return lengthWithin(value, 1, 511);
}

int validateCompoundSeparator(const char *value) {
  return lengthWithin(value, 1, 1) && validSeparators[static_cast<unsigned char>(value[0])];
}

} // extern "C"
