#include "settings/validators.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace {

struct TextCase {
  const char *name;
  std::function<int(const char *)> valid;
  std::vector<std::string> accepted;
  std::vector<std::string> refused;
  int nullResult = 0;
};

struct IntCase {
  const char *name;
  int (*valid)(int);
  std::vector<int> accepted;
  std::vector<int> refused;
};

// A validator and its name.
#define V(f) #f, f

const std::string k32(32, 'A'), k33(33, 'A'), k64(64, 'K'), k65(65, 'K');
const std::string k255(255, 'x'), k256(256, 'x'), k511(511, 's'), k512(512, 's');

// The validators that take a second argument, with it fixed.
auto cacheNameOrEmpty = [](const char *v) { return validateCacheName(v, 1); };
auto cacheName = [](const char *v) { return validateCacheName(v, 0); };
auto cacheEntriesOrZero = [](const char *v) { return validateCacheEntries(v, 1); };
auto userOf = [](const char *v) { return validateUserPassword(v, "p"); };
auto passwordOf = [](const char *v) { return validateUserPassword("u", v); };
auto cacheEntriesIntOrZero = [](int v) { return validateCacheEntriesInt(v, 1); };
auto cacheEntriesInt = [](int v) { return validateCacheEntriesInt(v, 0); };

const TextCase kTextCases[] = {
    {V(ValidateNumeric), {"", "0", "0123456789"}, {"1a", "-1", " 1", "1.0"}},
    {V(ValidateAlphaNumericNational), {"", "aZ09@#$"}, {"a-b", "a.b", "a b", "a_b"}},
    {V(ValidateAlphaNumericNationalHyphenFirstNotNumeric),
     {"", "a-1", "@-", "Z9#"},
     {"1a", "-a", "a.b"}},
    {V(ValidateAlphaNumericNationalPeriodFirstNotNumeric), {"", "a.1", "$.b"}, {"1a", ".a", "a-b"}},
    // Matching ignores case, so the upper-case pattern takes lower case too.
    {V(ValidateAlphaUpperNumericNationalPeriodFirstNotNumeric),
     {"", "KVTR.TOKEN1", "kvtr.token1", "#A."},
     {"1ABC", "A-B", ".A"}},
    {V(validateCTCEvaluationWindow),
     {"30", "86400", "00030"},
     {"29", "86401", "+30", " 30", "", "000030"}},
    {V(validateDsname),
     {"SYS1.PARMLIB", "A.B", "@A.#B", ".A.B", "A-1.B", "A.TOOLONGQ",
      "A.B.C.D.E.F.G.H.I.J.K.L.M.N.O.P.Q.R.S.T.U.VW"},
     {"SYSPARM", "A..B", "A.B.", "A.TOOLONGQ9", "1A.B", "A.-B", "", ".",
      "A.B.C.D.E.F.G.H.I.J.K.L.M.N.O.P.Q.R.S.T.U.VWX"}},
    {V(validatePKCS11Token), {"KVTR.TOKEN1", "kvtr.token1", k32}, {"1ABC", k33, "", "A B"}},
    {V(validateRootCertificateLocation), {"/", k255}, {"", k256}},
    {V(validateHostName), {"h", "not a name!", k255}, {"", k256}},
    {V(validateDocumentRoot), {"/", k255}, {"", k256}},
    {V(validateRealmName), {"R", "ABC@1234"}, {"", "ABCD@1234", "A B", "A-B"}},
    {V(validatePort), {"1", "65535", "00080"}, {"0", "65536", "", "-1", "000080"}},
    {V(validateportAllowZero), {"0", "65535"}, {"65536", "", "+0"}},
    {V(validateDigestAlg),
     {"SHA1", "SHA256", "SHA384", "SHA512"},
     {"sha1", "SHA224", "MD5", "SHA2566", ""}},
    {V(validateTokenNumDigits), {"6", "7", "8"}, {"5", "9", "06", ""}},
    {V(validateTokenPeriod), {"15", "30", "60"}, {"45", "030", "0", ""}},
    {V(validateAuthWindow), {"1", "10", "01"}, {"0", "11", "010", ""}},
    {V(cacheNameOrEmpty), {"", "CACHE@1"}, {"CACHE@123", "A-B"}, 1},
    {V(cacheName), {"C"}, {""}},
    // The text form never takes zero, even when allowed.
    {V(cacheEntriesOrZero),
     {"1024", "1048576", "0001024"},
     {"0", "1023", "1048577", "00001024", ""}},
    // Both parts are needed: empty or null either side is refused.
    {V(userOf), {"u"}, {""}},
    {V(passwordOf), {"p"}, {""}},
    {V(validateKeyLabel), {"KVTRSTC.AESKEY", "@KEY.1", k64}, {"KEY-1", "", k65, "1KEY"}},
    {V(validateRetryCount), {"1", "15"}, {"0", "16", ""}},
    {V(validateTimeout), {"1", "30"}, {"0", "31", ""}},
    {V(validateSharedSecret), {"s", k511}, {"", k512}},
    {V(validateCompoundSeparator),
     {"K", "P", "\\", "^", "`", "a", "o", "v", "z", "}", "~", "\x7f"},
     {",", ".", "J", "Q", "[", "_", "b", "p", "KK", "", "\xcb"}},
};

const IntCase kIntCases[] = {
    {V(validateCTCEvaluationWindowInt), {30, 86400}, {29, 86401}},
    {V(validatePortInt), {1, 65535}, {0, 65536, -1}},
    {V(validatePortAllowZeroInt), {0, 65535}, {-1, 65536}},
    {V(validateTokenNumDigitsInt), {6, 8}, {5, 9}},
    {V(validateTokenPeriodInt), {15, 30, 60}, {14, 16, 45, 0}},
    {V(validateTOTPAuthWindowInt), {1, 10}, {0, 11}},
    {V(cacheEntriesIntOrZero), {0, 1024, 1048576}, {1, 1023, 1048577}},
    {V(cacheEntriesInt), {1024}, {0}},
    {V(validateRetryCountInt), {1, 15}, {0, 16}},
    {V(validateTimeoutInt), {1, 30}, {0, 31}},
};

TEST(Validators, TextFormsAcceptAndRefuse) {
  for (const TextCase &c : kTextCases) {
    for (const std::string &value : c.accepted)
      EXPECT_EQ(c.valid(value.c_str()), 1) << c.name << " refused \"" << value << '"';
    for (const std::string &value : c.refused)
      EXPECT_EQ(c.valid(value.c_str()), 0) << c.name << " accepted \"" << value << '"';
    EXPECT_EQ(c.valid(nullptr), c.nullResult) << c.name << " with null";
  }
}

TEST(Validators, IntegerFormsAcceptAndRefuse) {
  for (const IntCase &c : kIntCases) {
    for (int value : c.accepted)
      EXPECT_EQ(c.valid(value), 1) << c.name << " refused " << value;
    for (int value : c.refused)
      EXPECT_EQ(c.valid(value), 0) << c.name << " accepted " << value;
  }
}

} // namespace
