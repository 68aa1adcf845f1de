// Fixture for tests against the database that scripts/test starts: each case
// begins with empty tables holding only the schema's seed rows and gets a
// database context for the default connection string.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "mfadata/dbctx.h"

namespace mfatest {

using Rows = std::vector<std::vector<std::string>>;

class PgTest : public ::testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;

  // Runs statements on a connection of the test's own and returns the rows
  // of the last one as text ("<null>" for SQL nulls); fails the test when
  // they do not succeed.
  Rows sql(const std::string &statements);
  // The first column of the first row, or "<none>" when there is no row.
  std::string value(const std::string &select);

  // Rows made for a test; each returns the new row's id.
  int addUser(const std::string &unixuid);
  int addFactor(const std::string &factorName, const std::string &note = "");
  int addPolicy(const std::string &policyName, const std::vector<std::string> &factorNames);
  int factorId(const std::string &factorName);

  dbctx *ctx = nullptr;
};

// One call of a sequence run on one database: the status it must give, what
// it must hand out ("" when nothing) and what it must print from the first
// "MFADB:" on.
struct Step {
  const char *what;
  std::function<std::string(int &status)> run;
  int status;
  std::string out;
  std::string printed;
};
// Runs the steps in order, checking each.
void runSteps(const std::vector<Step> &steps);
// The run of a step whose operation hands nothing out.
template <typename Operation> std::function<std::string(int &)> writes(Operation operation) {
  return [operation](int &status) {
    status = operation();
    return std::string();
  };
}

// A step that hands nothing out, labelled by its call as written.
// clang-format off
#define MFA_CALL(status, printed, call) {#call, mfatest::writes([&] { return call; }), status, "", printed}
// clang-format on

// SQL text for a string value between single quotes.
std::string quoted(const std::string &text);

} // namespace mfatest
