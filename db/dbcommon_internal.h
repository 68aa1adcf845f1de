// The query frame every database operation runs in: one connection per
// call, escaped values, statements built in fixed buffers, checked results,
// and both the result and the connection released on every path.
#ifndef MFA_DB_DBCOMMON_INTERNAL_H
#define MFA_DB_DBCOMMON_INTERNAL_H

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "base/alloc.h"
#include "db/dbcommon.h"

#define MFADB_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))

namespace mfadb {

// Level at which server notices are logged: below what the database
// component is configured to show, so they appear only when asked for.
constexpr int kNoticeLevel = 4;

// The statement buffer of every operation that does not name its own size,
// and the largest one an operation names.
constexpr std::size_t kStatementSize = 1024;
constexpr std::size_t kLargestStatement = 2048;

// Where an operation reports: the database component's log, standard output
// without a time stamp (the factor-data service), or standard output behind
// the time stamp and "MFADB:" (the console messages of the password, client
// and YubiKey operations).
enum class Reporter { Log, Stdout, Console };

// The result status a statement must come back with.
enum class Expect { Tuples, Command, Either };

// Which libpq text explains a failure.
enum class Reason { Connection, Result };

struct Failure {
  int status;
  const char *format; // one %s: the libpq error text
  Reason reason;
};

inline constexpr Failure kSelectFailed{QN_DB_SELECT_FAILED, "SELECT failed: %s\n",
                                       Reason::Connection};
inline constexpr Failure kInsertFailed{QN_DB_INSERT_FAILED, "insert failed: %s\n", Reason::Result};
inline constexpr Failure kDeleteFailed{QN_DB_DELETE_FAILED, "delete failed: %s\n", Reason::Result};

template <auto Destroy> struct Destroyer {
  template <typename T> void operator()(T *record) const { Destroy(record); }
};
// A record that is destroyed unless it is released to the caller.
template <typename T, auto Destroy> using Owned = std::unique_ptr<T, Destroyer<Destroy>>;

// A zeroed record from the checked heap, or null.
template <typename T> T *newRecord(const char *label) {
  return reinterpret_cast<T *>(safeMalloc(static_cast<int>(sizeof(T)), label));
}

// A zeroed array of count pointers from the checked heap, or null.
template <typename T> T **newArray(int count, const char *label) {
  return reinterpret_cast<T **>(safeMalloc(count * static_cast<int>(sizeof(T *)), label));
}

template <typename T> void freeArray(T **array, int count) {
  safeFree(reinterpret_cast<char *>(array), count * static_cast<int>(sizeof(T *)));
}

// Destroys the count entries of an owned array (null entries are skipped by
// the destroyers), then the array itself. Accepts a null array.
template <typename T, typename Destroy> void destroyArray(T **array, int count, Destroy destroy) {
  if (array == nullptr)
    return;
  for (int i = 0; i < count; i++)
    destroy(array[i]);
  freeArray(array, count);
}

// An escaped copy of a caller's value, released when it goes out of scope.
class Escaped {
public:
  Escaped() = default;
  Escaped(PGconn *connection, const char *source);
  Escaped(const Escaped &) = delete;
  Escaped &operator=(const Escaped &) = delete;
  Escaped &operator=(Escaped &&other) noexcept {
    std::swap(text_, other.text_);
    std::swap(size_, other.size_);
    return *this;
  }
  ~Escaped();
  const char *get() const { return text_; }
  explicit operator bool() const { return text_ != nullptr; }

private:
  char *text_ = nullptr;
  int size_ = 0;
};

class Session {
public:
  // connectFailed, when given, replaces the reporter's text for a refused
  // connection (one %s: libpq's message).
  explicit Session(dbctx *context, Reporter reporter = Reporter::Log,
                   const char *connectFailed = nullptr)
      : context_(context), reporter_(reporter), connectFailed_(connectFailed) {}
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  // 0, 80101 with the reason reported, or 80106 for a missing context.
  int connect();

  // A caller's string and where its escaped copy goes.
  struct Value {
    Escaped &into;
    const char *source;
  };
  // Connects, then escapes each value: 80106 when one is null or cannot be
  // escaped.
  int connect(std::initializer_list<Value> values);
  PGconn *connection() const { return connection_.get(); }

  // An escaped copy of value; empty when value is null or cannot be escaped.
  Escaped escape(const char *value) const { return Escaped(connection(), value); }

  void report(const char *format, ...) MFADB_PRINTF(2, 3);
  // As report, at the given log level instead of the error level; the
  // level only matters when the session reports to the log.
  void reportAt(int level, const char *format, ...) MFADB_PRINTF(3, 4);

