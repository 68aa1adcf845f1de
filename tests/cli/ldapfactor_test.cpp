// The ldapfactor executable run as an administrator would run it, against the
// test database, with its output compared byte for byte.
#include "tool.h"

#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

namespace {

using Values = std::array<std::string, 4>; // DN, SEARCHVAL, SEARCHVAL2, SEARCHVAL3
const std::string kNotSet = "<not set>";
const Values kNothing = {kNotSet, kNotSet, kNotSet, kNotSet};

std::string block(const std::string &title, const std::string &user, const Values &v) {
  return title + user + ":\n  DN: " + v[0] + "\n  SEARCHVAL: " + v[1] + "\n  SEARCHVAL2: " + v[2] +
         "\n  SEARCHVAL3: " + v[3] + "\n";
}
std::string existing(const std::string &user, const Values &v) {
  return block("Existing QMXLDAP1 factor data for user ", user, v);
}
std::string pending(const std::string &user, const Values &v) {
  return block("Pending QMXLDAP1 tag data for user ", user, v);
}
std::string unable(const std::string &user, int status) {
  return "Unable to get existing QMXLDAP1 user data for " + user +
         " (sts=" + std::to_string(status) + "), using defaults.\n";
}
std::string noFactors(const std::string &user) {
  return "No factors returned for user " + user + "\n" + unable(user, 69802);
}
std::string notCommitted(const std::string &user) {
  return "Did not attempt to commit QMXLDAP1 factor data for " + user + ".\n";
}
std::string committed(const std::string &user) {
  return "Committed QMXLDAP1 factor data for " + user + ".\n";
}

void expectRun(const std::vector<std::string> &args, const std::string &out, int status,
               const std::string &err = "", const clitest::Environment &env = {}) {
  clitest::Run run = clitest::runTool(args, env);
  EXPECT_EQ(run.out, out);
  EXPECT_EQ(run.err, err);
  EXPECT_EQ(run.status, status);
}

TEST(LdapFactorGrammar, UsageWithoutArgumentsOrOnGrammarErrors) {
  const std::string usage =
      "Usage: " + clitest::toolPath() +
      " <UserID> [\"<UserDN>\" [\"<SEARCHVAL>\" [\"<SEARCHVAL2>\" [\"<SEARCHVAL3>\"]]]] "
      "[COMMIT]\nEnclose the user's bind DN and SEARCHVALs in double-quotes to preserve spaces.\n";
  expectRun({}, usage, 0);
  expectRun({"u", "a", "b", "c", "d", "e"}, usage, 254);
  expectRun({"u", "a", "COMMIT", "b"}, usage, 253);
  expectRun({"u", "COMMIT", "COMMIT"}, usage, 253);
  expectRun({"u", "a", "b", "c", "d", "COMMIT", "x"}, usage, 253);
}

class LdapFactorTool : public clitest::LdapFactorDb {
protected:
  void SetUp() override {
    LdapFactorDb::SetUp();
    if (IsSkipped() || HasFatalFailure())
      return;
    addUser("alice");
    addLdapFactor("alice", kAliceTags);
    addUser("bob");
  }

