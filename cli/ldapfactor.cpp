// ldapfactor: shows one user's LDAP factor data and, given the word COMMIT,
// replaces it with the values from the command line.
#include "base/alloc.h"
#include "cli/commitguard.h"
#include "cli/ldapuser.h"
#include "mfadata/dbctx.h"
#include "mfadata/factordata.h"

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

namespace {

constexpr const char *kFactorName = "QMXLDAP1";

// The context is never destroyed, and a record whose commit failed is left as
// it is: both live until the process ends. Holding them here keeps them
// reachable, so a leak checker lists them as kept instead of lost.
dbctx *keptContext = nullptr;
ldapuser *keptRecord = nullptr;

// Where parse_args puts an argument: one of the five values in command-line
// order, the commit flag, or nowhere (the argument ends the parse).
enum Slot : int8_t { kUserId, kDN, kSearchVal, kSearchVal2, kSearchVal3, kCommitFlag, kNowhere };

struct Step {
  Slot slot;
  int8_t next;   // state for the following argument
  int8_t status; // non-zero: stop and return it
};

// Per state: what a plain argument does, and what the word COMMIT does.
struct State {
  Step plain;
  Step commit;
};

// COMMIT is a keyword only once the user ID is known, and it ends the values.
constexpr std::array<State, 8> kStates = {{
    /* 0 nothing read */ {{kUserId, 2, 0}, {kUserId, 2, 0}},
    /* 1 never entered */ {{kUserId, 2, 0}, {kUserId, 2, 0}},
    /* 2 user ID read */ {{kDN, 3, 0}, {kCommitFlag, 7, 0}},
    /* 3 DN read */ {{kSearchVal, 4, 0}, {kCommitFlag, 7, 0}},
    /* 4 SEARCHVAL read */ {{kSearchVal2, 5, 0}, {kCommitFlag, 7, 0}},
    /* 5 SEARCHVAL2 read */ {{kSearchVal3, 6, 0}, {kCommitFlag, 7, 0}},
    /* 6 SEARCHVAL3 read */ {{kNowhere, 6, -2}, {kCommitFlag, 7, 0}},
    /* 7 COMMIT read */ {{kNowhere, 7, -3}, {kNowhere, 7, -3}},
}};

constexpr bool statesStayInTable() {
  for (const State &state : kStates)
    for (const Step &step : {state.plain, state.commit})
      if (step.next < 0 || static_cast<size_t>(step.next) >= kStates.size())
        return false;
  return true;
}
static_assert(statesStayInTable());

// Copies of the arguments, owned by main and wiped when the run ends.
struct Arguments {
  std::array<char *, 5> values{}; // user ID, DN, SEARCHVAL, SEARCHVAL2, SEARCHVAL3
  char *factorName = nullptr;     // parse_args takes its address and leaves it alone
  uint32_t commit = 0;

