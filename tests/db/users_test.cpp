#include "db/users.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/alloc.h"
#include "db/dbcommon_internal.h"
#include "support/env.h"
#include "support/pgtest.h"

namespace {

using mfatest::Rows;

// Every part of a user record; arrays in a fixed order, "-" for a null one.
std::string describe(const userData *u) {
  std::string text = std::to_string(u->userid) + "|" + u->unixuid + "|" + u->name + "|" +
                     std::to_string(u->passwordfallback) + std::to_string(u->hasPassword) +
                     std::to_string(u->ctcfailurecount) + std::to_string(u->suspended);
  auto add = [&](const char *tag, int count, auto **array, auto entry) {
    std::set<std::string> entries;
    for (int i = 0; array != nullptr && i < count; i++)
      entries.insert(entry(array[i]));
    text += std::string(" ") + tag + std::to_string(count) + (array == nullptr ? "-" : ":");
    for (const std::string &e : entries)
      text += " " + e;
  };
  add("P", u->numPolicies, u->policies, [](MFAAdminPolicyData *p) {
    return std::to_string(p->policyid) + "/" + std::to_string(p->userpolicyid) + "=" +
           p->policyname + "=" + p->policynote;
  });
  add("N", u->numPolicies, u->policyNames, [](char *name) { return std::string(name); });
  add("F", u->numFactors, u->factors, [](MFAAdminFactorData *f) {
    return std::to_string(f->factorid) + "/" + std::to_string(f->userfactorid) + "=" +
           f->factorname + "=" + f->factortags + "=" + f->factornote + "=" +
           std::to_string(f->isactive);
  });
  add("H", u->numOrlinClients, u->orlinClients, [](orlinClientUserData *c) {
    std::string host = std::to_string(c->userid) + "@" + std::to_string(c->clientid) + "=" +
                       c->name + "[";
    for (int i = 0; i < c->numProfiles; i++)
      host += std::to_string(c->profiles[i]->userorlinclientid) + ":" +
              c->profiles[i]->remoteuserid + ":" + std::to_string(c->profiles[i]->remoteuserstatus) +
              (i + 1 < c->numProfiles ? "," : "]");
    return host;
  });
  return text;
}

class UsersTest : public mfatest::PgTest {
protected:
  void TearDown() override {
    sql("set client_min_messages=warning; drop function if exists users_test_refuse() cascade");
    PgTest::TearDown();
  }
  // bob (1) with two policies, two factors, a password and three profiles on
  // two hosts; carol (2) with nothing.
  void addLinkedUsers() {
    ASSERT_EQ(addUser("bob"), 1);
    ASSERT_EQ(addUser("carol"), 2);
    addPolicy("p1", {});
    addPolicy("p2", {});
    sql("update qmx_user set name='Bob', passwordfallback=1, ctcfailurecount=3 where userid=1;"
        "insert into qmx_userpolicy(userid, policyid) values(1, 2), (1, 1);"
        "update qmx_policy set policynote='n''2' where policyid=2;"
        "insert into qmx_userfactor(userid, factorid, factortags, isactive) values"
        "  (1, 1, '{\"DN\":\"cn=Zoë O''Neil\"}', 1), (1, 3, '{}', 0);"
        "insert into qmx_usermfapassword(userid, passwordhash, iterationcount, salt)"
        "  values(1, 'aGFzaA==', 10, 'c2FsdA==');"
        "insert into QMX_OrlinClients(ClientHostname) values('h1'), ('h2');"
        "insert into qmx_userorlinclient(userid, clientid, remoteuserid, remoteuserstatus)"
        "  values(1, 2, 'bob', 0), (1, 1, 'root', 1), (1, 2, 'bobby', 6);");
  }
  // Rows left in the five tables a removal clears.
  std::string userRows() {
    return value("select (select count(*) from qmx_user) || ' ' || (select count(*) from "
                 "qmx_userpolicy) || (select count(*) from qmx_userfactor) || (select count(*) "
                 "from qmx_usermfapassword) || (select count(*) from qmx_userorlinclient)");
  }
};

TEST_F(UsersTest, AddStoresLowerCaseUidsAndRefusesBlanksAndDuplicates) {
  const struct {
    const char *uid, *name, *sso;
    int status;
    const char *stored; // uid as stored, or the expected message
  } cases[] = {
      {"Bob.Smith", "Bob", "sso-1", 0, "bob.smith"},
      {"ÜBER", "Robert'); drop table qmx_user;--", nullptr, 0, "Über"},
      {"O'Hara\\x", "Zoë \\ O'Hara", "s'o", 0, "o'hara\\x"},
      {"bob smith", "b", nullptr, 80106, "MFADB:No spaces allowed in UserID field.\n"},
      {"tab\tx", "b", nullptr, 80106, "MFADB:No spaces allowed in UserID field.\n"},
      {"BOB.SMITH", "dup", nullptr, 80109, "MFADB:User ID specified already exists.\n"},
      {nullptr, "n", nullptr, 80105, "MFADB:error escaping userid or name\n"},
      {"x", nullptr, nullptr, 80105, "MFADB:error escaping userid or name\n"},
      {"bad\xff", "n", nullptr, 80105, "MFADB:error escaping userid or name\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.uid ? c.uid : "(null)");
    int id = -1;
    std::string out =
        mfatest::captureStdout([&] { EXPECT_EQ(qn_db_userAdd(ctx, c.uid, c.name, 1, c.sso, &id), c.status); });
    if (c.status == 0)
      EXPECT_EQ(value("select unixuid from qmx_user where userid=" + std::to_string(id)), c.stored);
    else
      EXPECT_EQ(out.substr(out.rfind("MFADB:")), c.stored) << out;
    EXPECT_EQ(id == -1, c.status != 0);
  }
  EXPECT_EQ(sql("select unixuid, name, ssoid from qmx_user order by userid"),
            (Rows{{"bob.smith", "Bob", "sso-1"},
                  {"Über", "Robert'); drop table qmx_user;--", "<null>"},
                  {"o'hara\\x", "Zoë \\ O'Hara", "s'o"}}));
  EXPECT_EQ(qn_db_userAdd(ctx, "new", "n", 0, nullptr, nullptr), 0);
}

struct Step {
  const char *call;
  std::function<int(dbctx *, int *)> run;
  int status;
  int out;             // what the call stores through its out argument
  const char *message; // a piece of its output; "" for none at all
};
constexpr int kUntouched = -7;
// clang-format off
#define STEP(status, out, message, call) {#call, [](dbctx *c, int *o) { (void)o; return call; }, status, out, message}
// clang-format on

TEST_F(UsersTest, SettersAndGettersOfUsersAndAdministrators) {
  ASSERT_EQ(addUser("bob"), 1);
  addUser("o'hara");
  sql("insert into qmx_adminuser(unixuid) values('root')");
  static const std::string tooLong(600, 'u');
  const Step steps[] = {
      STEP(0, kUntouched, "", qn_db_userSetFallback(c, "bob", 1)),
      STEP(0, 1, "", qn_db_userIsFallback(c, "bob", o)),
      STEP(0, kUntouched, "", qn_db_userSetFallbackById(c, 1, 0)),
      STEP(0, 0, "", qn_db_userIsFallback(c, "bob", o)),
      STEP(0, kUntouched, "", qn_db_userUpdateById(c, 1, 1, 1, "sso'x")),
      STEP(0, 1, "", qn_db_userGetSuspended(c, "bob", o)),
      STEP(0, kUntouched, "", qn_db_userSetSuspended(c, "bob", 0)),
      STEP(0, kUntouched, "", qn_db_userSetSuspendedById(c, 1, 1)),
      // Without an id the single-sign-on id stays.
      STEP(0, kUntouched, "", qn_db_userUpdateById(c, 1, 1, 0, nullptr)),
      STEP(0, kUntouched, "", qn_db_userSetFailcount(c, "bob", 41)),
      STEP(0, 42, "", qn_db_userIncrementFailcount(c, "bob", o)),
      STEP(0, 42, "", qn_db_userGetFailcount(c, "bob", o)),
      // A quoted setter matches o'hara; the parameterised getter is sent the
      // escaped uid and does not.
      STEP(0, kUntouched, "", qn_db_userSetSuspended(c, "o'hara", 1)),
      STEP(0, kUntouched, "", qn_db_userSetSSOIdById(c, 2, "Łódź")),
      STEP(80105, kUntouched, "MFADB:User not found\n", qn_db_userGetSuspended(c, "o'hara", o)),
      STEP(0, kUntouched, "", qn_db_userSetSuspended(c, "nobody", 1)),
      STEP(80105, kUntouched, "MFADB:user not found\n", qn_db_userIsFallback(c, "nobody", o)),
      STEP(80105, kUntouched, "MFADB:User not found\n", qn_db_userGetFailcount(c, "nobody", o)),
      STEP(80105, kUntouched, "MFADB:increment count failed\n",
           qn_db_userIncrementFailcount(c, "nobody", o)),
      STEP(0, kUntouched, "", qn_db_administratorSetSuspended(c, "root", 1)),
      STEP(0, 1, "", qn_db_administratorGetSuspended(c, "root", o)),
      STEP(0, kUntouched, "", qn_db_administratorSetFailcount(c, "root", 9)),
      STEP(0, 10, "", qn_db_administratorIncrementFailcount(c, "root", o)),
      STEP(0, 10, "", qn_db_administratorGetFailcount(c, "root", o)),
      STEP(80105, kUntouched, "MFADB:No users unsuspended.\n",
           qn_db_administratorSetSuspended(c, "nobody", 1)),
      STEP(80105, kUntouched, "MFADB:Admin userid not found\n",
           qn_db_administratorGetSuspended(c, "nobody", o)),
      STEP(80105, kUntouched, "MFADB:Administrator not found\n",
           qn_db_administratorGetFailcount(c, "nobody", o)),
      STEP(80105, kUntouched, "MFADB:increment count failed\n",
           qn_db_administratorIncrementFailcount(c, "nobody", o)),
      STEP(80106, kUntouched, "MFADB:statement too long", qn_db_userSetFailcount(c, tooLong.c_str(), 1)),
      STEP(80106, kUntouched, "", qn_db_userGetFailcount(c, nullptr, o)),
      STEP(80106, kUntouched, "", qn_db_userGetFailcount(c, "bob", nullptr)),
  };
  for (const Step &step : steps) {
    int out = kUntouched;
    std::string printed =
        mfatest::captureStdout([&] { EXPECT_EQ(step.run(ctx, &out), step.status) << step.call; });
    EXPECT_EQ(out, step.out) << step.call;
    EXPECT_TRUE(*step.message != '\0' || printed.empty()) << step.call << printed;
    EXPECT_NE(printed.find(step.message), std::string::npos) << step.call << printed;
  }
  EXPECT_EQ(sql("select unixuid, passwordfallback, suspended, ssoid, ctcfailurecount from "
                "qmx_user union all select unixuid, 0, suspended, 'admin', failurecount from "
                "qmx_adminuser order by 1"),
            (Rows{{"bob", "1", "0", "sso'x", "42"},
                  {"o'hara", "0", "1", "Łódź", "0"},
                  {"root", "0", "1", "admin", "10"}}));
}

// Concurrent increments are one statement each: none is lost and no two
// callers see the same count.
TEST_F(UsersTest, ConcurrentIncrementsAreNeverLost) {
  addUser("bob");
  constexpr int kThreads = 8, kEach = 1000;
  std::vector<dbctx *> contexts(kThreads);
  for (dbctx *&context : contexts)
    ASSERT_EQ(qn_db_createDBCtx(&context, nullptr, nullptr), 0);
  std::vector<std::vector<int>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; i++) {
        int count = 0;
        if (qn_db_userIncrementFailcount(contexts[t], "bob", &count) == 0)
          seen[t].push_back(count);
      }
    });
  std::set<int> distinct;
  for (int t = 0; t < kThreads; t++) {
    threads[t].join();
    distinct.insert(seen[t].begin(), seen[t].end());
    qn_db_destroyDbCtx(contexts[t]);
  }
  EXPECT_EQ(distinct.size(), size_t{kThreads * kEach});
  EXPECT_EQ(value("select ctcfailurecount from qmx_user"), std::to_string(kThreads * kEach));
}

