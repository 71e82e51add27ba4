#include "platform/net/QVSocketInputStream.h"

#include <utility>

namespace qv {

QVSocketInputStream::QVSocketInputStream(std::shared_ptr<QVSocketConnection> connection)
    : QVSocketStreamHalf(std::move(connection)) {}

ptrdiff_t QVSocketInputStream::read(uint8_t* buffer, size_t maxLength) {
  const Status status = streamStatus();
  if (status == kStatusAtEnd) return 0;
  if (status != kStatusOpen) return -1;
  return connection().receive(buffer, maxLength);
}

bool QVSocketInputStream::hasBytesAvailable() const {
  return streamStatus() == kStatusOpen && connection().hasBytesAvailable();
}

std::string QVSocketInputStream::description() const { return describe("QVSocketInputStream"); }

void QVSocketInputStream::connected() {
  if (becameOpen()) connection().watchReadable();
}

void QVSocketInputStream::bytesArrived() {
  if (streamStatus() == kStatusOpen) deliverEvent(kEventHasBytesAvailable);
}

void QVSocketInputStream::endEncountered() {
  if (streamStatus() != kStatusOpen || !setStatus(kStatusAtEnd)) return;
  deliverEvent(kEventEndEncountered);
}

}  // namespace qv
