#include "db/passwords.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <functional>
#include <string>

#include "base/logging.h"
#include "crypto/pwhash.h"
#include "support/pgtest.h"
#include "support/token.h"

namespace {

using mfatest::Rows;

constexpr int kIterations = 64;
const char *const kOdd = "pä'ss\\wörd'); delete from qmx_user;--";

std::string base64(const unsigned char *bytes, int length) {
  std::string text(static_cast<size_t>((length + 2) / 3 * 4 + 1), '\0');
  text.resize(static_cast<size_t>(
      EVP_EncodeBlock(reinterpret_cast<unsigned char *>(text.data()), bytes, length)));
  return text;
}

// The stored key text OpenSSL derives for password with a stored salt text.
std::string opensslKey(const std::string &password, const std::string &saltText, int count) {
  unsigned char salt[64], key[32];
  int length = EVP_DecodeBlock(salt, reinterpret_cast<const unsigned char *>(saltText.data()),
                               static_cast<int>(saltText.size()));
  length -= static_cast<int>(saltText.size() - saltText.find_last_not_of('=') - 1);
  PKCS5_PBKDF2_HMAC_SHA1(password.data(), static_cast<int>(password.size()), salt, length, count,
                         sizeof key, key);
  return base64(key, sizeof key);
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
    ASSERT_EQ(addUser("bob"), 1);
    addUser("o'hara");
    addUser("carol");
  }
  void TearDown() override {
    if (ctx != nullptr)
      qn_pwhash_ctx_destroy(ctx->pwhashContext);
    closeToken();
    PgTest::TearDown();
  }
  Rows stored() {
    return sql("select userid, passwordhash, iterationcount, salt, version from "
               "qmx_usermfapassword order by userid");
  }
};

TEST_P(PasswordsTest, SaveThenVerify) {
  const struct {
    std::function<int(dbctx *)> call;
    int status;
    const char *message; // a piece of the output; "" for none at all
  } steps[] = {
      {[](dbctx *c) { return qn_db_userPasswordSave(c, "bob", "correct horse"); }, 0, ""},
      {[](dbctx *c) { return qn_db_userPasswordVerify(c, "bob", "correct horse"); }, 0, ""},
      {[](dbctx *c) { return qn_db_userPasswordVerify(c, "BOB", "correct horse"); }, 0, ""},
      // A mismatch is logged below the level the component shows.
      {[](dbctx *c) { return qn_db_userPasswordVerify(c, "bob", "correct horsf"); }, 80111, ""},
      {[](dbctx *c) { return qn_db_userPasswordVerify(c, "bob", ""); }, 80106,
       "MFADB:Attempted user password validation with an empty user id or password\n"},
      {[](dbctx *c) { return qn_db_userPasswordVerify(c, "", "x"); }, 80106, "Attempted"},
      {[](dbctx *c) { return qn_db_userPasswordVerify(c, "bob", nullptr); }, 80106, "Attempted"},
      {[](dbctx *c) { return qn_db_userPasswordVerify(c, "carol", "x"); }, 80105,
       "MFADB:Failed to retrieve user password hash data (user id:carol)\n"},
      {[](dbctx *c) { return qn_db_userPasswordSaveById(c, 3, kOdd); }, 0, ""},
      {[](dbctx *c) { return qn_db_userPasswordVerify(c, "Carol", kOdd); }, 0, ""},
      // The quoted save matches o'hara; the lookup is sent the escaped uid.
      {[](dbctx *c) { return qn_db_userPasswordSave(c, "o'hara", "x"); }, 0, ""},
      {[](dbctx *c) { return qn_db_userPasswordVerify(c, "o'hara", "x"); }, 80105,
       "(user id:o''hara)"},
      // Saving by uid does not fold it: nothing matches.
      {[](dbctx *c) { return qn_db_userPasswordSave(c, "BOB", "other"); }, 0, ""},
      {[](dbctx *c) { return qn_db_userPasswordSaveById(c, 99, "x"); }, 80104,
       "MFADB:insert failed: "},
      {[](dbctx *c) { return qn_db_userPasswordSave(c, "bob", ""); }, 7770001,
       "MFADB:Error while hashing user password: 7770001\n"},
      {[](dbctx *c) { return qn_db_userPasswordSave(c, "bob", nullptr); }, 7770001, "hashing"},
  };
  for (const auto &step : steps) {
    auto [status, out] = mfatest::statusAndOutput([&] { return step.call(ctx); });
    EXPECT_EQ(status, step.status) << step.message;
    EXPECT_TRUE(*step.message != '\0' || out.empty()) << out;
    EXPECT_NE(out.find(step.message), std::string::npos) << out;
  }
  Rows rows = stored();
  ASSERT_EQ(rows.size(), 3u);
  // Every row verifies with OpenSSL's PBKDF2 as well.
  const char *passwords[] = {"correct horse", "x", kOdd};
  for (size_t i = 0; i < rows.size(); i++) {
    EXPECT_EQ(rows[i][2] + rows[i][4], std::to_string(kIterations) + "1");
    EXPECT_EQ(rows[i][1], opensslKey(passwords[i], rows[i][3], kIterations));
  }

  // Saving again replaces the one row with a new salt.
  ASSERT_EQ(qn_db_userPasswordSaveById(ctx, 1, "second"), 0);
  Rows again = stored();
  ASSERT_EQ(again.size(), 3u);
  EXPECT_NE(again[0][3], rows[0][3]);
  EXPECT_EQ(qn_db_userPasswordVerify(ctx, "bob", "second"), 0);
  EXPECT_EQ(qn_db_userPasswordVerify(ctx, "bob", "correct horse"), 80111);
}

