#include "platform/net/QVSocketOutputStream.h"

#include <utility>

#include "platform/net/QVSocketConnection.h"
#include "qvcore/platform/QVStreamException.h"

namespace qv {

QVSocketOutputStream::QVSocketOutputStream(std::shared_ptr<QVSocketConnection> connection)
    : connection_(std::move(connection)) {}

QVSocketOutputStream::~QVSocketOutputStream() {
  if (streamStatus() != kStatusClosed) connection_->streamClosed();
}

void QVSocketOutputStream::open() {
  if (streamStatus() != kStatusNotOpen) return;
  setStatus(kStatusOpening);
  connection_->streamOpened();
}

void QVSocketOutputStream::close() {
  if (streamStatus() == kStatusClosed) return;
  setStatus(kStatusClosed);
  connection_->streamClosed();
}

ptrdiff_t QVSocketOutputStream::write(const uint8_t* buffer, size_t maxLength) {
  const Status status = streamStatus();
  if (status == kStatusError) throw QVStreamException(streamError());
  if (status != kStatusOpen && status != kStatusOpening) {
    throw QVStreamException("the stream is not open");
  }
  return connection_->send(buffer, maxLength);
}

bool QVSocketOutputStream::hasSpaceAvailable() const {
  if (streamStatus() != kStatusOpen) return false;
  if (connection_->hasSpaceAvailable()) return true;
  // A writer told "no room" waits for the event instead of writing, so the
  // event must come even when no write armed it.
  connection_->watchWritable();
  return false;
}

std::string QVSocketOutputStream::description() const { return describe("QVSocketOutputStream"); }

void QVSocketOutputStream::connected() {
  if (streamStatus() != kStatusOpening || !setStatus(kStatusOpen)) return;
  deliverEvent(kEventOpenCompleted);
  deliverEvent(kEventHasSpaceAvailable);
}

void QVSocketOutputStream::failed(const std::string& error) {
  const Status status = streamStatus();
  if (status != kStatusOpening && status != kStatusOpen) return;
  if (setStatus(kStatusError, error)) deliverEvent(kEventErrorOccurred);
}

void QVSocketOutputStream::spaceAvailable() {
  if (streamStatus() == kStatusOpen) deliverEvent(kEventHasSpaceAvailable);
}

}  // namespace qv
