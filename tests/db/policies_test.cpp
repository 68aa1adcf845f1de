#include "db/policies.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/alloc.h"
#include "db/dbcommon_internal.h"
#include "support/env.h"
#include "support/pgtest.h"

namespace {

using mfatest::Rows;

// Calls a by-name writer with a definition over the given strings.
int write(int (*writer)(dbctx *, const userPolicyData *), dbctx *ctx, std::string name,
          std::string note, int timeout, int reuse, std::vector<const char *> factors) {
  userPolicyData data{name.data(), note.data(), timeout, reuse, 0, nullptr, nullptr};
  data.numFactors = static_cast<int>(factors.size());
  data.factorNames = const_cast<char **>(factors.data());
  return writer(ctx, &data);
}

// "name|note|timeout|reuse|" and the factors in name order, each with its
// note when the record carries notes.
std::string describe(const userPolicyData *p) {
  std::set<std::string> factors;
  for (int i = 0; i < p->numFactors; i++)
    factors.insert(std::string(p->factorNames[i]) +
                   (p->factorNotes ? std::string("=") + p->factorNotes[i] : ""));
  std::string text = std::string(p->policyname) + "|" + p->policynote + "|" +
                     std::to_string(p->ctctimeout) + "|" + std::to_string(p->ctcreuse) + "|";
  for (const std::string &factor : factors)
    text += " " + factor;
  return text;
}

// "id|name|note|timeout|reuse|" and the factors in id order as id=name=note.
std::string describe(const MFAAdminPolicyData *p) {
  std::map<int, std::string> factors;
  for (int i = 0; i < p->numFactors; i++)
    factors[p->factors[i]->factorid] =
        std::string(p->factors[i]->factorname) + "=" + p->factors[i]->factornote;
  std::string text = std::to_string(p->policyid) + "|" + p->policyname + "|" + p->policynote + "|" +
                     std::to_string(p->ctctimeout) + "|" + std::to_string(p->ctcreuse) + "|";
  for (const auto &[id, factor] : factors)
    text += " " + std::to_string(id) + "=" + factor;
  return text;
}

class PoliciesTest : public mfatest::PgTest {
protected:
  void SetUp() override {
    PgTest::SetUp();
    if (!IsSkipped() && !HasFatalFailure()) {
      addFactor("QMXTEST1", "test one");
      addFactor("QMXTEST2", "test two");
    }
  }
  Rows policies() {
    return sql("select policyname, policynote, ctctimeout, ctcreuse, (select string_agg("
               "factorname, ',' order by factorname) from qmx_policyfactor join qmx_factor "
               "using (factorid) where policyid=p.policyid) from qmx_policy p order by 1");
  }
};

TEST_F(PoliciesTest, CreateByNameAndReadBack) {
  ASSERT_EQ(write(qn_db_policyCreate, ctx, "strong", "Bob's policy", 30, 2,
                  {"QMXLDAP1", "QMXTEST1", "NOSUCH"}),
            0);
  // Without factors a policy exists but the by-name reads do not see it.
  ASSERT_EQ(write(qn_db_policyCreate, ctx, "empty", "", 0, 0, {}), 0);
  EXPECT_EQ(policies(), (Rows{{"empty", "", "0", "0", "<null>"},
                              {"strong", "Bob's policy", "30", "2", "QMXLDAP1,QMXTEST1"}}));

  userPolicyData *read = nullptr;
  ASSERT_EQ(qn_db_policyGetOne(ctx, "strong", &read), 0);
  EXPECT_EQ(describe(read), "strong|Bob's policy|30|2| QMXLDAP1 QMXTEST1");
  destroyUserPolicyData(read);
  read = nullptr;
  std::string out =
      mfatest::captureStdout([&] { EXPECT_EQ(qn_db_policyGetOne(ctx, "empty", &read), 80105); });
  EXPECT_NE(out.find("MFADB:no policy data returned\n"), std::string::npos) << out;
  EXPECT_EQ(read, nullptr);

  int count = 0;
  MFAAdminPolicyData **all = nullptr;
  ASSERT_EQ(qn_db_policyGetAllREST(ctx, &count, &all), 0);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(describe(all[0]) + " " + describe(all[1]), "2|empty||0|0| 1|strong|Bob's policy|30|2|");
  mfadb::destroyArray(all, count, destroyMFAAdminPolicyData);
}

TEST_F(PoliciesTest, GetAllGroupsTheRowsOfEachPolicy) {
  int count = -1;
  userPolicyData **all = nullptr;
  mfatest::captureStdout([&] { EXPECT_EQ(qn_db_policyGetAll(ctx, &count, &all), 80105); });
  EXPECT_EQ(count, -1);
  addPolicy("two", {"QMXTEST1", "QMXTEST2"});
  addPolicy("three", {"QMXLDAP1", "QMXTEST1", "QMXTOTP1"});
  addPolicy("none", {});
  ASSERT_EQ(qn_db_policyGetAll(ctx, &count, &all), 0);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(describe(all[0]), "three||0|0| QMXLDAP1=LDAP directory authentication QMXTEST1=test "
                              "one QMXTOTP1=Time-based one-time password");
  EXPECT_EQ(describe(all[1]), "two||0|0| QMXTEST1=test one QMXTEST2=test two");
  mfadb::destroyArray(all, count, destroyUserPolicyData);
}

TEST_F(PoliciesTest, CreateByIdAndReadById) {
  int ids[] = {factorId("QMXTEST1"), factorId("QMXTEST2")};
  std::string out = mfatest::captureStdout([&] {
    EXPECT_EQ(qn_db_policyCreateREST(ctx, "p", "n", 1, 2, 0, ids), 80106);
    EXPECT_EQ(qn_db_policyCreateREST(ctx, "", "n", 1, 2, 2, ids), 80106);
  });
  EXPECT_NE(out.find("MFADB:Bad parameters to policy create.\n"), std::string::npos) << out;
  ASSERT_EQ(qn_db_policyCreateREST(ctx, "rest", "it's", 5, 60, 2, ids), 0);

  MFAAdminPolicyData *read = nullptr;
  ASSERT_EQ(qn_db_policyGetOneREST(ctx, 1, &read), 0);
  EXPECT_EQ(describe(read), "1|rest|it's|60|5| 5=QMXTEST1=test "
                            "one 6=QMXTEST2=test two");
  destroyMFAAdminPolicyData(read);
  read = nullptr;
  mfatest::captureStdout([&] { EXPECT_EQ(qn_db_policyGetOneREST(ctx, 9999, &read), 80105); });
  EXPECT_EQ(read, nullptr);
}

TEST_F(PoliciesTest, AFailingStepRollsBackTheWholeTransaction) {
  // The second link of the same factor breaks the policy's key.
  std::string out = mfatest::captureStdout([&] {
    EXPECT_EQ(write(qn_db_policyCreate, ctx, "twice", "", 0, 0, {"QMXTEST1", "QMXTEST1"}), 80104);
  });
  EXPECT_NE(out.find("MFADB:insert failed: "), std::string::npos) << out;
  int ids[] = {factorId("QMXTEST1"), 9999};
  mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_policyCreateREST(ctx, "rest", "", 0, 0, 2, ids), 80104); });
  EXPECT_EQ(policies(), Rows{});

  int policyid = addPolicy("p", {"QMXTEST1"});
  mfatest::captureStdout([&] {
    EXPECT_EQ(write(qn_db_policyUpdate, ctx, "p", "new", 2, 2, {"QMXTEST2", "QMXTEST2"}), 80104);
  });
  int again[] = {factorId("QMXTEST2"), factorId("QMXTEST1")};
  mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_policyConnectFactors(ctx, policyid, 2, again), 80104); });
  EXPECT_EQ(policies(), (Rows{{"p", "", "0", "0", "QMXTEST1"}}));
}

