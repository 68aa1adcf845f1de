// ldapfactor-bulk: the LDAP factor data of many users at once. export writes
// it to standard output as CSV or JSON Lines; import reads such a file,
// checks every line, shows what would change and, given the word COMMIT,
// writes every change in one transaction.
#include "base/alloc.h"
#include "base/logging.h"
#include "cli/bulkformat.h"
#include "cli/bulkstore.h"
#include "cli/commitguard.h"
#include "cli/commitguard_internal.h"
#include "cli/ldapuser.h"
#include "mfadata/factordata.h"
#include "mfadata/factortags.h"
#include "mfadata/usermfadata_internal.h"

#include <sysexits.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

using bulk::Entry;
using bulk::kValueCount;
using commitguard::quoted;

constexpr const char *kFactorName = "QMXLDAP1";
constexpr const char *kIdentity = "ldapfactor-bulk";
// A preview lists the changes of this many users, then counts the rest.
constexpr size_t kPreviewUsers = 100;

// The tool's own exit statuses; the others are the low 8 bits of the
// library's statuses, as with the one-user tool.
constexpr int kUsageError = EX_USAGE;
constexpr int kRefused = EX_DATAERR;
constexpr int kNoInput = EX_NOINPUT;
constexpr int kOutputFailed = EX_IOERR;

using ContextPtr = mfadata::Owned<dbctx, qn_db_destroyDbCtx>;
using RecordPtr = mfadata::Owned<ldapuser, ldapuser_destroy>;
using FactorPtr = mfadata::Owned<factorData, kfactor_factorData_destroy>;
using TextPtr = mfadata::Owned<char, freeString>;

enum class Command { Export, Import };

struct Options {
  Command command = Command::Export;
  bulk::Format format = bulk::Format::Csv;
  std::vector<std::string> operands;
  bool commit = false;
};

void usage(FILE *out, const char *name) {
  fprintf(out,
          "Usage: %s export [--format csv|jsonl] [USERID...]\n"
          "       %s import [--format csv|jsonl] FILE [COMMIT]\n"
          "An import without COMMIT only shows what it would change. FILE - reads standard "
          "input.\n",
          name, name);
}

// 0 and the options, or kUsageError when the arguments make no command.
int parseArguments(int argc, char **argv, Options *options) {
  const std::string_view command = argv[1];
  if (command != "export" && command != "import")
    return kUsageError;
  options->command = command == "export" ? Command::Export : Command::Import;
  int at = 2;
  for (; at < argc; at++) {
    const std::string_view argument = argv[at];
    if (argument == "--") {
      at++;
      break;
    }
    if (argument.size() < 2 || argument[0] != '-')
      break; // "-" is a file name
    std::string_view format;
    if (argument == "--format" && at + 1 < argc)
      format = argv[++at];
    else if (argument.substr(0, 9) == "--format=")
      format = argument.substr(9);
    if (format != "csv" && format != "jsonl")
      return kUsageError;
    options->format = format == "csv" ? bulk::Format::Csv : bulk::Format::Jsonl;
  }
  options->operands.assign(argv + at, argv + argc);
  if (options->command == Command::Export)
    return 0;
  const size_t count = options->operands.size();
  options->commit = count == 2 && options->operands[1] == "COMMIT";
  return count == 1 || options->commit ? 0 : kUsageError;
}

// Messages of the database layer go to standard error: standard output
// carries the data of an export.
void logToStandardError(LoggingContext *, LoggingComponent *component, void *, const char *format,
                        va_list args) {
  char *text = nullptr;
  if (vasprintf(&text, format, args) < 0)
    return;
  std::string_view line(text);
  while (!line.empty() && line.back() == '\n')
    line.remove_suffix(1);
  commitguard_printError("%s:%.*s\n",
                         component != nullptr && component->name != nullptr ? component->name : "",
                         static_cast<int>(line.size()), line.data());
  free(text);
}

int makeContext(ContextPtr *context) {
  LoggingContext *log = makeLoggingContext();
  logConfigureDestination(log, QMX_LOG_DESTINATION_ID, "QMX", nullptr, logToStandardError);
  dbctx *made = nullptr;
  if (int status = qn_db_createDBCtx(&made, log, nullptr)) {
    commitguard_printError("Error: Failed to create database context: %d.\n", status);
    return status;
  }
  context->reset(made);
  return 0;
}

// ---- Export -----------------------------------------------------------------

