#pragma once

#include <stdexcept>
#include <string>

#include "qvcore/QVExport.h"

namespace qv {

// Raised by the keyed archiver and unarchiver when a value cannot be written
// faithfully or a stored value is not of the kind asked for. Archiving code
// catches it and stops at the key that raised it.
class QV_EXPORT QVArchiveException : public std::runtime_error {
 public:
  explicit QVArchiveException(const std::string& what);
  ~QVArchiveException() override;
};

}  // namespace qv