TEST_F(UsersTest, ReadsByIdAndByUid) {
  addLinkedUsers();
  const struct {
    std::function<int(dbctx *, userData **)> read;
    const char *expected; // the record, or a piece of the output for 80105
  } cases[] = {
      {[](dbctx *c, userData **u) { return qn_db_userGetById(c, 1, u); },
       "1|bob|Bob|1130 P2: 1/2=p1= 2/1=p2=n'2 N2- F2: 1/1=QMXLDAP1={\"DN\":\"cn=Zoë "
       "O'Neil\"}=LDAP directory authentication=1 3/2=QMXTOTP1={}=Time-based one-time "
       "password=0 H2: 1@1=h1[2:root:1] 1@2=h2[1:bob:0,3:bobby:6]"},
      // By uid: policy names instead of records, no ids, no profiles.
      {[](dbctx *c, userData **u) { return qn_db_userGetOne(c, "bob", u); },
       "0|bob|Bob|1130 P2- N2: p1 p2 F2: 0/0=QMXLDAP1={\"DN\":\"cn=Zoë O'Neil\"}=LDAP directory "
       "authentication=1 0/0=QMXTOTP1={}=Time-based one-time password=0 H0-"},
      {[](dbctx *c, userData **u) { return qn_db_userGetById(c, 2, u); },
       "2|carol||0000 P0- N0- F0- H0-"},
      {[](dbctx *c, userData **u) { return qn_db_userGetOne(c, "carol", u); },
       "0|carol||0000 P0- N0- F0- H0-"},
      {[](dbctx *c, userData **u) { return qn_db_userGetById(c, 99, u); }, "user not found\n"},
      {[](dbctx *c, userData **u) { return qn_db_userGetOne(c, "Bob", u); }, "user not found\n"},
  };
  for (const auto &c : cases) {
    userData *user = nullptr;
    int status = 0;
    std::string out = mfatest::captureStdout([&] { status = c.read(ctx, &user); });
    if (status == 0)
      EXPECT_EQ(describe(user), c.expected);
    else
      EXPECT_NE(out.find(c.expected), std::string::npos) << out;
    EXPECT_EQ(user == nullptr, status == 80105) << c.expected;
    destroyUserData(user);
  }
  std::string out = mfatest::captureStdout([&] {
    userData *user = nullptr;
    ASSERT_EQ(qn_db_userGetById(ctx, 2, &user), 0);
    destroyUserData(user);
  });
  for (const char *note : {"MFADB:INFO : NO POLICIES\n", "MFADB:INFO : NO FACTORS\n",
                           "MFADB:No Orlin Client connections for this user.\n"})
    EXPECT_NE(out.find(note), std::string::npos) << out;
}

