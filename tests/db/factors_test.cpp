#include "db/factors.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/alloc.h"
#include "db/dbcommon_internal.h"
#include "support/env.h"
#include "support/pgtest.h"

namespace {

using mfatest::PgTest;

class FactorsTest : public PgTest {};

TEST_F(FactorsTest, EnabledNamesIncludeTheSettingsFactor) {
  int count = -1;
  char **names = nullptr;
  std::string out = mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_factorGetEnabledNames(ctx, &count, &names), 80105); });
  EXPECT_NE(out.find("MFADB:no factors\n"), std::string::npos) << out;
  EXPECT_EQ(count, -1);
  EXPECT_EQ(names, nullptr);

  sql("update qmx_factor set isenabled=1 where factorname in ('QMXSTC', 'QMXTOTP1')");
  ASSERT_EQ(qn_db_factorGetEnabledNames(ctx, &count, &names), 0);
  ASSERT_EQ(count, 2);
  std::vector<std::string> got(names, names + count);
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, (std::vector<std::string>{"QMXSTC", "QMXTOTP1"}));
  mfadb::destroyArray(names, count, freeString);
}

TEST_F(FactorsTest, FullListingLeavesOutTheSettingsFactorAndIsOrderedByName) {
  sql("update qmx_factor set isenabled=1, factorsettings='{\"a\":1}' where factorname in "
      "('QMXSTC','QMXLDAP1')");
  int count = 0;
  MFAAdminFactorData **factors = nullptr;
  ASSERT_EQ(qn_db_factorGetAll(ctx, &count, &factors), 0);
  ASSERT_EQ(count, 3);
  EXPECT_STREQ(factors[0]->factorname, "QMXLDAP1");
  EXPECT_STREQ(factors[0]->factornote, "LDAP directory authentication");
  EXPECT_STREQ(factors[0]->factorsettings, "{\"a\":1}");
  EXPECT_EQ(factors[0]->isenabled, 1);
  EXPECT_EQ(factors[0]->factorid, factorId("QMXLDAP1"));
  EXPECT_STREQ(factors[1]->factorname, "QMXTOTP1");
  EXPECT_EQ(factors[1]->isenabled, 0);
  EXPECT_STREQ(factors[2]->factorname, "QMXYUBI1");
  mfadb::destroyArray(factors, count, qn_db_destroyAdminFactorDef);
}

TEST_F(FactorsTest, SingleFactorByNameOrId) {
  int id = addFactor("QMXTEST1", "it's a note");
  MFAAdminFactorData *factor = nullptr;
  ASSERT_EQ(qn_db_factorGetByName(ctx, "QMXTEST1", &factor), 0);
  EXPECT_EQ(factor->factorid, id);
  EXPECT_STREQ(factor->factornote, "it's a note");
  qn_db_destroyAdminFactorDef(factor);

  factor = nullptr;
  ASSERT_EQ(qn_db_factorGetById(ctx, factorId("QMXYUBI1"), &factor), 0);
  EXPECT_STREQ(factor->factorname, "QMXYUBI1");
  EXPECT_EQ(factor->isenabled, 0);
  qn_db_destroyAdminFactorDef(factor);

  factor = nullptr;
  std::string out = mfatest::captureStdout([&] {
    EXPECT_EQ(qn_db_factorGetByName(ctx, "NOSUCH", &factor), 80105);
    EXPECT_EQ(qn_db_factorGetById(ctx, 9999, &factor), 80105);
    // The lookup parameter is the escaped name, so a quote in it never matches.
    addFactor("O'Neil");
    EXPECT_EQ(qn_db_factorGetByName(ctx, "O'Neil", &factor), 80105);
  });
  EXPECT_EQ(factor, nullptr);
  EXPECT_NE(out.find("MFADB:No data returned\n"), std::string::npos) << out;
}

TEST_F(FactorsTest, SettingsUpdateStoresTheEscapedText) {
  ASSERT_EQ(qn_db_factorUpdateSettings(ctx, "QMXTOTP1", "{\"realmName\":\"Bob's\"}"), 0);
  // The escaped copy is what is sent as the parameter: the quote is doubled.
  EXPECT_EQ(value("select factorsettings from qmx_factor where factorname='QMXTOTP1'"),
            "{\"realmName\":\"Bob''s\"}");
  EXPECT_EQ(qn_db_factorUpdateSettings(ctx, "NOSUCH", "{}"), 0);
}

TEST_F(FactorsTest, ConnectingUsersToFactors) {
  int userid = addUser("bob");
  int ldap = factorId("QMXLDAP1");
  ASSERT_EQ(qn_db_userFactorConnectById(ctx, userid, ldap, 1), 0);
  std::string out = mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_userFactorConnectById(ctx, userid, ldap, 1), 80104); });
  EXPECT_NE(out.find("MFADB:insert failed: "), std::string::npos) << out;

  ASSERT_EQ(qn_db_userFactorConnect(ctx, "bob", "QMXTOTP1", 0), 0);
  EXPECT_EQ(qn_db_userFactorConnect(ctx, "nobody", "QMXTOTP1", 0), 0);
  EXPECT_EQ(qn_db_userFactorConnect(ctx, "bob'", "QMX'", 0), 0);
  EXPECT_EQ(query("select f.factorname, uf.factortags, uf.isactive from qmx_userfactor uf "
                  "join qmx_factor f using (factorid) order by 1"),
            (mfatest::Rows{{"QMXLDAP1", "{}", "1"}, {"QMXTOTP1", "{}", "0"}}));
}

