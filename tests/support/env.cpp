#include "support/env.h"

#include <cstdlib>

namespace mfatest {

std::string serviceVariable(const char *name) {
  const char *value = std::getenv(name);
  return value ? value : "";
}

bool servicesRequired() { return serviceVariable("MFA_REQUIRE_SERVICES") == "1"; }

} // namespace mfatest
