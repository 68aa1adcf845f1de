// PKCS#11 token access.
//
// A thin, strictly checked layer over the function list of a PKCS#11 provider
// library loaded at run time. Keys that protect credentials are created and
// used inside the token; callers hold only key object references.
//
// Every operation returns 0 for success, the provider's CK_RV unchanged when a
// Cryptoki call fails (the failing call is also reported on standard output by
// showError), or a library code of the 777xxxx family below. Results are
// written through out-parameters only on success.
//
// Calling order: qn_pkcs11_env_init, qn_pkcs11_findToken, open a session,
// object operations, qn_pkcs11_session_close, qn_pkcs11_env_destroy (or
// qn_pkcs11_teardown_helper for the last three).
//
// Provider: the library named by the environment variable QMX_PKCS11_MODULE
// when it is set and not empty, else QN_PKCS11_DEFAULT_MODULE.
//
// Login: when the environment variable QMX_PKCS11_PIN_FILE names a file, every
// session this layer opens logs in as the token's user (CKU_USER) with the
// PIN that the file holds (its first line; a trailing line end is not part
// of it), and every secret or private key the layer creates is a private
// object (CKA_PRIVATE = TRUE): usable only by a process that logged in. The
// file must be a regular file that neither its group nor others can read
// (mode 0600 or 0400); any other is refused before a login is tried. The PIN
// is wiped from memory right after the login. Without the variable (or with
// it empty) no login is made and every object is public, reachable from any
// session of the token. Public keys are always public objects.
//
// Every key template states CKA_DERIVE = FALSE, and CKA_WRAP/CKA_UNWRAP =
// FALSE unless wrapping is the key's role, so that no provider default can
// let a credential key seed a derivation or wrap another key.
#ifndef MFA_CRYPTO_PKCS11_H
#define MFA_CRYPTO_PKCS11_H

#include <stdint.h>

#include <p11-kit/pkcs11.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QN_PKCS11_DEFAULT_MODULE "/usr/lib64/opencryptoki/libopencryptoki.so"
#define QN_PKCS11_MODULE_VARIABLE "QMX_PKCS11_MODULE"
#define QN_PKCS11_PIN_FILE_VARIABLE "QMX_PKCS11_PIN_FILE"

// Library codes.
#define QN_PKCS11_RC_MISSING_ARGUMENT 7770001
#define QN_PKCS11_RC_HMAC_BUFFER_SMALL 7770002 // also: any output buffer too small
#define QN_PKCS11_RC_HMAC_MECHANISM 7770005
#define QN_PKCS11_RC_ALLOC 7770014
#define QN_PKCS11_RC_AES_RAW_TOO_LONG 7770018
#define QN_PKCS11_RC_NOT_LOADABLE 7773001
#define QN_PKCS11_RC_NO_FUNCTION_LIST 7773002
#define QN_PKCS11_RC_NO_TOKEN 7773003
#define QN_PKCS11_RC_BAD_LABEL 7773004
#define QN_PKCS11_RC_NOT_INITIALIZED 7773005
#define QN_PKCS11_RC_RANDOM_TOO_LONG 7773006
#define QN_PKCS11_RC_KEY_NOT_FOUND 7773007
#define QN_PKCS11_RC_KEY_SIZE 7773008
#define QN_PKCS11_RC_SESSION_OPEN 7773009
#define QN_PKCS11_RC_SESSION_NOT_OPEN 7773010
#define QN_PKCS11_RC_HMAC_KEY_TOO_LONG 7773012
#define QN_PKCS11_RC_RSA_HASH 7773013
#define QN_PKCS11_RC_PIN_FILE_MODE 7773014 // PIN file readable by group or others, or not a file
#define QN_PKCS11_RC_PIN_FILE_READ 7773015 // PIN file missing, unreadable or empty

#define QN_PKCS11_MAX_RANDOM 4096
#define QN_PKCS11_LABEL_LENGTH 32
#define QN_PKCS11_MAX_HMAC_KEY 64
#define QN_PKCS11_AES_IV_LENGTH 16

// Hash selectors of RSA PKCS #1 v1.5 signing and verifying.
#define QN_PKCS11_RSA_SHA1 1
#define QN_PKCS11_RSA_SHA256 2

// Bit 0 of qn_pkcs11_session.flags.
#define QN_PKCS11_SESSION_OPEN 0x1u

// One per process. The three arrays hold slotCount entries and are owned and
// rebuilt by qn_pkcs11_env_refresh.
typedef struct qn_pkcs11_env {
  int initialized;
  CK_RV lastRv; // result of the latest Cryptoki call; a diagnostic only
  CK_FUNCTION_LIST_PTR functions;
  CK_ULONG slotCount; // slots with a token present
  CK_SLOT_ID *slots;
  CK_SLOT_INFO *slotInfo;
  CK_TOKEN_INFO *tokenInfo;
} qn_pkcs11_env;

