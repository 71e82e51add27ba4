#pragma once

#include <cstddef>
#include <cstdint>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVByteStream.h"

namespace qv {

// A stream that bytes are written to.
class QV_EXPORT QVOutputStream : public QVByteStream {
 public:
  // Writes up to maxLength bytes from buffer and answers how many it took.
  // Like a blocking stream it waits until at least one byte can be taken
  // (the connection still opening, or the peer's window full), but only for a
  // bounded time, so for maxLength > 0 the answer is always at least 1. A
  // stream that cannot take bytes (never opened, closed, broken, or full for
  // too long) raises QVStreamException instead: callers may loop on the count
  // without testing for failure, and never loop forever.
  virtual ptrdiff_t write(const uint8_t* buffer, size_t maxLength) = 0;
  virtual bool hasSpaceAvailable() const = 0;
};

}  // namespace qv
