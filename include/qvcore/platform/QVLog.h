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

  // Debug lines, for a developer chasing a fault: off unless the
  // environment variable QVCORE_DEBUG is 1 (read at the first use) or
  // setDebugEnabled(true) was called. The framework writes one for every
  // exception it catches and does not let out.
  static bool isDebugEnabled();
  static void setDebugEnabled(bool enabled);
  // log("QVCore debug: " + line) when debug lines are on; nothing otherwise.
  static void debug(const std::string& line);
};

}  // namespace qv
