#include "platform/net/QVSocketInputStream.h"

#include <utility>

#include "platform/net/QVSocketConnection.h"

namespace qv {

QVSocketInputStream::QVSocketInputStream(std::shared_ptr<QVSocketConnection> connection)
    : connection_(std::move(connection)) {}

QVSocketInputStream::~QVSocketInputStream() {
  if (streamStatus() != kStatusClosed) connection_->streamClosed();
}

void QVSocketInputStream::open() {
  if (streamStatus() != kStatusNotOpen) return;
  setStatus(kStatusOpening);
  connection_->streamOpened();
}

void QVSocketInputStream::close() {
  if (streamStatus() == kStatusClosed) return;
  setStatus(kStatusClosed);
  connection_->streamClosed();
}

ptrdiff_t QVSocketInputStream::read(uint8_t* buffer, size_t maxLength) {
  const Status status = streamStatus();
  if (status == kStatusAtEnd) return 0;
  if (status != kStatusOpen) return -1;
  return connection_->receive(buffer, maxLength);
}

bool QVSocketInputStream::hasBytesAvailable() const {
  return streamStatus() == kStatusOpen && connection_->hasBytesAvailable();
}

std::string QVSocketInputStream::description() const { return describe("QVSocketInputStream"); }

void QVSocketInputStream::connected() {
  if (streamStatus() != kStatusOpening || !setStatus(kStatusOpen)) return;
  deliverEvent(kEventOpenCompleted);
  connection_->watchReadable();
}

void QVSocketInputStream::failed(const std::string& error) {
  const Status status = streamStatus();
  if (status != kStatusOpening && status != kStatusOpen) return;
  if (setStatus(kStatusError, error)) deliverEvent(kEventErrorOccurred);
}

void QVSocketInputStream::bytesArrived() {
  if (streamStatus() == kStatusOpen) deliverEvent(kEventHasBytesAvailable);
}

void QVSocketInputStream::endEncountered() {
  if (streamStatus() != kStatusOpen || !setStatus(kStatusAtEnd)) return;
  deliverEvent(kEventEndEncountered);
}

}  // namespace qv
