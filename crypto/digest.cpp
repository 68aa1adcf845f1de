// The older digest context is built on OpenSSL's low-level MD5 and SHA-1
// functions, which OpenSSL 3 marks deprecated.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "crypto/digest.h"

#include "base/alloc.h"

#include <openssl/evp.h>

#include <array>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <sys/time.h>
#include <utility>

namespace {

struct DigestInfo {
  const EVP_MD *(*md)();
  uint32_t length;
};

constexpr DigestInfo kDigests[] = {
    {EVP_md5, 16}, {EVP_sha1, 20}, {EVP_sha256, 32}, {EVP_sha384, 48}, {EVP_sha512, 64},
};

const DigestInfo *digestInfo(uint32_t algorithm) {
  if (algorithm < QN_HASH_MD5 || algorithm > QN_HASH_SHA512)
    return nullptr;
  return &kDigests[algorithm - QN_HASH_MD5];
}

qn_hash_context *newHashContext(const char *label) {
  auto *context = reinterpret_cast<qn_hash_context *>(qncAlloc(sizeof(qn_hash_context), label));
  if (context == nullptr)
    return nullptr;
  context->type = QN_HASH_CONTEXT_TYPE;
  context->evp = EVP_MD_CTX_new();
  if (context->evp == nullptr)
    free_hash_context(&context);
  return context;
}

// Releases a hash context when it goes out of scope unless released() took it.
class HashContextGuard {
public:
  explicit HashContextGuard(qn_hash_context *context) : context_(context) {}
  ~HashContextGuard() { free_hash_context(&context_); }
  HashContextGuard(const HashContextGuard &) = delete;
  HashContextGuard &operator=(const HashContextGuard &) = delete;
  qn_hash_context *get() const { return context_; }
  qn_hash_context *released() { return std::exchange(context_, nullptr); }

private:
  qn_hash_context *context_;
};

// Initialises a freshly allocated context (null when allocation failed) for
// algorithm and points *info at the digest's description.
int startDigest(const HashContextGuard &context, uint32_t algorithm, const DigestInfo **info) {
  if (context.get() == nullptr)
    return QN_RC_ALLOC_FAILED;
  *info = digestInfo(algorithm);
  if (*info == nullptr)
    return QN_RC_UNSUPPORTED_DIGEST;
  if (EVP_DigestInit_ex(context.get()->evp, (*info)->md(), nullptr) != 1)
    return QN_RC_DIGEST_INIT;
  context.get()->algorithm = algorithm;
  return 0;
}

int finishDigest(qn_hash_context *context, unsigned char *output, uint32_t *outputLength) {
  unsigned int produced = 0;
  if (EVP_DigestFinal_ex(context->evp, output, &produced) != 1)
    return QN_RC_DIGEST_FINAL;
  *outputLength = produced;
  return 0;
}

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint8_t kInvalid = 255;

constexpr std::array<uint8_t, 128> kDecodeTable = [] {
  std::array<uint8_t, 128> table{};
  table.fill(kInvalid);
  for (uint8_t i = 0; i < 64; ++i)
    table[static_cast<unsigned char>(kAlphabet[i])] = i;
  return table;
}();

uint8_t sextet(unsigned char c) {
  return c < kDecodeTable.size() ? kDecodeTable[c] : kInvalid;
}

// Where the output comes from: the caller's buffer of the given capacity, or a
// new block of `needed` bytes when the caller's pointer is null.
template <typename Byte>
int prepareOutput(Byte **output, uint64_t *outputLength, uint64_t needed, const char *label,
                  Byte **buffer) {
  if (*output != nullptr) {
    if (needed > *outputLength) {
      *outputLength = needed;
      return QN_RC_BUFFER_TOO_SMALL;
    }
    *buffer = *output;
    return 0;
  }
  if (needed > INT_MAX)
    return QN_RC_ALLOC_FAILED;
  *buffer = reinterpret_cast<Byte *>(qncAlloc(static_cast<int>(needed), label));
  return *buffer == nullptr ? QN_RC_ALLOC_FAILED : 0;
}

// Decodes quartets of text into out until the NUL, a padding stop or `limit`
// bytes. The text must not start with its NUL. Characters outside the
// alphabet are skipped between quartets; inside one, the second and third
// must belong to it, and a fourth that does not ends the text.
int decodeQuartets(const unsigned char *p, unsigned char *out, uint64_t limit, uint64_t *count) {
  uint64_t n = 0;
  bool done = false;
  while (!done && *p != '\0') {
    uint8_t previous = sextet(p[0]);
    if (previous == kInvalid) {
      ++p;
      continue;
    }
    // Character i completes output byte i - 1 with the bits of character i - 1.
    for (int i = 1; i < 4 && !done; i++) {
      int shift = 2 * i;
      // The partial bits of a padded quartet land one byte past the counted
      // output; n < limit here, so that byte is inside the buffer.
      if (i > 1 && p[i] == '=') {
        out[n] = static_cast<unsigned char>(previous << shift);
        done = true;
        break;
      }
      uint8_t next = sextet(p[i]);
      if (next == kInvalid) {
        if (i < 3)
          return QN_RC_BAD_BASE64;
        done = true;
        break;
      }
      out[n++] = static_cast<unsigned char>(previous << shift | next >> (6 - shift));
      previous = next;
      done = n == limit;
    }
    p += 4;
  }
  *count = n;
  return 0;
}

} // namespace

