// The ldapfactor-bulk executable run as an administrator would run it,
// against the test database: exports compared byte for byte, imports
// previewed, committed, refused and failed, each refusal and failure
// leaving every stored row as it was.
#include "toolrun.h"

#include <gtest/gtest.h>
#include <libpq-fe.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

namespace {

using clitest::kDown;
using clitest::kUnreadable;
using clitest::Ran;
using clitest::Row;

const std::string kTool = MFA_BINARY_DIR "/bin/ldapfactor-bulk";

// Values that CSV must quote and JSON must escape, and text beyond ASCII.
const std::string kCarolTags = R"({"DN":"cn=\"O'Brien, Zoë\",ou=Ventes Europe",)"
                               R"("SEARCHVAL":"line1\nline2","SEARCHVAL2":"a\r\nb",)"
                               R"("SEARCHVAL3":"","LASTSEARCH":"3"})";
const std::string kCsvHeader = "USERID,DN,SEARCHVAL,SEARCHVAL2,SEARCHVAL3,LASTSEARCH\r\n";
const std::string kAliceCsv = "alice,\"cn=alice,dc=example,dc=com\",alice@example.com,,,17\r\n";
const std::string kCarolCsv =
    "carol,\"cn=\"\"O'Brien, Zoë\"\",ou=Ventes Europe\",\"line1\nline2\",\"a\r\nb\",\"\",3\r\n";
const std::string kAliceJson = R"({"USERID":"alice","DN":"cn=alice,dc=example,dc=com",)"
                               R"("SEARCHVAL":"alice@example.com","LASTSEARCH":"17"})"
                               "\n";
const std::string kCarolJson = R"({"USERID":"carol","DN":"cn=\"O'Brien, Zoë\",ou=Ventes Europe",)"
                               R"("SEARCHVAL":"line1\u000aline2","SEARCHVAL2":"a\u000d\u000ab",)"
                               R"("SEARCHVAL3":"","LASTSEARCH":"3"})"
                               "\n";

std::string unreadable(const std::string &user) {
  return "KVTR2412E Stored QMXLDAP1 factor data for \"" + user +
         "\" could not be read (sts=69803); it was not exported.\n";
}
std::string refusedLines(const std::string &file, const std::vector<std::string> &problems) {
  std::string text;
  for (const std::string &problem : problems)
    text += "KVTR2410E " + file + " line " + problem + ".\n";
  return text + "KVTR2411E The import of " + file +
         " was refused: " + std::to_string(problems.size()) +
         (problems.size() == 1 ? " problem" : " problems") + "; nothing was committed.\n";
}
std::string noServer() {
  return "MFADB:" + clitest::noServer();
}

// Users with stored tags, carol's among them, and bob and dave without
// factor data.
class LdapFactorBulk : public clitest::ToolTest {
protected:
  LdapFactorBulk() : ToolTest(kTool, {{"carol", kCarolTags}}, {"bob", "dave"}) {}
  void SetUp() override {
    ToolTest::SetUp();
    dir_ = testing::TempDir() + "ldapfactor-bulk.XXXXXX";
    ASSERT_NE(mkdtemp(dir_.data()), nullptr);
  }
  void TearDown() override {
    for (const std::string &path : written_)
      remove(path.c_str());
    remove(dir_.c_str());
    ToolTest::TearDown();
  }

  void dropUnreadable() {
    sql("delete from qmx_userfactor uf using qmx_user u where u.userid = uf.userid and "
        "u.unixuid not in ('alice', 'carol')");
  }

  // A file of the test's with the given content; its path.
  std::string file(const std::string &name, const std::string &content) {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    written_.push_back(path);
    return path;
  }

  Ran run(const Row &row) { return clitest::runRow(kTool, row); }

  std::string dir_;
  std::vector<std::string> written_;
};