typedef struct qn_pkcs11_token {
  qn_pkcs11_env *env;
  CK_SLOT_ID slotId;
  CK_TOKEN_INFO info; // copied when the token was found
} qn_pkcs11_token;

// Allocated by the caller; zero-filled means closed.
typedef struct qn_pkcs11_session {
  uint32_t flags; // QN_PKCS11_SESSION_OPEN
  qn_pkcs11_token *token;
  CK_SESSION_HANDLE handle;
} qn_pkcs11_session;

// A key object reference: the environment of its token and the object handle.
typedef struct qn_pkcs11_key {
  qn_pkcs11_env *env;
  CK_OBJECT_HANDLE handle;
} qn_pkcs11_key;

// ---- Environment and sessions ----

// Loads the provider library (see above), initialises it and lists its slots.
// The caller destroys the environment with qn_pkcs11_env_destroy.
int32_t qn_pkcs11_env_init(qn_pkcs11_env **outEnv);

// As qn_pkcs11_env_init with an explicit provider library path.
int32_t qn_pkcs11_env_initModule(const char *modulePath, qn_pkcs11_env **outEnv);

// Rebuilds the slot, slot-information and token-information arrays.
int32_t qn_pkcs11_env_refresh(qn_pkcs11_env *env);

// Prints the environment and every slot's token to standard output.
void qn_pkcs11_env_describe(const qn_pkcs11_env *env);

// Finalises the provider (when initialised) and frees the environment.
// Accepts null. Tokens and sessions of the environment become unusable, and
// so do those of any other environment over the same provider library: the
// provider's state is one per process.
void qn_pkcs11_env_destroy(qn_pkcs11_env *env);

// The first token, in slot order, whose label equals label (1 to 32
// characters, compared blank-padded). Free it with qn_pkcs11_token_free.
int32_t qn_pkcs11_findToken(qn_pkcs11_env *env, const char *label, qn_pkcs11_token **outToken);

// Frees a token record of qn_pkcs11_findToken. Accepts null.
void qn_pkcs11_token_free(qn_pkcs11_token *token);

// Open a serial session (read-only, or read-write) on the token into the
// caller's session record, which must not be open. With a PIN file configured
// (see above) the session then logs in; a refused PIN file gives 7773014 or
// 7773015, a refused login the provider's value (CKR_PIN_INCORRECT,
// CKR_PIN_LOCKED, ...), and the session is closed again in both cases.
int32_t qn_pkcs11_session_openReadOnly(qn_pkcs11_token *token, qn_pkcs11_session *session);
int32_t qn_pkcs11_session_openReadWrite(qn_pkcs11_token *token, qn_pkcs11_session *session);

// Closes an open session; the record stays the caller's.
int32_t qn_pkcs11_session_close(qn_pkcs11_session *session);

// Closes the session (when open), destroys its environment, frees its token
// and frees the session record, which must come from safeMalloc with
// sizeof(qn_pkcs11_session). Accepts null. Returns the close result.
int32_t qn_pkcs11_teardown_helper(qn_pkcs11_session *session);

// ---- Objects (the first argument is always an open session) ----

// Fills buffer with length (at most 4096) random bytes of the token, after
// mixing in seed when one is given. Length 0 returns 0 without a call.
int32_t qn_pkcs11_getRandomBytes(qn_pkcs11_session *session, const unsigned char *seed,
                                 uint32_t seedLength, unsigned char *buffer, uint32_t length);

// Key generation. Generated keys are token objects with the given label.
// extractable = 0 makes a sensitive key that never leaves the token; non-zero
// makes an extractable, non-sensitive one. mechanisms, when not null, lists
// the mechanismCount mechanisms the key may be used with.
int32_t qn_pkcs11_gen_SymkeyWithLabel(qn_pkcs11_session *session, CK_MECHANISM_TYPE generator,
                                      CK_KEY_TYPE keyType, uint32_t keyBytes, const char *label,
                                      int extractable, const CK_MECHANISM_TYPE *mechanisms,
                                      uint32_t mechanismCount, qn_pkcs11_key *outKey);

// An AES key of keyBits (a multiple of 8) for encrypting and decrypting.
// sensitive != 0 keeps it inside the token; 0 makes it extractable.
int32_t qn_pkcs11_gen_AESCBCPadWithLabel(qn_pkcs11_session *session, uint32_t keyBits,
                                         const char *label, int sensitive, qn_pkcs11_key *outKey);

