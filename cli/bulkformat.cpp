#include "cli/bulkformat.h"

#include "base/json.h"
#include "base/jsonprint.h"
#include "mfadata/usermfadata_internal.h"

#include <cctype>
#include <climits>
#include <cstdint>
#include <cstring>

namespace bulk {
namespace {

using PrinterPtr = mfadata::Owned<jsonPrinter, freeJsonPrinter>;

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// A JSON line's tree lives in a heap of its own; a line of any legitimate
// size fits its first block, and the block limit bounds what a malformed one
// can take.
constexpr int kLineHeapBlock = 16384;
constexpr int kLineHeapBlocks = 64;

// The number of characters in text when it is well-formed UTF-8 (no
// overlong forms, surrogates or code points past U+10FFFF); -1 otherwise.
long utf8Characters(std::string_view text) {
  long characters = 0;
  for (size_t at = 0; at < text.size(); characters++) {
    const auto lead = static_cast<unsigned char>(text[at]);
    const int length = lead < 0x80   ? 1
                       : lead < 0xC2 ? 0
                       : lead < 0xE0 ? 2
                       : lead < 0xF0 ? 3
                       : lead < 0xF5 ? 4
                                     : 0;
    if (length == 0 || at + length > text.size())
      return -1;
    for (int i = 1; i < length; i++)
      if ((static_cast<unsigned char>(text[at + i]) & 0xC0) != 0x80)
        return -1;
    const auto second = static_cast<unsigned char>(length > 1 ? text[at + 1] : 0);
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
        (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F))
      return -1;
    at += static_cast<size_t>(length);
  }
  return characters;
}

void appendUtf8(std::string *out, uint32_t codePoint) {
  if (codePoint < 0x80) {
    *out += static_cast<char>(codePoint);
    return;
  }
  const int continuations = codePoint < 0x800 ? 1 : codePoint < 0x10000 ? 2 : 3;
  constexpr unsigned char kLeads[] = {0, 0xC0, 0xE0, 0xF0};
  *out += static_cast<char>(kLeads[continuations] | (codePoint >> (6 * continuations)));
  for (int i = continuations - 1; i >= 0; i--)
    *out += static_cast<char>(0x80 | ((codePoint >> (6 * i)) & 0x3F));
}

// The problems of one entry's values; the caller keeps the entry only when
// there are none.
void checkEntry(const Entry &entry, std::vector<Problem> *problems) {
  auto problem = [&](std::string text) { problems->push_back({entry.line, std::move(text)}); };
  auto check = [&](const std::string &what, const std::string &text, bool limited) {
    const long characters = utf8Characters(text);
    if (text.find('\0') != std::string::npos)
      problem(what + " holds a NUL byte");
    else if (characters < 0)
      problem(what + " is not valid UTF-8");
    else if (limited && characters > LDAPUSER_MAX_VALUE_LENGTH)
      problem(what + " is longer than " + std::to_string(LDAPUSER_MAX_VALUE_LENGTH) +
              " characters (" + std::to_string(characters) + ")");
  };
  if (entry.userid.empty())
    problem("the user ID is empty");
  check("the user ID", entry.userid, false);
  for (int i = 0; i < kValueCount; i++)
    if (entry.values[i])
      check("the value of " + std::string(kColumnNames[kDN + i]), *entry.values[i], true);
}

void addEntry(Entry entry, std::vector<Entry> *entries, std::vector<Problem> *problems) {
  const size_t before = problems->size();
  checkEntry(entry, problems);
  if (problems->size() == before)
    entries->push_back(std::move(entry));
}

int columnIndex(std::string_view name) {
  for (int i = 0; i < kColumnCount; i++)
    if (kColumnNames[i] == name)
      return i;
  return -1;
}

// ---- CSV ------------------------------------------------------------------

struct Field {
  std::string text;
  bool quoted;
};

// Splits the text into records by RFC 4180: fields separated by commas,
// records ended by CRLF or LF, a field in double quotes holding anything
// (commas, line ends, quotes doubled).
class CsvRecords {
public:
  explicit CsvRecords(std::string_view text) : text_(text) {}

