// The ldapfactor executable run as an administrator would run it, against the
// test database, with its output compared byte for byte.
#include "support/env.h"
#include "tool.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

using clitest::runTool;

namespace {

const std::string kNotSet = "<not set>";
using Values = std::array<std::string, 4>; // DN, SEARCHVAL, SEARCHVAL2, SEARCHVAL3
const Values kNothing = {kNotSet, kNotSet, kNotSet, kNotSet};

std::string listing(const Values &values) {
  return "  DN: " + values[0] + "\n  SEARCHVAL: " + values[1] + "\n  SEARCHVAL2: " + values[2] +
         "\n  SEARCHVAL3: " + values[3] + "\n";
}

std::string existing(const std::string &user, const Values &values) {
  return "Existing QMXLDAP1 factor data for user " + user + ":\n" + listing(values);
}

std::string unable(const std::string &user, int status) {
  return "Unable to get existing QMXLDAP1 user data for " + user +
         " (sts=" + std::to_string(status) + "), using defaults.\n";
}

std::string pending(const std::string &user, const Values &values) {
  return "Pending QMXLDAP1 tag data for user " + user + ":\n" + listing(values);
}

std::string notCommitted(const std::string &user) {
  return "Did not attempt to commit QMXLDAP1 factor data for " + user + ".\n";
}

std::string committed(const std::string &user) {
  return "Committed QMXLDAP1 factor data for " + user + ".\n";
}

std::string noFactors(const std::string &user) {
  return "No factors returned for user " + user + "\n";
}

std::string usage() {
  return "Usage: " + clitest::toolPath() +
         " <UserID> [\"<UserDN>\" [\"<SEARCHVAL>\" [\"<SEARCHVAL2>\" [\"<SEARCHVAL3>\"]]]] "
         "[COMMIT]\nEnclose the user's bind DN and SEARCHVALs in double-quotes to preserve "
         "spaces.\n";
}

void expectRun(const std::vector<std::string> &args, const std::string &out, const std::string &err,
               int status, const clitest::Environment &env = {}) {
  clitest::Run run = runTool(args, env);
  EXPECT_EQ(run.out, out);
  EXPECT_EQ(run.err, err);
  EXPECT_EQ(run.status, status);
}

constexpr int lowByte(int status) {
  return status & 0xff;
}

TEST(LdapFactorGrammar, UsageWithoutArgumentsOrOnGrammarErrors) {
  SCOPED_TRACE("no arguments");
  expectRun({}, usage(), "", 0);
  struct Case {
    std::vector<std::string> args;
    int status;
  };
  const Case cases[] = {
      {{"u", "a", "b", "c", "d", "e"}, 254},
      {{"u", "a", "COMMIT", "b"}, 253},
      {{"u", "COMMIT", "COMMIT"}, 253},
      {{"u", "a", "b", "c", "d", "COMMIT", "x"}, 253},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    expectRun(c.args, usage(), "", c.status);
  }
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

TEST_F(LdapFactorTool, ShowsStoredDataWithoutWriting) {
  expectRun({"alice"}, existing("alice", kAlice) + pending("alice", kAlice) + notCommitted("alice"),
            "", 0);
  EXPECT_EQ(storedTags("alice"), kAliceTags);
}

TEST_F(LdapFactorTool, CommitAtEachPositionReplacesTheValuesBeforeIt) {
  const Values given = {"cn=new", "s1", "s2", "s3"};
  for (size_t count = 0; count <= given.size(); count++) {
    SCOPED_TRACE(count);
    sql(std::string("update qmx_userfactor set factortags = '") + kAliceTags + "', isactive = 0");
    std::vector<std::string> args = {"alice"};
    Values expected = kAlice;
    for (size_t i = 0; i < count; i++) {
      args.push_back(given[i]);
      expected[i] = given[i];
    }
    args.push_back("COMMIT");
    expectRun(args, existing("alice", kAlice) + pending("alice", expected) + committed("alice"), "",
              0);

    std::string tags = "{";
    const char *names[] = {"DN", "SEARCHVAL", "SEARCHVAL2", "SEARCHVAL3"};
    for (size_t i = 0; i < expected.size(); i++)
      if (expected[i] != kNotSet)
        tags += std::string("\"") + names[i] + "\":\"" + expected[i] + "\",";
    EXPECT_EQ(storedTags("alice"), tags + "\"LASTSEARCH\":\"0\"}");
    EXPECT_EQ(value("select isactive from qmx_userfactor"), "1");
  }
}

TEST_F(LdapFactorTool, LowerCaseCommitIsAValue) {
  Values expected = kAlice;
  expected[0] = "commit";
  expectRun({"alice", "commit"},
            existing("alice", kAlice) + pending("alice", expected) + notCommitted("alice"), "", 0);
  EXPECT_EQ(storedTags("alice"), kAliceTags);
}

TEST_F(LdapFactorTool, EmptyDnIsStoredAsAnEmptyValue) {
  Values expected = kAlice;
  expected[0] = "";
  expectRun({"alice", "", "COMMIT"},
            existing("alice", kAlice) + pending("alice", expected) + committed("alice"), "", 0);
  EXPECT_EQ(storedTags("alice"), R"({"DN":"","SEARCHVAL":"alice@example.com","LASTSEARCH":"0"})");
  expectRun({"alice"},
            existing("alice", expected) + pending("alice", expected) + notCommitted("alice"), "",
            0);
}

TEST_F(LdapFactorTool, UserWithoutStoredData) {
  SCOPED_TRACE("show only: the retrieval status is the exit status");
  expectRun({"bob"},
            noFactors("bob") + unable("bob", 69802) + pending("bob", kNothing) +
                notCommitted("bob"),
            "", lowByte(69802));
  EXPECT_EQ(lowByte(69802), 170);
  SCOPED_TRACE("the single argument COMMIT is a user ID");
  expectRun({"COMMIT"},
            noFactors("COMMIT") + unable("COMMIT", 69802) + pending("COMMIT", kNothing) +
                notCommitted("COMMIT"),
            "", 170);

  SCOPED_TRACE("commit creates the factor data");
  Values given = {"cn=bob", "bob", kNotSet, kNotSet};
  expectRun({"bob", "cn=bob", "bob", "COMMIT"},
            noFactors("bob") + unable("bob", 69802) + pending("bob", given) + committed("bob"), "",
            0);
  EXPECT_EQ(storedTags("bob"), R"({"DN":"cn=bob","SEARCHVAL":"bob","LASTSEARCH":"0"})");
  expectRun({"bob"}, existing("bob", given) + pending("bob", given) + notCommitted("bob"), "", 0);
}

TEST_F(LdapFactorTool, UnusualCharactersSurviveTheRoundTrip) {
  const std::string dn = "cn=\"O'Brien, Zoë\",ou=Ventes Europe,dc=例え,dc=com \\ end";
  const std::string search = "  two  blanks, \"quoted\" ";
  Values expected = {dn, search, kNotSet, kNotSet};
  expectRun({"bob", dn, search, "COMMIT"},
            noFactors("bob") + unable("bob", 69802) + pending("bob", expected) + committed("bob"),
            "", 0);
  expectRun({"bob"}, existing("bob", expected) + pending("bob", expected) + notCommitted("bob"), "",
            0);
}

TEST_F(LdapFactorTool, BadStoredTags) {
  SCOPED_TRACE("malformed tag text reads as a factor without tags");
  sql("update qmx_userfactor set factortags = '{\"DN\":'");
  expectRun({"alice"},
            existing("alice", kNothing) + pending("alice", kNothing) + notCommitted("alice"), "",
            0);

  for (const char *tags : {R"({"DN":"a","DN":"b"})", R"({"DN":"a","COLOUR":"blue"})",
                           R"({"LASTSEARCH":"1","LASTSEARCH":"2"})"}) {
    SCOPED_TRACE(tags);
    sql(std::string("update qmx_userfactor set factortags = '") + tags + "'");
    expectRun({"alice"},
              unable("alice", 69803) + pending("alice", kNothing) + notCommitted("alice"), "",
              lowByte(69803));
  }
}

// A TCP port on which nothing listens: bound, so nobody else takes it, but
// never listening, so every connection attempt is refused.
class RefusedPort {
public:
  RefusedPort() {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr *>(&address), size) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size) != 0)
      ADD_FAILURE() << "could not reserve a port";
    port_ = ntohs(address.sin_port);
  }
  ~RefusedPort() { close(fd_); }
  clitest::Environment environment() const {
    return {{"PGHOST", "127.0.0.1"}, {"PGPORT", std::to_string(port_)}};
  }

