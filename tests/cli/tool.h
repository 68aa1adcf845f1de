// Running the built ldapfactor as a user would, and the database fixture of
// the command-line tests.
#pragma once

#include "support/pgtest.h"

#include <string>
#include <utility>
#include <vector>

namespace clitest {

struct Run {
  std::string out; // time stamps replaced by "<stamp>"
  std::string err;
  int status = -1; // exit status, or 128 + signal
};

using Environment = std::vector<std::pair<std::string, std::string>>;

std::string toolPath();

// Runs the tool with args (after the invocation name) and the test's
// environment with overrides set. MFA_LDAPFACTOR_WRAPPER, a blank-separated
// command, is put in front of the tool when set (the valgrind runs use it).
Run runTool(const std::vector<std::string> &args, const Environment &overrides = {});

class LdapFactorDb : public mfatest::PgTest {
protected:
  // Stores a QMXLDAP1 factor with this tag text for an existing user.
  void addLdapFactor(const std::string &userid, const std::string &tags);
  // The user's stored QMXLDAP1 tag text.
  std::string storedTags(const std::string &userid);
};

} // namespace clitest
