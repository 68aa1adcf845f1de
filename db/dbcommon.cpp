#include "db/dbcommon.h"

#include <cassert>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/alloc.h"
#include "base/logging.h"
#include "db/dbcommon_internal.h"
#include "mfadata/factorutils.h"

namespace mfadb {
namespace {

void logText(dbctx *context, int level, const char *text) {
  tvklog(context ? context->logContext : nullptr, MFADB_COMPONENT_ID, level, "%s", text);
}

std::string formatText(const char *format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int length = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (length <= 0)
    return {};
  std::string text(static_cast<std::size_t>(length), '\0');
  vsnprintf(text.data(), text.size() + 1, format, args);
  return text;
}

// Server notices (for example a ROLLBACK outside a transaction) would go to
// standard error by default; they belong in the log.
void noticeToLog(void *context, const char *message) {
  logText(static_cast<dbctx *>(context), kNoticeLevel, message);
}

} // namespace

Escaped::Escaped(PGconn *connection, const char *source) {
  quotedDuplicateString(connection, source, &text_, &size_);
}

Escaped::~Escaped() {
  safeFree(text_, size_);
}

int Session::connect() {
  if (context_ == nullptr || context_->connectionString == nullptr)
    return QN_DB_BAD_PARAMETERS;
  connection_.reset(PQconnectdb(context_->connectionString));
  if (PQstatus(connection()) != CONNECTION_OK) {
    // libpq's message brings its own line end; the log and console lines add
    // one more, the factor-data service's line does not.
    const char *format = connectFailed_ != nullptr       ? connectFailed_
                         : reporter_ == Reporter::Stdout ? "Connection to database failed: %s"
                                                         : "Connection to database failed: %s\n";
    report(format, PQerrorMessage(connection()));
    return QN_DB_CONNECT_FAILED;
  }
  PQsetNoticeProcessor(connection(), noticeToLog, context_);
  return 0;
}

int Session::connect(std::initializer_list<Value> values) {
  if (int status = connect())
    return status;
  for (const Value &value : values)
    if (!(value.into = escape(value.source)))
      return QN_DB_BAD_PARAMETERS;
  return 0;
}

void Session::report(const char *format, ...) {
  va_list args;
  va_start(args, format);
  reportV(MFADB_ERROR_LEVEL, format, args);
  va_end(args);
}

void Session::reportAt(int level, const char *format, ...) {
  va_list args;
  va_start(args, format);
  reportV(level, format, args);
  va_end(args);
}

void Session::reportV(int level, const char *format, va_list args) {
  if (reporter_ != Reporter::Log) {
    if (reporter_ == Reporter::Console) {
      printStamp();
      printf("MFADB:");
    }
    vprintf(format, args);
    fflush(stdout);
  } else {
    logText(context_, level, formatText(format, args).c_str());
  }
}

int Session::check(Expect expect, const Failure &failure) {
  ExecStatusType status = PQresultStatus(result());
  bool ok = (status == PGRES_TUPLES_OK && expect != Expect::Command) ||
            (status == PGRES_COMMAND_OK && expect != Expect::Tuples);
  return ok ? 0 : fail(failure);
}

int Session::fail(const Failure &failure) {
  report(failure.format, failure.reason == Reason::Connection ? PQerrorMessage(connection())
                                                              : PQresultErrorMessage(result()));
  return failure.status;
}

int Session::exec(const char *sql, Expect expect, const Failure &failure) {
  result_.reset(PQexec(connection(), sql));
  return check(expect, failure);
}

int Session::execParams(const char *sql, Expect expect, const Failure &failure,
                        std::initializer_list<const char *> params) {
  std::vector<const char *> values(params);
  result_.reset(PQexecParams(connection(), sql, static_cast<int>(values.size()), nullptr,
                             values.data(), nullptr, nullptr, 0));
  return check(expect, failure);
}

int Session::execFormattedV(std::size_t size, Expect expect, const Failure &failure,
                            const char *format, va_list args) {
  assert(size <= kLargestStatement);
  char sql[kLargestStatement];
  int status = formatStatementV(*this, sql, size, format, args);
  if (status == 0)
    status = execParams(sql, expect, failure);
  explicit_bzero(sql, size);
  return status;
}

int Session::execFormatted(Expect expect, const Failure &failure, const char *format, ...) {
  va_list args;
  va_start(args, format);
  int status = execFormattedV(kStatementSize, expect, failure, format, args);
  va_end(args);
  return status;
}

int Session::execFormattedIn(std::size_t size, Expect expect, const Failure &failure,
                             const char *format, ...) {
  va_list args;
  va_start(args, format);
  int status = execFormattedV(size, expect, failure, format, args);
  va_end(args);
  return status;
}

int Session::requireRows(const char *notFound) {
  if (rows() > 0)
    return 0;
  report("%s", notFound);
  return QN_DB_NOT_FOUND;
}

int Session::requireChanged(const char *notFound) {
  if (rowsAffected() > 0)
    return 0;
  report("%s", notFound);
  return QN_DB_NOT_FOUND;
}

int Session::commit(const Failure &failure, bool *unanswered) {
  result_.reset(PQexec(connection(), "COMMIT"));
  // A transaction that failed on the way answers its COMMIT with ROLLBACK.
  if (PQresultStatus(result()) == PGRES_COMMAND_OK) {
    if (strcmp(PQcmdStatus(result()), "COMMIT") == 0)
      return 0;
    report(failure.format, "the server rolled the transaction back\n");
    return failure.status;
  }
  *unanswered = PQstatus(connection()) == CONNECTION_BAD;
  return fail(failure);
}

int Session::startStream(const char *sql, const Failure &failure,
                         std::initializer_list<const char *> params) {
  std::vector<const char *> values(params);
  result_.reset();
  if (PQsendQueryParams(connection(), sql, static_cast<int>(values.size()), nullptr, values.data(),
                        nullptr, nullptr, 0) != 1) {
    report(failure.format, PQerrorMessage(connection()));
    return failure.status;
  }
  if (PQsetSingleRowMode(connection()) != 1)
    return endStream(failure.status, failure);
  return 0;
}

bool Session::nextStreamedRow() {
  result_.reset(PQgetResult(connection()));
  return PQresultStatus(result()) == PGRES_SINGLE_TUPLE;
}

int Session::endStream(int status, const Failure &failure) {
  if (status != 0) {
    // The reader stopped: spare the server the rest of the work.
    if (PGcancel *cancel = PQgetCancel(connection())) {
      char why[256];
      PQcancel(cancel, why, sizeof why);
      PQfreeCancel(cancel);
    }
  } else {
    // The last result tells whether the statement ran to its end.
    status = check(Expect::Tuples, failure);
  }
  // The connection takes no other statement before libpq has handed out
  // every result of this one.
  while (PGresult *rest = PQgetResult(connection()))
    PQclear(rest);
  return status;
}

void Session::control(const char *sql) {
  result_.reset(PQexec(connection(), sql));
}

int Session::integer(int row, int column) const {
  return atoi(text(row, column));
}

bool Session::copyTo(char **field, int row, int column) const {
  *field = isNull(row, column) ? nullptr : duplicateString(text(row, column));
  return *field != nullptr || isNull(row, column);
}

bool Session::copyColumn(char ***field, int first, int size, int column, const char *label) const {
  if ((*field = newArray<char>(size, label)) == nullptr)
    return false;
  for (int i = 0; i < size; i++)
    if (!copyTo(&(*field)[i], first + i, column))
      return false;
  return true;
}

int formatStatement(Session &session, char *buffer, std::size_t size, const char *format, ...) {
  va_list args;
  va_start(args, format);
  int status = formatStatementV(session, buffer, size, format, args);
  va_end(args);
  return status;
}

int formatStatementV(Session &session, char *buffer, std::size_t size, const char *format,
                     va_list args) {
  int length = vsnprintf(buffer, size, format, args);
  if (length < 0 || static_cast<std::size_t>(length) >= size) {
    explicit_bzero(buffer, size);
    session.report("statement too long: %d bytes do not fit a buffer of %zu\n", length, size);
    return QN_DB_BAD_PARAMETERS;
  }
  return 0;
}

} // namespace mfadb

