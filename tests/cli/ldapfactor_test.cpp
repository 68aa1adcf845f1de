// The ldapfactor executable run as an administrator would run it, against the
// test database, with its output compared byte for byte; and the record's
// field description, the other reader of the stored data.
#include "cli/ldapuser.h"
#include "support/env.h"
#include "support/pgtest.h"

#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <regex>

namespace {

using Values = std::array<std::string, 4>; // DN, SEARCHVAL, SEARCHVAL2, SEARCHVAL3
const std::string kNotSet = "<not set>";
const Values kNothing = {kNotSet, kNotSet, kNotSet, kNotSet};
const Values kAlice = {"cn=alice,dc=example,dc=com", "alice@example.com", kNotSet, kNotSet};

std::string block(const std::string &title, const std::string &user, const Values &v) {
  return title + user + ":\n  DN: " + v[0] + "\n  SEARCHVAL: " + v[1] + "\n  SEARCHVAL2: " + v[2] +
         "\n  SEARCHVAL3: " + v[3] + "\n";
}
std::string existing(const std::string &user, const Values &v) {
  return block("Existing QMXLDAP1 factor data for user ", user, v);
}
std::string unable(const std::string &user, int status) {
  return "Unable to get existing QMXLDAP1 user data for " + user +
         " (sts=" + std::to_string(status) + "), using defaults.\n";
}
std::string noFactors(const std::string &user) {
  return "No factors returned for user " + user + "\n" + unable(user, 69802);
}
// What follows the existing data: the pending data and whether it was committed.
std::string pending(const std::string &user, const Values &v, bool committed = false) {
  return block("Pending QMXLDAP1 tag data for user ", user, v) +
         (committed ? "Committed QMXLDAP1 factor data for " + user + ".\n"
                    : "Did not attempt to commit QMXLDAP1 factor data for " + user + ".\n");
}

using Environment = std::vector<std::pair<std::string, std::string>>;

const std::string kTool = MFA_BINARY_DIR "/bin/ldapfactor";

struct Row {
  std::vector<std::string> args;
  std::string out; // time stamps masked as "<stamp> "
  int status;      // exit status, or 128 + signal
  std::string err = "";
};

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

// Runs the tool with the row's arguments and the test's environment with
// overrides set, and compares what it wrote and its exit status with the row.
// The shell puts the words of MFA_LDAPFACTOR_WRAPPER, when set, in front of
// the tool (the valgrind runs use it).
void expectRun(const Row &row, const Environment &overrides = {}) {
  SCOPED_TRACE(testing::PrintToString(row.args));
  std::vector<std::string> words = {"/bin/sh", "-c", R"(exec $MFA_LDAPFACTOR_WRAPPER "$0" "$@")",
                                    kTool};
  words.insert(words.end(), row.args.begin(), row.args.end());
  std::vector<char *> argv;
  for (std::string &word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);

  const int out = memfd_create("stdout", 0);
  const int err = memfd_create("stderr", 0);
  const pid_t child = fork();
  if (child == 0) {
    for (const auto &[name, value] : overrides)
      setenv(name.c_str(), value.c_str(), 1);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  int wstatus = 0;
  ASSERT_EQ(waitpid(child, &wstatus, 0), child) << strerror(errno);
  EXPECT_EQ(WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus), row.status);
  EXPECT_EQ(readBack(out), row.out);
  EXPECT_EQ(readBack(err), row.err);
}

TEST(LdapFactorGrammar, UsageWithoutArgumentsOrOnGrammarErrors) {
  const std::string usage =
      "Usage: " + kTool +
      " <UserID> [\"<UserDN>\" [\"<SEARCHVAL>\" [\"<SEARCHVAL2>\" [\"<SEARCHVAL3>\"]]]] "
      "[COMMIT]\nEnclose the user's bind DN and SEARCHVALs in double-quotes to preserve spaces.\n";
  for (const Row &row : std::vector<Row>{{{}, usage, 0},
                                         {{"u", "a", "b", "c", "d", "e"}, usage, 254},
                                         {{"u", "a", "COMMIT", "b"}, usage, 253},
                                         {{"u", "COMMIT", "COMMIT"}, usage, 253},
                                         {{"u", "a", "b", "c", "d", "COMMIT", "x"}, usage, 253}})
    expectRun(row);
}

const std::vector<std::pair<std::string, std::string>> kStoredTags = {
    {"alice",
     R"({"DN":"cn=alice,dc=example,dc=com","SEARCHVAL":"alice@example.com","LASTSEARCH":"17"})"},
    {"malformed", R"({"DN":)"},
    {"twice", R"({"DN":"a","DN":"b"})"},
    {"unknown", R"({"DN":"a","COLOUR":"blue"})"},
};

// Users with the QMXLDAP1 tags of kStoredTags, and bob and carol without
// factor data.
class LdapFactorTool : public mfatest::PgTest {
protected:
  void SetUp() override {
    PgTest::SetUp();
    if (IsSkipped() || HasFatalFailure())
      return;
    for (const auto &[userid, tags] : kStoredTags) {
      addUser(userid);
      sql("insert into qmx_userfactor (userid, factorid, factortags, isactive) select u.userid, "
          "f.factorid, " +
          mfatest::quoted(tags) + ", 1 from qmx_user u, qmx_factor f where u.unixuid = " +
          mfatest::quoted(userid) + " and f.factorname = 'QMXLDAP1'");
    }
    addUser("bob");
    addUser("carol");
  }

