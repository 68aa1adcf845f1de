// HOTP and TOTP codes computed with the token's HMAC.
#include "crypto/otp.h"

#include "crypto/digest.h"

#include <cstdio>
#include <cstring>
#include <limits>

namespace {

using HmacFunction = int32_t (*)(qn_pkcs11_session *, const qn_pkcs11_key *, const unsigned char *,
                                 uint32_t, unsigned char *, uint32_t *);

struct OtpDigest {
  uint32_t digest;
  uint32_t hmacLength;
  HmacFunction hmac;
};

constexpr OtpDigest kDigests[] = {{QN_HASH_SHA1, 20, qn_pkcs11_hmac_SHA1},
                                  {QN_HASH_SHA256, 32, qn_pkcs11_hmac_SHA256},
                                  {QN_HASH_SHA384, 48, qn_pkcs11_hmac_SHA384},
                                  {QN_HASH_SHA512, 64, qn_pkcs11_hmac_SHA512}};

constexpr uint32_t kPowersOfTen[] = {1000000, 10000000, 100000000};

bool validDigits(int digits) {
  return digits >= 6 && digits <= 8;
}

// The HMAC block, wiped and released on every path.
class HmacBuffer {
public:
  explicit HmacBuffer(uint32_t size)
      : data_(reinterpret_cast<unsigned char *>(qncAlloc(static_cast<int>(size), "hmacbuf"))),
        size_(size) {}
  HmacBuffer(const HmacBuffer &) = delete;
  HmacBuffer &operator=(const HmacBuffer &) = delete;
  ~HmacBuffer() { qncFree(data_, static_cast<int>(size_)); }
  unsigned char *get() const { return data_; }

private:
  unsigned char *data_;
  uint32_t size_;
};

// Compares the codes without stopping at the first difference, so that the
// time taken does not tell how many leading digits were right.
bool sameCode(const char *code, const char *candidate, int digits) {
  unsigned char difference = 0;
  for (int i = 0; i < digits; i++)
    difference |= static_cast<unsigned char>(code[i] ^ candidate[i]);
  return difference == 0;
}

int32_t hotp(qn_pkcs11_session *session, const qn_pkcs11_key *key, uint32_t digest,
             uint64_t counter, int digits, char **outCode) {
  const OtpDigest *selected = nullptr;
  for (const OtpDigest &candidate : kDigests)
    if (candidate.digest == digest)
      selected = &candidate;
  if (selected == nullptr)
    return QN_OTP_RC_DIGEST;
  HmacBuffer mac(selected->hmacLength);
  if (mac.get() == nullptr)
    return QN_OTP_RC_ALLOC;
  unsigned char message[8];
  for (int i = 7; i >= 0; i--, counter >>= 8)
    message[i] = static_cast<unsigned char>(counter & 0xFF);
  uint32_t macLength = selected->hmacLength;
  int32_t rc = selected->hmac(session, key, message, sizeof message, mac.get(), &macLength);
  if (rc != 0)
    return rc;
  // Dynamic truncation reads four bytes from an offset of at most 15 taken
  // from the last byte; a shorter answer from the token cannot be truncated.
  if (macLength < 20 || macLength > selected->hmacLength)
    return static_cast<int32_t>(CKR_FUNCTION_FAILED);
  const unsigned char *bytes = mac.get();
  unsigned offset = bytes[macLength - 1] & 0x0F;
  uint32_t value = (bytes[offset] & 0x7Fu) << 24 | bytes[offset + 1] << 16 |
                   bytes[offset + 2] << 8 | bytes[offset + 3];
  char *code = qncAlloc(QN_OTP_CODE_SIZE, "outstr");
  if (code == nullptr)
    return QN_OTP_RC_ALLOC;
  // Written digit by digit, zero-padded on the left: the code always fills
  // exactly digits places of the zeroed buffer.
  uint32_t rest = value % kPowersOfTen[digits - 6];
  for (int place = digits - 1; place >= 0; --place, rest /= 10)
    code[place] = static_cast<char>('0' + rest % 10);
  *outCode = code;
  return 0;
}

} // namespace

