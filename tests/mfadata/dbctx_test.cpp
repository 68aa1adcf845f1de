#include "mfadata/dbctx.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "base/alloc.h"
#include "base/logging.h"
#include "crypto/pwhash.h"
#include "support/env.h"

namespace {

// Parses text written to a configuration file; returns the connection
// string, or "status <n>" when parsing fails.
std::string parse(const std::string &text) {
  std::string path = testing::TempDir() + "dbctx_test.conf";
  std::ofstream(path, std::ios::binary) << text;
  char *connection = nullptr;
  int status = parseDbConf(path.c_str(), &connection);
  if (status != 0)
    return "status " + std::to_string(status);
  std::string result = connection;
  freeString(connection);
  return result;
}

TEST(ParseDbConf, KeysAppendTheirSettingsInLineOrder) {
  EXPECT_EQ(parse("DB HOSTNAME=db1\nDB PORT=5433\n"),
            "dbname=mfadb sslmode=require host=db1 port=5433 ");
  EXPECT_EQ(parse("SSL KEY=/k.pem\rSSL CERTIFICATE=/c.pem\r\n"),
            "dbname=mfadb sslkey=/k.pem sslcert=/c.pem ");
  // A key given twice is appended twice.
  EXPECT_EQ(parse("DB PORT=1\nDB PORT=2\n"), "dbname=mfadb port=1 port=2 ");
}

TEST(ParseDbConf, OnlyTheHostKeyIgnoresCase) {
  EXPECT_EQ(parse("db hostname=db1\ndb port=5433\n"), "dbname=mfadb sslmode=require host=db1 ");
  EXPECT_EQ(parse("ssl key=/k\nSsl Certificate=/c\n"), "dbname=mfadb ");
}

TEST(ParseDbConf, KeysMatchAsPrefixes) {
  EXPECT_EQ(parse("DB PORTS=5433\n"), "dbname=mfadb port=5433 ");
}

TEST(ParseDbConf, LineRules) {
  // Text after the last line end is not a line.
  EXPECT_EQ(parse("DB PORT=1\nDB HOSTNAME=h"), "dbname=mfadb port=1 ");
  // "#" starts a comment only in the first column; a line without "=" is
  // ignored.
  EXPECT_EQ(parse("#DB PORT=1\n #DB PORT=2\nDB PORT 3\n"), "dbname=mfadb ");
  // Leading blanks of a value go, trailing ones stay; "=" in a value stays.
  EXPECT_EQ(parse("DB PORT=   5433  \nSSL KEY= a=b\n"), "dbname=mfadb port=5433   sslkey=a=b ");
}

TEST(ParseDbConf, LongLinesAndFilesAreCut) {
  // A line keeps its first 255 characters.
  std::string host(300, 'h');
  EXPECT_EQ(parse("DB HOSTNAME=" + host + "\n"),
            "dbname=mfadb sslmode=require host=" + host.substr(0, 255 - 12) + " ");
  // Only the first 2048 bytes are read: a line crossing that mark is lost.
  std::string filler = "#" + std::string(2040, 'x') + "\n";
  EXPECT_EQ(parse(filler + "DB PORT=1\n"), "dbname=mfadb ");
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

TEST(DbContext, TakesTheConnectionStringFromTheFileOrTheDefault) {
  dbctx *ctx = nullptr;
  ASSERT_EQ(qn_db_createDBCtx(&ctx, nullptr, nullptr), 0);
  EXPECT_STREQ(ctx->connectionString, "dbname=mfadb ");
  EXPECT_NE(ctx->logContext, nullptr);
  EXPECT_EQ(ctx->pwhashContext, nullptr);
  qn_db_destroyDbCtx(ctx);

  std::string path = testing::TempDir() + "dbctx_test.conf";
  std::ofstream(path) << "DB PORT=7\n";
  ctx = nullptr;
  ASSERT_EQ(qn_db_createDBCtx(&ctx, nullptr, path.c_str()), 0);
  EXPECT_STREQ(ctx->connectionString, "dbname=mfadb port=7 ");
  qn_db_destroyDbCtx(ctx);

  ctx = nullptr;
  mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_createDBCtx(&ctx, nullptr, "/nonexistent"), QN_DB_CONFIG_FAILED); });
  EXPECT_EQ(ctx, nullptr);
  qn_db_destroyDbCtx(nullptr);
}

TEST(DbContext, LogsTheDatabaseComponentAtLevelTwoThroughQmx) {
  dbctx *ctx = nullptr;
  ASSERT_EQ(qn_db_createDBCtx(&ctx, nullptr, nullptr), 0);
  std::string out = mfatest::captureStdout([&] {
    tvklog(ctx->logContext, MFADB_COMPONENT_ID, 1, "error %d\n", 1);
    tvklog(ctx->logContext, MFADB_COMPONENT_ID, 2, "info %d\n", 2);
    tvklog(ctx->logContext, MFADB_COMPONENT_ID, 3, "debug %d\n", 3);
  });
  EXPECT_NE(out.find("MFADB:error 1\n"), std::string::npos) << out;
  EXPECT_NE(out.find("MFADB:info 2\n"), std::string::npos) << out;
  EXPECT_EQ(out.find("debug"), std::string::npos) << out;
  qn_db_destroyDbCtx(ctx);
}

TEST(DbContext, AttachesAHashingContextForStoredPasswords) {
  dbctx *ctx = nullptr;
  ASSERT_EQ(qn_db_createDBCtx(&ctx, nullptr, nullptr), 0);
  ASSERT_EQ(qn_db_createPwhashCtx(ctx, nullptr, 4096), 0);
  ASSERT_NE(ctx->pwhashContext, nullptr);
  EXPECT_EQ(ctx->pwhashContext->iterationCount, 4096u);
  EXPECT_EQ(ctx->pwhashContext->saltLength, 16u);
  EXPECT_EQ(ctx->pwhashContext->derivedKeyLength, 32u);
  qn_pwhash_ctx_destroy(ctx->pwhashContext);
  qn_db_destroyDbCtx(ctx);
  EXPECT_EQ(qn_db_createPwhashCtx(nullptr, nullptr, 1), QN_DB_PWHASH_UNAVAILABLE);
}

} // namespace