using mfadb::destroyArray;

namespace {

// Frees the record's named strings, then the record itself; null is ignored.
template <typename T, typename... Strings> void releaseRecord(T *record, Strings T::*...strings) {
  if (record == nullptr)
    return;
  (freeString(record->*strings), ...);
  safeFree(reinterpret_cast<char *>(record), sizeof *record);
}

} // namespace

extern "C" {

void quotedDuplicateString(PGconn *connection, const char *source, char **escaped, int *size) {
  if (escaped == nullptr || size == nullptr)
    return;
  *escaped = nullptr;
  *size = 0;
  if (source == nullptr)
    return;
  int length = 2 * static_cast<int>(strlen(source)) + 1;
  char *copy = safeMalloc(length, "quotedDup");
  if (copy == nullptr)
    return;
  int error = 0;
  PQescapeStringConn(connection, copy, source, strlen(source), &error);
  if (error != 0) {
    safeFree(copy, length);
    return;
  }
  *escaped = copy;
  *size = length;
}

void destroyMFAAdminFactorData(MFAAdminFactorData *factor) {
  releaseRecord(factor, &MFAAdminFactorData::factorname, &MFAAdminFactorData::factornote,
                &MFAAdminFactorData::factortags);
}

void qn_db_destroyAdminFactorDef(MFAAdminFactorData *factor) {
  destroyMFAAdminFactorData(factor);
}

void destroyFactorData(MFAAdminFactorData *factor) {
  if (factor != nullptr) {
    // These two are released without their terminator byte, unlike the twin.
    for (char *text : {factor->factornote, factor->factortags})
      if (text != nullptr)
        safeFree(text, static_cast<int>(strlen(text)));
  }
  releaseRecord(factor, &MFAAdminFactorData::factorname);
}

void destroyMFAAdminPolicyData(MFAAdminPolicyData *policy) {
  if (policy != nullptr)
    destroyArray(policy->factors, policy->numFactors, destroyFactorData);
  releaseRecord(policy, &MFAAdminPolicyData::policyname, &MFAAdminPolicyData::policynote);
}

void destroyUserPolicyData(userPolicyData *policy) {
  if (policy != nullptr) {
    destroyArray(policy->factorNames, policy->numFactors, freeString);
    destroyArray(policy->factorNotes, policy->numFactors, freeString);
  }
  releaseRecord(policy, &userPolicyData::policyname, &userPolicyData::policynote);
}

void destroyAdminData(adminData *admin) {
  releaseRecord(admin, &adminData::unixuid, &adminData::name);
}

void destroyClientData(clientData *client) {
  releaseRecord(client, &clientData::ClientId, &clientData::ClientSecret,
                &clientData::ClientDescription);
}

void destroyClientUserProfile(clientUserProfile *profile) {
  releaseRecord(profile, &clientUserProfile::remoteuserid);
}

void destroyOrlinClientUserData(orlinClientUserData *connection) {
  if (connection != nullptr)
    destroyArray(connection->profiles, connection->numProfiles, destroyClientUserProfile);
  releaseRecord(connection, &orlinClientUserData::name);
}

void destroyClientUserData(orlinClientUserData *connection) {
  destroyOrlinClientUserData(connection);
}

void destroyOrlinClientData(orlinClientData *client) {
  if (client != nullptr)
    destroyArray(client->users, client->numUsers, destroyOrlinClientUserData);
  releaseRecord(client, &orlinClientData::ClientHostname, &orlinClientData::ClientDescription);
}

void destroyUserData(userData *user) {
  if (user != nullptr) {
    destroyArray(user->policies, user->numPolicies, destroyMFAAdminPolicyData);
    destroyArray(user->policyNames, user->numPolicies, freeString);
    destroyArray(user->factors, user->numFactors, destroyMFAAdminFactorData);
    destroyArray(user->orlinClients, user->numOrlinClients, destroyOrlinClientUserData);
  }
  releaseRecord(user, &userData::unixuid, &userData::name);
}

} // extern "C"
