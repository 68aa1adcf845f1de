// Code-page conversion over iconv and fixed single-byte translation tables.
#include "base/charsets.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iconv.h>
#include <string_view>
#include <utility>

namespace {

using Table = std::array<unsigned char, 256>;

// Byte-for-byte images of the two EBCDIC code pages in ISO-8859-1, as the
// system's converter maps them: EBCDIC 0x15 (NL) is U+0085 and 0x25 is the
// line feed.
constexpr Table kCp1047ToLatin1 = {
    0x00, 0x01, 0x02, 0x03, 0x9C, 0x09, 0x86, 0x7F, 0x97, 0x8D, 0x8E, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F,
    0x10, 0x11, 0x12, 0x13, 0x9D, 0x85, 0x08, 0x87, 0x18, 0x19, 0x92, 0x8F, 0x1C, 0x1D, 0x1E, 0x1F,
    0x80, 0x81, 0x82, 0x83, 0x84, 0x0A, 0x17, 0x1B, 0x88, 0x89, 0x8A, 0x8B, 0x8C, 0x05, 0x06, 0x07,
    0x90, 0x91, 0x16, 0x93, 0x94, 0x95, 0x96, 0x04, 0x98, 0x99, 0x9A, 0x9B, 0x14, 0x15, 0x9E, 0x1A,
    0x20, 0xA0, 0xE2, 0xE4, 0xE0, 0xE1, 0xE3, 0xE5, 0xE7, 0xF1, 0xA2, 0x2E, 0x3C, 0x28, 0x2B, 0x7C,
    0x26, 0xE9, 0xEA, 0xEB, 0xE8, 0xED, 0xEE, 0xEF, 0xEC, 0xDF, 0x21, 0x24, 0x2A, 0x29, 0x3B, 0x5E,
    0x2D, 0x2F, 0xC2, 0xC4, 0xC0, 0xC1, 0xC3, 0xC5, 0xC7, 0xD1, 0xA6, 0x2C, 0x25, 0x5F, 0x3E, 0x3F,
    0xF8, 0xC9, 0xCA, 0xCB, 0xC8, 0xCD, 0xCE, 0xCF, 0xCC, 0x60, 0x3A, 0x23, 0x40, 0x27, 0x3D, 0x22,
    0xD8, 0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0xAB, 0xBB, 0xF0, 0xFD, 0xFE, 0xB1,
    0xB0, 0x6A, 0x6B, 0x6C, 0x6D, 0x6E, 0x6F, 0x70, 0x71, 0x72, 0xAA, 0xBA, 0xE6, 0xB8, 0xC6, 0xA4,
    0xB5, 0x7E, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7A, 0xA1, 0xBF, 0xD0, 0x5B, 0xDE, 0xAE,
    0xAC, 0xA3, 0xA5, 0xB7, 0xA9, 0xA7, 0xB6, 0xBC, 0xBD, 0xBE, 0xDD, 0xA8, 0xAF, 0x5D, 0xB4, 0xD7,
    0x7B, 0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0xAD, 0xF4, 0xF6, 0xF2, 0xF3, 0xF5,
    0x7D, 0x4A, 0x4B, 0x4C, 0x4D, 0x4E, 0x4F, 0x50, 0x51, 0x52, 0xB9, 0xFB, 0xFC, 0xF9, 0xFA, 0xFF,
    0x5C, 0xF7, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5A, 0xB2, 0xD4, 0xD6, 0xD2, 0xD3, 0xD5,
    0x30, 0x31, 0x32, 0x33, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39, 0xB3, 0xDB, 0xDC, 0xD9, 0xDA, 0x9F,
};

// Code page 037 is 1047 with six characters at other places, among them the
// brackets, the caret and the not sign.
constexpr Table kCp037ToLatin1 = [] {
  Table table = kCp1047ToLatin1;
  constexpr std::pair<int, unsigned char> kMoved[] = {{0x5F, 0xAC}, {0xAD, 0xDD}, {0xB0, 0x5E},
                                                      {0xBA, 0x5B}, {0xBB, 0x5D}, {0xBD, 0xA8}};
  for (auto [ebcdic, latin1] : kMoved)
    table[ebcdic] = latin1;
  return table;
}();

// On the host, EBCDIC 0x15 ends a line, so text exchanged with it needs 0x15
// and the line feed paired instead of the converter's NL.
constexpr Table withHostLineEnds(Table table) {
  table[0x15] = 0x0A;
  table[0x25] = 0x85;
  return table;
}

constexpr Table inverse(const Table &table) {
  Table result{};
  for (int i = 0; i < 256; ++i)
    result[table[i]] = static_cast<unsigned char>(i);
  return result;
}

constexpr bool isPermutation(const Table &table) {
  std::array<bool, 256> seen{};
  for (unsigned char b : table) {
    if (seen[b])
      return false;
    seen[b] = true;
  }
  return true;
}

static_assert(isPermutation(kCp1047ToLatin1) && isPermutation(kCp037ToLatin1),
              "the code-page images must be one-to-one to be inverted");

constexpr Table k1047ToLatin1 = withHostLineEnds(kCp1047ToLatin1);
constexpr Table kLatin1To1047 = inverse(k1047ToLatin1);
constexpr Table k037ToLatin1 = withHostLineEnds(kCp037ToLatin1);
constexpr Table kLatin1To037 = inverse(k037ToLatin1);

// Deliberately not one-to-one: the plain EBCDIC-to-ASCII table reads 0xFA as
// the acute accent, like 0xBE, so ASCII 0xB3 does not survive a round trip
// through the pair.
constexpr Table kE2a = [] {
  Table table = kCp1047ToLatin1;
  table[0xFA] = 0xB4;
  return table;
}();
constexpr Table kA2e = inverse(kCp1047ToLatin1);

static_assert(k1047ToLatin1[0x15] == 0x0A && kLatin1To1047[0x85] == 0x25);
static_assert(kE2a[0xFA] == kE2a[0xBE] && kA2e[0xB4] == 0xBE && kA2e[0xB3] == 0xFA);

struct NamedTable {
  std::string_view name;
  const Table *table;
};

constexpr NamedTable kTables[] = {
    {"velmora1047_to_iso88591", &k1047ToLatin1},
    {"iso88591_to_velmora1047", &kLatin1To1047},
    {"velmora037_to_iso88591", &k037ToLatin1},
    {"iso88591_to_velmora037", &kLatin1To037},
    {"e2atable", &kE2a},
    {"a2etable", &kA2e},
};

constexpr size_t kMaxTableNameLength = 31;

// Closes the converter on every path out of convertCharset.
class Converter {
public:
  Converter(const char *from, const char *to) : cd_(iconv_open(to, from)) {}
  ~Converter() {
    if (valid())
      iconv_close(cd_);
  }
  Converter(const Converter &) = delete;
  Converter &operator=(const Converter &) = delete;

