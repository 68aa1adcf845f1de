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

using std::to_string;

// " <tag><count>" then ":" and the sorted entries, or "-" for a null array.
template <typename T, typename Entry>
std::string entries(const char *tag, int count, T **array, Entry entry) {
  std::set<std::string> sorted;
  for (int i = 0; array != nullptr && i < count; i++)
    sorted.insert(entry(*array[i]));
  std::string text = std::string(" ") + tag + to_string(count) + (array ? ":" : "-");
  for (const std::string &e : sorted)
    text += " " + e;
  return text;
}

std::string describe(const userData *u) {
  return to_string(u->userid) + "|" + u->unixuid + "|" + u->name + "|" +
         to_string(u->passwordfallback) + to_string(u->hasPassword) +
         to_string(u->ctcfailurecount) + to_string(u->suspended) +
         entries("P", u->numPolicies, u->policies,
                 [](auto &p) {
                   return to_string(p.policyid) + "/" + to_string(p.userpolicyid) + "=" +
                          p.policyname + "=" + p.policynote;
                 }) +
         entries("N", u->numPolicies, u->policyNames, [](char &n) { return std::string(&n); }) +
         entries("F", u->numFactors, u->factors,
                 [](auto &f) {
                   return to_string(f.factorid) + "/" + to_string(f.userfactorid) + "=" +
                          f.factorname + "=" + f.factortags + "=" + f.factornote + "=" +
                          to_string(f.isactive);
                 }) +
         entries("H", u->numOrlinClients, u->orlinClients, [](auto &c) {
           return to_string(c.userid) + "@" + to_string(c.clientid) + "=" + c.name +
                  entries("", c.numProfiles, c.profiles, [](auto &p) {
                    return to_string(p.userorlinclientid) + ":" + p.remoteuserid + ":" +
                           to_string(p.remoteuserstatus);
                  });
         });
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
    sql("set client_min_messages=warning; truncate qmx_user, qmx_policy, qmx_orlinclients "
        "restart identity cascade;"
        "insert into qmx_user(unixuid, name, passwordfallback, ctcfailurecount) values"
        "  ('bob', 'Bob', 1, 3), ('carol', '', 0, 0);"
        "insert into qmx_policy(policyname, policynote) values('p1', ''), ('p2', 'n''2');"
        "insert into qmx_userpolicy(userid, policyid) values(1, 2), (1, 1);"
        "insert into qmx_userfactor(userid, factorid, factortags, isactive) values"
        "  (1, 1, '{\"DN\":\"cn=Zoë O''Neil\"}', 1), (1, 3, '{}', 0);"
        "insert into qmx_usermfapassword(userid, passwordhash, iterationcount, salt)"
        "  values(1, 'aGFzaA==', 10, 'c2FsdA==');"
        "insert into QMX_OrlinClients(ClientHostname) values('h1'), ('h2');"
        "insert into qmx_userorlinclient(userid, clientid, remoteuserid, remoteuserstatus)"
        "  values(1, 2, 'bob', 0), (1, 1, 'root', 1), (1, 2, 'bobby', 6);");
  }
  // "<users> <policy links><factor links><passwords><profiles>".
  std::string userRows() {
    return value("select (select count(*) from qmx_user) || ' ' || (select count(*) from "
                 "qmx_userpolicy) || (select count(*) from qmx_userfactor) || (select count(*) "
                 "from qmx_usermfapassword) || (select count(*) from qmx_userorlinclient)");
  }
};