TEST_F(PoliciesTest, UpdatesAndFactorLinks) {
  int policyid = addPolicy("p", {"QMXTEST1"});
  ASSERT_EQ(write(qn_db_policyUpdate, ctx, "p", "new's", 7, 8, {"QMXTEST2", "QMXLDAP1"}), 0);
  EXPECT_EQ(policies(), (Rows{{"p", "new's", "7", "8", "QMXLDAP1,QMXTEST2"}}));
  ASSERT_EQ(qn_db_policyUpdateREST(ctx, policyid, "rest's", 3, 4), 0);
  EXPECT_EQ(policies(), (Rows{{"p", "rest's", "4", "3", "QMXLDAP1,QMXTEST2"}}));

  int ids[] = {factorId("QMXTEST1"), factorId("QMXYUBI1")};
  std::string out = mfatest::captureStdout([&] {
    EXPECT_EQ(qn_db_policyConnectFactors(ctx, 0, 2, ids), 80106);
    EXPECT_EQ(qn_db_policyConnectFactors(ctx, policyid, 0, ids), 80106);
    EXPECT_EQ(qn_db_policyDisconnectFactor(ctx, policyid, 0), 80106);
  });
  EXPECT_NE(out.find("Bad parameters to policy connect factors.\n"), std::string::npos) << out;
  EXPECT_NE(out.find("Bad parameters to policy disconnect factor.\n"), std::string::npos) << out;
  ASSERT_EQ(qn_db_policyConnectFactors(ctx, policyid, 2, ids), 0);
  ASSERT_EQ(qn_db_policyDisconnectFactor(ctx, policyid, factorId("QMXLDAP1")), 0);
  EXPECT_EQ(policies(), (Rows{{"p", "rest's", "4", "3", "QMXTEST1,QMXTEST2,QMXYUBI1"}}));
}