TEST(LdapFactorBulkGrammar, UsageOnGrammarErrors) {
  const std::string usage =
      "Usage: " + kTool + " export [--format csv|jsonl] [USERID...]\n       " + kTool +
      " import [--format csv|jsonl] FILE [COMMIT]\nAn import without "
      "COMMIT only shows what it would change. FILE - reads standard input.\n";
  clitest::expectRun(kTool, {{}, usage, 0});
  clitest::expectRun(kTool, {{"--help"}, usage, 0});
  for (const std::vector<std::string> &args :
       std::vector<std::vector<std::string>>{{"frob"},
                                             {"export", "--format", "xml"},
                                             {"export", "--format"},
                                             {"export", "-x"},
                                             {"import"},
                                             {"import", "f", "commit"},
                                             {"import", "f", "COMMIT", "x"}})
    clitest::expectRun(kTool, {args, "", 64, usage});
}

TEST_F(LdapFactorBulk, ExportWritesEveryUserItCanRead) {
  std::string unreadableLines;
  for (const std::string &user : kUnreadable)
    unreadableLines += unreadable(user);
  const std::vector<Row> rows = {
      {{"export"}, kCsvHeader + kAliceCsv + kCarolCsv, 171, unreadableLines},
      {{"export", "--format=jsonl"}, kAliceJson + kCarolJson, 171, unreadableLines},
      // Named users come once each, in the order of their IDs.
      {{"export", "--format", "jsonl", "--", "carol", "alice", "carol"},
       kAliceJson + kCarolJson,
       0},
      {{"export", "bob", "nobody", "alice"},
       kCsvHeader + kAliceCsv,
       170,
       "KVTR2413E User \"bob\" has no QMXLDAP1 factor data; nothing was exported for it.\n"
       "KVTR2414E User \"nobody\" is not defined to the MFA server; nothing was exported for "
       "it.\n"},
      {{"export", "twice"}, kCsvHeader, 171, unreadable("twice")},
      {{"export"},
       "",
       80101 & 0xff,
       noServer() + "KVTR2415E The export stopped (sts=80101); the output is incomplete.\n",
       kDown},
  };
  const std::string lost =
      "KVTR2409E Standard output could not be written (write error); the export is incomplete.\n";
  expectRun({{"export"}, "", 171, unreadableLines + lost, {}, clitest::Sink::Full});

  // A reader that goes away part-way ends the export early: the statement
  // still streaming is cancelled and the run reports the lost output.
  dropUnreadable();
  sql("insert into qmx_user (unixuid) select 'user' || i from generate_series(1, 20000) i");
  sql("insert into qmx_userfactor (userid, factorid, factortags, isactive) select u.userid, "
      "f.factorid, '{\"DN\":\"cn=' || u.unixuid || '\"}', 1 from qmx_user u, qmx_factor f "
      "where u.unixuid like 'user%' and f.factorname = 'QMXLDAP1'");
  expectRun({{"export"}, "", 74, lost, {}, clitest::Sink::ClosedPipe});
}

TEST_F(LdapFactorBulk, ExportThenImportChangesNothing) {
  dropUnreadable();
  const mfatest::Rows before = everyRow();
  for (const std::string format : {"csv", "jsonl"}) {
    const Ran exported = run({{"export", "--format", format}, "", 0});
    ASSERT_EQ(exported.status, 0) << exported.err;
    const std::string path = file("all." + format, exported.out);
    const std::string preview =
        "Import of QMXLDAP1 factor data from " + path + ": 0 to add, 0 to change, 2 unchanged.\n";
    expectRun({{"import", "--format", format, path},
               preview + "Did not attempt to commit QMXLDAP1 factor data from " + path + ".\n",
               0});
    // Unchanged users are not written: their counters stay.
    expectRun({{"import", "--format", format, path, "COMMIT"},
               preview + "Committed QMXLDAP1 factor data from " + path +
                   ": 0 added, 0 changed, 2 unchanged.\n",
               0});
    EXPECT_EQ(everyRow(), before);
  }
}

