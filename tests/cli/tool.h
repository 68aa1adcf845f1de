// Running the built ldapfactor as a user would, and the database fixture of
// the command-line tests.
#pragma once

#include "support/pgtest.h"

#include <string>
#include <utility>
#include <vector>

namespace clitest {

struct Run {
  std::string out;
  std::string err;
  int status = -1; // exit status, or 128 + signal
};

using Environment = std::vector<std::pair<std::string, std::string>>;

// Path of the executable under test.
std::string toolPath();

// Runs the tool with args (after the invocation name) and the environment of
// the test process with overrides applied. Every time stamp in the output is
// replaced by "<stamp>". MFA_LDAPFACTOR_WRAPPER, a blank-separated command,
// is put in front of the tool when set (used for the valgrind runs).
Run runTool(const std::vector<std::string> &args, const Environment &overrides = {});

// The text libpq reports when "dbname=mfadb " is tried with overrides applied.
std::string connectionError(const Environment &overrides);

class LdapFactorDb : public mfatest::PgTest {
protected:
  // Stores a QMXLDAP1 factor with this tag text for an existing user.
  void addLdapFactor(const std::string &userid, const std::string &tags);
  // The user's stored QMXLDAP1 tag text.
  std::string storedTags(const std::string &userid);
};

} // namespace clitest
