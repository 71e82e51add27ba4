#pragma once

#include <cstddef>
#include <cstdint>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVByteStream.h"

namespace qv {

// A stream that bytes are read from. kEventHasBytesAvailable comes once for
// each arrival of data that the reader has not yet read, not over and over.
class QV_EXPORT QVInputStream : public QVByteStream {
 public:
  // Reads up to maxLength bytes into buffer without waiting. Answers the count
  // read, 0 at the end of the stream or when nothing is there yet, -1 when
  // the stream is not open or broke.
  virtual ptrdiff_t read(uint8_t* buffer, size_t maxLength) = 0;
  virtual bool hasBytesAvailable() const = 0;
};

}  // namespace qv
