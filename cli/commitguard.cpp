#include "cli/commitguard.h"

#include "base/alloc.h"
#include "cli/commitguard_internal.h"
#include "cli/ldapuser.h"
#include "mfadata/factordata.h"
#include "mfadata/factortags.h"
#include "mfadata/usermfadata_internal.h"

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

// The invoking user: the real user ID and, when the system knows it, its name.
std::string osUser() {
  const uid_t uid = getuid();
  std::string text = "uid=" + std::to_string(uid);
  char buffer[4096];
  passwd entry{};
  passwd *found = nullptr;
  if (getpwuid_r(uid, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr)
    text += " osuser=" + commitguard::quoted(found->pw_name);
  return text;
}

std::string fieldList(const char *const given[4]) {
  std::string list;
  for (size_t i = 0; i < kFieldNames.size(); i++)
    if (given[i] != nullptr)
      list.append(list.empty() ? "" : ",").append(kFieldNames[i]);
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

// An empty text or "{}", blanks around and inside allowed.
bool isEmptyObject(std::string_view text) {
  std::string bare;
  for (char c : text)
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n')
      bare += c;
  return bare.empty() || bare == "{}";
}

} // namespace

namespace commitguard {

std::string quoted(std::string_view text) {
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

void audit(const char *identity, bool committed, const std::string &head, const std::string &tail) {
  const std::string record = head + " " + osUser() + " " + tail;
  // syslog reports nothing back: a log that is absent or full loses the
  // record and leaves the run as it was.
  openlog(identity, LOG_PID, LOG_AUTHPRIV);
  syslog(committed ? LOG_NOTICE : LOG_WARNING, "%s", record.c_str());
  closelog();
}

} // namespace commitguard

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
  ldapuser *record = nullptr;
  status = commitguard_readStored(factorName, userid, stored, &record);
  ldapuser_destroy(record);
  freeString(stored);
  return status;
}

int commitguard_readStored(const char *factorName, const char *userid, const char *text,
                           ldapuser **record) {
  if (factorName == nullptr || text == nullptr || record == nullptr)
    return LDAPUSER_MISSING_ARGUMENT;
  factorData data{};
  data.factorName = const_cast<char *>(factorName);
  createFactorTags(text, &data, &data.numTags);
  mfadata::TagListPtr tags(data.tags);
  // A text read without tags holds none only when it is empty or an empty
  // object; any other such text did not parse, is not an object, or could
  // not be copied. A tag without a value had a value that is not a string.
  bool whole = data.numTags > 0 || isEmptyObject(text);
  for (const factorTag *tag = data.tags; tag != nullptr && whole; tag = tag->next)
    whole = tag->tagValue != nullptr;
  if (!whole)
    return LDAPUSER_BAD_FACTOR_DATA;
  uint32_t badOffset = 0;
  ldapuser *made = nullptr;
  int status = ldapuser_createFromFactorData(userid, &data, &made, &badOffset);
  if (status != 0 && status != LDAPUSER_NO_TAGS)
    return status == LDAPUSER_OUT_OF_MEMORY ? status : LDAPUSER_BAD_FACTOR_DATA;
  *record = made;
  return 0;
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
  commitguard::audit(identity, outcome == COMMITGUARD_COMMITTED,
                     "commit factor=" + commitguard::quoted(factorName) +
                         " user=" + commitguard::quoted(userid),
                     "fields=" + fieldList(given) + " " + outcomeText(outcome, status));
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
