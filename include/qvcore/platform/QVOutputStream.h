#pragma once

#include <cstddef>
#include <cstdint>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVByteStream.h"

namespace qv {

// A stream that bytes are written to.
class QV_EXPORT QVOutputStream : public QVByteStream {
 public:
  // Writes up to maxLength bytes from buffer without waiting and answers how
  // many it took: 0 when it has no room now (the connection still opening,
  // or the peer's window full), and a kEventHasSpaceAvailable follows when
  // room comes. A stream that cannot take bytes (never opened, closed,
  // broken) raises QVStreamException instead.
  virtual ptrdiff_t write(const uint8_t* buffer, size_t maxLength) = 0;
  virtual bool hasSpaceAvailable() const = 0;
};

}  // namespace qv