// A generic-secret HMAC key of keyBytes (1 to 64) bytes, for signing only:
// it cannot verify, encrypt or decrypt. Some providers refuse an HMAC whose
// key is shorter than the digest, so take at least the digest length of the
// HMAC it will serve.
int32_t qn_pkcs11_gen_GenericSecretHMACKeyWithLabel(qn_pkcs11_session *session, uint32_t keyBytes,
                                                    const char *label, int extractable,
                                                    qn_pkcs11_key *outKey);

// A generic-secret HMAC key as long as the output of digest (8 SHA-1, 9
// SHA-256, 10 SHA-384, 11 SHA-512); another digest gives 7773008.
int32_t qn_pkcs11_gen_shaHMACKeyWithLabel(qn_pkcs11_session *session, uint32_t digest,
                                          const char *label, int extractable,
                                          qn_pkcs11_key *outKey);

// An RSA key pair (public exponent 65537) as token objects with the label:
// the public key verifies, encrypts and wraps, the sensitive private key
// signs, decrypts and unwraps.
int32_t qn_pkcs11_gen_RSAKeyPair(qn_pkcs11_session *session, uint32_t modulusBits,
                                 const char *label, qn_pkcs11_key *outPublicKey,
                                 qn_pkcs11_key *outPrivateKey);

// Key creation from raw bytes. label and application may be null unless
// stated otherwise; each is stored with its string length. Tokens commonly
// refuse CKA_APPLICATION on keys (it belongs to data objects), so callers
// normally pass no application.
// Session objects (they vanish with the session):
//   aesSessionKey: AES key of 16, 24 or 32 bytes, encrypt and decrypt.
//   hmacSessionKey: generic-secret key, sign and verify.
//   rsaPubKey: RSA public key, raw = the modulus (big-endian, exponent
//   65537), verify, encrypt and wrap.
// Token objects (label required):
//   aesKey, hmacKey: as their session forms.
// Secret keys are sensitive and not extractable. HMAC values shorter than 64
// bytes are padded with zero bytes to 64 (the same HMAC for every digest
// here), because some providers refuse HMAC keys shorter than the digest.
int32_t qn_pkcs11_create_aesSessionKeyFromRaw(qn_pkcs11_session *session, const char *label,
                                              const char *application, const unsigned char *raw,
                                              uint32_t rawLength, qn_pkcs11_key *outKey);
int32_t qn_pkcs11_create_aesKeyFromRaw(qn_pkcs11_session *session, const char *label,
                                       const char *application, const unsigned char *raw,
                                       uint32_t rawLength, qn_pkcs11_key *outKey);
int32_t qn_pkcs11_create_rsaPubKeyFromRaw(qn_pkcs11_session *session, const char *label,
                                          const char *application, const unsigned char *raw,
                                          uint32_t rawLength, qn_pkcs11_key *outKey);
int32_t qn_pkcs11_create_hmacKeyFromRaw(qn_pkcs11_session *session, const char *label,
                                        const char *application, const unsigned char *raw,
                                        uint32_t rawLength, qn_pkcs11_key *outKey);
int32_t qn_pkcs11_create_hmacSessionKeyFromRaw(qn_pkcs11_session *session, const char *label,
                                               const char *application, const unsigned char *raw,
                                               uint32_t rawLength, qn_pkcs11_key *outKey);

// C_CreateObject with the attributeCount attributes of attributes. Reports
// nothing itself: the public creators show their own call name.
int32_t qn_pkcs11_createObject_internal(qn_pkcs11_session *session, uint32_t attributeCount,
                                        CK_ATTRIBUTE *attributes, qn_pkcs11_key *outKey);

// The first object of the class and key type with the label; 7773007 when
// there is none.
int32_t qn_pkcs11_find_KeyWithLabel(qn_pkcs11_session *session, CK_OBJECT_CLASS objectClass,
                                    CK_KEY_TYPE keyType, const char *label, qn_pkcs11_key *outKey);
int32_t qn_pkcs11_find_RSAPubWithLabel(qn_pkcs11_session *session, const char *label,
                                       qn_pkcs11_key *outKey);
int32_t qn_pkcs11_find_RSAPrivWithLabel(qn_pkcs11_session *session, const char *label,
                                        qn_pkcs11_key *outKey);
int32_t qn_pkcs11_find_AESWithLabel(qn_pkcs11_session *session, const char *label,
                                    qn_pkcs11_key *outKey);
int32_t qn_pkcs11_find_genericSecretWithLabel(qn_pkcs11_session *session, const char *label,
                                              qn_pkcs11_key *outKey);