TEST_F(FactorsTest, ConnectingFromAPolicyAddsOnlyMissingFactors) {
  int userid = addUser("bob");
  int yubi = addFactor("QMXTEST1");
  int policyid =
      std::stoi(value("insert into qmx_policy(policyname) values('p') returning policyid"));
  sql("insert into qmx_policyfactor values(" + std::to_string(policyid) + "," +
      std::to_string(yubi) + "),(" + std::to_string(policyid) + "," +
      std::to_string(factorId("QMXLDAP1")) + ")");
  ASSERT_EQ(qn_db_userFactorConnect(ctx, "bob", "QMXLDAP1", 0), 0);
  ASSERT_EQ(qn_db_userFactorConnectFromPolicyId(ctx, userid, policyid), 0);
  ASSERT_EQ(qn_db_userFactorConnectFromPolicyId(ctx, userid, policyid), 0);
  EXPECT_EQ(query("select f.factorname, uf.isactive from qmx_userfactor uf join qmx_factor f "
                  "using (factorid) order by 1"),
            (mfatest::Rows{{"QMXLDAP1", "0"}, {"QMXTEST1", "1"}}));
  std::string out = mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_userFactorConnectFromPolicyId(ctx, 0, policyid), 80106); });
  EXPECT_NE(out.find("Bad parameters to userFactorConnectFromPolicyId.\n"), std::string::npos);
}

TEST_F(FactorsTest, DisconnectingByLinkIdOrNames) {
  int userid = addUser("o'hara");
  ASSERT_EQ(qn_db_userFactorConnectById(ctx, userid, factorId("QMXLDAP1"), 1), 0);
  ASSERT_EQ(qn_db_userFactorConnectById(ctx, userid, factorId("QMXTOTP1"), 1), 0);
  int link = std::stoi(value("select userfactorid from qmx_userfactor where factorid=" +
                             std::to_string(factorId("QMXLDAP1"))));
  char *uid = nullptr, *name = nullptr;
  ASSERT_EQ(qn_db_getMfaIdFactornameFromConnectionId(ctx, link, &uid, &name), 0);
  EXPECT_STREQ(uid, "o'hara");
  EXPECT_STREQ(name, "QMXLDAP1");
  freeString(uid);
  freeString(name);

  ASSERT_EQ(qn_db_userFactorDisconnectById(ctx, link), 0);
  uid = name = nullptr;
  mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_getMfaIdFactornameFromConnectionId(ctx, link, &uid, &name), 80105); });
  EXPECT_EQ(uid, nullptr);
  // The by-name lookup gets the escaped uid, as every by-name operation does:
  // the doubled quote matches no user.
  ASSERT_EQ(qn_db_userFactorDisconnect(ctx, "o'hara", "QMXTOTP1"), 0);
  EXPECT_EQ(value("select count(*) from qmx_userfactor"), "1");
  sql("update qmx_user set unixuid='plain'");
  ASSERT_EQ(qn_db_userFactorDisconnect(ctx, "plain", "QMXTOTP1"), 0);
  EXPECT_EQ(value("select count(*) from qmx_userfactor"), "0");
}

TEST_F(FactorsTest, ActiveFlagAndTagUpdates) {
  int userid = addUser("bob");
  ASSERT_EQ(qn_db_userFactorConnectById(ctx, userid, factorId("QMXLDAP1"), 1), 0);
  auto row = [&] { return query("select factortags, isactive from qmx_userfactor")[0]; };

  ASSERT_EQ(qn_db_userFactorUpdateIsActive(ctx, "bob", "QMXLDAP1", 0), 0);
  EXPECT_EQ(row(), (std::vector<std::string>{"{}", "0"}));
  ASSERT_EQ(qn_db_userFactorTagsUpdate(ctx, "bob", "QMXLDAP1", "{\"DN\":\"cn=O'Brien\"}", -1), 0);
  EXPECT_EQ(row(), (std::vector<std::string>{"{\"DN\":\"cn=O'Brien\"}", "0"}));
  ASSERT_EQ(qn_db_userFactorTagsUpdate(ctx, "bob", "QMXLDAP1", "{}", 1), 0);
  EXPECT_EQ(row(), (std::vector<std::string>{"{}", "1"}));
  ASSERT_EQ(qn_db_userFactorTagsUpdate(ctx, "bob", "QMXLDAP1", "{\"x\":\"y\"}", 0), 0);
  EXPECT_EQ(row(), (std::vector<std::string>{"{\"x\":\"y\"}", "0"}));
  // A flag too wide for its piece of the statement is refused, not cut.
  mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_userFactorTagsUpdate(ctx, "bob", "QMXLDAP1", "{}", 12345), 80106); });
  EXPECT_EQ(row(), (std::vector<std::string>{"{\"x\":\"y\"}", "0"}));
  EXPECT_EQ(qn_db_userFactorTagsClear(nullptr, "bob", "QMXLDAP1"), 80199);
}

} // namespace