int runExport(const Options &options, dbctx *context) {
  bulk::Store store(context, kFactorName);
  if (int status = store.connect()) {
    commitguard_printError("KVTR2415E The export stopped (sts=%d); the output is incomplete.\n",
                           status);
    return status;
  }
  bulk::Writer writer(options.format, stdout);
  writer.header();
  // 69803 once data could not be read, else 69802 once a named user had
  // none: the statuses of the one-user tool for the same users.
  int missed = 0;
  auto visit = [&](const bulk::StoredRow &row) {
    if (!row.defined || row.tags == nullptr) {
      if (row.defined)
        commitguard_printError("KVTR2413E User %s has no %s factor data; nothing was exported "
                               "for it.\n",
                               quoted(row.userid).c_str(), kFactorName);
      else
        commitguard_printError("KVTR2414E User %s is not defined to the MFA server; nothing was "
                               "exported for it.\n",
                               quoted(row.userid).c_str());
      missed = std::max(missed, LDAPUSER_NO_FACTOR);
      return 0;
    }
    ldapuser *read = nullptr;
    const int status = commitguard_readStored(kFactorName, row.userid, row.tags, &read);
    if (status == LDAPUSER_BAD_FACTOR_DATA) {
      commitguard_printError("KVTR2412E Stored %s factor data for %s could not be read "
                             "(sts=%d); it was not exported.\n",
                             kFactorName, quoted(row.userid).c_str(), status);
      missed = LDAPUSER_BAD_FACTOR_DATA;
      return 0;
    }
    if (status != 0)
      return status;
    RecordPtr record(read);
    if (int written = writer.write(*record))
      return written;
    // A reader that went away ends the export; the output check tells.
    return ferror(stdout) ? kOutputFailed : 0;
  };

  int status = 0;
  if (options.operands.empty()) {
    status = store.readAll(visit);
  } else {
    std::vector<std::string> named = options.operands;
    std::sort(named.begin(), named.end());
    named.erase(std::unique(named.begin(), named.end()), named.end());
    mfadb::TextArray userids;
    for (const std::string &userid : named)
      userids.add(userid);
    status = store.readNamed(userids, visit);
  }
  if (status == kOutputFailed)
    return missed;
  if (status != 0) {
    commitguard_printError("KVTR2415E The export stopped (sts=%d); the output is incomplete.\n",
                           status);
    return status;
  }
  return missed;
}

// ---- Import -----------------------------------------------------------------

// What an import does with one line.
struct Plan {
  enum Kind { kNone, kAdd, kChange, kUnchanged } kind = kNone; // kNone: a problem
  RecordPtr stored;                                            // changes only
  std::array<bool, kValueCount> changes{};
};

class Import {
public:
  explicit Import(const Options &options)
      : file_(options.operands[0]), shown_(file_ == "-" ? "standard input" : file_),
        format_(options.format), commit_(options.commit) {}

  // Reads, checks, previews and, with COMMIT, writes. Returns the exit
  // status before the output check.
  int run(dbctx *context);
  // The system log's record of an import with COMMIT.
  void audit(int status) const;
  const char *summary() const { return committed_ ? summary_.c_str() : "nothing was committed"; }

private:
  int readFile(std::string *text) const;
  void indexUsers(mfadb::TextArray *userids);
  int classify(const bulk::StoredRow &row);
  int refuse();
  void preview() const;
  int write(bulk::Store &store);
  void problem(int line, std::string text) { problems_.push_back({line, std::move(text)}); }

  const std::string file_;
  const std::string shown_;
  const bulk::Format format_;
  const bool commit_;
  std::vector<Entry> entries_;
  std::vector<bulk::Problem> problems_;
  std::vector<Plan> plans_; // one per entry
  std::unordered_map<std::string_view, size_t> byUser_;
  int added_ = 0, changed_ = 0, unchanged_ = 0;
  bool refused_ = false;
  bool unanswered_ = false;
  bool committed_ = false;
  std::string summary_;
};

int Import::readFile(std::string *text) const {
  FILE *in = file_ == "-" ? stdin : fopen(file_.c_str(), "rb");
  int error = errno;
  if (in != nullptr) {
    char buffer[65536];
    for (size_t got; (got = fread(buffer, 1, sizeof buffer, in)) > 0;)
      text->append(buffer, got);
    error = ferror(in) ? errno : 0;
    if (in != stdin)
      fclose(in);
  }
  if (in != nullptr && error == 0)
    return 0;
  commitguard_printError("KVTR2418E %s could not be read (%s); nothing was committed.\n",
                         shown_.c_str(), strerror(error));
  return kNoInput;
}

