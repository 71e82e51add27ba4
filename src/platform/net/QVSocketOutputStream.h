#pragma once

#include <memory>
#include <string>

#include "platform/net/QVSocketStreamHalf.h"
#include "qvcore/platform/QVOutputStream.h"

namespace qv {

// The writing half of a QVSocketConnection.
class QVSocketOutputStream final : public QVSocketStreamHalf<QVOutputStream> {
 public:
  explicit QVSocketOutputStream(std::shared_ptr<QVSocketConnection> connection);

  ptrdiff_t write(const uint8_t* buffer, size_t maxLength) override;
  bool hasSpaceAvailable() const override;
  std::string description() const override;

  // What the connection reports. Each is ignored unless the stream is
  // waiting for it.
  void connected();
  void spaceAvailable();
};

}  // namespace qv
