// Password hashing with PBKDF2.
//
// Two layers. The PBKDF2 engine (qn_pbkdf2_*) knows no concrete
// pseudo-random function: the caller supplies three callbacks that key, run
// and release it. Engine calls return 1 for success and 0 (or a callback's
// own non-1 result) for failure.
//
// The password-hashing service (qn_pwhash_*) binds the engine to HMAC-SHA1
// computed by a PKCS#11 token on a session key made from the password, so
// the password's key never exists outside the token for longer than one
// derivation. Service calls return 0 or a code of the 777xxxx family.
#ifndef MFA_CRYPTO_PWHASH_H
#define MFA_CRYPTO_PWHASH_H

#include <stdint.h>

#include "crypto/digest.h" // QN_RC_MISSING_ARGUMENT, QN_RC_ALLOC_FAILED

#ifdef __cplusplus
extern "C" {
#endif

struct qn_pkcs11_session;

#define QN_RC_SALT_TOO_SHORT 7770007
#define QN_RC_OUTPUT_TOO_SHORT 7770008
#define QN_RC_PBKDF2_PARAMETERS 7770050
#define QN_RC_PBKDF2_FAILED 7770051

#define QN_PBKDF2_MODE_KEY_ONCE 1u      // keyed once per derivation
#define QN_PBKDF2_MODE_KEY_PER_BLOCK 2u // keyed and released for every block

#define QN_PBKDF2_MAX_ITERATIONS 1000000u
// Size of each work area of a block: salt length + 4 and hLen must fit.
#define QN_PBKDF2_WORK_AREA 256u

// Keys a PRF with the password; returns 1 and sets *prfState on success.
typedef int (*qn_pbkdf2_keying_fn)(void *prfArgument, const unsigned char *password,
                                   uint32_t passwordLength, void **prfState);
// Runs the PRF over data into out; *outLength is the capacity on entry and
// the bytes produced on exit. Returns 1 on success.
typedef int (*qn_pbkdf2_prf_fn)(void *prfState, const unsigned char *data, uint32_t dataLength,
                                unsigned char *out, uint32_t *outLength);
// Releases a keyed PRF state; must accept null.
typedef void (*qn_pbkdf2_release_fn)(void *prfState);

typedef struct qn_pwhash_ctx {
  char eyecatcher[8]; // "QNPWHASH", not terminated
  uint32_t iterationCount;
  uint32_t saltLength;                    // salt bytes made by qn_pwhash_protect
  uint32_t derivedKeyLength;              // dkLen of qn_pwhash_protect and qn_pwhash_recompute
  struct qn_pkcs11_session *tokenSession; // open session, not owned
} qn_pwhash_ctx;

typedef struct qn_pbkdf2_ctx {
  char eyecatcher[8]; // "QNPBKDF2", not terminated
  void *prfArgument;  // passed to the keying callback
  uint32_t prfMode;
  qn_pbkdf2_keying_fn keying;
  qn_pbkdf2_release_fn release;
  qn_pbkdf2_prf_fn prf;
  const unsigned char *password;   // borrowed
  const unsigned char *salt;       // borrowed
  unsigned char *derivedKeyBuffer; // owned, holds T1 || T2 || ...
  uint32_t passwordLength;
  uint32_t saltLength;
  uint32_t derivedKeyBufferSize; // dkLen rounded up to a multiple of hLen
  uint32_t hLen;
  uint32_t dkLen;
  uint32_t iterationCount;
  void *prfState; // the keyed PRF in mode 1 while a derivation runs
} qn_pbkdf2_ctx;

// A new context in *context (released with qn_pwhash_ctx_destroy); the values
// are not checked here. Returns 0, QN_RC_MISSING_ARGUMENT for a null out
// address or QN_RC_ALLOC_FAILED.
int qn_pwhash_ctx_init(uint32_t iterationCount, uint32_t saltLength, uint32_t derivedKeyLength,
                       struct qn_pkcs11_session *tokenSession, qn_pwhash_ctx **context);

// Clears and releases the context; null is ignored. The session stays open.
void qn_pwhash_ctx_destroy(qn_pwhash_ctx *context);

// Draws a fresh salt of the context's salt length from the token into
// saltBuffer (capacity *saltLength) and derives the context's derived-key
// length of key bytes into derivedBuffer (capacity *derivedLength); both
// lengths are set to what was written. Token errors are returned unchanged.
int qn_pwhash_protect(qn_pwhash_ctx *context, const char *password, uint32_t passwordLength,
                      unsigned char *saltBuffer, uint32_t *saltLength, unsigned char *derivedBuffer,
                      uint32_t *derivedLength);

// Derives again with the first salt-length bytes of salt and the context's
// iteration count and derived-key length.
int qn_pwhash_recompute(qn_pwhash_ctx *context, const char *password, uint32_t passwordLength,
                        const unsigned char *salt, uint32_t saltLength,
                        unsigned char *derivedBuffer, uint32_t *derivedLength);

// Sets *matched to 1 when password, with the stored iteration count and salt,
// derives exactly the expectedLength bytes of expected, else to 0. A mismatch
// is not an error.
int qn_pwhash_verify(qn_pwhash_ctx *context, uint32_t iterationCount, const char *password,
                     uint32_t passwordLength, const unsigned char *salt, uint32_t saltLength,
                     const unsigned char *expected, uint32_t expectedLength, int *matched);

// The token HMAC-SHA1 PRF. prfArgument is the qn_pwhash_ctx; the state is an
// opaque record holding the password's session key on the token.
int qn_pwhash_init_prf_context(void *pwhashContext, const unsigned char *password,
                               uint32_t passwordLength, void **prfState);
int qn_pwhash_prfexec_hmac_sha1(void *prfState, const unsigned char *data, uint32_t dataLength,
                                unsigned char *out, uint32_t *outLength);
// Destroys the key object and releases the record; null is ignored.
void qn_pwhash_free_prf_context(void *prfState);

// A new PBKDF2 context in *context. Returns 0 with nothing allocated when a
// callback is missing or hLen < 8. Returns 0 but still hands out a context
// (which the caller must destroy) when dkLen < 8 or the iteration count
// exceeds QN_PBKDF2_MAX_ITERATIONS. Modes other than 1 and 2 become 2.
int qn_pbkdf2_ctx_init(const unsigned char *password, uint32_t passwordLength,
                       const unsigned char *salt, uint32_t saltLength, uint32_t iterationCount,
                       uint32_t dkLen, uint32_t hLen, void *prfArgument, uint32_t prfMode,
                       qn_pbkdf2_keying_fn keying, qn_pbkdf2_prf_fn prf,
                       qn_pbkdf2_release_fn release, qn_pbkdf2_ctx **context);

// Derives dkLen bytes into out (capacity *outLength) and sets *outLength to
// dkLen. Run once per context. On failure the PRF state still keyed (or null)
// is handed out through *prfStateOnFailure and the caller releases it.
int qn_pbkdf2_exec(qn_pbkdf2_ctx *context, unsigned char *out, uint32_t *outLength,
                   void **prfStateOnFailure);

// Computes block blockIndex (from 1) into the derived-key buffer.
int pbkdf2_compute_block(qn_pbkdf2_ctx *context, uint32_t blockIndex, void **prfStateOnFailure);

// Releases the derived-key buffer and the context; null is ignored.
void qn_pbkdf2_ctx_destroy(qn_pbkdf2_ctx *context);

#ifdef __cplusplus
}
#endif

#endif
