#pragma once

#include <stdexcept>
#include <string>

#include "qvcore/QVExport.h"

namespace qv {

// Raised by a byte stream that cannot do what it was asked: a write to a
// stream that is not open, whose peer went away, or that stays full.
class QV_EXPORT QVStreamException : public std::runtime_error {
 public:
  explicit QVStreamException(const std::string& what);
  ~QVStreamException() override;
};

}  // namespace qv
