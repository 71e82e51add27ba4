#pragma once

#include <memory>
#include <string>

#include "qvcore/platform/QVInputStream.h"

namespace qv {

class QVSocketConnection;

// The reading half of a QVSocketConnection.
class QVSocketInputStream final : public QVInputStream {
 public:
  explicit QVSocketInputStream(std::shared_ptr<QVSocketConnection> connection);
  ~QVSocketInputStream() override;

  void open() override;
  void close() override;
  ptrdiff_t read(uint8_t* buffer, size_t maxLength) override;
  bool hasBytesAvailable() const override;
  std::string description() const override;

  // What the connection reports. Each is ignored unless the stream is
  // waiting for it.
  void connected();
  void failed(const std::string& error);
  void bytesArrived();
  void endEncountered();

 private:
  std::shared_ptr<QVSocketConnection> connection_;
};

}  // namespace qv
