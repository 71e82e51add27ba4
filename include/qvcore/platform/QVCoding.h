#pragma once

#include "qvcore/QVExport.h"

namespace qv {

class QVKeyedArchiver;

// An object that can write itself into a keyed archive. Reading back is done
// by a constructor taking a const QVKeyedUnarchiver&, which
// QVKeyedUnarchiver::unarchiveObjectWithData calls.
class QV_EXPORT QVCoding {
 public:
  virtual ~QVCoding();
  virtual void encodeWithCoder(QVKeyedArchiver& coder) const = 0;
};

}  // namespace qv
