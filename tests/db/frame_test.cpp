// Behaviour every operation shares: connection failures, failed statements,
// statements too long for their buffer.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <map>
#include <string>

#include "base/alloc.h"
#include "base/logging.h"
#include "db/dbcommon_internal.h"
#include "db/factors.h"
#include "db/policies.h"
#include "mfadata/factordata.h"
#include "mfadata/usermfadata.h"
#include "support/env.h"
#include "support/pgtest.h"

namespace {

using mfatest::PgTest;

using Operation = std::function<int(dbctx *)>;

// One call of every operation that reaches the database, with valid inputs.
std::vector<std::pair<std::string, Operation>> everyOperation() {
  static int ids[] = {1, 2};
  static userPolicyData policy = {
      const_cast<char *>("p"), const_cast<char *>("n"), 1, 2, 0, nullptr, nullptr};
  return {
      {"factorGetEnabledNames",
       [](dbctx *c) {
         int n = 0;
         char **names = nullptr;
         return qn_db_factorGetEnabledNames(c, &n, &names);
       }},
      {"factorGetAll",
       [](dbctx *c) {
         int n = 0;
         MFAAdminFactorData **all = nullptr;
         return qn_db_factorGetAll(c, &n, &all);
       }},
      {"factorGetByName",
       [](dbctx *c) {
         MFAAdminFactorData *f = nullptr;
         return qn_db_factorGetByName(c, "QMXLDAP1", &f);
       }},
      {"factorGetById",
       [](dbctx *c) {
         MFAAdminFactorData *f = nullptr;
         return qn_db_factorGetById(c, 1, &f);
       }},
      {"factorUpdateSettings", [](dbctx *c) { return qn_db_factorUpdateSettings(c, "F", "{}"); }},
      {"userFactorConnectById", [](dbctx *c) { return qn_db_userFactorConnectById(c, 1, 1, 1); }},
      {"userFactorConnect", [](dbctx *c) { return qn_db_userFactorConnect(c, "u", "F", 1); }},
      {"userFactorConnectFromPolicyId",
       [](dbctx *c) { return qn_db_userFactorConnectFromPolicyId(c, 1, 1); }},
      {"userFactorDisconnectById", [](dbctx *c) { return qn_db_userFactorDisconnectById(c, 1); }},
      {"userFactorDisconnect", [](dbctx *c) { return qn_db_userFactorDisconnect(c, "u", "F"); }},
      {"userFactorUpdateIsActive",
       [](dbctx *c) { return qn_db_userFactorUpdateIsActive(c, "u", "F", 1); }},
      {"userFactorTagsUpdate",
       [](dbctx *c) { return qn_db_userFactorTagsUpdate(c, "u", "F", "{}", 1); }},
      {"getMfaIdFactornameFromConnectionId",
       [](dbctx *c) {
         char *uid = nullptr, *name = nullptr;
         return qn_db_getMfaIdFactornameFromConnectionId(c, 1, &uid, &name);
       }},
      {"policyCreate", [](dbctx *c) { return qn_db_policyCreate(c, &policy); }},
      {"policyCreateREST",
       [](dbctx *c) { return qn_db_policyCreateREST(c, "p", "n", 1, 2, 2, ids); }},
      {"policyGetAll",
       [](dbctx *c) {
         int n = 0;
         userPolicyData **all = nullptr;
         return qn_db_policyGetAll(c, &n, &all);
       }},
      {"policyGetOne",
       [](dbctx *c) {
         userPolicyData *p = nullptr;
         return qn_db_policyGetOne(c, "p", &p);
       }},
      {"policyGetAllREST",
       [](dbctx *c) {
         int n = 0;
         MFAAdminPolicyData **all = nullptr;
         return qn_db_policyGetAllREST(c, &n, &all);
       }},
      {"policyGetOneREST",
       [](dbctx *c) {
         MFAAdminPolicyData *p = nullptr;
         return qn_db_policyGetOneREST(c, 1, &p);
       }},
      {"policyUpdate", [](dbctx *c) { return qn_db_policyUpdate(c, &policy); }},
      {"policyUpdateREST", [](dbctx *c) { return qn_db_policyUpdateREST(c, 1, "n", 1, 2); }},
      {"policyConnectFactors", [](dbctx *c) { return qn_db_policyConnectFactors(c, 1, 2, ids); }},
      {"policyDisconnectFactor", [](dbctx *c) { return qn_db_policyDisconnectFactor(c, 1, 1); }},
      {"policyDelete", [](dbctx *c) { return qn_db_policyDelete(c, "p"); }},
      {"policyDeleteById", [](dbctx *c) { return qn_db_policyDeleteById(c, 1); }},
      {"userPolicyConnectById", [](dbctx *c) { return qn_db_userPolicyConnectById(c, 1, 1); }},
      {"userPolicyConnect", [](dbctx *c) { return qn_db_userPolicyConnect(c, "u", "p"); }},
      {"userPolicyDisconnectById", [](dbctx *c) { return qn_db_userPolicyDisconnectById(c, 1); }},
      {"userPolicyDisconnect", [](dbctx *c) { return qn_db_userPolicyDisconnect(c, "u", "p"); }},
      {"pq_userMFAData_create",
       [](dbctx *c) {
         userMFAData *d = nullptr;
         return pq_userMFAData_create(c, "u", &d);
       }},
      {"kfactor_get_UserFactorData",
       [](dbctx *c) {
         factorData *f = nullptr;
         return kfactor_get_UserFactorData(c, "u", "QMXLDAP1", &f);
       }},
      {"kfactor_update_UserFactorData",
       [](dbctx *c) {
         factorData f{};
         f.factorName = const_cast<char *>("QMXLDAP1");
         return kfactor_update_UserFactorData(c, "u", &f);
       }},
      {"kfactor_get_factorwide_settings",
       [](dbctx *c) {
         char buffer[8];
         uint64_t length = sizeof buffer;
         int g = -1, k = -1, r = -1;
         return kfactor_get_factorwide_settings(c, "QMXSTC", buffer, &length, &g, &k, &r);
       }},
  };
}

TEST(DbFrame, RefusedConnectionGives80101FromEveryOperation) {
  // A configured host on a port where nothing listens.
  std::string path = testing::TempDir() + "refused.conf";
  std::ofstream(path) << "DB HOSTNAME=127.0.0.1\nDB PORT=1\n";
  dbctx *ctx = nullptr;
  ASSERT_EQ(qn_db_createDBCtx(&ctx, nullptr, path.c_str()), 0);
  for (auto &[name, operation] : everyOperation()) {
    std::string out = mfatest::captureStdout([&] { EXPECT_EQ(operation(ctx), 80101) << name; });
    EXPECT_NE(out.find("Connection to database failed: "), std::string::npos) << name << out;
  }
  qn_db_destroyDbCtx(ctx);
}

class DbFrameTest : public PgTest {};

TEST(DbFrame, MissingContextIsRefused) {
  for (auto &[name, operation] : everyOperation())
    EXPECT_EQ(operation(nullptr), 80106) << name;
}

TEST_F(DbFrameTest, FailedStatementsReportTheirOwnCodes) {
  // A search path without the tables makes every statement fail on the server.
  freeString(ctx->connectionString);
  ctx->connectionString = duplicateString("dbname=mfadb options='-csearch_path=nowhere'");
  std::map<std::string, int> expected = {
      {"factorGetEnabledNames", 80102},
      {"factorGetAll", 80102},
      {"factorGetByName", 80102},
      {"factorGetById", 80102},
      {"factorUpdateSettings", 80107},
      {"userFactorConnectById", 80104},
      {"userFactorConnect", 80104},
      {"userFactorConnectFromPolicyId", 80104},
      {"userFactorDisconnectById", 80108},
      {"userFactorDisconnect", 80104},
      {"userFactorUpdateIsActive", 80107},
      {"userFactorTagsUpdate", 80107},
      {"getMfaIdFactornameFromConnectionId", 80102},
      {"policyCreate", 80104},
      {"policyCreateREST", 80104},
      {"policyGetAll", 80102},
      {"policyGetOne", 80102},
      {"policyGetAllREST", 80102},
      {"policyGetOneREST", 80102},
      {"policyUpdate", 80107},
      {"policyUpdateREST", 80104},
      {"policyConnectFactors", 80104},
      {"policyDisconnectFactor", 80108},
      {"policyDelete", 80104},
      {"policyDeleteById", 80108},
      {"userPolicyConnectById", 80104},
      {"userPolicyConnect", 80104},
      {"userPolicyDisconnectById", 80104},
      {"userPolicyDisconnect", 80104},
      {"pq_userMFAData_create", 80102},
      // A failed read of one factor hands out nothing and still succeeds.
      {"kfactor_get_UserFactorData", 0},
      {"kfactor_update_UserFactorData", 80107},
      {"kfactor_get_factorwide_settings", 80102},
  };
  for (auto &[name, operation] : everyOperation()) {
    std::string out =
        mfatest::captureStdout([&] { EXPECT_EQ(operation(ctx), expected[name]) << name; });
    EXPECT_NE(out.find("relation \"qmx_"), std::string::npos) << name << out;
  }
}

TEST_F(DbFrameTest, StatementTooLongForItsBufferIsRefusedNotCut) {
  sql("insert into qmx_user(unixuid) values('u')");
  std::string longName(1100, 'f');
  std::string out = mfatest::captureStdout([&] {
    EXPECT_EQ(qn_db_userFactorConnect(ctx, "u", longName.c_str(), 1), 80106);
    // The 512-byte update of a policy is refused inside its transaction.
    userPolicyData policy = {const_cast<char *>("p"),
                             const_cast<char *>(longName.c_str() + 650),
                             1,
                             2,
                             0,
                             nullptr,
                             nullptr};
    EXPECT_EQ(qn_db_policyCreate(ctx, &policy), 0);
    EXPECT_EQ(qn_db_policyUpdate(ctx, &policy), 80106);
  });
  EXPECT_NE(out.find("MFADB:statement too long"), std::string::npos) << out;
  EXPECT_EQ(value("select count(*) from qmx_userfactor"), "0");
}

TEST_F(DbFrameTest, ServerNoticesGoToTheLogNotToStandardError) {
  mfadb::Session session(ctx);
  ASSERT_EQ(session.connect(), 0);
  // A ROLLBACK outside a transaction draws a warning from the server.
  std::string err, out;
  out = mfatest::captureStdout([&] {
    err = mfatest::captureStderr(
        [&] { session.exec("ROLLBACK", mfadb::Expect::Command, mfadb::kDeleteFailed); });
  });
  EXPECT_EQ(err, "");
  EXPECT_EQ(out, "");
  logSetLevel(ctx->logContext, MFADB_COMPONENT_ID, mfadb::kNoticeLevel);
  out = mfatest::captureStdout(
      [&] { session.exec("ROLLBACK", mfadb::Expect::Command, mfadb::kDeleteFailed); });
  logSetLevel(ctx->logContext, MFADB_COMPONENT_ID, MFADB_COMPONENT_LEVEL);
  EXPECT_NE(out.find("MFADB:WARNING:  there is no transaction in progress"), std::string::npos)
      << out;
}

} // namespace
