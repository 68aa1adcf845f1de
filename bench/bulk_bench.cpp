// ldapfactor-bulk against the one-user tool, run as an administrator runs
// them: each measurement starts the executable that sits beside this one in
// bin/ and times it to its exit.
//
//   BM_OneUserTool          1,000 runs of "ldapfactor USER DN COMMIT"
//   BM_ImportCommit/N       "ldapfactor-bulk import FILE COMMIT" changing
//                           every one of N users
//   BM_Export/N             "ldapfactor-bulk export" of N users
//   BM_ExportPeakRss/N      the export's peak resident size at 1,000 and at
//                           1,000,000 users
//
// Counters: users_per_second; x_ldapfactor, the rate over that of the
// one-user tool (the goal is 100 and more for the import); peak_rss_kib and
// rss_x_1k, the peak over that of the export of 1,000 users (the goal is
// below 2). The peak is taken by /usr/bin/time, whose own small process is
// the one that starts the tool: a child forked from this process would
// count this process's pages as its own.
//
// The tools always open mfadb, so this works in the mfadb that libpq's
// settings reach (the throwaway cluster of postgres_start), on users of its
// own ("bulkbench-0000001" ...), and refuses a database that holds any other
// user. Its users are removed at the end.
#include <benchmark/benchmark.h>
#include <libpq-fe.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

constexpr int kOneUserRuns = 1000;
const char *const kTime = "/usr/bin/time";

// Runs statements in mfadb; the first column of the first row, or the error
// text behind "error: ".
std::string sql(const std::string &statements) {
  PGconn *connection = PQconnectdb("dbname=mfadb");
  PGresult *result = PQexec(connection, statements.c_str());
  const ExecStatusType status = PQresultStatus(result);
  std::string answer = status == PGRES_TUPLES_OK && PQntuples(result) > 0 ? PQgetvalue(result, 0, 0)
                       : status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK
                           ? ""
                           : "error: " + std::string(PQerrorMessage(connection));
  PQclear(result);
  PQfinish(connection);
  return answer;
}

std::string userid(int i) {
  char text[32];
  snprintf(text, sizeof text, "bulkbench-%07d", i);
  return text;
}

std::string besideMe(const char *name) {
  char self[4096];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  const std::string path = length > 0 ? std::string(self, static_cast<size_t>(length)) : "";
  return path.substr(0, path.rfind('/') + 1) + name;
}

const std::string kOneUserTool = besideMe("ldapfactor");
const std::string kBulkTool = besideMe("ldapfactor-bulk");

// The number of the benchmark's users in mfadb; 0 before the first.
int prepared = 0;

// A directory of the benchmark's own for the import file and the peak
// reports, removed at the end.
std::string makeScratch() {
  const char *base = getenv("TMPDIR");
  std::string made = std::string(base != nullptr ? base : "/tmp") + "/bulkbench.XXXXXX";
  return mkdtemp(made.data()) != nullptr ? made : std::string(".");
}
const std::string kScratch = makeScratch();

// Makes mfadb hold exactly the users bulkbench-1 ... bulkbench-count, each
// with LDAP factor data; empty, or why it cannot.
std::string prepareUsers(int count) {
  if (prepared == count)
    return "";
  if (access(kOneUserTool.c_str(), X_OK) != 0 || access(kBulkTool.c_str(), X_OK) != 0)
    return "build ldapfactor and ldapfactor-bulk beside the benchmark";
  const std::string others =
      sql("select count(*) from qmx_user where unixuid not like 'bulkbench-%'");
  if (others != "0")
    return others.starts_with("error: ") ? others
                                         : "mfadb holds users of its own; use a throwaway cluster";
  const std::string n = std::to_string(count);
  const std::string failure =
      sql("delete from qmx_userfactor; delete from qmx_user;"
          "insert into qmx_user (unixuid) select 'bulkbench-' || lpad(i::text, 7, '0') from "
          "generate_series(1, " +
          n +
          ") i;"
          "insert into qmx_userfactor (userid, factorid, factortags, isactive) select u.userid, "
          "f.factorid, '{\"DN\":\"cn=' || u.unixuid || ',ou=People,dc=example,dc=com\","
          "\"SEARCHVAL\":\"' || u.unixuid || '@example.com\",\"LASTSEARCH\":\"0\"}', 1 "
          "from qmx_user u, qmx_factor f where f.factorname = 'QMXLDAP1';");
  if (!failure.empty())
    return failure;
  // Settled as an installation's tables are, so that autovacuum is not
  // still working through the new rows while the tools are timed.
  sql("vacuum analyze qmx_user; vacuum analyze qmx_userfactor; checkpoint");
  prepared = count;
  return "";
}

struct Ran {
  int status;
  double seconds;
  long peakKib; // -1 unless measured
};