  std::string storedTags(const std::string &userid) {
    return value("select uf.factortags from qmx_userfactor uf join qmx_user u using (userid) "
                 "where u.unixuid = " +
                 mfatest::quoted(userid));
  }
};

TEST_F(LdapFactorTool, ShowingWritesNothing) {
  const Values lowerCase = {"commit", kAlice[1], kNotSet, kNotSet};
  const std::vector<Row> rows = {
      {{"alice"}, existing("alice", kAlice) + pending("alice", kAlice), 0},
      {{"alice", "commit"}, existing("alice", kAlice) + pending("alice", lowerCase), 0},
      {{"bob"}, noFactors("bob") + pending("bob", kNothing), 170},
      {{"COMMIT"}, noFactors("COMMIT") + pending("COMMIT", kNothing), 170},
      // Text that is not a JSON object reads as a factor without tags.
      {{"malformed"}, existing("malformed", kNothing) + pending("malformed", kNothing), 0},
      {{"twice"}, unable("twice", 69803) + pending("twice", kNothing), 69803 & 0xff},
      {{"unknown"}, unable("unknown", 69803) + pending("unknown", kNothing), 69803 & 0xff},
  };
  for (const Row &row : rows)
    expectRun(row);
  for (const auto &[userid, tags] : kStoredTags)
    EXPECT_EQ(storedTags(userid), tags);
}

TEST_F(LdapFactorTool, CommittingReplacesTheValuesGiven) {
  // COMMIT after each number of values: the values given replace the stored
  // ones, the others stay, the counter restarts and the factor becomes active.
  sql("update qmx_userfactor set isactive = 0");
  const Values given = {"cn=new", "s1", "s2", "s3"};
  const char *stored[] = {
      R"({"DN":"cn=alice,dc=example,dc=com","SEARCHVAL":"alice@example.com","LASTSEARCH":"0"})",
      R"({"DN":"cn=new","SEARCHVAL":"alice@example.com","LASTSEARCH":"0"})",
      R"({"DN":"cn=new","SEARCHVAL":"s1","LASTSEARCH":"0"})",
      R"({"DN":"cn=new","SEARCHVAL":"s1","SEARCHVAL2":"s2","LASTSEARCH":"0"})",
      R"({"DN":"cn=new","SEARCHVAL":"s1","SEARCHVAL2":"s2","SEARCHVAL3":"s3","LASTSEARCH":"0"})"};
  Values before = kAlice;
  for (size_t count = 0; count <= given.size(); count++) {
    std::vector<std::string> args = {"alice"};
    Values after = before;
    for (size_t i = 0; i < count; i++)
      args.push_back(after[i] = given[i]);
    args.push_back("COMMIT");
    expectRun({args, existing("alice", before) + pending("alice", after, true), 0});
    EXPECT_EQ(storedTags("alice"), stored[count]);
    before = after;
  }
  EXPECT_EQ(value("select isactive from qmx_userfactor uf join qmx_user u using (userid) "
                  "where u.unixuid = 'alice'"),
            "1");

  const Values emptyDn = {"", kNotSet, kNotSet, kNotSet};
  expectRun({{"bob", "", "COMMIT"}, noFactors("bob") + pending("bob", emptyDn, true), 0});
  EXPECT_EQ(storedTags("bob"), R"({"DN":"","LASTSEARCH":"0"})");

  // Quotes, commas, blanks, a backslash and non-ASCII text come back unchanged.
  const std::string dn = "cn=\"O'Brien, Zoë\",ou=Ventes Europe,dc=例え \\ end";
  const Values unusual = {dn, "", "  two  blanks ", kNotSet};
  expectRun({{"carol", dn, "", unusual[2], "COMMIT"},
             noFactors("carol") + pending("carol", unusual, true),
             0});
  EXPECT_EQ(storedTags("carol"),
            R"({"DN":"cn=\"O'Brien, Zoë\",ou=Ventes Europe,dc=例え \\ end",)"
            R"("SEARCHVAL":"","SEARCHVAL2":"  two  blanks ","LASTSEARCH":"0"})");
  expectRun({{"carol"}, existing("carol", unusual) + pending("carol", unusual), 0});
}

