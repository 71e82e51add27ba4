#pragma once

#include <memory>
#include <string>

#include "platform/net/QVSocketStreamHalf.h"
#include "qvcore/platform/QVInputStream.h"

namespace qv {

// The reading half of a QVSocketConnection.
class QVSocketInputStream final : public QVSocketStreamHalf<QVInputStream> {
 public:
  explicit QVSocketInputStream(std::shared_ptr<QVSocketConnection> connection);

  ptrdiff_t read(uint8_t* buffer, size_t maxLength) override;
  bool hasBytesAvailable() const override;
  std::string description() const override;

  // What the connection reports. Each is ignored unless the stream is
  // waiting for it.
  void connected();
  void bytesArrived();
  void endEncountered();
};

}  // namespace qv