TEST_F(LdapFactorBulk, ValuesComeBackByteForByte) {
  // Quotes, commas, line ends of both kinds, blanks, a backslash, a tab and
  // text beyond ASCII, written by an import and read by an export.
  const std::string csv = kCsvHeader +
                          "bob,\"cn=\"\"Bob, Jr.\"\",ou=Ventes\",\"two\r\nlines\",\"\",\" x \","
                          "0\r\n"
                          "dave,例え \\ end\tTAB,,,,0\r\n";
  const std::string path = file("values.csv", csv);
  ASSERT_EQ(run({{"import", path, "COMMIT"}, "", 0}).status, 0);
  EXPECT_EQ(storedTags("bob"),
            R"({"DN":"cn=\"Bob, Jr.\",ou=Ventes","SEARCHVAL":"two\r\nlines","SEARCHVAL2":"",)"
            R"("SEARCHVAL3":" x ","LASTSEARCH":"0"})");
  EXPECT_EQ(storedTags("dave"), "{\"DN\":\"例え \\\\ end\tTAB\",\"LASTSEARCH\":\"0\"}");
  expectRun({{"export", "bob", "dave"}, csv, 0});

  // JSON written by other programs: \u escapes, a surrogate pair among them.
  const std::string jsonl =
      R"({"USERID":"alice","DN":"Zo\u00eb \ud83d\ude00","SEARCHVAL":"\"\\\/\t"})"
      "\n";
  ASSERT_EQ(run({{"import", "--format", "jsonl", "-", "COMMIT"}, "", 0, "", {}, {}, jsonl}).status,
            0);
  EXPECT_EQ(storedTags("alice"),
            "{\"DN\":\"Zoë 😀\",\"SEARCHVAL\":\"\\\"\\\\/\t\",\"LASTSEARCH\":\"0\"}");
}

TEST_F(LdapFactorBulk, PreviewListsTheChangesOfTheFirstHundredUsers) {
  const std::string path = file("mixed.csv", "USERID,SEARCHVAL,DN\n"
                                             "alice,alice@example.com,cn=new\n"
                                             "carol,,\n"
                                             "bob,,\"\"\n"
                                             "dave,d@example.com,\n");
  expectRun({{"import", path},
             "Import of QMXLDAP1 factor data from " + path +
                 ": 2 to add, 1 to change, 1 unchanged.\n"
                 "Line 2, user \"alice\", change:\n"
                 "  DN: \"cn=alice,dc=example,dc=com\" -> \"cn=new\"\n"
                 "Line 4, user \"bob\", add:\n"
                 "  DN: <not set> -> \"\"\n"
                 "Line 5, user \"dave\", add:\n"
                 "  SEARCHVAL: <not set> -> \"d@example.com\"\n"
                 "Did not attempt to commit QMXLDAP1 factor data from " +
                 path + ".\n",
             0});

  sql("insert into qmx_user (unixuid) select 'user' || i from generate_series(1, 102) i");
  std::string many = "USERID,DN\n";
  for (int i = 1; i <= 102; i++)
    many += "user" + std::to_string(i) + ",cn=x\n";
  const Ran ran = run({{"import", file("many.csv", many)}, "", 0});
  EXPECT_EQ(std::count(ran.out.begin(), ran.out.end(), '\n'), 1 + 2 * 100 + 2);
  EXPECT_NE(ran.out.find("Line 101, user \"user100\", add:\n  DN: <not set> -> \"cn=x\"\n"
                         "And 2 more users to add or change.\n"),
            std::string::npos);
}