extern "C" {

int32_t qn_hotp11_getcode(qn_pkcs11_session *session, const qn_pkcs11_key *key, uint32_t digest,
                          uint64_t counter, int digits, char **outCode, void *, void *) {
  if (outCode == nullptr || session == nullptr || key == nullptr || !validDigits(digits))
    return QN_OTP_RC_MISSING_ARGUMENT;
  int32_t rc = hotp(session, key, digest, counter, digits, outCode);
  if (rc != 0)
    *outCode = nullptr;
  return rc;
}

int32_t qn_totp11_getcode(qn_pkcs11_session *session, const qn_pkcs11_key *key, uint32_t digest,
                          uint64_t time, uint32_t period, uint64_t t0, int digits, char **outCode,
                          void *opaque1, void *opaque2) {
  if (period == 0)
    return QN_OTP_RC_MISSING_ARGUMENT;
  if (time < t0)
    return QN_OTP_RC_BEFORE_T0;
  return qn_hotp11_getcode(session, key, digest, (time - t0) / period, digits, outCode, opaque1,
                           opaque2);
}

int32_t qn_totp11_getcode_now_ex(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                 uint32_t digest, uint32_t period, uint64_t t0, int digits,
                                 uint64_t *outNow, char **outCode, void *opaque1, void *opaque2) {
  uint64_t now = qnclibc_currentSecondsSinceJan1970();
  if (outNow != nullptr)
    *outNow = now;
  return qn_totp11_getcode(session, key, digest, now, period, t0, digits, outCode, opaque1,
                           opaque2);
}

int32_t qn_totp11_getcode_now(qn_pkcs11_session *session, const qn_pkcs11_key *key, uint32_t digest,
                              uint32_t period, uint64_t t0, int digits, char **outCode,
                              void *opaque1, void *opaque2) {
  return qn_totp11_getcode_now_ex(session, key, digest, period, t0, digits, nullptr, outCode,
                                  opaque1, opaque2);
}

int32_t qn_totp11_checkrange_ex2(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                 uint32_t digest, uint32_t period, uint64_t t0,
                                 int32_t clockCorrection, int digits, const char *candidate,
                                 uint32_t window, int *outMatched, uint64_t *outCurrentCounter,
                                 uint64_t *outMatchedCounter, void *opaque1, void *opaque2) {
  if (session == nullptr || key == nullptr || period == 0 || !validDigits(digits) ||
      candidate == nullptr || outMatched == nullptr || outMatchedCounter == nullptr)
    return QN_OTP_RC_MISSING_ARGUMENT;
  *outMatched = 0;
  if (strnlen(candidate, 9) != static_cast<std::size_t>(digits))
    return 0;
  // The correction is signed; a corrected time before 1970 lies before any T0.
  uint64_t now = qnclibc_currentSecondsSinceJan1970();
  uint64_t corrected = now + static_cast<uint64_t>(static_cast<int64_t>(clockCorrection));
  if ((clockCorrection < 0 && corrected > now) || t0 > corrected)
    return QN_OTP_RC_BEFORE_T0;
  uint64_t counter = (corrected - t0) / period;
  if (outCurrentCounter != nullptr)
    *outCurrentCounter = counter;
  uint64_t first = counter <= window ? 0 : counter - window;
  uint64_t last = counter > std::numeric_limits<uint64_t>::max() - window
                      ? std::numeric_limits<uint64_t>::max()
                      : counter + window;
  for (uint64_t step = first;; step++) {
    char *code = nullptr;
    int32_t rc = qn_hotp11_getcode(session, key, digest, step, digits, &code, opaque1, opaque2);
    if (rc != 0)
      return rc;
    bool matched = sameCode(code, candidate, digits);
    qncFree(code, QN_OTP_CODE_SIZE);
    if (matched) {
      *outMatched = 1;
      *outMatchedCounter = step;
      return 0;
    }
    if (step == last)
      return 0;
  }
}

int32_t qn_totp11_checkrange_ex(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                uint32_t digest, uint32_t period, uint64_t t0, int digits,
                                const char *candidate, uint32_t window, int *outMatched,
                                uint64_t *outCurrentCounter, uint64_t *outMatchedCounter,
                                void *opaque1, void *opaque2) {
  return qn_totp11_checkrange_ex2(session, key, digest, period, t0, 0, digits, candidate, window,
                                  outMatched, outCurrentCounter, outMatchedCounter, opaque1,
                                  opaque2);
}

int32_t qn_totp11_checkrange(qn_pkcs11_session *session, const qn_pkcs11_key *key, uint32_t digest,
                             uint32_t period, uint64_t t0, int digits, const char *candidate,
                             uint32_t window, int *outMatched, uint64_t *outCurrentCounter,
                             void *opaque1, void *opaque2) {
  uint64_t matchedCounter = 0;
  return qn_totp11_checkrange_ex(session, key, digest, period, t0, digits, candidate, window,
                                 outMatched, outCurrentCounter, &matchedCounter, opaque1, opaque2);
}

} // extern "C"
