#include "toolrun.h"

#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <fcntl.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <regex>

namespace clitest {

const std::string kNotPrepared = "not prepared: ";

namespace {

std::string readBack(int fd) {
  std::string text;
  char buffer[4096];
  lseek(fd, 0, SEEK_SET);
  for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<size_t>(got));
  close(fd);
  static const std::regex stamp(R"(\d{4}-\d{2}-\d{2}-\d{2}-\d{2}-\d{2}\.\d{6} )");
  return std::regex_replace(text, stamp, "<stamp> ");
}

// Makes the datagram socket at socketPath this process's system log: in a
// private mount namespace /dev gets a writable layer (kept in a tmpfs at
// layer) in which /dev/log links to the socket.
std::string logTo(const std::string &socketPath, const std::string &layer) {
  auto failed = [](const char *step) { return std::string(step) + ": " + strerror(errno); };
  if (unshare(CLONE_NEWNS) != 0)
    return failed("unshare");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return failed("private mounts");
  if (mount("tmpfs", layer.c_str(), "tmpfs", 0, nullptr) != 0 ||
      mkdir((layer + "/upper").c_str(), 0755) != 0 || mkdir((layer + "/work").c_str(), 0755) != 0)
    return failed("layer");
  const std::string options =
      "lowerdir=/dev,upperdir=" + layer + "/upper,workdir=" + layer + "/work";
  if (mount("overlay", "/dev", "overlay", 0, options.c_str()) != 0)
    return failed("overlay on /dev");
  unlink("/dev/log");
  if (symlink(socketPath.c_str(), "/dev/log") != 0)
    return failed("/dev/log");
  return "";
}

} // namespace

Started start(const std::string &tool, const Row &run, const Prepare &prepare) {
  std::vector<std::string> words = {"/bin/sh", "-c", R"(exec $MFA_LDAPFACTOR_WRAPPER "$0" "$@")",
                                    tool};
  words.insert(words.end(), run.args.begin(), run.args.end());
  std::vector<char *> argv;
  for (std::string &word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);

  const int out = memfd_create("stdout", 0);
  const int err = memfd_create("stderr", 0);
  const int in = memfd_create("stdin", 0);
  EXPECT_EQ(write(in, run.input.data(), run.input.size()), static_cast<ssize_t>(run.input.size()));
  lseek(in, 0, SEEK_SET);
  int pipeEnds[2] = {-1, -1};
  if (run.sink == Sink::ClosedPipe && pipe(pipeEnds) == 0)
    close(pipeEnds[0]); // nobody will ever read
  const pid_t child = fork();
  if (child == 0) {
    for (const auto &[name, value] : run.env)
      setenv(name.c_str(), value.c_str(), 1);
    if (const std::string why = prepare ? prepare() : ""; !why.empty()) {
      const std::string text = kNotPrepared + why;
      (void)!write(err, text.data(), text.size());
      _exit(127);
    }
    int sink = run.sink == Sink::Full         ? open("/dev/full", O_WRONLY)
               : run.sink == Sink::ClosedPipe ? pipeEnds[1]
                                              : out;
    dup2(in, STDIN_FILENO);
    dup2(sink, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(in);
  if (pipeEnds[1] >= 0)
    close(pipeEnds[1]);
  return {child, out, err};
}

Ran finish(const Started &started) {
  int wstatus = 0;
  EXPECT_EQ(waitpid(started.pid, &wstatus, 0), started.pid) << strerror(errno);
  return {WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus),
          readBack(started.out), readBack(started.err)};
}

void expectRun(const std::string &tool, const Row &row) {
  SCOPED_TRACE(testing::PrintToString(row.args));
  const Ran ran = runRow(tool, row);
  EXPECT_EQ(ran.status, row.status);
  EXPECT_EQ(ran.out, row.out);
  EXPECT_EQ(ran.err, row.err);
}

std::string noServer() {
  PGconn *probe = PQconnectdb(("dbname=mfadb port=5432 host=" + kNoHost).c_str());
  const std::string text = std::string("Connection to database failed: ") + PQerrorMessage(probe);
  PQfinish(probe);
  return text;
}

std::string osUser() {
  const passwd *me = getpwuid(getuid());
  return " uid=" + std::to_string(getuid()) +
         (me ? " osuser=\"" + std::string(me->pw_name) + "\"" : "");
}

void ToolTest::SetUp() {
  PgTest::SetUp();
  if (IsSkipped() || HasFatalFailure())
    return;
  for (const StoredTags &stored : {kStoredTags, more_})
    for (const auto &[userid, tags] : stored) {
      addUser(userid);
      store(userid, tags);
    }
  for (const std::string &userid : bare_)
    addUser(userid);
}

void ToolTest::store(const std::string &userid, const std::string &tags) {
  sql("insert into qmx_userfactor (userid, factorid, factortags, isactive) select u.userid, "
      "f.factorid, " +
      mfatest::quoted(tags) + ", 1 from qmx_user u, qmx_factor f where u.unixuid = " +
      mfatest::quoted(userid) + " and f.factorname = 'QMXLDAP1'");
}

std::string ToolTest::storedTags(const std::string &userid) {
  return value("select uf.factortags from qmx_userfactor uf join qmx_user u using (userid) "
               "where u.unixuid = " +
               mfatest::quoted(userid));
}

mfatest::Rows ToolTest::everyRow() {
  return sql("select * from qmx_userfactor order by userfactorid");
}

void ToolTest::expectLogged(LogCapture &log, const std::vector<std::string> &args,
                            const std::string &line, const Environment &env) {
  SCOPED_TRACE(testing::PrintToString(args));
  ASSERT_EQ(log.failure(), "");
  const Ran ran = runRow(tool_, {args, "", 0, "", env}, log.prepare());
  if (ran.err.starts_with(kNotPrepared))
    GTEST_SKIP() << "the system log cannot be replaced without a private mount namespace and an "
                    "overlay on /dev ("
                 << ran.err.substr(kNotPrepared.size()) << ")";
  // "<priority>Mmm dd hh:mm:ss tool[pid]: ..."
  static const std::regex stamp(R"(^(<\d+>)\w{3} [ \d]\d \d{2}:\d{2}:\d{2} ([\w-]+)\[\d+\])");
  EXPECT_EQ(std::regex_replace(log.take(), stamp, "$1$2[pid]"), line);
}

LogCapture::LogCapture() {
  dir_ = testing::TempDir() + "ldapfactor-log.XXXXXX";
  if (mkdtemp(dir_.data()) == nullptr || mkdir((dir_ + "/layer").c_str(), 0755) != 0) {
    failure_ = std::string("temporary directory: ") + strerror(errno);
    return;
  }
  socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = dir_ + "/log";
  if (path.size() >= sizeof address.sun_path) {
    failure_ = "socket path too long: " + path;
    return;
  }
  strcpy(address.sun_path, path.c_str());
  if (bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
    failure_ = std::string("bind: ") + strerror(errno);
}

LogCapture::~LogCapture() {
  close(socket_);
  for (const char *name : {"/log", "/layer", ""})
    remove((dir_ + name).c_str());
}

Prepare LogCapture::prepare() const {
  return [dir = dir_] { return logTo(dir + "/log", dir + "/layer"); };
}

std::string LogCapture::take() {
  std::string received;
  char buffer[2048];
  for (ssize_t got; (got = recv(socket_, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;)
    received.append(buffer, static_cast<size_t>(got));
  return received;
}

} // namespace clitest
