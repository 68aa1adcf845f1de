#include "mfadata/factordata.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "db/dbcommon.h"
#include "mfadata/usermfadata.h"
#include "support/env.h"
#include "support/pgtest.h"

namespace {

using mfatest::PgTest;
using Tags = std::vector<std::pair<std::string, std::string>>;

// A factor over a tag list built from its own copy of the pairs.
struct Factor {
  Tags pairs;
  std::vector<factorTag> tags;
  factorData data{};
  Factor(const char *name, uint32_t active, const Tags &given) : pairs(given), tags(given.size()) {
    for (std::size_t i = 0; i < pairs.size(); i++) {
      tags[i].tagName = const_cast<char *>(pairs[i].first.c_str());
      tags[i].tagValue = const_cast<char *>(pairs[i].second.c_str());
      tags[i].next = i + 1 < pairs.size() ? &tags[i + 1] : nullptr;
    }
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

const factorData *findFactor(const userMFAData *data, const std::string &name) {
  for (uint32_t i = 0; i < data->numFactors; i++)
    if (data->factors[i]->factorName == name)
      return data->factors[i];
  return nullptr;
}

class FactorDataTest : public PgTest {
protected:
  // Writes the factor and reads the user's data back whole.
  userMFAData *roundTrip(const char *userid, Factor &factor) {
    EXPECT_EQ(kfactor_update_UserFactorData(ctx, userid, &factor.data), 0);
    userMFAData *read = nullptr;
    EXPECT_EQ(pq_userMFAData_create(ctx, userid, &read), 0);
    return read;
  }
};

TEST_F(FactorDataTest, WrittenTagsReadBackThroughTheUserRecord) {
  addUser("bob");
  sql("update qmx_user set passwordfallback=1");
  Factor ldap("QMXLDAP1", 1,
              {{"DN", "cn=O'Brien,o=example"}, {"SEARCHVAL", "a\"b\\c"}, {"LASTSEARCH", ""}});
  userMFAData *read = roundTrip("bob", ldap);
  ASSERT_NE(read, nullptr);
  EXPECT_STREQ(read->userid, "bob");
  EXPECT_EQ(read->fallback, 1);
  ASSERT_EQ(read->numFactors, 1u);
  EXPECT_STREQ(read->factors[0]->factorName, "QMXLDAP1");
  EXPECT_EQ(read->factors[0]->activeFlag, 1u);
  EXPECT_EQ(read->factors[0]->numTags, 3u);
  EXPECT_EQ(tagsOf(read->factors[0]),
            (Tags{{"DN", "cn=O'Brien,o=example"}, {"SEARCHVAL", "a\"b\\c"}, {"LASTSEARCH", ""}}));
  kfactor_userMFAData_destroy(read);

  // A second write replaces tags and flag of the same link.
  Factor again("QMXLDAP1", 0, {{"DN", "cn=new"}});
  read = roundTrip("bob", again);
  ASSERT_EQ(read->numFactors, 1u);
  EXPECT_EQ(read->factors[0]->activeFlag, 0u);
  EXPECT_EQ(tagsOf(read->factors[0]), (Tags{{"DN", "cn=new"}}));
  kfactor_userMFAData_destroy(read);
}

TEST_F(FactorDataTest, UpsertValuesTravelAsData) {
  addUser("eve");
  std::string injection = "x'); delete from qmx_user; --";
  Factor hostile("QMXLDAP1", 1, {{"DN", injection}});
  ASSERT_EQ(kfactor_update_UserFactorData(ctx, "eve", &hostile.data), 0);
  EXPECT_EQ(value("select count(*) from qmx_user"), "1");
  factorData *read = nullptr;
  ASSERT_EQ(kfactor_get_UserFactorData(ctx, "eve", "QMXLDAP1", &read), 0);
  EXPECT_EQ(tagsOf(read), (Tags{{"DN", injection}}));
  kfactor_factorData_destroy(read);

  // Four values of 255 characters make a statement longer than any fixed
  // buffer the service could use.
  Tags wide = {{"DN", std::string(255, 'd')},
               {"SEARCHVAL", std::string(255, 's')},
               {"SEARCHVAL2", std::string(255, 't')},
               {"SEARCHVAL3", std::string(255, 'u')}};
  Factor big("QMXLDAP1", 1, wide);
  ASSERT_EQ(kfactor_update_UserFactorData(ctx, "eve", &big.data), 0);
  read = nullptr;
  ASSERT_EQ(kfactor_get_UserFactorData(ctx, "eve", "QMXLDAP1", &read), 0);
  EXPECT_EQ(tagsOf(read), wide);
  kfactor_factorData_destroy(read);

  // Unknown user or factor: nothing is written and the call succeeds.
  Factor orphan("QMXLDAP1", 1, {});
  EXPECT_EQ(kfactor_update_UserFactorData(ctx, "o'nobody", &orphan.data), 0);
  Factor unknown("NOSUCH", 1, {});
  EXPECT_EQ(kfactor_update_UserFactorData(ctx, "eve", &unknown.data), 0);
  EXPECT_EQ(value("select count(*) from qmx_userfactor"), "1");
}

TEST_F(FactorDataTest, UserWithoutFactorsAndFactorsWithoutTags) {
  addUser("amy");
  userMFAData *read = nullptr;
  std::string out =
      mfatest::captureStdout([&] { EXPECT_EQ(pq_userMFAData_create(ctx, "amy", &read), 0); });
  EXPECT_EQ(out, "No factors returned for user amy\n");
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(read->numFactors, 0u);
  EXPECT_EQ(read->numPolicies, 0u);
  kfactor_userMFAData_destroy(read);

  // A new link holds "{}"; an empty text gives no tags either.
  sql("insert into qmx_userfactor(userid, factorid, isactive) select userid, 1, 1 from qmx_user");
  factorData *factor = nullptr;
  ASSERT_EQ(kfactor_get_UserFactorData(ctx, "amy", "QMXLDAP1", &factor), 0);
  EXPECT_EQ(factor->tags, nullptr);
  EXPECT_EQ(factor->numTags, 0u);
  EXPECT_EQ(factor->activeFlag, 1u);
  kfactor_factorData_destroy(factor);
  sql("update qmx_userfactor set factortags=''");
  factor = nullptr;
  ASSERT_EQ(kfactor_get_UserFactorData(ctx, "amy", "QMXLDAP1", &factor), 0);
  EXPECT_EQ(factor->numTags, 0u);
  kfactor_factorData_destroy(factor);

  factor = nullptr;
  out = mfatest::captureStdout(
      [&] { EXPECT_EQ(kfactor_get_UserFactorData(ctx, "amy", "QMXTOTP1", &factor), 80105); });
  EXPECT_EQ(out, "no factors, aborting?\n");
  EXPECT_EQ(factor, nullptr);
}

TEST_F(FactorDataTest, UserRecordCarriesPoliciesGroupedByPolicy) {
  int userid = addUser("bob");
  addFactor("QMXTEST1");
  for (const char *f : {"QMXLDAP1", "QMXTOTP1"})
    sql("insert into qmx_userfactor(userid, factorid) select " + std::to_string(userid) +
        ", factorid from qmx_factor where factorname='" + f + "'");
  sql("insert into qmx_policy(policyname, ctctimeout, ctcreuse) values ('p2', 5, 6), ('p3', 7, 8)");
  sql("insert into qmx_policyfactor select p.policyid, f.factorid from qmx_policy p, qmx_factor f "
      "where (p.policyname='p2' and f.factorname in ('QMXLDAP1','QMXTOTP1')) or "
      "(p.policyname='p3' and f.factorname in ('QMXLDAP1','QMXTOTP1','QMXTEST1'))");
  sql("insert into qmx_userpolicy(userid, policyid) select " + std::to_string(userid) +
      ", policyid from qmx_policy");
  userMFAData *read = nullptr;
  ASSERT_EQ(pq_userMFAData_create(ctx, "bob", &read), 0);
  ASSERT_EQ(read->numPolicies, 2u);
  std::map<std::string, std::set<std::string>> policies;
  for (uint32_t i = 0; i < read->numPolicies; i++) {
    const policyData *p = read->policies[i];
    EXPECT_STREQ(read->policyNames[i], p->policyName);
    EXPECT_EQ(p->satisfiable, 0u);
    policies[p->policyName] = {p->factorNames, p->factorNames + p->numFactors};
    EXPECT_EQ(p->tokenTimeout, p->policyName == std::string("p2") ? 5 : 7);
    EXPECT_EQ(p->tokenReuse, p->policyName == std::string("p2") ? 6 : 8);
  }
  EXPECT_EQ(policies["p2"], (std::set<std::string>{"QMXLDAP1", "QMXTOTP1"}));
  EXPECT_EQ(policies["p3"], (std::set<std::string>{"QMXLDAP1", "QMXTOTP1", "QMXTEST1"}));
  EXPECT_NE(findFactor(read, "QMXTOTP1"), nullptr);
  kfactor_userMFAData_destroy(read);
}

TEST(FactorDataSatisfiable, EveryFactorUsableAndOneCompleting) {
  factorData ldap{}, totp{};
  ldap.factorName = const_cast<char *>("QMXLDAP1");
  totp.factorName = const_cast<char *>("QMXTOTP1xyz");
  for (factorData *f : {&ldap, &totp})
    f->activeFlag = f->stateFlag = 1;
  ldap.capabilityBits = 2;
  totp.capabilityBits = 3;
  factorData *factors[] = {&ldap, &totp};
  char *both[] = {const_cast<char *>("QMXLDAP1"), const_cast<char *>("QMXTOTP1")};
  char *ldapOnly[] = {const_cast<char *>("QMXLDAP1")};
  policyData p1{}, p2{}, p3{};
  p1.numFactors = 2, p1.factorNames = both;
  p2.numFactors = 1, p2.factorNames = ldapOnly;
  p3.numFactors = 0;
  policyData *policies[] = {&p1, &p2, &p3};
  userMFAData data{};
  data.factors = factors;
  data.numFactors = 2;
  data.policies = policies;
  data.numPolicies = 3;

  EXPECT_EQ(pq_userMFAData_checkSatisfiable(&data), 0);
  EXPECT_EQ(p1.satisfiable, 1u); // names agree in their first 8 characters
  EXPECT_EQ(p2.satisfiable, 0u); // nothing completes it
  EXPECT_EQ(p3.satisfiable, 0u); // no factors
  totp.stateFlag = 0;
  pq_userMFAData_checkSatisfiable(&data);
  EXPECT_EQ(p1.satisfiable, 0u);
  EXPECT_EQ(pq_userMFAData_checkSatisfiable(nullptr), 0);
}

TEST_F(FactorDataTest, FactorWideSettingsBufferRules) {
  const std::string settings = "{\"realmName\":\"r\"}";
  ASSERT_EQ(kfactor_set_factorwide_settings(ctx, "QMXTOTP1", settings.c_str(), 0, nullptr, nullptr,
                                            nullptr),
            0);
  char buffer[64];
  int g = -1, k = -1, r = -1;

  uint64_t length = settings.size();
  memset(buffer, '#', sizeof buffer);
  ASSERT_EQ(kfactor_get_factorwide_settings(ctx, "QMXTOTP1", buffer, &length, &g, &k, &r), 0);
  EXPECT_EQ(length, settings.size());
  EXPECT_EQ(std::string(buffer, settings.size()), settings);
  EXPECT_EQ(buffer[settings.size()], '#'); // no terminator added
  EXPECT_STREQ(kfactor_describe_rc(g, k, r, 0), " (Successful completion)");

  length = settings.size() - 1;
  memset(buffer, '#', sizeof buffer);
  ASSERT_EQ(kfactor_get_factorwide_settings(ctx, "QMXTOTP1", buffer, &length, &g, &k, &r), 0);
  EXPECT_EQ(length, settings.size());
  EXPECT_EQ((std::vector<int>{g, k, r}), (std::vector<int>{8, 120, 10}));
  EXPECT_EQ(buffer[0], '#');
  EXPECT_STREQ(kfactor_describe_rc(g, k, r, 0), " (buffer too small)");

  // Unset settings: codes 0 and the length untouched.
  length = 10;
  ASSERT_EQ(kfactor_get_factorwide_settings(ctx, "QMXYUBI1", buffer, &length, &g, &k, &r), 0);
  EXPECT_EQ((std::vector<int>{g, k, r, static_cast<int>(length)}), (std::vector<int>{0, 0, 0, 10}));

  EXPECT_EQ(kfactor_get_factorwide_settings(ctx, "NOSUCH", buffer, &length, &g, &k, &r), 80103);
  EXPECT_STREQ(kfactor_describe_rc(g, k, r, 80103), " (Factor not defined)");
}

TEST(FactorDataDescribe, TextsOfTheReturnCodes) {
  EXPECT_STREQ(kfactor_describe_rc(0, 0, 0, 0), " (Successful completion)");
  EXPECT_STREQ(kfactor_describe_rc(0, 0, 0, 80101), "");
  EXPECT_STREQ(kfactor_describe_rc(8, 12, 5, 0), "");
  EXPECT_STREQ(kfactor_describe_rc(4, 0, 0, 0), "");
}

TEST_F(FactorDataTest, PolicyDataThroughTheService) {
  userPolicyData *policy = nullptr;
  int g = -1, k = -1, r = -1;
  EXPECT_EQ(kfactor_policyData_get(ctx, nullptr, &policy, &g, &k, &r), 80106);
  EXPECT_EQ(g, -1);
  sql("insert into qmx_policy(policyname) values ('p');"
      "insert into qmx_policyfactor select policyid, 1 from qmx_policy");
  ASSERT_EQ(kfactor_policyData_get(ctx, "p", &policy, &g, &k, &r), 0);
  EXPECT_EQ((std::vector<int>{g, k, r}), (std::vector<int>{0, 0, 0}));
  ASSERT_EQ(policy->numFactors, 1);
  EXPECT_STREQ(policy->factorNames[0], "QMXLDAP1");
  kfactor_policyData_destroy(policy);
  kfactor_policyData_destroy(nullptr);
}

} // namespace
