#include "base/textutils.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/charsets.h"

extern "C" int stringsNotEqual(const char *lhs, const char *rhs) {
  if (lhs == nullptr || rhs == nullptr) {
    return 1;
  }
  return std::strcmp(lhs, rhs);
}

extern "C" int stringsNotEqualWithSize(const char *lhs, const char *rhs, size_t n) {
  if (lhs == nullptr || rhs == nullptr || n == 0) {
    return 1;
  }
  return std::strncmp(lhs, rhs, n);
}

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// Padding stays ASCII in both alphabets; readers of the EBCDIC form expect it.
constexpr char kPad = '=';

constexpr std::array<int8_t, 256> makeDecodeTable() {
  std::array<int8_t, 256> table{};
  table.fill(-1);
  for (int i = 0; i < 64; i++) {
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int8_t>(i);
  }
  return table;
}
constexpr std::array<int8_t, 256> kDecode = makeDecodeTable();

const char *ebcdicAlphabet() {
  static const std::array<char, 64> alphabet = [] {
    std::array<char, 64> result{};
    std::memcpy(result.data(), kAlphabet, result.size());
    translate(result.data(), getTranslationTable("a2etable"), static_cast<int>(result.size()));
    return result;
  }();
  return alphabet.data();
}

int encodedLength(int length) {
  return (length + 2) / 3 * 4;
}

// Out-of-alphabet characters decode to -1, whose bits spill into the output
// unreported; unsigned arithmetic keeps that well defined.
uint32_t sextet(char c) {
  return static_cast<uint32_t>(static_cast<int32_t>(kDecode[static_cast<unsigned char>(c)]));
}

} // namespace

extern "C" void encodeBase64NoAlloc(const char *bytes, int length, char *out, int *outLength,
                                    int ebcdic) {
  const char *alphabet = ebcdic != 0 ? ebcdicAlphabet() : kAlphabet;
  const auto *in = reinterpret_cast<const unsigned char *>(bytes);
  int written = 0;
  for (int i = 0; i < length; i += 3) {
    int available = length - i < 3 ? length - i : 3;
    uint32_t group = static_cast<uint32_t>(in[i]) << 16;
    if (available > 1) {
      group |= static_cast<uint32_t>(in[i + 1]) << 8;
    }
    if (available > 2) {
      group |= in[i + 2];
    }
    out[written++] = alphabet[group >> 18 & 0x3F];
    out[written++] = alphabet[group >> 12 & 0x3F];
    out[written++] = available > 1 ? alphabet[group >> 6 & 0x3F] : kPad;
    out[written++] = available > 2 ? alphabet[group & 0x3F] : kPad;
  }
  out[written] = '\0';
  *outLength = written;
}

extern "C" char *encodeBase64(ShortLivedHeap *slh, const char *bytes, int length, int *outLength,
                              int ebcdic) {
  *outLength = 0;
  if (length < 0 || (length > 0 && bytes == nullptr) || length > (INT32_MAX - 4) / 4 * 3) {
    return nullptr;
  }
  int size = encodedLength(length) + 1;
  char *text = slh != nullptr ? SLHAlloc(slh, size) : safeMalloc(size, "BASE64");
  if (text == nullptr) {
    return nullptr;
  }
  encodeBase64NoAlloc(bytes, length, text, outLength, ebcdic);
  return text;
}

extern "C" int decodeBase64Unterminated(const char *text, char *out, int length) {
  if (text == nullptr || length < 0) {
    return -1;
  }
  if (length % 4 != 0) {
    fputs("non 4-mult", stdout);
    return -1;
  }
  if (length == 0) {
    return 0;
  }
  bool partial = text[length - 1] == kPad;
  int fullGroups = length / 4 - (partial ? 1 : 0);
  int written = 0;
  for (int g = 0; g < fullGroups; g++) {
    const char *in = text + 4 * g;
    uint32_t a = sextet(in[0]), b = sextet(in[1]), c = sextet(in[2]), d = sextet(in[3]);
    out[written++] = static_cast<char>(a << 2 | b >> 4);
    out[written++] = static_cast<char>(b << 4 | c >> 2);
    out[written++] = static_cast<char>(c << 6 | d);
  }
  if (partial) {
    const char *in = text + 4 * fullGroups;
    uint32_t a = sextet(in[0]), b = sextet(in[1]);
    out[written++] = static_cast<char>(a << 2 | b >> 4);
    if (in[2] != kPad) {
      out[written++] = static_cast<char>(b << 4 | sextet(in[2]) >> 2);
    }
  }
  return written;
}

extern "C" int decodeBase64(const char *text, char *out) {
  if (text == nullptr) {
    return -1;
  }
  return decodeBase64Unterminated(text, out, static_cast<int>(std::strlen(text)));
}

extern "C" int base64ToBase64url(char *text) {
  int length = 0;
  for (; text[length] != '\0'; length++) {
    if (text[length] == '+') {
      text[length] = '-';
    } else if (text[length] == '/') {
      text[length] = '_';
    }
  }
  while (length > 0 && text[length - 1] == kPad) {
    text[--length] = '\0';
  }
  return length;
}

extern "C" int base64urlToBase64(char *text, int capacity) {
  int length = 0;
  for (; length < capacity && text[length] != '\0'; length++) {
    if (text[length] == '-') {
      text[length] = '+';
    } else if (text[length] == '_') {
      text[length] = '/';
    }
  }
  int room = capacity - length - 1; // characters that fit before the terminator
  switch (length % 4) {
  case 0:
    if (room < 0) {
      return -1;
    }
    text[length] = '\0';
    return 0;
  case 2:
    if (room < 1) {
      return -2;
    }
    if (room < 2) {
      return -1;
    }
    std::memcpy(text + length, "==", 3);
    return 2;
  case 3:
    if (room < 1) {
      return -1;
    }
    std::memcpy(text + length, "=", 2);
    return 1;
  default:
    return -3;
  }
}
