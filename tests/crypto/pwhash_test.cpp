#include "crypto/pwhash.h"

#include "support/token.h"

#include <openssl/evp.h>

#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <utility>

namespace {

using mfatest::Bytes;

const unsigned char *bytes(const char *text) {
  return reinterpret_cast<const unsigned char *>(text);
}

Bytes referencePbkdf2(const std::string &password, const std::string &salt, int iterations,
                      size_t length) {
  Bytes out(length);
  PKCS5_PBKDF2_HMAC_SHA1(password.data(), static_cast<int>(password.size()), bytes(salt.c_str()),
                         static_cast<int>(salt.size()), iterations, static_cast<int>(length),
                         out.data());
  return out;
}

// A PRF that can be told to fail; its output is no real MAC. Each state is
// a heap cell, so the sanitizer reports one released twice or never.
struct SoftPrf {
  int calls = 0;
  int failAtCall = -1;  // PRF call number that returns 0
  int shortAtCall = -1; // PRF call number that produces 19 bytes
  int keyingResult = 1;
};

int softKeying(void *argument, const unsigned char *, uint32_t, void **state) {
  auto *prf = static_cast<SoftPrf *>(argument);
  if (prf->keyingResult == 1)
    *state = new SoftPrf *(prf);
  return prf->keyingResult;
}

int softRun(void *state, const unsigned char *, uint32_t, unsigned char *out, uint32_t *outLength) {
  SoftPrf *prf = *static_cast<SoftPrf **>(state);
  int call = prf->calls++;
  memset(out, 0, 20);
  *outLength = call == prf->shortAtCall ? 19 : 20;
  return call != prf->failAtCall;
}

void softRelease(void *state) {
  delete static_cast<SoftPrf **>(state);
}

// A PRF as the engine takes it: an argument for keying and three callbacks.
struct Prf {
  void *argument;
  qn_pbkdf2_keying_fn keying;
  qn_pbkdf2_prf_fn run;
  qn_pbkdf2_release_fn release;
};

struct EngineRun {
  int created = 0, derived = 0;
  Bytes out;
  void *failedState = nullptr; // for the caller to release
};

EngineRun runEngine(Prf prf, uint32_t mode, const std::string &password, const std::string &salt,
                    uint32_t iterations, uint32_t dkLen) {
  EngineRun run;
  qn_pbkdf2_ctx *context = nullptr;
  run.created = qn_pbkdf2_ctx_init(bytes(password.data()), password.size(), bytes(salt.data()),
                                   salt.size(), iterations, dkLen, 20, prf.argument, mode,
                                   prf.keying, prf.run, prf.release, &context);
  if (context != nullptr) {
    run.out.assign(dkLen, 0xEE);
    uint32_t length = dkLen;
    run.derived = qn_pbkdf2_exec(context, run.out.data(), &length, &run.failedState);
    EXPECT_TRUE(run.derived != 1 || length == dkLen);
    qn_pbkdf2_ctx_destroy(context);
  }
  return run;
}

TEST(Pbkdf2Engine, ParameterChecksAtCreation) {
  SoftPrf prf;
  qn_pbkdf2_ctx *context = nullptr;
  // The result, and whether a context came back (which is then destroyed).
  auto init = [&](uint32_t saltLength, uint32_t iterations, uint32_t dkLen, uint32_t hLen,
                  qn_pbkdf2_prf_fn run) {
    context = nullptr;
    int rc = qn_pbkdf2_ctx_init(bytes("pw"), 2, bytes("salt"), saltLength, iterations, dkLen, hLen,
                                &prf, 1, softKeying, run, softRelease, &context);
    bool made = context != nullptr;
    qn_pbkdf2_ctx_destroy(context);
    return std::make_pair(rc, made);
  };
  // Refused with nothing made: a missing callback, a salt too long for the
  // first block.
  EXPECT_EQ(init(4, 1, 32, 20, nullptr), std::make_pair(0, false));
  EXPECT_EQ(init(253, 1, 32, 20, softRun), std::make_pair(0, false));
  // Refused, but a context comes back that the caller must destroy.
  EXPECT_EQ(init(4, 1, 7, 20, softRun), std::make_pair(0, true));
  EXPECT_EQ(init(4, QN_PBKDF2_MAX_ITERATIONS + 1, 32, 20, softRun), std::make_pair(0, true));
  EXPECT_EQ(init(252, QN_PBKDF2_MAX_ITERATIONS, 8, 20, softRun), std::make_pair(1, true));
}

TEST(Pbkdf2Engine, FailuresHandTheKeyedStateBack) {
  for (uint32_t mode : {QN_PBKDF2_MODE_KEY_ONCE, QN_PBKDF2_MODE_KEY_PER_BLOCK}) {
    bool once = mode == QN_PBKDF2_MODE_KEY_ONCE;
    // A PRF failure in the second block, a PRF producing the wrong length, and
    // a keying failure: before the first block it is returned as it is, inside
    // a block it fails the derivation and leaves no state.
    SoftPrf failing{.failAtCall = 4}, shortOutput{.shortAtCall = 1}, refusing{.keyingResult = 7};
    for (auto [prf, derived, keyedState] :
         {std::tuple{&failing, 0, true}, std::tuple{&shortOutput, 0, true},
          std::tuple{&refusing, once ? 7 : 0, false}}) {
      SCOPED_TRACE(testing::Message() << "mode " << mode << ", derived " << derived);
      EngineRun run = runEngine({prf, softKeying, softRun, softRelease}, mode, "pw", "salt", 3, 32);
      EXPECT_EQ(run.derived, derived);
      EXPECT_EQ(run.failedState != nullptr, keyedState);
      softRelease(run.failedState);
    }
  }
}

// The token's HMAC-SHA1 bound as the service binds it.
Bytes tokenPbkdf2(qn_pwhash_ctx *context, const std::string &password, const std::string &salt,
                  uint32_t iterations, uint32_t dkLen, uint32_t mode = QN_PBKDF2_MODE_KEY_ONCE) {
  Prf prf{context, qn_pwhash_init_prf_context, qn_pwhash_prfexec_hmac_sha1,
          qn_pwhash_free_prf_context};
  EngineRun run = runEngine(prf, mode, password, salt, iterations, dkLen);
  EXPECT_EQ(std::pair(run.created, run.derived), std::pair(1, 1));
  qn_pwhash_free_prf_context(run.failedState);
  return run.out;
}

using PwhashContext = std::unique_ptr<qn_pwhash_ctx, decltype(&qn_pwhash_ctx_destroy)>;

PwhashContext makeContext(uint32_t iterations, qn_pkcs11_session *session) {
  qn_pwhash_ctx *context = nullptr;
  EXPECT_EQ(qn_pwhash_ctx_init(iterations, 16, 32, session, &context), 0);
  return PwhashContext(context, qn_pwhash_ctx_destroy);
}

int verify(qn_pwhash_ctx *context, uint32_t iterations, const std::string &password,
           const std::string &salt, const Bytes &derived, uint32_t derivedLength) {
  int matched = -1;
  int rc =
      qn_pwhash_verify(context, iterations, password.data(), static_cast<uint32_t>(password.size()),
                       bytes(salt.data()), static_cast<uint32_t>(salt.size()), derived.data(),
                       derivedLength, &matched);
  return rc != 0 ? -rc : matched;
}

class PwhashTokenTest : public mfatest::TokenTest {
protected:
  // Session keys of this process: the PRF keys the token with the password
  // for each derivation and must leave none behind.
  CK_ULONG countSessionKeys() {
    CK_FUNCTION_LIST_PTR p11 = env()->functions;
    CK_BBOOL onToken = CK_FALSE;
    CK_ATTRIBUTE filter[] = {{CKA_TOKEN, &onToken, sizeof(onToken)}};
    CK_SESSION_HANDLE handle = session()->handle;
    EXPECT_EQ(p11->C_FindObjectsInit(handle, filter, 1), CKR_OK);
    CK_OBJECT_HANDLE found[256];
    CK_ULONG count = 0;
    EXPECT_EQ(p11->C_FindObjects(handle, found, 256, &count), CKR_OK);
    p11->C_FindObjectsFinal(handle);
    return count;
  }
};

TEST_P(PwhashTokenTest, TokenPrfMatchesRfc6070AndOpenSsl) {
  const struct {
    std::string password, salt;
    uint32_t iterations;
    const char *derived;
  } vectors[] = {
      {"password", "salt", 1, "0c60c80f961f0e71f3a9b524af6012062fe037a6"},
      {"password", "salt", 2, "ea6c014dc72d6f8ccd1ed92ace1d41f0d8de8957"},
      {"password", "salt", 4096, "4b007901b765489abead49d926f721d065a429c1"},
      {"passwordPASSWORDpassword", "saltSALTsaltSALTsaltSALTsaltSALTsalt", 4096,
       "3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038"},
      {std::string("pass\0word", 9), std::string("sa\0lt", 5), 4096,
       "56fa6aa75548099dcc37d7f03425e0c3"},
  };
  PwhashContext context = makeContext(1, session());
  CK_ULONG keysBefore = countSessionKeys();
  // Keying once or per block changes nothing in the result; the 25-byte
  // vector spans two blocks.
  for (uint32_t mode : {QN_PBKDF2_MODE_KEY_ONCE, QN_PBKDF2_MODE_KEY_PER_BLOCK})
    for (const auto &vector : vectors) {
      SCOPED_TRACE(testing::Message() << vector.derived << ", mode " << mode);
      auto dkLen = static_cast<uint32_t>(strlen(vector.derived) / 2);
      EXPECT_EQ(mfatest::hex(tokenPbkdf2(context.get(), vector.password, vector.salt,
                                         vector.iterations, dkLen, mode)),
                vector.derived);
    }
  // Short passwords are padded inside the token layer and long ones are
  // hashed by HMAC itself: every length must still give standard PBKDF2.
  const std::string salt = "0123456789abcdef";
  std::string password;
  EXPECT_EQ(verify(context.get(), 2, "", salt, referencePbkdf2("", salt, 2, 32), 32), 1);
  for (size_t length = 1; length <= 100; ++length) {
    SCOPED_TRACE(length);
    password += static_cast<char>(length * 29 + 1);
    EXPECT_EQ(tokenPbkdf2(context.get(), password, salt, 2, 32),
              referencePbkdf2(password, salt, 2, 32));
  }
  EXPECT_EQ(countSessionKeys(), keysBefore);
}

// A fresh salt for each save and the stored count governing verification
// are checked where the derived keys are stored.
TEST_P(PwhashTokenTest, ProtectRecomputeVerify) {
  PwhashContext context = makeContext(50, session());
  unsigned char salt[20];
  Bytes derived(40), again(32);
  uint32_t saltLength = sizeof(salt), derivedLength = 40, againLength = 32;
  ASSERT_EQ(qn_pwhash_protect(context.get(), "correct horse", 13, salt, &saltLength, derived.data(),
                              &derivedLength),
            0);
  ASSERT_EQ(std::pair(saltLength, derivedLength), std::pair(16u, 32u));
  std::string saltText(reinterpret_cast<char *>(salt), 16);
  derived.resize(32);
  EXPECT_EQ(derived, referencePbkdf2("correct horse", saltText, 50, 32));
  EXPECT_EQ(verify(context.get(), 50, "correct horse", saltText, derived, 32), 1);
  EXPECT_EQ(verify(context.get(), 50, "correct horsf", saltText, derived, 32), 0);
  // Recompute uses only the configured number of leading salt bytes.
  ASSERT_EQ(qn_pwhash_recompute(context.get(), "correct horse", 13, salt, sizeof(salt),
                                again.data(), &againLength),
            0);
  EXPECT_EQ(again, derived);
}

TEST_P(PwhashTokenTest, ParameterRefusals) {
  unsigned char salt[16] = {1, 2, 3};
  Bytes derived(32);
  uint32_t saltLength = 15, derivedLength = 32;
  std::string saltText(reinterpret_cast<char *>(salt), 16);
  // Buffer checks come before the token is used: a context without a
  // session would fail with the token layer's missing-argument code.
  PwhashContext unbound = makeContext(10, nullptr);
  auto protect = [&](qn_pwhash_ctx *context, uint32_t passwordLength) {
    return qn_pwhash_protect(context, "pw", passwordLength, salt, &saltLength, derived.data(),
                             &derivedLength);
  };
  EXPECT_EQ(protect(unbound.get(), 2), QN_RC_SALT_TOO_SHORT);
  saltLength = 16;
  derivedLength = 31;
  EXPECT_EQ(protect(unbound.get(), 2), QN_RC_OUTPUT_TOO_SHORT);
  EXPECT_EQ(protect(unbound.get(), 0), QN_RC_MISSING_ARGUMENT);
  derivedLength = 32;
  PwhashContext context = makeContext(QN_PBKDF2_MAX_ITERATIONS + 1, session());
  EXPECT_EQ(protect(context.get(), 2), QN_RC_PBKDF2_PARAMETERS);
  // Zero iterations are not refused: the key is all zeros.
  EXPECT_EQ(verify(context.get(), 0, "pw", saltText, Bytes(32), 32), 1);
  // Without a context the keying fails inside the derivation.
  EXPECT_EQ(verify(nullptr, 1, "pw", saltText, derived, 32), -QN_RC_PBKDF2_FAILED);
}

MFA_INSTANTIATE_ON_TOKENS(PwhashTokenTest);

} // namespace
