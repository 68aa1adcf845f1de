#include "db/factors.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "base/alloc.h"
#include "db/dbcommon_internal.h"
#include "support/env.h"
#include "support/pgtest.h"

namespace {

using mfatest::Rows;

class FactorsTest : public mfatest::PgTest {
protected:
  Rows links() {
    return sql("select f.factorname, uf.factortags, uf.isactive from qmx_userfactor uf join "
               "qmx_factor f using (factorid) order by 1");
  }
};

TEST_F(FactorsTest, ListingsOfEnabledNamesAndOfAllFactors) {
  int count = -1;
  char **names = nullptr;
  std::string out = mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_factorGetEnabledNames(ctx, &count, &names), 80105); });
  EXPECT_EQ(out.substr(out.find("MFADB:")), "MFADB:no factors\n");
  EXPECT_EQ(count, -1);

  // The settings factor is named among the enabled ones but never listed.
  sql("update qmx_factor set isenabled=1, factorsettings='{\"a\":1}' where factorname in "
      "('QMXSTC', 'QMXTOTP1')");
  ASSERT_EQ(qn_db_factorGetEnabledNames(ctx, &count, &names), 0);
  EXPECT_EQ(std::multiset<std::string>(names, names + count),
            (std::multiset<std::string>{"QMXSTC", "QMXTOTP1"}));
  mfadb::destroyArray(names, count, freeString);

  MFAAdminFactorData **factors = nullptr;
  ASSERT_EQ(qn_db_factorGetAll(ctx, &count, &factors), 0);
  Rows got;
  for (int i = 0; i < count; i++)
    got.push_back({factors[i]->factorname, factors[i]->factornote, factors[i]->factorsettings,
                   std::to_string(factors[i]->isenabled), std::to_string(factors[i]->factorid)});
  EXPECT_EQ(got, (Rows{{"QMXLDAP1", "LDAP directory authentication", "", "0", "1"},
                       {"QMXTOTP1", "Time-based one-time password", "{\"a\":1}", "1", "3"},
                       {"QMXYUBI1", "YubiKey one-time password", "", "0", "4"}}));
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
  ASSERT_EQ(qn_db_factorGetById(ctx, id, &factor), 0);
  EXPECT_STREQ(factor->factorname, "QMXTEST1");
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
  ASSERT_EQ(qn_db_userFactorConnectById(ctx, userid, factorId("QMXLDAP1"), 1), 0);
  std::string out = mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_userFactorConnectById(ctx, userid, factorId("QMXLDAP1"), 1), 80104); });
  EXPECT_NE(out.find("MFADB:insert failed: "), std::string::npos) << out;
  ASSERT_EQ(qn_db_userFactorConnect(ctx, "bob", "QMXTOTP1", 0), 0);
  EXPECT_EQ(qn_db_userFactorConnect(ctx, "nobody", "QMXTOTP1", 0), 0);
  EXPECT_EQ(qn_db_userFactorConnect(ctx, "bob'", "QMX'", 0), 0);
  EXPECT_EQ(links(), (Rows{{"QMXLDAP1", "{}", "1"}, {"QMXTOTP1", "{}", "0"}}));

  // From a policy: only the missing factors are added, active.
  int policyid = addPolicy("p", {"QMXLDAP1", "QMXYUBI1"});
  ASSERT_EQ(qn_db_userFactorConnectFromPolicyId(ctx, userid, policyid), 0);
  ASSERT_EQ(qn_db_userFactorConnectFromPolicyId(ctx, userid, policyid), 0);
  EXPECT_EQ(links(),
            (Rows{{"QMXLDAP1", "{}", "1"}, {"QMXTOTP1", "{}", "0"}, {"QMXYUBI1", "{}", "1"}}));
  out = mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_userFactorConnectFromPolicyId(ctx, 0, policyid), 80106); });
  EXPECT_NE(out.find("Bad parameters to userFactorConnectFromPolicyId.\n"), std::string::npos);
}

TEST_F(FactorsTest, DisconnectingByLinkIdOrNames) {
  int userid = addUser("o'hara");
  ASSERT_EQ(qn_db_userFactorConnectById(ctx, userid, factorId("QMXLDAP1"), 1), 0);
  ASSERT_EQ(qn_db_userFactorConnectById(ctx, userid, factorId("QMXTOTP1"), 1), 0);
  int link = std::stoi(value("select min(userfactorid) from qmx_userfactor"));
  char *uid = nullptr, *name = nullptr;
  ASSERT_EQ(qn_db_getMfaIdFactornameFromConnectionId(ctx, link, &uid, &name), 0);
  EXPECT_EQ(std::string(uid) + "/" + name, "o'hara/QMXLDAP1");
  freeString(uid);
  freeString(name);

  ASSERT_EQ(qn_db_userFactorDisconnectById(ctx, link), 0);
  uid = nullptr;
  mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_getMfaIdFactornameFromConnectionId(ctx, link, &uid, &name), 80105); });
  EXPECT_EQ(uid, nullptr);
  // The by-name lookup gets the escaped uid, as every by-name operation does:
  // the doubled quote matches no user.
  ASSERT_EQ(qn_db_userFactorDisconnect(ctx, "o'hara", "QMXTOTP1"), 0);
  EXPECT_EQ(links().size(), 1u);
  sql("update qmx_user set unixuid='plain'");
  ASSERT_EQ(qn_db_userFactorDisconnect(ctx, "plain", "QMXTOTP1"), 0);
  EXPECT_EQ(links(), Rows{});
}

TEST_F(FactorsTest, ActiveFlagAndTagUpdates) {
  ASSERT_EQ(qn_db_userFactorConnectById(ctx, addUser("bob"), factorId("QMXLDAP1"), 1), 0);
  ASSERT_EQ(qn_db_userFactorUpdateIsActive(ctx, "bob", "QMXLDAP1", 0), 0);
  EXPECT_EQ(links(), (Rows{{"QMXLDAP1", "{}", "0"}}));
  // -1 leaves the flag alone; any other value is set with the tags.
  struct Step {
    const char *tags;
    int isactive;
    const char *storedFlag;
  } steps[] = {{"{\"DN\":\"cn=O'Brien\"}", -1, "0"}, {"{}", 1, "1"}, {"{\"x\":\"y\"}", 0, "0"}};
  for (const Step &step : steps) {
    ASSERT_EQ(qn_db_userFactorTagsUpdate(ctx, "bob", "QMXLDAP1", step.tags, step.isactive), 0);
    EXPECT_EQ(links(), (Rows{{"QMXLDAP1", step.tags, step.storedFlag}}));
  }
  // A flag too wide for its piece of the statement is refused, not cut.
  mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_userFactorTagsUpdate(ctx, "bob", "QMXLDAP1", "{}", 12345), 80106); });
  EXPECT_EQ(links(), (Rows{{"QMXLDAP1", "{\"x\":\"y\"}", "0"}}));
  EXPECT_EQ(qn_db_userFactorTagsClear(nullptr, "bob", "QMXLDAP1"), 80199);
}

} // namespace
