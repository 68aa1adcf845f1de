#include "cli/commitguard.h"

#include "base/alloc.h"
#include "cli/ldapuser.h"
#include "mfadata/factordata.h"
#include "mfadata/factortags.h"

#include <pwd.h>
#include <sysexits.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr std::array<const char *, 4> kFieldNames = {"DN", "SEARCHVAL", "SEARCHVAL2", "SEARCHVAL3"};

// A value between double quotes that cannot end its field or its line early:
// quotes, backslashes and control characters are written as \xNN.
std::string quotedForLog(std::string_view text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7f || c == '"' || c == '\\') {
      char escape[8];
      snprintf(escape, sizeof escape, "\\x%02x", c);
      out += escape;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

// The invoking user: the real user ID and, when the system knows it, its name.
std::string osUser() {
  const uid_t uid = getuid();
  std::string text = "uid=" + std::to_string(uid);
  char buffer[4096];
  passwd entry{};
  passwd *found = nullptr;
  if (getpwuid_r(uid, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr)
    text += " osuser=" + quotedForLog(found->pw_name);
  return text;
}

std::string fieldList(const char *const given[4]) {
  std::string list;
  for (size_t i = 0; i < kFieldNames.size(); i++)
    if (given[i] != nullptr)
      list += (list.empty() ? "" : ",") + std::string(kFieldNames[i]);
  return list.empty() ? "none" : list;
}

std::string outcomeText(commitguard_outcome outcome, int status) {
  const std::string sts = " status=" + std::to_string(status);
  switch (outcome) {
  case COMMITGUARD_COMMITTED:
    return "outcome=committed";
  case COMMITGUARD_REFUSED_UNREAD:
    return "outcome=refused reason=\"existing data not read\"" + sts;
  case COMMITGUARD_REFUSED_NO_USER:
    return "outcome=refused reason=\"user not defined\"" + sts;
  case COMMITGUARD_FAILED:
    break;
  }
  return "outcome=failed" + sts;
}

} // namespace

extern "C" {

int commitguard_check(dbctx *context, const char *factorName, const char *userid, int readStatus) {
  if (readStatus != 0 && readStatus != LDAPUSER_NO_FACTOR)
    return readStatus;
  // The read shows a text that is not an object of strings as holding fewer
  // values than it does, or none; replacing it would lose the rest.
  char *stored = nullptr;
  int status = kfactor_get_UserFactorTagsText(context, userid, factorName, &stored);
  if (status == QN_DB_NOT_FOUND)
    return 0; // nothing stored, nothing to lose
  if (status != 0)
    return LDAPUSER_READ_FAILED;
  // An empty text reads as no tags and holds none.
  const bool whole = stored[0] == '\0' || isStoredFactorJson(stored);
  freeString(stored);
  return whole ? 0 : LDAPUSER_BAD_FACTOR_DATA;
}

void commitguard_printError(const char *format, ...) {
  fflush(stdout);
  va_list values;
  va_start(values, format);
  vfprintf(stderr, format, values);
  va_end(values);
}

void commitguard_printUnread(const char *factorName, const char *userid, int status) {
  commitguard_printError(
      "KVTR2407E Existing %s factor data for %s could not be read (sts=%d); nothing was "
      "committed.\n",
      factorName, userid, status);
}

void commitguard_printUndefinedUser(const char *userid) {
  commitguard_printError(
      "KVTR2408E User %s is not defined to the MFA server; nothing was committed.\n", userid);
}

void commitguard_audit(const char *identity, const char *factorName, const char *userid,
                       const char *const given[4], commitguard_outcome outcome, int status) {
  const std::string record = "commit factor=" + quotedForLog(factorName) +
                             " user=" + quotedForLog(userid) + " " + osUser() +
                             " fields=" + fieldList(given) + " " + outcomeText(outcome, status);
  // syslog reports nothing back: a log that is absent or full loses the
  // record and leaves the run as it was.
  openlog(identity, LOG_PID, LOG_AUTHPRIV);
  syslog(outcome == COMMITGUARD_COMMITTED ? LOG_NOTICE : LOG_WARNING, "%s", record.c_str());
  closelog();
}

int commitguard_finishOutput(int status, const char *summary) {
  // The error flag also remembers a write that failed long before this flush.
  const bool flushed = fflush(stdout) == 0;
  const int reason = errno;
  if (flushed && ferror(stdout) == 0)
    return status;
  commitguard_printError("KVTR2409E Standard output could not be written (%s); %s.\n",
                         flushed ? "write error" : strerror(reason), summary);
  return status != 0 ? status : EX_IOERR;
}

} // extern "C"
