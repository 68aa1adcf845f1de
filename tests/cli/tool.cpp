#include "tool.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace clitest {
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

} // namespace

std::string toolPath() {
  return MFA_BINARY_DIR "/bin/ldapfactor";
}

Run runTool(const std::vector<std::string> &args, const Environment &overrides) {
  std::vector<std::string> words;
  const char *prefix = getenv("MFA_LDAPFACTOR_WRAPPER");
  std::istringstream wrapper(prefix != nullptr ? prefix : "");
  for (std::string word; wrapper >> word;)
    words.push_back(word);
  words.push_back(toolPath());
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char *> argv;
  for (std::string &word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);

  Run run;
  int out = memfd_create("stdout", 0);
  int err = memfd_create("stderr", 0);
  fflush(nullptr);
  pid_t child = out >= 0 && err >= 0 ? fork() : -1;
  if (child == 0) {
    for (const auto &[name, value] : overrides)
      setenv(name.c_str(), value.c_str(), 1);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  int wstatus = 0;
  if (child < 0 || waitpid(child, &wstatus, 0) != child)
    ADD_FAILURE() << "could not run " << argv[0] << ": " << strerror(errno);
  else
    run.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
  run.out = readBack(out);
  run.err = readBack(err);
  return run;
}

void LdapFactorDb::addLdapFactor(const std::string &userid, const std::string &tags) {
  sql("insert into qmx_userfactor (userid, factorid, factortags, isactive) select u.userid, "
      "f.factorid, " +
      mfatest::quoted(tags) + ", 1 from qmx_user u, qmx_factor f where u.unixuid = " +
      mfatest::quoted(userid) + " and f.factorname = 'QMXLDAP1'");
}

std::string LdapFactorDb::storedTags(const std::string &userid) {
  return value("select uf.factortags from qmx_userfactor uf join qmx_user u using (userid) "
               "join qmx_factor f using (factorid) where f.factorname = 'QMXLDAP1' and "
               "u.unixuid = " +
               mfatest::quoted(userid));
}

} // namespace clitest