  static constexpr const char *kAliceTags =
      R"({"DN":"cn=alice,dc=example,dc=com","SEARCHVAL":"alice@example.com","LASTSEARCH":"17"})";
  const Values kAlice = {"cn=alice,dc=example,dc=com", "alice@example.com", kNotSet, kNotSet};
};

TEST_F(LdapFactorTool, ShowingWritesNothingAndLowerCaseCommitIsAValue) {
  std::string existingAlice = existing("alice", kAlice);
  expectRun({"alice"}, existingAlice + pending("alice", kAlice) + notCommitted("alice"), 0);
  Values changed = kAlice;
  changed[0] = "commit";
  expectRun({"alice", "commit"}, existingAlice + pending("alice", changed) + notCommitted("alice"),
            0);
  EXPECT_EQ(storedTags("alice"), kAliceTags);
}

TEST_F(LdapFactorTool, CommitAtEachPositionReplacesTheValuesBeforeIt) {
  const Values given = {"cn=new", "s1", "s2", "s3"};
  const char *names[] = {"DN", "SEARCHVAL", "SEARCHVAL2", "SEARCHVAL3"};
  for (size_t count = 0; count <= given.size(); count++) {
    SCOPED_TRACE(count);
    sql(std::string("update qmx_userfactor set isactive = 0, factortags = '") + kAliceTags + "'");
    std::vector<std::string> args = {"alice"};
    Values expected = kAlice;
    for (size_t i = 0; i < count; i++)
      args.push_back(expected[i] = given[i]);
    args.push_back("COMMIT");
    expectRun(args, existing("alice", kAlice) + pending("alice", expected) + committed("alice"), 0);

    std::string tags = "{";
    for (size_t i = 0; i < expected.size(); i++)
      if (expected[i] != kNotSet)
        tags += std::string("\"") + names[i] + "\":\"" + expected[i] + "\",";
    EXPECT_EQ(storedTags("alice"), tags + "\"LASTSEARCH\":\"0\"}");
    EXPECT_EQ(value("select isactive from qmx_userfactor"), "1");
  }
}

TEST_F(LdapFactorTool, UserWithoutStoredData) {
  expectRun({"bob"}, noFactors("bob") + pending("bob", kNothing) + notCommitted("bob"), 170);
  expectRun({"COMMIT"}, noFactors("COMMIT") + pending("COMMIT", kNothing) + notCommitted("COMMIT"),
            170);
  Values emptyDn = kNothing;
  emptyDn[0] = "";
  expectRun({"bob", "", "COMMIT"}, noFactors("bob") + pending("bob", emptyDn) + committed("bob"),
            0);
  EXPECT_EQ(storedTags("bob"), R"({"DN":"","LASTSEARCH":"0"})");
}

TEST_F(LdapFactorTool, UnusualValuesSurviveTheRoundTrip) {
  const std::string dn = "cn=\"O'Brien, Zoë\",ou=Ventes Europe,dc=例え \\ end";
  const Values given = {dn, "", "  two  blanks ", kNotSet};
  expectRun({"bob", dn, "", given[2], "COMMIT"},
            noFactors("bob") + pending("bob", given) + committed("bob"), 0);
  EXPECT_EQ(storedTags("bob"), R"({"DN":"cn=\"O'Brien, Zoë\",ou=Ventes Europe,dc=例え \\ end",)"
                               R"("SEARCHVAL":"","SEARCHVAL2":"  two  blanks ","LASTSEARCH":"0"})");
  expectRun({"bob"}, existing("bob", given) + pending("bob", given) + notCommitted("bob"), 0);
}

TEST_F(LdapFactorTool, BadStoredTags) {
  // Text that is not a JSON object reads as a factor without tags.
  sql("update qmx_userfactor set factortags = '{\"DN\":'");
  expectRun({"alice"},
            existing("alice", kNothing) + pending("alice", kNothing) + notCommitted("alice"), 0);
  for (const char *tags : {R"({"DN":"a","DN":"b"})", R"({"DN":"a","COLOUR":"blue"})",
                           R"({"LASTSEARCH":"1","LASTSEARCH":"2"})"}) {
    SCOPED_TRACE(tags);
    sql("update qmx_userfactor set factortags = " + mfatest::quoted(tags));
    expectRun({"alice"},
              unable("alice", 69803) + pending("alice", kNothing) + notCommitted("alice"),
              69803 & 0xff);
  }
}

// Reading and committing while the database refuses connections: a TCP port
// that is bound, so nobody else takes it, but never listens.
TEST(LdapFactorDatabaseDown, ReadingAndCommitting) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), size), 0);
  ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size), 0);
  const std::string port = std::to_string(ntohs(address.sin_port));
  PGconn *probe = PQconnectdb(("dbname=mfadb host=127.0.0.1 port=" + port).c_str());
  const std::string refused =
      std::string("Connection to database failed: ") + PQerrorMessage(probe);
  PQfinish(probe);
  ASSERT_NE(refused.find("refused"), std::string::npos) << refused;
  const clitest::Environment down = {{"PGHOST", "127.0.0.1"}, {"PGPORT", port}};

  const std::string readFailed =
      refused + "<stamp> QMXLDAP1:pq_userMFAData_create error (userid=alice,status=80101)\n" +
      unable("alice", 1200052) + pending("alice", {"cn=alice", kNotSet, kNotSet, kNotSet});
  expectRun({"alice", "cn=alice"}, readFailed + notCommitted("alice"), 1200052 & 0xff, "", down);
  expectRun({"alice", "cn=alice", "COMMIT"},
            readFailed + refused + "<stamp> QMXLDAP1:Error setting LDAP factor data (sts=80101)\n",
            80101 & 0xff,
            "KVTR2406E K_factor error: gavrc=0, korsrc=0, korsrsn=0x0 (Set user factor data, "
            "factor=QMXLDAP1, userid=alice, sts=80101)\n",
            down);
  close(fd);
}

} // namespace
