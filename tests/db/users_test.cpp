#include "db/users.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/alloc.h"
#include "db/dbcommon_internal.h"
#include "support/env.h"
#include "support/pgtest.h"

namespace {

template <typename... Parts> std::string cat(const Parts &...parts) {
  std::ostringstream text;
  (text << ... << parts);
  return text.str();
}

// " <tag><count>" then ":" and the sorted entries, or "-" for a null array.
template <typename T, typename Entry>
std::string entries(const char *tag, int count, T **array, Entry entry) {
  std::set<std::string> sorted;
  for (int i = 0; array != nullptr && i < count; i++)
    sorted.insert(entry(*array[i]));
  std::string text = cat(" ", tag, count, array ? ":" : "-");
  for (const std::string &e : sorted)
    text += " " + e;
  return text;
}

std::string describe(const userData &u) {
  return cat(u.userid, "|", u.unixuid, "|", u.name, "|", u.passwordfallback, u.hasPassword,
             u.ctcfailurecount, u.suspended) +
         entries("P", u.numPolicies, u.policies,
                 [](auto &p) {
                   return cat(p.policyid, "/", p.userpolicyid, "=", p.policyname, "=",
                              p.policynote);
                 }) +
         entries("N", u.numPolicies, u.policyNames, [](char &n) { return std::string(&n); }) +
         entries("F", u.numFactors, u.factors,
                 [](auto &f) {
                   return cat(f.factorid, "/", f.userfactorid, "=", f.factorname, "=", f.factortags,
                              "=", f.factornote, "=", f.isactive);
                 }) +
         entries("H", u.numOrlinClients, u.orlinClients, [](auto &c) {
           return cat(c.userid, "@", c.clientid, "=", c.name) +
                  entries("", c.numProfiles, c.profiles, [](auto &p) {
                    return cat(p.userorlinclientid, ":", p.remoteuserid, ":", p.remoteuserstatus);
                  });
         });
}

class UsersTest : public mfatest::PgTest {
protected:
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
  // A step reading one user, by uid when one is given, else by id.
  std::function<std::string(int &)> read(int id, const char *uid = nullptr) {
    return [=, this](int &status) {
      userData *user = nullptr;
      status = uid ? qn_db_userGetOne(ctx, uid, &user) : qn_db_userGetById(ctx, id, &user);
      std::string text = user ? describe(*user) : "";
      destroyUserData(user);
      return text;
    };
  }
};

TEST_F(UsersTest, WritesOfUsersAndAdministrators) {
  sql("insert into qmx_adminuser(unixuid) values('root')");
  static const std::string tooLong(600, 'u');
  const std::string blank = "MFADB:No spaces allowed in UserID field.\n",
                    unescaped = "MFADB:error escaping userid or name\n";
  // Each step's output is what the call stores through its out argument.
  // clang-format off
#define STEP(status, out, printed, call)                                                           \
  {#call, [&](int &s) { int o = -1; s = call; return std::to_string(o); }, status, out, printed}
  // clang-format on
  mfatest::runSteps({
      // Folded byte by byte; everything escaped.
      STEP(0, "1", "", qn_db_userAdd(ctx, "Bob", "Bob", 1, "sso'x", &o)),
      STEP(0, "2", "", qn_db_userAdd(ctx, "O'Hara", "Zoë \\ O'Hara", 0, nullptr, &o)),
      STEP(0, "-1", "",
           qn_db_userAdd(ctx, "ÜBER\\');delete/**/from/**/qmx_user;--",
                         "x'); drop table qmx_user;--", 0, "s'o", nullptr)),
      STEP(80106, "-1", blank, qn_db_userAdd(ctx, "bob smith", "b", 0, nullptr, &o)),
      STEP(80106, "-1", blank, qn_db_userAdd(ctx, "tab\tx", "b", 0, nullptr, &o)),
      STEP(80105, "-1", unescaped, qn_db_userAdd(ctx, "x", nullptr, 0, nullptr, &o)),
      STEP(80105, "-1", unescaped, qn_db_userAdd(ctx, "bad\xff", "n", 0, nullptr, &o)),
      // Every setter changes what a getter or the final rows show; without
      // a single-sign-on id the stored one stays.
      STEP(0, "-1", "", qn_db_userUpdateById(ctx, 1, 0, 1, nullptr)),
      STEP(0, "0", "", qn_db_userIsFallback(ctx, "bob", &o)),
      STEP(0, "1", "", qn_db_userGetSuspended(ctx, "bob", &o)),
      STEP(0, "-1", "", qn_db_userSetFallback(ctx, "bob", 1)),
      STEP(0, "-1", "", qn_db_userSetFailcount(ctx, "bob", 41)),
      STEP(0, "42", "", qn_db_userIncrementFailcount(ctx, "bob", &o)),
      STEP(0, "42", "", qn_db_userGetFailcount(ctx, "bob", &o)),
      STEP(0, "-1", "", qn_db_userUpdateById(ctx, 2, 1, 0, "Zoë'")),
      // Quoted in the text the uid matches o'hara; sent as $1 it is doubled.
      STEP(0, "-1", "", qn_db_userSetSuspended(ctx, "o'hara", 1)),
      STEP(80105, "-1", "MFADB:User not found\n", qn_db_userGetSuspended(ctx, "o'hara", &o)),
      STEP(0, "-1", "", qn_db_userSetFallbackById(ctx, 3, 1)),
      STEP(0, "-1", "", qn_db_userSetSuspendedById(ctx, 3, 1)),
      STEP(0, "-1", "", qn_db_userSetSSOIdById(ctx, 3, "Łódź")),
      STEP(0, "-1", "", qn_db_userSetSuspended(ctx, "nobody", 1)),
      STEP(80105, "-1", "MFADB:user not found\n", qn_db_userIsFallback(ctx, "nobody", &o)),
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
      STEP(80106, "-1", "", qn_db_userGetFailcount(ctx, "bob", nullptr)),
  });
#undef STEP
  // The duplicate's insert failure is logged first.
  std::string out = mfatest::captureStdout(
      [&] { EXPECT_EQ(qn_db_userAdd(ctx, "BOB", "dup", 0, nullptr, nullptr), 80109); });
  EXPECT_NE(out.find("MFADB:User ID specified already exists.\n"), std::string::npos) << out;
  EXPECT_EQ(sql("select unixuid, name, passwordfallback, suspended, ssoid, ctcfailurecount from "
                "qmx_user union all select unixuid, '', 0, suspended, '', failurecount from "
                "qmx_adminuser order by 1"),
            (mfatest::Rows{{"bob", "Bob", "1", "1", "sso'x", "42"},
                           {"o'hara", "Zoë \\ O'Hara", "1", "1", "Zoë'", "0"},
                           {"root", "", "0", "1", "", "10"},
                           {"Über\\');delete/**/from/**/qmx_user;--", "x'); drop table qmx_user;--",
                            "1", "1", "Łódź", "0"}}));
}

// Concurrent increments are one statement each: none is lost and no two
// callers see the same count.
TEST_F(UsersTest, ConcurrentIncrementsAreNeverLost) {
  addUser("bob");
  constexpr int kThreads = 8, kEach = 1000;
  std::mutex lock;
  std::set<int> distinct;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++)
    threads.emplace_back([&] {
      dbctx *own = nullptr;
      ASSERT_EQ(qn_db_createDBCtx(&own, nullptr, nullptr), 0);
      for (int i = 0, count = 0; i < kEach; i++)
        if (qn_db_userIncrementFailcount(own, "bob", &count) == 0) {
          std::lock_guard<std::mutex> hold(lock);
          distinct.insert(count);
        }
      qn_db_destroyDbCtx(own);
    });
  for (std::thread &thread : threads)
    thread.join();
  EXPECT_EQ(distinct.size(), size_t{kThreads * kEach});
  EXPECT_EQ(value("select ctcfailurecount from qmx_user"), std::to_string(kThreads * kEach));
}

// Reads, also failing ones: what was built is released (the leak checker
// watches) and nothing is handed out.
TEST_F(UsersTest, ReadsOfOneUserAndTheListing) {
  addLinkedUsers();
  freeString(ctx->connectionString);
  ctx->connectionString = duplicateString("dbname=mfadb options='-clock_timeout=100'");
  auto list = [&](int &status) {
    int count = -1;
    userData **users = nullptr;
    status = qn_db_userList(ctx, &count, &users);
    std::string text = std::to_string(count);
    for (int i = 0; i < (status == 0 ? count : 0); i++)
      text += " " + describe(*users[i]);
    mfadb::destroyArray(users, status == 0 ? count : 0, destroyUserData);
    return text;
  };
  mfatest::runSteps({
      {"by id", read(1), 0,
       "1|bob|Bob|1130 P2: 1/2=p1= 2/1=p2=n'2 N2- F2: 1/1=QMXLDAP1={\"DN\":\"cn=Zoë "
       "O'Neil\"}=LDAP directory authentication=1 3/2=QMXTOTP1={}=Time-based one-time "
       "password=0 H2: 1@1=h1 1: 2:root:1 1@2=h2 2: 1:bob:0 3:bobby:6",
       ""},
      {"by uid: policy names, no ids, no profiles", read(0, "bob"), 0,
       "0|bob|Bob|1130 P2- N2: p1 p2 F2: 0/0=QMXLDAP1={\"DN\":\"cn=Zoë O'Neil\"}=LDAP "
       "directory authentication=1 0/0=QMXTOTP1={}=Time-based one-time password=0 H0-",
       ""},
      {"unknown id", read(9), 80105, "", "MFADB:user not found\n"},
      {"the uid is not folded", read(0, "Bob"), 80105, "", "MFADB:user not found\n"},
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
    byId = read(2)(status);
    byUid = read(0, "carol")(status);
  });
  EXPECT_EQ(byId + " " + byUid, "2|carol||0100 P0- N0- F0- H0- 0|carol||0100 P0- N0- F0- H0-");
  for (const char *note : {"MFADB:INFO : NO POLICIES\n", "MFADB:INFO : NO FACTORS\n",
                           "MFADB:No Orlin Client connections for this user.\n"})
    EXPECT_NE(out.find(note), std::string::npos) << out;
  // A later statement that fails after part of the record was built.
  const char *const locked[][2] = {
      {"qmx_factor", nullptr}, {"qmx_orlinclients", nullptr}, {"qmx_factor", "bob"}};
  for (auto [table, uid] : locked) {
    SCOPED_TRACE(cat(table, uid ? " by uid" : " by id"));
    std::unique_ptr<PGconn, decltype(&PQfinish)> locker(PQconnectdb("dbname=mfadb"), PQfinish);
    PQclear(PQexec(locker.get(), cat("begin; lock table ", table).c_str()));
    std::string text = "-";
    out = mfatest::captureStdout([&] { text = read(1, uid)(status); });
    EXPECT_EQ(cat(status, text), "80102");
    EXPECT_NE(out.find("MFADB:SELECT failed: ERROR:  canceling statement due to lock timeout"),
              std::string::npos)
        << out;
  }
  sql("set client_min_messages=warning; truncate qmx_user cascade");
  mfatest::runSteps({{"no users", list, 80105, "-1", "MFADB:no users\n"}});
}

TEST_F(UsersTest, RemovalIsAllOrNothing) {
  // Refuses deletes sent straight to a table, not those the database
  // cascades from another.
  sql("create or replace function users_test_refuse() returns trigger language plpgsql as $$ "
      "begin if pg_trigger_depth() = 1 then raise exception 'refused'; end if; return null; end "
      "$$");
  const struct {
    bool byId;
    const char *refusing; // table that refuses direct deletes, or null
    int status;
    const char *message, *left; // "<users> <policy, factor, password, profile links>"
  } cases[] = {
      {true, nullptr, 0, "", "1 0000"},
      // By uid the profiles go by the cascade, never by a delete of its own.
      {false, "qmx_userorlinclient", 0, "", "1 0000"},
      {true, "qmx_userorlinclient", 80108,
       "MFADB:delete failed for qmx_userorlinclient: ", "2 2213"},
      {false, "qmx_usermfapassword", 80104, "MFADB:delete failed: ", "2 2213"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(cat(c.byId ? "by id, " : "by uid, ", c.refusing ? c.refusing : ""));
    addLinkedUsers();
    if (c.refusing)
      sql(cat("create trigger refuse before delete on ", c.refusing,
              " for each statement execute function users_test_refuse()"));
    int status = -1;
    std::string out = mfatest::captureStdout(
        [&] { status = c.byId ? qn_db_userRemoveById(ctx, 1) : qn_db_userRemove(ctx, "bob"); });
    EXPECT_EQ(status, c.status);
    EXPECT_NE(out.find(c.message), std::string::npos) << out;
    EXPECT_EQ(value("select (select count(*) from qmx_user) || ' ' || (select count(*) from "
                    "qmx_userpolicy) || (select count(*) from qmx_userfactor) || (select "
                    "count(*) from qmx_usermfapassword) || (select count(*) from "
                    "qmx_userorlinclient)"),
              c.left);
    if (c.refusing)
      sql(cat("drop trigger refuse on ", c.refusing));
  }
  sql("drop function users_test_refuse() cascade");
  EXPECT_EQ(qn_db_userRemove(ctx, "nobody"), 0);
  EXPECT_EQ(qn_db_userRemoveById(ctx, 99), 0);
}

} // namespace
