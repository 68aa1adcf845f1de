// PKCS#11 token access over the provider's C_GetFunctionList table.
#include "crypto/pkcs11.h"

#include "base/alloc.h"
#include "crypto/digest.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

namespace {

constexpr int32_t kMissingArgument = QN_PKCS11_RC_MISSING_ARGUMENT;

int32_t status(CK_RV rv) {
  return static_cast<int32_t>(rv);
}

// Stores rv as the environment's latest result and reports it when it is a
// failure; returns it unchanged.
CK_RV record(qn_pkcs11_env *env, CK_RV rv, const char *callName) {
  if (env != nullptr)
    env->lastRv = rv;
  if (rv != CKR_OK && callName != nullptr)
    showError(callName, rv);
  return rv;
}

// A single-part operation: its Init result, then the operation itself, run
// only when Init succeeded. Each step is reported under its own name.
template <typename Run>
int32_t initThenRun(qn_pkcs11_env *env, CK_RV initRv, const char *initName, Run run,
                    const char *runName) {
  CK_RV rv = record(env, initRv, initName);
  if (rv != CKR_OK)
    return status(rv);
  return status(record(env, run(), runName));
}

// Typed allocation through the checked allocator; the memory is zero-filled.
template <typename T> T *allocate(std::size_t count, const char *label) {
  return reinterpret_cast<T *>(safeMalloc(static_cast<int>(count * sizeof(T)), label));
}
template <typename T> void release(T *pointer, std::size_t count) {
  safeFree(reinterpret_cast<char *>(pointer), static_cast<int>(count * sizeof(T)));
}

// A checked allocation released (wiped first) when it goes out of scope.
class Buffer {
public:
  Buffer(std::size_t size, const char *label)
      : data_(allocate<unsigned char>(size, label)), size_(size) {}
  Buffer(const Buffer &) = delete;
  Buffer &operator=(const Buffer &) = delete;
  ~Buffer() { release(data_, size_); }
  unsigned char *get() const { return data_; }
  // Hands the allocation to the caller, who releases it with safeFree.
  unsigned char *take() { return std::exchange(data_, nullptr); }

private:
  unsigned char *data_;
  std::size_t size_;
};

// The dlopen handle of a provider while it is being loaded. A provider that
// loaded successfully stays loaded for the life of the process.
class LibraryHandle {
public:
  explicit LibraryHandle(const char *path) : handle_(dlopen(path, RTLD_NOW)) {}
  LibraryHandle(const LibraryHandle &) = delete;
  LibraryHandle &operator=(const LibraryHandle &) = delete;
  ~LibraryHandle() {
    if (handle_ != nullptr)
      dlclose(handle_);
  }
  void *get() const { return handle_; }
  void keep() { handle_ = nullptr; }

private:
  void *handle_;
};

struct EnvDestroyer {
  void operator()(qn_pkcs11_env *env) const { qn_pkcs11_env_destroy(env); }
};
using EnvGuard = std::unique_ptr<qn_pkcs11_env, EnvDestroyer>;

CK_C_INITIALIZE_ARGS osLockingArguments() {
  CK_C_INITIALIZE_ARGS arguments;
  std::memset(&arguments, 0, sizeof arguments);
  arguments.flags = CKF_OS_LOCKING_OK;
  return arguments;
}

void releaseSlotArrays(qn_pkcs11_env *env) {
  release(env->slots, env->slotCount);
  release(env->slotInfo, env->slotCount);
  release(env->tokenInfo, env->slotCount);
  env->slots = nullptr;
  env->slotInfo = nullptr;
  env->tokenInfo = nullptr;
  env->slotCount = 0;
}

// The environment of an open session, or null; *rc then holds the reason.
qn_pkcs11_env *openSessionEnv(const qn_pkcs11_session *session, int32_t *rc) {
  if (session == nullptr) {
    *rc = kMissingArgument;
    return nullptr;
  }
  if ((session->flags & QN_PKCS11_SESSION_OPEN) == 0 || session->token == nullptr ||
      session->token->env == nullptr || session->token->env->functions == nullptr) {
    *rc = QN_PKCS11_RC_SESSION_NOT_OPEN;
    return nullptr;
  }
  return session->token->env;
}

// The PIN file named by the environment, or null when sessions make no login.
const char *pinFilePath() {
  const char *path = std::getenv(QN_PKCS11_PIN_FILE_VARIABLE);
  return path != nullptr && *path != '\0' ? path : nullptr;
}

bool loginConfigured() {
  return pinFilePath() != nullptr;
}

// A PIN read from its file, wiped when it goes out of scope.
class Pin {
public:
  Pin() = default;
  Pin(const Pin &) = delete;
  Pin &operator=(const Pin &) = delete;
  ~Pin() { explicit_bzero(text_.data(), text_.size()); }

  // 0, 7773014 for a file that is not a regular file or that its group or
  // others may read, or 7773015 for one that cannot be read or holds no PIN.
  int32_t read(const char *path) {
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
      printf("PKCS#11 PIN file %s cannot be opened\n", path);
      return QN_PKCS11_RC_PIN_FILE_READ;
    }
    struct stat info {};
    int32_t rc = 0;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || (info.st_mode & 077) != 0) {
      printf("PKCS#11 PIN file %s must be a regular file that only its owner can read\n", path);
      rc = QN_PKCS11_RC_PIN_FILE_MODE;
    } else {
      ssize_t got = ::read(fd, text_.data(), text_.size());
      length_ = got > 0 ? static_cast<std::size_t>(got) : 0;
      // The PIN is the first line; a file that fills the buffer holds no
      // usable one.
      std::size_t end = std::string_view(text_.data(), length_).find_first_of("\r\n");
      if (end != std::string_view::npos)
        length_ = end;
      if (length_ == 0 || length_ == text_.size()) {
        printf("PKCS#11 PIN file %s holds no PIN\n", path);
        rc = QN_PKCS11_RC_PIN_FILE_READ;
      }
    }
    close(fd);
    return rc;
  }
  CK_UTF8CHAR_PTR data() { return reinterpret_cast<CK_UTF8CHAR_PTR>(text_.data()); }
  CK_ULONG size() const { return static_cast<CK_ULONG>(length_); }

private:
  std::array<char, 256> text_{};
  std::size_t length_ = 0;
};

CK_BBOOL kTrue = CK_TRUE;
CK_BBOOL kFalse = CK_FALSE;
CK_BYTE kPublicExponent[] = {0x01, 0x00, 0x01};

// An attribute template on the stack. The values are referenced, not copied:
// they must outlive the Cryptoki call.
class Template {
public:
  Template() = default;
  Template(const Template &) = delete; // the attributes point into it
  Template &operator=(const Template &) = delete;

