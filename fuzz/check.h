// What the fuzz targets share: how an oracle fails, how an input is split
// into parameters and a payload, and buffers of an exact size. Header-only,
// so that the test build's replay driver links a target's source alone.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

// A wrong answer ends the run like a sanitizer report would: libFuzzer keeps
// the input, and the replay test fails naming the broken expectation.
#define FUZZ_EXPECT(condition)                                                                     \
  do {                                                                                             \
    if (!(condition))                                                                              \
      fuzzcheck::fail(__FILE__, __LINE__, #condition);                                             \
  } while (0)

namespace fuzzcheck {

[[noreturn]] inline void fail(const char *file, int line, const char *what) {
  fprintf(stderr, "%s:%d: fuzz oracle failed: %s\n", file, line, what);
  abort();
}

// Takes fixed-size parameters from the front of an input; bytes missing at
// the end read as zeros, so that every input is usable.
class Input {
public:
  Input(const uint8_t *data, size_t size) : rest_(reinterpret_cast<const char *>(data), size) {}

  template <typename T> T take() {
    T value{};
    size_t n = std::min(sizeof(T), rest_.size());
    memcpy(&value, rest_.data(), n);
    rest_.remove_prefix(n);
    return value;
  }
  std::string_view rest() const { return rest_; }

private:
  std::string_view rest_;
};

// A heap block of exactly size bytes, so that the address sanitizer reports
// the first byte read or written past it. Filled with fill.
struct Exact {
  explicit Exact(size_t size, char fill = '\xA5') : size(size), bytes(new char[size]) {
    memset(bytes.get(), fill, size);
  }
  explicit Exact(std::string_view text) : Exact(text.size()) { memcpy(bytes.get(), text.data(), size); }
  char *data() const { return bytes.get(); }
  std::string_view view() const { return {bytes.get(), size}; }
  // True when every byte still holds fill.
  bool untouched(char fill = '\xA5') const {
    return std::all_of(bytes.get(), bytes.get() + size, [fill](char c) { return c == fill; });
  }

  size_t size;
  std::unique_ptr<char[]> bytes;
};

// A terminated copy of text in a block of exactly its length plus one.
inline Exact terminated(std::string_view text) {
  Exact copy(text.size() + 1, '\0');
  memcpy(copy.data(), text.data(), text.size());
  return copy;
}

// The standard base64 text of bytes with "=" padding, written the long way
// round: one 24-bit group at a time, missing bytes as zeros.
inline std::string referenceBase64(std::string_view bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (size_t at = 0; at < bytes.size(); at += 3) {
    size_t present = std::min<size_t>(3, bytes.size() - at);
    uint32_t group = 0;
    for (size_t i = 0; i < 3; i++)
      group = group << 8 | (i < present ? static_cast<unsigned char>(bytes[at + i]) : 0u);
    for (size_t i = 0; i < 4; i++)
      text += i <= present ? kAlphabet[group >> (18 - 6 * i) & 63] : '=';
  }
  return text;
}

} // namespace fuzzcheck