  // The next record and the line it begins on; false at the end of the
  // text. A record that breaks the rules comes back with a problem and is
  // skipped to its line's end.
  bool next(std::vector<Field> *fields, int *line, std::string *problem) {
    if (at_ >= text_.size())
      return false;
    fields->clear();
    problem->clear();
    *line = line_;
    for (;;) {
      Field field{"", at_ < text_.size() && text_[at_] == '"'};
      if (field.quoted ? !readQuoted(&field.text, problem) : !readPlain(&field.text, problem))
        return true;
      fields->push_back(std::move(field));
      if (at_ >= text_.size())
        return true;
      if (text_[at_] == ',') {
        at_++;
        continue;
      }
      if (endOfLine())
        return true;
      *problem = "text after the closing quote of a field";
      skipLine();
      return true;
    }
  }

private:
  bool readQuoted(std::string *text, std::string *problem) {
    for (at_++; at_ < text_.size(); at_++) {
      const char c = text_[at_];
      if (c == '"') {
        if (at_ + 1 >= text_.size() || text_[at_ + 1] != '"') {
          at_++;
          return true;
        }
        at_++; // a doubled quote stands for one
      } else if (c == '\n') {
        line_++;
      }
      *text += c;
    }
    *problem = "a quoted field is not closed";
    return false;
  }

  bool readPlain(std::string *text, std::string *problem) {
    const size_t start = at_;
    for (; at_ < text_.size() && text_[at_] != ',' && text_[at_] != '\n'; at_++) {
      if (text_[at_] == '"' || (text_[at_] == '\r' && !atLineEnd(at_ + 1))) {
        *problem = text_[at_] == '"' ? "a quote inside a field that does not begin with one"
                                     : "a carriage return outside quotes";
        skipLine();
        return false;
      }
      if (text_[at_] == '\r')
        break;
    }
    text->assign(text_.substr(start, at_ - start));
    return true;
  }

  bool atLineEnd(size_t at) const { return at < text_.size() && text_[at] == '\n'; }

  // Steps over CRLF or LF.
  bool endOfLine() {
    const size_t length = text_[at_] == '\r' && atLineEnd(at_ + 1) ? 2 : text_[at_] == '\n' ? 1 : 0;
    if (length == 0)
      return false;
    at_ += length;
    line_++;
    return true;
  }

  void skipLine() {
    const size_t end = text_.find('\n', at_);
    at_ = end == std::string_view::npos ? text_.size() : end + 1;
    line_++;
  }

