// Runs the command-line tools as an administrator would: with arguments,
// environment overrides and standard output captured, sent to a full disk
// or to a closed pipe, and with the system log replaced by a socket of the
// test.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace clitest {

using Environment = std::vector<std::pair<std::string, std::string>>;

// Where the tool's standard output goes.
enum class Sink { Captured, Full, ClosedPipe };

// Runs in the child before the tool starts; a non-empty answer is why the
// child could not be made ready, and the tool is not started.
using Prepare = std::function<std::string()>;
// What the child writes to standard error, before the reason, when Prepare
// failed.
extern const std::string kNotPrepared;

struct Run {
  std::string tool;
  std::vector<std::string> args;
  Environment env = {}; // overrides of the test's environment
  Sink sink = Sink::Captured;
  Prepare prepare = {};
  std::string input = ""; // standard input
};

struct Ran {
  int status;           // exit status, or 128 + signal
  std::string out, err; // time stamps masked as "<stamp> "
};

// A tool started and not yet waited for.
struct Started {
  pid_t pid;
  int out, err;
};

// The shell puts the words of MFA_LDAPFACTOR_WRAPPER, when set, in front of
// the tool (the valgrind runs use it).
Started start(const Run &run);
Ran finish(const Started &started);
inline Ran runTool(const Run &run) {
  return finish(start(run));
}

// A datagram socket of the test that stands in for /dev/log in the tools
// started with its prepare().
class LogCapture {
public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  // Empty when the socket is ready, else why not.
  const std::string &failure() const { return failure_; }
  // Makes the socket the system log of the child: a private mount namespace
  // with a writable layer over /dev in which /dev/log links to it.
  Prepare prepare() const;
  // The records received since the last call.
  std::string take();

private:
  std::string dir_;
  int socket_ = -1;
  std::string failure_;
};

} // namespace clitest
