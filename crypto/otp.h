// One-time codes: HOTP (RFC 4226) and TOTP (RFC 6238) with the shared secret
// held as a generic-secret HMAC key on the PKCS#11 token.
//
// Digest identifiers are those of crypto/digest.h: QN_HASH_SHA1 (8),
// QN_HASH_SHA256 (9), QN_HASH_SHA384 (10) and QN_HASH_SHA512 (11); MD5 and
// any other value give 7770005. A code is a NUL-terminated text of
// decimal digits (6, 7 or 8) in a 9-byte block that the caller releases with
// qncFree(code, QN_OTP_CODE_SIZE). Times are seconds since 1970-01-01 UTC.
// Every operation takes two trailing opaque arguments that it does not use.
//
// Results: 0, a library code below, or the token's return value when an HMAC
// fails (the token layer reports that failure itself).
#ifndef MFA_CRYPTO_OTP_H
#define MFA_CRYPTO_OTP_H

#include <stdint.h>

#include "crypto/pkcs11.h"

#ifdef __cplusplus
extern "C" {
#endif

#define QN_OTP_CODE_SIZE 9

#define QN_OTP_RC_MISSING_ARGUMENT 7770001 // also digits outside 6-8, zero period
#define QN_OTP_RC_DIGEST 7770005
#define QN_OTP_RC_ALLOC 7770014
#define QN_OTP_RC_BEFORE_T0 7770040

// The HOTP code of counter. On 7770001 *outCode is untouched; on any other
// failure it is set to null.
int32_t qn_hotp11_getcode(qn_pkcs11_session *session, const qn_pkcs11_key *key, uint32_t digest,
                          uint64_t counter, int digits, char **outCode, void *opaque1,
                          void *opaque2);

// The TOTP code at time: the HOTP code of (time - t0) / period. A time before
// t0 gives 7770040, a zero period 7770001.
int32_t qn_totp11_getcode(qn_pkcs11_session *session, const qn_pkcs11_key *key, uint32_t digest,
                          uint64_t time, uint32_t period, uint64_t t0, int digits, char **outCode,
                          void *opaque1, void *opaque2);

// The TOTP code of the current time, which is also handed out through outNow
// when that is not null.
int32_t qn_totp11_getcode_now_ex(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                 uint32_t digest, uint32_t period, uint64_t t0, int digits,
                                 uint64_t *outNow, char **outCode, void *opaque1, void *opaque2);
int32_t qn_totp11_getcode_now(qn_pkcs11_session *session, const qn_pkcs11_key *key, uint32_t digest,
                              uint32_t period, uint64_t t0, int digits, char **outCode,
                              void *opaque1, void *opaque2);

// Checks a user-entered code against the time steps from window steps before
// the current one to window steps after it, oldest first; the first match
// wins. The current step is (now + clockCorrection - t0) / period, handed out
// through outCurrentCounter when that is not null. *outMatched is 1 and
// *outMatchedCounter the matching step on a match, else *outMatched is 0; a
// candidate whose length is not digits is simply not matched. A caller keeps
// the matched step to refuse a code that was already used. Returns 7770040
// when the corrected time lies before t0.
int32_t qn_totp11_checkrange_ex2(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                 uint32_t digest, uint32_t period, uint64_t t0,
                                 int32_t clockCorrection, int digits, const char *candidate,
                                 uint32_t window, int *outMatched, uint64_t *outCurrentCounter,
                                 uint64_t *outMatchedCounter, void *opaque1, void *opaque2);
// As qn_totp11_checkrange_ex2 without clock correction.
int32_t qn_totp11_checkrange_ex(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                uint32_t digest, uint32_t period, uint64_t t0, int digits,
                                const char *candidate, uint32_t window, int *outMatched,
                                uint64_t *outCurrentCounter, uint64_t *outMatchedCounter,
                                void *opaque1, void *opaque2);
// As qn_totp11_checkrange_ex without the matched step.
int32_t qn_totp11_checkrange(qn_pkcs11_session *session, const qn_pkcs11_key *key, uint32_t digest,
                             uint32_t period, uint64_t t0, int digits, const char *candidate,
                             uint32_t window, int *outMatched, uint64_t *outCurrentCounter,
                             void *opaque1, void *opaque2);

#ifdef __cplusplus
}
#endif

#endif
