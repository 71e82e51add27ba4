#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>

#include "QVShellError.h"
#include "QVShellLine.h"

namespace qv {
class QVHostReachabilitySource;
}

namespace qv::shell {

class QVShellAddressSource;

// Runs scripts of commands against the library, one command a line. Every
// command prints exactly one line on the output: true or false, a value
// (JSON when structured, none when absent), or ok.
//
// A shell installs a QVHostReachabilitySource as the library's reachability
// source and its own interface addresses, so that the network is what the
// script says ("network"), starting on Wi-Fi with no address, and the
// machine's own network is not consulted until "network system" asks for
// it. Commands that
// report a platform event pump the main run loop until it is idle, so the
// library has heard the event when the command answers.
class QVShell {
 public:
  QVShell();
  ~QVShell();

  // Runs one line; returns false when the command failed.
  bool runLine(const std::string& line, std::ostream& out, std::ostream& err);
  // Runs every line; returns the exit status: 1 when any command failed.
  int runScript(std::istream& in, std::ostream& out, std::ostream& err);

  static std::string usage();

 private:
  using Handler = std::function<std::string(const QVShellLine&)>;
  void addCommand(const std::string& name, Handler handler);
  void addCoreCommands();
  void addMessageCommands();
  void addFlushCommands();
  void addConfigCommands();
  void addPlatformCommands();
  void addMiscCommands();

  std::string waitForFlush(double seconds);
  void useSystemNetwork(bool system);

  std::map<std::string, Handler> commands_;
  std::shared_ptr<QVHostReachabilitySource> network_;
  std::shared_ptr<QVShellAddressSource> addresses_;
  // Whether the machine's own reachability and addresses are in use.
  bool systemNetwork_ = false;
  // The queue service's count of finished flush cycles at the last wait.
  uint64_t flushCyclesSeen_ = 0;
  // The error stream of the line being run; progress bars go there.
  std::ostream* err_ = nullptr;
};

}  // namespace qv::shell
