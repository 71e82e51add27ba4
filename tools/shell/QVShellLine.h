#pragma once

#include <optional>
#include <string>
#include <vector>

namespace qv::shell {

// One argument of a command line: a positional text, or a key=value option.
struct QVShellArgument {
  std::string key;    // empty for a positional argument
  std::string value;  // unquoted text; a JSON value as written
  size_t offset = 0;  // where the argument starts in the line
};

// A command line split into its command and arguments. Arguments are
// separated by blanks; double quotes keep blanks in a text (\" and \\ escape);
// an argument or option value that starts with { or [ is JSON and runs to the
// end of the line.
class QVShellLine {
 public:
  // Parses one line; blank lines and comments give an empty command. A
  // malformed line gives none and sets error.
  static std::optional<QVShellLine> parse(const std::string& line, std::string* error);

  const std::string& command() const { return command_; }
  bool empty() const { return command_.empty(); }
  const std::vector<QVShellArgument>& positional() const { return positional_; }
  const std::vector<QVShellArgument>& options() const { return options_; }
  const std::string& text() const { return text_; }

  // The text of the line from positional argument index to its end.
  std::string restOfLine(size_t index) const;
  std::optional<std::string> option(const std::string& key) const;

 private:
  std::string text_;
  std::string command_;
  std::vector<QVShellArgument> positional_;
  std::vector<QVShellArgument> options_;
};

}  // namespace qv::shell
