// The files of ldapfactor-bulk: one line per user, in CSV (RFC 4180, with a
// header line) or in JSON Lines. An import file is read whole, with every
// problem noted by its line; an export is written one user at a time.
#ifndef MFA_CLI_BULKFORMAT_H
#define MFA_CLI_BULKFORMAT_H

#include <array>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/ldapuser.h"

struct jsonPrinter;

namespace bulk {

enum class Format { Csv, Jsonl };

// The columns of a CSV file and the keys of a JSON line: the user ID, then
// the factor's tags in the order the record writes them.
enum Column { kUserId, kDN, kSearchVal, kSearchVal2, kSearchVal3, kLastSearch, kColumnCount };
inline constexpr std::array<std::string_view, kColumnCount> kColumnNames = {
    "USERID", "DN", "SEARCHVAL", "SEARCHVAL2", "SEARCHVAL3", "LASTSEARCH"};
// DN to SEARCHVAL3: the values an import sets. LASTSEARCH is read and left
// aside, since every user written gets the counter 0.
inline constexpr int kValueCount = 4;

// The record's field for value i (0 for DN to 3 for SEARCHVAL3).
char *&valueField(ldapuser &user, int i);
const char *valueOf(const ldapuser &user, int i);

// One user's line of an import file.
struct Entry {
  int line; // where the line begins, counted from 1
  std::string userid;
  // DN, SEARCHVAL, SEARCHVAL2, SEARCHVAL3; absent ones keep the stored value.
  std::array<std::optional<std::string>, kValueCount> values;
};

struct Problem {
  int line;
  std::string text;
};

// Reads the whole text of an import file: an entry for each well-formed
// line, in file order, and a problem for each line that is not (it yields
// no entry). Empty lines are skipped and a leading byte order mark is
// ignored. Checks the shape of each line and each value (UTF-8 without NUL,
// at most 255 characters, a user ID that is not empty); whether the users
// exist, and repeats, are for the caller.
void readEntries(Format format, std::string_view text, std::vector<Entry> *entries,
                 std::vector<Problem> *problems);

// Writes users' lines to a stream. CSV writes a value that was not stored as
// an empty field and an empty value as "", so that reading the file back
// keeps the one and sets the other; JSON Lines leaves out the keys of
// values that were not stored.
class Writer {
public:
  Writer(Format format, FILE *out) : format_(format), out_(out) {}
  // The header line of CSV; nothing for JSON Lines.
  void header();
  // 0, or 1200020 when memory is short. Write errors are the stream's to
  // tell (ferror).
  int write(const ldapuser &user);

private:
  void writeCsv(const ldapuser &user);
  int writeJson(const ldapuser &user);
  static int sink(jsonPrinter *printer, const char *bytes, int length);

  Format format_;
  FILE *out_;
};

} // namespace bulk

#endif
