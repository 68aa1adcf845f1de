// Any bytes given to the reader yield a tree or a message that begins with
// the line and column of the failure.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/json.h"

namespace {

bool isPositioned(const char *message) {
  const char *p = message;
  auto digits = [&p] {
    const char *start = p;
    while (*p >= '0' && *p <= '9')
      p++;
    return p > start;
  };
  return digits() && *p++ == ':' && digits() && strncmp(p, ": ", 2) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ShortLivedHeap *slh = makeShortLivedHeap(65536, 100);
  char error[1024] = "";
  Json *value = jsonParseUnterminatedString(slh, reinterpret_cast<const char *>(data),
                                            static_cast<int>(size), error, sizeof(error));
  // Only a heap exhausted before the parser starts can fail without position.
  if (value == nullptr && !isPositioned(error) && strcmp(error, "not enough memory") != 0)
    abort();
  SLHFree(slh);
  return 0;
}
