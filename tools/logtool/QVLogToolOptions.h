#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qv {

// The command line of qvcore-logtool.
struct QVLogToolOptions {
  uint16_t port = 0;                  // 0: one the system picks
  std::string name;                   // empty: "qvcore-logtool on <host name>"
  int64_t idleTimeoutSeconds = 1800;  // a connection silent this long is closed
  bool help = false;

  // The options, or nullopt with error set to what is wrong.
  static std::optional<QVLogToolOptions> parse(int argc, char** argv, std::string& error);
  static std::string usage(const std::string& program);
};

}  // namespace qv
