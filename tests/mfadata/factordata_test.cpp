#include "mfadata/factordata.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "db/dbcommon.h"
#include "mfadata/usermfadata.h"
#include "support/env.h"
#include "support/pgtest.h"

namespace {

using Tags = std::vector<std::pair<std::string, std::string>>;

// A factor over a tag list built from its own copy of the pairs.
struct Factor {
  Tags pairs;
  std::vector<factorTag> tags;
  factorData data{};
  Factor(const char *name, uint32_t active, const Tags &given) : pairs(given), tags(given.size()) {
    for (std::size_t i = 0; i < pairs.size(); i++)
      tags[i] = {i + 1 < pairs.size() ? &tags[i + 1] : nullptr, pairs[i].first.data(),
                 pairs[i].second.data(), 0, 0};
    data.tags = tags.empty() ? nullptr : tags.data();
    data.factorName = const_cast<char *>(name);
    data.activeFlag = active;
    data.numTags = static_cast<uint32_t>(pairs.size());
  }
};

Tags tagsOf(const factorData *factor) {
  Tags out;
  for (const factorTag *t = factor->tags; t != nullptr; t = t->next)
    out.emplace_back(t->tagName, t->tagValue ? t->tagValue : "<null>");
  return out;
}

using FactorDataTest = mfatest::PgTest;

TEST_F(FactorDataTest, UpsertedTagsReadBackWhole) {
  addUser("eve");
  std::string injection = "x'); delete from qmx_user; --";
  const std::vector<Tags> writes = {
      {{"DN", "cn=O'Brien,o=example"}, {"SEARCHVAL", "a\"b\\c"}, {"LASTSEARCH", ""}},
      {{"DN", injection}},
      // Longer together than any fixed statement buffer the service could use.
      {{"DN", std::string(255, 'd')},
       {"SEARCHVAL", std::string(255, 's')},
       {"SEARCHVAL2", std::string(255, 't')},
       {"SEARCHVAL3", std::string(255, 'u')}},
  };
  for (std::size_t i = 0; i < writes.size(); i++) {
    Factor factor("QMXLDAP1", i % 2, writes[i]);
    uint32_t written = 0;
    ASSERT_EQ(kfactor_update_UserFactorData2(ctx, "eve", &factor.data, &written), 0);
    EXPECT_EQ(written, 1u);
    userMFAData *read = nullptr;
    ASSERT_EQ(pq_userMFAData_create(ctx, "eve", &read), 0);
    ASSERT_EQ(read->numFactors, 1u);
    EXPECT_STREQ(read->factors[0]->factorName, "QMXLDAP1");
    EXPECT_EQ(read->factors[0]->activeFlag, i % 2);
    EXPECT_EQ(read->factors[0]->numTags, writes[i].size());
    EXPECT_EQ(tagsOf(read->factors[0]), writes[i]);
    kfactor_userMFAData_destroy(read);
    factorData *one = nullptr;
    ASSERT_EQ(kfactor_get_UserFactorData(ctx, "eve", "QMXLDAP1", &one), 0);
    EXPECT_EQ(tagsOf(one), writes[i]);
    kfactor_factorData_destroy(one);
    char *text = nullptr;
    ASSERT_EQ(kfactor_get_UserFactorTagsText(ctx, "eve", "QMXLDAP1", &text), 0);
    EXPECT_EQ(text, value("select factortags from qmx_userfactor"));
    freeString(text);
  }
  EXPECT_EQ(value("select count(*) from qmx_user"), "1");
  // The flag goes into the signed column as the same 32 bits.
  Factor allBits("QMXLDAP1", 0xFFFFFFFFu, {{"DN", "x"}});
  ASSERT_EQ(kfactor_update_UserFactorData(ctx, "eve", &allBits.data), 0);
  EXPECT_EQ(value("select isactive from qmx_userfactor"), "-1");

  // Unknown user or factor: nothing is written and the call succeeds; the
  // counting variant says that nothing was written.
  Factor orphan("QMXLDAP1", 1, {}), unknown("NOSUCH", 1, {});
  EXPECT_EQ(kfactor_update_UserFactorData(ctx, "o'nobody", &orphan.data), 0);
  uint32_t written = 99;
  EXPECT_EQ(kfactor_update_UserFactorData2(ctx, "eve", &unknown.data, &written), 0);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(value("select count(*) from qmx_userfactor"), "1");
  char *text = nullptr;
  EXPECT_EQ(kfactor_get_UserFactorTagsText(ctx, "o'nobody", "QMXLDAP1", &text), 80105);
  EXPECT_EQ(text, nullptr);
}

TEST_F(FactorDataTest, UserWithoutFactorsAndFactorsWithoutTags) {
  addUser("amy");
  userMFAData *read = nullptr;
  std::string out =
      mfatest::captureStdout([&] { EXPECT_EQ(pq_userMFAData_create(ctx, "amy", &read), 0); });
  EXPECT_EQ(out, "No factors returned for user amy\n");
  EXPECT_EQ(read->numFactors, 0u);
  EXPECT_EQ(read->numPolicies, 0u);
  kfactor_userMFAData_destroy(read);

  // A new link holds "{}"; an empty text gives no tags either.
  sql("insert into qmx_userfactor(userid, factorid, isactive) select userid, 1, 1 from qmx_user");
  for (const char *stored : {"{}", ""}) {
    sql(std::string("update qmx_userfactor set factortags='") + stored + "'");
    factorData *factor = nullptr;
    ASSERT_EQ(kfactor_get_UserFactorData(ctx, "amy", "QMXLDAP1", &factor), 0);
    EXPECT_EQ(factor->tags, nullptr);
    EXPECT_EQ(factor->numTags, 0u);
    EXPECT_EQ(factor->activeFlag, 1u);
    kfactor_factorData_destroy(factor);
  }
  factorData *factor = nullptr;
  out = mfatest::captureStdout(
      [&] { EXPECT_EQ(kfactor_get_UserFactorData(ctx, "amy", "QMXTOTP1", &factor), 80105); });
  EXPECT_EQ(out, "no factors, aborting?\n");
  EXPECT_EQ(factor, nullptr);
}

TEST_F(FactorDataTest, UserRecordCarriesFallbackAndPoliciesGroupedByPolicy) {
  addUser("bob");
  addFactor("QMXTEST1");
  sql("update qmx_user set passwordfallback=1;"
      "insert into qmx_userfactor(userid, factorid) select 1, factorid from qmx_factor where "
      "factorname in ('QMXLDAP1', 'QMXTOTP1')");
  addPolicy("p2", {"QMXLDAP1", "QMXTOTP1"});
  addPolicy("p3", {"QMXLDAP1", "QMXTOTP1", "QMXTEST1"});
  sql("update qmx_policy set ctctimeout=policyid+4, ctcreuse=policyid+5;"
      "insert into qmx_userpolicy(userid, policyid) select 1, policyid from qmx_policy");
  userMFAData *read = nullptr;
  ASSERT_EQ(pq_userMFAData_create(ctx, "bob", &read), 0);
  EXPECT_EQ(read->fallback, 1);
  ASSERT_EQ(read->numPolicies, 2u);
  // Per policy: its slot's name, its own, timeout/reuse, satisfiable flag and
  // factors in name order.
  std::set<std::string> policies;
  for (uint32_t i = 0; i < read->numPolicies; i++) {
    const policyData *p = read->policies[i];
    std::string text = std::string(read->policyNames[i]) + "=" + p->policyName + " " +
                       std::to_string(p->tokenTimeout) + "/" + std::to_string(p->tokenReuse) + " " +
                       std::to_string(p->satisfiable);
    for (const std::string &name :
         std::set<std::string>(p->factorNames, p->factorNames + p->numFactors))
      text += " " + name;
    policies.insert(text);
  }
  EXPECT_EQ(policies, (std::set<std::string>{"p2=p2 5/6 0 QMXLDAP1 QMXTOTP1",
                                             "p3=p3 6/7 0 QMXLDAP1 QMXTEST1 QMXTOTP1"}));
  kfactor_userMFAData_destroy(read);
}

TEST(FactorDataSatisfiable, EveryFactorUsableAndOneCompleting) {
  factorData ldap{}, totp{};
  ldap.factorName = const_cast<char *>("QMXLDAP1");
  totp.factorName = const_cast<char *>("QMXTOTP1xyz"); // names agree in 8 characters
  ldap.activeFlag = ldap.stateFlag = totp.activeFlag = totp.stateFlag = 1;
  ldap.capabilityBits = 2;
  totp.capabilityBits = 3;
  factorData *factors[] = {&ldap, &totp};
  char *both[] = {const_cast<char *>("QMXLDAP1"), const_cast<char *>("QMXTOTP1")};
  policyData p1{}, p2{}, p3{};
  p1.numFactors = 2, p1.factorNames = both;
  p2.numFactors = 1, p2.factorNames = both; // nothing completes it
  policyData *policies[] = {&p1, &p2, &p3}; // p3 has no factors
  userMFAData data{};
  data.factors = factors;
  data.numFactors = 2;
  data.policies = policies;
  data.numPolicies = 3;
  EXPECT_EQ(pq_userMFAData_checkSatisfiable(&data), 0);
  EXPECT_EQ(std::vector<uint32_t>({p1.satisfiable, p2.satisfiable, p3.satisfiable}),
            std::vector<uint32_t>({1, 0, 0}));
  totp.stateFlag = 0;
  pq_userMFAData_checkSatisfiable(&data);
  EXPECT_EQ(p1.satisfiable, 0u);
}

TEST_F(FactorDataTest, FactorWideSettingsBufferRules) {
  ASSERT_EQ(kfactor_set_factorwide_settings(ctx, "QMXTOTP1", "{\"realmName\":\"r\"}", 0, nullptr,
                                            nullptr, nullptr),
            0);
  // Status, triple, length, what was copied (no terminator is added) and the
  // triple's description.
  auto get = [&](const char *factor, uint64_t length) {
    char buffer[64];
    memset(buffer, '#', sizeof buffer);
    int g = -1, k = -1, r = -1;
    int status = kfactor_get_factorwide_settings(ctx, factor, buffer, &length, &g, &k, &r);
    return std::to_string(status) + " " + std::to_string(g) + "/" + std::to_string(k) + "/" +
           std::to_string(r) + " " + std::to_string(length) + " " +
           std::string(buffer, std::find(buffer, buffer + sizeof buffer, '#')) + "|" +
           kfactor_describe_rc(g, k, r, status);
  };
  EXPECT_EQ(get("QMXTOTP1", 17), "0 0/0/0 17 {\"realmName\":\"r\"}| (Successful completion)");
  EXPECT_EQ(get("QMXTOTP1", 16), "0 8/120/10 17 | (buffer too small)");
  // Unset settings: codes 0 and the length untouched.
  EXPECT_EQ(get("QMXYUBI1", 10), "0 0/0/0 10 | (Successful completion)");
  EXPECT_EQ(get("NOSUCH", 10), "80103 8/12/4 10 | (Factor not defined)");
  EXPECT_STREQ(kfactor_describe_rc(0, 0, 0, 80101), "");
  EXPECT_STREQ(kfactor_describe_rc(8, 12, 5, 0), "");
}

TEST_F(FactorDataTest, PolicyDataThroughTheService) {
  userPolicyData *policy = nullptr;
  int g = -1, k = -1, r = -1;
  EXPECT_EQ(kfactor_policyData_get(ctx, nullptr, &policy, &g, &k, &r), 80106);
  EXPECT_EQ(g, -1);
  addPolicy("p", {"QMXLDAP1"});
  ASSERT_EQ(kfactor_policyData_get(ctx, "p", &policy, &g, &k, &r), 0);
  EXPECT_EQ((std::vector<int>{g, k, r, policy->numFactors}), (std::vector<int>{0, 0, 0, 1}));
  kfactor_policyData_destroy(policy);
}

} // namespace
