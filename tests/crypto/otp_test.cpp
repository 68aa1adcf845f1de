#include "crypto/otp.h"

#include "crypto/digest.h"
#include "support/token.h"

#include <string>

namespace {

using mfatest::TokenTest;

// The seeds of RFC 4226 appendix D and RFC 6238 appendix B: the ASCII digits
// "1234567890" repeated to 20, 32 and 64 bytes.
std::string seed(std::size_t length) {
  std::string text;
  while (text.size() < length)
    text += "1234567890";
  return text.substr(0, length);
}

class OtpTest : public TokenTest {
protected:
  // A persistent token key holding the seed, as the TOTP factor keeps it.
  qn_pkcs11_key seedKey(std::size_t length) {
    std::string raw = seed(length);
    qn_pkcs11_key key{};
    EXPECT_EQ(qn_pkcs11_create_hmacKeyFromRaw(session(), uniqueLabel("seed").c_str(), nullptr,
                                              reinterpret_cast<const unsigned char *>(raw.data()),
                                              static_cast<uint32_t>(raw.size()), &key),
              0);
    token().destroyLater(key);
    return key;
  }

  // The code, or the error code in brackets.
  std::string hotp(const qn_pkcs11_key &key, uint32_t digest, uint64_t counter, int digits = 6) {
    char *code = nullptr;
    int32_t rc =
        qn_hotp11_getcode(session(), &key, digest, counter, digits, &code, nullptr, nullptr);
    return take(rc, code);
  }
  std::string totp(const qn_pkcs11_key &key, uint32_t digest, uint64_t time, uint64_t t0 = 0,
                   uint32_t period = 30, int digits = 8) {
    char *code = nullptr;
    int32_t rc = qn_totp11_getcode(session(), &key, digest, time, period, t0, digits, &code,
                                   nullptr, nullptr);
    return take(rc, code);
  }