  bool valid() const { return cd_ != reinterpret_cast<iconv_t>(-1); }

  // Converts all of input into output; returns a convertCharset code and the
  // number of bytes written.
  int run(const char *input, size_t inputLength, char *output, size_t capacity, size_t &written) {
    char *in = const_cast<char *>(input); // iconv's signature is not const-correct
    char *out = output;
    size_t inLeft = inputLength, outLeft = capacity;
    if (iconv(cd_, &in, &inLeft, &out, &outLeft) == static_cast<size_t>(-1)) {
      switch (errno) {
      case EILSEQ:
      case EINVAL:
        return CHARSET_INVALID_INPUT;
      case E2BIG:
        return CHARSET_OUTPUT_TOO_SMALL;
      default:
        return CHARSET_CONVERSION_FAILED;
      }
    }
    written = capacity - outLeft;
    return CHARSET_OK;
  }

private:
  iconv_t cd_;
};

} // namespace

extern "C" {

const char *getCharsetName(int ccsid) {
  switch (ccsid) {
  case 819:
    return "ISO-8859-1";
  case 1047:
    return "CP1047";
  case 1200:
    return "UTF-16";
  case 1201:
    return "UTF-16BE";
  case 1202:
    return "UTF-16LE";
  case 1208:
    return "UTF-8";
  default:
    return nullptr;
  }
}

int convertCharset(const char *input, int inputLength, int fromCcsid, int mode, char **output,
                   int outputCapacity, int toCcsid, ShortLivedHeap *slh, int *outputLength,
                   int *reason) {
  if (reason)
    *reason = 0;
  const char *fromName = getCharsetName(fromCcsid);
  const char *toName = getCharsetName(toCcsid);
  if (!fromName || !toName)
    return CHARSET_UNKNOWN_CCSID;
  Converter converter(fromName, toName);
  if (!converter.valid()) {
    if (reason)
      *reason = errno;
    return CHARSET_NO_CONVERTER;
  }
  if (inputLength < 0 || (inputLength > 0 && !input) || !output || !outputLength ||
      inputLength > INT_MAX / 3)
    return CHARSET_CONVERSION_FAILED;

  // Every code page here takes at most three bytes per input byte.
  const int workSize = 3 * inputLength;
  char *work = nullptr;
  int capacity = 0;
  switch (mode) {
  case CHARSET_MODE_CALLER_BUFFER:
    if (outputCapacity < 0 || (outputCapacity > 0 && !*output))
      return CHARSET_CONVERSION_FAILED;
    work = *output;
    capacity = outputCapacity;
    break;
  case CHARSET_MODE_NEW_BUFFER:
    work = safeMalloc(workSize, "Conversion Buffer");
    capacity = workSize;
    break;
  case CHARSET_MODE_SLH_BUFFER:
    if (!slh)
      return CHARSET_CONVERSION_FAILED;
    work = SLHAlloc(slh, workSize);
    capacity = workSize;
    break;
  default:
    return CHARSET_CONVERSION_FAILED;
  }
  if (!work && capacity > 0)
    return CHARSET_CONVERSION_FAILED;

  size_t written = 0;
  int rc = converter.run(input, static_cast<size_t>(inputLength), work,
                         static_cast<size_t>(capacity), written);
  char *result = work;
  if (mode == CHARSET_MODE_NEW_BUFFER) {
    if (rc == CHARSET_OK) {
      result = safeMalloc(static_cast<int>(written), "Converted Buffer");
      if (result)
        memcpy(result, work, written);
      else
        rc = CHARSET_CONVERSION_FAILED;
    }
    safeFree(work, workSize);
  }
  if (rc != CHARSET_OK)
    return rc;
  *output = result;
  *outputLength = static_cast<int>(written);
  return CHARSET_OK;
}

const unsigned char *getTranslationTable(const char *name) {
  if (!name)
    return nullptr;
  const size_t length = strnlen(name, kMaxTableNameLength + 1);
  if (length > kMaxTableNameLength)
    return nullptr;
  char folded[kMaxTableNameLength + 1];
  for (size_t i = 0; i < length; ++i)
    folded[i] = static_cast<char>(tolower(static_cast<unsigned char>(name[i])));
  const std::string_view key(folded, length);
  for (const NamedTable &entry : kTables)
    if (entry.name == key)
      return entry.table->data();
  return nullptr;
}

void translate(char *buffer, const unsigned char *table, int length) {
  if (!buffer || !table)
    return;
  for (int i = 0; i < length; ++i)
    buffer[i] = static_cast<char>(table[static_cast<unsigned char>(buffer[i])]);
}

char *e2a(char *buffer, int length) {
  translate(buffer, k1047ToLatin1.data(), length);
  return buffer;
}

char *a2e(char *buffer, int length) {
  translate(buffer, kLatin1To1047.data(), length);
  return buffer;
}

char *convert1047to8859InPlace(char *buffer, int length) {
  return e2a(buffer, length);
}

char *convert8859to1047InPlace(char *buffer, int length) {
  return a2e(buffer, length);
}

} // extern "C"