// Runs the command with its output thrown away; with peak, under
// /usr/bin/time, which reports the child's peak resident size.
Ran runTool(std::vector<std::string> args, bool peak = false) {
  const std::string report = kScratch + "/peak";
  if (peak)
    args.insert(args.begin(), {kTime, "-f", "%M", "-o", report});
  std::vector<char *> argv;
  for (std::string &arg : args)
    argv.push_back(arg.data());
  argv.push_back(nullptr);
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child == 0) {
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  long kib = -1;
  if (peak) {
    std::ifstream(report) >> kib;
    unlink(report.c_str());
  }
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), seconds, kib};
}

// Users per second of the one-user tool, measured once: each run is a new
// process with a connection of its own.
double oneUserRate() {
  static const double rate = [] {
    double seconds = 0;
    for (int i = 1; i <= kOneUserRuns; i++) {
      const Ran ran = runTool({kOneUserTool, userid(i), "cn=once-" + std::to_string(i), "COMMIT"});
      if (ran.status != 0)
        return 0.0;
      seconds += ran.seconds;
    }
    return kOneUserRuns / seconds;
  }();
  return rate;
}

// Runs one tool per iteration on n users and sets the rate counters.
template <typename Command> void timeRuns(benchmark::State &state, bool peak, Command command) {
  const int n = static_cast<int>(state.range(0));
  if (std::string why = prepareUsers(n); !why.empty()) {
    state.SkipWithError(why.c_str());
    return;
  }
  const double baseline = oneUserRate();
  double seconds = 0;
  long peakKib = 0;
  int round = 0;
  for (auto _ : state) {
    const Ran ran = runTool(command(n, round++), peak);
    if (ran.status != 0) {
      state.SkipWithError(("exit status " + std::to_string(ran.status)).c_str());
      return;
    }
    state.SetIterationTime(ran.seconds);
    seconds += ran.seconds;
    peakKib = std::max(peakKib, ran.peakKib);
  }
  const double rate = n * static_cast<double>(round) / seconds;
  state.counters["users_per_second"] = rate;
  if (baseline > 0)
    state.counters["x_ldapfactor"] = rate / baseline;
  if (peak) {
    static long peakAt1k = 0;
    if (n == 1000)
      peakAt1k = peakKib;
    state.counters["peak_rss_kib"] = static_cast<double>(peakKib);
    if (peakAt1k > 0)
      state.counters["rss_x_1k"] = static_cast<double>(peakKib) / static_cast<double>(peakAt1k);
  }
}

void BM_OneUserTool(benchmark::State &state) {
  if (std::string why = prepareUsers(kOneUserRuns); !why.empty()) {
    state.SkipWithError(why.c_str());
    return;
  }
  for (auto _ : state) {
    const double rate = oneUserRate();
    if (rate == 0) {
      state.SkipWithError("ldapfactor failed");
      return;
    }
    state.SetIterationTime(kOneUserRuns / rate);
    state.counters["users_per_second"] = rate;
  }
}

void BM_ImportCommit(benchmark::State &state) {
  const std::string file = kScratch + "/import.csv";
  timeRuns(state, false, [&](int n, int round) {
    // Every user's DN changes in every round, so every run writes them all.
    std::string text = "USERID,DN\n";
    for (int i = 1; i <= n; i++)
      text += userid(i) + ",cn=" + userid(i) + " round " + std::to_string(round) + "\n";
    std::ofstream(file) << text;
    return std::vector<std::string>{kBulkTool, "import", file, "COMMIT"};
  });
  unlink(file.c_str());
}

void BM_Export(benchmark::State &state) {
  timeRuns(state, false, [](int, int) { return std::vector<std::string>{kBulkTool, "export"}; });
}

void BM_ExportPeakRss(benchmark::State &state) {
  if (access(kTime, X_OK) != 0) {
    state.SkipWithError("/usr/bin/time is needed to measure the peak");
    return;
  }
  timeRuns(state, true, [](int, int) { return std::vector<std::string>{kBulkTool, "export"}; });
}

BENCHMARK(BM_OneUserTool)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_ImportCommit)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Export)->Arg(1000)->Arg(10000)->Arg(100000)->UseManualTime()->Unit(
    benchmark::kMillisecond);
BENCHMARK(BM_ExportPeakRss)
    ->Arg(1000)
    ->Arg(1000000)
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// The benchmark's users and files go when it ends.
const struct Cleanup {
  ~Cleanup() {
    if (prepared > 0)
      sql("delete from qmx_userfactor where userid in (select userid from qmx_user where "
          "unixuid like 'bulkbench-%'); delete from qmx_user where unixuid like 'bulkbench-%'");
    rmdir(kScratch.c_str());
  }
} cleanup;

} // namespace