// Every rule that refuses an import, each in a file whose first line would
// change alice: the whole import is refused and no row changes.
TEST_F(LdapFactorBulk, RefusedImportsWriteNothing) {
  struct Refusal {
    std::string format;
    std::string lines; // after alice's line (line 2 of CSV, 1 of JSON Lines)
    std::vector<std::string> problems;
  };
  const std::string long256(256, 'x');
  const std::string utf8At255 = std::string(254, 'x') + "é"; // 255 characters, 256 bytes
  auto unread = [](int line, const std::string &user) {
    return std::to_string(line) + ": the stored QMXLDAP1 factor data of user \"" + user +
           "\" cannot be read (sts=69803)";
  };
  const std::vector<Refusal> refusals = {
      {"csv", "bob,\"open\n", {"3: a quoted field is not closed"}},
      {"csv", "bob,a\"b\n", {"3: a quote inside a field that does not begin with one"}},
      {"csv", "bob,\"a\"b\n", {"3: text after the closing quote of a field"}},
      {"csv", "bob,a\rb\n", {"3: a carriage return outside quotes"}},
      {"csv", "bob,a,b\n", {"3: 3 fields where the header has 2"}},
      {"csv", ",x\n", {"3: the user ID is empty"}},
      {"csv", "bob,\xC3(\n", {"3: the value of DN is not valid UTF-8"}},
      {"csv",
       "bob," + long256 + "\ndave," + utf8At255 + "\n",
       {"3: the value of DN is longer than 255 characters (256)"}},
      {"csv", "nobody,x\n", {"3: user \"nobody\" is not defined to the MFA server"}},
      {"csv", "bob,x\nalice,y\n", {"4: user \"alice\" repeats line 2"}},
      {"csv",
       "twice,x\nunknown,x\nmalformed,x\nnumber,x\n",
       {unread(3, "twice"), unread(4, "unknown"), unread(5, "malformed"), unread(6, "number")}},
      {"jsonl", "{\"USERID\":\"bob\"\n", {"2: not JSON (1:16: expected }, got end of file)"}},
      {"jsonl", "[\"bob\"]\n", {"2: not a JSON object"}},
      {"jsonl", R"({"USERID":"bob","DN":1})", {"2: the value of DN is not a string"}},
      {"jsonl", R"({"USERID":"bob","COLOUR":"x"})", {"2: unknown key \"COLOUR\""}},
      {"jsonl", R"({"USERID":"bob","DN":"a","DN":"b"})", {"2: key DN repeated"}},
      {"jsonl", R"({"DN":"a"})", {"2: no USERID"}},
      {"jsonl",
       R"({"USERID":"bob","DN":"a\u0000"})",
       {"2: a \\u0000 escape: a value cannot hold a NUL character"}},
      {"jsonl", R"({"USERID":"bob","DN":"\ud83d"})", {"2: a \\u escape of half a surrogate pair"}},
  };
  const mfatest::Rows before = everyRow();
  for (const Refusal &refusal : refusals) {
    const std::string path =
        file("refused." + refusal.format, refusal.format == "csv"
                                              ? "USERID,DN\nalice,cn=new\n" + refusal.lines
                                              : std::string(R"({"USERID":"alice","DN":"cn=new"})") +
                                                    "\n" + refusal.lines + "\n");
    expectRun({{"import", "--format", refusal.format, path, "COMMIT"},
               "",
               65,
               refusedLines(path, refusal.problems)});
  }
  // Lines that name no user keep the rest of the file from being read.
  for (const auto &[header, problem] : std::vector<std::pair<std::string, std::string>>{
           {"USERID,DN,FOO", "1: unknown column \"FOO\""},
           {"DN,SEARCHVAL", "1: no USERID column"},
           {"USERID,DN,DN", "1: column DN repeated"}}) {
    const std::string path = file("header.csv", header + "\nalice,cn=new\n");
    expectRun({{"import", path, "COMMIT"}, "", 65, refusedLines(path, {problem})});
  }
  EXPECT_EQ(everyRow(), before);
}

