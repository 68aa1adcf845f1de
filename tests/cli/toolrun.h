// Runs the command-line tools as an administrator would (arguments,
// environment overrides, standard input; standard output captured, sent to a
// full disk or to a closed pipe; the system log replaced by a socket of the
// test), and the database fixture and table rows of their acceptance tests.
#pragma once

#include "support/pgtest.h"

#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace clitest {

using Environment = std::vector<std::pair<std::string, std::string>>;
enum class Sink { Captured, Full, ClosedPipe }; // where standard output goes
// Runs in the child before the tool; a non-empty answer is why the child
// could not be made ready: it writes kNotPrepared and that, and ends.
using Prepare = std::function<std::string()>;
extern const std::string kNotPrepared;

struct Ran {
  int status;           // exit status, or 128 + signal
  std::string out, err; // time stamps masked as "<stamp> "
};
// A row of an acceptance table: a run of a tool (args, env, sink, input) and
// what it must write and end with.
struct Row {
  std::vector<std::string> args;
  std::string out;
  int status;
  std::string err = "";
  Environment env = {}; // overrides of the test's environment
  Sink sink = Sink::Captured;
  std::string input = ""; // standard input
};

// A tool started and not yet waited for. The shell puts the words of
// MFA_LDAPFACTOR_WRAPPER, when set, in front of the tool (the valgrind runs).
struct Started {
  pid_t pid;
  int out, err;
};
Started start(const std::string &tool, const Row &row, const Prepare &prepare = {});
Ran finish(const Started &started);
inline Ran runRow(const std::string &tool, const Row &row, const Prepare &prepare = {}) {
  return finish(start(tool, row, prepare));
}
// Runs the row and compares the output and exit status with it.
void expectRun(const std::string &tool, const Row &row);

// A server that cannot be reached, and what libpq says of it.
const std::string kNoHost = "/nonexistent/mfa";
const Environment kDown = {{"PGHOST", kNoHost}, {"PGPORT", "5432"}};
std::string noServer();
// How the system log names the invoking user: " uid=N osuser="name"".
std::string osUser();

// A datagram socket of the test that stands in for /dev/log in the tools
// started with its prepare(): a private mount namespace with a writable
// layer over /dev in which /dev/log links to it.
class LogCapture {
public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;
  const std::string &failure() const { return failure_; } // empty when ready
  Prepare prepare() const;
  std::string take(); // the records received since the last call

private:
  std::string dir_;
  int socket_ = -1;
  std::string failure_;
};

using StoredTags = std::vector<std::pair<std::string, std::string>>;
const StoredTags kStoredTags = {
    {"alice",
     R"({"DN":"cn=alice,dc=example,dc=com","SEARCHVAL":"alice@example.com","LASTSEARCH":"17"})"},
    {"malformed", R"({"DN":)"},
    {"number", R"({"DN":"a","SEARCHVAL":7})"},
    {"twice", R"({"DN":"a","DN":"b"})"},
    {"unknown", R"({"DN":"a","COLOUR":"blue"})"}};
// The users above whose tags cannot be read as the factor's record.
const std::vector<std::string> kUnreadable = {"malformed", "number", "twice", "unknown"};

// Users with the tags of kStoredTags and of more, and the users of bare
// without factor data.
class ToolTest : public mfatest::PgTest {
protected:
  ToolTest(std::string tool, StoredTags more, std::vector<std::string> bare)
      : tool_(std::move(tool)), more_(std::move(more)), bare_(std::move(bare)) {}
  void SetUp() override;

  void store(const std::string &userid, const std::string &tags);
  std::string storedTags(const std::string &userid);
  mfatest::Rows everyRow();
  void expectRun(const Row &row) const { clitest::expectRun(tool_, row); }
  // Runs the tool with log as its system log and compares what it logged
  // (time stamp and process ID masked; empty: nothing) with line; skips the
  // test where the log cannot be replaced.
  void expectLogged(LogCapture &log, const std::vector<std::string> &args, const std::string &line,
                    const Environment &env = {});

  const std::string tool_;
  const StoredTags more_;
  const std::vector<std::string> bare_;
};

} // namespace clitest
