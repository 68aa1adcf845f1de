// The database configuration file: whatever the file holds, the connection
// string must equal the one a small model of the line rules, written here,
// builds from the same bytes.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "base/alloc.h"
#include "fuzz/check.h"
#include "mfadata/dbctx.h"

namespace {

constexpr size_t kReadLimit = 2048;
constexpr size_t kLineLimit = 255;
constexpr size_t kStringLimit = 1023;

struct Key {
  std::string_view name;
  bool anyCase;
  std::string_view before;
};

constexpr Key kKeys[] = {
    {"DB HOSTNAME", true, "sslmode=require host="},
    {"DB PORT", false, "port="},
    {"SSL CERTIFICATE", false, "sslcert="},
    {"SSL KEY", false, "sslkey="},
};

bool sameLetter(char a, char b, bool anyCase) {
  auto fold = [anyCase](char c) { return anyCase && c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c; };
  return fold(a) == fold(b);
}

bool keyStarts(std::string_view line, const Key &key) {
  if (line.size() < key.name.size())
    return false;
  for (size_t i = 0; i < key.name.size(); i++)
    if (!sameLetter(line[i], key.name[i], key.anyCase))
      return false;
  return true;
}

// Only text ended by CR or LF is a line; a line keeps its first 255 bytes up
// to a NUL. Past "=" and its blanks the rest is the value, trailing blanks
// included; the first key the line starts with appends its text, and the
// whole string is cut at 1023 characters.
std::string modelConnection(std::string_view file) {
  std::string connection = "dbname=mfadb ";
  file = file.substr(0, kReadLimit);
  for (size_t end; (end = file.find_first_of("\r\n")) != file.npos; file.remove_prefix(end + 1)) {
    std::string_view line = file.substr(0, std::min(end, kLineLimit));
    line = line.substr(0, line.find('\0'));
    size_t equals = line.find('=');
    if (line.empty() || line[0] == '#' || equals == line.npos)
      continue;
    std::string_view value = line.substr(equals + 1);
    value.remove_prefix(std::min(value.size(), value.find_first_not_of(' ')));
    for (const Key &key : kKeys) {
      if (keyStarts(line, key)) {
        connection.append(key.before).append(value).append(" ");
        break;
      }
    }
    connection.resize(std::min(connection.size(), kStringLimit));
  }
  return connection;
}

// The file is an anonymous memory file, rewritten for each input and opened
// by name through the process's descriptor table.
struct ConfigFile {
  ConfigFile() : fd(memfd_create("dbconf", 0)), path("/proc/self/fd/" + std::to_string(fd)) {}
  ~ConfigFile() { close(fd); }
  bool hold(std::string_view bytes) const {
    return ftruncate(fd, 0) == 0 &&
           pwrite(fd, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
  }
  int fd;
  std::string path;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const ConfigFile file;
  const std::string_view bytes(reinterpret_cast<const char *>(data), size);
  FUZZ_EXPECT(file.fd >= 0 && file.hold(bytes));

  char *connection = nullptr;
  const int status = parseDbConf(file.path.c_str(), &connection);
  if (bytes.empty()) {
    // Nothing to read is a failure that hands nothing out.
    FUZZ_EXPECT(status == QN_DB_CONFIG_FAILED && connection == nullptr);
    return 0;
  }
  FUZZ_EXPECT(status == 0 && connection != nullptr);
  FUZZ_EXPECT(connection == modelConnection(bytes));
  freeString(connection);
  return 0;
}
