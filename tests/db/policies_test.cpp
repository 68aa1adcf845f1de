#include "db/policies.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "base/alloc.h"
#include "db/dbcommon_internal.h"
#include "support/env.h"
#include "support/pgtest.h"

namespace {

using mfatest::PgTest;
using mfatest::Rows;

// A definition over caller-owned strings, for create and update.
struct Definition {
  std::vector<char *> names;
  userPolicyData data{};
  Definition(const char *name, const char *note, int timeout, int reuse,
             std::vector<const char *> factors) {
    for (const char *f : factors)
      names.push_back(const_cast<char *>(f));
    data = {const_cast<char *>(name),
            const_cast<char *>(note),
            timeout,
            reuse,
            static_cast<int>(names.size()),
            names.data(),
            nullptr};
  }
};

std::set<std::string> factorSet(const userPolicyData *policy) {
  return {policy->factorNames, policy->factorNames + policy->numFactors};
}

class PoliciesTest : public PgTest {
protected:
  void SetUp() override {
    PgTest::SetUp();
    if (IsSkipped() || HasFatalFailure())
      return;
    addFactor("QMXTEST1", "test one");
    addFactor("QMXTEST2", "test two");
  }
  Rows links() {
    return query("select p.policyname, f.factorname from qmx_policyfactor pf join qmx_policy p "
                 "using (policyid) join qmx_factor f using (factorid) order by 1, 2");
  }
};

TEST_F(PoliciesTest, CreateByNameAndReadBack) {
  Definition def("strong", "Bob's policy", 30, 2, {"QMXLDAP1", "QMXTEST1", "NOSUCH"});
  ASSERT_EQ(qn_db_policyCreate(ctx, &def.data), 0);
  userPolicyData *read = nullptr;
  ASSERT_EQ(qn_db_policyGetOne(ctx, "strong", &read), 0);
  EXPECT_STREQ(read->policyname, "strong");
  EXPECT_STREQ(read->policynote, "Bob's policy");
  EXPECT_EQ(read->ctctimeout, 30);
  EXPECT_EQ(read->ctcreuse, 2);
  EXPECT_EQ(factorSet(read), (std::set<std::string>{"QMXLDAP1", "QMXTEST1"}));
  EXPECT_EQ(read->factorNotes, nullptr);
  destroyUserPolicyData(read);

  // Without factors a policy exists but the by-name reads do not see it.
  Definition empty("empty", "", 0, 0, {});
  ASSERT_EQ(qn_db_policyCreate(ctx, &empty.data), 0);
  read = nullptr;
  std::string out =
      mfatest::captureStdout([&] { EXPECT_EQ(qn_db_policyGetOne(ctx, "empty", &read), 80105); });
  EXPECT_NE(out.find("MFADB:no policy data returned\n"), std::string::npos) << out;
  EXPECT_EQ(read, nullptr);

  int count = 0;
  MFAAdminPolicyData **all = nullptr;
  ASSERT_EQ(qn_db_policyGetAllREST(ctx, &count, &all), 0);
  ASSERT_EQ(count, 2);
  EXPECT_STREQ(all[0]->policyname, "empty");
  EXPECT_STREQ(all[1]->policyname, "strong");
  EXPECT_EQ(all[1]->ctctimeout, 30);
  EXPECT_EQ(all[1]->ctcreuse, 2);
  EXPECT_EQ(all[1]->numFactors, 0);
  mfadb::destroyArray(all, count, destroyMFAAdminPolicyData);
}

TEST_F(PoliciesTest, GetAllGroupsTheRowsOfEachPolicy) {
  Definition two("two", "n2", 1, 1, {"QMXTEST1", "QMXTEST2"});
  Definition three("three", "n3", 2, 2, {"QMXLDAP1", "QMXTEST1", "QMXTOTP1"});
  Definition none("none", "", 0, 0, {});
  ASSERT_EQ(qn_db_policyCreate(ctx, &two.data), 0);
  ASSERT_EQ(qn_db_policyCreate(ctx, &three.data), 0);
  ASSERT_EQ(qn_db_policyCreate(ctx, &none.data), 0);
  int count = 0;
  userPolicyData **all = nullptr;
  ASSERT_EQ(qn_db_policyGetAll(ctx, &count, &all), 0);
  ASSERT_EQ(count, 2);
  EXPECT_STREQ(all[0]->policyname, "three");
  EXPECT_EQ(all[0]->numFactors, 3);
  EXPECT_EQ(factorSet(all[0]), (std::set<std::string>{"QMXLDAP1", "QMXTEST1", "QMXTOTP1"}));
  EXPECT_STREQ(all[1]->policyname, "two");
  EXPECT_STREQ(all[1]->policynote, "n2");
  ASSERT_EQ(all[1]->numFactors, 2);
  for (int i = 0; i < 2; i++)
    EXPECT_EQ(std::string(all[1]->factorNotes[i]),
              std::string(all[1]->factorNames[i]) == "QMXTEST1" ? "test one" : "test two");
  mfadb::destroyArray(all, count, destroyUserPolicyData);

  sql("delete from qmx_policyfactor");
  count = -1;
  mfatest::captureStdout([&] { EXPECT_EQ(qn_db_policyGetAll(ctx, &count, &all), 80105); });
  EXPECT_EQ(count, -1);
}

TEST_F(PoliciesTest, CreateByIdAndReadById) {
  int ids[] = {factorId("QMXTEST1"), factorId("QMXTEST2")};
  std::string out = mfatest::captureStdout([&] {
    EXPECT_EQ(qn_db_policyCreateREST(ctx, "p", "n", 1, 2, 0, ids), 80106);
    EXPECT_EQ(qn_db_policyCreateREST(ctx, "", "n", 1, 2, 2, ids), 80106);
  });
  EXPECT_NE(out.find("MFADB:Bad parameters to policy create.\n"), std::string::npos) << out;
  ASSERT_EQ(qn_db_policyCreateREST(ctx, "rest", "it's", 5, 60, 2, ids), 0);
  int policyid = std::stoi(value("select policyid from qmx_policy where policyname='rest'"));

  MFAAdminPolicyData *read = nullptr;
  ASSERT_EQ(qn_db_policyGetOneREST(ctx, policyid, &read), 0);
  EXPECT_EQ(read->policyid, policyid);
  EXPECT_STREQ(read->policynote, "it's");
  EXPECT_EQ(read->ctcreuse, 5);
  EXPECT_EQ(read->ctctimeout, 60);
  ASSERT_EQ(read->numFactors, 2);
  std::set<int> got;
  for (int i = 0; i < 2; i++) {
    got.insert(read->factors[i]->factorid);
    EXPECT_STREQ(read->factors[i]->factornote,
                 read->factors[i]->factorid == ids[0] ? "test one" : "test two");
  }
  EXPECT_EQ(got, (std::set<int>{ids[0], ids[1]}));
  destroyMFAAdminPolicyData(read);

  read = nullptr;
  mfatest::captureStdout([&] { EXPECT_EQ(qn_db_policyGetOneREST(ctx, 9999, &read), 80105); });
  EXPECT_EQ(read, nullptr);
}

TEST_F(PoliciesTest, AFailingStepRollsBackTheWholeTransaction) {
  // The second link of the same factor breaks the policy's key.
  Definition twice("twice", "", 0, 0, {"QMXTEST1", "QMXTEST1"});
  std::string out =
      mfatest::captureStdout([&] { EXPECT_EQ(qn_db_policyCreate(ctx, &twice.data), 80104); });
  EXPECT_NE(out.find("MFADB:insert failed: "), std::string::npos) << out;
  EXPECT_EQ(value("select count(*) from qmx_policy"), "0");

  int ids[] = {factorId("QMXTEST1"), 9999};
  mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_policyCreateREST(ctx, "rest", "", 0, 0, 2, ids), 80104); });
  EXPECT_EQ(value("select count(*) from qmx_policy"), "0");

  Definition good("p", "old", 1, 1, {"QMXTEST1"});
  ASSERT_EQ(qn_db_policyCreate(ctx, &good.data), 0);
  Definition bad("p", "new", 2, 2, {"QMXTEST2", "QMXTEST2"});
  mfatest::captureStdout([&] { EXPECT_EQ(qn_db_policyUpdate(ctx, &bad.data), 80104); });
  EXPECT_EQ(links(), (Rows{{"p", "QMXTEST1"}}));
  EXPECT_EQ(value("select policynote from qmx_policy"), "old");

  int policyid = std::stoi(value("select policyid from qmx_policy"));
  int again[] = {factorId("QMXTEST2"), factorId("QMXTEST1")};
  mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_policyConnectFactors(ctx, policyid, 2, again), 80104); });
  EXPECT_EQ(links(), (Rows{{"p", "QMXTEST1"}}));
}

