// A tree the reader accepts, printed and read again, gives the same tree.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "base/json.h"
#include "tests/support/jsontree.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ShortLivedHeap *slh = makeShortLivedHeap(65536, 100);
  Json *tree = jsonParseUnterminatedString(slh, reinterpret_cast<const char *>(data),
                                           static_cast<int>(size), nullptr, 0);
  if (tree != nullptr) {
    std::string printed = mfatest::printJsonTree(tree);
    Json *again = jsonParseUnterminatedString(slh, printed.data(), static_cast<int>(printed.size()),
                                              nullptr, 0);
    if (!mfatest::sameJsonTree(tree, again))
      abort();
  }
  SLHFree(slh);
  return 0;
}
