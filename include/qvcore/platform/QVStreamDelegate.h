#pragma once

#include <memory>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVByteStream.h"

namespace qv {

// Hears the events of the byte streams it is the delegate of.
class QV_EXPORT QVStreamDelegate {
 public:
  virtual ~QVStreamDelegate() = default;
  virtual void streamHandleEvent(const std::shared_ptr<QVByteStream>& stream,
                                 QVByteStream::Event event) = 0;
};

}  // namespace qv
