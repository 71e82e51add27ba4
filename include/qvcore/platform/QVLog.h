#pragma once

#include <functional>
#include <string>

#include "qvcore/QVExport.h"

namespace qv {

// The platform log: where the few lines the framework writes for a developer
// go. By default each line goes to standard error; a host (or a test) may
// send them elsewhere with a sink. Every operation is safe from any thread.
class QV_EXPORT QVLog {
 public:
  using Sink = std::function<void(const std::string&)>;

  // Hands one line to the sink as it is, or writes it to standard error with
  // a line break added when it has none.
  static void log(const std::string& line);
  // printf-style formatting, then log().
  static void logFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));

  // A null sink goes back to standard error. A line being written on another
  // thread when the sink is replaced may still reach the old sink; the sink
  // object itself stays alive until that call returns. Sinks are called
  // without any lock held, so a sink may log or replace itself.
  static void setSink(Sink sink);
};

}  // namespace qv
