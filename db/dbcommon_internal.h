// The query frame every database operation runs in: one connection per
// call, escaped values, statements built in fixed buffers, checked results,
// and both the result and the connection released on every path.
#ifndef MFA_DB_DBCOMMON_INTERNAL_H
#define MFA_DB_DBCOMMON_INTERNAL_H

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <utility>

#include "base/alloc.h"
#include "db/dbcommon.h"

#define MFADB_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))

namespace mfadb {

// Level at which server notices are logged: below what the database
// component is configured to show, so they appear only when asked for.
constexpr int kNoticeLevel = 4;

// Where an operation reports: the database component's log, or standard
// output without a time stamp (the factor-data service).
enum class Reporter { Log, Stdout };

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
  Escaped(Escaped &&other) noexcept
      : text_(std::exchange(other.text_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  ~Escaped();
  const char *get() const { return text_; }
  char *data() { return text_; }
  explicit operator bool() const { return text_ != nullptr; }

private:
  char *text_ = nullptr;
  int size_ = 0;
};

class Session {
public:
  explicit Session(dbctx *context, Reporter reporter = Reporter::Log)
      : context_(context), reporter_(reporter) {}
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  // 0, 80101 with the reason reported, or 80106 for a missing context.
  int connect();
  PGconn *connection() const { return connection_.get(); }

  // An escaped copy of value; empty when value is null or cannot be escaped.
  Escaped escape(const char *value) const { return Escaped(connection(), value); }

  void report(const char *format, ...) MFADB_PRINTF(2, 3);

  // A constant statement without parameters, sent with PQexec.
  int exec(const char *sql, Expect expect, const Failure &failure);
  // A formatted statement or one with $n placeholders (text parameters),
  // sent with PQexecParams.
  int execParams(const char *sql, Expect expect, const Failure &failure,
                 std::initializer_list<const char *> params = {});

  // Runs body between "BEGIN" and "END", or "ROLLBACK" when it fails.
  template <typename Body> int transaction(Body &&body) {
    control("BEGIN");
    int status = body();
    control(status == 0 ? "END" : "ROLLBACK");
    return status;
  }

  PGresult *result() const { return result_.get(); }
  int rows() const { return PQntuples(result()); }
  const char *text(int row, int column) const { return PQgetvalue(result(), row, column); }
  int integer(int row, int column) const;
  bool isNull(int row, int column) const { return PQgetisnull(result(), row, column) != 0; }
  // Stores in *field a checked-heap copy of a column (null for a SQL null);
  // false when memory is short.
  bool copyTo(char **field, int row, int column) const;

private:
  struct Finish {
    void operator()(PGconn *c) const { PQfinish(c); }
  };
  struct Clear {
    void operator()(PGresult *r) const { PQclear(r); }
  };

  int check(Expect expect, const Failure &failure);
  void control(const char *sql);

  dbctx *context_;
  Reporter reporter_;
  // Declared before the result so that the result is cleared first.
  std::unique_ptr<PGconn, Finish> connection_;
  std::unique_ptr<PGresult, Clear> result_;
};

// 0 with the statement in buffer, or 80106 with "statement too long"
// reported: a statement is never cut and sent.
int formatStatement(Session &session, char *buffer, std::size_t size, const char *format, ...)
    MFADB_PRINTF(4, 5);

// Builds one entry per row of the session's result with make(row), which
// returns null when memory is short. Count and array are stored only when
// every row was copied; otherwise what was built is destroyed.
template <typename T, typename Make, typename Destroy>
int collectRows(const Session &session, const char *label, Make make, Destroy destroy, int *count,
                T ***array) {
  int rows = session.rows();
  T **built = newArray<T>(rows, label);
  if (built == nullptr)
    return MFADATA_OUT_OF_MEMORY;
  for (int row = 0; row < rows; row++) {
    if ((built[row] = make(row)) == nullptr) {
      destroyArray(built, rows, destroy);
      return MFADATA_OUT_OF_MEMORY;
    }
  }
  *count = rows;
  *array = built;
  return 0;
}

// Readers of joined rows whose groups are adjacent and carry their group's
// size in sizeColumn (a window count). Calls visit(firstRow, size) for each
// group until it returns non-zero, and returns that status or 0. A size that
// is not positive counts as 1 and one that runs past the last row is cut, so
// bad data can never make a reader step outside the result.
template <typename Visit> int forEachGroup(const Session &session, int sizeColumn, Visit visit) {
  int rows = session.rows();
  for (int first = 0; first < rows;) {
    int size = session.integer(first, sizeColumn);
    size = size <= 0 ? 1 : std::min(size, rows - first);
    if (int status = visit(first, size))
      return status;
    first += size;
  }
  return 0;
}

inline int countGroups(const Session &session, int sizeColumn) {
  int groups = 0;
  forEachGroup(session, sizeColumn, [&](int, int) { return ++groups, 0; });
  return groups;
}

} // namespace mfadb

#endif
