#include "platform/net/QVSocketOutputStream.h"

#include <utility>

#include "qvcore/platform/QVStreamException.h"

namespace qv {

QVSocketOutputStream::QVSocketOutputStream(std::shared_ptr<QVSocketConnection> connection)
    : QVSocketStreamHalf(std::move(connection)) {}

ptrdiff_t QVSocketOutputStream::write(const uint8_t* buffer, size_t maxLength) {
  const Status status = streamStatus();
  if (status == kStatusError) throw QVStreamException(streamError());
  if (status != kStatusOpen && status != kStatusOpening) {
    throw QVStreamException("the stream is not open");
  }
  return connection().send(buffer, maxLength);
}

bool QVSocketOutputStream::hasSpaceAvailable() const {
  if (streamStatus() != kStatusOpen) return false;
  if (connection().hasSpaceAvailable()) return true;
  // A writer told "no room" waits for the event instead of writing, so the
  // event must come even when no write armed it.
  connection().watchWritable();
  return false;
}

std::string QVSocketOutputStream::description() const { return describe("QVSocketOutputStream"); }

void QVSocketOutputStream::connected() {
  if (becameOpen()) deliverEvent(kEventHasSpaceAvailable);
}

void QVSocketOutputStream::spaceAvailable() {
  if (streamStatus() == kStatusOpen) deliverEvent(kEventHasSpaceAvailable);
}

}  // namespace qv
