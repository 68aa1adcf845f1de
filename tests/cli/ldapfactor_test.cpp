// The ldapfactor executable run as an administrator would run it, against the
// test database, with its output compared byte for byte; and the record's
// field description, the other reader of the stored data.
#include "cli/ldapuser.h"
#include "support/env.h"
#include "toolrun.h"

#include <gtest/gtest.h>

#include <array>
#include <regex>

namespace {

using clitest::kDown;
using clitest::noServer;
using clitest::Row;
using clitest::Sink;

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
std::string pendingOnly(const std::string &user, const Values &v) {
  return block("Pending QMXLDAP1 tag data for user ", user, v);
}
// What follows the existing data: the pending data and whether it was committed.
std::string pending(const std::string &user, const Values &v, bool committed = false) {
  return pendingOnly(user, v) +
         (committed ? "Committed QMXLDAP1 factor data for " + user + ".\n"
                    : "Did not attempt to commit QMXLDAP1 factor data for " + user + ".\n");
}
std::string refused(const std::string &user, int status) {
  return "KVTR2407E Existing QMXLDAP1 factor data for " + user +
         " could not be read (sts=" + std::to_string(status) + "); nothing was committed.\n";
}

// What the read of alice's data prints when it fails with status after
// libpq's or the server's cause.
std::string aliceUnread(const std::string &cause, int status) {
  return cause + "<stamp> QMXLDAP1:pq_userMFAData_create error (userid=alice,status=" +
         std::to_string(status) + ")\n" + unable("alice", 1200052);
}

const std::string kTool = MFA_BINARY_DIR "/bin/ldapfactor";

TEST(LdapFactorGrammar, UsageWithoutArgumentsOrOnGrammarErrors) {
  const std::string usage =
      "Usage: " + kTool +
      " <UserID> [\"<UserDN>\" [\"<SEARCHVAL>\" [\"<SEARCHVAL2>\" [\"<SEARCHVAL3>\"]]]] "
      "[COMMIT]\nEnclose the user's bind DN and SEARCHVALs in double-quotes to preserve spaces.\n";
  clitest::expectRun(kTool, {{}, usage, 0});
  clitest::expectRun(kTool, {{"u", "a", "b", "c", "d", "e"}, usage, 254});
  for (const std::vector<std::string> &args :
       std::vector<std::vector<std::string>>{{"u", "a", "COMMIT", "b"},
                                             {"u", "COMMIT", "COMMIT"},
                                             {"u", "a", "b", "c", "d", "COMMIT", "x"}})
    clitest::expectRun(kTool, {args, usage, 253});
}

// Login roles that make one step of a run fail: the first may write the
// factor links but not read their tags, the second may read everything and
// write nothing.
const std::string kBlindWriter = "ldapfactor_blind_writer";
const std::string kReader = "ldapfactor_reader";

// Users with stored tags, and bob and carol without factor data.
class LdapFactorTool : public clitest::ToolTest {
protected:
  LdapFactorTool() : ToolTest(kTool, {}, {"bob", "carol"}) {}

