#include "mfadata/factorutils.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <sys/time.h>

#include "base/timeutils.h"

extern "C" void printStamp(void) {
  char stamp[64];
  snprintLocalTime(stamp, sizeof stamp, 0);
  printf("%s ", stamp);
}

extern "C" void qmxLoggingCallback(LoggingContext *, LoggingComponent *component, void *,
                                   const char *format, va_list args) {
  printStamp();
  printf("%s:", component != nullptr && component->name != nullptr ? component->name : "");
  vprintf(format, args);
}

extern "C" time_t VELDLIBC_currentSecondsSinceJan1970(void) {
  return time(nullptr);
}

extern "C" int VELDLIBC_currentSecondsAndMicrosSince1970(uint32_t *seconds,
                                                         uint32_t *microseconds) {
  struct timeval now {};
  gettimeofday(&now, nullptr);
  *seconds = static_cast<uint32_t>(now.tv_sec);
  *microseconds = static_cast<uint32_t>(now.tv_usec);
  return 0;
}

extern "C" int VELDLIBC_rand(void) {
  struct timeval now {};
  gettimeofday(&now, nullptr);
  return static_cast<int>(now.tv_usec % 256) + 1;
}

namespace {

bool isSpace(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// A terminated copy of text in size + 1 bytes from allocate, or null.
template <typename Allocate> char *copyOf(std::string_view text, Allocate allocate) {
  char *copy = allocate(static_cast<int>(text.size()) + 1);
  if (copy != nullptr) {
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
  }
  return copy;
}

template <typename Allocate> char *copyTrimmed(const char *text, Allocate allocate) {
  if (text == nullptr) {
    return nullptr;
  }
  std::string_view view(text);
  while (!view.empty() && isSpace(view.front())) {
    view.remove_prefix(1);
  }
  while (!view.empty() && isSpace(view.back())) {
    view.remove_suffix(1);
  }
  return view.empty() ? nullptr : copyOf(view, allocate);
}

} // namespace

extern "C" char *makeString(const char *field, int length) {
  if (length < 0 || (length > 0 && field == nullptr)) {
    return nullptr;
  }
  std::string_view view(field, static_cast<size_t>(length));
  while (!view.empty() && (view.back() == ' ' || view.back() == '\0')) {
    view.remove_suffix(1);
  }
  return copyOf(view, [](int size) { return safeMalloc(size, "makeString"); });
}

extern "C" char *VELDLIBC_copyTrimmingLeadingTrailingSpaces(const char *text) {
  return copyTrimmed(text, [](int size) { return safeMalloc(size, "trimmedOut"); });
}

extern "C" char *VELDLIBC_slhCopyTrimmingLeadingTrailingSpaces(ShortLivedHeap *slh,
                                                               const char *text) {
  if (slh == nullptr) {
    return nullptr;
  }
  return copyTrimmed(text, [slh](int size) { return SLHAlloc(slh, size); });
}

extern "C" int isStringHasPrintableCharsOnly(const char *text) {
  if (text == nullptr) {
    return 0;
  }
  for (const char *c = text; *c != '\0'; c++) {
    if (!std::isprint(static_cast<unsigned char>(*c)) || isSpace(*c)) {
      return 0;
    }
  }
  return 1;
}