// Notes each user's first line and makes every later line of the same user
// a problem: which of two lines should win is for the administrator to say.
void Import::indexUsers(mfadb::TextArray *userids) {
  for (size_t i = 0; i < entries_.size(); i++) {
    const Entry &entry = entries_[i];
    const auto [first, added] = byUser_.emplace(entry.userid, i);
    if (added)
      userids->add(entry.userid);
    else
      problem(entry.line, "user " + quoted(entry.userid) + " repeats line " +
                              std::to_string(entries_[first->second].line));
  }
}

int Import::classify(const bulk::StoredRow &row) {
  // The statement answers for the users it was given and no others.
  const auto found = byUser_.find(row.userid);
  if (found == byUser_.end())
    return 0;
  const Entry &entry = entries_[found->second];
  Plan &plan = plans_[found->second];
  if (!row.defined) {
    problem(entry.line, "user " + quoted(entry.userid) + " is not defined to the MFA server");
    return 0;
  }
  for (int i = 0; i < kValueCount; i++)
    plan.changes[i] = entry.values[i].has_value();
  if (row.tags == nullptr) {
    plan.kind = Plan::kAdd;
    added_++;
    return 0;
  }
  ldapuser *stored = nullptr;
  const int status = commitguard_readStored(kFactorName, row.userid, row.tags, &stored);
  if (status == LDAPUSER_BAD_FACTOR_DATA) {
    problem(entry.line, "the stored " + std::string(kFactorName) + " factor data of user " +
                            quoted(entry.userid) +
                            " cannot be read (sts=" + std::to_string(status) + ")");
    return 0;
  }
  if (status != 0)
    return status;
  plan.stored.reset(stored);
  bool any = false;
  for (int i = 0; i < kValueCount; i++) {
    const char *old = bulk::valueOf(*stored, i);
    plan.changes[i] = plan.changes[i] && (old == nullptr || *entry.values[i] != old);
    any = any || plan.changes[i];
  }
  plan.kind = any ? Plan::kChange : Plan::kUnchanged;
  (any ? changed_ : unchanged_)++;
  if (!any)
    plan.stored.reset();
  return 0;
}

int Import::refuse() {
  std::stable_sort(problems_.begin(), problems_.end(),
                   [](const bulk::Problem &a, const bulk::Problem &b) { return a.line < b.line; });
  for (const bulk::Problem &each : problems_)
    commitguard_printError("KVTR2410E %s line %d: %s.\n", shown_.c_str(), each.line,
                           each.text.c_str());
  commitguard_printError("KVTR2411E The import of %s was refused: %zu problem%s; nothing was "
                         "committed.\n",
                         shown_.c_str(), problems_.size(), problems_.size() == 1 ? "" : "s");
  refused_ = true;
  return kRefused;
}

void Import::preview() const {
  printf("Import of %s factor data from %s: %d to add, %d to change, %d unchanged.\n", kFactorName,
         shown_.c_str(), added_, changed_, unchanged_);
  size_t listed = 0;
  for (size_t i = 0; i < entries_.size() && listed < kPreviewUsers; i++) {
    const Plan &plan = plans_[i];
    if (plan.kind != Plan::kAdd && plan.kind != Plan::kChange)
      continue;
    listed++;
    const Entry &entry = entries_[i];
    printf("Line %d, user %s, %s:\n", entry.line, quoted(entry.userid).c_str(),
           plan.kind == Plan::kAdd ? "add" : "change");
    for (int v = 0; v < kValueCount; v++) {
      if (!plan.changes[v])
        continue;
      const char *old = plan.stored ? bulk::valueOf(*plan.stored, v) : nullptr;
      printf("  %s: %s -> %s\n", bulk::kColumnNames[bulk::kDN + v].data(),
             old != nullptr ? quoted(old).c_str() : "<not set>", quoted(*entry.values[v]).c_str());
    }
  }
  if (const size_t more = static_cast<size_t>(added_ + changed_) - listed)
    printf("And %zu more users to add or change.\n", more);
}

