#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstring>

namespace qv::test {

// CI=true: a green run must mean that every test ran.
inline bool inContinuousIntegration() {
  const char* ci = ::getenv("CI");
  return ci && std::strcmp(ci, "true") == 0;
}

}  // namespace qv::test

// Ends the test when the machine lacks what it needs (a tool, namespaces, a
// browser): skipped on a developer's machine, failed in CI. Use it in the
// test body or in a function returning void.
#define QV_REQUIRE_CAPABILITY(available, what)      \
  if (available) {                                  \
  } else if (::qv::test::inContinuousIntegration()) \
    GTEST_FAIL() << "CI lacks " << what;            \
  else                                              \
    GTEST_SKIP() << "needs " << what
