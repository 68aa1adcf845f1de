#include <gtest/gtest.h>

#include <string>

#include "base/textutils.h"
#include "crypto/digest.h"
#include "settings/serversettings.h"
#include "support/token.h"

namespace {

using mfatest::statusAndOutput;

std::string decoded(const std::string &text) {
  std::string bytes(text.size(), '\0');
  int length = decodeBase64(text.c_str(), bytes.data());
  bytes.resize(length < 0 ? 0 : static_cast<size_t>(length));
  return bytes;
}

// The base64 text of password ("" after a failure) and what the call printed.
std::string encrypt(qn_pkcs11_session *session, const std::string &password,
                    std::string *out = nullptr) {
  char *text = nullptr;
  auto [rc, printed] =
      statusAndOutput([&] { return encB64_p12Pass(password.c_str(), &text, session); });
  EXPECT_EQ(rc, 0);
  std::string result = text != nullptr ? text : "";
  freeString(text);
  if (out != nullptr)
    *out = printed;
  return result;
}

// decB64_p12Pass's status, with the password and what the call printed.
int32_t decrypt(qn_pkcs11_session *session, const std::string &text, std::string *password,
                std::string *out = nullptr) {
  char *plain = nullptr;
  auto [rc, printed] =
      statusAndOutput([&] { return decB64_p12Pass(text.c_str(), &plain, session); });
  if (out != nullptr)
    *out = printed;
  if (plain != nullptr)
    *password = plain;
  EXPECT_EQ(plain != nullptr, rc == 0);
  freeString(plain);
  return rc;
}

class P12PassTest : public mfatest::TokenTest {};

TEST_P(P12PassTest, RoundTripWithAFreshIvEachTime) {
  encrypt(session(), "makes the key when the token has none");
  for (const std::string &password :
       {std::string("s3cret p@ss"), std::string(), std::string(16, 'b'), std::string(300, 'c')}) {
    std::string out, first = encrypt(session(), password, &out), plain;
    EXPECT_EQ(out, "");
    EXPECT_NE(first, encrypt(session(), password));
    // The IV, then the password padded to the next whole block.
    EXPECT_EQ(decoded(first).size(), 16 + (password.size() / 16 + 1) * 16) << password;
    ASSERT_EQ(decrypt(session(), first, &plain), 0);
    EXPECT_EQ(plain, password);
  }
}

TEST_P(P12PassTest, DamagedTextsFailCleanly) {
  std::string text = encrypt(session(), "s3cret p@ss"), plain = "untouched", out;
  ASSERT_EQ(decoded(text).size(), 32u);
  // Base64 digit 20 holds the top bits of the IV's last byte, which sets the
  // last padding byte: flipping its top bit makes the padding invalid.
  const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string damaged = text;
  damaged[20] = digits[digits.find(text[20]) ^ 0x20];
  EXPECT_NE(decrypt(session(), damaged, &plain, &out), 0);
  EXPECT_NE(out.find("Error decrypting shared secret: "), std::string::npos) << out;
  EXPECT_NE(decrypt(session(), text.substr(0, 32), &plain), 0); // a block and a half
  EXPECT_EQ(decrypt(session(), "QU!D", &plain), QN_RC_BAD_BASE64);
  EXPECT_EQ(plain, "untouched");
}

TEST_P(P12PassTest, KeyStaysOnTheTokenAndNeverLeavesIt) {
  std::string text = encrypt(session(), "kept");
  qn_pkcs11_key key{};
  ASSERT_EQ(qn_pkcs11_find_AESWithLabel(session(), STCSETTINGS_AES_KEY_LABEL, &key), 0);
  CK_BBOOL onToken = 0, sensitive = 0, extractable = 1, encrypts = 0, decrypts = 0;
  CK_ATTRIBUTE attributes[] = {{CKA_TOKEN, &onToken, 1},
                               {CKA_SENSITIVE, &sensitive, 1},
                               {CKA_EXTRACTABLE, &extractable, 1},
                               {CKA_ENCRYPT, &encrypts, 1},
                               {CKA_DECRYPT, &decrypts, 1}};
  ASSERT_EQ(env()->functions->C_GetAttributeValue(session()->handle, key.handle, attributes, 5),
            CKR_OK);
  EXPECT_TRUE(onToken && sensitive && !extractable && encrypts && decrypts);

  // A new provider instance, as a later process would have, finds the key.
  closeToken();
  openToken(GetParam());
  std::string plain, out;
  ASSERT_EQ(decrypt(session(), text, &plain, &out), 0);
  EXPECT_EQ(plain, "kept");
  EXPECT_EQ(out, "");
}

MFA_INSTANTIATE_ON_TOKENS(P12PassTest);

// Removing the key would disturb concurrent runs on the shared token, so the
// key's absence is only tried on the SoftHSM2 token, private to each run.
class P12PassWithoutKeyTest : public mfatest::SoftHsmTest {};

TEST_F(P12PassWithoutKeyTest, DecryptionNeedsTheKeyAndTheFirstEncryptionMakesIt) {
  qn_pkcs11_key key{};
  while (qn_pkcs11_find_AESWithLabel(session(), STCSETTINGS_AES_KEY_LABEL, &key) == 0)
    ASSERT_EQ(qn_pkcs11_destroyObject(session(), &key), 0);
  std::string plain = "untouched", out;
  EXPECT_EQ(decrypt(session(), "QUJD", &plain, &out), STCSETTINGS_NO_P12_LOCATION);
  EXPECT_EQ(out, "qn_pkcs11_find_AESWithLabel failed with error: 67711\n");
  std::string text = encrypt(session(), "pw", &out);
  EXPECT_EQ(out, "Generating a 256-bit AES key with label '" STCSETTINGS_AES_KEY_LABEL "'...");
  ASSERT_EQ(decrypt(session(), text, &plain), 0);
  EXPECT_EQ(plain, "pw");
}

} // namespace
