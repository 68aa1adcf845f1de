// The cryptographic layer's base64. Encoding must give the reference text,
// and that text must decode back to the bytes; decoding any text, and the
// body of any PEM block, must give what a model of the decoding rules written
// here gives. Every output goes to a buffer of exactly the documented size,
// to one a byte short of it, and to one the coder allocates.
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "crypto/digest.h"
#include "fuzz/check.h"

namespace {

using fuzzcheck::Exact;

constexpr uint64_t kUnset = 0xDEADBEEF;

// What a decoding call must do to the caller's pointer and length.
enum class Outcome {
  kRefused, // status only: pointer and length untouched
  kEmpty,   // length 0, pointer and buffer untouched (no text at all)
  kCleared, // length 0, pointer set to null (text too short for one byte)
  kDecoded, // output of `needed` bytes: status and bytes as the model says
};

struct Expected {
  Outcome outcome;
  int status = 0;
  uint64_t needed = 0;
  std::string bytes;
};

int sextetOf(unsigned char c) {
  if (c >= 'A' && c <= 'Z')
    return c - 'A';
  if (c >= 'a' && c <= 'z')
    return c - 'a' + 26;
  if (c >= '0' && c <= '9')
    return c - '0' + 52;
  return c == '+' ? 62 : c == '/' ? 63 : -1;
}

// Decodes terminated text into at most limit bytes: characters outside the
// alphabet between quartets are skipped; in a quartet the second and third
// must be inside it, "=" third or fourth ends the text, and so does any other
// fourth character outside the alphabet.
Expected modelDecode(const char *t, uint64_t limit) {
  Expected result{Outcome::kDecoded, 0, limit, {}};
  if (t[0] == '\0') {
    result.status = QN_RC_BAD_BASE64;
    return result;
  }
  std::string &out = result.bytes;
  auto full = [&](int value) {
    out += static_cast<char>(value & 0xFF);
    return out.size() == limit;
  };
  for (size_t i = 0;; i += 4) {
    while (t[i] != '\0' && sextetOf(t[i]) < 0)
      i++;
    if (t[i] == '\0')
      break;
    int a = sextetOf(t[i]), b = sextetOf(t[i + 1]);
    if (b < 0) {
      result.status = QN_RC_BAD_BASE64;
      break;
    }
    if (full(a << 2 | b >> 4) || t[i + 2] == '=')
      break;
    int c = sextetOf(t[i + 2]);
    if (c < 0) {
      result.status = QN_RC_BAD_BASE64;
      break;
    }
    if (full(b << 4 | c >> 2) || t[i + 3] == '=')
      break;
    int d = sextetOf(t[i + 3]);
    if (d < 0 || full(c << 6 | d))
      break;
  }
  return result;
}

// qn_base64_decode(text, textLength): the length sizes the output, the text
// is read up to its terminator.
Expected expectDecode(const char *text, uint64_t textLength) {
  if (textLength == 0)
    return {Outcome::kEmpty, 0, 0, {}};
  if (qn_base64_declen(textLength) == 0)
    return {Outcome::kCleared, 0, 0, {}};
  return modelDecode(text, qn_base64_declen(textLength));
}

// qn_base64_pemdecode: the body between the dashes closing the BEGIN line and
// those opening the END line, without blanks, tabs and line breaks.
Expected expectPem(std::string_view pem) {
  constexpr std::string_view kDashes = "-----";
  size_t first = pem.find(kDashes);
  size_t second = first == pem.npos ? pem.npos : pem.find(kDashes, first + 5);
  size_t third = second == pem.npos ? pem.npos : pem.find(kDashes, second + 5);
  if (third == pem.npos)
    return {Outcome::kRefused, QN_RC_PEM_MARKERS, 0, {}};
  std::string body;
  for (char c : pem.substr(second + 5, third - second - 5))
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n')
      body += c;
  return expectDecode(body.c_str(), body.size());
}

// Runs decode(&output, &outputLength) into a caller's buffer of exactly the
// needed size, into one a byte short, and into one of its own.
template <typename Decode> void checkDecoding(Decode decode, const Expected &expected) {
  const bool decoded = expected.outcome == Outcome::kDecoded;
  Exact buffer(expected.needed);
  auto *output = reinterpret_cast<unsigned char *>(buffer.data());
  uint64_t length = kUnset;
  int status = decode(&output, &length);
  FUZZ_EXPECT(status == expected.status);
  if (expected.outcome == Outcome::kCleared) {
    FUZZ_EXPECT(output == nullptr && length == 0);
  } else if (decoded && status == 0) {
    FUZZ_EXPECT(output == reinterpret_cast<unsigned char *>(buffer.data()));
    FUZZ_EXPECT(length == expected.bytes.size());
    FUZZ_EXPECT(memcmp(output, expected.bytes.data(), length) == 0);
  } else {
    // A refusal, no text, or a failure in the loop leaves both as they were.
    FUZZ_EXPECT(output == reinterpret_cast<unsigned char *>(buffer.data()));
    FUZZ_EXPECT(length == (expected.outcome == Outcome::kEmpty ? 0 : kUnset));
    FUZZ_EXPECT(expected.outcome != Outcome::kEmpty || buffer.untouched());
  }

  if (decoded) {
    Exact small(expected.needed - 1);
    output = reinterpret_cast<unsigned char *>(small.data());
    length = expected.needed - 1;
    FUZZ_EXPECT(decode(&output, &length) == QN_RC_BUFFER_TOO_SMALL);
    FUZZ_EXPECT(length == expected.needed && small.untouched());
  }

  output = nullptr;
  length = kUnset;
  FUZZ_EXPECT(decode(&output, &length) == expected.status);
  if (decoded && expected.status == 0) {
    FUZZ_EXPECT(length == expected.bytes.size());
    FUZZ_EXPECT(memcmp(output, expected.bytes.data(), length) == 0);
    qncFree(output, static_cast<int>(expected.needed));
  } else {
    FUZZ_EXPECT(output == nullptr);
  }
}

void checkEncoding(std::string_view bytes) {
  const char *input = bytes.empty() ? "" : bytes.data();
  const std::string expected = fuzzcheck::referenceBase64(bytes);
  const uint64_t needed = qn_base64_enclen(bytes.size());
  FUZZ_EXPECT(needed == expected.size() + 1);
  uint64_t length = kUnset;
  if (bytes.empty()) {
    Exact buffer(1);
    char *output = buffer.data();
    FUZZ_EXPECT(qn_base64_encode(input, 0, &output, &length) == 0);
    FUZZ_EXPECT(length == 0 && output == buffer.data() && buffer.untouched());
    return;
  }

  Exact buffer(needed);
  char *output = buffer.data();
  FUZZ_EXPECT(qn_base64_encode(input, bytes.size(), &output, &length) == 0);
  FUZZ_EXPECT(output == buffer.data() && std::string_view(output, length) == expected);
  FUZZ_EXPECT(output[length] == '\0');

  Exact small(needed - 1);
  output = small.data();
  length = needed - 1;
  FUZZ_EXPECT(qn_base64_encode(input, bytes.size(), &output, &length) == QN_RC_BUFFER_TOO_SMALL);
  FUZZ_EXPECT(length == needed && small.untouched());

  output = nullptr;
  FUZZ_EXPECT(qn_base64_encode(input, bytes.size(), &output, &length) == 0);
  FUZZ_EXPECT(std::string_view(output, length + 1) == std::string_view(expected.c_str(), needed));
  qncFree(output, static_cast<int>(needed));

  // The text decodes back to the bytes.
  const char *text = buffer.data();
  checkDecoding(
      [&](unsigned char **out, uint64_t *outLength) {
        return qn_base64_decode(text, expected.size(), out, outLength);
      },
      {Outcome::kDecoded, 0, qn_base64_declen(expected.size()), std::string(bytes)});
}

} // namespace

// The first byte shapes the call: bit 0 sizes the output by the whole input
// rather than the text up to its first NUL, bits 1-3 shorten that length.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzzcheck::Input input(data, size);
  const auto shape = input.take<uint8_t>();
  const std::string_view payload = input.rest();
  checkEncoding(payload);

  Exact text = fuzzcheck::terminated(payload);
  uint64_t textLength = shape & 1 ? payload.size() : strlen(text.data());
  textLength -= std::min<uint64_t>(textLength, shape >> 1 & 7);
  checkDecoding(
      [&](unsigned char **out, uint64_t *outLength) {
        return qn_base64_decode(text.data(), textLength, out, outLength);
      },
      expectDecode(text.data(), textLength));

  checkDecoding(
      [&](unsigned char **out, uint64_t *outLength) {
        return qn_base64_pemdecode(text.data(), 1, out, outLength);
      },
      expectPem(text.data()));
  unsigned char *untouched = nullptr;
  uint64_t length = kUnset;
  FUZZ_EXPECT(qn_base64_pemdecode(text.data(), 0, &untouched, &length) == 0);
  FUZZ_EXPECT(untouched == nullptr && length == kUnset);
  return 0;
}