  // A constant statement without parameters, sent with PQexec.
  int exec(const char *sql, Expect expect, const Failure &failure);
  // A formatted statement or one with $n placeholders (text parameters),
  // sent with PQexecParams.
  int execParams(const char *sql, Expect expect, const Failure &failure,
                 std::initializer_list<const char *> params = {});
  // Formats a statement into a buffer of kStatementSize bytes and sends it
  // with PQexecParams; one that does not fit is refused as formatStatement
  // refuses it.
  int execFormatted(Expect expect, const Failure &failure, const char *format, ...)
      MFADB_PRINTF(4, 5);
  // The same in a buffer of size bytes (at most kLargestStatement), for the
  // operations whose statements have a buffer of their own size. The text is
  // wiped once sent, as it may hold a secret.
  int execFormattedIn(std::size_t size, Expect expect, const Failure &failure, const char *format,
                      ...) MFADB_PRINTF(5, 6);

  // 0 when the last result has rows; otherwise notFound is reported and the
  // status is 80105.
  int requireRows(const char *notFound);
  // 0 when the last command changed at least one row; otherwise notFound is
  // reported and the status is 80105.
  int requireChanged(const char *notFound);
  // Reports failure with its libpq text and returns its status: for a result
  // that came back well yet shows the operation did not take place.
  int fail(const Failure &failure);

  // Runs body between "BEGIN" and "END", or "ROLLBACK" when it fails.
  template <typename Body> int transaction(Body &&body) {
    control("BEGIN");
    int status = body();
    control(status == 0 ? "END" : "ROLLBACK");
    return status;
  }

  // One statement of a writer that removes a record and its links by id:
  // the format takes the id.
  struct IdStep {
    const char *format;
    Failure failure;
  };
  // Runs the steps in order in one transaction; the first failure stops
  // them and rolls every step back.
  template <std::size_t N> int transactionById(const IdStep (&steps)[N], int id) {
    return transaction([&] {
      for (const IdStep &step : steps)
        if (int status = execFormatted(Expect::Command, step.failure, step.format, id))
          return status;
      return 0;
    });
  }

  // Runs body in a transaction opened with begin (for example "BEGIN
  // ISOLATION LEVEL REPEATABLE READ") and checks every step, for writers that
  // must know whether their changes were made: 0 once the server confirmed
  // the COMMIT; body's status after a ROLLBACK; failure's status when begin
  // or the COMMIT fails. *unanswered tells the one case in which nobody
  // knows: the COMMIT was sent and the connection was lost before its answer.
  template <typename Body>
  int checkedTransaction(const char *begin, const Failure &failure, bool *unanswered, Body &&body) {
    *unanswered = false;
    if (int status = exec(begin, Expect::Command, failure))
      return status;
    if (int status = body()) {
      control("ROLLBACK");
      return status;
    }
    return commit(failure, unanswered);
  }

  // Sends a statement with $n text parameters and hands its rows to visit
  // one at a time as they arrive (libpq's single-row mode), so that a result
  // of any size is never held whole; while visit runs, the row readers see
  // the current row as row 0. Returns 0 after the last row; failure's status
  // when the statement fails, also part-way after rows were visited; or the
  // first non-zero status of visit, after which the statement is cancelled
  // and the rows still on their way are discarded.
  template <typename Visit>
  int stream(const char *sql, const Failure &failure, std::initializer_list<const char *> params,
             Visit &&visit) {
    if (int status = startStream(sql, failure, params))
      return status;
    int status = 0;
    while (status == 0 && nextStreamedRow())
      status = visit();
    return endStream(status, failure);
  }

  PGresult *result() const { return result_.get(); }
  int rows() const { return PQntuples(result()); }
  // Rows the last INSERT, UPDATE or DELETE wrote (0 for other statements).
  int rowsAffected() const { return atoi(PQcmdTuples(result())); }
  const char *text(int row, int column) const { return PQgetvalue(result(), row, column); }
  int integer(int row, int column) const;
  bool isNull(int row, int column) const { return PQgetisnull(result(), row, column) != 0; }
  // Stores in *field a checked-heap copy of a column (null for a SQL null);
  // false when memory is short.
  bool copyTo(char **field, int row, int column) const;
  // Stores in *field a new array (label) of copies of a column from size rows
  // starting at first; false when memory is short, with what was copied left
  // in *field for its owner to release.
  bool copyColumn(char ***field, int first, int size, int column, const char *label) const;

private:
  struct Finish {
    void operator()(PGconn *c) const { PQfinish(c); }
  };
  struct Clear {
    void operator()(PGresult *r) const { PQclear(r); }
  };