TEST_F(PoliciesTest, UpdatesReplaceSettingsAndFactors) {
  Definition def("p", "old", 1, 1, {"QMXTEST1"});
  ASSERT_EQ(qn_db_policyCreate(ctx, &def.data), 0);
  Definition changed("p", "new's", 7, 8, {"QMXTEST2", "QMXLDAP1"});
  ASSERT_EQ(qn_db_policyUpdate(ctx, &changed.data), 0);
  EXPECT_EQ(query("select policyname, policynote, ctctimeout, ctcreuse from qmx_policy"),
            (Rows{{"p", "new's", "7", "8"}}));
  EXPECT_EQ(links(), (Rows{{"p", "QMXLDAP1"}, {"p", "QMXTEST2"}}));

  int policyid = std::stoi(value("select policyid from qmx_policy"));
  ASSERT_EQ(qn_db_policyUpdateREST(ctx, policyid, "rest's", 3, 4), 0);
  EXPECT_EQ(query("select policyname, policynote, ctctimeout, ctcreuse from qmx_policy"),
            (Rows{{"p", "rest's", "4", "3"}}));
  EXPECT_EQ(links().size(), 2u);
}

TEST_F(PoliciesTest, LinkingFactorsById) {
  Definition def("p", "", 0, 0, {});
  ASSERT_EQ(qn_db_policyCreate(ctx, &def.data), 0);
  int policyid = std::stoi(value("select policyid from qmx_policy"));
  int ids[] = {factorId("QMXTEST1"), factorId("QMXTEST2")};
  std::string out = mfatest::captureStdout([&] {
    EXPECT_EQ(qn_db_policyConnectFactors(ctx, 0, 2, ids), 80106);
    EXPECT_EQ(qn_db_policyConnectFactors(ctx, policyid, 0, ids), 80106);
    EXPECT_EQ(qn_db_policyDisconnectFactor(ctx, policyid, 0), 80106);
  });
  EXPECT_NE(out.find("Bad parameters to policy connect factors.\n"), std::string::npos) << out;
  EXPECT_NE(out.find("Bad parameters to policy disconnect factor.\n"), std::string::npos) << out;
  ASSERT_EQ(qn_db_policyConnectFactors(ctx, policyid, 2, ids), 0);
  ASSERT_EQ(qn_db_policyDisconnectFactor(ctx, policyid, ids[0]), 0);
  EXPECT_EQ(links(), (Rows{{"p", "QMXTEST2"}}));
}

