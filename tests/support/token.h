// Test fixture for the software PKCS#11 tokens that scripts/test starts, and
// small helpers shared by the crypto suites.
#pragma once

#include "crypto/pkcs11.h"
#include "support/env.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace mfatest {

using Bytes = std::vector<unsigned char>;

// Lower-case hex, for comparing with published vectors.
std::string hex(const unsigned char *bytes, std::size_t length);
inline std::string hex(const Bytes &bytes) {
  return hex(bytes.data(), bytes.size());
}
inline Bytes bytesOf(std::string_view text) {
  return Bytes(text.begin(), text.end());
}

// The status a call returns together with what it prints on stdout.
template <typename Call> std::pair<int32_t, std::string> statusAndOutput(Call call) {
  int32_t rc = 0;
  std::string out = captureStdout([&] { rc = static_cast<int32_t>(call()); });
  return {rc, out};
}

enum class TokenKind { SoftHsm, OpenCryptoki };
void PrintTo(TokenKind kind, std::ostream *out);

// The variables that name a token's provider library and its label.
struct TokenService {
  const char *name; // for test names: "SoftHSM", "openCryptoki"
  const char *moduleVariable;
  const char *labelVariable;
};
const TokenService &tokenService(TokenKind kind);

// An open read-write session on a test token. Keys registered with
// destroyLater are destroyed before the session closes, so that persistent
// test objects do not pile up on the token.
class TokenSession {
public:
  TokenSession() = default;
  TokenSession(const TokenSession &) = delete;
  TokenSession &operator=(const TokenSession &) = delete;
  ~TokenSession() { close(); }

  // Loads the provider, finds the token and opens the session. Returns an
  // empty string on success, else what went wrong.
  std::string open(const std::string &module, const std::string &label);
  void close();

  qn_pkcs11_session *session() { return &session_; }
  qn_pkcs11_env *env() { return env_; }
  qn_pkcs11_token *token() { return token_; }
  void destroyLater(const qn_pkcs11_key &key) { created_.push_back(key); }

private:
  qn_pkcs11_env *env_ = nullptr;
  qn_pkcs11_token *token_ = nullptr;
  qn_pkcs11_session session_{};
  std::vector<qn_pkcs11_key> created_;
};

// While alive, allocations of this thread are not reported as leaks.
// openCryptoki leaks memory on every HMAC and when it unloads its per-slot
// libraries, in stacks that suppressions cannot reach; the same calls run on
// SoftHSM2 with leak checking, which keeps this library's own leaks visible.
class ProviderLeakScope {
public:
  ProviderLeakScope();
  ProviderLeakScope(const ProviderLeakScope &) = delete;
  ProviderLeakScope &operator=(const ProviderLeakScope &) = delete;
  ~ProviderLeakScope();
};

// Opens the token of the given kind in SetUp: skips the test when its service
// variables are unset (fails it when scripts/test started the services).
class TokenFixture {
protected:
  void openToken(TokenKind kind);
  void closeToken() { token_.close(); }
  qn_pkcs11_session *session() { return token_.session(); }
  TokenSession &token() { return token_; }
  // A label unique to this process and call, so that concurrent runs and
  // repeated tests never find each other's objects.
  static std::string uniqueLabel(std::string_view stem);

private:
  std::optional<ProviderLeakScope> leakScope_; // outlives token_ and the test body
  TokenSession token_;
};

// Parameterised over both tokens; instantiate with MFA_INSTANTIATE_ON_TOKENS.
class TokenTest : public testing::TestWithParam<TokenKind>, protected TokenFixture {
protected:
  void SetUp() override {
    openToken(GetParam());
    if (!IsSkipped() && !HasFatalFailure())
      prepare();
  }
  void TearDown() override { closeToken(); }
  // A suite's own setup, run once the token is open.
  virtual void prepare() {}
};

// On the SoftHSM2 token only.
class SoftHsmTest : public testing::Test, protected TokenFixture {
protected:
  void SetUp() override { openToken(TokenKind::SoftHsm); }
  void TearDown() override { closeToken(); }
};

std::string tokenTestName(const testing::TestParamInfo<TokenKind> &info);

} // namespace mfatest

#define MFA_INSTANTIATE_ON_TOKENS(suite)                                                           \
  INSTANTIATE_TEST_SUITE_P(                                                                        \
      Tokens, suite,                                                                               \
      testing::Values(mfatest::TokenKind::SoftHsm, mfatest::TokenKind::OpenCryptoki),              \
      mfatest::tokenTestName)
