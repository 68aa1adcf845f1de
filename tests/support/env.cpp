#include "support/env.h"

#include <cstdlib>

namespace mfatest {

std::string serviceVariable(const char *name) {
  const char *value = std::getenv(name);
  return value ? value : "";
}

bool servicesRequired() {
  return serviceVariable("MFA_REQUIRE_SERVICES") == "1";
}

} // namespace mfatest

// Checked allocation passes impossible sizes to the system heap and expects a
// null answer, which AddressSanitizer gives only when asked to.
extern "C" const char *__asan_default_options() {
  return "allocator_may_return_null=1";
}
