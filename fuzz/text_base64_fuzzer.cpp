// The foundation's base64 and base64url. Encoding must give the reference
// text (in ASCII, and byte for byte in EBCDIC 1047 with an ASCII "="), which
// must decode back and survive the trip to base64url and back; any text must
// decode and convert as a model of the rules written here says. Every output
// goes to a buffer of exactly the documented size.
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "base/alloc.h"
#include "base/textutils.h"
#include "fuzz/check.h"

namespace {

using fuzzcheck::Exact;

// The alphabet in code page 1047, written out rather than translated.
char toEbcdic(char c) {
  if (c >= 'A' && c <= 'I')
    return static_cast<char>(0xC1 + (c - 'A'));
  if (c >= 'J' && c <= 'R')
    return static_cast<char>(0xD1 + (c - 'J'));
  if (c >= 'S' && c <= 'Z')
    return static_cast<char>(0xE2 + (c - 'S'));
  if (c >= 'a' && c <= 'i')
    return static_cast<char>(0x81 + (c - 'a'));
  if (c >= 'j' && c <= 'r')
    return static_cast<char>(0x91 + (c - 'j'));
  if (c >= 's' && c <= 'z')
    return static_cast<char>(0xA2 + (c - 's'));
  if (c >= '0' && c <= '9')
    return static_cast<char>(0xF0 + (c - '0'));
  return c == '+' ? '\x4E' : c == '/' ? '\x61' : c;
}

// A character's six bits, or all bits set outside the alphabet: the decoder
// does not validate, so such bits land in the output.
uint32_t bitsOf(char c) {
  const char *alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const char *at = c == '\0' ? nullptr : strchr(alphabet, c);
  return at != nullptr ? static_cast<uint32_t>(at - alphabet) : 0xFFFFFFFFu;
}

// decodeBase64Unterminated: -1 unless a multiple of 4; a final group ending
// in "=" gives one byte when its third character is "=" too, else two.
int modelDecode(std::string_view text, std::string &out) {
  if (text.size() % 4 != 0)
    return -1;
  for (size_t at = 0; at < text.size(); at += 4) {
    uint32_t a = bitsOf(text[at]), b = bitsOf(text[at + 1]);
    uint32_t c = bitsOf(text[at + 2]), d = bitsOf(text[at + 3]);
    bool padded = at + 4 == text.size() && text.back() == '=';
    out += static_cast<char>((a << 2 | b >> 4) & 0xFF);
    if (!padded || text[at + 2] != '=')
      out += static_cast<char>((b << 4 | c >> 2) & 0xFF);
    if (!padded)
      out += static_cast<char>((c << 6 | d) & 0xFF);
  }
  return static_cast<int>(out.size());
}

void checkDecode(std::string_view text) {
  std::string expected;
  const int expectedCount = modelDecode(text, expected);
  const size_t outSize = text.size() / 4 * 3;
  Exact in(text), out(outSize);
  FUZZ_EXPECT(decodeBase64Unterminated(in.data(), out.data(), static_cast<int>(text.size())) ==
              expectedCount);
  FUZZ_EXPECT(expectedCount < 0 ? out.untouched() : out.view().substr(0, expected.size()) == expected);

  // The terminated form reads up to the first NUL.
  const std::string_view upToNul = text.substr(0, text.find('\0'));
  std::string expectedUpToNul;
  const int count = modelDecode(upToNul, expectedUpToNul);
  Exact terminated = fuzzcheck::terminated(upToNul), outUpToNul(upToNul.size() / 4 * 3);
  FUZZ_EXPECT(decodeBase64(terminated.data(), outUpToNul.data()) == count);
  FUZZ_EXPECT(count < 0 || outUpToNul.view().substr(0, count) == expectedUpToNul);
}

// base64urlToBase64 over text placed in exactly capacity bytes (NUL-padded
// when the text is shorter).
void checkUrlToBase64(std::string_view text, size_t capacity) {
  Exact buffer(capacity, '\0');
  memcpy(buffer.data(), text.data(), std::min(text.size(), capacity));
  const size_t length = std::min(capacity, buffer.view().find('\0'));
  std::string expected(buffer.view().substr(0, length));
  for (char &c : expected)
    c = c == '-' ? '+' : c == '_' ? '/' : c;
  const size_t room = capacity - length; // bytes after the text, terminator included
  int status;
  switch (length % 4) {
  case 1:
    status = -3;
    break;
  case 2:
    status = room >= 3 ? 2 : room == 2 ? -1 : -2;
    break;
  case 3:
    status = room >= 2 ? 1 : -1;
    break;
  default:
    status = room >= 1 ? 0 : -1;
  }
  if (status >= 0)
    expected.append(static_cast<size_t>(status), '=').push_back('\0');
  FUZZ_EXPECT(base64urlToBase64(buffer.data(), static_cast<int>(capacity)) == status);
  FUZZ_EXPECT(buffer.view().substr(0, length) == std::string_view(expected).substr(0, length));
  FUZZ_EXPECT(status < 0 || buffer.view().substr(0, expected.size()) == expected);
}

void checkBase64ToUrl(std::string_view text) {
  Exact buffer = fuzzcheck::terminated(text);
  std::string expected(text.substr(0, text.find('\0')));
  while (!expected.empty() && expected.back() == '=')
    expected.pop_back();
  for (char &c : expected)
    c = c == '+' ? '-' : c == '/' ? '_' : c;
  FUZZ_EXPECT(base64ToBase64url(buffer.data()) == static_cast<int>(expected.size()));
  FUZZ_EXPECT(strcmp(buffer.data(), expected.c_str()) == 0);
}

void checkEncoding(std::string_view bytes, bool ebcdic, ShortLivedHeap *slh) {
  const int length = static_cast<int>(bytes.size());
  const std::string ascii = fuzzcheck::referenceBase64(bytes);
  std::string expected = ascii;
  if (ebcdic)
    for (char &c : expected)
      c = toEbcdic(c);

  Exact out((length + 2) / 3 * 4 + 1);
  int outLength = -1;
  encodeBase64NoAlloc(bytes.data(), length, out.data(), &outLength, ebcdic ? 1 : 0);
  FUZZ_EXPECT(outLength == static_cast<int>(expected.size()));
  FUZZ_EXPECT(out.view() == std::string_view(expected.c_str(), expected.size() + 1));

  char *text = encodeBase64(slh, bytes.data(), length, &outLength, ebcdic ? 1 : 0);
  FUZZ_EXPECT(text != nullptr && outLength == static_cast<int>(expected.size()));
  FUZZ_EXPECT(std::string_view(text, outLength + 1) == out.view());
  if (slh == nullptr)
    safeFree(text, outLength + 1);
  if (ebcdic)
    return;

  // Back to the bytes, in a buffer of exactly length / 4 * 3.
  Exact decoded(ascii.size() / 4 * 3);
  Exact textCopy(ascii);
  FUZZ_EXPECT(decodeBase64Unterminated(textCopy.data(), decoded.data(), outLength) == length);
  FUZZ_EXPECT(decoded.view().substr(0, bytes.size()) == bytes);

  // To base64url and back in the text's own buffer.
  const size_t padding = ascii.size() - (ascii.find_last_not_of('=') + 1);
  std::string url = ascii.substr(0, ascii.size() - padding);
  for (char &c : url)
    c = c == '+' ? '-' : c == '/' ? '_' : c;
  FUZZ_EXPECT(base64ToBase64url(out.data()) == static_cast<int>(url.size()));
  FUZZ_EXPECT(strcmp(out.data(), url.c_str()) == 0);
  FUZZ_EXPECT(base64urlToBase64(out.data(), static_cast<int>(out.size)) ==
              static_cast<int>(padding));
  FUZZ_EXPECT(out.view() == std::string_view(ascii.c_str(), ascii.size() + 1));
  // Without room for the terminator it is refused, and nothing past the
  // capacity is touched.
  checkUrlToBase64(url, ascii.size());
}

} // namespace

// The first byte shapes the calls: bit 0 encodes into a short-lived heap,
// bits 1-2 add spare bytes to the base64url buffer; the rest is the payload.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzzcheck::Input input(data, size);
  const auto shape = input.take<uint8_t>();
  const std::string_view payload = input.rest();
  if (payload.size() > (INT32_MAX - 4) / 4 * 3)
    return 0;

  ShortLivedHeap *slh = shape & 1 ? makeShortLivedHeap(65536, 100) : nullptr;
  FUZZ_EXPECT(slh != nullptr || !(shape & 1));
  checkEncoding(payload, false, slh);
  checkEncoding(payload, true, slh);
  SLHFree(slh);

  checkDecode(payload);
  checkBase64ToUrl(payload);
  checkUrlToBase64(payload, payload.size() + (shape >> 1 & 3));
  return 0;
}
