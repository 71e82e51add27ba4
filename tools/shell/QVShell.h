#pragma once

#include <functional>
#include <iosfwd>
#include <map>
#include <stdexcept>
#include <string>

#include "QVShellLine.h"

namespace qv::shell {

// A command that cannot be carried out; its text is printed as "error: ...".
class QVShellError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Runs scripts of commands against the library, one command a line. Every
// command prints exactly one line on the output: true or false, a value
// (JSON when structured, none when absent), or ok.
class QVShell {
 public:
  QVShell();

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
  void addConfigCommands();
  void addMiscCommands();

  std::map<std::string, Handler> commands_;
};

}  // namespace qv::shell
