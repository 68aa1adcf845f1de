// Fixture for tests against the database that scripts/test starts: each case
// begins with empty tables holding only the schema's seed rows and gets a
// database context for the default connection string.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mfadata/dbctx.h"

namespace mfatest {

using Rows = std::vector<std::vector<std::string>>;

class PgTest : public ::testing::Test {
protected:
  void SetUp() override;
  void TearDown() override;

  // Runs statements on a connection of the test's own; fails the test when
  // they do not succeed.
  void sql(const std::string &statements);
  // Every row of a query as text ("<null>" for SQL nulls).
  Rows query(const std::string &select);
  // The first column of the first row, or "<none>" when there is no row.
  std::string value(const std::string &select);

  // A user row with the given uid; returns its userid.
  int addUser(const std::string &unixuid);
  // A factor row with the given name; returns its factorid.
  int addFactor(const std::string &factorName, const std::string &note = "");
  int factorId(const std::string &factorName);

  dbctx *ctx = nullptr;
};

// SQL text for a string value between single quotes.
std::string quoted(const std::string &text);

} // namespace mfatest