TEST_P(PasswordsTest, StoredRowsFromElsewhere) {
  // A row written by OpenSSL under another iteration count.
  const std::string salt = "c2FsdCBmcm9tIGVsc2V3aGVyZQ==";
  sql("insert into qmx_usermfapassword(userid, passwordhash, iterationcount, salt) values(1, '" +
      opensslKey(kOdd, salt, 7) + "', 7, '" + salt + "')");
  EXPECT_EQ(qn_db_userPasswordVerify(ctx, "bob", kOdd), 0);
  logSetLevel(ctx->logContext, MFADB_COMPONENT_ID, 3);
  std::string out =
      mfatest::captureStdout([&] { EXPECT_EQ(qn_db_userPasswordVerify(ctx, "bob", "x"), 80111); });
  logSetLevel(ctx->logContext, MFADB_COMPONENT_ID, MFADB_COMPONENT_LEVEL);
  EXPECT_EQ(out.substr(out.find("MFADB:")), "MFADB:Password match failed\n");

  const struct {
    const char *update;
    const char *message;
  } broken[] = {
      {"passwordhash='not base64!'", "MFADB:Error during pwhash base64 decode: -1\n"},
      {"passwordhash='aGFzaA==', salt='abc'", "MFADB:Error during salt base64 decode: -1\n"},
  };
  for (const auto &b : broken) {
    sql(std::string("update qmx_usermfapassword set ") + b.update);
    out = mfatest::captureStdout(
        [&] { EXPECT_EQ(qn_db_userPasswordVerify(ctx, "bob", kOdd), 80120); });
    EXPECT_NE(out.find(b.message), std::string::npos) << out;
  }

  // Without a hashing context nothing is attempted.
  qn_pwhash_ctx *hashing = ctx->pwhashContext;
  ctx->pwhashContext = nullptr;
  for (auto call : {+[](dbctx *c) { return qn_db_userPasswordSave(c, "bob", "x"); },
                    +[](dbctx *c) { return qn_db_userPasswordSaveById(c, 1, "x"); },
                    +[](dbctx *c) { return qn_db_userPasswordVerify(c, "bob", "x"); }}) {
    out = mfatest::captureStdout([&] { EXPECT_EQ(call(ctx), 80110); });
    EXPECT_EQ(out.substr(out.find("MFADB:")),
              "MFADB:pwhash context not initialized, cannot proceed with password hashing.");
  }
  ctx->pwhashContext = hashing;
  EXPECT_EQ(value("select passwordhash from qmx_usermfapassword"), "aGFzaA==");
}

MFA_INSTANTIATE_ON_TOKENS(PasswordsTest);

} // namespace
