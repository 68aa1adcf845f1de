// Test helpers shared by every suite.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace mfatest {

// Value of an environment variable that a service started by scripts/test
// exports, or an empty string.
std::string serviceVariable(const char *name);

// True when scripts/test asked that missing services fail the run instead of
// skipping the tests that need them.
bool servicesRequired();

// Runs fn with standard output redirected and returns what it printed.
template <typename Fn> std::string captureStdout(Fn &&fn) {
  testing::internal::CaptureStdout();
  fn();
  return testing::internal::GetCapturedStdout();
}

template <typename Fn> std::string captureStderr(Fn &&fn) {
  testing::internal::CaptureStderr();
  fn();
  return testing::internal::GetCapturedStderr();
}

} // namespace mfatest

// Skips the current test when the named service variable is unset, or fails
// it when scripts/test promised the service.
#define MFA_REQUIRE_SERVICE(var)                                                                   \
  do {                                                                                             \
    if (mfatest::serviceVariable(var).empty()) {                                                   \
      if (mfatest::servicesRequired())                                                             \
        FAIL() << var " is not set although the services were started";                            \
      GTEST_SKIP() << var " is not set; run the suite through scripts/test";                       \
    }                                                                                              \
  } while (0)
