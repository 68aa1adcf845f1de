// Message digests, base64 and the small C-library helpers of the crypto layer.
//
// Every operation returns 0 on success or a code of the 777xxxx family below
// (the older digest context returns 12 for any failure), and writes its
// results only when it succeeds unless the contract says otherwise.
#ifndef MFA_CRYPTO_DIGEST_H
#define MFA_CRYPTO_DIGEST_H

#include <stdint.h>

#include <openssl/md5.h>
#include <openssl/sha.h>

#ifdef __cplusplus
extern "C" {
#endif

// Digest algorithm identifiers, shared with the one-time-code layer.
#define QN_HASH_MD5 7u
#define QN_HASH_SHA1 8u
#define QN_HASH_SHA256 9u
#define QN_HASH_SHA384 10u
#define QN_HASH_SHA512 11u

// Codes of the crypto layer used by this module.
#define QN_RC_MISSING_ARGUMENT 7770001
#define QN_RC_BUFFER_TOO_SMALL 7770002
#define QN_RC_UNSUPPORTED_DIGEST 7770005
#define QN_RC_NO_DIGEST 7770009
#define QN_RC_ALLOC_FAILED 7770014
#define QN_RC_BAD_BASE64 7770020
#define QN_RC_PEM_MARKERS 7770021
#define QN_RC_DIGEST_INIT 7772004
#define QN_RC_DIGEST_UPDATE 7772005
#define QN_RC_DIGEST_FINAL 7772006

// Failure code of the older digest context.
#define QN_DIGEST_CONTEXT_FAILED 12

#define QN_HASH_CONTEXT_TYPE 3u

typedef struct evp_md_ctx_st EVP_MD_CTX;

typedef struct qn_hash_context {
  uint32_t type;      // always QN_HASH_CONTEXT_TYPE
  uint32_t algorithm; // set once the digest is initialised
  EVP_MD_CTX *evp;    // owned
} qn_hash_context;

#define QN_DIGEST_MD5 1
#define QN_DIGEST_SHA1 2

// Older MD5/SHA-1 digest context; the caller owns the storage.
typedef struct digestContext {
  int32_t type; // QN_DIGEST_MD5 or QN_DIGEST_SHA1
  union {
    MD5_CTX md5;
    SHA_CTX sha1;
  } state;
  int32_t digestLength; // 16 or 20
} digestContext;

// Digest of dataLength (non-zero) bytes into the caller's buffer *output of
// capacity *outputLength. On success *outputLength is the digest length; when
// the capacity is too small it is set to the needed length and
// QN_RC_BUFFER_TOO_SMALL is returned. *output itself is never changed.
int qn_hash_oneshot(uint32_t algorithm, const void *data, uint64_t dataLength,
                    unsigned char **output, uint32_t *outputLength);

// Starts a streamed digest. On success *context is a new context that the
// caller releases with free_hash_context.
int qn_hash_start(uint32_t algorithm, qn_hash_context **context);

// Adds dataLength bytes (zero is allowed) to a streamed digest.
int qn_hash_more(qn_hash_context *context, const void *data, uint64_t dataLength);

// Writes the digest into output of capacity *outputLength and sets
// *outputLength to its length; too small a capacity sets the needed length
// and returns QN_RC_BUFFER_TOO_SMALL. The context is not released.
int qn_hash_finish(qn_hash_context *context, unsigned char *output, uint32_t *outputLength);

// Releases *context and sets it to null; a null address or pointer is ignored.
void free_hash_context(qn_hash_context **context);

// Older digest context: 0, or QN_DIGEST_CONTEXT_FAILED for an unknown type
// or a library failure. The digest buffer must hold digestLength bytes.
int digestContextInit(digestContext *context, int32_t type);
int digestContextUpdate(digestContext *context, const void *data, uint64_t length);
int digestContextFinish(digestContext *context, unsigned char *digest);

// Encoded length of n bytes plus one byte for the terminating NUL.
uint64_t qn_base64_enclen(uint64_t n);
// Largest decoded length of n base64 characters.
uint64_t qn_base64_declen(uint64_t n);

// Encodes inputLength bytes as NUL-terminated base64 text. When *output is
// null the text is allocated ("base64 output space") and handed out there,
// and the caller frees it with qncFree(*output, qn_base64_enclen(inputLength));
// otherwise *outputLength is the capacity of *output. On success
// *outputLength is the number of characters without the NUL. Zero input bytes
// set *outputLength to 0 and write nothing.
int qn_base64_encode(const void *input, uint64_t inputLength, char **output,
                     uint64_t *outputLength);

// Decodes NUL-terminated base64 text; textLength only sizes the output
// (qn_base64_declen(textLength) bytes), the text is read up to its NUL.
// Output allocation ("base64 decode output space", freed with qncFree and
// qn_base64_declen(textLength)) and capacity as for qn_base64_encode. A text
// length of 1 to 3 sets *output to null and *outputLength to 0, even when the
// caller supplied a buffer.
int qn_base64_decode(const char *text, uint64_t textLength, unsigned char **output,
                     uint64_t *outputLength);

// Decodes the base64 body of the first PEM block in NUL-terminated pemText,
// with the output conventions of qn_base64_decode over the body without
// blanks, tabs and line breaks. A zero flag does nothing and returns 0.
int qn_base64_pemdecode(const char *pemText, int flag, unsigned char **output,
                        uint64_t *outputLength);

// Zero-filled memory through the checked allocator; prints a warning and
// returns null on failure. Release with qncFree and the same size.
char *qncAlloc(int size, const char *label);
// Overwrites size bytes with zeros and releases them; null is ignored.
void qncFree(void *pointer, int size);
// A NUL-terminated copy, freed with qncFree(copy, strlen(copy) + 1); null
// for null text or when allocation fails.
char *qncDuplicateString(const char *text);

// Whole seconds since 1970-01-01 UTC.
uint64_t qnclibc_currentSecondsSinceJan1970(void);
// Seconds and microseconds of the time of day; returns 0.
int qnclibc_currentSecondsAndMicrosSince1970(uint32_t *seconds, uint32_t *microseconds);

#ifdef __cplusplus
}
#endif

#endif
