#include "crypto/otp.h"

#include "crypto/digest.h"
#include "support/token.h"

#include <string>
#include <tuple>

namespace {

class OtpTest : public mfatest::TokenTest {
protected:
  void prepare() override { key_ = seedKey(32); }
  // A persistent token key holding the seed of RFC 4226 appendix D and RFC
  // 6238 appendix B, the ASCII digits "1234567890" repeated to length bytes.
  qn_pkcs11_key seedKey(std::size_t length) {
    std::string seed;
    while (seed.size() < length)
      seed += "1234567890";
    mfatest::Bytes raw = mfatest::bytesOf(seed.substr(0, length));
    qn_pkcs11_key key{};
    EXPECT_EQ(qn_pkcs11_create_hmacKeyFromRaw(session(), uniqueLabel("seed").c_str(), nullptr,
                                              raw.data(), static_cast<uint32_t>(raw.size()), &key),
              0);
    destroyLater(key);
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
                   uint32_t period = 30) {
    char *code = nullptr;
    int32_t rc =
        qn_totp11_getcode(session(), &key, digest, time, period, t0, 8, &code, nullptr, nullptr);
    return take(rc, code);
  }
  static std::string take(int32_t rc, char *code) {
    if (rc != 0)
      return "[" + std::to_string(rc) + "]";
    std::string text = code;
    qncFree(code, QN_OTP_CODE_SIZE);
    return text;
  }

