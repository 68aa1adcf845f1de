#include <gtest/gtest.h>

#include <string>

#include "base/textutils.h"
#include "crypto/digest.h"
#include "settings/serversettings.h"
#include "support/token.h"

namespace {

using mfatest::statusAndOutput;

const std::string kGenerating =
    "Generating a 256-bit AES key with label '" STCSETTINGS_AES_KEY_LABEL "'...";

std::string decoded(const std::string &text) {
  std::string bytes(text.size(), '\0');
  int length = decodeBase64(text.c_str(), bytes.data());
  bytes.resize(length < 0 ? 0 : static_cast<size_t>(length));
  return bytes;
}

std::string encoded(const std::string &bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  int length = 0;
  encodeBase64NoAlloc(bytes.data(), static_cast<int>(bytes.size()), text.data(), &length, 0);
  text.resize(static_cast<size_t>(length));
  return text;
}

class P12PassTest : public mfatest::TokenTest {
protected:
  // The base64 text of password, or "" after a failure.
  std::string encrypt(const char *password) {
    char *text = nullptr;
    EXPECT_EQ(encB64_p12Pass(password, &text, session()), 0);
    std::string result = text != nullptr ? text : "";
    freeString(text);
    return result;
  }
  // decB64_p12Pass's status, what it printed, and the password.
  int32_t decrypt(const std::string &text, std::string *password, std::string *out = nullptr) {
    char *plain = nullptr;
    auto [rc, printed] =
        statusAndOutput([&] { return decB64_p12Pass(text.c_str(), &plain, session()); });
    if (out != nullptr)
      *out = printed;
    if (rc == 0)
      *password = plain;
    else
      EXPECT_EQ(plain, nullptr);
    freeString(plain);
    return rc;
  }
};

TEST_P(P12PassTest, RoundTripWithAFreshIvEachTime) {
  const std::string passwords[] = {"s3cret p@ss", "", std::string(16, 'b'), std::string(300, 'c')};
  for (const std::string &password : passwords) {
    std::string first = encrypt(password.c_str());
    auto [rc, out] = statusAndOutput([&] {
      char *text = nullptr;
      int32_t status = encB64_p12Pass(password.c_str(), &text, session());
      EXPECT_NE(first, text != nullptr ? text : "");
      freeString(text);
      return status;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(out, "") << "the key exists by now";
    // The IV, then the password padded to the next whole block.
    EXPECT_EQ(decoded(first).size(), 16 + (password.size() / 16 + 1) * 16) << password;
    std::string plain;
    ASSERT_EQ(decrypt(first, &plain), 0);
    EXPECT_EQ(plain, password);
  }
}

TEST_P(P12PassTest, DamagedTextsFailCleanly) {
  std::string bytes = decoded(encrypt("s3cret p@ss"));
  ASSERT_EQ(bytes.size(), 32u);
  // The last byte of the IV sets the last padding byte: over 16 is invalid.
  bytes[15] = static_cast<char>(bytes[15] ^ 0x80);
  std::string plain = "untouched", out;
  EXPECT_NE(decrypt(encoded(bytes), &plain, &out), 0);
  EXPECT_NE(out.find("Error decrypting shared secret: "), std::string::npos) << out;
  EXPECT_NE(decrypt(encoded(bytes.substr(0, 24)), &plain), 0);
  EXPECT_NE(decrypt("QUJD", &plain), 0);
  EXPECT_EQ(decrypt("QU!D", &plain), QN_RC_BAD_BASE64);
  EXPECT_EQ(plain, "untouched");
  char *text = nullptr;
  EXPECT_EQ(encB64_p12Pass(nullptr, &text, session()), SETTINGS_MISSING_ARGUMENT);
  EXPECT_EQ(decB64_p12Pass("QUJD", &text, nullptr), SETTINGS_MISSING_ARGUMENT);
}

TEST_P(P12PassTest, KeyStaysOnTheTokenAndNeverLeavesIt) {
  std::string text = encrypt("kept");
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
  ASSERT_EQ(decrypt(text, &plain, &out), 0);
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
  char *plain = nullptr;
  auto [rc, out] = statusAndOutput([&] { return decB64_p12Pass("QUJD", &plain, session()); });
  EXPECT_EQ(rc, STCSETTINGS_NO_P12_LOCATION);
  EXPECT_EQ(out, "qn_pkcs11_find_AESWithLabel failed with error: 67711\n");
  EXPECT_EQ(plain, nullptr);

  char *text = nullptr;
  std::tie(rc, out) = statusAndOutput([&] { return encB64_p12Pass("pw", &text, session()); });
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(out, kGenerating);
  ASSERT_EQ(decB64_p12Pass(text, &plain, session()), 0);
  EXPECT_STREQ(plain, "pw");
  freeString(text);
  freeString(plain);
}

} // namespace
