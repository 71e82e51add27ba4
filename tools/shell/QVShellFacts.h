#pragma once

#include <string>
#include <vector>

#include "QVShellLine.h"

namespace qv::shell {

// The device and application facts of QVCore, each asked by the name of its
// operation ("fact deviceID") and printed as one line: numbers in decimal,
// texts as they are, an absent text as none, the screen as a JSON array
// [width,height]. "fact setQVAdvertisingId [TEXT]" sets the identifier
// (without TEXT: none).
class QVShellFacts {
 public:
  // The answer to a "fact" line; throws QVShellError for an unknown name or
  // a wrong argument.
  static std::string answer(const QVShellLine& line);
  static std::vector<std::string> names();
};

}  // namespace qv::shell