TEST_F(UsersTest, ListingTakesThePasswordFlagOfTheFirstUser) {
  int count = -1;
  userData **users = nullptr;
  std::string out = mfatest::captureStdout([&] { EXPECT_EQ(qn_db_userList(ctx, &count, &users), 80105); });
  EXPECT_EQ(out.substr(out.find("MFADB:")), "MFADB:no users\n");
  addLinkedUsers();
  for (const char *expected : {"1|bob|Bob|1100 P0- N0- F0- H0- 2|carol||0100 P0- N0- F0- H0-",
                               "1|bob|Bob|1000 P0- N0- F0- H0- 2|carol||0000 P0- N0- F0- H0-"}) {
    ASSERT_EQ(qn_db_userList(ctx, &count, &users), 0);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(describe(users[0]) + " " + describe(users[1]), expected);
    mfadb::destroyArray(users, count, destroyUserData);
    sql("update qmx_usermfapassword set userid=2");
  }
}

TEST_F(UsersTest, RemovalIsAllOrNothing) {
  // Refuses deletes sent straight to a table, not those the database
  // cascades from another.
  sql("create function users_test_refuse() returns trigger language plpgsql as $$ begin if "
      "pg_trigger_depth() = 1 then raise exception 'refused'; end if; return null; end $$");
  const struct {
    bool byId;
    const char *refusing; // table that refuses direct deletes, or null
    int status;
    const char *message;
    const char *left;
  } cases[] = {
      {true, nullptr, 0, "", "1 0000"},
      // By uid the profiles go by the cascade, never by a delete of its own.
      {false, "qmx_userorlinclient", 0, "", "1 0000"},
      {true, "qmx_userorlinclient", 80108, "MFADB:delete failed for qmx_userorlinclient: ",
       "2 2213"},
      {true, "qmx_usermfapassword", 80108, "MFADB:delete failed for usermfapassword: ", "2 2213"},
      {false, "qmx_usermfapassword", 80104, "MFADB:delete failed: ", "2 2213"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.byId ? "by id, " : "by uid, ") + (c.refusing ? c.refusing : ""));
    sql("set client_min_messages=warning; truncate qmx_user, qmx_policy, qmx_orlinclients "
        "restart identity cascade");
    addLinkedUsers();
    if (c.refusing)
      sql(std::string("create trigger refuse before delete on ") + c.refusing +
          " for each statement execute function users_test_refuse()");
    std::string out = mfatest::captureStdout([&] {
      EXPECT_EQ(c.byId ? qn_db_userRemoveById(ctx, 1) : qn_db_userRemove(ctx, "bob"), c.status);
    });
    EXPECT_NE(out.find(c.message), std::string::npos) << out;
    EXPECT_EQ(userRows(), c.left);
    if (c.refusing)
      sql(std::string("drop trigger refuse on ") + c.refusing);
  }
  EXPECT_EQ(qn_db_userRemove(ctx, "nobody"), 0);
  EXPECT_EQ(qn_db_userRemoveById(ctx, 99), 0);
}