  Arguments() = default;
  Arguments(const Arguments &) = delete;
  Arguments &operator=(const Arguments &) = delete;
  ~Arguments() {
    for (char *value : values) {
      if (value != nullptr) {
        explicit_bzero(value, strlen(value));
        free(value);
      }
    }
  }
};

// Walks the arguments after the invocation name through kStates. Returns 0,
// -2 (more than four values) or -3 (anything after COMMIT); values copied
// before an error stay copied.
int parse_args(int argc, char **argv, char **userid, char **dn, char **searchVal, char **searchVal2,
               char **searchVal3, char ** /* factorName */, uint32_t *commit) {
  char **const targets[] = {userid, dn, searchVal, searchVal2, searchVal3};
  int state = 0;
  for (int i = 1; i < argc; i++) {
    const State &current = kStates[state];
    const Step &step = strcmp(argv[i], "COMMIT") == 0 ? current.commit : current.plain;
    if (step.status != 0)
      return step.status;
    if (step.slot == kCommitFlag)
      *commit = 1;
    else
      *targets[step.slot] = strdup(argv[i]);
    state = step.next;
  }
  return 0;
}

void usage(const char *name) {
  printf("Usage: %s <UserID> [\"<UserDN>\" [\"<SEARCHVAL>\" [\"<SEARCHVAL2>\" "
         "[\"<SEARCHVAL3>\"]]]] [COMMIT]\n"
         "Enclose the user's bind DN and SEARCHVALs in double-quotes to preserve spaces.\n",
         name);
}

const char *shown(const char *value) {
  return value != nullptr ? value : "<not set>";
}

void printLDAPUser(const ldapuser *user) {
  printf("  DN: %s\n", shown(user->DN));
  printf("  SEARCHVAL: %s\n", shown(user->SEARCHVAL));
  printf("  SEARCHVAL2: %s\n", shown(user->SEARCHVAL2));
  printf("  SEARCHVAL3: %s\n", shown(user->SEARCHVAL3));
}

// Puts a fresh copy of value into field, releasing what it held. False when
// the copy cannot be made.
bool replaceField(char **field, const char *value) {
  char *copy = duplicateString(value);
  if (copy == nullptr)
    return false;
  freeString(*field);
  *field = copy;
  return true;
}

// Everything after the grammar: read, overlay, list, and commit when asked.
// Returns the status to end with and leaves in *outcome what became of a
// commit.
int run(const Arguments &args, commitguard_outcome *outcome) {
  auto &[userid, dn, searchVal, searchVal2, searchVal3] = args.values;
  int status = qn_db_createDBCtx(&keptContext, nullptr, nullptr);
  if (status != 0) {
    commitguard_printError("Error: Failed to create database context: %d.\n", status);
    return status;
  }

  ldapuser *record = nullptr;
  const int readStatus = ldapuser_retrieveFromKORS(keptContext, kFactorName, userid, &record);
  if (record != nullptr) {
    printf("Existing %s factor data for user %s:\n", kFactorName, userid);
    printLDAPUser(record);
  } else {
    printf("Unable to get existing %s user data for %s (sts=%d), using defaults.\n", kFactorName,
           userid, readStatus);
    record = reinterpret_cast<ldapuser *>(safeMalloc(sizeof(ldapuser), "ldapuser"));
    if (record == nullptr)
      return LDAPUSER_OUT_OF_MEMORY;
  }

  const std::array<std::pair<char **, const char *>, 4> overlay = {{
      {&record->DN, dn},
      {&record->SEARCHVAL, searchVal},
      {&record->SEARCHVAL2, searchVal2},
      {&record->SEARCHVAL3, searchVal3},
  }};
  for (const auto &[field, value] : overlay) {
    if (value != nullptr && !replaceField(field, value)) {
      ldapuser_destroy(record);
      return LDAPUSER_OUT_OF_MEMORY;
    }
  }
  record->lastSearch = 0;

  printf("Pending %s tag data for user %s:\n", kFactorName, userid);
  printLDAPUser(record);

  if (args.commit == 0) {
    printf("Did not attempt to commit %s factor data for %s.\n", kFactorName, userid);
    ldapuser_destroy(record);
    return readStatus;
  }

  if (int refusal = commitguard_check(keptContext, kFactorName, userid, readStatus)) {
    commitguard_printUnread(kFactorName, userid, refusal);
    *outcome = COMMITGUARD_REFUSED_UNREAD;
    ldapuser_destroy(record);
    return refusal;
  }
  uint32_t rowsWritten = 0;
  status = ldapuser_commitToKORS2(keptContext, kFactorName, userid, record, 1, &rowsWritten);
  if (status == 0 && rowsWritten == 0) {
    commitguard_printUndefinedUser(userid);
    *outcome = COMMITGUARD_REFUSED_NO_USER;
    ldapuser_destroy(record);
    return QN_DB_NOT_FOUND;
  }
  if (status == 0) {
    printf("Committed %s factor data for %s.\n", kFactorName, userid);
    *outcome = COMMITGUARD_COMMITTED;
    ldapuser_destroy(record);
    return 0;
  }
  // The commit reports failures through its status only, so the three codes
  // stay 0; they are printed so that the line has the form of the service's
  // other error reports.
  const int gavrc = 0;
  const int korsrc = 0;
  const int korsrsn = 0;
  keptRecord = record;
  commitguard_printError("KVTR2406E K_factor error: gavrc=%d, korsrc=%d, korsrsn=0x%x%s (Set user "
                         "factor data, factor=%s, userid=%s, sts=%d)\n",
                         gavrc, korsrc, static_cast<unsigned>(korsrsn),
                         kfactor_describe_rc(gavrc, korsrc, korsrsn, status), kFactorName, userid,
                         status);
  return status;
}

} // namespace

int main(int argc, char **argv) {
  // A reader that went away makes writes fail instead of ending the process,
  // so a commit is never cut off before its audit record; the failed output
  // is reported at the end like a full disk.
  signal(SIGPIPE, SIG_IGN);
  Arguments args;
  auto &[userid, dn, searchVal, searchVal2, searchVal3] = args.values;
  int status = parse_args(argc, argv, &userid, &dn, &searchVal, &searchVal2, &searchVal3,
                          &args.factorName, &args.commit);
  if (status != 0 || userid == nullptr) {
    usage(argc > 0 ? argv[0] : "ldapfactor");
    return commitguard_finishOutput(status, "nothing was committed");
  }

  commitguard_outcome outcome = COMMITGUARD_FAILED;
  status = run(args, &outcome);
  if (args.commit != 0)
    commitguard_audit("ldapfactor", kFactorName, userid, &args.values[1], outcome, status);
  const std::string summary =
      outcome == COMMITGUARD_COMMITTED
          ? std::string(kFactorName) + " factor data for " + userid + " was committed"
          : "nothing was committed";
  return commitguard_finishOutput(status, summary.c_str());
}
