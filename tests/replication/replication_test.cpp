// The tool and the library against a replicated database: a primary, its
// streaming standby, and pgbouncer pooling transactions in front of the
// primary, all started by run.sh. Every target is chosen only through the
// settings libpq reads, as an administrator would choose it; nothing in the
// tool's invocation changes between them.
#include "db/policies.h"
#include "db/users.h"
#include "support/env.h"
#include "support/pgtest.h"
#include "toolrun.h"

#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>

namespace {

using mfatest::quoted;

// A variable for a run of the tool or a library call; no value removes it.
using Settings = std::vector<std::pair<std::string, std::optional<std::string>>>;

void apply(const Settings &settings) {
  for (const auto &[name, value] : settings) {
    if (value)
      setenv(name.c_str(), value->c_str(), 1);
    else
      unsetenv(name.c_str());
  }
}

// Settings in force for the library calls of one scope.
class ScopedSettings {
public:
  explicit ScopedSettings(const Settings &settings) {
    for (const auto &[name, value] : settings) {
      const char *old = getenv(name.c_str());
      saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    }
    apply(settings);
  }
  ~ScopedSettings() { apply(saved_); }

private:
  Settings saved_;
};

std::string env(const char *name) {
  return mfatest::serviceVariable(name);
}
std::string primary() {
  return env("MFA_REPLICATION_PRIMARY");
}
std::string standby() {
  return env("MFA_REPLICATION_STANDBY");
}

const std::string kPort = "5432";
const std::string kNoServer = "/nonexistent/mfa";

Settings hostList(const std::string &first, const std::string &second) {
  return {
      {"PGHOST", first + "," + second}, {"PGPORT", kPort}, {"PGTARGETSESSIONATTRS", "read-write"}};
}

// The entry the service targets select, written once beside the servers.
std::string serviceFile() {
  static const std::string path = [] {
    std::string file = env("MFA_REPLICATION_DIR") + "/pg_service.conf";
    std::ofstream(file) << "[mfa]\nhost=" << standby() << "," << primary() << "\nport=" << kPort
                        << "\ntarget_session_attrs=read-write\n";
    return file;
  }();
  return path;
}

struct Target {
  const char *name;
  std::function<Settings()> settings;
  // Text of the database configuration file the library's context is made
  // from, or empty for the tool's bare connection string.
  std::function<std::string()> config = [] { return std::string(); };
};

// The ways of reaching the primary for writing. Where the service entry or
// the configuration file names the hosts, PGHOST names no server at all.
const Target kPrimary{"primary", [] { return Settings{{"PGHOST", primary()}, {"PGPORT", kPort}}; }};
const Target kHostList{"host_list", [] { return hostList(standby(), primary()); }};
const Target kPooler{"pooler", [] {
                       return Settings{{"PGHOST", env("MFA_REPLICATION_POOLER")},
                                       {"PGPORT", env("MFA_REPLICATION_POOLER_PORT")}};
                     }};
const Target kService{"service", [] {
                        return Settings{{"PGSERVICEFILE", serviceFile()},
                                        {"PGSERVICE", "mfa"},
                                        {"PGHOST", kNoServer}};
                      }};
// A server's configuration file has no key for the session attributes; the
// environment supplies them.
const Target kConfigFile{
    "config_file",
    [] {
      return Settings{{"PGTARGETSESSIONATTRS", "read-write"}, {"PGHOST", kNoServer}};
    },
    [] { return "DB HOSTNAME=" + standby() + "," + primary() + "\nDB PORT=" + kPort + "\n"; }};

void PrintTo(const Target &target, std::ostream *os) {
  *os << target.name;
}

// What a run of the tool wrote and how it ended.
struct Outcome {
  std::string out; // time stamps masked as "<stamp> "
  std::string err;
  int status; // exit status, or 128 + signal
  bool operator==(const Outcome &) const = default;
};

void PrintTo(const Outcome &run, std::ostream *os) {
  *os << "status " << run.status << "\nstdout:\n" << run.out << "stderr:\n" << run.err;
}

// The tool as the acceptance tests run it, with the settings applied in the
// child (a setting without a value is unset there).
Outcome runTool(const Settings &settings, const std::vector<std::string> &args) {
  const clitest::Ran ran = clitest::runRow(MFA_BINARY_DIR "/bin/ldapfactor", {args, "", 0}, [&] {
    apply(settings);
    return std::string();
  });
  return {ran.out, ran.err, ran.status};
}

const std::string kSearchVal = "alice@example.com";

std::string block(const std::string &title, const std::string &dn,
                  const std::string &searchVal = kSearchVal) {
  return title + "alice:\n  DN: " + dn + "\n  SEARCHVAL: " + searchVal +
         "\n  SEARCHVAL2: <not set>\n  SEARCHVAL3: <not set>\n";
}
std::string existing(const std::string &dn) {
  return block("Existing QMXLDAP1 factor data for user ", dn);
}
std::string pending(const std::string &dn, const std::string &searchVal = kSearchVal) {
  return block("Pending QMXLDAP1 tag data for user ", dn, searchVal);
}
Outcome shown(const std::string &dn) {
  return {existing(dn) + pending(dn) +
              "Did not attempt to commit QMXLDAP1 factor data for alice.\n",
          "", 0};
}
Outcome committed(const std::string &before, const std::string &after) {
  return {existing(before) + pending(after) + "Committed QMXLDAP1 factor data for alice.\n", "", 0};
}
std::string tags(const std::string &dn) {
  return R"({"DN":")" + dn + R"(","SEARCHVAL":")" + kSearchVal + R"(","LASTSEARCH":"0"})";
}

// alice with QMXLDAP1 data on a freshly emptied primary.
class Replicated : public mfatest::PgTest {
protected:
  void SetUp() override {
    MFA_REQUIRE_SERVICE("MFA_REPLICATION_PRIMARY");
    PgTest::SetUp();
    if (IsSkipped() || HasFatalFailure())
      return;
    addUser("alice");
    sql("insert into qmx_userfactor (userid, factorid, factortags, isactive) select u.userid, "
        "f.factorid, " +
        quoted(tags("cn=alice")) +
        ", 1 from qmx_user u, qmx_factor f where u.unixuid = 'alice' and f.factorname = "
        "'QMXLDAP1'");
  }

