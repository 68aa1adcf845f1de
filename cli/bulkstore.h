// The MFA database as ldapfactor-bulk uses it: one connection for the whole
// run, the LDAP factor rows of many users streamed in one statement, and the
// changes of an import written in two set-based statements inside one
// transaction. Every value travels as a parameter.
#ifndef MFA_CLI_BULKSTORE_H
#define MFA_CLI_BULKSTORE_H

#include <functional>
#include <string>
#include <vector>

#include "db/dbcommon_internal.h"

namespace bulk {

// One user as read: whether the user is defined to the MFA server, and the
// stored tag text of the factor (null when the user has no data for it).
struct StoredRow {
  const char *userid;
  bool defined;
  const char *tags;
};

// Returns 0 to go on, anything else to stop the reading with that status.
using StoredVisit = std::function<int(const StoredRow &)>;

// A new user's or a changed user's tag text, to be written.
struct Change {
  mfadb::TextArray userids;
  mfadb::TextArray tags;
};

class Store {
public:
  // Errors are reported to the context's log.
  Store(dbctx *context, const char *factorName)
      : session_(context, mfadb::Reporter::Log), factorName_(factorName) {}

  // 0, or 80101 when the database cannot be reached. Values travel as UTF-8
  // whatever the client's locale.
  int connect();

  // Streams every user that has data for the factor, in the order of the
  // user IDs. 0 when all were visited, 80102 when the reading failed, or the
  // status that stopped visit.
  int readAll(const StoredVisit &visit);
  // Streams one row for each of the named users, in the order of the user
  // IDs; the same statuses.
  int readNamed(const mfadb::TextArray &userids, const StoredVisit &visit);

  // Runs body in one transaction at REPEATABLE READ, so that a row another
  // program changes after it was read makes the write fail instead of being
  // replaced. 0 once committed; otherwise body's status or 80107, nothing
  // written, and *unanswered set when the COMMIT went unanswered (whether it
  // was made is not known).
  int transaction(bool *unanswered, const std::function<int()> &body);

  // Replaces the data of users who have some, and adds it for users who have
  // none; each checks that it wrote one row per user. 0 or 80107.
  int update(const Change &changes);
  int insert(const Change &additions);

private:
  int stream(const char *sql, std::initializer_list<const char *> params, const StoredVisit &visit);
  int requireWritten(int expected);

  mfadb::Session session_;
  const char *factorName_;
};

} // namespace bulk

#endif
