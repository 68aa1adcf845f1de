// Running the built ldapfactor as a user would, and seeding its database.
#pragma once

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

// Runs SQL on the mfadb database; fails the test on error. Returns the first
// column of the first row, or "" when there is none.
std::string sql(const std::string &statement);

// Empties the tables the tool reads and writes.
void resetDatabase();

// Stores an MFA user, and a QMXLDAP1 factor with the given tag text for an
// existing one.
void addUser(const std::string &userid);
void addLdapFactor(const std::string &userid, const std::string &tags);

// The QMXLDAP1 tag text stored for the user.
std::string storedTags(const std::string &userid);

} // namespace clitest
