#include "db/passwords.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <functional>
#include <string>
#include <vector>

#include "base/logging.h"
#include "crypto/pwhash.h"
#include "support/pgtest.h"
#include "support/token.h"

namespace {

using mfatest::Rows;
using mfatest::writes;

constexpr int kIterations = 64;
const char *const kOdd = "pä'ss\\wörd'); delete from qmx_user;--";

// The stored key text OpenSSL derives for password with a stored salt text.
std::string opensslKey(const std::string &password, const std::string &saltText, int count) {
  unsigned char salt[64], key[32], text[48];
  int length = EVP_DecodeBlock(salt, reinterpret_cast<const unsigned char *>(saltText.data()),
                               static_cast<int>(saltText.size()));
  length -= static_cast<int>(saltText.size() - saltText.find_last_not_of('=') - 1);
  PKCS5_PBKDF2_HMAC_SHA1(password.data(), static_cast<int>(password.size()), salt, length, count,
                         sizeof key, key);
  return std::string(reinterpret_cast<char *>(text), EVP_EncodeBlock(text, key, sizeof key));
}

class PasswordsTest : public mfatest::PgTest,
                      public testing::WithParamInterface<mfatest::TokenKind>,
                      protected mfatest::TokenFixture {
protected:
  void SetUp() override {
    PgTest::SetUp();
    if (IsSkipped() || HasFatalFailure())
      return;
    openToken(GetParam());
    if (IsSkipped() || HasFatalFailure())
      return;
    ASSERT_EQ(qn_db_createPwhashCtx(ctx, session(), kIterations), 0);
    sql("insert into qmx_user(unixuid) values('bob'), ('o''hara'), ('carol')");
  }
  void TearDown() override {
    if (ctx != nullptr)
      qn_pwhash_ctx_destroy(ctx->pwhashContext);
    closeToken();
    PgTest::TearDown();
  }
  Rows stored() {
    return sql(
        "select passwordhash, iterationcount || version::text, salt from qmx_usermfapassword "
        "order by userid");
  }
  std::function<std::string(int &)> save(const char *uid, const char *password) {
    return writes([=, this] { return qn_db_userPasswordSave(ctx, uid, password); });
  }
  // Verifies after an optional change to the stored rows.
  std::function<std::string(int &)> verify(const char *uid, const char *password,
                                           std::string update = "") {
    return writes([=, this] {
      if (!update.empty())
        sql("update qmx_usermfapassword set " + update);
      return qn_db_userPasswordVerify(ctx, uid, password);
    });
  }
};

TEST_P(PasswordsTest, SaveThenVerify) {
  const std::string empty =
      "MFADB:Attempted user password validation with an empty user id or password\n";
  const std::string missing = "MFADB:Failed to retrieve user password hash data (user id:";
  mfatest::runSteps({
      {"saved", save("bob", "correct horse"), 0, "", ""},
      {"verified", verify("bob", "correct horse"), 0, "", ""},
      {"a uid in capitals is folded", verify("BOB", "correct horse"), 0, "", ""},
      {"a mismatch is logged below the level shown", verify("bob", "correct horsf"), 80111, "", ""},
      {"empty password", verify("bob", ""), 80106, "", empty},
      {"empty uid", verify("", "x"), 80106, "", empty},
      {"null password", verify("bob", nullptr), 80106, "", empty},
      {"nothing stored", verify("carol", "x"), 80105, "", missing + "carol)\n"},
      {"saved by id", writes([this] { return qn_db_userPasswordSaveById(ctx, 3, kOdd); }), 0, "",
       ""},
      {"verified by uid", verify("Carol", kOdd), 0, "", ""},
      {"a quoted save matches o'hara", save("o'hara", "x"), 0, "", ""},
      {"the lookup is sent the escaped uid", verify("o'hara", "x"), 80105, "",
       missing + "o''hara)\n"},
      {"saving does not fold the uid", save("BOB", "other"), 0, "", ""},
      {"a null password is not hashed", save("bob", nullptr), 7770001, "",
       "MFADB:Error while hashing user password: 7770001\n"},
      {"a mismatch is logged at level 3", writes([this] {
         logSetLevel(ctx->logContext, MFADB_COMPONENT_ID, 3);
         return qn_db_userPasswordVerify(ctx, "bob", "x");
       }),
       80111, "", "MFADB:Password match failed\n"},
  });
  // Every row verifies with OpenSSL's PBKDF2 as well.
  Rows rows = stored();
  ASSERT_EQ(rows.size(), 3u);
  const char *passwords[] = {"correct horse", "x", kOdd};
  for (size_t i = 0; i < rows.size(); i++)
    EXPECT_EQ(rows[i], (std::vector{opensslKey(passwords[i], rows[i][2], kIterations),
                                    std::to_string(kIterations) + "1", rows[i][2]}));
  // Saving again replaces the one row with a new salt.
  ASSERT_EQ(qn_db_userPasswordSaveById(ctx, 1, "second"), 0);
  Rows again = stored();
  ASSERT_EQ(again.size(), 3u);
  EXPECT_NE(again[0][2], rows[0][2]);
  EXPECT_EQ(qn_db_userPasswordVerify(ctx, "bob", "second"), 0);
  EXPECT_EQ(qn_db_userPasswordVerify(ctx, "bob", "correct horse"), 80111);

  // Rows written elsewhere: under another count, or not base64.
  const std::string salt = "c2FsdCBmcm9tIGVsc2V3aGVyZQ==";
  const std::string unavailable =
      "MFADB:pwhash context not initialized, cannot proceed with password hashing.";
  qn_pwhash_ctx *hashing = ctx->pwhashContext;
  mfatest::runSteps({
      {"OpenSSL's row under its own count",
       verify("bob", kOdd,
              "iterationcount=7, salt='" + salt + "', passwordhash='" + opensslKey(kOdd, salt, 7) +
                  "'"),
       0, "", ""},
      {"a key that is no base64", verify("bob", kOdd, "passwordhash='not base64!'"), 80120, "",
       "MFADB:Error during pwhash base64 decode: -1\n"},
      {"a salt that is no base64", verify("bob", kOdd, "passwordhash='aGFzaA==', salt='abc'"),
       80120, "", "MFADB:Error during salt base64 decode: -1\n"},
      {"without a hashing context", writes([this] { return ctx->pwhashContext = nullptr, 0; }), 0,
       "", ""},
      {"nothing is saved", save("bob", "x"), 80110, "", unavailable},
      {"by id either", writes([this] { return qn_db_userPasswordSaveById(ctx, 1, "x"); }), 80110,
       "", unavailable},
      {"nor verified", verify("bob", "x"), 80110, "", unavailable},
  });
  ctx->pwhashContext = hashing;
  EXPECT_EQ(sql("select distinct passwordhash from qmx_usermfapassword"), Rows{{"aGFzaA=="}});
}

MFA_INSTANTIATE_ON_TOKENS(PasswordsTest);

} // namespace
