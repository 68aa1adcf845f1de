#include "support/token.h"

#include <unistd.h>

#include <atomic>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#define MFA_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#define MFA_LSAN 1
#endif
#endif

namespace mfatest {
namespace {

void setLeakChecking(bool on) {
#ifdef MFA_LSAN
  on ? __lsan_enable() : __lsan_disable();
#else
  (void)on;
#endif
}

} // namespace

std::string hex(const unsigned char *bytes, std::size_t length) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < length; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

const TokenService &tokenService(TokenKind kind) {
  static const TokenService softHsm = {"SoftHSM", "MFA_SOFTHSM_MODULE", "MFA_TEST_TOKEN_LABEL"};
  static const TokenService openCryptoki = {"openCryptoki", "MFA_OPENCRYPTOKI_MODULE",
                                            "MFA_OPENCRYPTOKI_TOKEN_LABEL"};
  return kind == TokenKind::SoftHsm ? softHsm : openCryptoki;
}

TokenFixture::~TokenFixture() {
  closeToken();
  if (leakCheckOff_)
    setLeakChecking(true);
}

void TokenFixture::openToken(TokenKind kind) {
  const TokenService &service = tokenService(kind);
  std::string module = serviceVariable(service.moduleVariable);
  std::string label = serviceVariable(service.labelVariable);
  if (module.empty() || label.empty()) {
    if (servicesRequired())
      FAIL() << service.moduleVariable << " or " << service.labelVariable
             << " is not set although the services were started";
    GTEST_SKIP() << service.name << " token not configured; run the suite through scripts/test";
  }
  // openCryptoki leaks memory on every HMAC and when it unloads its per-slot
  // libraries, in stacks that suppressions cannot reach. Leak checking stays
  // off for the whole test on that token; the same calls run on SoftHSM2 with
  // it on, which keeps this library's own leaks visible.
  if (kind == TokenKind::OpenCryptoki && !leakCheckOff_) {
    setLeakChecking(false);
    leakCheckOff_ = true;
  }
  ASSERT_EQ(qn_pkcs11_env_initModule(module.c_str(), &env_), 0) << module;
  ASSERT_EQ(qn_pkcs11_findToken(env_, label.c_str(), &token_), 0) << label;
  ASSERT_EQ(qn_pkcs11_session_openReadWrite(token_, &session_), 0) << service.name;
}

void TokenFixture::closeToken() {
  if (session_.flags & QN_PKCS11_SESSION_OPEN) {
    for (const qn_pkcs11_key &key : created_)
      qn_pkcs11_destroyObject(&session_, &key);
    qn_pkcs11_session_close(&session_);
  }
  created_.clear();
  session_ = {};
  qn_pkcs11_token_free(token_);
  token_ = nullptr;
  qn_pkcs11_env_destroy(env_);
  env_ = nullptr;
}

std::string TokenFixture::uniqueLabel(std::string_view stem) {
  static std::atomic<unsigned> counter{0};
  return std::string(stem) + "-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
}

} // namespace mfatest
