#include "crypto/pkcs11.h"

#include "support/token.h"

namespace {

using mfatest::TokenTest;

TEST_P(TokenTest, Smoke) {
  unsigned char bytes[32] = {};
  EXPECT_EQ(qn_pkcs11_getRandomBytes(session(), nullptr, 0, bytes, sizeof bytes), 0);
}

MFA_INSTANTIATE_ON_TOKENS(TokenTest);

} // namespace