  static std::string take(int32_t rc, char *code) {
    if (rc != 0)
      return std::string("[").append(std::to_string(rc)).append(code ? " with a code]" : "]");
    std::string text = code;
    qncFree(code, QN_OTP_CODE_SIZE);
    return text;
  }
};

TEST_P(OtpTest, HotpMatchesRfc4226AppendixD) {
  qn_pkcs11_key key = seedKey(20);
  const char *expected[] = {"755224", "287082", "359152", "969429", "338314",
                            "254676", "287922", "162583", "399871", "520489"};
  for (uint64_t counter = 0; counter < 10; counter++)
    EXPECT_EQ(hotp(key, QN_HASH_SHA1, counter), expected[counter]) << "counter " << counter;
  // Seven digits keep the leading zero of the padded value.
  EXPECT_EQ(hotp(key, QN_HASH_SHA1, 0, 7), "4755224");
}

TEST_P(OtpTest, TotpMatchesRfc6238AppendixB) {
  struct Row {
    uint64_t time;
    const char *sha1, *sha256, *sha512;
  };
  const Row rows[] = {
      {59, "94287082", "46119246", "90693936"},
      {1111111109, "07081804", "68084774", "25091201"},
      {1111111111, "14050471", "67062674", "99943326"},
      {1234567890, "89005924", "91819424", "93441116"},
      {2000000000, "69279037", "90698825", "38618901"},
      {20000000000, "65353130", "77737706", "47863826"},
  };
  qn_pkcs11_key sha1 = seedKey(20), sha256 = seedKey(32), sha512 = seedKey(64);
  for (const Row &row : rows) {
    SCOPED_TRACE(row.time);
    EXPECT_EQ(totp(sha1, QN_HASH_SHA1, row.time), row.sha1);
    EXPECT_EQ(totp(sha256, QN_HASH_SHA256, row.time), row.sha256);
    EXPECT_EQ(totp(sha512, QN_HASH_SHA512, row.time), row.sha512);
  }
  // T0 shifts the steps: 59 seconds after a T0 of 30 is step 0.
  EXPECT_EQ(totp(sha1, QN_HASH_SHA1, 59, 30), totp(sha1, QN_HASH_SHA1, 29));
}

TEST_P(OtpTest, GenerationRefusesBadArguments) {
  qn_pkcs11_key key = seedKey(20);
  char sentinel[] = "sentinel";
  char *code = sentinel;
  for (int digits : {5, 9}) {
    EXPECT_EQ(qn_hotp11_getcode(session(), &key, QN_HASH_SHA1, 0, digits, &code, nullptr, nullptr),
              QN_OTP_RC_MISSING_ARGUMENT);
    EXPECT_EQ(code, sentinel);
  }
  // Other failures clear the code.
  EXPECT_EQ(qn_hotp11_getcode(session(), &key, QN_HASH_MD5, 0, 6, &code, nullptr, nullptr),
            QN_OTP_RC_DIGEST);
  EXPECT_EQ(code, nullptr);
  EXPECT_EQ(hotp(key, 12, 0), "[7770005]");

  EXPECT_EQ(totp(key, QN_HASH_SHA1, 100, 0, 0), "[7770001]");
  EXPECT_EQ(totp(key, QN_HASH_SHA1, 100, 101), "[7770040]");
  EXPECT_EQ(totp(key, QN_HASH_SHA1, 100, 100), totp(key, QN_HASH_SHA1, 0));
  uint64_t now = qnclibc_currentSecondsSinceJan1970();
  code = sentinel;
  EXPECT_EQ(qn_totp11_getcode_now(session(), &key, QN_HASH_SHA1, 30, now + 3600, 6, &code, nullptr,
                                  nullptr),
            QN_OTP_RC_BEFORE_T0);
}

TEST_P(OtpTest, TokenFailureIsPassedOnAndLeavesNoCode) {
  qn_pkcs11_key bogus{token().env(), 0x7FFFFFF0};
  std::string code;
  std::string printed = mfatest::captureStdout([&] { code = hotp(bogus, QN_HASH_SHA256, 1); });
  // The providers differ in the code (CKR_KEY_HANDLE_INVALID or
  // CKR_OBJECT_HANDLE_INVALID); either is handed on as the token gave it.
  ASSERT_EQ(code.front(), '[');
  std::string rc = code.substr(1, code.size() - 2);
  EXPECT_TRUE(rc == std::to_string(CKR_KEY_HANDLE_INVALID) ||
              rc == std::to_string(CKR_OBJECT_HANDLE_INVALID))
      << code;
  EXPECT_EQ(printed.rfind("C_SignInit (HMAC) returned:  " + rc + " (0x", 0), 0u) << printed;
}

TEST_P(OtpTest, CodeOfNowUsesTheCurrentTime) {
  qn_pkcs11_key key = seedKey(20);
  // A period long enough that the step cannot change during the test.
  const uint32_t period = 1000000;
  uint64_t before = qnclibc_currentSecondsSinceJan1970();
  uint64_t now = 0;
  char *code = nullptr;
  ASSERT_EQ(qn_totp11_getcode_now_ex(session(), &key, QN_HASH_SHA1, period, 0, 8, &now, &code,
                                     nullptr, nullptr),
            0);
  EXPECT_GE(now, before);
  EXPECT_LE(now, qnclibc_currentSecondsSinceJan1970());
  EXPECT_EQ(take(0, code), totp(key, QN_HASH_SHA1, now, 0, period));
}

// Checking against the clock. T0 is placed so that the current time lies in
// the middle of a 30-second step, which keeps the step fixed for the test.
class CheckRangeTest : public OtpTest {
protected:
  void SetUp() override {
    OtpTest::SetUp();
    if (IsSkipped() || HasFatalFailure())
      return;
    key_ = seedKey(32);
  }
  // T0 such that the current step is `step`.
  static uint64_t t0ForStep(uint64_t step) {
    return qnclibc_currentSecondsSinceJan1970() - 15 - 30 * step;
  }
  std::string codeOf(uint64_t step, int digits = 6) {
    return hotp(key_, QN_HASH_SHA256, step, digits);
  }
  struct Outcome {
    int32_t rc;
    int matched;
    uint64_t current;
    uint64_t matchedStep;
  };
  Outcome check(uint64_t t0, const std::string &candidate, uint32_t window, int32_t correction = 0,
                int digits = 6) {
    Outcome outcome{-1, -1, 9999, 9999};
    outcome.rc = qn_totp11_checkrange_ex2(session(), &key_, QN_HASH_SHA256, 30, t0, correction,
                                          digits, candidate.c_str(), window, &outcome.matched,
                                          &outcome.current, &outcome.matchedStep, nullptr, nullptr);
    return outcome;
  }
  qn_pkcs11_key key_{};
};

TEST_P(CheckRangeTest, WindowAcceptsNeighbouringStepsOnly) {
  uint64_t t0 = t0ForStep(100);
  Outcome now = check(t0, codeOf(100), 0);
  EXPECT_EQ(now.rc, 0);
  EXPECT_EQ(now.matched, 1);
  EXPECT_EQ(now.current, 100u);
  EXPECT_EQ(now.matchedStep, 100u);

  Outcome previous = check(t0, codeOf(99), 1);
  EXPECT_EQ(previous.matched, 1);
  EXPECT_EQ(previous.matchedStep, 99u);
  EXPECT_EQ(check(t0, codeOf(101), 1).matchedStep, 101u);
  EXPECT_EQ(check(t0, codeOf(99), 0).matched, 0);

  Outcome old = check(t0, codeOf(98), 1);
  EXPECT_EQ(old.rc, 0);
  EXPECT_EQ(old.matched, 0);
  EXPECT_EQ(old.matchedStep, 9999u) << "untouched without a match";
  EXPECT_EQ(check(t0, codeOf(102), 1).matched, 0);
}

TEST_P(CheckRangeTest, WindowIsCutAtStepZero) {
  uint64_t t0 = t0ForStep(0);
  Outcome third = check(t0, codeOf(3), 3);
  EXPECT_EQ(third.matched, 1);
  EXPECT_EQ(third.current, 0u);
  EXPECT_EQ(third.matchedStep, 3u);
  EXPECT_EQ(check(t0, codeOf(4), 3).matched, 0);
  EXPECT_EQ(check(t0, codeOf(0), 3).matchedStep, 0u);
}

TEST_P(CheckRangeTest, ClockCorrectionMovesTheCurrentStep) {
  uint64_t t0 = t0ForStep(100);
  Outcome behind = check(t0, codeOf(98), 0, -60);
  EXPECT_EQ(behind.current, 98u);
  EXPECT_EQ(behind.matched, 1);
  EXPECT_EQ(check(t0, codeOf(100), 0, -60).matched, 0);
  EXPECT_EQ(check(t0, codeOf(102), 0, 60).matched, 1);
  // A correction that takes the time before T0.
  EXPECT_EQ(check(t0, codeOf(0), 0, -3100).rc, QN_OTP_RC_BEFORE_T0);
}

TEST_P(CheckRangeTest, RefusalsAndUnmatchableCandidates) {
  uint64_t t0 = t0ForStep(100);
  EXPECT_EQ(check(qnclibc_currentSecondsSinceJan1970() + 600, codeOf(0), 1).rc,
            QN_OTP_RC_BEFORE_T0);

  // Eight digits asked for, six given: not matched, and the token is never
  // asked (a closed session would fail any HMAC).
  qn_pkcs11_session closed{};
  int matched = -1;
  uint64_t matchedStep = 0;
  EXPECT_EQ(qn_totp11_checkrange_ex2(&closed, &key_, QN_HASH_SHA256, 30, t0, 0, 8,
                                     codeOf(100).c_str(), 1, &matched, nullptr, &matchedStep,
                                     nullptr, nullptr),
            0);
  EXPECT_EQ(matched, 0);
  EXPECT_EQ(check(t0, codeOf(100) + "0", 0).matched, 0);
  EXPECT_EQ(check(t0, codeOf(100, 8), 0, 0, 8).matched, 1);

  int32_t rc = qn_totp11_checkrange_ex2(session(), &key_, QN_HASH_SHA256, 0, t0, 0, 6, "123456", 1,
                                        &matched, nullptr, &matchedStep, nullptr, nullptr);
  EXPECT_EQ(rc, QN_OTP_RC_MISSING_ARGUMENT);
  rc = qn_totp11_checkrange_ex2(session(), &key_, QN_HASH_SHA256, 30, t0, 0, 6, "123456", 1,
                                &matched, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(rc, QN_OTP_RC_MISSING_ARGUMENT);
  rc = qn_totp11_checkrange_ex2(session(), &key_, QN_HASH_MD5, 30, t0, 0, 6, "123456", 1, &matched,
                                nullptr, &matchedStep, nullptr, nullptr);
  EXPECT_EQ(rc, QN_OTP_RC_DIGEST);
}

TEST_P(CheckRangeTest, WrappersCheckWithoutCorrection) {
  uint64_t t0 = t0ForStep(50);
  int matched = 0;
  uint64_t current = 0, matchedStep = 0;
  ASSERT_EQ(qn_totp11_checkrange_ex(session(), &key_, QN_HASH_SHA256, 30, t0, 6, codeOf(49).c_str(),
                                    1, &matched, &current, &matchedStep, nullptr, nullptr),
            0);
  EXPECT_EQ(matched, 1);
  EXPECT_EQ(current, 50u);
  EXPECT_EQ(matchedStep, 49u);
  matched = 0;
  ASSERT_EQ(qn_totp11_checkrange(session(), &key_, QN_HASH_SHA256, 30, t0, 6, codeOf(51).c_str(), 1,
                                 &matched, nullptr, nullptr, nullptr),
            0);
  EXPECT_EQ(matched, 1);
}

MFA_INSTANTIATE_ON_TOKENS(OtpTest);
MFA_INSTANTIATE_ON_TOKENS(CheckRangeTest);

} // namespace