  std::string_view text_;
  size_t at_ = 0;
  int line_ = 1;
};

bool isEmptyRecord(const std::vector<Field> &fields) {
  return fields.size() == 1 && !fields[0].quoted && fields[0].text.empty();
}

// The columns named by the header; problems when a name is unknown or
// repeated or USERID is missing.
std::vector<int> readHeader(const std::vector<Field> &fields, int line,
                            std::vector<Problem> *problems) {
  std::vector<int> columns;
  std::array<bool, kColumnCount> seen{};
  for (const Field &field : fields) {
    const int column = columnIndex(field.text);
    if (column < 0)
      problems->push_back({line, "unknown column \"" + field.text + "\""});
    else if (seen[column])
      problems->push_back({line, "column " + field.text + " repeated"});
    else
      seen[column] = true;
    columns.push_back(column);
  }
  if (!seen[kUserId])
    problems->push_back({line, "no USERID column"});
  return columns;
}

void readCsv(std::string_view text, std::vector<Entry> *entries, std::vector<Problem> *problems) {
  CsvRecords records(text);
  std::vector<Field> fields;
  std::vector<int> columns;
  std::string problem;
  int line = 0;
  while (records.next(&fields, &line, &problem)) {
    if (!problem.empty()) {
      problems->push_back({line, problem});
      if (columns.empty())
        return; // without a header nothing after it can be read
      continue;
    }
    if (isEmptyRecord(fields))
      continue;
    if (columns.empty()) {
      const size_t before = problems->size();
      columns = readHeader(fields, line, problems);
      if (problems->size() != before)
        return;
      continue;
    }
    if (fields.size() != columns.size()) {
      problems->push_back({line, std::to_string(fields.size()) + " fields where the header has " +
                                     std::to_string(columns.size())});
      continue;
    }
    Entry entry{line, {}, {}};
    for (size_t i = 0; i < fields.size(); i++) {
      Field &field = fields[i];
      if (columns[i] == kUserId)
        entry.userid = std::move(field.text);
      // An empty field without quotes gives no value; "" gives an empty one.
      else if (columns[i] != kLastSearch && (field.quoted || !field.text.empty()))
        entry.values[columns[i] - kDN] = std::move(field.text);
    }
    addEntry(std::move(entry), entries, problems);
  }
}

// ---- JSON Lines -----------------------------------------------------------

bool hexDigits(std::string_view text, size_t at, uint32_t *value) {
  if (at + 4 > text.size())
    return false;
  *value = 0;
  for (size_t i = at; i < at + 4; i++) {
    const char c = text[i];
    const int digit = c >= '0' && c <= '9'   ? c - '0'
                      : c >= 'a' && c <= 'f' ? c - 'a' + 10
                      : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                             : -1;
    if (digit < 0)
      return false;
    *value = *value * 16 + static_cast<uint32_t>(digit);
  }
  return true;
}

// The letter of a character's short escape in a JSON string, or 0.
char shortEscape(uint32_t c) {
  switch (c) {
  case '"':
  case '\\':
    return static_cast<char>(c);
  case '\b':
    return 'b';
  case '\f':
    return 'f';
  case '\n':
    return 'n';
  case '\r':
    return 'r';
  case '\t':
    return 't';
  default:
    return 0;
  }
}

// The library's parser reads the short escapes only, so every \uXXXX escape
// (a surrogate pair as one) is replaced first by what it stands for: the
// short escape where there is one, else the character's UTF-8 bytes (the
// parser takes other control characters as they are). Returns an empty
// text, or why an escape cannot stand in a value.
std::string decodeUnicodeEscapes(std::string_view line, std::string *out) {
  for (size_t at = 0; at < line.size(); at++) {
    if (line[at] != '\\' || at + 1 >= line.size() || line[at + 1] != 'u') {
      *out += line[at];
      if (line[at] == '\\' && at + 1 < line.size())
        *out += line[++at]; // a short escape, passed on whole
      continue;
    }
    uint32_t codePoint = 0;
    if (!hexDigits(line, at + 2, &codePoint))
      return "a \\u escape without four hexadecimal digits";
    at += 5;
    uint32_t low = 0;
    if (codePoint >= 0xD800 && codePoint <= 0xDBFF && line.substr(at + 1, 2) == "\\u" &&
        hexDigits(line, at + 3, &low) && low >= 0xDC00 && low <= 0xDFFF) {
      codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (low - 0xDC00);
      at += 6;
    } else if (codePoint >= 0xD800 && codePoint <= 0xDFFF) {
      return "a \\u escape of half a surrogate pair";
    }
    if (codePoint == 0)
      return "a \\u0000 escape: a value cannot hold a NUL character";
    if (char letter = shortEscape(codePoint)) {
      *out += '\\';
      *out += letter;
    } else {
      appendUtf8(out, codePoint);
    }
  }
  return "";
}

// One JSON line made into an entry; the problem of the line when it is not
// an object of known keys with string values, USERID among them.
std::string readJsonLine(std::string_view line, Entry *entry) {
  if (line.find('\0') != std::string_view::npos)
    return "a NUL byte";
  std::string decoded;
  if (std::string problem = decodeUnicodeEscapes(line, &decoded); !problem.empty())
    return problem;
  mfadata::HeapPtr heap(makeShortLivedHeap(kLineHeapBlock, kLineHeapBlocks));
  if (heap == nullptr || decoded.size() > INT_MAX)
    return "not read: out of memory";
  char error[128] = "";
  JsonObject *object = jsonAsObject(jsonParseUnterminatedString(
      heap.get(), decoded.data(), static_cast<int>(decoded.size()), error, sizeof error));
  if (object == nullptr) {
    std::string_view why(error);
    while (!why.empty() && isspace(static_cast<unsigned char>(why.back())))
      why.remove_suffix(1);
    return why.empty() ? "not a JSON object" : "not JSON (" + std::string(why) + ")";
  }
  std::array<bool, kColumnCount> seen{};
  for (JsonProperty *property = jsonObjectGetFirstProperty(object); property != nullptr;
       property = jsonObjectGetNextProperty(property)) {
    const std::string key = jsonPropertyGetKey(property);
    const int column = columnIndex(key);
    if (column < 0)
      return "unknown key \"" + key + "\"";
    if (seen[column])
      return "key " + key + " repeated";
    seen[column] = true;
    const char *value = jsonAsString(jsonPropertyGetValue(property));
    if (value == nullptr)
      return "the value of " + key + " is not a string";
    if (column == kUserId)
      entry->userid = value;
    else if (column != kLastSearch)
      entry->values[column - kDN] = value;
  }
  return seen[kUserId] ? "" : "no USERID";
}

void readJsonLines(std::string_view text, std::vector<Entry> *entries,
                   std::vector<Problem> *problems) {
  int line = 0;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    end = end == std::string_view::npos ? text.size() : end;
    std::string_view content = text.substr(start, end - start);
    start = end + 1;
    line++;
    if (content.find_first_not_of(" \t\r") == std::string_view::npos)
      continue;
    Entry entry{line, {}, {}};
    if (std::string problem = readJsonLine(content, &entry); !problem.empty())
      problems->push_back({line, problem});
    else
      addEntry(std::move(entry), entries, problems);
  }
}

} // namespace

