#include "platform/host/QVSwallowed.h"

#include <string>

#include "qvcore/platform/QVLog.h"

namespace qv {

namespace {

void write(const char* function, const char* what) noexcept {
  if (!QVLog::isDebugEnabled()) return;
  try {
    QVLog::debug(std::string(function) + ": " + what);
  } catch (...) {
    // Out of memory while telling of an exception: nothing more can be done.
  }
}

}  // namespace

void noteSwallowed(const char* function, const std::exception& exception) noexcept {
  write(function, exception.what());
}

void noteSwallowed(const char* function) noexcept {
  write(function, "an exception of no known type");
}

}  // namespace qv
