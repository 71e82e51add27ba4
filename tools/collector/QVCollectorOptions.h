#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QVCollectorLimits.h"

namespace qv::collector {

// The command line of qvcore-collector.
struct QVCollectorOptions {
  enum class Command { kServe, kDump };

  Command command = Command::kServe;
  uint16_t port = 0;     // 0: one the system picks
  std::string database;  // empty: defaultDatabase()
  int status = 200;
  int64_t failFirst = 0;
  int64_t delayMs = 0;
  QVCollectorLimits limits;
  bool json = false;     // dump: JSON instead of text
  bool summary = false;  // dump: the totals only
  bool help = false;

  // The options, or nullopt with error set to what is wrong.
  static std::optional<QVCollectorOptions> parse(int argc, char** argv, std::string& error);
  // collector.sqlite in the application data folder: $QVCORE_HOME, else
  // $XDG_DATA_HOME/qvcore-collector, else ~/.local/share/qvcore-collector.
  static std::string defaultDatabase();
  static std::string usage(const std::string& program);

 private:
  bool parseOption(const std::string& option, const char* value, bool& usedValue,
                   std::string& error);
};

}  // namespace qv::collector