TEST_F(PoliciesTest, DeletingRemovesEveryLink) {
  int userid = addUser("bob");
  Definition a("a'b", "", 0, 0, {"QMXTEST1"});
  Definition b("b", "", 0, 0, {"QMXTEST2"});
  ASSERT_EQ(qn_db_policyCreate(ctx, &a.data), 0);
  ASSERT_EQ(qn_db_policyCreate(ctx, &b.data), 0);
  ASSERT_EQ(qn_db_userPolicyConnect(ctx, "bob", "a'b"), 0);
  int bid = std::stoi(value("select policyid from qmx_policy where policyname='b'"));
  ASSERT_EQ(qn_db_userPolicyConnectById(ctx, userid, bid), 0);
  EXPECT_EQ(value("select count(*) from qmx_userpolicy"), "2");

  // The by-name deleter matches on the escaped name, which a quote defeats.
  ASSERT_EQ(qn_db_policyDelete(ctx, "a'b"), 0);
  EXPECT_EQ(value("select count(*) from qmx_policy"), "2");
  sql("update qmx_policy set policyname='a' where policyname='a''b'");
  ASSERT_EQ(qn_db_policyDelete(ctx, "a"), 0);
  ASSERT_EQ(qn_db_policyDeleteById(ctx, bid), 0);
  EXPECT_EQ(value("select count(*) from qmx_policy"), "0");
  EXPECT_EQ(value("select count(*) from qmx_userpolicy"), "0");
  EXPECT_EQ(links(), Rows{});
  EXPECT_EQ(qn_db_policyDelete(ctx, "unknown"), 0);
  EXPECT_EQ(qn_db_policyDeleteById(ctx, 9999), 0);
}

TEST_F(PoliciesTest, UserPolicyLinks) {
  int userid = addUser("bob");
  Definition def("p", "", 0, 0, {"QMXTEST1"});
  ASSERT_EQ(qn_db_policyCreate(ctx, &def.data), 0);
  int policyid = std::stoi(value("select policyid from qmx_policy"));
  ASSERT_EQ(qn_db_userPolicyConnect(ctx, "bob", "p"), 0);
  // Giving a user a policy does not give the user its factors.
  EXPECT_EQ(value("select count(*) from qmx_userfactor"), "0");
  mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_userPolicyConnectById(ctx, userid, policyid), 80104); });
  EXPECT_EQ(qn_db_userPolicyConnect(ctx, "nobody", "p"), 0);
  ASSERT_EQ(qn_db_userPolicyDisconnect(ctx, "bob", "p"), 0);
  EXPECT_EQ(value("select count(*) from qmx_userpolicy"), "0");

  ASSERT_EQ(qn_db_userPolicyConnectById(ctx, userid, policyid), 0);
  int link = std::stoi(value("select userpolicyid from qmx_userpolicy"));
  ASSERT_EQ(qn_db_userPolicyDisconnectById(ctx, link), 0);
  EXPECT_EQ(value("select count(*) from qmx_userpolicy"), "0");
}

} // namespace