// HMAC of data with the key. *macLength is the capacity of mac on entry (at
// least the digest length, else 7770002) and the bytes produced on success.
int32_t qn_pkcs11_hmac_MD5(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                           const unsigned char *data, uint32_t dataLength, unsigned char *mac,
                           uint32_t *macLength);
int32_t qn_pkcs11_hmac_SHA1(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                            const unsigned char *data, uint32_t dataLength, unsigned char *mac,
                            uint32_t *macLength);
int32_t qn_pkcs11_hmac_SHA256(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                              const unsigned char *data, uint32_t dataLength, unsigned char *mac,
                              uint32_t *macLength);
int32_t qn_pkcs11_hmac_SHA384(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                              const unsigned char *data, uint32_t dataLength, unsigned char *mac,
                              uint32_t *macLength);
int32_t qn_pkcs11_hmac_SHA512(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                              const unsigned char *data, uint32_t dataLength, unsigned char *mac,
                              uint32_t *macLength);
// mechanism: one of the five HMAC mechanisms above, else 7770005.
int32_t qn_pkcs11_hmac_internal(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                CK_MECHANISM_TYPE mechanism, const unsigned char *data,
                                uint32_t dataLength, unsigned char *mac, uint32_t *macLength);

// AES-CBC with PKCS padding. The encrypted form is IV (16 bytes, fresh from
// the token) followed by the ciphertext. *outLength is the capacity of out on
// entry and the bytes written on success. Encrypting needs a capacity of 16
// plus plaintextLength rounded up to the next whole block (a block more when
// it is whole already), decrypting one of inputLength - 16; a smaller one
// gives 7770002 before the token is used. An input to decrypt shorter than 16
// bytes gives CKR_ENCRYPTED_DATA_LEN_RANGE; a decryption that leaves as many
// bytes as the ciphertext had kept invalid padding that some providers let
// pass, and gives CKR_ENCRYPTED_DATA_INVALID with out wiped.
int32_t qn_pkcs11_encrypt_AESCBCPad(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                    const unsigned char *plaintext, uint32_t plaintextLength,
                                    unsigned char *out, uint32_t *outLength);
int32_t qn_pkcs11_decrypt_AESCBCPad(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                    const unsigned char *input, uint32_t inputLength,
                                    unsigned char *out, uint32_t *outLength);

// RSA PKCS #1 v1.5 signature of data with hash QN_PKCS11_RSA_SHA1 or
// QN_PKCS11_RSA_SHA256 (else 7773013). *signatureLength is the capacity on
// entry; when it is too small it is set to the needed length and
// CKR_BUFFER_TOO_SMALL is returned.
int32_t qn_pkcs11_sign_pkcs1v15_RSA(qn_pkcs11_session *session, const qn_pkcs11_key *key, int hash,
                                    const unsigned char *data, uint32_t dataLength,
                                    unsigned char *signature, uint32_t *signatureLength);
// 0 when the signature is valid, else the token's result (typically
// CKR_SIGNATURE_INVALID or CKR_SIGNATURE_LEN_RANGE).
int32_t qn_pkcs11_verify_pkcs1v15_RSA(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                      int hash, const unsigned char *data, uint32_t dataLength,
                                      const unsigned char *signature, uint32_t signatureLength);

// Wraps the extractable secret key with the RSA public key (CKM_RSA_PKCS).
// The wrapped bytes are allocated; release them with safeFree(*outWrapped,
// *outWrappedLength).
int32_t qn_pkcs11_wrapSecret_PKCS1v15_RSA(qn_pkcs11_session *session,
                                          const qn_pkcs11_key *wrappingKey,
                                          const qn_pkcs11_key *secretKey,
                                          unsigned char **outWrapped, uint32_t *outWrappedLength);

// The object's CKA_VALUE in an allocated buffer (null for an empty value);
// release it with safeFree(*outValue, *outLength). A sensitive key gives
// CKR_ATTRIBUTE_SENSITIVE.
int32_t qn_pkcs11_getObjectValue(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                 unsigned char **outValue, uint32_t *outLength);

int32_t qn_pkcs11_destroyObject(qn_pkcs11_session *session, const qn_pkcs11_key *key);

// ---- Diagnostics ----

// Prints "<callName> returned:  <rv decimal> (0x<rv hex>)", the symbolic name
// of rv when it is a known one, and a line feed to standard output.
void showError(const char *callName, CK_RV rv);

// Prints a blank and the symbolic name of rv (with an explanation for two of
// them); prints nothing for an unknown value.
void ProcessRetCode(CK_RV rv);

#ifdef __cplusplus
}
#endif

#endif