TEST_F(UsersTest, AddFoldsUidsAndRefusesBlanksAndDuplicates) {
  const struct {
    const char *uid, *name, *sso;
    int status;
    const char *result; // "uid|name|sso" stored with fallback 1, or what is printed
  } cases[] = {
      {"Bob.Smith", "Bob", "sso-1", 0, "bob.smith|Bob|sso-1"},
      {"ÜBER", "x'); drop table qmx_user;--", nullptr, 0, "Über|x'); drop table qmx_user;--|-"},
      {"O'Hara\\');delete/**/from/**/qmx_user;--", "Zoë \\ O'Hara", "s'o", 0,
       "o'hara\\');delete/**/from/**/qmx_user;--|Zoë \\ O'Hara|s'o"},
      {"bob smith", "b", nullptr, 80106, "MFADB:No spaces allowed in UserID field.\n"},
      {"tab\tx", "b", nullptr, 80106, "MFADB:No spaces allowed in UserID field.\n"},
      {"BOB.SMITH", "dup", nullptr, 80109, "MFADB:User ID specified already exists.\n"},
      {nullptr, "n", nullptr, 80105, "MFADB:error escaping userid or name\n"},
      {"x", nullptr, nullptr, 80105, "MFADB:error escaping userid or name\n"},
      {"bad\xff", "n", nullptr, 80105, "MFADB:error escaping userid or name\n"},
  };
  for (const auto &c : cases) {
    int id = -1, status = -1;
    std::string out =
        mfatest::captureStdout([&] { status = qn_db_userAdd(ctx, c.uid, c.name, 1, c.sso, &id); });
    EXPECT_EQ(status, c.status) << out;
    if (c.status == 0)
      out = value("select unixuid || '|' || name || '|' || coalesce(ssoid, '-') from qmx_user "
                  "where passwordfallback=1 and userid=" +
                  to_string(id));
    EXPECT_EQ(out.substr(out.rfind("MFADB:") == std::string::npos ? 0 : out.rfind("MFADB:")),
              c.result);
  }
  EXPECT_EQ(value("select count(*) from qmx_user"), "3");
  EXPECT_EQ(qn_db_userAdd(ctx, "new", "n", 0, nullptr, nullptr), 0);
}