// A statement that fails after part of the record was built: the part is
// released (the leak checker watches) and nothing is handed out.
TEST_F(UsersTest, ReadsFailingHalfwayReleaseWhatTheyBuilt) {
  addLinkedUsers();
  freeString(ctx->connectionString);
  ctx->connectionString = duplicateString("dbname=mfadb options='-clock_timeout=100'");
  const struct {
    const char *locked;
    bool byId;
  } cases[] = {{"qmx_policy", true},  {"qmx_factor", true}, {"qmx_orlinclients", true},
               {"qmx_policy", false}, {"qmx_factor", false}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.locked);
    std::unique_ptr<PGconn, decltype(&PQfinish)> locker(PQconnectdb("dbname=mfadb"), PQfinish);
    PQclear(PQexec(locker.get(), (std::string("begin; lock table ") + c.locked).c_str()));
    userData *user = nullptr;
    std::string out = mfatest::captureStdout([&] {
      EXPECT_EQ(c.byId ? qn_db_userGetById(ctx, 1, &user) : qn_db_userGetOne(ctx, "bob", &user),
                80102);
    });
    EXPECT_EQ(user, nullptr);
    EXPECT_NE(out.find("MFADB:SELECT failed: ERROR:  canceling statement due to lock timeout"),
              std::string::npos)
        << out;
  }
}

} // namespace