  // What every key template starts with. Secret and private keys are private
  // objects exactly when sessions log in, so that without a login every
  // session still finds them. No key may seed a derivation, whatever the
  // provider's default.
  void key(CK_OBJECT_CLASS objectClass, CK_KEY_TYPE keyType, bool onToken, const char *label) {
    class_ = objectClass;
    keyType_ = keyType;
    add(CKA_CLASS, class_);
    add(CKA_KEY_TYPE, keyType_);
    flag(CKA_TOKEN, onToken);
    flag(CKA_PRIVATE, objectClass != CKO_PUBLIC_KEY && loginConfigured());
    text(CKA_LABEL, label);
    flag(CKA_DERIVE, false);
  }
  void add(CK_ATTRIBUTE_TYPE type, const void *value, std::size_t length) {
    if (count_ < attributes_.size())
      attributes_[count_++] = {type, const_cast<void *>(value), static_cast<CK_ULONG>(length)};
  }
  template <typename T> void add(CK_ATTRIBUTE_TYPE type, const T &value) {
    add(type, &value, sizeof value);
  }
  void flag(CK_ATTRIBUTE_TYPE type, bool value) { add(type, value ? &kTrue : &kFalse, 1); }
  // Adds text without its terminator; nothing for null.
  void text(CK_ATTRIBUTE_TYPE type, const char *value) {
    if (value != nullptr)
      add(type, value, std::strlen(value));
  }
  CK_ATTRIBUTE *data() { return attributes_.data(); }
  uint32_t size() const { return static_cast<uint32_t>(count_); }

private:
  std::array<CK_ATTRIBUTE, 18> attributes_{}; // the largest template here has 16
  std::size_t count_ = 0;
  CK_OBJECT_CLASS class_ = 0;
  CK_KEY_TYPE keyType_ = 0;
};

// What a secret key may be used for: by its type (ciphers encrypt and
// decrypt, MAC keys sign and verify), or signing alone; none wraps or unwraps
// other keys.
enum class Usage { ByKeyType, SignOnly };
void addSecretUsage(Template &attributes, CK_KEY_TYPE keyType, Usage usage = Usage::ByKeyType) {
  bool mac = keyType == CKK_GENERIC_SECRET;
  bool signOnly = usage == Usage::SignOnly;
  attributes.flag(CKA_ENCRYPT, !mac && !signOnly);
  attributes.flag(CKA_DECRYPT, !mac && !signOnly);
  attributes.flag(CKA_SIGN, mac || signOnly);
  attributes.flag(CKA_VERIFY, mac && !signOnly);
  attributes.flag(CKA_WRAP, false);
  attributes.flag(CKA_UNWRAP, false);
}

// A public RSA key with the exponent 65537 that verifies, encrypts and wraps.
void addRsaPublicUsage(Template &attributes) {
  attributes.add(CKA_PUBLIC_EXPONENT, kPublicExponent);
  attributes.flag(CKA_VERIFY, true);
  attributes.flag(CKA_ENCRYPT, true);
  attributes.flag(CKA_WRAP, true);
}

// Key generation shared by every secret-key form; callName names it in the
// failure report.
int32_t generateSecret(qn_pkcs11_session *session, CK_MECHANISM_TYPE generator, CK_KEY_TYPE keyType,
                       uint32_t keyBytes, const char *label, int extractable,
                       const CK_MECHANISM_TYPE *mechanisms, uint32_t mechanismCount, Usage usage,
                       const char *callName, qn_pkcs11_key *outKey) {
  if (session == nullptr || label == nullptr || outKey == nullptr)
    return kMissingArgument;
  if (keyBytes == 0)
    return QN_PKCS11_RC_KEY_SIZE;
  int32_t rc = 0;
  qn_pkcs11_env *env = openSessionEnv(session, &rc);
  if (env == nullptr)
    return rc;
  CK_ULONG valueLength = keyBytes;
  Template attributes;
  attributes.key(CKO_SECRET_KEY, keyType, true, label);
  attributes.add(CKA_VALUE_LEN, valueLength);
  attributes.flag(CKA_SENSITIVE, extractable == 0);
  attributes.flag(CKA_EXTRACTABLE, extractable != 0);
  addSecretUsage(attributes, keyType, usage);
  if (mechanisms != nullptr && mechanismCount > 0)
    attributes.add(CKA_ALLOWED_MECHANISMS, mechanisms, mechanismCount * sizeof *mechanisms);
  CK_MECHANISM mechanism = {generator, nullptr, 0};
  CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
  CK_RV rv = record(env,
                    env->functions->C_GenerateKey(session->handle, &mechanism, attributes.data(),
                                                  attributes.size(), &handle),
                    callName);
  if (rv != CKR_OK)
    return status(rv);
  *outKey = {env, handle};
  return 0;
}

// The HMAC mechanisms with their output length, indexed by digest identifier
// minus QN_HASH_MD5.
struct HmacMechanism {
  CK_MECHANISM_TYPE mechanism;
  uint32_t length;
};
constexpr HmacMechanism kHmacMechanisms[] = {{CKM_MD5_HMAC, 16},
                                             {CKM_SHA_1_HMAC, 20},
                                             {CKM_SHA256_HMAC, 32},
                                             {CKM_SHA384_HMAC, 48},
                                             {CKM_SHA512_HMAC, 64}};

// C_CreateObject; callName, when given, names a failure in the report.
int32_t createObject(qn_pkcs11_session *session, uint32_t attributeCount, CK_ATTRIBUTE *attributes,
                     const char *callName, qn_pkcs11_key *outKey) {
  if (session == nullptr || attributeCount == 0 || attributes == nullptr || outKey == nullptr)
    return kMissingArgument;
  int32_t rc = 0;
  qn_pkcs11_env *env = openSessionEnv(session, &rc);
  if (env == nullptr)
    return rc;
  CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
  CK_RV rv = record(
      env, env->functions->C_CreateObject(session->handle, attributes, attributeCount, &handle),
      callName);
  if (rv != CKR_OK)
    return status(rv);
  *outKey = {env, handle};
  return 0;
}

// Secret keys made from caller bytes: sensitive, never extractable.
int32_t createSecretFromRaw(qn_pkcs11_session *session, CK_KEY_TYPE keyType, bool onToken,
                            const char *label, const char *application, const unsigned char *raw,
                            uint32_t rawLength, const char *callName, qn_pkcs11_key *outKey) {
  if (session == nullptr || raw == nullptr || rawLength == 0 || outKey == nullptr ||
      (onToken && label == nullptr))
    return kMissingArgument;
  if (keyType == CKK_AES && rawLength > 32)
    return QN_PKCS11_RC_AES_RAW_TOO_LONG;
  // Zero bytes appended to an HMAC key shorter than the hash block (64 bytes
  // at least) leave the HMAC unchanged, and some providers refuse keys
  // shorter than the digest.
  constexpr uint32_t kShortestHmacKey = 64;
  std::array<unsigned char, kShortestHmacKey> padded{};
  const unsigned char *value = raw;
  uint32_t valueLength = rawLength;
  if (keyType == CKK_GENERIC_SECRET && rawLength < kShortestHmacKey) {
    std::memcpy(padded.data(), raw, rawLength);
    value = padded.data();
    valueLength = kShortestHmacKey;
  }
  Template attributes;
  attributes.key(CKO_SECRET_KEY, keyType, onToken, label);
  attributes.flag(CKA_SENSITIVE, true);
  attributes.flag(CKA_EXTRACTABLE, false);
  addSecretUsage(attributes, keyType);
  attributes.add(CKA_VALUE, value, valueLength);
  attributes.text(CKA_APPLICATION, application);
  int32_t rc = createObject(session, attributes.size(), attributes.data(), callName, outKey);
  explicit_bzero(padded.data(), padded.size());
  return rc;
}

// Logs the new session's application in as the token's user when a PIN file
// is configured. A login that another session of this process already made
// counts as made.
int32_t login(qn_pkcs11_env *env, CK_SESSION_HANDLE handle) {
  const char *path = pinFilePath();
  if (path == nullptr)
    return 0;
  Pin pin;
  if (int32_t rc = pin.read(path))
    return rc;
  CK_RV rv = env->functions->C_Login(handle, CKU_USER, pin.data(), pin.size());
  if (rv == CKR_USER_ALREADY_LOGGED_IN)
    rv = CKR_OK;
  return status(record(env, rv, "C_Login (session_open)"));
}