  int check(Expect expect, const Failure &failure);
  int execFormattedV(std::size_t size, Expect expect, const Failure &failure, const char *format,
                     va_list args) MFADB_PRINTF(5, 0);
  int commit(const Failure &failure, bool *unanswered);
  int startStream(const char *sql, const Failure &failure,
                  std::initializer_list<const char *> params);
  bool nextStreamedRow();
  int endStream(int status, const Failure &failure);
  void reportV(int level, const char *format, va_list args) MFADB_PRINTF(3, 0);
  void control(const char *sql);

  dbctx *context_;
  Reporter reporter_;
  const char *connectFailed_;
  // Declared before the result so that the result is cleared first.
  std::unique_ptr<PGconn, Finish> connection_;
  std::unique_ptr<PGresult, Clear> result_;
};

// The text of a text[] parameter, {"a","b"}, holding each value as it is
// (values hold no NUL): a whole column of values travels as one parameter to
// a set-based statement, so no value is ever part of the statement's text.
class TextArray {
public:
  void add(std::string_view value) {
    text_.pop_back();
    text_ += count_++ == 0 ? "\"" : ",\"";
    for (char c : value) {
      if (c == '"' || c == '\\')
        text_ += '\\';
      text_ += c;
    }
    text_ += "\"}";
  }
  int size() const { return count_; }
  const char *text() const { return text_.c_str(); }

private:
  std::string text_ = "{}";
  int count_ = 0;
};

// 0 with the statement in buffer, or 80106 with "statement too long"
// reported: a statement is never cut and sent.
int formatStatement(Session &session, char *buffer, std::size_t size, const char *format, ...)
    MFADB_PRINTF(4, 5);
int formatStatementV(Session &session, char *buffer, std::size_t size, const char *format,
                     va_list args) MFADB_PRINTF(4, 0);

// The size column of results in which every row stands alone.
constexpr int kEachRow = -1;

// How the rows of a joined result form groups, which are always adjacent:
// each group carries its size in a column (a window count), or its rows
// share the value of a key column (results ordered by that key).
struct Grouping {
  // Not explicit: a size column (or kEachRow) stands for its grouping.
  Grouping(int sizeColumn) : column(sizeColumn) {}
  static Grouping byKey(int keyColumn) {
    Grouping grouping(keyColumn);
    grouping.key = true;
    return grouping;
  }
  int column;
  bool key = false;
};

// A size that is not positive counts as 1 and one that runs past the last
// row is cut, so bad data can never make a reader step outside the result.
inline int groupSize(const Session &session, int first, Grouping grouping) {
  if (grouping.key) {
    int size = 1;
    while (first + size < session.rows() && std::strcmp(session.text(first + size, grouping.column),
                                                        session.text(first, grouping.column)) == 0)
      size++;
    return size;
  }
  int size = grouping.column == kEachRow ? 1 : session.integer(first, grouping.column);
  return size <= 0 ? 1 : std::min(size, session.rows() - first);
}

// Calls visit(firstRow, size) for each group until it returns non-zero, and
// returns that status or 0.
template <typename Visit> int forEachGroup(const Session &session, Grouping grouping, Visit visit) {
  for (int first = 0; first < session.rows();) {
    int size = groupSize(session, first, grouping);
    if (int status = visit(first, size))
      return status;
    first += size;
  }
  return 0;
}

// Builds one entry per group with make(firstRow, size), which returns null
// when memory is short. Count and array are stored only when every entry was
// built; otherwise what was built is destroyed.
template <typename T, typename Make, typename Destroy>
int collectGroups(const Session &session, Grouping grouping, const char *label, Make make,
                  Destroy destroy, int *count, T ***array) {
  int groups = 0;
  forEachGroup(session, grouping, [&](int, int) { return ++groups, 0; });
  T **built = newArray<T>(groups, label);
  if (built == nullptr)
    return MFADATA_OUT_OF_MEMORY;
  int made = 0;
  int status = forEachGroup(session, grouping, [&](int first, int size) {
    return (built[made++] = make(first, size)) == nullptr ? MFADATA_OUT_OF_MEMORY : 0;
  });
  if (status != 0) {
    destroyArray(built, groups, destroy);
    return status;
  }
  *count = groups;
  *array = built;
  return 0;
}

} // namespace mfadb

#endif