TEST_F(LdapFactorTool, FieldDescriptionShowsTheStoredValues) {
  auto fields = [&](const char *userid) {
    char *json = nullptr;
    int length = 0, status = -1;
    mfatest::captureStdout(
        [&] { status = ldapuser_createTagsFieldsJson(ctx, "QMXLDAP1", userid, &json, &length); });
    std::string result = std::to_string(status) + ":" + std::string(json ? json : "", length);
    freeString(json);
    return result;
  };
  const std::string alice =
      R"("fields":[{"fieldLabel":"Fully Qualified DN","fieldType":"textField","fieldName":"DN",)"
      R"("fieldAttr":{"isOptional":1,"maxLength":255},"fieldValue":"cn=alice,dc=example,dc=com"},)"
      R"({"fieldLabel":"Search value 1","fieldType":"textField","fieldName":"SEARCHVAL",)"
      R"("fieldAttr":{"isOptional":1,"maxLength":255},"fieldValue":"alice@example.com"},)"
      R"({"fieldLabel":"Search value 2","fieldType":"textField","fieldName":"SEARCHVAL2",)"
      R"("fieldAttr":{"isOptional":1,"maxLength":255},"fieldValue":""},)"
      R"({"fieldLabel":"Search value 3","fieldType":"textField","fieldName":"SEARCHVAL3",)"
      R"("fieldAttr":{"isOptional":1,"maxLength":255},"fieldValue":""},)"
      R"({"fieldLabel":"Last search timestamp","fieldType":"textField","fieldName":"LASTSEARCH",)"
      R"("fieldValue":17,"fieldAttr":{"isOptional":1,"displayOnly":1}}])";
  EXPECT_EQ(fields("alice"), "0:" + alice);
  // Without stored data the same fields come without values.
  EXPECT_EQ(fields("nobody"),
            "0:" + std::regex_replace(alice,
                                      std::regex(R"(,"fieldValue":"[^"]*"|"fieldValue":17,)"), ""));
}

// Reading and committing while no server runs: a socket directory that does
// not exist.
TEST(LdapFactorDatabaseDown, ReadingAndCommitting) {
  const Environment down = {{"PGHOST", "/nonexistent/mfa"}, {"PGPORT", "5432"}};
  PGconn *probe = PQconnectdb("dbname=mfadb host=/nonexistent/mfa port=5432");
  const std::string noServer =
      std::string("Connection to database failed: ") + PQerrorMessage(probe);
  PQfinish(probe);
  ASSERT_NE(noServer.find("/nonexistent/mfa"), std::string::npos) << noServer;

  const std::string readFailed =
      noServer + "<stamp> QMXLDAP1:pq_userMFAData_create error (userid=alice,status=80101)\n" +
      unable("alice", 1200052);
  const Values given = {"cn=alice", kNotSet, kNotSet, kNotSet};
  expectRun({{"alice", "cn=alice"}, readFailed + pending("alice", given), 1200052 & 0xff}, down);
  expectRun({{"alice", "cn=alice", "COMMIT"},
             readFailed + block("Pending QMXLDAP1 tag data for user ", "alice", given) + noServer +
                 "<stamp> QMXLDAP1:Error setting LDAP factor data (sts=80101)\n",
             80101 & 0xff,
             "KVTR2406E K_factor error: gavrc=0, korsrc=0, korsrsn=0x0 (Set user factor data, "
             "factor=QMXLDAP1, userid=alice, sts=80101)\n"},
            down);
}

} // namespace