int32_t openSession(qn_pkcs11_token *token, qn_pkcs11_session *session, bool readWrite) {
  if (token == nullptr || session == nullptr)
    return kMissingArgument;
  if (session->flags & QN_PKCS11_SESSION_OPEN)
    return QN_PKCS11_RC_SESSION_OPEN;
  qn_pkcs11_env *env = token->env;
  if (env == nullptr || !env->initialized || env->functions == nullptr)
    return QN_PKCS11_RC_NOT_INITIALIZED;
  std::memset(session, 0, sizeof *session);
  CK_FLAGS flags = CKF_SERIAL_SESSION | (readWrite ? CKF_RW_SESSION : 0);
  CK_SESSION_HANDLE handle = CK_INVALID_HANDLE;
  CK_RV rv = record(
      env, env->functions->C_OpenSession(token->slotId, flags, nullptr, nullptr, &handle), nullptr);
  if (rv == CKR_CRYPTOKI_NOT_INITIALIZED) {
    // Someone finalised the provider under us; initialise it once more.
    CK_C_INITIALIZE_ARGS arguments = osLockingArguments();
    record(env, env->functions->C_Initialize(&arguments),
           "C_Initialize (C_OpenSession auto-recovery)");
    rv = record(env, env->functions->C_OpenSession(token->slotId, flags, nullptr, nullptr, &handle),
                readWrite ? "C_OpenSession (session_openReadWrite after auto-recovery)"
                          : "C_OpenSession (session_openReadOnly after auto-recovery)");
  } else if (rv != CKR_OK) {
    showError(readWrite ? "C_OpenSession (session_openReadWrite)"
                        : "C_OpenSession (session_openReadOnly)",
              rv);
  }
  if (rv != CKR_OK)
    return status(rv);
  if (int32_t rc = login(env, handle); rc != 0) {
    env->functions->C_CloseSession(handle);
    return rc;
  }
  session->token = token;
  session->handle = handle;
  session->flags |= QN_PKCS11_SESSION_OPEN;
  return 0;
}

int32_t hmacWith(qn_pkcs11_session *session, const qn_pkcs11_key *key, uint32_t digest,
                 const unsigned char *data, uint32_t dataLength, unsigned char *mac,
                 uint32_t *macLength) {
  return qn_pkcs11_hmac_internal(session, key, kHmacMechanisms[digest - QN_HASH_MD5].mechanism,
                                 data, dataLength, mac, macLength);
}

// Maps the RSA hash selector to its signing mechanism; false when unknown.
bool rsaMechanism(int hash, CK_MECHANISM_TYPE *mechanism) {
  switch (hash) {
  case QN_PKCS11_RSA_SHA1:
    *mechanism = CKM_SHA1_RSA_PKCS;
    return true;
  case QN_PKCS11_RSA_SHA256:
    *mechanism = CKM_SHA256_RSA_PKCS;
    return true;
  default:
    return false;
  }
}

// Copies a blank-padded fixed-width field into a terminated buffer.
template <std::size_t N> void printField(const char *name, const CK_UTF8CHAR (&field)[N]) {
  static_assert(N <= 64);
  char text[65] = {};
  std::memcpy(text, field, N);
  printf("\t%s: <%s>\n", name, text);
}

struct CkrName {
  CK_RV rv;
  std::string_view name;
};

#define QN_CKR(code)                                                                               \
  { code, #code }
constexpr CkrName kCkrNames[] = {
    QN_CKR(CKR_OK),
    QN_CKR(CKR_CANCEL),
    QN_CKR(CKR_HOST_MEMORY),
    QN_CKR(CKR_SLOT_ID_INVALID),
    QN_CKR(CKR_GENERAL_ERROR),
    QN_CKR(CKR_FUNCTION_FAILED),
    QN_CKR(CKR_ARGUMENTS_BAD),
    QN_CKR(CKR_NO_EVENT),
    QN_CKR(CKR_NEED_TO_CREATE_THREADS),
    QN_CKR(CKR_CANT_LOCK),
    QN_CKR(CKR_ATTRIBUTE_READ_ONLY),
    QN_CKR(CKR_ATTRIBUTE_SENSITIVE),
    QN_CKR(CKR_ATTRIBUTE_TYPE_INVALID),
    QN_CKR(CKR_ATTRIBUTE_VALUE_INVALID),
    QN_CKR(CKR_DATA_INVALID),
    QN_CKR(CKR_DATA_LEN_RANGE),
    QN_CKR(CKR_DEVICE_ERROR),
    QN_CKR(CKR_DEVICE_MEMORY),
    QN_CKR(CKR_DEVICE_REMOVED),
    QN_CKR(CKR_ENCRYPTED_DATA_INVALID),
    QN_CKR(CKR_ENCRYPTED_DATA_LEN_RANGE),
    QN_CKR(CKR_FUNCTION_CANCELED),
    QN_CKR(CKR_FUNCTION_NOT_PARALLEL),
    QN_CKR(CKR_FUNCTION_NOT_SUPPORTED),
    QN_CKR(CKR_KEY_HANDLE_INVALID),
    QN_CKR(CKR_KEY_SIZE_RANGE),
    QN_CKR(CKR_KEY_TYPE_INCONSISTENT),
    QN_CKR(CKR_KEY_NOT_NEEDED),
    QN_CKR(CKR_KEY_CHANGED),
    QN_CKR(CKR_KEY_NEEDED),
    QN_CKR(CKR_KEY_INDIGESTIBLE),
    QN_CKR(CKR_KEY_FUNCTION_NOT_PERMITTED),
    QN_CKR(CKR_KEY_NOT_WRAPPABLE),
    QN_CKR(CKR_KEY_UNEXTRACTABLE),
    QN_CKR(CKR_MECHANISM_INVALID),
    QN_CKR(CKR_MECHANISM_PARAM_INVALID),
    QN_CKR(CKR_OBJECT_HANDLE_INVALID),
    QN_CKR(CKR_OPERATION_ACTIVE),
    QN_CKR(CKR_OPERATION_NOT_INITIALIZED),
    QN_CKR(CKR_PIN_INCORRECT),
    QN_CKR(CKR_PIN_INVALID),
    QN_CKR(CKR_PIN_LEN_RANGE),
    QN_CKR(CKR_PIN_EXPIRED),
    QN_CKR(CKR_PIN_LOCKED),
    QN_CKR(CKR_SESSION_CLOSED),
    QN_CKR(CKR_SESSION_COUNT),
    QN_CKR(CKR_SESSION_HANDLE_INVALID),
    QN_CKR(CKR_SESSION_PARALLEL_NOT_SUPPORTED),
    QN_CKR(CKR_SESSION_READ_ONLY),
    QN_CKR(CKR_SESSION_EXISTS),
    QN_CKR(CKR_SESSION_READ_ONLY_EXISTS),
    QN_CKR(CKR_SESSION_READ_WRITE_SO_EXISTS),
    QN_CKR(CKR_SIGNATURE_INVALID),
    QN_CKR(CKR_SIGNATURE_LEN_RANGE),
    QN_CKR(CKR_TEMPLATE_INCOMPLETE),
    QN_CKR(CKR_TEMPLATE_INCONSISTENT),
    {CKR_TOKEN_NOT_PRESENT,
     "CKR_TOKEN_NOT_PRESENT - ORVAN is not active or not configured for PELDA operations"},
    {CKR_TOKEN_NOT_RECOGNIZED,
     "CKR_TOKEN_NOT_RECOGNIZED - You are not authorized to perform the token operation"},
    QN_CKR(CKR_TOKEN_WRITE_PROTECTED),
    QN_CKR(CKR_UNWRAPPING_KEY_HANDLE_INVALID),
    QN_CKR(CKR_UNWRAPPING_KEY_SIZE_RANGE),
    QN_CKR(CKR_UNWRAPPING_KEY_TYPE_INCONSISTENT),
    QN_CKR(CKR_USER_ALREADY_LOGGED_IN),
    QN_CKR(CKR_USER_NOT_LOGGED_IN),
    QN_CKR(CKR_USER_PIN_NOT_INITIALIZED),
    QN_CKR(CKR_USER_TYPE_INVALID),
    QN_CKR(CKR_USER_ANOTHER_ALREADY_LOGGED_IN),
    QN_CKR(CKR_USER_TOO_MANY_TYPES),
    QN_CKR(CKR_WRAPPED_KEY_INVALID),
    QN_CKR(CKR_WRAPPED_KEY_LEN_RANGE),
    QN_CKR(CKR_WRAPPING_KEY_HANDLE_INVALID),
    QN_CKR(CKR_WRAPPING_KEY_SIZE_RANGE),
    QN_CKR(CKR_WRAPPING_KEY_TYPE_INCONSISTENT),
    QN_CKR(CKR_RANDOM_SEED_NOT_SUPPORTED),
    QN_CKR(CKR_RANDOM_NO_RNG),
    QN_CKR(CKR_BUFFER_TOO_SMALL),
    QN_CKR(CKR_SAVED_STATE_INVALID),
    QN_CKR(CKR_INFORMATION_SENSITIVE),
    QN_CKR(CKR_STATE_UNSAVEABLE),
    QN_CKR(CKR_CRYPTOKI_NOT_INITIALIZED),
    QN_CKR(CKR_CRYPTOKI_ALREADY_INITIALIZED),
    QN_CKR(CKR_MUTEX_BAD),
    QN_CKR(CKR_MUTEX_NOT_LOCKED),
};
#undef QN_CKR

} // namespace

