// Behaviour every operation shares: refused connections, a missing context,
// failed statements, statements too long for their buffer, server notices.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "base/alloc.h"
#include "base/logging.h"
#include "db/admins.h"
#include "db/clients.h"
#include "db/dbcommon_internal.h"
#include "db/factors.h"
#include "db/policies.h"
#include "db/users.h"
#include "db/yubikey.h"
#include "mfadata/factordata.h"
#include "mfadata/usermfadata.h"
#include "support/env.h"
#include "support/pgtest.h"

namespace {

using mfatest::PgTest;

struct Operation {
  const char *call;
  int failed; // the status when the statement fails on the server
  std::function<int(dbctx *)> run;
};
// clang-format off
#define OPERATION(failed, call) {#call, failed, [](dbctx *c) { return call; }}
// clang-format on

// Every operation that reaches the database, with valid inputs.
const std::vector<Operation> &everyOperation() {
  static int ids[] = {1, 2};
  static userPolicyData policy = {
      const_cast<char *>("p"), const_cast<char *>("n"), 1, 2, 0, nullptr, nullptr};
  static factorData factor;
  factor.factorName = const_cast<char *>("QMXLDAP1");
  // Where the reads would store their results: they never get that far.
  static int n, g, k, r;
  static uint64_t length;
  static char buffer[8], *uid, *name, **names;
  static MFAAdminFactorData *f, **fs;
  static userPolicyData *p, **ps;
  static MFAAdminPolicyData *pr, **prs;
  static adminData **admins;
  static userMFAData *data;
  static userData *u, **us;
  static factorData *got;
  static clientData pavo = {0, const_cast<char *>("c"), const_cast<char *>("s"), nullptr};
  static orlinClientData orlin = {1, const_cast<char *>("h"), nullptr, 0, 0, nullptr};
  static qn_pkcs11_session token; // never reached: the lookup fails first
  static clientData *pc, **pcs;
  static orlinClientData *oc, **ocs;
  static orlinClientUserData *cu, **cus;
  static const std::vector<Operation> all = {
      OPERATION(80102, qn_db_factorGetEnabledNames(c, &n, &names)),
      OPERATION(80102, qn_db_factorGetAll(c, &n, &fs)),
      OPERATION(80102, qn_db_factorGetByName(c, "F", &f)),
      OPERATION(80102, qn_db_factorGetById(c, 1, &f)),
      OPERATION(80107, qn_db_factorUpdateSettings(c, "F", "{}")),
      OPERATION(80104, qn_db_userFactorConnectById(c, 1, 1, 1)),
      OPERATION(80104, qn_db_userFactorConnect(c, "u", "F", 1)),
      OPERATION(80104, qn_db_userFactorConnectFromPolicyId(c, 1, 1)),
      OPERATION(80108, qn_db_userFactorDisconnectById(c, 1)),
      OPERATION(80104, qn_db_userFactorDisconnect(c, "u", "F")),
      OPERATION(80107, qn_db_userFactorUpdateIsActive(c, "u", "F", 1)),
      OPERATION(80107, qn_db_userFactorTagsUpdate(c, "u", "F", "{}", 1)),
      OPERATION(80102, qn_db_getMfaIdFactornameFromConnectionId(c, 1, &uid, &name)),
      OPERATION(80104, qn_db_policyCreate(c, &policy)),
      OPERATION(80104, qn_db_policyCreateREST(c, "p", "n", 1, 2, 2, ids)),
      OPERATION(80102, qn_db_policyGetAll(c, &n, &ps)),
      OPERATION(80102, qn_db_policyGetOne(c, "p", &p)),
      OPERATION(80102, qn_db_policyGetAllREST(c, &n, &prs)),
      OPERATION(80102, qn_db_policyGetOneREST(c, 1, &pr)),
      OPERATION(80107, qn_db_policyUpdate(c, &policy)),
      OPERATION(80104, qn_db_policyUpdateREST(c, 1, "n", 1, 2)),
      OPERATION(80104, qn_db_policyConnectFactors(c, 1, 2, ids)),
      OPERATION(80108, qn_db_policyDisconnectFactor(c, 1, 1)),
      OPERATION(80104, qn_db_policyDelete(c, "p")),
      OPERATION(80108, qn_db_policyDeleteById(c, 1)),
      OPERATION(80104, qn_db_userPolicyConnectById(c, 1, 1)),
      OPERATION(80104, qn_db_userPolicyConnect(c, "u", "p")),
      OPERATION(80104, qn_db_userPolicyDisconnectById(c, 1)),
      OPERATION(80104, qn_db_userPolicyDisconnect(c, "u", "p")),
      OPERATION(80104, qn_db_administratorAddUpdate(c, "u", 1)),
      OPERATION(80102, qn_db_administratorGetInfo(c, "u", &n, &g)),
      OPERATION(80108, qn_db_administratorRemove(c, "u", nullptr)),
      OPERATION(80102, qn_db_administratorList(c, &n, &admins)),
      OPERATION(80102, qn_db_yubi_FindRecord(c, "p", &uid)),
      OPERATION(80104, qn_db_yubi_AddUpdateRecord(c, "p", "1,a")),
      OPERATION(80102, qn_db_yubi_DeleteRecord(c, "p")),
      OPERATION(80104, qn_db_userAdd(c, "u", "n", 0, "s", &n)),
      OPERATION(80108, qn_db_userRemoveById(c, 1)),
      OPERATION(80104, qn_db_userRemove(c, "u")),
      OPERATION(80102, qn_db_userIsFallback(c, "u", &n)),
      OPERATION(80107, qn_db_userUpdateById(c, 1, 0, 0, "s")),
      OPERATION(80107, qn_db_userSetFallback(c, "u", 1)),
      OPERATION(80107, qn_db_userSetFallbackById(c, 1, 1)),
      OPERATION(80107, qn_db_userSetSSOIdById(c, 1, "s")),
      OPERATION(80107, qn_db_userSetSuspended(c, "u", 1)),
      OPERATION(80107, qn_db_userSetSuspendedById(c, 1, 1)),
      OPERATION(80102, qn_db_userGetSuspended(c, "u", &n)),
      OPERATION(80107, qn_db_userIncrementFailcount(c, "u", &n)),
      OPERATION(80107, qn_db_userSetFailcount(c, "u", 1)),
      OPERATION(80102, qn_db_userGetFailcount(c, "u", &n)),
      OPERATION(80107, qn_db_administratorSetSuspended(c, "u", 1)),
      OPERATION(80102, qn_db_administratorGetSuspended(c, "u", &n)),
      OPERATION(80107, qn_db_administratorIncrementFailcount(c, "u", &n)),
      OPERATION(80107, qn_db_administratorSetFailcount(c, "u", 1)),
      OPERATION(80102, qn_db_administratorGetFailcount(c, "u", &n)),
      OPERATION(80102, qn_db_userGetById(c, 1, &u)),
      OPERATION(80102, qn_db_userGetOne(c, "u", &u)),
      OPERATION(80102, qn_db_userList(c, &n, &us)),
      OPERATION(80102, pq_userMFAData_create(c, "u", &data)),
      // A failed read of one factor hands out nothing and still succeeds.
      OPERATION(0, kfactor_get_UserFactorData(c, "u", "QMXLDAP1", &got)),
      OPERATION(80107, kfactor_update_UserFactorData(c, "u", &factor)),
      OPERATION(80102, kfactor_get_factorwide_settings(c, "QMXSTC", buffer,
                                                       &(length = sizeof buffer), &g, &k, &r)),
      OPERATION(80104, qn_db_pavo_AddClient(c, &pavo)),
      OPERATION(80107, qn_db_pavo_UpdateClient(c, 1, "s", "d")),
      OPERATION(80102, qn_db_pavo_GetAllClients(c, &n, &pcs)),
      OPERATION(80102, qn_db_pavo_GetClientById(c, 1, &pc)),
      OPERATION(80108, qn_db_pavo_DeleteClient(c, 1)),
      OPERATION(80102, qn_db_pavo_ValidateClientSecret(c, &token, "c", "s")),
      OPERATION(80104, qn_db_orlin_AddClient(c, &orlin)),
      OPERATION(80104, qn_db_orlin_UpdateClient(c, &orlin)),
      OPERATION(80102, qn_db_orlin_GetAllClients(c, &n, &ocs)),
      OPERATION(80102, qn_db_orlin_GetClient(c, 1, &oc)),
      OPERATION(80102, qn_db_orlin_GetClientHostnameFromId(c, 1, &name)),
      OPERATION(80104, qn_db_orlin_SetClientStatus(c, "h", 1)),
      OPERATION(80108, qn_db_orlin_DeleteClient(c, 1)),
      OPERATION(80102, qn_db_user_getAllOrlinClients(c, 1, &n, &cus)),
      OPERATION(80102, qn_db_user_getAllOrlinClientsByMFAId(c, "u", &n, &cus)),
      OPERATION(80102, qn_db_getUserOrlinClientById(c, 1, &cu)),
      OPERATION(80104, qn_db_userOrlin_Connect(c, 1, 1, "r")),
      OPERATION(80104, qn_db_userOrlin_ConnectByName(c, "u", "h", "r")),
      OPERATION(80104, qn_db_userOrlin_Update(c, 1, "r", 1)),
      OPERATION(80108, qn_db_userOrlin_Disconnect(c, 1)),
  };
  return all;
}

TEST(DbFrame, RefusedConnectionGives80101AndMissingContext80106) {
  // A configured host on a port where nothing listens.
  std::string path = testing::TempDir() + "refused.conf";
  std::ofstream(path) << "DB HOSTNAME=127.0.0.1\nDB PORT=1\n";
  dbctx *ctx = nullptr;
  ASSERT_EQ(qn_db_createDBCtx(&ctx, nullptr, path.c_str()), 0);
  for (const Operation &op : everyOperation()) {
    std::string out = mfatest::captureStdout([&] { EXPECT_EQ(op.run(ctx), 80101) << op.call; });
    EXPECT_NE(out.find("Connection to database failed: "), std::string::npos) << op.call << out;
    EXPECT_EQ(op.run(nullptr), 80106) << op.call;
  }
  qn_db_destroyDbCtx(ctx);
}

class DbFrameTest : public PgTest {};

TEST_F(DbFrameTest, FailedStatementsReportTheirOwnCodes) {
  // A search path without the tables makes every statement fail on the server.
  freeString(ctx->connectionString);
  ctx->connectionString = duplicateString("dbname=mfadb options='-csearch_path=nowhere'");
  for (const Operation &op : everyOperation()) {
    std::string out = mfatest::captureStdout([&] { EXPECT_EQ(op.run(ctx), op.failed) << op.call; });
    EXPECT_NE(out.find("relation \"qmx_"), std::string::npos) << op.call << out;
  }
}

TEST_F(DbFrameTest, StatementTooLongForItsBufferIsRefusedNotCut) {
  addUser("u");
  std::string longName(1100, 'f');
  // The 512-byte update of a policy is refused inside its transaction.
  userPolicyData policy = {
      const_cast<char *>("p"), longName.data() + 650, 1, 2, 0, nullptr, nullptr};
  std::string out = mfatest::captureStdout([&] {
    EXPECT_EQ(qn_db_userFactorConnect(ctx, "u", longName.c_str(), 1), 80106);
    EXPECT_EQ(qn_db_policyCreate(ctx, &policy), 0);
    EXPECT_EQ(qn_db_policyUpdate(ctx, &policy), 80106);
  });
  // Its factor links share that buffer, though a create's 1,024 bytes take them.
  char *factor = longName.data() + 700;
  userPolicyData linked = {
      const_cast<char *>("q"), const_cast<char *>(""), 1, 2, 1, &factor, nullptr};
  mfatest::captureStdout([&] {
    EXPECT_EQ(qn_db_policyCreate(ctx, &linked), 0);
    linked.ctctimeout = 9;
    EXPECT_EQ(qn_db_policyUpdate(ctx, &linked), 80106);
  });
  EXPECT_EQ(value("select ctctimeout from qmx_policy where policyname='q'"), "1");
  EXPECT_NE(out.find("MFADB:statement too long"), std::string::npos) << out;
  EXPECT_EQ(value("select count(*) from qmx_userfactor"), "0");
}

TEST_F(DbFrameTest, ServerNoticesGoToTheLogNotToStandardError) {
  mfadb::Session session(ctx);
  ASSERT_EQ(session.connect(), 0);
  // A ROLLBACK outside a transaction draws a warning from the server.
  auto rollback = [&] {
    return mfatest::captureStdout([&] {
      EXPECT_EQ(mfatest::captureStderr([&] {
                  session.exec("ROLLBACK", mfadb::Expect::Command, mfadb::kDeleteFailed);
                }),
                "");
    });
  };
  EXPECT_EQ(rollback(), "");
  logSetLevel(ctx->logContext, MFADB_COMPONENT_ID, mfadb::kNoticeLevel);
  EXPECT_NE(rollback().find("MFADB:WARNING:  there is no transaction in progress"),
            std::string::npos);
}

} // namespace
