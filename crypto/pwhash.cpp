#include "crypto/pwhash.h"

#include "base/alloc.h"
#include "crypto/digest.h"
#include "crypto/pkcs11.h"

#include <openssl/crypto.h>

#include <climits>
#include <cstring>
#include <memory>

namespace {

constexpr char kPwhashEyecatcher[8] = {'Q', 'N', 'P', 'W', 'H', 'A', 'S', 'H'};
constexpr char kPbkdf2Eyecatcher[8] = {'Q', 'N', 'P', 'B', 'K', 'D', 'F', '2'};
constexpr uint32_t kHmacSha1Length = 20;
constexpr uint32_t kMinimumLength = 8;

// The PRF state of the service: the password's HMAC key on the token.
struct PrfRecord {
  qn_pwhash_ctx *context;
  qn_pkcs11_key key;
};

// The block input is salt || INT(i), and U is hLen bytes: both must fit the
// fixed work areas of a block.
bool fitsWorkAreas(uint32_t saltLength, uint32_t hLen) {
  return saltLength <= QN_PBKDF2_WORK_AREA - 4 && hLen <= QN_PBKDF2_WORK_AREA;
}

template <typename T> void wipeAndFree(T *record) {
  explicit_bzero(record, sizeof(T));
  safeFree(reinterpret_cast<char *>(record), sizeof(T));
}

using Pbkdf2Context = std::unique_ptr<qn_pbkdf2_ctx, decltype(&qn_pbkdf2_ctx_destroy)>;

// One derivation with the token HMAC-SHA1, keyed once: the password's key
// object exists on the token only while this runs.
int deriveWithToken(qn_pwhash_ctx *context, const char *password, uint32_t passwordLength,
                    const unsigned char *salt, uint32_t saltLength, uint32_t iterationCount,
                    uint32_t dkLen, unsigned char *out, uint32_t *outLength) {
  qn_pbkdf2_ctx *created = nullptr;
  int accepted =
      qn_pbkdf2_ctx_init(reinterpret_cast<const unsigned char *>(password), passwordLength, salt,
                         saltLength, iterationCount, dkLen, kHmacSha1Length, context,
                         QN_PBKDF2_MODE_KEY_ONCE, qn_pwhash_init_prf_context,
                         qn_pwhash_prfexec_hmac_sha1, qn_pwhash_free_prf_context, &created);
  Pbkdf2Context pbkdf2(created, qn_pbkdf2_ctx_destroy);
  if (accepted != 1)
    return QN_RC_PBKDF2_PARAMETERS;
  void *prfState = nullptr;
  if (qn_pbkdf2_exec(pbkdf2.get(), out, outLength, &prfState) != 1) {
    qn_pwhash_free_prf_context(prfState);
    return QN_RC_PBKDF2_FAILED;
  }
  return 0;
}

} // namespace