TEST_F(UsersTest, SettersAndGettersOfUsersAndAdministrators) {
  ASSERT_EQ(addUser("bob"), 1);
  addUser("o'hara");
  sql("insert into qmx_adminuser(unixuid) values('root')");
  static const std::string tooLong(600, 'u');
  // Each step's output is what the call stores through its out argument.
#define STEP(status, out, printed, call)                                                           \
  {#call,                                                                                          \
   [this](int &status_) {                                                                          \
     int o = -1;                                                                                   \
     status_ = call;                                                                               \
     return to_string(o);                                                                          \
   },                                                                                              \
   status, out, printed}
  mfatest::runSteps({
      // Every setter changes what a getter or the final rows show.
      STEP(0, "-1", "", qn_db_userUpdateById(ctx, 1, 1, 1, "sso'x")),
      STEP(0, "1", "", qn_db_userIsFallback(ctx, "bob", &o)),
      STEP(0, "1", "", qn_db_userGetSuspended(ctx, "bob", &o)),
      STEP(0, "-1", "", qn_db_userSetFallbackById(ctx, 1, 0)),
      STEP(0, "-1", "", qn_db_userSetSuspended(ctx, "bob", 0)),
      STEP(0, "0", "", qn_db_userIsFallback(ctx, "bob", &o)),
      STEP(0, "0", "", qn_db_userGetSuspended(ctx, "bob", &o)),
      STEP(0, "-1", "", qn_db_userSetFallback(ctx, "bob", 1)),
      STEP(0, "-1", "", qn_db_userSetSuspendedById(ctx, 1, 1)),
      // Without a single-sign-on id the stored one stays.
      STEP(0, "-1", "", qn_db_userUpdateById(ctx, 1, 1, 1, nullptr)),
      STEP(0, "-1", "", qn_db_userSetFailcount(ctx, "bob", 41)),
      STEP(0, "42", "", qn_db_userIncrementFailcount(ctx, "bob", &o)),
      STEP(0, "42", "", qn_db_userGetFailcount(ctx, "bob", &o)),
      // Quoted in the text the uid matches o'hara; sent as $1 it is doubled.
      STEP(0, "-1", "", qn_db_userSetSuspended(ctx, "o'hara", 1)),
      STEP(80105, "-1", "MFADB:User not found\n", qn_db_userGetSuspended(ctx, "o'hara", &o)),
      STEP(0, "-1", "", qn_db_userSetSSOIdById(ctx, 2, "Łódź")),
      STEP(0, "-1", "", qn_db_userSetSuspended(ctx, "nobody", 1)),
      STEP(80105, "-1", "MFADB:user not found\n", qn_db_userIsFallback(ctx, "nobody", &o)),
      STEP(80105, "-1", "MFADB:User not found\n", qn_db_userGetFailcount(ctx, "nobody", &o)),
      STEP(80105, "-1", "MFADB:increment count failed\n",
           qn_db_userIncrementFailcount(ctx, "nobody", &o)),
      STEP(0, "-1", "", qn_db_administratorSetSuspended(ctx, "root", 1)),
      STEP(0, "1", "", qn_db_administratorGetSuspended(ctx, "root", &o)),
      STEP(0, "-1", "", qn_db_administratorSetFailcount(ctx, "root", 9)),
      STEP(0, "10", "", qn_db_administratorIncrementFailcount(ctx, "root", &o)),
      STEP(0, "10", "", qn_db_administratorGetFailcount(ctx, "root", &o)),
      STEP(80105, "-1", "MFADB:No users unsuspended.\n",
           qn_db_administratorSetSuspended(ctx, "nobody", 1)),
      STEP(80105, "-1", "MFADB:Admin userid not found\n",
           qn_db_administratorGetSuspended(ctx, "nobody", &o)),
      STEP(80105, "-1", "MFADB:Administrator not found\n",
           qn_db_administratorGetFailcount(ctx, "nobody", &o)),
      STEP(80105, "-1", "MFADB:increment count failed\n",
           qn_db_administratorIncrementFailcount(ctx, "nobody", &o)),
      STEP(80106, "-1", "MFADB:statement too long: 654 bytes do not fit a buffer of 512\n",
           qn_db_userSetFailcount(ctx, tooLong.c_str(), 1)),
      STEP(80106, "-1", "", qn_db_userGetFailcount(ctx, nullptr, &o)),
      STEP(80106, "-1", "", qn_db_userGetFailcount(ctx, "bob", nullptr)),
  });
#undef STEP
  EXPECT_EQ(sql("select unixuid, passwordfallback, suspended, ssoid, ctcfailurecount from "
                "qmx_user union all select unixuid, 0, suspended, 'admin', failurecount from "
                "qmx_adminuser order by 1"),
            (mfatest::Rows{{"bob", "1", "1", "sso'x", "42"},
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
      for (int i = 0, count = 0; i < kEach; i++)
        if (qn_db_userIncrementFailcount(contexts[t], "bob", &count) == 0)
          seen[t].push_back(count);
    });
  std::set<int> distinct;
  for (int t = 0; t < kThreads; t++) {
    threads[t].join();
    distinct.insert(seen[t].begin(), seen[t].end());
    qn_db_destroyDbCtx(contexts[t]);
  }
  EXPECT_EQ(distinct.size(), size_t{kThreads * kEach});
  EXPECT_EQ(value("select ctcfailurecount from qmx_user"), to_string(kThreads * kEach));
}

TEST_F(UsersTest, ReadsOfOneUserAndTheListing) {
  addLinkedUsers();
  auto read = [&](std::function<int(userData **)> call) {
    return [=](int &status) {
      userData *user = nullptr;
      status = call(&user);
      std::string text = user ? describe(user) : "";
      destroyUserData(user);
      return text;
    };
  };
  auto list = [&](int &status) {
    int count = -1;
    userData **users = nullptr;
    status = qn_db_userList(ctx, &count, &users);
    std::string text = to_string(count);
    for (int i = 0; i < (status == 0 ? count : 0); i++)
      text += " " + describe(users[i]);
    mfadb::destroyArray(users, status == 0 ? count : 0, destroyUserData);
    return text;
  };
  mfatest::runSteps({
      {"by id", read([&](userData **u) { return qn_db_userGetById(ctx, 1, u); }), 0,
       "1|bob|Bob|1130 P2: 1/2=p1= 2/1=p2=n'2 N2- F2: 1/1=QMXLDAP1={\"DN\":\"cn=Zoë "
       "O'Neil\"}=LDAP directory authentication=1 3/2=QMXTOTP1={}=Time-based one-time "
       "password=0 H2: 1@1=h1 1: 2:root:1 1@2=h2 2: 1:bob:0 3:bobby:6",
       ""},
      {"by uid: policy names, no ids, no profiles",
       read([&](userData **u) { return qn_db_userGetOne(ctx, "bob", u); }), 0,
       "0|bob|Bob|1130 P2- N2: p1 p2 F2: 0/0=QMXLDAP1={\"DN\":\"cn=Zoë O'Neil\"}=LDAP "
       "directory authentication=1 0/0=QMXTOTP1={}=Time-based one-time password=0 H0-",
       ""},
      {"unknown id", read([&](userData **u) { return qn_db_userGetById(ctx, 9, u); }), 80105, "",
       "MFADB:user not found\n"},
      {"the uid is not folded", read([&](userData **u) { return qn_db_userGetOne(ctx, "Bob", u); }),
       80105, "", "MFADB:user not found\n"},
      {"every record takes the first user's password flag", list, 0,
       "2 1|bob|Bob|1100 P0- N0- F0- H0- 2|carol||0100 P0- N0- F0- H0-", ""},
      {"so none has one when the first has none",
       [&](int &status) { return sql("update qmx_usermfapassword set userid=2"), list(status); }, 0,
       "2 1|bob|Bob|1000 P0- N0- F0- H0- 2|carol||0000 P0- N0- F0- H0-", ""},
  });
  // Without links: counts 0, null arrays, and a note for each part missing.
  int status = -1;
  std::string byId, byUid;
  std::string out = mfatest::captureStdout([&] {
    byId = read([&](userData **u) { return qn_db_userGetById(ctx, 2, u); })(status);
    byUid = read([&](userData **u) { return qn_db_userGetOne(ctx, "carol", u); })(status);
  });
  EXPECT_EQ(byId + " " + byUid, "2|carol||0100 P0- N0- F0- H0- 0|carol||0100 P0- N0- F0- H0-");
  for (const char *note : {"MFADB:INFO : NO POLICIES\n", "MFADB:INFO : NO FACTORS\n",
                           "MFADB:No Orlin Client connections for this user.\n"})
    EXPECT_NE(out.find(note), std::string::npos) << out;
  sql("set client_min_messages=warning; truncate qmx_user cascade");
  mfatest::runSteps({{"no users", list, 80105, "-1", "MFADB:no users\n"}});
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
      {true, "qmx_userorlinclient", 80108,
       "MFADB:delete failed for qmx_userorlinclient: ", "2 2213"},
      {true, "qmx_usermfapassword", 80108, "MFADB:delete failed for usermfapassword: ", "2 2213"},
      {false, "qmx_usermfapassword", 80104, "MFADB:delete failed: ", "2 2213"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.byId ? "by id, " : "by uid, ") + (c.refusing ? c.refusing : ""));
    addLinkedUsers();
    if (c.refusing)
      sql(std::string("create trigger refuse before delete on ") + c.refusing +
          " for each statement execute function users_test_refuse()");
    int status = -1;
    std::string out = mfatest::captureStdout(
        [&] { status = c.byId ? qn_db_userRemoveById(ctx, 1) : qn_db_userRemove(ctx, "bob"); });
    EXPECT_EQ(status, c.status);
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
  } cases[] = {{"qmx_policy", true},
               {"qmx_factor", true},
               {"qmx_orlinclients", true},
               {"qmx_policy", false},
               {"qmx_factor", false}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.locked);
    std::unique_ptr<PGconn, decltype(&PQfinish)> locker(PQconnectdb("dbname=mfadb"), PQfinish);
    PQclear(PQexec(locker.get(), (std::string("begin; lock table ") + c.locked).c_str()));
    userData *user = nullptr;
    int status = -1;
    std::string out = mfatest::captureStdout([&] {
      status = c.byId ? qn_db_userGetById(ctx, 1, &user) : qn_db_userGetOne(ctx, "bob", &user);
    });
    EXPECT_EQ(status, 80102);
    EXPECT_EQ(user, nullptr);
    EXPECT_NE(out.find("MFADB:SELECT failed: ERROR:  canceling statement due to lock timeout"),
              std::string::npos)
        << out;
  }
}

} // namespace
