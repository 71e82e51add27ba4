#pragma once

#include <memory>
#include <string>
#include <utility>

#include "platform/net/QVSocketConnection.h"

namespace qv {

// What both halves of a QVSocketConnection do alike: each tells the
// connection when it opens and when it closes (a half dropped unclosed
// counts as closed), so that the connection shuts the socket only once both
// are done with it; and each fails the same way.
template <typename Stream>
class QVSocketStreamHalf : public Stream {
 public:
  void open() override {
    if (this->streamStatus() != Stream::kStatusNotOpen) return;
    this->setStatus(Stream::kStatusOpening);
    connection_->streamOpened();
  }

  void close() override {
    if (this->streamStatus() == Stream::kStatusClosed) return;
    this->setStatus(Stream::kStatusClosed);
    connection_->streamClosed();
  }

  // The connection reports a failure; ignored unless the stream is opening
  // or open.
  void failed(const std::string& error) {
    const auto status = this->streamStatus();
    if (status != Stream::kStatusOpening && status != Stream::kStatusOpen) return;
    if (this->setStatus(Stream::kStatusError, error)) {
      this->deliverEvent(Stream::kEventErrorOccurred);
    }
  }

 protected:
  explicit QVSocketStreamHalf(std::shared_ptr<QVSocketConnection> connection)
      : connection_(std::move(connection)) {}
  ~QVSocketStreamHalf() override {
    if (this->streamStatus() != Stream::kStatusClosed) connection_->streamClosed();
  }

  // The connection reports it is up: true when this opens the stream, which
  // has then told its delegate.
  bool becameOpen() {
    if (this->streamStatus() != Stream::kStatusOpening) return false;
    if (!this->setStatus(Stream::kStatusOpen)) return false;
    this->deliverEvent(Stream::kEventOpenCompleted);
    return true;
  }

  QVSocketConnection& connection() const { return *connection_; }

 private:
  const std::shared_ptr<QVSocketConnection> connection_;
};

}  // namespace qv
