#include "mfadata/dbctx.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/alloc.h"
#include "base/files.h"
#include "base/logging.h"
#include "crypto/pwhash.h"
#include "mfadata/factorutils.h"

namespace {

constexpr const char *kComponentName = "MFADB";
constexpr const char *kBaseConnection = "dbname=mfadb ";
constexpr int kConfigReadSize = 2048;
constexpr std::size_t kConnectionSize = 1024;
constexpr std::size_t kLineSize = 256;

// Console lines of this module: time stamp, component name, message.
void printStamped(const char *format, ...) __attribute__((format(printf, 1, 2)));
void printStamped(const char *format, ...) {
  printStamp();
  printf("%s:", kComponentName);
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
  fflush(stdout);
}

struct ConfigKey {
  std::string_view key;
  bool ignoreCase;
  const char *append;
};

// A host always brings TLS with it; there is deliberately no key of its own
// for sslmode.
constexpr ConfigKey kConfigKeys[] = {
    {"DB HOSTNAME", true, "sslmode=require host=%s "},
    {"DB PORT", false, "port=%s "},
    {"SSL CERTIFICATE", false, "sslcert=%s "},
    {"SSL KEY", false, "sslkey=%s "},
};

bool startsWith(const char *line, const ConfigKey &key) {
  return key.ignoreCase ? strncasecmp(line, key.key.data(), key.key.size()) == 0
                        : strncmp(line, key.key.data(), key.key.size()) == 0;
}

// Appends what one configuration line contributes, cut at the buffer's end.
void applyLine(const char *line, char *connection) {
  if (line[0] == '#')
    return;
  const char *equals = strchr(line, '=');
  if (equals == nullptr)
    return;
  const char *value = equals + 1;
  while (*value == ' ')
    value++;
  for (const ConfigKey &key : kConfigKeys) {
    if (startsWith(line, key)) {
      std::size_t used = strlen(connection);
      snprintf(connection + used, kConnectionSize - used, key.append, value);
      return;
    }
  }
}

// Walks the bytes read; only text ended by CR or LF counts as a line.
void applyConfig(const char *bytes, int length, char *connection) {
  int start = 0;
  for (int i = 0; i < length; i++) {
    if (bytes[i] != '\r' && bytes[i] != '\n')
      continue;
    char line[kLineSize] = {};
    std::size_t lineLength = std::min<std::size_t>(i - start, kLineSize - 1);
    memcpy(line, bytes + start, lineLength);
    applyLine(line, connection);
    start = i + 1;
  }
}

} // namespace

extern "C" {

int parseDbConf(const char *path, char **connectionString) {
  if (path == nullptr) {
    printStamped("DB config file not specified.\n");
    return QN_DB_CONFIG_FAILED;
  }
  if (connectionString == nullptr)
    return QN_DB_CONFIG_FAILED;
  int returnCode = 0, reasonCode = 0;
  UnixFile *file = fileOpen(path, O_RDONLY, 0400, kConfigReadSize, &returnCode, &reasonCode);
  if (file == nullptr) {
    printStamped("Failed to open DB config file, rc: %d\n", returnCode);
    return QN_DB_CONFIG_FAILED;
  }
  char bytes[kConfigReadSize];
  int length = fileRead(file, bytes, kConfigReadSize, &returnCode, &reasonCode);
  int closeCode = 0, closeReason = 0;
  fileClose(file, &closeCode, &closeReason);
  if (length <= 0) {
    printStamped("failed to read config file rc= %d\n", returnCode);
    return QN_DB_CONFIG_FAILED;
  }
  char connection[kConnectionSize] = {};
  strcpy(connection, kBaseConnection);
  applyConfig(bytes, length, connection);
  explicit_bzero(bytes, sizeof bytes);
  char *copy = duplicateString(connection);
  if (copy == nullptr)
    return MFADATA_OUT_OF_MEMORY;
  *connectionString = copy;
  return 0;
}

int qn_db_createDBCtx(dbctx **context, LoggingContext *logContext, const char *configPath) {
  if (context == nullptr)
    return QN_DB_BAD_PARAMETERS;
  char *connection = nullptr;
  if (configPath != nullptr) {
    if (int status = parseDbConf(configPath, &connection); status != 0)
      return status;
  } else if ((connection = duplicateString(kBaseConnection)) == nullptr) {
    return MFADATA_OUT_OF_MEMORY;
  }
  if (logContext == nullptr) {
    logContext = makeLoggingContext();
    logConfigureDestination(logContext, QMX_LOG_DESTINATION_ID, "QMX", const_cast<char *>("QMX"),
                            qmxLoggingCallback);
  }
  logConfigureComponent(logContext, MFADB_COMPONENT_ID, kComponentName, QMX_LOG_DESTINATION_ID,
                        MFADB_COMPONENT_LEVEL);
  auto *made = reinterpret_cast<dbctx *>(safeMalloc(sizeof(dbctx), "dbctx"));
  if (made == nullptr) {
    freeString(connection);
    return MFADATA_OUT_OF_MEMORY;
  }
  made->logContext = logContext;
  made->connectionString = connection;
  *context = made;
  return 0;
}

void qn_db_destroyDbCtx(dbctx *context) {
  if (context == nullptr)
    return;
  freeString(context->connectionString);
  safeFree(reinterpret_cast<char *>(context), sizeof(dbctx));
}

int qn_db_createPwhashCtx(dbctx *context, qn_pkcs11_session *tokenSession, int iterationCount) {
  if (context == nullptr)
    return QN_DB_PWHASH_UNAVAILABLE;
  qn_pwhash_ctx *hashing = nullptr;
  int status =
      qn_pwhash_ctx_init(static_cast<uint32_t>(iterationCount), 16, 32, tokenSession, &hashing);
  if (status != 0 || hashing == nullptr) {
    printStamped("qn_pwhash_ctx_init failed (sts=%d). Hashing will not be available\n", status);
    context->pwhashContext = nullptr;
    return QN_DB_PWHASH_UNAVAILABLE;
  }
  context->pwhashContext = hashing;
  return 0;
}

} // extern "C"
