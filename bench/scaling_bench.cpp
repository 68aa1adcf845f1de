// How the two database paths of the LDAP factor tool scale with the number of
// users: the show (the three reads of pq_userMFAData_create) and the commit
// (the factor-data upsert), each opening its own connection as the tool does.
//
// On the server that libpq's settings reach (the throwaway cluster of
// postgres_start; nothing else may be connected to its mfadb at the start),
// the benchmark copies mfadb into two databases of its own, fills the first
// with 1,000 and then the second with 1,000,000 users, each with LDAP factor
// data and a policy, and drops both at the end. Each iteration runs the
// operation once on each database, in alternating order, so that load from
// other processes falls on both sizes alike. The counters give the mean time
// at each size and their ratio "1M/1k", and the same for the fastest
// operation; a ratio above 1.2 means a statement has started reading through
// a table instead of finding its rows by index.
#include "base/alloc.h"
#include "mfadata/dbctx.h"
#include "mfadata/factordata.h"
#include "mfadata/usermfadata.h"

#include <benchmark/benchmark.h>
#include <libpq-fe.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <string>

namespace {

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

// A copy of mfadb holding users user1 ... user<count> (ids to match), each
// with LDAP factor data and the policy "ldap".
class Database {
public:
  explicit Database(int count) : name_("mfa_scaling_" + std::to_string(count)) {
    const std::string n = std::to_string(count);
    // The copy keeps the schema and the factors, not what tests left behind.
    const std::string load =
        "truncate qmx_user, qmx_policy restart identity cascade;"
        "insert into qmx_policy(policyname) values('ldap');"
        "insert into qmx_policyfactor select p.policyid, f.factorid from qmx_policy p, "
        "qmx_factor f where f.factorname = 'QMXLDAP1';"
        "insert into qmx_user(userid, unixuid, name) select g, 'user' || g, 'User ' || g from "
        "generate_series(1, " +
        n +
        ") g;"
        "insert into qmx_userfactor(userid, factorid, factortags, isactive) select u.userid, "
        "f.factorid, '{\"DN\":\"cn=' || u.unixuid || ',ou=people,dc=example,dc=com\","
        "\"SEARCHVAL\":\"' || u.unixuid || '@example.com\",\"LASTSEARCH\":\"0\"}', 1 from "
        "qmx_user u, qmx_factor f where f.factorname = 'QMXLDAP1';"
        "insert into qmx_userpolicy(userid, policyid) select u.userid, p.policyid from "
        "qmx_user u, qmx_policy p";
    run("postgres", "drop database if exists " + name_);
    failure_ = run("postgres", "create database " + name_ + " template mfadb");
    // Then settled as an installation's tables are: otherwise autovacuum, the
    // checkpointer and the system's write-back would still be working through
    // the new rows while the operations are timed.
    for (const std::string &statements :
         {load, std::string("vacuum analyze"), std::string("checkpoint")})
      if (failure_.empty())
        failure_ = run(name_, statements);
    sync();
    if (failure_.empty() && qn_db_createDBCtx(&context_, nullptr, nullptr) != 0)
      failure_ = "cannot make the database context";
    if (failure_.empty()) {
      freeString(context_->connectionString);
      context_->connectionString = duplicateString(("dbname=" + name_).c_str());
    }
    userid_ = "user" + std::to_string(count / 2);
  }
  ~Database() {
    qn_db_destroyDbCtx(context_);
    run("postgres", "drop database if exists " + name_);
  }

  dbctx *context() const { return context_; }
  // The user in the middle of the table.
  const char *userid() const { return userid_.c_str(); }
  const std::string &failure() const { return failure_; }

private:
  std::string name_;
  std::string userid_;
  dbctx *context_ = nullptr;
  std::string failure_;
};

// The two sizes, loaded in this order on first use.
std::array<Database *, 2> &databases() {
  static Database thousand(1000), million(1000000);
  static std::array<Database *, 2> both = {&thousand, &million};
  return both;
}

template <typename Operation> void measure(benchmark::State &state, Operation operation) {
  using Seconds = std::chrono::duration<double>;
  for (Database *database : databases()) {
    if (!database->failure().empty()) {
      state.SkipWithError(database->failure().c_str());
      return;
    }
  }
  std::array<Seconds, 2> spent{};
  std::array<Seconds, 2> fastest = {Seconds::max(), Seconds::max()};
  size_t first = 0;
  for (auto _ : state) {
    for (size_t step = 0; step < 2; step++) {
      const size_t size = (first + step) % 2;
      const Database &database = *databases()[size];
      auto start = std::chrono::steady_clock::now();
      if (int status = operation(database.context(), database.userid())) {
        state.SkipWithError(("status " + std::to_string(status)).c_str());
        return;
      }
      Seconds took = std::chrono::steady_clock::now() - start;
      spent[size] += took;
      fastest[size] = std::min(fastest[size], took);
    }
    first ^= 1;
  }
  const double iterations = static_cast<double>(state.iterations());
  state.counters["1k_ms"] = spent[0].count() * 1000 / iterations;
  state.counters["1M_ms"] = spent[1].count() * 1000 / iterations;
  state.counters["1M/1k"] = spent[1] / spent[0];
  state.counters["fastest_1k_ms"] = fastest[0].count() * 1000;
  state.counters["fastest_1M_ms"] = fastest[1].count() * 1000;
  state.counters["fastest_1M/1k"] = fastest[1] / fastest[0];
}

void BM_Show(benchmark::State &state) {
  measure(state, [](dbctx *context, const char *userid) {
    userMFAData *data = nullptr;
    int status = pq_userMFAData_create(context, userid, &data);
    kfactor_userMFAData_destroy(data);
    return status;
  });
}

void BM_Commit(benchmark::State &state) {
  // The tags the tool would write, read before the clock starts.
  factorData *tags = nullptr;
  if (databases()[0]->failure().empty())
    kfactor_get_UserFactorData(databases()[0]->context(), "user1", "QMXLDAP1", &tags);
  if (tags == nullptr) {
    state.SkipWithError("cannot read the tags to write");
    return;
  }
  measure(state, [tags](dbctx *context, const char *userid) {
    return kfactor_update_UserFactorData(context, userid, tags);
  });
  kfactor_factorData_destroy(tags);
}

// Each iteration is one operation at each size.
BENCHMARK(BM_Show)->Unit(benchmark::kMillisecond)->MinTime(5)->UseRealTime();
BENCHMARK(BM_Commit)->Unit(benchmark::kMillisecond)->MinTime(5)->UseRealTime();

} // namespace
