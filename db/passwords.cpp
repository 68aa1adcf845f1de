#include "db/passwords.h"

#include <cctype>
#include <cstring>
#include <string>

#include "base/textutils.h"
#include "crypto/pwhash.h"
#include "db/dbcommon_internal.h"

using namespace mfadb;

namespace {

constexpr int kFormatVersion = 1;
// Salt and key sizes of the stored format; a hashing context set up for
// longer ones is refused by qn_pwhash_protect rather than overrunning these.
constexpr uint32_t kSaltBytes = 16, kKeyBytes = 32;
// "Password match failed" is routine: it is logged below the error level.
constexpr int kMismatchLevel = 3;
// The upserts carry the key and salt twice.
constexpr std::size_t kUpsertSize = 2048;

using Text = Owned<char, freeString>;

// The context's hashing context, or null after printing why there is none.
qn_pwhash_ctx *hashingOf(dbctx *context) {
  if (context != nullptr && context->pwhashContext != nullptr)
    return context->pwhashContext;
  Session(context, Reporter::Console)
      .report("pwhash context not initialized, cannot proceed with password hashing.");
  return nullptr;
}

// Derives a key for password with a fresh salt and hands out both as base64.
int protect(Session &session, qn_pwhash_ctx *hashing, const char *password, Text &hash,
            Text &salt) {
  unsigned char saltBytes[kSaltBytes], key[kKeyBytes];
  uint32_t saltLength = sizeof saltBytes, keyLength = sizeof key;
  int status = qn_pwhash_protect(hashing, password,
                                 password != nullptr ? static_cast<uint32_t>(strlen(password)) : 0,
                                 saltBytes, &saltLength, key, &keyLength);
  if (status != 0) {
    session.report("Error while hashing user password: %d\n", status);
  } else {
    int length = 0;
    hash.reset(encodeBase64(nullptr, reinterpret_cast<char *>(key), static_cast<int>(keyLength),
                            &length, 0));
    salt.reset(encodeBase64(nullptr, reinterpret_cast<char *>(saltBytes),
                            static_cast<int>(saltLength), &length, 0));
    if (!hash || !salt)
      status = MFADATA_OUT_OF_MEMORY;
  }
  explicit_bzero(key, sizeof key);
  explicit_bzero(saltBytes, sizeof saltBytes);
  return status;
}

// A stored base64 text decoded into wiped checked-heap bytes.
class Decoded {
public:
  Decoded(const Decoded &) = delete;
  Decoded &operator=(const Decoded &) = delete;
  Decoded() = default;
  ~Decoded() { safeFree(bytes_, size_); }

  // 0, or 80120 when text is not base64, printed on the console as a
  // failure to decode the stored what ("pwhash" or "salt").
  int decode(Session &console, const char *text, const char *what, const char *label) {
    size_ = static_cast<int>(strlen(text)) / 4 * 3 + 1;
    if ((bytes_ = safeMalloc(size_, label)) == nullptr)
      return MFADATA_OUT_OF_MEMORY;
    if ((length_ = decodeBase64(text, bytes_)) == -1) {
      console.report("Error during %s base64 decode: %d\n", what, length_);
      return QN_DB_BASE64_DECODE_FAILED;
    }
    return 0;
  }
  const unsigned char *bytes() const { return reinterpret_cast<unsigned char *>(bytes_); }
  uint32_t length() const { return static_cast<uint32_t>(length_); }

private:
  char *bytes_ = nullptr;
  int size_ = 0;
  int length_ = 0;
};

} // namespace

extern "C" {

int qn_db_userPasswordSave(dbctx *context, const char *unixuid, const char *password) {
  qn_pwhash_ctx *hashing = hashingOf(context);
  if (hashing == nullptr)
    return QN_DB_PWHASH_UNAVAILABLE;
  Session session(context);
  Escaped uid;
  if (int status = session.connect({{uid, unixuid}}))
    return status;
  Text hash, salt;
  if (int status = protect(session, hashing, password, hash, salt))
    return status;
  auto count = static_cast<int>(hashing->iterationCount);
  return session.execFormattedIn(kUpsertSize, Expect::Command, kInsertFailed,
                "insert into qmx_usermfapassword(userid, passwordhash, iterationcount, salt, "
                "version) select au.userid,'%s',%d,'%s',%d from qmx_user au where "
                "au.unixuid='%s' on conflict (userid) do update set "
                "passwordhash='%s',iterationcount=%d,salt='%s',version=%d",
                hash.get(), count, salt.get(), kFormatVersion, uid.get(), hash.get(), count,
                salt.get(), kFormatVersion);
}

int qn_db_userPasswordSaveById(dbctx *context, int userid, const char *password) {
  qn_pwhash_ctx *hashing = hashingOf(context);
  if (hashing == nullptr)
    return QN_DB_PWHASH_UNAVAILABLE;
  Session session(context);
  if (int status = session.connect())
    return status;
  Text hash, salt;
  if (int status = protect(session, hashing, password, hash, salt))
    return status;
  auto count = static_cast<int>(hashing->iterationCount);
  return session.execFormattedIn(kUpsertSize, Expect::Command, kInsertFailed,
                "insert into qmx_usermfapassword(userid, passwordhash, iterationcount, salt, "
                "version) values(%d,'%s',%d,'%s',%d) on conflict (userid) do update set "
                "passwordhash='%s',iterationcount=%d,salt='%s',version=%d",
                userid, hash.get(), count, salt.get(), kFormatVersion, hash.get(), count,
                salt.get(), kFormatVersion);
}

int qn_db_userPasswordVerify(dbctx *context, const char *unixuid, const char *password) {
  qn_pwhash_ctx *hashing = hashingOf(context);
  if (hashing == nullptr)
    return QN_DB_PWHASH_UNAVAILABLE;
  Session session(context);
  if (int status = session.connect())
    return status;
  if (unixuid == nullptr || *unixuid == '\0' || password == nullptr || *password == '\0') {
    session.report("Attempted user password validation with an empty user id or password\n");
    return QN_DB_BAD_PARAMETERS;
  }
  Escaped uid = session.escape(unixuid);
  if (!uid)
    return QN_DB_BAD_PARAMETERS;
  // Users are stored in lower case.
  std::string folded = uid.get();
  for (char &c : folded)
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  if (int status = session.execParams("select passwordhash,iterationcount,salt from "
                                      "qmx_usermfapassword ap,qmx_user au where "
                                      "ap.userid=au.userid and au.unixuid=$1",
                                      Expect::Tuples, kSelectFailed, {folded.c_str()}))
    return status;
  if (session.rows() == 0) {
    session.report("Failed to retrieve user password hash data (user id:%s)\n", folded.c_str());
    return QN_DB_NOT_FOUND;
  }
  Session console(context, Reporter::Console);
  Decoded hash, salt;
  if (int status = hash.decode(console, session.text(0, 0), "pwhash", "decodedhash"))
    return status;
  if (int status = salt.decode(console, session.text(0, 2), "salt", "decodedsalt"))
    return status;
  int matched = 0;
  int status = qn_pwhash_verify(hashing, static_cast<uint32_t>(session.integer(0, 1)), password,
                                static_cast<uint32_t>(strlen(password)), salt.bytes(),
                                salt.length(), hash.bytes(), hash.length(), &matched);
  if (status != 0) {
    session.report("Error verifying password: %d\n", status);
    return status;
  }
  if (matched == 0) {
    session.reportAt(kMismatchLevel, "Password match failed\n");
    return QN_DB_PASSWORD_MISMATCH;
  }
  return 0;
}

} // extern "C"
