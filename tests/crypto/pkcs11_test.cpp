#include "crypto/pkcs11.h"

#include "base/alloc.h"
#include "crypto/digest.h"
#include "support/token.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <string>

namespace {

using mfatest::Bytes;
using mfatest::bytesOf;
using mfatest::captureStdout;
using mfatest::hex;
using mfatest::SoftHsmTest;
using mfatest::statusAndOutput;
using mfatest::TokenTest;
using Printed = std::pair<int32_t, std::string>;

int32_t ckr(CK_RV rv) {
  return static_cast<int32_t>(rv);
}

TEST(Pkcs11Diagnostics, ShowErrorAndReturnCodeNames) {
  // Vendor codes have no name and show as negative decimals.
  EXPECT_EQ(captureStdout([] { showError("C_Login", CKR_VENDOR_DEFINED + 1); }),
            "C_Login returned:  -2147483647 (0x80000001)\n");
  EXPECT_EQ(captureStdout([] { ProcessRetCode(CKR_TOKEN_NOT_PRESENT); }),
            " CKR_TOKEN_NOT_PRESENT - ORVAN is not active or not configured for PELDA "
            "operations");
  // A v2.40 code outside the known set.
  EXPECT_EQ(captureStdout([] { ProcessRetCode(CKR_FUNCTION_REJECTED); }), "");
}

TEST(Pkcs11Environment, UnusableProvidersAreReported) {
  qn_pkcs11_env *env = nullptr;
  EXPECT_EQ(
      statusAndOutput([&] { return qn_pkcs11_env_initModule("/nonexistent/x.so", &env); }),
      Printed(QN_PKCS11_RC_NOT_LOADABLE, "/nonexistent/x.so not found in linklist or LIBPATH\n"));
  // A loadable library that is no provider.
  EXPECT_EQ(statusAndOutput([&] { return qn_pkcs11_env_initModule("libm.so.6", &env); }),
            Printed(QN_PKCS11_RC_NO_FUNCTION_LIST,
                    "C_GetFunctionList() not found in module libm.so.6\n"));
  EXPECT_EQ(env, nullptr);
}

TEST(Pkcs11Environment, ModuleVariableNamesTheProvider) {
  MFA_REQUIRE_SERVICE("MFA_SOFTHSM_MODULE");
  // Cleared however the test ends: the suites never set it otherwise.
  struct Unset {
    ~Unset() { unsetenv(QN_PKCS11_MODULE_VARIABLE); }
  } unset;
  setenv(QN_PKCS11_MODULE_VARIABLE, mfatest::serviceVariable("MFA_SOFTHSM_MODULE").c_str(), 1);
  qn_pkcs11_env *env = nullptr;
  ASSERT_EQ(qn_pkcs11_env_init(&env), 0);
  qn_pkcs11_env_destroy(env);

  // Set but empty means the default provider.
  struct stat info;
  if (stat(QN_PKCS11_DEFAULT_MODULE, &info) == 0)
    GTEST_SKIP() << "the default provider exists on this machine";
  setenv(QN_PKCS11_MODULE_VARIABLE, "", 1);
  EXPECT_EQ(qn_pkcs11_env_init(&env), QN_PKCS11_RC_NOT_LOADABLE);
}

TEST_F(SoftHsmTest, DescribeListsEverySlotWithItsToken) {
  std::string out = captureStdout([&] { qn_pkcs11_env_describe(env()); });
  EXPECT_EQ(out.rfind("Description of PKCS#11 Environment:\nEnvironment was initialized: YES\n"
                      "Number of accessible slots: ",
                      0),
            0u)
      << out;
  std::string label = mfatest::serviceVariable("MFA_TEST_TOKEN_LABEL");
  label.resize(32, ' ');
  EXPECT_NE(out.find("\ttoken label: <" + label + ">\n"), std::string::npos) << out;
}

TEST_F(SoftHsmTest, TokenLabelsAreMatchedBlankPaddedUpTo32Characters) {
  qn_pkcs11_token *found = nullptr;
  std::string longLabel = mfatest::serviceVariable("MFA_TEST_LONG_TOKEN_LABEL");
  ASSERT_EQ(longLabel.size(), 32u);
  ASSERT_EQ(qn_pkcs11_findToken(env(), longLabel.c_str(), &found), 0);
  EXPECT_NE(found->slotId, token()->slotId);
  qn_pkcs11_token_free(found);
  found = nullptr;

  EXPECT_EQ(qn_pkcs11_findToken(env(), "", &found), QN_PKCS11_RC_BAD_LABEL);
  EXPECT_EQ(qn_pkcs11_findToken(env(), (longLabel + "X").c_str(), &found), QN_PKCS11_RC_BAD_LABEL);
  // A prefix of a label is another label.
  EXPECT_EQ(qn_pkcs11_findToken(env(), longLabel.substr(0, 31).c_str(), &found),
            QN_PKCS11_RC_NO_TOKEN);
  EXPECT_EQ(found, nullptr);
}

TEST_P(TokenTest, SessionsOpenOnceAndCloseOnce) {
  EXPECT_EQ(qn_pkcs11_session_openReadWrite(token(), session()), QN_PKCS11_RC_SESSION_OPEN);
  qn_pkcs11_session readOnly{};
  ASSERT_EQ(qn_pkcs11_session_openReadOnly(token(), &readOnly), 0);
  EXPECT_EQ(qn_pkcs11_session_close(&readOnly), 0);
  EXPECT_EQ(qn_pkcs11_session_close(&readOnly), QN_PKCS11_RC_SESSION_NOT_OPEN);
  unsigned char byte;
  EXPECT_EQ(qn_pkcs11_getRandomBytes(&readOnly, nullptr, 0, &byte, 1),
            QN_PKCS11_RC_SESSION_NOT_OPEN);
}

TEST_P(TokenTest, OpeningRecoversOnceFromAFinalisedProvider) {
  ASSERT_EQ(qn_pkcs11_session_close(session()), 0);
  ASSERT_EQ(env()->functions->C_Finalize(nullptr), CKR_OK);
  EXPECT_EQ(statusAndOutput([&] { return qn_pkcs11_session_openReadWrite(token(), session()); }),
            Printed(0, ""));
  unsigned char bytes[8];
  EXPECT_EQ(qn_pkcs11_getRandomBytes(session(), nullptr, 0, bytes, sizeof bytes), 0);
}

TEST_P(TokenTest, TeardownReleasesSessionTokenAndEnvironment) {
  closeToken();
  const mfatest::TokenService &service = mfatest::tokenService(GetParam());
  qn_pkcs11_env *env = nullptr;
  ASSERT_EQ(
      qn_pkcs11_env_initModule(mfatest::serviceVariable(service.moduleVariable).c_str(), &env), 0);
  qn_pkcs11_token *tok = nullptr;
  ASSERT_EQ(qn_pkcs11_findToken(env, mfatest::serviceVariable(service.labelVariable).c_str(), &tok),
            0);
  auto *record =
      reinterpret_cast<qn_pkcs11_session *>(safeMalloc(sizeof(qn_pkcs11_session), "test session"));
  ASSERT_EQ(qn_pkcs11_session_openReadOnly(tok, record), 0);
  EXPECT_EQ(qn_pkcs11_teardown_helper(record), 0);
}

TEST_P(TokenTest, RandomBytesUpTo4096) {
  Bytes random(4097, 0);
  EXPECT_EQ(qn_pkcs11_getRandomBytes(session(), nullptr, 0, random.data(), 4097),
            QN_PKCS11_RC_RANDOM_TOO_LONG);
  ASSERT_EQ(qn_pkcs11_getRandomBytes(session(), nullptr, 0, random.data(), 4096), 0);
  EXPECT_NE(random, Bytes(4097, 0));
  // openCryptoki refuses seeds; the refusal is passed on.
  const unsigned char seed[] = "seed material";
  EXPECT_EQ(qn_pkcs11_getRandomBytes(session(), seed, sizeof seed, random.data(), 4096),
            GetParam() == mfatest::TokenKind::OpenCryptoki ? ckr(CKR_RANDOM_SEED_NOT_SUPPORTED)
                                                           : 0);
}

TEST_P(TokenTest, KeysAreFoundByLabelAndSensitiveOnesStayInside) {
  std::string label = uniqueLabel("aes");
  qn_pkcs11_key sensitive{}, hmac{}, found{};
  ASSERT_EQ(qn_pkcs11_gen_AESCBCPadWithLabel(session(), 256, label.c_str(), 1, &sensitive), 0);
  ASSERT_EQ(qn_pkcs11_find_AESWithLabel(session(), label.c_str(), &found), 0);
  EXPECT_EQ(found.handle, sensitive.handle);
  // Same label, other key type: nothing.
  EXPECT_EQ(qn_pkcs11_find_genericSecretWithLabel(session(), label.c_str(), &found),
            QN_PKCS11_RC_KEY_NOT_FOUND);
  unsigned char *value = nullptr;
  uint32_t length = 0;
  EXPECT_EQ(statusAndOutput([&] {
              return qn_pkcs11_getObjectValue(session(), &sensitive, &value, &length);
            }).first,
            ckr(CKR_ATTRIBUTE_SENSITIVE));
  EXPECT_EQ(value, nullptr);
  ASSERT_EQ(qn_pkcs11_destroyObject(session(), &sensitive), 0);
  EXPECT_EQ(qn_pkcs11_find_AESWithLabel(session(), label.c_str(), &found),
            QN_PKCS11_RC_KEY_NOT_FOUND);

  // Extractable HMAC keys hand out their value, sized by the digest.
  label = uniqueLabel("hmacx");
  ASSERT_EQ(qn_pkcs11_gen_shaHMACKeyWithLabel(session(), QN_HASH_SHA384, label.c_str(), 1, &hmac),
            0);
  destroyLater(hmac);
  ASSERT_EQ(qn_pkcs11_find_genericSecretWithLabel(session(), label.c_str(), &found), 0);
  EXPECT_EQ(found.handle, hmac.handle);
  ASSERT_EQ(qn_pkcs11_getObjectValue(session(), &hmac, &value, &length), 0);
  EXPECT_EQ(length, 48u);
  safeFree(reinterpret_cast<char *>(value), static_cast<int>(length));
}

TEST_P(TokenTest, KeySizesAndArgumentsAreChecked) {
  qn_pkcs11_key key{};
  Bytes raw(33, 7);
  const std::pair<int32_t, int32_t> cases[] = {
      {qn_pkcs11_gen_AESCBCPadWithLabel(session(), 255, "x", 1, &key), QN_PKCS11_RC_KEY_SIZE},
      {qn_pkcs11_gen_GenericSecretHMACKeyWithLabel(session(), 65, "x", 0, &key),
       QN_PKCS11_RC_HMAC_KEY_TOO_LONG},
      {qn_pkcs11_create_aesSessionKeyFromRaw(session(), nullptr, nullptr, raw.data(), 33, &key),
       QN_PKCS11_RC_AES_RAW_TOO_LONG},
      // Token objects need a label.
      {qn_pkcs11_create_hmacKeyFromRaw(session(), nullptr, nullptr, raw.data(), 32, &key),
       QN_PKCS11_RC_MISSING_ARGUMENT},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i)
    EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
  EXPECT_EQ(key.handle, CK_INVALID_HANDLE);
}

// RFC 2202 and RFC 4231, test case 2: a four-byte key, which the token only
// accepts padded with zero bytes, giving the same HMAC.
struct HmacVector {
  decltype(&qn_pkcs11_hmac_SHA1) hmac;
  uint32_t length;
  const char *expected;
};
const HmacVector kJefeVectors[] = {
    {qn_pkcs11_hmac_MD5, 16, "750c783e6ab0b503eaa86e310a5db738"},
    {qn_pkcs11_hmac_SHA1, 20, "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
    {qn_pkcs11_hmac_SHA256, 32, "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
    {qn_pkcs11_hmac_SHA384, 48,
     "af45d2e376484031617f78d2b58a6b1b9c7ef464f5a01b47e42ec3736322445e8e2240ca5e69e2c78b3239ecfab21"
     "649"},
    {qn_pkcs11_hmac_SHA512, 64,
     "164b7a7bfcf819e2e395fbe73b56e0a387bd64222e831fd610270cd7ea2505549758bf75c05a994a6d034f65f8f0e"
     "6fdcaeab1a34d4a6b4b636e070a38bce737"},
};

TEST_P(TokenTest, HmacOfShortKeysMatchesPublishedValues) {
  Bytes key = bytesOf("Jefe");
  Bytes data = bytesOf("what do ya want for nothing?");
  qn_pkcs11_key sessionKey{};
  ASSERT_EQ(qn_pkcs11_create_hmacSessionKeyFromRaw(session(), nullptr, nullptr, key.data(), 4,
                                                   &sessionKey),
            0);
  unsigned char mac[80];
  for (const HmacVector &vector : kJefeVectors) {
    SCOPED_TRACE(vector.length);
    uint32_t length = sizeof mac;
    ASSERT_EQ(vector.hmac(session(), &sessionKey, data.data(), static_cast<uint32_t>(data.size()),
                          mac, &length),
              0);
    EXPECT_EQ(hex(mac, length), vector.expected);
    // One byte less than the digest is refused before the token is asked.
    length = vector.length - 1;
    EXPECT_EQ(vector.hmac(session(), &sessionKey, data.data(), 1, mac, &length),
              QN_PKCS11_RC_HMAC_BUFFER_SMALL);
  }
  uint32_t length = sizeof mac;
  EXPECT_EQ(qn_pkcs11_hmac_internal(session(), &sessionKey, CKM_SHA224_HMAC, data.data(), 1, mac,
                                    &length),
            QN_PKCS11_RC_HMAC_MECHANISM);
  ASSERT_EQ(qn_pkcs11_destroyObject(session(), &sessionKey), 0);
}

// An imported key, so that an independent implementation can decrypt what
// the token made of IV and ciphertext.
Bytes opensslDecrypt(const unsigned char *key, const unsigned char *in, uint32_t length) {
  Bytes out(length);
  int part = 0, last = 0;
  EVP_CIPHER_CTX *ctx = EVP_CIPHER_CTX_new();
  EXPECT_EQ(EVP_DecryptInit_ex(ctx, EVP_aes_128_cbc(), nullptr, key, in), 1);
  EXPECT_EQ(EVP_DecryptUpdate(ctx, out.data(), &part, in + 16, static_cast<int>(length - 16)), 1);
  EXPECT_EQ(EVP_DecryptFinal_ex(ctx, out.data() + part, &last), 1);
  EVP_CIPHER_CTX_free(ctx);
  out.resize(static_cast<std::size_t>(part + last));
  return out;
}

TEST_P(TokenTest, AesRoundTripsAsIvThenCiphertextWithFreshIvs) {
  const unsigned char raw[16] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6,
                                 0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};
  qn_pkcs11_key key{};
  ASSERT_EQ(qn_pkcs11_create_aesSessionKeyFromRaw(session(), nullptr, nullptr, raw, 16, &key), 0);
  auto encrypt = [&](const Bytes &plain, uint32_t size, Bytes &out, uint32_t *length) {
    return qn_pkcs11_encrypt_AESCBCPad(session(), &key, plain.data(), size, out.data(), length);
  };
  for (uint32_t size : {0u, 15u, 16u, 17u}) {
    SCOPED_TRACE(size);
    Bytes plain(size + 1, 0x5A); // never empty: the plaintext pointer is required
    uint32_t expected = 16 + (size / 16 + 1) * 16;
    Bytes first(expected), second(expected), back(expected);
    // A byte short of what either direction needs is refused.
    uint32_t firstLength = expected - 1, secondLength = expected, backLength = expected - 17;
    EXPECT_EQ(encrypt(plain, size, first, &firstLength), QN_PKCS11_RC_HMAC_BUFFER_SMALL);
    firstLength = expected;
    ASSERT_EQ(encrypt(plain, size, first, &firstLength), 0);
    ASSERT_EQ(encrypt(plain, size, second, &secondLength), 0);
    EXPECT_EQ(firstLength, expected);
    EXPECT_NE(std::memcmp(first.data(), second.data(), 16), 0) << "IV reused";
    plain.resize(size);
    EXPECT_EQ(opensslDecrypt(raw, first.data(), firstLength), plain);
    EXPECT_EQ(qn_pkcs11_decrypt_AESCBCPad(session(), &key, first.data(), firstLength, back.data(),
                                          &backLength),
              QN_PKCS11_RC_HMAC_BUFFER_SMALL);
    backLength = expected - 16;
    ASSERT_EQ(qn_pkcs11_decrypt_AESCBCPad(session(), &key, first.data(), firstLength, back.data(),
                                          &backLength),
              0);
    back.resize(backLength);
    EXPECT_EQ(back, plain);
  }
  unsigned char in[15] = {}, out[16];
  uint32_t length = sizeof out;
  EXPECT_EQ(qn_pkcs11_decrypt_AESCBCPad(session(), &key, in, sizeof in, out, &length),
            ckr(CKR_ENCRYPTED_DATA_LEN_RANGE));
}

int32_t rsaVerify(qn_pkcs11_session *session, const qn_pkcs11_key &key, int hash, const Bytes &data,
                  const unsigned char *signature, uint32_t length) {
  return qn_pkcs11_verify_pkcs1v15_RSA(session, &key, hash, data.data(),
                                       static_cast<uint32_t>(data.size()), signature, length);
}

class RsaTest : public TokenTest {
protected:
  void prepare() override {
    label_ = uniqueLabel("rsa");
    ASSERT_EQ(qn_pkcs11_gen_RSAKeyPair(session(), 2048, label_.c_str(), &public_, &private_), 0);
    destroyLater(public_);
    destroyLater(private_);
  }
  int32_t sign(int hash, const Bytes &data, unsigned char *signature, uint32_t *length) {
    return qn_pkcs11_sign_pkcs1v15_RSA(session(), &private_, hash, data.data(),
                                       static_cast<uint32_t>(data.size()), signature, length);
  }
  int32_t verify(int hash, const Bytes &data, const unsigned char *signature, uint32_t length) {
    return rsaVerify(session(), public_, hash, data, signature, length);
  }
  std::string label_;
  qn_pkcs11_key public_{}, private_{};
};

TEST_P(RsaTest, SignaturesVerifyAndTamperingFails) {
  qn_pkcs11_key found{};
  ASSERT_EQ(qn_pkcs11_find_RSAPrivWithLabel(session(), label_.c_str(), &found), 0);
  EXPECT_EQ(found.handle, private_.handle);
  ASSERT_EQ(qn_pkcs11_find_RSAPubWithLabel(session(), label_.c_str(), &found), 0);
  EXPECT_EQ(found.handle, public_.handle);

  Bytes data = bytesOf("client secret of a pavo agent");
  unsigned char signature[256];
  uint32_t length = 255;
  // Too small a buffer gets the needed length and leaves no operation active.
  EXPECT_EQ(sign(QN_PKCS11_RSA_SHA1, data, signature, &length), ckr(CKR_BUFFER_TOO_SMALL));
  ASSERT_EQ(length, 256u);
  ASSERT_EQ(sign(QN_PKCS11_RSA_SHA1, data, signature, &length), 0);
  EXPECT_EQ(verify(QN_PKCS11_RSA_SHA1, data, signature, length), 0);
  signature[100] ^= 0x40;
  EXPECT_EQ(
      statusAndOutput([&] { return verify(QN_PKCS11_RSA_SHA1, data, signature, length); }),
      Printed(ckr(CKR_SIGNATURE_INVALID),
              "C_Verify (verify_pkcs1v15_RSA) returned:  192 (0xc0) CKR_SIGNATURE_INVALID\n"));
  signature[100] ^= 0x40;
  data[0] ^= 1;
  EXPECT_EQ(verify(QN_PKCS11_RSA_SHA1, data, signature, length), ckr(CKR_SIGNATURE_INVALID));
  EXPECT_EQ(sign(3, data, signature, &length), QN_PKCS11_RC_RSA_HASH);
}

TEST_P(RsaTest, Sha256SignaturesWhereTheTokenHasTheMechanism) {
  Bytes data = bytesOf("payload");
  unsigned char signature[256];
  uint32_t length = sizeof signature;
  auto [rc, out] =
      statusAndOutput([&] { return sign(QN_PKCS11_RSA_SHA256, data, signature, &length); });
  if (GetParam() == mfatest::TokenKind::OpenCryptoki) {
    // This provider version lacks CKM_SHA256_RSA_PKCS.
    EXPECT_EQ(rc, ckr(CKR_MECHANISM_INVALID)) << out;
    return;
  }
  ASSERT_EQ(rc, 0) << out;
  EXPECT_EQ(verify(QN_PKCS11_RSA_SHA256, data, signature, length), 0);
  EXPECT_EQ(verify(QN_PKCS11_RSA_SHA1, data, signature, length), ckr(CKR_SIGNATURE_INVALID));
}

TEST_P(RsaTest, WrapsOnlyExtractableSecrets) {
  for (int sensitive : {0, 1}) {
    unsigned char *wrapped = nullptr;
    uint32_t length = 0;
    qn_pkcs11_key secret{};
    ASSERT_EQ(qn_pkcs11_gen_AESCBCPadWithLabel(session(), 256, uniqueLabel("wrap").c_str(),
                                               sensitive, &secret),
              0);
    destroyLater(secret);
    auto [rc, out] = statusAndOutput([&] {
      return qn_pkcs11_wrapSecret_PKCS1v15_RSA(session(), &public_, &secret, &wrapped, &length);
    });
    EXPECT_EQ(rc != 0, sensitive == 1) << out;
    EXPECT_EQ(length, sensitive ? 0u : 256u);
    safeFree(reinterpret_cast<char *>(wrapped), static_cast<int>(length));
  }
}

TEST_P(TokenTest, ImportedRsaPublicKeyVerifiesForeignSignatures) {
  EVP_PKEY *pkey = EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", static_cast<size_t>(2048));
  ASSERT_NE(pkey, nullptr);
  BIGNUM *modulus = nullptr;
  ASSERT_EQ(EVP_PKEY_get_bn_param(pkey, OSSL_PKEY_PARAM_RSA_N, &modulus), 1);
  Bytes raw(BN_num_bytes(modulus));
  BN_bn2bin(modulus, raw.data());
  BN_free(modulus);
  Bytes data = bytesOf("signed elsewhere");
  unsigned char signature[256];
  size_t length = sizeof signature;
  EVP_MD_CTX *md = EVP_MD_CTX_new();
  ASSERT_EQ(EVP_DigestSignInit(md, nullptr, EVP_sha1(), nullptr, pkey), 1);
  ASSERT_EQ(EVP_DigestSign(md, signature, &length, data.data(), data.size()), 1);
  EVP_MD_CTX_free(md);
  EVP_PKEY_free(pkey);

  qn_pkcs11_key key{};
  ASSERT_EQ(qn_pkcs11_create_rsaPubKeyFromRaw(session(), uniqueLabel("rsapub").c_str(), nullptr,
                                              raw.data(), static_cast<uint32_t>(raw.size()), &key),
            0);
  destroyLater(key);
  EXPECT_EQ(
      rsaVerify(session(), key, QN_PKCS11_RSA_SHA1, data, signature, static_cast<uint32_t>(length)),
      0);
}

// A key's boolean attribute as the provider reports it.
bool keyFlag(qn_pkcs11_session *session, const qn_pkcs11_key &key, CK_ATTRIBUTE_TYPE type) {
  CK_BBOOL value = CK_TRUE;
  CK_ATTRIBUTE query = {type, &value, sizeof value};
  EXPECT_EQ(key.env->functions->C_GetAttributeValue(session->handle, key.handle, &query, 1),
            CKR_OK)
      << "attribute " << type;
  return value == CK_TRUE;
}

// Sets an environment variable for one scope and restores what was there.
class ScopedVariable {
public:
  ScopedVariable(const char *name, const std::string &value) : name_(name) {
    if (const char *old = getenv(name))
      old_ = old;
    setenv(name, value.c_str(), 1);
  }
  ~ScopedVariable() { old_ ? setenv(name_, old_->c_str(), 1) : unsetenv(name_); }

private:
  const char *name_;
  std::optional<std::string> old_;
};

// Every kind of credential key the library makes: none may seed a derivation
// or wrap, whatever the provider's defaults, and each is private exactly when
// sessions log in.
TEST_P(TokenTest, CredentialKeysNeitherDeriveNorWrap) {
  const Bytes raw(32, 0x5a);
  const std::pair<const char *, std::function<int32_t(const char *, qn_pkcs11_key *)>> makers[] = {
      {"AES", [&](auto label, auto key) {
         return qn_pkcs11_gen_AESCBCPadWithLabel(session(), 256, label, 1, key);
       }},
      {"generic HMAC", [&](auto label, auto key) {
         return qn_pkcs11_gen_GenericSecretHMACKeyWithLabel(session(), 32, label, 0, key);
       }},
      {"SHA HMAC", [&](auto label, auto key) {
         return qn_pkcs11_gen_shaHMACKeyWithLabel(session(), QN_HASH_SHA256, label, 0, key);
       }},
      {"AES from raw", [&](auto label, auto key) {
         return qn_pkcs11_create_aesKeyFromRaw(session(), label, nullptr, raw.data(), 32, key);
       }},
      {"OTP seed", [&](auto label, auto key) {
         return qn_pkcs11_create_hmacKeyFromRaw(session(), label, nullptr, raw.data(), 20, key);
       }},
      {"password session key", [&](auto label, auto key) {
         return qn_pkcs11_create_hmacSessionKeyFromRaw(session(), label, nullptr, raw.data(), 8,
                                                       key);
       }},
  };
  const char *pinFile = getenv(QN_PKCS11_PIN_FILE_VARIABLE);
  const bool loggedIn = pinFile != nullptr && *pinFile != '\0';
  for (const auto &[kind, make] : makers) {
    qn_pkcs11_key key{};
    ASSERT_EQ(make(uniqueLabel("locked").c_str(), &key), 0) << kind;
    destroyLater(key);
    EXPECT_FALSE(keyFlag(session(), key, CKA_DERIVE)) << kind;
    EXPECT_FALSE(keyFlag(session(), key, CKA_WRAP)) << kind;
    EXPECT_FALSE(keyFlag(session(), key, CKA_UNWRAP)) << kind;
    EXPECT_TRUE(keyFlag(session(), key, CKA_SENSITIVE)) << kind;
    EXPECT_EQ(keyFlag(session(), key, CKA_PRIVATE), loggedIn) << kind;
  }
}

// The generic HMAC key hashes client secrets and has no other use.
TEST_P(TokenTest, GenericHmacKeysOnlySign) {
  qn_pkcs11_key key{};
  ASSERT_EQ(qn_pkcs11_gen_GenericSecretHMACKeyWithLabel(session(), 32,
                                                        uniqueLabel("hmacsign").c_str(), 0, &key),
            0);
  destroyLater(key);
  for (CK_ATTRIBUTE_TYPE type : {CKA_SIGN, CKA_VERIFY, CKA_ENCRYPT, CKA_DECRYPT})
    EXPECT_EQ(keyFlag(session(), key, type), type == CKA_SIGN) << type;
}

// Wrong PINs count towards locking a token, so the login refusals run on the
// token that each run has to itself.
TEST_F(SoftHsmTest, PinFileGuardsTheLogin) {
  MFA_REQUIRE_SERVICE("MFA_TEST_PIN_FILE");
  std::string pin;
  std::getline(std::ifstream(mfatest::serviceVariable("MFA_TEST_PIN_FILE")), pin);
  std::string path = testing::TempDir() + uniqueLabel("pin");
  auto writePin = [&](const std::string &text, mode_t mode) {
    std::ofstream(path, std::ios::trunc) << text;
    chmod(path.c_str(), mode);
  };
  ScopedVariable variable(QN_PKCS11_PIN_FILE_VARIABLE, path);
  qn_pkcs11_session second{};
  auto open = [&] {
    return statusAndOutput([&] { return qn_pkcs11_session_openReadOnly(token(), &second); });
  };

  // The right PIN in a file others may read is refused before any login.
  writePin(pin + "\n", 0644);
  EXPECT_EQ(open(), Printed(QN_PKCS11_RC_PIN_FILE_MODE,
                            "PKCS#11 PIN file " + path +
                                " must be a regular file that only its owner can read\n"));
  writePin("\n", 0600);
  EXPECT_EQ(open(), Printed(QN_PKCS11_RC_PIN_FILE_READ, "PKCS#11 PIN file " + path +
                                                            " holds no PIN\n"));
  writePin("00000000\n", 0600);
  auto [rc, out] = open();
  EXPECT_EQ(rc, ckr(CKR_PIN_INCORRECT));
  EXPECT_NE(out.find("C_Login (session_open) returned:  160 (0xa0) CKR_PIN_INCORRECT"),
            std::string::npos)
      << out;
  EXPECT_FALSE(second.flags & QN_PKCS11_SESSION_OPEN);
  unlink(path.c_str());
  EXPECT_EQ(open().first, QN_PKCS11_RC_PIN_FILE_READ);

  // With the right PIN the key is private: a session without the login no
  // longer finds it.
  writePin(pin + "\r\n", 0400);
  ASSERT_EQ(open(), Printed(0, ""));
  std::string label = uniqueLabel("private");
  qn_pkcs11_key key{}, found{};
  ASSERT_EQ(qn_pkcs11_gen_GenericSecretHMACKeyWithLabel(session(), 32, label.c_str(), 0, &key), 0);
  EXPECT_TRUE(keyFlag(session(), key, CKA_PRIVATE));
  ASSERT_EQ(env()->functions->C_Logout(second.handle), CKR_OK);
  EXPECT_EQ(qn_pkcs11_find_genericSecretWithLabel(session(), label.c_str(), &found),
            QN_PKCS11_RC_KEY_NOT_FOUND);
  ASSERT_EQ(qn_pkcs11_session_close(&second), 0);
  ASSERT_EQ(open().first, 0);
  ASSERT_EQ(qn_pkcs11_find_genericSecretWithLabel(session(), label.c_str(), &found), 0);
  EXPECT_EQ(qn_pkcs11_destroyObject(session(), &found), 0);
  EXPECT_EQ(qn_pkcs11_session_close(&second), 0);
  unlink(path.c_str());
}

MFA_INSTANTIATE_ON_TOKENS(TokenTest);
MFA_INSTANTIATE_ON_TOKENS(RsaTest);

} // namespace