// The pending records become tag texts as the one-user tool's commit makes
// them (record to factor data to tag JSON, the counter reset), and go to the
// database in two statements.
int Import::write(bulk::Store &store) {
  bulk::Change additions, changes;
  for (size_t i = 0; i < entries_.size(); i++) {
    Plan &plan = plans_[i];
    if (plan.kind != Plan::kAdd && plan.kind != Plan::kChange)
      continue;
    const Entry &entry = entries_[i];
    RecordPtr pending = std::move(plan.stored);
    if (pending == nullptr)
      pending.reset(reinterpret_cast<ldapuser *>(safeMalloc(sizeof(ldapuser), "ldapuser")));
    if (pending == nullptr)
      return LDAPUSER_OUT_OF_MEMORY;
    for (int v = 0; v < kValueCount; v++) {
      if (!plan.changes[v])
        continue;
      char *copy = duplicateString(entry.values[v]->c_str());
      if (copy == nullptr)
        return LDAPUSER_OUT_OF_MEMORY;
      freeString(bulk::valueField(*pending, v));
      bulk::valueField(*pending, v) = copy;
    }
    pending->lastSearch = 0;
    factorData *data = nullptr;
    if (int status = ldapuser_convertToFactorData(kFactorName, entry.userid.c_str(), pending.get(),
                                                  1, &data))
      return status;
    FactorPtr factor(data);
    char *json = nullptr;
    if (int status = createFactorJson(factor->tags, &json))
      return status;
    TextPtr text(json);
    bulk::Change &change = plan.kind == Plan::kAdd ? additions : changes;
    change.userids.add(entry.userid);
    change.tags.add(text.get());
  }
  int status = changes.userids.size() > 0 ? store.update(changes) : 0;
  if (status == 0 && additions.userids.size() > 0)
    status = store.insert(additions);
  return status;
}

int Import::run(dbctx *context) {
  std::string text;
  if (int status = readFile(&text))
    return status;
  bulk::readEntries(format_, text, &entries_, &problems_);
  text.clear();
  text.shrink_to_fit();
  mfadb::TextArray userids;
  indexUsers(&userids);
  plans_.resize(entries_.size());

  bulk::Store store(context, kFactorName);
  int status = store.connect();
  if (status == 0) {
    auto plan = [&] {
      if (int read = store.readNamed(userids,
                                     [this](const bulk::StoredRow &row) { return classify(row); }))
        return read;
      if (!problems_.empty())
        return refuse();
      preview();
      if (!commit_)
        return 0;
      // What is about to be written is on the screen before the wait for
      // locks or the network begins.
      fflush(stdout);
      return write(store);
    };
    status = commit_ ? store.transaction(&unanswered_, plan) : plan();
  }
  if (refused_)
    return status;
  if (status != 0 && unanswered_) {
    commitguard_printError("KVTR2417E The connection was lost while the import of %s was being "
                           "committed (sts=%d); whether it was committed is not known.\n",
                           shown_.c_str(), status);
  } else if (status != 0) {
    commitguard_printError("KVTR2416E The import of %s stopped (sts=%d); nothing was committed.\n",
                           shown_.c_str(), status);
  } else if (commit_) {
    committed_ = true;
    summary_ = std::string(kFactorName) + " factor data from " + shown_ + " was committed";
    printf("Committed %s factor data from %s: %d added, %d changed, %d unchanged.\n", kFactorName,
           shown_.c_str(), added_, changed_, unchanged_);
  } else {
    printf("Did not attempt to commit %s factor data from %s.\n", kFactorName, shown_.c_str());
  }
  return status;
}

void Import::audit(int status) const {
  std::string outcome = committed_    ? "committed"
                        : refused_    ? "refused problems=" + std::to_string(problems_.size())
                        : unanswered_ ? "unknown"
                                      : "failed";
  if (!committed_)
    outcome += " status=" + std::to_string(status);
  commitguard::audit(kIdentity, committed_,
                     "import factor=" + quoted(kFactorName) + " file=" + quoted(file_),
                     "added=" + std::to_string(added_) + " changed=" + std::to_string(changed_) +
                         " unchanged=" + std::to_string(unchanged_) + " outcome=" + outcome);
}

} // namespace

int main(int argc, char **argv) {
  // A reader that went away makes writes fail instead of ending the process,
  // so that an import is never cut off before its audit record; the failed
  // output is reported at the end.
  signal(SIGPIPE, SIG_IGN);
  const char *name = argc > 0 ? argv[0] : kIdentity;
  if (argc < 2 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
    usage(stdout, name);
    return commitguard_finishOutput(0, "nothing was committed");
  }
  Options options;
  if (parseArguments(argc, argv, &options) != 0) {
    usage(stderr, name);
    return kUsageError;
  }
  ContextPtr context;
  if (int status = makeContext(&context))
    return commitguard_finishOutput(status, "nothing was committed");
  if (options.command == Command::Export)
    return commitguard_finishOutput(runExport(options, context.get()), "the export is incomplete");

  Import import(options);
  const int status = import.run(context.get());
  if (options.commit)
    import.audit(status);
  return commitguard_finishOutput(status, import.summary());
}
