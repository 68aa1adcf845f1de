// Test fixture for the software PKCS#11 tokens that scripts/test starts, and
// small helpers shared by the crypto suites.
#pragma once

#include "crypto/pkcs11.h"
#include "support/env.h"

#include <gtest/gtest.h>

#include <cstdint>
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

// The variables that name a token's provider library and its label.
struct TokenService {
  const char *name; // for test names
  const char *moduleVariable;
  const char *labelVariable;
};
const TokenService &tokenService(TokenKind kind);
inline void PrintTo(TokenKind kind, std::ostream *out) {
  *out << tokenService(kind).name;
}

// An open read-write session on a test token. Keys registered with
// destroyLater are destroyed before the session closes, so that persistent
// test objects do not pile up on the token.
class TokenFixture {
protected:
  ~TokenFixture();
  // Skips the test when the token's variables are unset (fails it when
  // scripts/test started the services).
  void openToken(TokenKind kind);
  void closeToken();
  qn_pkcs11_session *session() { return &session_; }
  qn_pkcs11_env *env() { return env_; }
  qn_pkcs11_token *token() { return token_; }
  void destroyLater(const qn_pkcs11_key &key) { created_.push_back(key); }
  // A label unique to this process and call, so that concurrent runs and
  // repeated tests never find each other's objects.
  static std::string uniqueLabel(std::string_view stem);

private:
  qn_pkcs11_env *env_ = nullptr;
  qn_pkcs11_token *token_ = nullptr;
  qn_pkcs11_session session_{};
  std::vector<qn_pkcs11_key> created_;
  bool leakCheckOff_ = false;
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

} // namespace mfatest

#define MFA_INSTANTIATE_ON_TOKENS(suite)                                                           \
  INSTANTIATE_TEST_SUITE_P(                                                                        \
      Tokens, suite,                                                                               \
      testing::Values(mfatest::TokenKind::SoftHsm, mfatest::TokenKind::OpenCryptoki),              \
      [](const auto &info) { return std::string(mfatest::tokenService(info.param).name); })