TEST_F(PoliciesTest, UserLinksAndDeletion) {
  int userid = addUser("bob");
  addPolicy("a'b", {"QMXTEST1"});
  int b = addPolicy("b", {"QMXTEST2"});
  ASSERT_EQ(qn_db_userPolicyConnect(ctx, "bob", "a'b"), 0);
  EXPECT_EQ(qn_db_userPolicyConnect(ctx, "nobody", "b"), 0);
  ASSERT_EQ(qn_db_userPolicyConnectById(ctx, userid, b), 0);
  mfatest::captureStdout([&] { EXPECT_EQ(qn_db_userPolicyConnectById(ctx, userid, b), 80104); });
  // Giving a user a policy does not give the user its factors.
  EXPECT_EQ(value("select count(*) from qmx_userfactor"), "0");
  EXPECT_EQ(value("select count(*) from qmx_userpolicy"), "2");
  ASSERT_EQ(qn_db_userPolicyDisconnect(ctx, "bob", "b"), 0);
  ASSERT_EQ(qn_db_userPolicyConnectById(ctx, userid, b), 0);
  std::string link = value("select max(userpolicyid) from qmx_userpolicy");
  ASSERT_EQ(qn_db_userPolicyDisconnectById(ctx, std::stoi(link)), 0);
  EXPECT_EQ(value("select count(*) from qmx_userpolicy"), "1");

  // The by-name deleter matches on the escaped name, which a quote defeats.
  ASSERT_EQ(qn_db_policyDelete(ctx, "a'b"), 0);
  EXPECT_EQ(policies().size(), 2u);
  sql("update qmx_policy set policyname='a' where policyname='a''b'");
  ASSERT_EQ(qn_db_userPolicyConnectById(ctx, userid, b), 0);
  ASSERT_EQ(qn_db_policyDelete(ctx, "a"), 0);
  ASSERT_EQ(qn_db_policyDeleteById(ctx, b), 0);
  EXPECT_EQ(policies(), Rows{});
  EXPECT_EQ(sql("select userid, policyid from qmx_userpolicy union all select * from "
                "qmx_policyfactor"),
            Rows{});
  EXPECT_EQ(qn_db_policyDelete(ctx, "unknown"), 0);
  EXPECT_EQ(qn_db_policyDeleteById(ctx, 9999), 0);
}

} // namespace