extern "C" {

int qn_hash_oneshot(uint32_t algorithm, const void *data, uint64_t dataLength,
                    unsigned char **output, uint32_t *outputLength) {
  if (algorithm == 0 || data == nullptr || dataLength == 0 || output == nullptr ||
      *output == nullptr || outputLength == nullptr)
    return QN_RC_MISSING_ARGUMENT;
  HashContextGuard context(newHashContext("ctx"));
  const DigestInfo *info = nullptr;
  if (int rc = startDigest(context, algorithm, &info); rc != 0)
    return rc;
  if (*outputLength < info->length) {
    *outputLength = info->length;
    return QN_RC_BUFFER_TOO_SMALL;
  }
  if (EVP_DigestUpdate(context.get()->evp, data, dataLength) != 1)
    return QN_RC_DIGEST_UPDATE;
  return finishDigest(context.get(), *output, outputLength);
}

int qn_hash_start(uint32_t algorithm, qn_hash_context **context) {
  if (context == nullptr)
    return QN_RC_MISSING_ARGUMENT;
  HashContextGuard created(newHashContext("hash ctx"));
  const DigestInfo *info = nullptr;
  if (int rc = startDigest(created, algorithm, &info); rc != 0)
    return rc;
  *context = created.released();
  return 0;
}

int qn_hash_more(qn_hash_context *context, const void *data, uint64_t dataLength) {
  if (context == nullptr || data == nullptr)
    return QN_RC_MISSING_ARGUMENT;
  return EVP_DigestUpdate(context->evp, data, dataLength) == 1 ? 0 : QN_RC_DIGEST_UPDATE;
}

int qn_hash_finish(qn_hash_context *context, unsigned char *output, uint32_t *outputLength) {
  if (context == nullptr || output == nullptr || outputLength == nullptr)
    return QN_RC_MISSING_ARGUMENT;
  const DigestInfo *info = digestInfo(context->algorithm);
  if (info == nullptr)
    return QN_RC_NO_DIGEST;
  if (*outputLength < info->length) {
    *outputLength = info->length;
    return QN_RC_BUFFER_TOO_SMALL;
  }
  return finishDigest(context, output, outputLength);
}

void free_hash_context(qn_hash_context **context) {
  if (context == nullptr || *context == nullptr)
    return;
  EVP_MD_CTX_free((*context)->evp);
  (*context)->type = 0;
  (*context)->algorithm = 0;
  (*context)->evp = nullptr;
  qncFree(*context, sizeof(qn_hash_context));
  *context = nullptr;
}

int digestContextInit(digestContext *context, int32_t type) {
  if (context == nullptr)
    return QN_DIGEST_CONTEXT_FAILED;
  explicit_bzero(context, sizeof(*context));
  int ok = 0;
  if (type == QN_DIGEST_MD5) {
    context->digestLength = MD5_DIGEST_LENGTH;
    ok = MD5_Init(&context->state.md5);
  } else if (type == QN_DIGEST_SHA1) {
    context->digestLength = SHA_DIGEST_LENGTH;
    ok = SHA1_Init(&context->state.sha1);
  }
  if (ok != 1)
    return QN_DIGEST_CONTEXT_FAILED;
  context->type = type;
  return 0;
}

int digestContextUpdate(digestContext *context, const void *data, uint64_t length) {
  if (context == nullptr || (data == nullptr && length != 0))
    return QN_DIGEST_CONTEXT_FAILED;
  int ok = 0;
  if (context->type == QN_DIGEST_MD5)
    ok = MD5_Update(&context->state.md5, data, length);
  else if (context->type == QN_DIGEST_SHA1)
    ok = SHA1_Update(&context->state.sha1, data, length);
  return ok == 1 ? 0 : QN_DIGEST_CONTEXT_FAILED;
}

int digestContextFinish(digestContext *context, unsigned char *digest) {
  if (context == nullptr || digest == nullptr)
    return QN_DIGEST_CONTEXT_FAILED;
  int ok = 0;
  if (context->type == QN_DIGEST_MD5)
    ok = MD5_Final(digest, &context->state.md5);
  else if (context->type == QN_DIGEST_SHA1)
    ok = SHA1_Final(digest, &context->state.sha1);
  return ok == 1 ? 0 : QN_DIGEST_CONTEXT_FAILED;
}

uint64_t qn_base64_enclen(uint64_t n) {
  return ((n + 2) / 3) * 4 + 1;
}

uint64_t qn_base64_declen(uint64_t n) {
  return (n / 4) * 3;
}

int qn_base64_encode(const void *input, uint64_t inputLength, char **output,
                     uint64_t *outputLength) {
  if (input == nullptr || output == nullptr || outputLength == nullptr)
    return QN_RC_MISSING_ARGUMENT;
  if (inputLength == 0) {
    *outputLength = 0;
    return 0;
  }
  char *text = nullptr;
  if (int rc = prepareOutput(output, outputLength, qn_base64_enclen(inputLength),
                             "base64 output space", &text);
      rc != 0)
    return rc;
  const auto *in = static_cast<const unsigned char *>(input);
  uint64_t n = 0;
  uint64_t i = 0;
  for (; i + 3 <= inputLength; i += 3) {
    uint32_t group = uint32_t{in[i]} << 16 | uint32_t{in[i + 1]} << 8 | in[i + 2];
    text[n++] = kAlphabet[group >> 18];
    text[n++] = kAlphabet[group >> 12 & 63];
    text[n++] = kAlphabet[group >> 6 & 63];
    text[n++] = kAlphabet[group & 63];
  }
  if (uint64_t rest = inputLength - i; rest != 0) {
    uint32_t group = uint32_t{in[i]} << 16 | (rest == 2 ? uint32_t{in[i + 1]} << 8 : 0);
    text[n++] = kAlphabet[group >> 18];
    text[n++] = kAlphabet[group >> 12 & 63];
    text[n++] = rest == 2 ? kAlphabet[group >> 6 & 63] : '=';
    text[n++] = '=';
  }
  text[n] = '\0';
  *output = text;
  *outputLength = n;
  return 0;
}

int qn_base64_decode(const char *text, uint64_t textLength, unsigned char **output,
                     uint64_t *outputLength) {
  if (text == nullptr || output == nullptr || outputLength == nullptr)
    return QN_RC_MISSING_ARGUMENT;
  if (textLength == 0) {
    *outputLength = 0;
    return 0;
  }
  uint64_t needed = qn_base64_declen(textLength);
  if (needed == 0) {
    // Kept on purpose: a text too short for one byte clears the caller's
    // pointer even when the caller supplied a buffer.
    *output = nullptr;
    *outputLength = 0;
    return 0;
  }
  bool allocating = *output == nullptr;
  unsigned char *buffer = nullptr;
  if (int rc = prepareOutput(output, outputLength, needed, "base64 decode output space", &buffer);
      rc != 0)
    return rc;
  uint64_t count = 0;
  int rc = QN_RC_BAD_BASE64;
  if (text[0] != '\0')
    rc = decodeQuartets(reinterpret_cast<const unsigned char *>(text), buffer, needed, &count);
  if (rc != 0) {
    if (allocating)
      qncFree(buffer, static_cast<int>(needed));
    return rc;
  }
  *output = buffer;
  *outputLength = count;
  return 0;
}

int qn_base64_pemdecode(const char *pemText, int flag, unsigned char **output,
                        uint64_t *outputLength) {
  if (pemText == nullptr || output == nullptr || outputLength == nullptr)
    return QN_RC_MISSING_ARGUMENT;
  if (flag == 0)
    return 0;
  constexpr std::string_view kDashes = "-----";
  std::string_view pem(pemText);
  size_t first = pem.find(kDashes);
  if (first == std::string_view::npos)
    return QN_RC_PEM_MARKERS;
  size_t second = pem.find(kDashes, first + kDashes.size());
  if (second == std::string_view::npos)
    return QN_RC_PEM_MARKERS;
  size_t bodyStart = second + kDashes.size();
  size_t third = pem.find(kDashes, bodyStart);
  if (third == std::string_view::npos)
    return QN_RC_PEM_MARKERS;
  std::string_view body = pem.substr(bodyStart, third - bodyStart);
  if (body.size() >= INT_MAX)
    return QN_RC_ALLOC_FAILED;
  int scratchSize = static_cast<int>(body.size()) + 1;
  char *scratch = qncAlloc(scratchSize, "pemDecode intermediate space");
  if (scratch == nullptr)
    return QN_RC_ALLOC_FAILED;
  uint64_t length = 0;
  for (char c : body)
    if (c != '\r' && c != '\t' && c != '\n' && c != ' ')
      scratch[length++] = c;
  int rc = qn_base64_decode(scratch, length, output, outputLength);
  qncFree(scratch, scratchSize);
  return rc;
}

char *qncAlloc(int size, const char *label) {
  char *memory = safeMalloc(size, label);
  if (memory == nullptr)
    printf("*** WARNING *** failed alloc for label %s\n", label);
  return memory;
}

void qncFree(void *pointer, int size) {
  safeFree(static_cast<char *>(pointer), size); // wipes before release; null is ignored
}

char *qncDuplicateString(const char *text) {
  if (text == nullptr)
    return nullptr;
  size_t length = strlen(text);
  if (length >= INT_MAX)
    return nullptr;
  char *copy = qncAlloc(static_cast<int>(length) + 1, "qncDuplicateString");
  if (copy != nullptr)
    memcpy(copy, text, length + 1);
  return copy;
}

uint64_t qnclibc_currentSecondsSinceJan1970(void) {
  struct timeval now {};
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec);
}

int qnclibc_currentSecondsAndMicrosSince1970(uint32_t *seconds, uint32_t *microseconds) {
  struct timeval now {};
  gettimeofday(&now, nullptr);
  if (seconds != nullptr)
    *seconds = static_cast<uint32_t>(now.tv_sec);
  if (microseconds != nullptr)
    *microseconds = static_cast<uint32_t>(now.tv_usec);
  return 0;
}

} // extern "C"