extern "C" {

int qn_pwhash_ctx_init(uint32_t iterationCount, uint32_t saltLength, uint32_t derivedKeyLength,
                       struct qn_pkcs11_session *tokenSession, qn_pwhash_ctx **context) {
  if (context == nullptr)
    return QN_RC_MISSING_ARGUMENT;
  auto *created = reinterpret_cast<qn_pwhash_ctx *>(safeMalloc(sizeof(qn_pwhash_ctx), "pwhashctx"));
  if (created == nullptr)
    return QN_RC_ALLOC_FAILED;
  memcpy(created->eyecatcher, kPwhashEyecatcher, sizeof(created->eyecatcher));
  created->iterationCount = iterationCount;
  created->saltLength = saltLength;
  created->derivedKeyLength = derivedKeyLength;
  created->tokenSession = tokenSession;
  *context = created;
  return 0;
}

void qn_pwhash_ctx_destroy(qn_pwhash_ctx *context) {
  if (context != nullptr)
    wipeAndFree(context);
}

int qn_pwhash_protect(qn_pwhash_ctx *context, const char *password, uint32_t passwordLength,
                      unsigned char *saltBuffer, uint32_t *saltLength, unsigned char *derivedBuffer,
                      uint32_t *derivedLength) {
  if (context == nullptr || password == nullptr || passwordLength == 0 || saltBuffer == nullptr ||
      saltLength == nullptr || derivedBuffer == nullptr || derivedLength == nullptr)
    return QN_RC_MISSING_ARGUMENT;
  if (*saltLength < context->saltLength)
    return QN_RC_SALT_TOO_SHORT;
  if (*derivedLength < context->derivedKeyLength)
    return QN_RC_OUTPUT_TOO_SHORT;
  if (int rc = qn_pkcs11_getRandomBytes(context->tokenSession, nullptr, 0, saltBuffer,
                                        context->saltLength);
      rc != 0)
    return rc;
  uint32_t produced = *derivedLength;
  int rc =
      deriveWithToken(context, password, passwordLength, saltBuffer, context->saltLength,
                      context->iterationCount, context->derivedKeyLength, derivedBuffer, &produced);
  if (rc == 0) {
    *saltLength = context->saltLength;
    *derivedLength = produced;
  }
  return rc;
}

int qn_pwhash_recompute(qn_pwhash_ctx *context, const char *password, uint32_t passwordLength,
                        const unsigned char *salt, uint32_t saltLength,
                        unsigned char *derivedBuffer, uint32_t *derivedLength) {
  if (context == nullptr || password == nullptr || passwordLength == 0 || salt == nullptr ||
      saltLength == 0 || derivedBuffer == nullptr || derivedLength == nullptr)
    return QN_RC_MISSING_ARGUMENT;
  if (saltLength < context->saltLength)
    return QN_RC_SALT_TOO_SHORT;
  if (*derivedLength < context->derivedKeyLength)
    return QN_RC_OUTPUT_TOO_SHORT;
  return deriveWithToken(context, password, passwordLength, salt, context->saltLength,
                         context->iterationCount, context->derivedKeyLength, derivedBuffer,
                         derivedLength);
}

int qn_pwhash_verify(qn_pwhash_ctx *context, uint32_t iterationCount, const char *password,
                     uint32_t passwordLength, const unsigned char *salt, uint32_t saltLength,
                     const unsigned char *expected, uint32_t expectedLength, int *matched) {
  if (password == nullptr || salt == nullptr || saltLength == 0 || expected == nullptr ||
      expectedLength == 0 || matched == nullptr)
    return QN_RC_MISSING_ARGUMENT;
  *matched = 0;
  if (expectedLength > INT_MAX)
    return QN_RC_ALLOC_FAILED;
  int candidateSize = static_cast<int>(expectedLength);
  auto *candidate = reinterpret_cast<unsigned char *>(qncAlloc(candidateSize, "cand_pbkdf2"));
  if (candidate == nullptr)
    return QN_RC_ALLOC_FAILED;
  uint32_t produced = expectedLength;
  int rc = deriveWithToken(context, password, passwordLength, salt, saltLength, iterationCount,
                           expectedLength, candidate, &produced);
  // Constant-time, so the time taken says nothing about how much matched.
  if (rc == 0 && produced == expectedLength &&
      CRYPTO_memcmp(candidate, expected, expectedLength) == 0)
    *matched = 1;
  qncFree(candidate, candidateSize);
  return rc;
}

int qn_pwhash_init_prf_context(void *pwhashContext, const unsigned char *password,
                               uint32_t passwordLength, void **prfState) {
  auto *context = static_cast<qn_pwhash_ctx *>(pwhashContext);
  if (context == nullptr || prfState == nullptr)
    return 0;
  auto *record = reinterpret_cast<PrfRecord *>(safeMalloc(sizeof(PrfRecord), "prfctx"));
  if (record == nullptr)
    return 0;
  record->context = context;
  // HMAC pads its key with zero bytes, so an empty password and a single zero
  // byte give the same PRF; the token refuses an empty key value.
  static constexpr unsigned char kEmptyKey[1] = {0};
  if (passwordLength == 0)
    password = kEmptyKey;
  if (qn_pkcs11_create_hmacSessionKeyFromRaw(context->tokenSession, nullptr, nullptr, password,
                                             passwordLength == 0 ? 1 : passwordLength,
                                             &record->key) != 0) {
    wipeAndFree(record);
    return 0;
  }
  *prfState = record;
  return 1;
}

int qn_pwhash_prfexec_hmac_sha1(void *prfState, const unsigned char *data, uint32_t dataLength,
                                unsigned char *out, uint32_t *outLength) {
  auto *record = static_cast<PrfRecord *>(prfState);
  if (record == nullptr)
    return 0;
  return qn_pkcs11_hmac_SHA1(record->context->tokenSession, &record->key, data, dataLength, out,
                             outLength) == 0
             ? 1
             : 0;
}

void qn_pwhash_free_prf_context(void *prfState) {
  auto *record = static_cast<PrfRecord *>(prfState);
  if (record == nullptr)
    return;
  qn_pkcs11_destroyObject(record->context->tokenSession, &record->key);
  wipeAndFree(record);
}

int qn_pbkdf2_ctx_init(const unsigned char *password, uint32_t passwordLength,
                       const unsigned char *salt, uint32_t saltLength, uint32_t iterationCount,
                       uint32_t dkLen, uint32_t hLen, void *prfArgument, uint32_t prfMode,
                       qn_pbkdf2_keying_fn keying, qn_pbkdf2_prf_fn prf,
                       qn_pbkdf2_release_fn release, qn_pbkdf2_ctx **context) {
  if (keying == nullptr || prf == nullptr || release == nullptr)
    return 0;
  bool refused = dkLen < kMinimumLength;
  if (hLen < kMinimumLength || !fitsWorkAreas(saltLength, hLen) || context == nullptr)
    return 0;
  if (iterationCount > QN_PBKDF2_MAX_ITERATIONS)
    refused = true;
  uint64_t bufferSize = (uint64_t{dkLen} + hLen - 1) / hLen * hLen;
  if (bufferSize > INT_MAX)
    return 0;
  auto *created =
      reinterpret_cast<qn_pbkdf2_ctx *>(safeMalloc(sizeof(qn_pbkdf2_ctx), "QNPBKDF2 ctx"));
  if (created == nullptr)
    return 0;
  memcpy(created->eyecatcher, kPbkdf2Eyecatcher, sizeof(created->eyecatcher));
  created->prfArgument = prfArgument;
  created->prfMode =
      prfMode == QN_PBKDF2_MODE_KEY_ONCE ? QN_PBKDF2_MODE_KEY_ONCE : QN_PBKDF2_MODE_KEY_PER_BLOCK;
  created->keying = keying;
  created->release = release;
  created->prf = prf;
  created->password = password;
  created->salt = salt;
  created->passwordLength = passwordLength;
  created->saltLength = saltLength;
  created->hLen = hLen;
  created->dkLen = dkLen;
  created->iterationCount = iterationCount;
  if (bufferSize != 0) {
    created->derivedKeyBuffer = reinterpret_cast<unsigned char *>(
        safeMalloc(static_cast<int>(bufferSize), "derived_keybuf"));
    if (created->derivedKeyBuffer == nullptr) {
      qn_pbkdf2_ctx_destroy(created);
      return 0;
    }
    created->derivedKeyBufferSize = static_cast<uint32_t>(bufferSize);
  }
  *context = created;
  return refused ? 0 : 1;
}

int qn_pbkdf2_exec(qn_pbkdf2_ctx *context, unsigned char *out, uint32_t *outLength,
                   void **prfStateOnFailure) {
  if (context == nullptr || out == nullptr || outLength == nullptr || prfStateOnFailure == nullptr)
    return 0;
  *prfStateOnFailure = nullptr;
  if (memcmp(context->eyecatcher, kPbkdf2Eyecatcher, sizeof(kPbkdf2Eyecatcher)) != 0 ||
      context->keying == nullptr || context->prf == nullptr || context->release == nullptr ||
      context->hLen == 0 || context->dkLen == 0 || context->salt == nullptr ||
      context->saltLength == 0 || context->password == nullptr ||
      context->derivedKeyBuffer == nullptr || context->derivedKeyBufferSize == 0 ||
      !fitsWorkAreas(context->saltLength, context->hLen))
    return 0;
  if (*outLength < context->dkLen)
    return 0;
  if (context->prfMode == QN_PBKDF2_MODE_KEY_ONCE) {
    void *state = nullptr;
    int rc =
        context->keying(context->prfArgument, context->password, context->passwordLength, &state);
    if (rc != 1)
      return rc;
    context->prfState = state;
  }
  uint32_t blocks = context->derivedKeyBufferSize / context->hLen;
  for (uint32_t i = 1; i <= blocks; ++i) {
    if (pbkdf2_compute_block(context, i, prfStateOnFailure) != 1) {
      // The caller now owns the keyed state handed out with the failure.
      if (*prfStateOnFailure == nullptr)
        *prfStateOnFailure = context->prfState;
      context->prfState = nullptr;
      return 0;
    }
  }
  if (context->prfMode == QN_PBKDF2_MODE_KEY_ONCE) {
    context->release(context->prfState);
    context->prfState = nullptr;
  }
  memcpy(out, context->derivedKeyBuffer, context->dkLen);
  *outLength = context->dkLen;
  return 1;
}

int pbkdf2_compute_block(qn_pbkdf2_ctx *context, uint32_t blockIndex, void **prfStateOnFailure) {
  if (context == nullptr || prfStateOnFailure == nullptr || blockIndex == 0 ||
      uint64_t{blockIndex} * context->hLen > context->derivedKeyBufferSize ||
      !fitsWorkAreas(context->saltLength, context->hLen))
    return 0;
  struct WorkAreas {
    unsigned char input[QN_PBKDF2_WORK_AREA];
    unsigned char u[QN_PBKDF2_WORK_AREA];
    unsigned char t[QN_PBKDF2_WORK_AREA];
    ~WorkAreas() { explicit_bzero(this, sizeof(*this)); }
  } work{};

  void *state = context->prfState;
  if (context->prfMode != QN_PBKDF2_MODE_KEY_ONCE) {
    state = nullptr;
    if (int rc = context->keying(context->prfArgument, context->password, context->passwordLength,
                                 &state);
        rc != 1)
      return rc;
  }
  const uint32_t hLen = context->hLen;
  int rc = 1;
  for (uint32_t j = 0; j < context->iterationCount; ++j) {
    uint32_t inputLength = hLen;
    if (j == 0) {
      memcpy(work.input, context->salt, context->saltLength);
      unsigned char *index = work.input + context->saltLength;
      index[0] = static_cast<unsigned char>(blockIndex >> 24);
      index[1] = static_cast<unsigned char>(blockIndex >> 16);
      index[2] = static_cast<unsigned char>(blockIndex >> 8);
      index[3] = static_cast<unsigned char>(blockIndex);
      inputLength = context->saltLength + 4;
    } else {
      memcpy(work.input, work.u, hLen);
    }
    uint32_t produced = sizeof(work.u);
    rc = context->prf(state, work.input, inputLength, work.u, &produced);
    if (rc != 1)
      break;
    if (produced != hLen) {
      rc = 0;
      break;
    }
    for (uint32_t k = 0; k < hLen; ++k)
      work.t[k] ^= work.u[k];
  }
  if (rc != 1) {
    *prfStateOnFailure = state;
    return rc;
  }
  memcpy(context->derivedKeyBuffer + uint64_t{hLen} * (blockIndex - 1), work.t, hLen);
  if (context->prfMode != QN_PBKDF2_MODE_KEY_ONCE)
    context->release(state);
  return 1;
}

void qn_pbkdf2_ctx_destroy(qn_pbkdf2_ctx *context) {
  if (context == nullptr)
    return;
  if (context->derivedKeyBuffer != nullptr && context->derivedKeyBufferSize != 0) {
    explicit_bzero(context->derivedKeyBuffer, context->derivedKeyBufferSize);
    safeFree(reinterpret_cast<char *>(context->derivedKeyBuffer),
             static_cast<int>(context->derivedKeyBufferSize));
  }
  wipeAndFree(context);
}

} // extern "C"