  // Checking against the clock. T0 is placed so that the current time lies
  // in the middle of a 30-second step, which keeps the step fixed.
  static uint64_t t0ForStep(uint64_t step) {
    return qnclibc_currentSecondsSinceJan1970() - 15 - 30 * step;
  }
  std::string codeOf(uint64_t step, int digits = 6) {
    return hotp(key_, QN_HASH_SHA256, step, digits);
  }
  // Status, matched, current step, matched step; steps not written stay 9999.
  using Outcome = std::tuple<int32_t, int, uint64_t, uint64_t>;
  Outcome check(uint64_t t0, const std::string &candidate, uint32_t window, int32_t correction = 0,
                int digits = 6) {
    Outcome outcome{-1, -1, 9999, 9999};
    std::get<0>(outcome) = qn_totp11_checkrange_ex2(
        session(), &key_, QN_HASH_SHA256, 30, t0, correction, digits, candidate.c_str(), window,
        &std::get<1>(outcome), &std::get<2>(outcome), &std::get<3>(outcome), nullptr, nullptr);
    return outcome;
  }
  qn_pkcs11_key key_{}; // the 32-byte seed
};

TEST_P(OtpTest, CodesMatchTheRfcVectors) {
  qn_pkcs11_key sha1 = seedKey(20), sha512 = seedKey(64);
  const char *hotpCodes[] = {"755224", "287082", "359152", "969429", "338314",
                             "254676", "287922", "162583", "399871", "520489"};
  for (uint64_t counter = 0; counter < 10; counter++)
    EXPECT_EQ(hotp(sha1, QN_HASH_SHA1, counter), hotpCodes[counter]) << "counter " << counter;
  // Seven digits keep the leading zero of the padded value.
  EXPECT_EQ(hotp(sha1, QN_HASH_SHA1, 0, 7), "4755224");
  const struct {
    uint64_t time;
    const char *sha1, *sha256, *sha512;
  } rows[] = {
      {59, "94287082", "46119246", "90693936"},
      {1111111109, "07081804", "68084774", "25091201"},
      {1111111111, "14050471", "67062674", "99943326"},
      {1234567890, "89005924", "91819424", "93441116"},
      {2000000000, "69279037", "90698825", "38618901"},
      {20000000000, "65353130", "77737706", "47863826"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.time);
    EXPECT_EQ(totp(sha1, QN_HASH_SHA1, row.time), row.sha1);
    EXPECT_EQ(totp(key_, QN_HASH_SHA256, row.time), row.sha256);
    EXPECT_EQ(totp(sha512, QN_HASH_SHA512, row.time), row.sha512);
  }
}

TEST_P(OtpTest, CheckingWindowStepZeroAndClockCorrection) {
  const struct {
    uint64_t now, candidate;
    uint32_t window;
    int32_t correction;
    Outcome expected;
  } cases[] = {
      {100, 100, 0, 0, {0, 1, 100, 100}},
      {100, 99, 1, 0, {0, 1, 100, 99}},
      {100, 101, 1, 0, {0, 1, 100, 101}},
      {100, 98, 1, 0, {0, 0, 100, 9999}},
      {100, 102, 1, 0, {0, 0, 100, 9999}},
      // The window is cut at step zero.
      {0, 3, 3, 0, {0, 1, 0, 3}},
      {0, 4, 3, 0, {0, 0, 0, 9999}},
      // The correction moves the current step, and may take it before T0.
      {100, 98, 0, -60, {0, 1, 98, 98}},
      {100, 100, 0, -60, {0, 0, 98, 9999}},
      {100, 102, 0, 60, {0, 1, 102, 102}},
      {100, 0, 0, -3100, {QN_OTP_RC_BEFORE_T0, 0, 9999, 9999}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << "step " << c.now << ", candidate " << c.candidate
                                    << ", correction " << c.correction);
    EXPECT_EQ(check(t0ForStep(c.now), codeOf(c.candidate), c.window, c.correction), c.expected);
  }
  // A candidate of another length than asked for never matches.
  uint64_t t0 = t0ForStep(100);
  EXPECT_EQ(std::get<1>(check(t0, codeOf(100), 1, 0, 8)), 0);
  EXPECT_EQ(std::get<1>(check(t0, codeOf(100) + "0", 0)), 0);
  EXPECT_EQ(std::get<1>(check(t0, codeOf(100, 8), 0, 0, 8)), 1);
}

TEST_P(OtpTest, RefusalsWrappersAndTokenFailures) {
  char sentinel[] = "sentinel";
  char *code = sentinel;
  for (int digits : {5, 9})
    EXPECT_EQ(qn_hotp11_getcode(session(), &key_, QN_HASH_SHA1, 0, digits, &code, nullptr, nullptr),
              QN_OTP_RC_MISSING_ARGUMENT);
  EXPECT_EQ(code, sentinel);
  // Other failures clear the code.
  EXPECT_EQ(qn_hotp11_getcode(session(), &key_, QN_HASH_MD5, 0, 6, &code, nullptr, nullptr),
            QN_OTP_RC_DIGEST);
  EXPECT_EQ(code, nullptr);
  EXPECT_EQ(totp(key_, QN_HASH_SHA1, 100, 101), "[7770040]");
  // A key the token does not know: its code is handed on, with no code made.
  qn_pkcs11_key bogus{env(), 0x7FFFFFF0};
  code = sentinel;
  auto [rc, printed] = mfatest::statusAndOutput([&] {
    return qn_hotp11_getcode(session(), &bogus, QN_HASH_SHA256, 1, 6, &code, nullptr, nullptr);
  });
  EXPECT_NE(rc, 0) << printed;
  EXPECT_EQ(code, nullptr);

  int matched = 0;
  uint64_t current = 0, t0 = t0ForStep(100);
  EXPECT_EQ(qn_totp11_checkrange_ex2(session(), &key_, QN_HASH_SHA256, 30, t0, 0, 6, "123456", 1,
                                     &matched, nullptr, nullptr, nullptr, nullptr),
            QN_OTP_RC_MISSING_ARGUMENT);
  // The shortest form passes through the others without a correction.
  ASSERT_EQ(qn_totp11_checkrange(session(), &key_, QN_HASH_SHA256, 30, t0, 6, codeOf(101).c_str(),
                                 1, &matched, &current, nullptr, nullptr),
            0);
  EXPECT_EQ(std::pair(matched, current), std::pair(1, uint64_t{100}));
  // The code of now, with a period long enough that the step cannot change.
  uint64_t before = qnclibc_currentSecondsSinceJan1970(), now = 0;
  ASSERT_EQ(qn_totp11_getcode_now_ex(session(), &key_, QN_HASH_SHA1, 1000000, 0, 8, &now, &code,
                                     nullptr, nullptr),
            0);
  EXPECT_GE(now, before);
  EXPECT_LE(now, qnclibc_currentSecondsSinceJan1970());
  EXPECT_EQ(take(0, code), totp(key_, QN_HASH_SHA1, now, 0, 1000000));
}

MFA_INSTANTIATE_ON_TOKENS(OtpTest);

} // namespace
