#include "tool.h"

#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <regex>
#include <sstream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace clitest {
namespace {

std::vector<std::string> environmentWith(const Environment &overrides) {
  std::vector<std::string> entries;
  for (char **entry = environ; *entry != nullptr; entry++) {
    std::string text = *entry;
    bool replaced = false;
    for (const auto &[name, value] : overrides)
      replaced = replaced || text.compare(0, name.size() + 1, name + "=") == 0;
    if (!replaced)
      entries.push_back(text);
  }
  for (const auto &[name, value] : overrides)
    entries.push_back(name + "=" + value);
  return entries;
}

std::vector<char *> pointers(std::vector<std::string> &texts) {
  std::vector<char *> result;
  for (std::string &text : texts)
    result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

std::string readAll(int fd) {
  std::string text;
  lseek(fd, 0, SEEK_SET);
  char buffer[4096];
  ssize_t got;
  while ((got = read(fd, buffer, sizeof buffer)) > 0)
    text.append(buffer, static_cast<size_t>(got));
  close(fd);
  return text;
}

std::string maskStamps(const std::string &text) {
  static const std::regex stamp(R"(\d{4}-\d{2}-\d{2}-\d{2}-\d{2}-\d{2}\.\d{6} )");
  return std::regex_replace(text, stamp, "<stamp> ");
}

// Sets the variables for the lifetime of the guard, restoring them after.
struct ScopedEnvironment {
  std::vector<std::pair<std::string, std::unique_ptr<std::string>>> saved;
  explicit ScopedEnvironment(const Environment &overrides) {
    for (const auto &[name, value] : overrides) {
      const char *old = getenv(name.c_str());
      saved.emplace_back(name, old ? std::make_unique<std::string>(old) : nullptr);
      setenv(name.c_str(), value.c_str(), 1);
    }
  }
  ~ScopedEnvironment() {
    for (const auto &[name, old] : saved) {
      if (old)
        setenv(name.c_str(), old->c_str(), 1);
      else
        unsetenv(name.c_str());
    }
  }
};

} // namespace

std::string toolPath() {
  return MFA_BINARY_DIR "/bin/ldapfactor";
}

Run runTool(const std::vector<std::string> &args, const Environment &overrides) {
  std::vector<std::string> argv;
  if (const char *wrapper = getenv("MFA_LDAPFACTOR_WRAPPER")) {
    std::istringstream words(wrapper);
    for (std::string word; words >> word;)
      argv.push_back(word);
  }
  argv.push_back(toolPath());
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<std::string> env = environmentWith(overrides);
  std::vector<char *> argvPointers = pointers(argv);
  std::vector<char *> envPointers = pointers(env);

  int out = memfd_create("stdout", 0);
  int err = memfd_create("stderr", 0);
  Run run;
  if (out < 0 || err < 0) {
    ADD_FAILURE() << "memfd_create: " << strerror(errno);
    return run;
  }
  fflush(nullptr);
  pid_t child = fork();
  if (child == 0) {
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execvpe(argvPointers[0], argvPointers.data(), envPointers.data());
    _exit(127);
  }
  int wstatus = 0;
  if (child < 0 || waitpid(child, &wstatus, 0) != child) {
    ADD_FAILURE() << "could not run " << argv[0] << ": " << strerror(errno);
  } else {
    run.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
  }
  run.out = maskStamps(readAll(out));
  run.err = maskStamps(readAll(err));
  return run;
}

std::string connectionError(const Environment &overrides) {
  ScopedEnvironment scoped(overrides);
  PGconn *connection = PQconnectdb("dbname=mfadb ");
  std::string message = PQerrorMessage(connection);
  PQfinish(connection);
  return message;
}

void LdapFactorDb::addLdapFactor(const std::string &userid, const std::string &tags) {
  sql("insert into qmx_userfactor (userid, factorid, factortags, isactive) "
      "select u.userid, f.factorid, " +
      mfatest::quoted(tags) + ", 1 from qmx_user u, qmx_factor f where u.unixuid = " +
      mfatest::quoted(userid) + " and f.factorname = 'QMXLDAP1'");
}

std::string LdapFactorDb::storedTags(const std::string &userid) {
  return value("select uf.factortags from qmx_userfactor uf, qmx_user u, qmx_factor f "
               "where uf.userid = u.userid and uf.factorid = f.factorid and u.unixuid = " +
               mfatest::quoted(userid) + " and f.factorname = 'QMXLDAP1'");
}

} // namespace clitest