private:
  int fd_;
  int port_ = 0;
};

TEST(LdapFactorDatabaseDown, Reading) {
  RefusedPort port;
  std::string refused =
      "Connection to database failed: " + clitest::connectionError(port.environment());
  ASSERT_NE(refused.find("refused"), std::string::npos) << refused;
  expectRun({"alice", "cn=alice"},
            refused + "<stamp> QMXLDAP1:pq_userMFAData_create error (userid=alice,status=80101)\n" +
                unable("alice", 1200052) +
                pending("alice", {"cn=alice", kNotSet, kNotSet, kNotSet}) + notCommitted("alice"),
            "", lowByte(1200052), port.environment());
}

TEST(LdapFactorDatabaseDown, Committing) {
  RefusedPort port;
  std::string refused =
      "Connection to database failed: " + clitest::connectionError(port.environment());
  expectRun({"alice", "cn=alice", "COMMIT"},
            refused + "<stamp> QMXLDAP1:pq_userMFAData_create error (userid=alice,status=80101)\n" +
                unable("alice", 1200052) +
                pending("alice", {"cn=alice", kNotSet, kNotSet, kNotSet}) + refused +
                "<stamp> QMXLDAP1:Error setting LDAP factor data (sts=80101)\n",
            "KVTR2406E K_factor error: gavrc=0, korsrc=0, korsrsn=0x0 (Set user factor data, "
            "factor=QMXLDAP1, userid=alice, sts=80101)\n",
            lowByte(80101), port.environment());
}

} // namespace