  // Roles outlive the tables' contents: one that an earlier test made stays.
  void addRoles() {
    for (const std::string &role : {kBlindWriter, kReader})
      sql("do $$ begin create role " + role +
          " login; exception when duplicate_object then null; end $$");
    sql("grant select on all tables in schema public to " + kReader + ";" +
        "grant select on qmx_user, qmx_factor, qmx_policy, qmx_userpolicy, qmx_policyfactor to " +
        kBlindWriter + "; grant select (userfactorid, userid, factorid, isactive), insert, " +
        "update on qmx_userfactor to " + kBlindWriter);
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
      {{"alice"},
       aliceUnread(noServer(), 80101) + pending("alice", kNothing),
       1200052 & 0xff,
       "",
       kDown},
  };
  for (const Row &row : rows)
    expectRun(row);
  for (const auto &[userid, tags] : clitest::kStoredTags)
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

// A commit is refused when the stored data was not read whole, reports a user
// that is not defined, or fails; none of them changes a stored byte.
TEST_F(LdapFactorTool, CommitsThatCannotBeTrustedWriteNothing) {
  addRoles();
  const mfatest::Rows before = everyRow();
  const Values given = {"cn=new", kNotSet, kNotSet, kNotSet};
  auto refusal = [&](const std::string &user, const std::string &read, int status,
                     const clitest::Environment &env = {}) {
    return Row{{user, "cn=new", "COMMIT"},
               read + pendingOnly(user, given),
               status & 0xff,
               status == 80105 ? "KVTR2408E User " + user +
                                     " is not defined to the MFA server; nothing was committed.\n"
                               : refused(user, status),
               env};
  };
  const std::vector<Row> rows = {
      refusal("twice", unable("twice", 69803), 69803),
      refusal("unknown", unable("unknown", 69803), 69803),
      // Read as holding less than is stored.
      refusal("malformed", existing("malformed", kNothing), 69803),
      refusal("number", existing("number", {"a", kNotSet, kNotSet, kNotSet}), 69803),
      refusal(
          "alice",
          aliceUnread("SELECT failed: ERROR:  permission denied for table qmx_userfactor\n", 80102),
          1200052, {{"PGUSER", kBlindWriter}}),
      refusal("alice", aliceUnread(noServer(), 80101), 1200052, kDown),
      refusal("nobody", noFactors("nobody"), 80105),
      refusal("", noFactors(""), 80105),
      {{"alice", "cn=new", "COMMIT"},
       existing("alice", kAlice) + pendingOnly("alice", {"cn=new", kAlice[1], kNotSet, kNotSet}) +
           "update failed: ERROR:  permission denied for table qmx_userfactor\n"
           "<stamp> QMXLDAP1:Error setting LDAP factor data (sts=80107)\n",
       80107 & 0xff,
       "KVTR2406E K_factor error: gavrc=0, korsrc=0, korsrsn=0x0 (Set user factor data, "
       "factor=QMXLDAP1, userid=alice, sts=80107)\n",
       {{"PGUSER", kReader}}},
  };
  for (const Row &row : rows)
    expectRun(row);
  EXPECT_EQ(everyRow(), before);

  // What kept the blind writer from committing was the read: the write
  // itself goes through.
  const std::string user = mfatest::serviceVariable("PGUSER");
  setenv("PGUSER", kBlindWriter.c_str(), 1);
  ldapuser empty{};
  uint32_t written = 0;
  EXPECT_EQ(ldapuser_commitToKORS2(ctx, "QMXLDAP1", "alice", &empty, 1, &written), 0);
  setenv("PGUSER", user.c_str(), 1);
  EXPECT_EQ(written, 1u);
  EXPECT_EQ(storedTags("alice"), R"({"LASTSEARCH":"0"})");
}

TEST_F(LdapFactorTool, OutputThatIsNotWrittenIsAnError) {
  auto lost = [](const std::string &reason, const std::string &outcome) {
    return "KVTR2409E Standard output could not be written (" + reason + "); " + outcome + ".\n";
  };
  const std::string full = lost("No space left on device", "nothing was committed");
  // A failed run keeps its own status.
  expectRun({{}, "", 74, full, {}, Sink::Full});
  expectRun({{"alice"}, "", 74, full, {}, Sink::Full});
  expectRun({{"bob"}, "", 170, full, {}, Sink::Full});
  expectRun({{"alice", "cn=piped", "COMMIT"},
             "",
             74,
             lost("Broken pipe", "QMXLDAP1 factor data for alice was committed"),
             {},
             Sink::ClosedPipe});
  EXPECT_EQ(storedTags("alice"),
            R"({"DN":"cn=piped","SEARCHVAL":"alice@example.com","LASTSEARCH":"0"})");
}

TEST_F(LdapFactorTool, EveryCommitAttemptIsLogged) {
  addRoles();
  clitest::LogCapture log;
  // Priority (authpriv with notice or warning) and text.
  auto line = [](int priority, const std::string &user, const std::string &tail) {
    return "<" + std::to_string(priority) + ">ldapfactor[pid]: commit factor=\"QMXLDAP1\" user=\"" +
           user + "\"" + clitest::osUser() + " fields=" + tail;
  };
  expectLogged(log, {"alice", "cn=x", "s", "COMMIT"},
               line(85, "alice", "DN,SEARCHVAL outcome=committed"));
  expectLogged(log, {"alice"}, "");
  expectLogged(
      log, {"twice", "COMMIT"},
      line(84, "twice", "none outcome=refused reason=\"existing data not read\" status=69803"));
  // Nothing a user ID holds can end the record or forge a field.
  expectLogged(log, {"ev\"il\n", "", "", "", "", "COMMIT"},
               line(84, "ev\\x22il\\x0a",
                    "DN,SEARCHVAL,SEARCHVAL2,SEARCHVAL3 outcome=refused reason=\"user not "
                    "defined\" status=80105"));
  expectLogged(log, {"alice", "COMMIT"}, line(84, "alice", "none outcome=failed status=80107"),
               {{"PGUSER", kReader}});
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
  auto text = [](const std::string &label, const std::string &name, const std::string &value) {
    return R"({"fieldLabel":")" + label + R"(","fieldType":"textField","fieldName":")" + name +
           R"(","fieldAttr":{"isOptional":1,"maxLength":255},"fieldValue":")" + value + "\"},";
  };
  const std::string alice =
      R"("fields":[)" + text("Fully Qualified DN", "DN", kAlice[0]) +
      text("Search value 1", "SEARCHVAL", kAlice[1]) + text("Search value 2", "SEARCHVAL2", "") +
      text("Search value 3", "SEARCHVAL3", "") +
      R"({"fieldLabel":"Last search timestamp","fieldType":"textField","fieldName":"LASTSEARCH",)"
      R"("fieldValue":17,"fieldAttr":{"isOptional":1,"displayOnly":1}}])";
  EXPECT_EQ(fields("alice"), "0:" + alice);
  // Without stored data the same fields come without values.
  EXPECT_EQ(fields("nobody"),
            "0:" + std::regex_replace(alice,
                                      std::regex(R"(,"fieldValue":"[^"]*"|"fieldValue":17,)"), ""));
}

} // namespace