TEST_F(LdapFactorBulk, FailedCommitsWriteNothing) {
  dropUnreadable();
  const mfatest::Rows before = everyRow();
  const std::string change = file("change.csv", "USERID,DN\nalice,cn=new\nbob,cn=bob\n");
  const std::string preview = "Import of QMXLDAP1 factor data from " + change +
                              ": 1 to add, 1 to change, 0 unchanged.\n"
                              "Line 2, user \"alice\", change:\n"
                              "  DN: \"cn=alice,dc=example,dc=com\" -> \"cn=new\"\n"
                              "Line 3, user \"bob\", add:\n"
                              "  DN: <not set> -> \"cn=bob\"\n";
  expectRun({{"import", change, "COMMIT"},
             "",
             80101 & 0xff,
             noServer() + "KVTR2416E The import of " + change +
                 " stopped (sts=80101); nothing was committed.\n",
             kDown});

  // The server goes away between the preview and the write: a session of
  // the test holds the table so that the write waits, and the tool's
  // connection is ended as a server shutdown ends it.
  PGconn *holder = PQconnectdb("dbname=mfadb");
  PQclear(PQexec(holder, "begin; lock table qmx_userfactor in exclusive mode"));
  const clitest::Started started = clitest::start(
      kTool, {{"import", change, "COMMIT"}, "", 0, "", {{"PGAPPNAME", "bulk-under-test"}}});
  std::string ended;
  for (int tries = 0; tries < 600 && ended != "t"; tries++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ended = value("select pg_terminate_backend(pid) from pg_stat_activity where application_name "
                  "= 'bulk-under-test' and wait_event_type = 'Lock'");
  }
  PQclear(PQexec(holder, "rollback"));
  PQfinish(holder);
  const Ran stopped = clitest::finish(started);
  EXPECT_EQ(ended, "t");
  EXPECT_EQ(stopped.status, 80107 & 0xff);
  EXPECT_EQ(stopped.out, preview);
  EXPECT_TRUE(stopped.err.starts_with("MFADB:write failed: FATAL:  terminating connection due to "
                                      "administrator command\n"))
      << stopped.err;
  EXPECT_TRUE(stopped.err.ends_with("KVTR2416E The import of " + change +
                                    " stopped (sts=80107); nothing was committed.\n"))
      << stopped.err;
  EXPECT_EQ(everyRow(), before);

  // The 5,000th row written fails: the rows written before it go too.
  sql("insert into qmx_user (unixuid) select 'user' || i from generate_series(1, 6000) i");
  sql("create sequence bulk_rows; create function bulk_fail() returns trigger language plpgsql "
      "as $$ begin if nextval('bulk_rows') = 5000 then raise exception 'row 5000'; end if; "
      "return new; end $$; create trigger bulk_fail before insert or update on qmx_userfactor "
      "for each row execute function bulk_fail()");
  std::string many = "USERID,DN\nalice,cn=new\n";
  for (int i = 1; i <= 6000; i++)
    many += "user" + std::to_string(i) + ",cn=user" + std::to_string(i) + "\n";
  const std::string path = file("many.csv", many);
  const Ran failed = run({{"import", path, "COMMIT"}, "", 0});
  sql("drop trigger bulk_fail on qmx_userfactor; drop function bulk_fail(); drop sequence "
      "bulk_rows");
  EXPECT_EQ(failed.status, 80107 & 0xff);
  EXPECT_EQ(failed.err, "MFADB:write failed: ERROR:  row 5000\nCONTEXT:  PL/pgSQL function "
                        "bulk_fail() line 1 at RAISE\nKVTR2416E The import of " +
                            path + " stopped (sts=80107); nothing was committed.\n");
  EXPECT_EQ(everyRow(), before);
}

TEST_F(LdapFactorBulk, EveryImportWithCommitIsLogged) {
  clitest::LogCapture log;
  const std::string path = file("log.csv", "USERID,DN\nalice,cn=new\nbob,cn=bob\ncarol,\n");
  const std::string refused = file("refused.csv", "USERID,DN\nalice,x\nnobody,x\n");
  auto line = [](int priority, const std::string &file, const std::string &tail) {
    return "<" + std::to_string(priority) +
           ">ldapfactor-bulk[pid]: import factor=\"QMXLDAP1\" file=\"" + file + "\"" +
           clitest::osUser() + " " + tail;
  };
  expectLogged(log, {"import", path}, "");
  expectLogged(log, {"import", path, "COMMIT"},
               line(85, path, "added=1 changed=1 unchanged=1 outcome=committed"));
  expectLogged(
      log, {"import", refused, "COMMIT"},
      line(84, refused, "added=0 changed=1 unchanged=0 outcome=refused problems=1 status=65"));
  expectLogged(log, {"import", path, "COMMIT"},
               line(84, path, "added=0 changed=0 unchanged=0 outcome=failed status=80101"), kDown);
}

} // namespace