extern "C" {

// ---- Environment ----

int32_t qn_pkcs11_env_init(qn_pkcs11_env **outEnv) {
  const char *path = std::getenv(QN_PKCS11_MODULE_VARIABLE);
  if (path == nullptr || *path == '\0')
    path = QN_PKCS11_DEFAULT_MODULE;
  return qn_pkcs11_env_initModule(path, outEnv);
}

int32_t qn_pkcs11_env_initModule(const char *modulePath, qn_pkcs11_env **outEnv) {
  if (modulePath == nullptr || outEnv == nullptr)
    return kMissingArgument;
  // The library is released after the environment (declaration order), so
  // C_Finalize still has code to run on a failed load.
  LibraryHandle library(modulePath);
  EnvGuard env(allocate<qn_pkcs11_env>(1, "pkcs11 env"));
  if (env == nullptr)
    return QN_PKCS11_RC_ALLOC;
  if (library.get() == nullptr) {
    printf("%s not found in linklist or LIBPATH\n", modulePath);
    return QN_PKCS11_RC_NOT_LOADABLE;
  }
  auto getFunctionList =
      reinterpret_cast<CK_C_GetFunctionList>(dlsym(library.get(), "C_GetFunctionList"));
  if (getFunctionList == nullptr) {
    printf("C_GetFunctionList() not found in module %s\n", modulePath);
    return QN_PKCS11_RC_NO_FUNCTION_LIST;
  }
  CK_FUNCTION_LIST_PTR functions = nullptr;
  CK_RV rv = record(env.get(), getFunctionList(&functions), "C_GetFunctionList");
  if (rv != CKR_OK)
    return status(rv);
  if (functions == nullptr)
    return QN_PKCS11_RC_NO_FUNCTION_LIST;
  env->functions = functions;
  // Failure here (typically: already initialised by another environment) is
  // reported but does not stop the load.
  CK_C_INITIALIZE_ARGS arguments = osLockingArguments();
  record(env.get(), functions->C_Initialize(&arguments), "C_Initialize");
  env->lastRv = CKR_OK;
  env->initialized = 1;
  int32_t rc = qn_pkcs11_env_refresh(env.get());
  if (rc != 0)
    return rc;
  library.keep();
  *outEnv = env.release();
  return 0;
}

int32_t qn_pkcs11_env_refresh(qn_pkcs11_env *env) {
  if (env == nullptr)
    return kMissingArgument;
  if (!env->initialized || env->functions == nullptr)
    return QN_PKCS11_RC_NOT_INITIALIZED;
  releaseSlotArrays(env);
  CK_FUNCTION_LIST_PTR f = env->functions;
  CK_ULONG count = 0;
  CK_RV rv =
      record(env, f->C_GetSlotList(CK_TRUE, nullptr, &count), "C_GetSlotList #1 (env_refresh)");
  if (rv != CKR_OK)
    return status(rv);
  if (count == 0) {
    printf("C_GetSlotList returned 0 slots.\n");
    return 0;
  }
  env->slots = allocate<CK_SLOT_ID>(count, "pkcs11 slots");
  env->slotInfo = allocate<CK_SLOT_INFO>(count, "pkcs11 slot info");
  env->tokenInfo = allocate<CK_TOKEN_INFO>(count, "pkcs11 token info");
  env->slotCount = count;
  if (env->slots == nullptr || env->slotInfo == nullptr || env->tokenInfo == nullptr) {
    releaseSlotArrays(env);
    return QN_PKCS11_RC_ALLOC;
  }
  CK_ULONG listed = count;
  rv =
      record(env, f->C_GetSlotList(CK_TRUE, env->slots, &listed), "C_GetSlotList #2 (env_refresh)");
  if (rv != CKR_OK) {
    releaseSlotArrays(env);
    return status(rv);
  }
  // A slot may have gone between the two listings; the tail then stays unused.
  env->slotCount = listed;
  for (CK_ULONG i = 0; i < listed; i++) {
    rv = record(env, f->C_GetSlotInfo(env->slots[i], &env->slotInfo[i]), nullptr);
    if (rv != CKR_OK) {
      printf("Error getting slot info for index: %d\n", static_cast<int>(i));
      showError("C_GetSlotInfo (env_refresh)", rv);
      releaseSlotArrays(env);
      return status(rv);
    }
    rv = record(env, f->C_GetTokenInfo(env->slots[i], &env->tokenInfo[i]), nullptr);
    if (rv == CKR_DEVICE_REMOVED) {
      printf("env_refresh saw CKR_DEVICE_REMOVED at slot index %d, (continuing)\n",
             static_cast<int>(i));
      std::memset(&env->tokenInfo[i], 0, sizeof env->tokenInfo[i]);
    } else if (rv != CKR_OK) {
      printf("Error getting token info for index: %d\n", static_cast<int>(i));
      showError("C_GetTokenInfo (env_refresh)", rv);
      releaseSlotArrays(env);
      return status(rv);
    }
  }
  return 0;
}

void qn_pkcs11_env_describe(const qn_pkcs11_env *env) {
  printf("Description of PKCS#11 Environment:\n");
  if (env == nullptr) {
    printf("Environment is NULL.\n");
    return;
  }
  printf("Environment was initialized: %s\n", env->initialized ? "YES" : "NO");
  printf("Number of accessible slots: %d\n", static_cast<int>(env->slotCount));
  for (CK_ULONG i = 0; i < env->slotCount; i++) {
    const CK_SLOT_INFO &slot = env->slotInfo[i];
    const CK_TOKEN_INFO &token = env->tokenInfo[i];
    printf("Info for slot number %d, (Slot ID %ul):\n", static_cast<int>(i),
           static_cast<unsigned>(env->slots[i]));
    printField("slot description", slot.slotDescription);
    printField("slot manufacturer ID", slot.manufacturerID);
    printField("token label", token.label);
    printField("token manufacturer ID", token.manufacturerID);
    printField("token model", token.model);
    printField("token serial number", token.serialNumber);
    printField("token UTC time", token.utcTime);
    printf("- - - - -\n");
  }
}

void qn_pkcs11_env_destroy(qn_pkcs11_env *env) {
  if (env == nullptr)
    return;
  if (env->initialized && env->functions != nullptr)
    record(env, env->functions->C_Finalize(nullptr), "C_Finalize");
  releaseSlotArrays(env);
  release(env, 1);
}

// ---- Tokens and sessions ----

int32_t qn_pkcs11_findToken(qn_pkcs11_env *env, const char *label, qn_pkcs11_token **outToken) {
  if (env == nullptr || label == nullptr || outToken == nullptr)
    return kMissingArgument;
  if (!env->initialized)
    return QN_PKCS11_RC_NOT_INITIALIZED;
  if (env->slotCount == 0)
    return QN_PKCS11_RC_NO_TOKEN;
  std::size_t length = std::strlen(label);
  if (length == 0 || length > QN_PKCS11_LABEL_LENGTH)
    return QN_PKCS11_RC_BAD_LABEL;
  CK_UTF8CHAR padded[QN_PKCS11_LABEL_LENGTH];
  std::memset(padded, ' ', sizeof padded);
  std::memcpy(padded, label, length);
  for (CK_ULONG i = 0; i < env->slotCount; i++) {
    if (std::memcmp(env->tokenInfo[i].label, padded, sizeof padded) != 0)
      continue;
    qn_pkcs11_token *token = allocate<qn_pkcs11_token>(1, "pkcs11 token");
    if (token == nullptr)
      return QN_PKCS11_RC_ALLOC;
    token->env = env;
    token->slotId = env->slots[i];
    token->info = env->tokenInfo[i];
    *outToken = token;
    return 0;
  }
  return QN_PKCS11_RC_NO_TOKEN;
}

void qn_pkcs11_token_free(qn_pkcs11_token *token) {
  release(token, token == nullptr ? 0 : 1);
}

int32_t qn_pkcs11_session_openReadOnly(qn_pkcs11_token *token, qn_pkcs11_session *session) {
  return openSession(token, session, false);
}

int32_t qn_pkcs11_session_openReadWrite(qn_pkcs11_token *token, qn_pkcs11_session *session) {
  return openSession(token, session, true);
}

int32_t qn_pkcs11_session_close(qn_pkcs11_session *session) {
  int32_t rc = 0;
  qn_pkcs11_env *env = openSessionEnv(session, &rc);
  if (env == nullptr)
    return rc;
  CK_RV rv = record(env, env->functions->C_CloseSession(session->handle),
                    "C_CloseSession (session_close)");
  if (rv != CKR_OK)
    return status(rv);
  session->flags &= ~QN_PKCS11_SESSION_OPEN;
  return 0;
}

int32_t qn_pkcs11_teardown_helper(qn_pkcs11_session *session) {
  if (session == nullptr)
    return 0;
  int32_t rc = (session->flags & QN_PKCS11_SESSION_OPEN) ? qn_pkcs11_session_close(session) : 0;
  qn_pkcs11_token *token = session->token;
  if (token != nullptr)
    qn_pkcs11_env_destroy(token->env);
  qn_pkcs11_token_free(token);
  release(session, 1);
  return rc;
}

// ---- Objects ----

int32_t qn_pkcs11_getRandomBytes(qn_pkcs11_session *session, const unsigned char *seed,
                                 uint32_t seedLength, unsigned char *buffer, uint32_t length) {
  if (session == nullptr || buffer == nullptr)
    return kMissingArgument;
  if (length == 0)
    return 0;
  if (length > QN_PKCS11_MAX_RANDOM)
    return QN_PKCS11_RC_RANDOM_TOO_LONG;
  int32_t rc = 0;
  qn_pkcs11_env *env = openSessionEnv(session, &rc);
  if (env == nullptr)
    return rc;
  if (seed != nullptr && seedLength > 0) {
    CK_RV rv = record(
        env, env->functions->C_SeedRandom(session->handle, const_cast<CK_BYTE *>(seed), seedLength),
        "C_SeedRandom (getRandomBytes)");
    if (rv != CKR_OK)
      return status(rv);
  }
  return status(record(env, env->functions->C_GenerateRandom(session->handle, buffer, length),
                       "C_GenerateRandom (getRandomBytes)"));
}

int32_t qn_pkcs11_gen_SymkeyWithLabel(qn_pkcs11_session *session, CK_MECHANISM_TYPE generator,
                                      CK_KEY_TYPE keyType, uint32_t keyBytes, const char *label,
                                      int extractable, const CK_MECHANISM_TYPE *mechanisms,
                                      uint32_t mechanismCount, qn_pkcs11_key *outKey) {
  return generateSecret(session, generator, keyType, keyBytes, label, extractable, mechanisms,
                        mechanismCount, Usage::ByKeyType, "C_GenerateKey (gen_SymkeyWithLabel)",
                        outKey);
}

int32_t qn_pkcs11_gen_AESCBCPadWithLabel(qn_pkcs11_session *session, uint32_t keyBits,
                                         const char *label, int sensitive, qn_pkcs11_key *outKey) {
  if (session == nullptr || keyBits == 0 || label == nullptr || outKey == nullptr)
    return kMissingArgument;
  if (keyBits % 8 != 0)
    return QN_PKCS11_RC_KEY_SIZE;
  return qn_pkcs11_gen_SymkeyWithLabel(session, CKM_AES_KEY_GEN, CKK_AES, keyBits / 8, label,
                                       !sensitive, nullptr, 0, outKey);
}

int32_t qn_pkcs11_gen_GenericSecretHMACKeyWithLabel(qn_pkcs11_session *session, uint32_t keyBytes,
                                                    const char *label, int extractable,
                                                    qn_pkcs11_key *outKey) {
  if (session == nullptr || label == nullptr || outKey == nullptr)
    return kMissingArgument;
  if (keyBytes > QN_PKCS11_MAX_HMAC_KEY)
    return QN_PKCS11_RC_HMAC_KEY_TOO_LONG;
  return generateSecret(session, CKM_GENERIC_SECRET_KEY_GEN, CKK_GENERIC_SECRET, keyBytes, label,
                        extractable, nullptr, 0, Usage::SignOnly,
                        "C_GenerateKey (gen_GenericSecretHMACKeyWithLabel)", outKey);
}

int32_t qn_pkcs11_gen_shaHMACKeyWithLabel(qn_pkcs11_session *session, uint32_t digest,
                                          const char *label, int extractable,
                                          qn_pkcs11_key *outKey) {
  if (session == nullptr || label == nullptr || outKey == nullptr)
    return kMissingArgument;
  // MD5 (7) keys are not offered: the one-time codes refuse that digest.
  if (digest < QN_HASH_SHA1 || digest > QN_HASH_SHA512)
    return QN_PKCS11_RC_KEY_SIZE;
  return generateSecret(session, CKM_GENERIC_SECRET_KEY_GEN, CKK_GENERIC_SECRET,
                        kHmacMechanisms[digest - QN_HASH_MD5].length, label, extractable, nullptr,
                        0, Usage::ByKeyType, "C_GenerateKey (qn_pkcs11_gen_shaHMACKeyWithLabel)",
                        outKey);
}

int32_t qn_pkcs11_gen_RSAKeyPair(qn_pkcs11_session *session, uint32_t modulusBits,
                                 const char *label, qn_pkcs11_key *outPublicKey,
                                 qn_pkcs11_key *outPrivateKey) {
  if (session == nullptr || label == nullptr || outPublicKey == nullptr || outPrivateKey == nullptr)
    return kMissingArgument;
  if (modulusBits == 0 || modulusBits % 8 != 0)
    return QN_PKCS11_RC_KEY_SIZE;
  int32_t rc = 0;
  qn_pkcs11_env *env = openSessionEnv(session, &rc);
  if (env == nullptr)
    return rc;
  CK_ULONG bits = modulusBits;
  Template publicKey;
  publicKey.key(CKO_PUBLIC_KEY, CKK_RSA, true, label);
  publicKey.add(CKA_MODULUS_BITS, bits);
  addRsaPublicUsage(publicKey);
  Template privateKey;
  privateKey.key(CKO_PRIVATE_KEY, CKK_RSA, true, label);
  privateKey.flag(CKA_SENSITIVE, true);
  privateKey.flag(CKA_EXTRACTABLE, false);
  privateKey.flag(CKA_SIGN, true);
  privateKey.flag(CKA_DECRYPT, true);
  privateKey.flag(CKA_UNWRAP, true);
  CK_MECHANISM mechanism = {CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
  CK_OBJECT_HANDLE publicHandle = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE privateHandle = CK_INVALID_HANDLE;
  CK_RV rv = record(env,
                    env->functions->C_GenerateKeyPair(
                        session->handle, &mechanism, publicKey.data(), publicKey.size(),
                        privateKey.data(), privateKey.size(), &publicHandle, &privateHandle),
                    "C_GenerateKeyPair (gen_RSAKeyPair)");
  if (rv != CKR_OK)
    return status(rv);
  *outPublicKey = {env, publicHandle};
  *outPrivateKey = {env, privateHandle};
  return 0;
}

int32_t qn_pkcs11_create_aesSessionKeyFromRaw(qn_pkcs11_session *session, const char *label,
                                              const char *application, const unsigned char *raw,
                                              uint32_t rawLength, qn_pkcs11_key *outKey) {
  return createSecretFromRaw(session, CKK_AES, false, label, application, raw, rawLength,
                             "C_CreateObject (create_aesKeyFromRaw)", outKey);
}

int32_t qn_pkcs11_create_aesKeyFromRaw(qn_pkcs11_session *session, const char *label,
                                       const char *application, const unsigned char *raw,
                                       uint32_t rawLength, qn_pkcs11_key *outKey) {
  return createSecretFromRaw(session, CKK_AES, true, label, application, raw, rawLength,
                             "C_CreateObject (create_aesKeyFromRaw)", outKey);
}

int32_t qn_pkcs11_create_hmacKeyFromRaw(qn_pkcs11_session *session, const char *label,
                                        const char *application, const unsigned char *raw,
                                        uint32_t rawLength, qn_pkcs11_key *outKey) {
  return createSecretFromRaw(session, CKK_GENERIC_SECRET, true, label, application, raw, rawLength,
                             "C_CreateObject (create_hmacKeyFromRaw)", outKey);
}

int32_t qn_pkcs11_create_hmacSessionKeyFromRaw(qn_pkcs11_session *session, const char *label,
                                               const char *application, const unsigned char *raw,
                                               uint32_t rawLength, qn_pkcs11_key *outKey) {
  return createSecretFromRaw(session, CKK_GENERIC_SECRET, false, label, application, raw, rawLength,
                             "C_CreateObject (create_hmacKeyFromRaw)", outKey);
}

int32_t qn_pkcs11_create_rsaPubKeyFromRaw(qn_pkcs11_session *session, const char *label,
                                          const char *application, const unsigned char *raw,
                                          uint32_t rawLength, qn_pkcs11_key *outKey) {
  if (session == nullptr || raw == nullptr || rawLength == 0 || outKey == nullptr)
    return kMissingArgument;
  Template attributes;
  attributes.key(CKO_PUBLIC_KEY, CKK_RSA, false, label);
  attributes.add(CKA_MODULUS, raw, rawLength);
  addRsaPublicUsage(attributes);
  attributes.text(CKA_APPLICATION, application);
  return createObject(session, attributes.size(), attributes.data(),
                      "C_CreateObject (create_rsaPubKeyFromRaw)", outKey);
}

int32_t qn_pkcs11_createObject_internal(qn_pkcs11_session *session, uint32_t attributeCount,
                                        CK_ATTRIBUTE *attributes, qn_pkcs11_key *outKey) {
  return createObject(session, attributeCount, attributes, nullptr, outKey);
}

int32_t qn_pkcs11_find_KeyWithLabel(qn_pkcs11_session *session, CK_OBJECT_CLASS objectClass,
                                    CK_KEY_TYPE keyType, const char *label, qn_pkcs11_key *outKey) {
  if (session == nullptr || label == nullptr || outKey == nullptr)
    return kMissingArgument;
  int32_t rc = 0;
  qn_pkcs11_env *env = openSessionEnv(session, &rc);
  if (env == nullptr)
    return rc;
  Template attributes;
  attributes.text(CKA_LABEL, label);
  attributes.add(CKA_CLASS, objectClass);
  attributes.add(CKA_KEY_TYPE, keyType);
  CK_FUNCTION_LIST_PTR f = env->functions;
  CK_RV rv =
      record(env, f->C_FindObjectsInit(session->handle, attributes.data(), attributes.size()),
             "C_FindObjectsInit (find_KeyWithLabel)");
  if (rv != CKR_OK)
    return status(rv);
  CK_OBJECT_HANDLE handle = CK_INVALID_HANDLE;
  CK_ULONG found = 0;
  rv = record(env, f->C_FindObjects(session->handle, &handle, 1, &found),
              "C_FindObjects (find_KeyWithLabel)");
  CK_RV finalRv =
      record(env, f->C_FindObjectsFinal(session->handle), "C_FindObjectsFinal (find_KeyWithLabel)");
  if (rv != CKR_OK)
    return status(rv);
  if (finalRv != CKR_OK)
    return status(finalRv);
  if (found == 0)
    return QN_PKCS11_RC_KEY_NOT_FOUND;
  *outKey = {env, handle};
  return 0;
}

int32_t qn_pkcs11_find_RSAPubWithLabel(qn_pkcs11_session *session, const char *label,
                                       qn_pkcs11_key *outKey) {
  return qn_pkcs11_find_KeyWithLabel(session, CKO_PUBLIC_KEY, CKK_RSA, label, outKey);
}

int32_t qn_pkcs11_find_RSAPrivWithLabel(qn_pkcs11_session *session, const char *label,
                                        qn_pkcs11_key *outKey) {
  return qn_pkcs11_find_KeyWithLabel(session, CKO_PRIVATE_KEY, CKK_RSA, label, outKey);
}

int32_t qn_pkcs11_find_AESWithLabel(qn_pkcs11_session *session, const char *label,
                                    qn_pkcs11_key *outKey) {
  return qn_pkcs11_find_KeyWithLabel(session, CKO_SECRET_KEY, CKK_AES, label, outKey);
}

int32_t qn_pkcs11_find_genericSecretWithLabel(qn_pkcs11_session *session, const char *label,
                                              qn_pkcs11_key *outKey) {
  return qn_pkcs11_find_KeyWithLabel(session, CKO_SECRET_KEY, CKK_GENERIC_SECRET, label, outKey);
}

// ---- HMAC ----

int32_t qn_pkcs11_hmac_internal(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                CK_MECHANISM_TYPE mechanism, const unsigned char *data,
                                uint32_t dataLength, unsigned char *mac, uint32_t *macLength) {
  if (session == nullptr || key == nullptr || data == nullptr || mac == nullptr ||
      macLength == nullptr)
    return kMissingArgument;
  const HmacMechanism *selected = nullptr;
  for (const HmacMechanism &candidate : kHmacMechanisms)
    if (candidate.mechanism == mechanism)
      selected = &candidate;
  if (selected == nullptr)
    return QN_PKCS11_RC_HMAC_MECHANISM;
  if (*macLength < selected->length)
    return QN_PKCS11_RC_HMAC_BUFFER_SMALL;
  int32_t rc = 0;
  qn_pkcs11_env *env = openSessionEnv(session, &rc);
  if (env == nullptr)
    return rc;
  CK_FUNCTION_LIST_PTR f = env->functions;
  CK_MECHANISM parameters = {mechanism, nullptr, 0};
  CK_ULONG produced = *macLength;
  rc = initThenRun(
      env, f->C_SignInit(session->handle, &parameters, key->handle), "C_SignInit (HMAC)",
      [&] {
        return f->C_Sign(session->handle, const_cast<CK_BYTE *>(data), dataLength, mac, &produced);
      },
      "C_Sign (HMAC)");
  if (rc == 0)
    *macLength = static_cast<uint32_t>(produced);
  return rc;
}

int32_t qn_pkcs11_hmac_MD5(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                           const unsigned char *data, uint32_t dataLength, unsigned char *mac,
                           uint32_t *macLength) {
  return hmacWith(session, key, QN_HASH_MD5, data, dataLength, mac, macLength);
}

int32_t qn_pkcs11_hmac_SHA1(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                            const unsigned char *data, uint32_t dataLength, unsigned char *mac,
                            uint32_t *macLength) {
  return hmacWith(session, key, QN_HASH_SHA1, data, dataLength, mac, macLength);
}

int32_t qn_pkcs11_hmac_SHA256(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                              const unsigned char *data, uint32_t dataLength, unsigned char *mac,
                              uint32_t *macLength) {
  return hmacWith(session, key, QN_HASH_SHA256, data, dataLength, mac, macLength);
}

int32_t qn_pkcs11_hmac_SHA384(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                              const unsigned char *data, uint32_t dataLength, unsigned char *mac,
                              uint32_t *macLength) {
  return hmacWith(session, key, QN_HASH_SHA384, data, dataLength, mac, macLength);
}

int32_t qn_pkcs11_hmac_SHA512(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                              const unsigned char *data, uint32_t dataLength, unsigned char *mac,
                              uint32_t *macLength) {
  return hmacWith(session, key, QN_HASH_SHA512, data, dataLength, mac, macLength);
}

// ---- AES-CBC with padding ----

int32_t qn_pkcs11_encrypt_AESCBCPad(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                    const unsigned char *plaintext, uint32_t plaintextLength,
                                    unsigned char *out, uint32_t *outLength) {
  if (session == nullptr || key == nullptr || plaintext == nullptr || out == nullptr ||
      outLength == nullptr)
    return kMissingArgument;
  // Checked before the token is involved: a token that finds the buffer too
  // small would leave the operation active in the session.
  uint64_t needed = uint64_t{QN_PKCS11_AES_IV_LENGTH} + (plaintextLength / 16 + 1) * 16;
  if (*outLength < needed)
    return QN_PKCS11_RC_HMAC_BUFFER_SMALL;
  int32_t rc = 0;
  qn_pkcs11_env *env = openSessionEnv(session, &rc);
  if (env == nullptr)
    return rc;
  Buffer iv(QN_PKCS11_AES_IV_LENGTH, "aes iv");
  if (iv.get() == nullptr)
    return QN_PKCS11_RC_ALLOC;
  rc = qn_pkcs11_getRandomBytes(session, nullptr, 0, iv.get(), QN_PKCS11_AES_IV_LENGTH);
  if (rc != 0)
    return rc;
  CK_FUNCTION_LIST_PTR f = env->functions;
  CK_MECHANISM mechanism = {CKM_AES_CBC_PAD, iv.get(), QN_PKCS11_AES_IV_LENGTH};
  CK_ULONG produced = *outLength - QN_PKCS11_AES_IV_LENGTH;
  rc = initThenRun(
      env, f->C_EncryptInit(session->handle, &mechanism, key->handle),
      "C_EncryptInit (encrypt_AESCBCPad)",
      [&] {
        std::memcpy(out, iv.get(), QN_PKCS11_AES_IV_LENGTH);
        return f->C_Encrypt(session->handle, const_cast<CK_BYTE *>(plaintext), plaintextLength,
                            out + QN_PKCS11_AES_IV_LENGTH, &produced);
      },
      "C_Encrypt (encrypt_AESCBCPad)");
  if (rc == 0)
    *outLength = static_cast<uint32_t>(QN_PKCS11_AES_IV_LENGTH + produced);
  return rc;
}

int32_t qn_pkcs11_decrypt_AESCBCPad(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                    const unsigned char *input, uint32_t inputLength,
                                    unsigned char *out, uint32_t *outLength) {
  if (session == nullptr || key == nullptr || input == nullptr || out == nullptr ||
      outLength == nullptr)
    return kMissingArgument;
  if (inputLength < QN_PKCS11_AES_IV_LENGTH)
    return status(CKR_ENCRYPTED_DATA_LEN_RANGE);
  uint32_t ciphertextLength = inputLength - QN_PKCS11_AES_IV_LENGTH;
  // The plaintext is never longer than the ciphertext; a smaller buffer is
  // refused before the token could leave the operation active.
  if (*outLength < ciphertextLength)
    return QN_PKCS11_RC_HMAC_BUFFER_SMALL;
  int32_t rc = 0;
  qn_pkcs11_env *env = openSessionEnv(session, &rc);
  if (env == nullptr)
    return rc;
  Buffer iv(QN_PKCS11_AES_IV_LENGTH, "aes iv");
  if (iv.get() == nullptr)
    return QN_PKCS11_RC_ALLOC;
  std::memcpy(iv.get(), input, QN_PKCS11_AES_IV_LENGTH);
  CK_FUNCTION_LIST_PTR f = env->functions;
  CK_MECHANISM mechanism = {CKM_AES_CBC_PAD, iv.get(), QN_PKCS11_AES_IV_LENGTH};
  // No more room than the ciphertext: a provider that ignores bad padding
  // then copies at most what it decrypted.
  CK_ULONG produced = ciphertextLength;
  rc = initThenRun(
      env, f->C_DecryptInit(session->handle, &mechanism, key->handle),
      "C_DecryptInit (decrypt_AESCBCPad)",
      [&] {
        CK_RV rv =
            f->C_Decrypt(session->handle, const_cast<CK_BYTE *>(input) + QN_PKCS11_AES_IV_LENGTH,
                         ciphertextLength, out, &produced);
        // Padding takes at least one byte, so a plaintext as long as the
        // ciphertext still holds padding the provider should have refused.
        if (rv == CKR_OK && produced >= ciphertextLength) {
          std::memset(out, 0, ciphertextLength);
          rv = CKR_ENCRYPTED_DATA_INVALID;
        }
        return rv;
      },
      "C_Decrypt (decrypt_AESCBCPad)");
  if (rc == 0)
    *outLength = static_cast<uint32_t>(produced);
  return rc;
}

// ---- RSA PKCS #1 v1.5 ----

int32_t qn_pkcs11_sign_pkcs1v15_RSA(qn_pkcs11_session *session, const qn_pkcs11_key *key, int hash,
                                    const unsigned char *data, uint32_t dataLength,
                                    unsigned char *signature, uint32_t *signatureLength) {
  if (session == nullptr || key == nullptr || data == nullptr || signature == nullptr ||
      signatureLength == nullptr)
    return kMissingArgument;
  CK_MECHANISM mechanism = {0, nullptr, 0};
  if (!rsaMechanism(hash, &mechanism.mechanism))
    return QN_PKCS11_RC_RSA_HASH;
  int32_t rc = 0;
  qn_pkcs11_env *env = openSessionEnv(session, &rc);
  if (env == nullptr)
    return rc;
  CK_FUNCTION_LIST_PTR f = env->functions;
  CK_RV rv = record(env, f->C_SignInit(session->handle, &mechanism, key->handle),
                    "C_SignInit (sign_pkcs1v15_RSA)");
  if (rv != CKR_OK)
    return status(rv);
  CK_BYTE *input = const_cast<CK_BYTE *>(data);
  CK_ULONG needed = 0;
  rv = record(env, f->C_Sign(session->handle, input, dataLength, nullptr, &needed), nullptr);
  if (rv != CKR_OK && rv != CKR_BUFFER_TOO_SMALL) {
    showError("C_Sign #1 (sign_pkcs1v15_RSA)", rv);
    return status(rv);
  }
  // Signing into a buffer of the needed size always ends the operation, even
  // when the caller's buffer turns out too small.
  Buffer produced(needed, "rsa signature");
  if (produced.get() == nullptr)
    return QN_PKCS11_RC_ALLOC;
  rv = record(env, f->C_Sign(session->handle, input, dataLength, produced.get(), &needed),
              "C_Sign #2 (sign_pkcs1v15_RSA)");
  if (rv != CKR_OK)
    return status(rv);
  if (needed > *signatureLength) {
    *signatureLength = static_cast<uint32_t>(needed);
    return status(CKR_BUFFER_TOO_SMALL);
  }
  std::memcpy(signature, produced.get(), needed);
  *signatureLength = static_cast<uint32_t>(needed);
  return 0;
}

int32_t qn_pkcs11_verify_pkcs1v15_RSA(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                      int hash, const unsigned char *data, uint32_t dataLength,
                                      const unsigned char *signature, uint32_t signatureLength) {
  if (session == nullptr || key == nullptr || data == nullptr || signature == nullptr)
    return kMissingArgument;
  CK_MECHANISM mechanism = {0, nullptr, 0};
  if (!rsaMechanism(hash, &mechanism.mechanism))
    return QN_PKCS11_RC_RSA_HASH;
  int32_t rc = 0;
  qn_pkcs11_env *env = openSessionEnv(session, &rc);
  if (env == nullptr)
    return rc;
  CK_FUNCTION_LIST_PTR f = env->functions;
  return initThenRun(
      env, f->C_VerifyInit(session->handle, &mechanism, key->handle),
      "C_VerifyInit (verify_pkcs1v15_RSA)",
      [&] {
        return f->C_Verify(session->handle, const_cast<CK_BYTE *>(data), dataLength,
                           const_cast<CK_BYTE *>(signature), signatureLength);
      },
      "C_Verify (verify_pkcs1v15_RSA)");
}

int32_t qn_pkcs11_wrapSecret_PKCS1v15_RSA(qn_pkcs11_session *session,
                                          const qn_pkcs11_key *wrappingKey,
                                          const qn_pkcs11_key *secretKey,
                                          unsigned char **outWrapped, uint32_t *outWrappedLength) {
  if (session == nullptr || wrappingKey == nullptr || secretKey == nullptr ||
      outWrapped == nullptr || outWrappedLength == nullptr)
    return kMissingArgument;
  int32_t rc = 0;
  qn_pkcs11_env *env = openSessionEnv(session, &rc);
  if (env == nullptr)
    return rc;
  CK_MECHANISM mechanism = {CKM_RSA_PKCS, nullptr, 0};
  CK_ULONG length = 0;
  CK_RV rv = record(env,
                    env->functions->C_WrapKey(session->handle, &mechanism, wrappingKey->handle,
                                              secretKey->handle, nullptr, &length),
                    "C_WrapKey #1 (wrapSecret_PKCS1v15_RSA)");
  if (rv != CKR_OK)
    return status(rv);
  Buffer wrapped(length, "wrapped key");
  if (wrapped.get() == nullptr)
    return QN_PKCS11_RC_ALLOC;
  rv = record(env,
              env->functions->C_WrapKey(session->handle, &mechanism, wrappingKey->handle,
                                        secretKey->handle, wrapped.get(), &length),
              "C_WrapKey #2 (wrapSecret_PKCS1v15_RSA)");
  if (rv != CKR_OK)
    return status(rv);
  *outWrappedLength = static_cast<uint32_t>(length);
  *outWrapped = wrapped.take();
  return 0;
}

int32_t qn_pkcs11_getObjectValue(qn_pkcs11_session *session, const qn_pkcs11_key *key,
                                 unsigned char **outValue, uint32_t *outLength) {
  if (session == nullptr || key == nullptr || outValue == nullptr || outLength == nullptr)
    return kMissingArgument;
  int32_t rc = 0;
  qn_pkcs11_env *env = openSessionEnv(session, &rc);
  if (env == nullptr)
    return rc;
  CK_ATTRIBUTE value = {CKA_VALUE, nullptr, 0};
  CK_RV rv =
      record(env, env->functions->C_GetAttributeValue(session->handle, key->handle, &value, 1),
             "C_GetAttributeValue #1 (getObjectValue)");
  if (rv != CKR_OK)
    return status(rv);
  if (value.ulValueLen == 0) {
    *outValue = nullptr;
    *outLength = 0;
    return 0;
  }
  Buffer bytes(value.ulValueLen, "object value");
  if (bytes.get() == nullptr)
    return QN_PKCS11_RC_ALLOC;
  value.pValue = bytes.get();
  rv = record(env, env->functions->C_GetAttributeValue(session->handle, key->handle, &value, 1),
              "C_GetAttributeValue #2 (getObjectValue)");
  if (rv != CKR_OK)
    return status(rv);
  *outLength = static_cast<uint32_t>(value.ulValueLen);
  *outValue = bytes.take();
  return 0;
}

int32_t qn_pkcs11_destroyObject(qn_pkcs11_session *session, const qn_pkcs11_key *key) {
  if (session == nullptr || key == nullptr)
    return kMissingArgument;
  int32_t rc = 0;
  qn_pkcs11_env *env = openSessionEnv(session, &rc);
  if (env == nullptr)
    return rc;
  return status(record(env, env->functions->C_DestroyObject(session->handle, key->handle),
                       "C_DestroyObject (destroyObject)"));
}

// ---- Diagnostics ----

void showError(const char *callName, CK_RV rv) {
  printf("%s returned:  %d (0x%0x)", callName != nullptr ? callName : "", static_cast<int>(rv),
         static_cast<unsigned>(rv));
  ProcessRetCode(rv);
  printf("\n");
}

void ProcessRetCode(CK_RV rv) {
  for (const CkrName &entry : kCkrNames) {
    if (entry.rv == rv) {
      printf(" %.*s", static_cast<int>(entry.name.size()), entry.name.data());
      return;
    }
  }
}

} // extern "C"