  // The first column of the first row of select on a connection made from
  // conninfo, "<none>" without a row, or libpq's message on failure.
  static std::string valueWith(const std::string &conninfo, const std::string &select) {
    PGconn *connection = PQconnectdb(conninfo.c_str());
    PGresult *result = PQexec(connection, select.c_str());
    std::string value = PQresultStatus(result) != PGRES_TUPLES_OK ? PQerrorMessage(connection)
                        : PQntuples(result) == 0                  ? "<none>"
                                                                  : PQgetvalue(result, 0, 0);
    PQclear(result);
    PQfinish(connection);
    return value;
  }

  // The same on the server behind the socket directory host.
  static std::string valueOn(const std::string &host, const std::string &select) {
    return valueWith("dbname=mfadb target_session_attrs=any port=" + kPort + " host=" + host,
                     select);
  }

  static std::string storedOn(const std::string &host) {
    return valueOn(host, "select uf.factortags from qmx_userfactor uf join qmx_user u using "
                         "(userid) where u.unixuid = 'alice'");
  }

  // Waits until the standby has replayed everything the primary has written
  // so far.
  static void awaitReplay() {
    const std::string lsn = valueOn(primary(), "select pg_current_wal_insert_lsn()");
    const std::string replayed = "select pg_last_wal_replay_lsn() >= " + quoted(lsn) + "::pg_lsn";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (valueOn(standby(), replayed) != "t") {
      ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "standby stuck before " << lsn;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
};

class ToolThrough : public Replicated, public testing::WithParamInterface<Target> {};
class LibraryThrough : public Replicated, public testing::WithParamInterface<Target> {};

TEST_P(ToolThrough, ShowAndCommitLandOnThePrimaryAndReachTheStandby) {
  const Settings settings = GetParam().settings();
  const std::string dn = std::string("cn=") + GetParam().name;
  EXPECT_EQ(runTool(settings, {"alice"}), shown("cn=alice"));
  EXPECT_EQ(runTool(settings, {"alice", dn, "COMMIT"}), committed("cn=alice", dn));
  EXPECT_EQ(storedOn(primary()), tags(dn));
  awaitReplay();
  EXPECT_EQ(storedOn(standby()), tags(dn));
}

// The policy writers and the user removers run BEGIN ... END or ROLLBACK on
// one connection: through every target they commit whole or not at all, and
// through the pooler they leave nothing on its one shared server connection
// for the next client.
TEST_P(LibraryThrough, TransactionsCommitWholeOrNotAtAll) {
  dbctx *context = ctx;
  std::unique_ptr<dbctx, decltype(&qn_db_destroyDbCtx)> configured(nullptr, qn_db_destroyDbCtx);
  if (const std::string config = GetParam().config(); !config.empty()) {
    const std::string path = env("MFA_REPLICATION_DIR") + "/mfadb.conf";
    std::ofstream(path) << config;
    ASSERT_EQ(qn_db_createDBCtx(&context, nullptr, path.c_str()), 0);
    configured.reset(context);
  }
  const int ldap = factorId("QMXLDAP1");
  const int missing[] = {ldap, 9999};
  const int both[] = {ldap, factorId("QMXTOTP1")};
  std::vector<const char *> names = {"QMXLDAP1", "QMXTOTP1"};
  userPolicyData strong{const_cast<char *>("strong"),
                        const_cast<char *>("two factors"),
                        30,
                        2,
                        2,
                        const_cast<char **>(names.data()),
                        nullptr};
  userPolicyData narrowed = strong;
  narrowed.policynote = const_cast<char *>("LDAP only");
  narrowed.numFactors = 1;

  ScopedSettings scope(GetParam().settings());
  mfatest::captureStdout([&] {
    EXPECT_EQ(qn_db_policyCreate(context, &strong), 0);
    EXPECT_EQ(qn_db_policyCreateREST(context, "broken", "", 0, 0, 2, missing), QN_DB_INSERT_FAILED);
    EXPECT_EQ(qn_db_policyUpdate(context, &narrowed), 0);
    EXPECT_EQ(qn_db_policyCreateREST(context, "gone", "", 0, 0, 2, both), 0);
    EXPECT_EQ(qn_db_policyDelete(context, "gone"), 0);
    int bob = 0, carol = 0;
    EXPECT_EQ(qn_db_userAdd(context, "bob", "Bob", 0, "", &bob), 0);
    EXPECT_EQ(qn_db_userAdd(context, "carol", "Carol", 0, "", &carol), 0);
    EXPECT_EQ(qn_db_userPolicyConnect(context, "bob", "strong"), 0);
    EXPECT_EQ(qn_db_userPolicyConnect(context, "carol", "strong"), 0);
    EXPECT_EQ(qn_db_userRemove(context, "bob"), 0);
    EXPECT_EQ(qn_db_userRemoveById(context, carol), 0);
  });
  EXPECT_EQ(valueOn(primary(), "select string_agg(unixuid, ',') from qmx_user"), "alice");
  EXPECT_EQ(valueOn(primary(), "select count(*) from qmx_userpolicy"), "0");
  EXPECT_EQ(valueOn(primary(), "select string_agg(concat_ws('|', policyname, policynote, "
                               "factorname), ',') from qmx_policy left join qmx_policyfactor "
                               "using (policyid) left join qmx_factor using (factorid)"),
            "strong|LDAP only|QMXLDAP1");

  // Asked on a connection made as the library makes its own. The pooler
  // itself keeps the parameters it tracks in step with SET.
  EXPECT_EQ(valueWith(context->connectionString, "select count(*) from pg_prepared_statements"),
            "0");
  EXPECT_EQ(valueWith(context->connectionString,
                      "select string_agg(name, ',') from pg_settings where source = 'session' "
                      "and name not in ('application_name', 'client_encoding', 'DateStyle', "
                      "'TimeZone', 'standard_conforming_strings')"),
            "");
}

const auto kTargetName = [](const testing::TestParamInfo<Target> &info) {
  return std::string(info.param.name);
};
INSTANTIATE_TEST_SUITE_P(Targets, ToolThrough,
                         testing::Values(kPrimary, kHostList, kPooler, kService), kTargetName);
INSTANTIATE_TEST_SUITE_P(Targets, LibraryThrough,
                         testing::Values(kPrimary, kHostList, kPooler, kService, kConfigFile),
                         kTargetName);

TEST_F(Replicated, StandbyAloneShowsButRefusesToCommit) {
  awaitReplay();
  const Settings alone = {{"PGHOST", standby()}, {"PGPORT", kPort}};
  EXPECT_EQ(runTool(alone, {"alice"}), shown("cn=alice"));
  EXPECT_EQ(runTool(alone, {"alice", "cn=new", "COMMIT"}),
            (Outcome{existing("cn=alice") + pending("cn=new") +
                         "update failed: ERROR:  cannot execute INSERT in a read-only transaction\n"
                         "<stamp> QMXLDAP1:Error setting LDAP factor data (sts=80107)\n",
                     "KVTR2406E K_factor error: gavrc=0, korsrc=0, korsrsn=0x0 (Set user factor "
                     "data, factor=QMXLDAP1, userid=alice, sts=80107)\n",
                     QN_DB_UPDATE_FAILED & 0xff}));
  EXPECT_EQ(storedOn(primary()), tags("cn=alice"));
}

// Runs one step of the topology's failover from scripts/lib.
void topology(const char *step) {
  const std::string command = "bash -c 'source \"$0/scripts/lib/common.sh\" && source "
                              "\"$0/scripts/lib/service-postgres.sh\" && source "
                              "\"$0/scripts/lib/service-replication.sh\" && " +
                              std::string(step) + " \"$MFA_REPLICATION_DIR\"' " MFA_SOURCE_DIR;
  ASSERT_EQ(std::system(command.c_str()), 0) << step;
}

// The same invocation, with either order of the host list, writes to the
// primary, fails cleanly while no primary is up, and writes to the promoted
// standby afterwards. This case ends with the old primary down.
TEST_F(Replicated, FailoverMovesTheSameInvocationToTheNewPrimary) {
  const std::array<Settings, 2> orders = {hostList(standby(), primary()),
                                          hostList(primary(), standby())};
  std::string dn = "cn=alice";
  auto commitEach = [&](const std::string &phase, const std::string &server) {
    for (size_t i = 0; i < orders.size(); i++) {
      const std::string next = "cn=" + phase + std::to_string(i);
      EXPECT_EQ(runTool(orders[i], {"alice", next, "COMMIT"}), committed(dn, next));
      dn = next;
      EXPECT_EQ(storedOn(server), tags(dn));
    }
  };
  commitEach("before", primary());

  topology("replication_stop_primary");
  if (HasFatalFailure())
    return;
  std::string refused;
  {
    ScopedSettings scope(orders[0]);
    PGconn *probe = PQconnectdb("dbname=mfadb ");
    refused = std::string("Connection to database failed: ") + PQerrorMessage(probe);
    PQfinish(probe);
  }
  ASSERT_NE(refused.find("read-only"), std::string::npos) << refused;
  // Without a primary even the read is refused; the record starts empty.
  const std::string readFailed =
      refused + "<stamp> QMXLDAP1:pq_userMFAData_create error (userid=alice,status=80101)\n" +
      "Unable to get existing QMXLDAP1 user data for alice (sts=1200052), using defaults.\n" +
      pending("cn=down", "<not set>");
  EXPECT_EQ(runTool(orders[0], {"alice", "cn=down"}),
            (Outcome{readFailed + "Did not attempt to commit QMXLDAP1 factor data for alice.\n", "",
                     1200052 & 0xff}));
  // Which error line ends a commit that could not read is pinned by the
  // tool's own tests; here it matters that the run fails and writes nothing.
  const Outcome commit = runTool(orders[0], {"alice", "cn=down", "COMMIT"});
  EXPECT_EQ(commit.out.substr(0, readFailed.size()), readFailed);
  EXPECT_EQ(commit.err.substr(0, 4), "KVTR");
  EXPECT_NE(commit.status, 0);
  EXPECT_EQ(storedOn(standby()), tags(dn));

  topology("replication_promote");
  if (HasFatalFailure())
    return;
  commitEach("after", standby());
}

} // namespace
