#include "support/pgtest.h"

#include <libpq-fe.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>

#include "support/env.h"

namespace mfatest {
namespace {

using Connection = std::unique_ptr<PGconn, decltype(&PQfinish)>;
using Result = std::unique_ptr<PGresult, decltype(&PQclear)>;

// Empties every table of the schema, restarting the generated keys, and
// replays the schema's own seed rows (everything after its seed marker)
// rather than a copy of them.
const std::string &resetStatements() {
  static const std::string reset = [] {
    std::ifstream file(MFA_SOURCE_DIR "/db/schema.sql");
    std::stringstream text;
    text << file.rdbuf();
    std::string schema = text.str();
    return "do $$ begin execute (select 'truncate ' || string_agg(tablename, ',') || ' restart "
           "identity cascade' from pg_tables where schemaname = 'public'); end $$;" +
           schema.substr(std::min(schema.find("-- Seed rows"), schema.size()));
  }();
  return reset;
}

} // namespace

void runSteps(const std::vector<Step> &steps) {
  for (const Step &step : steps) {
    int status = -1;
    std::string out;
    std::string printed = captureStdout([&] { out = step.run(status); });
    printed.erase(0, std::min(printed.find("MFADB:"), printed.size()));
    EXPECT_EQ(status, step.status) << step.what;
    EXPECT_EQ(out, step.out) << step.what;
    EXPECT_EQ(printed, step.printed) << step.what;
  }
}

std::string quoted(const std::string &text) {
  std::string out = "'";
  for (char c : text)
    out += c == '\'' ? std::string("''") : std::string(1, c);
  return out + "'";
}

void PgTest::SetUp() {
  MFA_REQUIRE_SERVICE("PGHOST");
  ASSERT_NE(resetStatements().find("-- Seed rows"), std::string::npos) << "no seed rows";
  sql(resetStatements());
  ASSERT_FALSE(HasFailure());
  ASSERT_EQ(qn_db_createDBCtx(&ctx, nullptr, nullptr), 0);
}

void PgTest::TearDown() {
  qn_db_destroyDbCtx(ctx);
}

Rows PgTest::sql(const std::string &statements) {
  Connection connection(PQconnectdb("dbname=mfadb"), PQfinish);
  Result result(PQexec(connection.get(), statements.c_str()), PQclear);
  ExecStatusType status = PQresultStatus(result.get());
  EXPECT_TRUE(status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK)
      << statements << ": " << PQerrorMessage(connection.get());
  Rows rows(PQntuples(result.get()));
  for (int row = 0; row < PQntuples(result.get()); row++)
    for (int column = 0; column < PQnfields(result.get()); column++)
      rows[row].push_back(PQgetisnull(result.get(), row, column)
                              ? "<null>"
                              : PQgetvalue(result.get(), row, column));
  return rows;
}

std::string PgTest::value(const std::string &select) {
  Rows rows = sql(select);
  return rows.empty() ? "<none>" : rows[0][0];
}

int PgTest::addUser(const std::string &unixuid) {
  return std::stoi(
      value("insert into qmx_user(unixuid) values(" + quoted(unixuid) + ") returning userid"));
}

int PgTest::addFactor(const std::string &factorName, const std::string &note) {
  return std::stoi(value("insert into qmx_factor(factorname, factornote) values(" +
                         quoted(factorName) + ", " + quoted(note) + ") returning factorid"));
}

int PgTest::addPolicy(const std::string &policyName, const std::vector<std::string> &factorNames) {
  std::string id = value("insert into qmx_policy(policyname) values(" + quoted(policyName) +
                         ") returning policyid");
  for (const std::string &factor : factorNames)
    sql("insert into qmx_policyfactor select " + id +
        ", factorid from qmx_factor where factorname=" + quoted(factor));
  return std::stoi(id);
}

int PgTest::factorId(const std::string &factorName) {
  return std::stoi(value("select factorid from qmx_factor where factorname=" + quoted(factorName)));
}

} // namespace mfatest
