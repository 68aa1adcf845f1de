// How the two database paths of the LDAP factor tool scale with the number of
// users: the show (the three reads of pq_userMFAData_create) and the commit
// (the factor-data upsert), each opening its own connection as the tool does.
//
// The benchmark makes a database of its own, mfa_scaling, as a copy of mfadb
// on the server that libpq's settings reach (the throwaway cluster of
// postgres_start; nothing else may be connected to mfadb at that moment),
// empties its users and policies, fills it with 1,000 and then
// 1,000,000 users, each with LDAP factor data and a policy, and drops it at
// the end. Runs at 1,000,000 users report their mean and fastest time per
// operation relative to the run at 1,000 ("vs_1k", "fastest_vs_1k"); a value
// above 1.2 means a statement has started reading through a table instead of
// finding its rows by index.
#include "base/alloc.h"
#include "mfadata/dbctx.h"
#include "mfadata/factordata.h"
#include "mfadata/usermfadata.h"

#include <benchmark/benchmark.h>
#include <libpq-fe.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <string>

namespace {

constexpr const char *kDatabase = "mfa_scaling";

// Runs statements on a fresh connection; the error text, or empty.
std::string run(const std::string &database, const std::string &statements) {
  PGconn *connection = PQconnectdb(("dbname=" + database).c_str());
  PGresult *result = PQexec(connection, statements.c_str());
  ExecStatusType status = PQresultStatus(result);
  std::string error = status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK
                          ? ""
                          : std::string(PQerrorMessage(connection));
  PQclear(result);
  PQfinish(connection);
  return error;
}

class Database {
public:
  Database() {
    run("postgres", std::string("drop database if exists ") + kDatabase);
    failure_ = run("postgres", std::string("create database ") + kDatabase + " template mfadb");
    // The copy keeps the schema and the factors, not what tests left behind.
    if (failure_.empty())
      failure_ = run(kDatabase, "truncate qmx_user, qmx_policy restart identity cascade;"
                                "insert into qmx_policy(policyname) values('ldap');"
                                "insert into qmx_policyfactor select p.policyid, f.factorid "
                                "from qmx_policy p, qmx_factor f where f.factorname = "
                                "'QMXLDAP1'");
    if (failure_.empty() && qn_db_createDBCtx(&context_, nullptr, nullptr) != 0)
      failure_ = "cannot make the database context";
    if (failure_.empty()) {
      freeString(context_->connectionString);
      context_->connectionString = duplicateString((std::string("dbname=") + kDatabase).c_str());
    }
  }
  ~Database() {
    qn_db_destroyDbCtx(context_);
    run("postgres", std::string("drop database if exists ") + kDatabase);
  }

  // Grows the database to count users: user1, user2, ... with ids to match.
  bool grow(int count) {
    if (count > users_ && failure_.empty()) {
      const std::string from = std::to_string(users_ + 1), to = std::to_string(count);
      failure_ = run(
          kDatabase,
          "insert into qmx_user(userid, unixuid, name) select g, 'user' || g, 'User ' || g from "
          "generate_series(" +
              from + ", " + to +
              ") g;"
              "insert into qmx_userfactor(userid, factorid, factortags, isactive) select u.userid, "
              "f.factorid, '{\"DN\":\"cn=' || u.unixuid || ',ou=people,dc=example,dc=com\","
              "\"SEARCHVAL\":\"' || u.unixuid || '@example.com\",\"LASTSEARCH\":\"0\"}', 1 from "
              "qmx_user u, qmx_factor f where f.factorname = 'QMXLDAP1' and u.userid between " +
              from + " and " + to +
              ";"
              "insert into qmx_userpolicy(userid, policyid) select g, p.policyid from "
              "generate_series(" +
              from + ", " + to + ") g, qmx_policy p");
      // Settled as an installation's tables are: without this, autovacuum
      // and the checkpointer would be working through the new rows while the
      // operations are timed.
      for (const char *settle : {"vacuum analyze", "checkpoint"})
        if (failure_.empty())
          failure_ = run(kDatabase, settle);
      users_ = count;
    }
    return failure_.empty();
  }

  dbctx *context() const { return context_; }
  const std::string &failure() const { return failure_; }

private:
  dbctx *context_ = nullptr;
  int users_ = 0;
  std::string failure_;
};

Database &database() {
  static Database shared;
  return shared;
}

// The mean and the fastest time of one operation in a run.
struct Times {
  double mean;
  double fastest;
};

// The times at 1,000 users, by benchmark.
std::map<std::string, Times> atThousand;

// Times operation on the user in the middle of a database of range(0) users.
// Besides the mean, each run reports its fastest operation, which load from
// other processes on the machine inflates far less.
template <typename Operation>
void measure(benchmark::State &state, const char *name, Operation operation) {
  using Seconds = std::chrono::duration<double>;
  const int users = static_cast<int>(state.range(0));
  if (!database().grow(users)) {
    state.SkipWithError(database().failure().c_str());
    return;
  }
  const std::string userid = "user" + std::to_string(users / 2);
  Seconds spent{};
  Seconds fastest = Seconds::max();
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    if (int status = operation(userid.c_str())) {
      state.SkipWithError(("status " + std::to_string(status)).c_str());
      return;
    }
    Seconds took = std::chrono::steady_clock::now() - start;
    spent += took;
    fastest = std::min(fastest, took);
  }
  const Times times{spent.count() / static_cast<double>(state.iterations()), fastest.count()};
  state.counters["fastest_ms"] = times.fastest * 1000;
  if (users == 1000) {
    atThousand[name] = times;
  } else if (atThousand.count(name) != 0) {
    state.counters["vs_1k"] = times.mean / atThousand[name].mean;
    state.counters["fastest_vs_1k"] = times.fastest / atThousand[name].fastest;
  }
}

void BM_Show(benchmark::State &state) {
  measure(state, "show", [](const char *userid) {
    userMFAData *data = nullptr;
    int status = pq_userMFAData_create(database().context(), userid, &data);
    kfactor_userMFAData_destroy(data);
    return status;
  });
}

void BM_Commit(benchmark::State &state) {
  // The same tags, read once, are written to whichever user is measured.
  static factorData *tags = nullptr;
  measure(state, "commit", [](const char *userid) {
    if (tags == nullptr)
      if (int status = kfactor_get_UserFactorData(database().context(), "user1", "QMXLDAP1", &tags))
        return status;
    return kfactor_update_UserFactorData(database().context(), userid, tags);
  });
}

// In this order: both paths at 1,000 users, then both at 1,000,000.
BENCHMARK(BM_Show)->Arg(1000)->Unit(benchmark::kMillisecond)->MinTime(2)->UseRealTime();
BENCHMARK(BM_Commit)->Arg(1000)->Unit(benchmark::kMillisecond)->MinTime(2)->UseRealTime();
BENCHMARK(BM_Show)->Arg(1000000)->Unit(benchmark::kMillisecond)->MinTime(2)->UseRealTime();
BENCHMARK(BM_Commit)->Arg(1000000)->Unit(benchmark::kMillisecond)->MinTime(2)->UseRealTime();

} // namespace
