#include "mfadata/dbctx.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "base/alloc.h"
#include "base/logging.h"
#include "crypto/pwhash.h"
#include "support/env.h"

namespace {

// Writes text to a configuration file and returns its path.
std::string configFile(const std::string &text) {
  std::string path = testing::TempDir() + "dbctx_test.conf";
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

// The connection string parsed from text, or "status <n>" when parsing fails.
std::string parse(const std::string &text) {
  char *connection = nullptr;
  if (int status = parseDbConf(configFile(text).c_str(), &connection))
    return "status " + std::to_string(status);
  std::string result = connection;
  freeString(connection);
  return result;
}

TEST(ParseDbConf, LineRules) {
  const std::string base = "dbname=mfadb ";
  const std::pair<std::string, std::string> cases[] = {
      {"DB HOSTNAME=db1\nDB PORT=5433\n", "sslmode=require host=db1 port=5433 "},
      {"SSL KEY=/k.pem\rSSL CERTIFICATE=/c.pem\r\n", "sslkey=/k.pem sslcert=/c.pem "},
      // Each key is appended as often as it is given.
      {"DB PORT=1\nDB PORT=2\n", "port=1 port=2 "},
      // Only the host key ignores case; keys match as prefixes.
      {"db hostname=db1\ndb port=5433\nssl key=/k\n", "sslmode=require host=db1 "},
      {"DB PORTS=5433\n", "port=5433 "},
      // Text after the last line end is not a line.
      {"DB PORT=1\nDB HOSTNAME=h", "port=1 "},
      // "#" starts a comment only in the first column; a line without "="
      // is ignored.
      {"#DB PORT=1\n #DB PORT=2\nDB PORT 3\n", ""},
      // Leading blanks of a value go, trailing ones stay; "=" in a value
      // stays; a tab is not a blank.
      {"DB PORT=   5433  \nSSL KEY= a=b\nSSL CERTIFICATE=\t/c\n",
       "port=5433   sslkey=a=b sslcert=\t/c "},
      // A line keeps its first 255 characters.
      {"DB HOSTNAME=" + std::string(300, 'h') + "\n",
       "sslmode=require host=" + std::string(255 - 12, 'h') + " "},
      // Only the first 2048 bytes are read: a line crossing that mark is lost.
      {"#" + std::string(2040, 'x') + "\nDB PORT=1\n", ""},
  };
  for (const auto &[text, appended] : cases)
    EXPECT_EQ(parse(text), base + appended) << text;
  // The connection string never outgrows its 1024-byte buffer.
  std::string many;
  for (int i = 0; i < 8; i++)
    many += "SSL KEY=" + std::string(200, 'k') + "\n";
  EXPECT_EQ(parse(many).size(), 1023u);
}

TEST(ParseDbConf, FileProblemsGive80150WithAMessage) {
  std::string out = mfatest::captureStdout([] {
    char *connection = nullptr;
    EXPECT_EQ(parseDbConf(nullptr, &connection), QN_DB_CONFIG_FAILED);
    EXPECT_EQ(parseDbConf("/nonexistent/db.conf", &connection), QN_DB_CONFIG_FAILED);
    EXPECT_EQ(connection, nullptr);
    EXPECT_EQ(parse(""), "status 80150");
  });
  EXPECT_NE(out.find("MFADB:DB config file not specified.\n"), std::string::npos) << out;
  EXPECT_NE(out.find("MFADB:Failed to open DB config file, rc: 2\n"), std::string::npos) << out;
  EXPECT_NE(out.find("MFADB:failed to read config file rc= 0\n"), std::string::npos) << out;
}

TEST(DbContext, ConnectionStringAndLogging) {
  dbctx *ctx = nullptr;
  ASSERT_EQ(qn_db_createDBCtx(&ctx, nullptr, configFile("DB PORT=7\n").c_str()), 0);
  EXPECT_STREQ(ctx->connectionString, "dbname=mfadb port=7 ");
  qn_db_destroyDbCtx(ctx);
  mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_createDBCtx(&ctx, nullptr, "/nonexistent"), QN_DB_CONFIG_FAILED); });

  ASSERT_EQ(qn_db_createDBCtx(&ctx, nullptr, nullptr), 0);
  EXPECT_STREQ(ctx->connectionString, "dbname=mfadb ");
  // The database component logs through "QMX" at level 2.
  EXPECT_EQ(logGetLevel(ctx->logContext, MFADB_COMPONENT_ID), 2);
  std::string out = mfatest::captureStdout(
      [&] { tvklog(ctx->logContext, MFADB_COMPONENT_ID, 2, "level %d\n", 2); });
  EXPECT_NE(out.find(" MFADB:level 2\n"), std::string::npos) << out;
  ASSERT_EQ(qn_db_createPwhashCtx(ctx, nullptr, 4096), 0);
  ASSERT_NE(ctx->pwhashContext, nullptr);
  EXPECT_EQ(ctx->pwhashContext->iterationCount, 4096u);
  qn_pwhash_ctx_destroy(ctx->pwhashContext);
  qn_db_destroyDbCtx(ctx);
  EXPECT_EQ(qn_db_createPwhashCtx(nullptr, nullptr, 1), QN_DB_PWHASH_UNAVAILABLE);
}

} // namespace
