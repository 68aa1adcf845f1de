// Cost of verifying a password against the token work it cannot avoid.
//
// A verification at 4,000 iterations with a 32-byte key runs two PBKDF2
// blocks, so 8,000 HMAC-SHA1 computations on the token. The bare loop makes
// those 8,000 C_SignInit + C_Sign calls straight through the provider's
// function list on the same kind of key; the difference is what the hashing
// layer and the token layer add (key creation and destruction included).
//
// Needs the SoftHSM2 token that scripts/lib/service-tokens.sh sets up:
// MFA_SOFTHSM_MODULE, MFA_TEST_TOKEN_LABEL and SOFTHSM2_CONF.
#include "crypto/pkcs11.h"
#include "crypto/pwhash.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr uint32_t kIterations = 4000;
constexpr uint32_t kSaltLength = 16;
constexpr uint32_t kDerivedLength = 32;
constexpr uint32_t kHmacCalls = kIterations * 2; // two 20-byte blocks cover 32 bytes
constexpr char kPassword[] = "benchmark password";

struct Token {
  qn_pkcs11_env *env = nullptr;
  qn_pkcs11_token *token = nullptr;
  qn_pkcs11_session session{};
  std::string failure;

  Token() {
    const char *module = getenv("MFA_SOFTHSM_MODULE");
    const char *label = getenv("MFA_TEST_TOKEN_LABEL");
    if (module == nullptr || label == nullptr) {
      failure = "MFA_SOFTHSM_MODULE and MFA_TEST_TOKEN_LABEL must name the SoftHSM2 token";
      return;
    }
    if (qn_pkcs11_env_initModule(module, &env) != 0 ||
        qn_pkcs11_findToken(env, label, &token) != 0 ||
        qn_pkcs11_session_openReadWrite(token, &session) != 0)
      failure = "cannot open a session on the token";
  }
  ~Token() {
    if (session.flags & QN_PKCS11_SESSION_OPEN)
      qn_pkcs11_session_close(&session);
    qn_pkcs11_token_free(token);
    qn_pkcs11_env_destroy(env);
  }
};

Token &sharedToken() {
  static Token token;
  return token;
}

void BM_PwhashVerify(benchmark::State &state) {
  Token &token = sharedToken();
  if (!token.failure.empty()) {
    state.SkipWithError(token.failure.c_str());
    return;
  }
  qn_pwhash_ctx *context = nullptr;
  qn_pwhash_ctx_init(kIterations, kSaltLength, kDerivedLength, &token.session, &context);
  unsigned char salt[kSaltLength];
  unsigned char derived[kDerivedLength];
  uint32_t saltLength = sizeof(salt);
  uint32_t derivedLength = sizeof(derived);
  if (qn_pwhash_protect(context, kPassword, strlen(kPassword), salt, &saltLength, derived,
                        &derivedLength) != 0) {
    state.SkipWithError("qn_pwhash_protect failed");
    qn_pwhash_ctx_destroy(context);
    return;
  }
  for (auto _ : state) {
    int matched = 0;
    int rc = qn_pwhash_verify(context, kIterations, kPassword, strlen(kPassword), salt, saltLength,
                              derived, derivedLength, &matched);
    if (rc != 0 || matched != 1) {
      state.SkipWithError("qn_pwhash_verify did not match");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * kHmacCalls);
  qn_pwhash_ctx_destroy(context);
}

void BM_BareSignLoop(benchmark::State &state) {
  Token &token = sharedToken();
  if (!token.failure.empty()) {
    state.SkipWithError(token.failure.c_str());
    return;
  }
  qn_pkcs11_key key{};
  if (qn_pkcs11_create_hmacSessionKeyFromRaw(&token.session, nullptr, nullptr,
                                             reinterpret_cast<const unsigned char *>(kPassword),
                                             strlen(kPassword), &key) != 0) {
    state.SkipWithError("cannot create the HMAC key");
    return;
  }
  CK_FUNCTION_LIST_PTR p11 = token.env->functions;
  CK_SESSION_HANDLE session = token.session.handle;
  CK_MECHANISM mechanism = {CKM_SHA_1_HMAC, nullptr, 0};
  // Each input is the previous output, as in a PBKDF2 block.
  unsigned char data[20] = {};
  for (auto _ : state) {
    for (uint32_t i = 0; i < kHmacCalls; ++i) {
      CK_ULONG length = sizeof(data);
      if (p11->C_SignInit(session, &mechanism, key.handle) != CKR_OK ||
          p11->C_Sign(session, data, sizeof(data), data, &length) != CKR_OK) {
        state.SkipWithError("C_SignInit or C_Sign failed");
        break;
      }
    }
    benchmark::DoNotOptimize(data);
  }
  state.SetItemsProcessed(state.iterations() * kHmacCalls);
  qn_pkcs11_destroyObject(&token.session, &key);
}

BENCHMARK(BM_PwhashVerify)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareSignLoop)->Unit(benchmark::kMillisecond);

} // namespace
