#pragma once

#include <memory>
#include <string>

#include "qvcore/platform/QVOutputStream.h"

namespace qv {

class QVSocketConnection;

// The writing half of a QVSocketConnection.
class QVSocketOutputStream final : public QVOutputStream {
 public:
  explicit QVSocketOutputStream(std::shared_ptr<QVSocketConnection> connection);
  ~QVSocketOutputStream() override;

  void open() override;
  void close() override;
  ptrdiff_t write(const uint8_t* buffer, size_t maxLength) override;
  bool hasSpaceAvailable() const override;
  std::string description() const override;

  // What the connection reports. Each is ignored unless the stream is
  // waiting for it.
  void connected();
  void failed(const std::string& error);
  void spaceAvailable();

 private:
  std::shared_ptr<QVSocketConnection> connection_;
};

}  // namespace qv
