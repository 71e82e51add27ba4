#pragma once

#include <stdexcept>

namespace qv::shell {

// A command that cannot be carried out; its text is printed as "error: ...".
class QVShellError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace qv::shell