char *&valueField(ldapuser &user, int i) {
  char **const fields[] = {&user.DN, &user.SEARCHVAL, &user.SEARCHVAL2, &user.SEARCHVAL3};
  return *fields[i];
}

const char *valueOf(const ldapuser &user, int i) {
  const char *const fields[] = {user.DN, user.SEARCHVAL, user.SEARCHVAL2, user.SEARCHVAL3};
  return fields[i];
}

void readEntries(Format format, std::string_view text, std::vector<Entry> *entries,
                 std::vector<Problem> *problems) {
  if (text.substr(0, kByteOrderMark.size()) == kByteOrderMark)
    text.remove_prefix(kByteOrderMark.size());
  if (format == Format::Csv)
    readCsv(text, entries, problems);
  else
    readJsonLines(text, entries, problems);
}

// ---- Writing --------------------------------------------------------------

namespace {

bool isBlank(char c) {
  return c == ' ' || c == '\t';
}

} // namespace

void Writer::header() {
  if (format_ != Format::Csv)
    return;
  std::string line;
  for (std::string_view name : kColumnNames) {
    if (!line.empty())
      line += ',';
    line += name;
  }
  line += "\r\n";
  fwrite(line.data(), 1, line.size(), out_);
}

int Writer::write(const ldapuser &user) {
  if (format_ == Format::Csv) {
    writeCsv(user);
    return 0;
  }
  return writeJson(user);
}

void Writer::writeCsv(const ldapuser &user) {
  std::string line;
  auto field = [&line](const char *value) {
    if (value == nullptr)
      return;
    const std::string_view text(value);
    // Quoted also when blanks begin or end it, which some readers trim.
    if (!text.empty() && text.find_first_of(",\"\r\n") == std::string_view::npos &&
        !isBlank(text.front()) && !isBlank(text.back())) {
      line += text;
      return;
    }
    line += '"';
    for (char c : text)
      line += c == '"' ? std::string_view("\"\"") : std::string_view(&c, 1);
    line += '"';
  };
  field(user.userid != nullptr ? user.userid : "");
  for (int i = 0; i < kValueCount; i++) {
    line += ',';
    field(valueOf(user, i));
  }
  line += ',' + std::to_string(user.lastSearch) + "\r\n";
  fwrite(line.data(), 1, line.size(), out_);
}

int Writer::sink(jsonPrinter *printer, const char *bytes, int length) {
  auto *out = static_cast<FILE *>(printer->sinkData);
  if (fwrite(bytes, 1, static_cast<size_t>(length), out) != static_cast<size_t>(length)) {
    jsonSetIOErrorFlag(printer);
    return -1;
  }
  return length;
}

int Writer::writeJson(const ldapuser &user) {
  // A printer per line: each line is a document of its own. In UTF-8 mode
  // control characters come out as \u escapes, so that every line is strict
  // JSON.
  PrinterPtr printer(makeCustomUtf8JsonPrinter(sink, out_, JSON_UTF8_CCSID));
  if (printer == nullptr)
    return LDAPUSER_WRITER_OUT_OF_MEMORY;
  jsonStartObject(printer.get(), nullptr);
  jsonAddString(printer.get(), kColumnNames[kUserId].data(), user.userid);
  for (int i = 0; i < kValueCount; i++)
    if (const char *value = valueOf(user, i))
      jsonAddString(printer.get(), kColumnNames[kDN + i].data(), value);
  jsonAddString(printer.get(), kColumnNames[kLastSearch].data(),
                std::to_string(user.lastSearch).c_str());
  jsonEndObject(printer.get());
  fputc('\n', out_);
  return 0;
}

} // namespace bulk
