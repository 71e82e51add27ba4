#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "QVBenchMessage.h"
#include "qvcore/model/QVQueue.h"
#include "support/QVTestModule.h"

namespace qv::bench {

// A queue as a flush hands it to the connection: the snapshot of a live
// queue that held count ten-field messages in one session, its sessions
// closed by the cut.
class QVBenchPayload {
 public:
  explicit QVBenchPayload(uint64_t count) {
    auto live = QVQueue::initForModule(module_);
    for (uint64_t i = 0; i < count; ++i) {
      live->postMessageToSessionID(QVBenchMessage::make(i), std::nullopt);
    }
    snapshot_ = QVQueue::initWithQueue(live);
    live->flush();
  }

  const std::shared_ptr<QVQueue>& queue() const { return snapshot_; }

 private:
  std::shared_ptr<test::QVTestModule> module_ =
      std::make_shared<test::QVTestModule>("PayloadBench", "");
  std::shared_ptr<QVQueue> snapshot_;
};

}  // namespace qv::bench
