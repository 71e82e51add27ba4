#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "QVBenchCore.h"
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

// The payloads measured: 1,000 and 10,000 messages, five repetitions.
inline void payloadSizes(benchmark::internal::Benchmark* b) {
  b->Arg(1000)
      ->Arg(10000)
      ->Unit(benchmark::kMicrosecond)
      ->Repetitions(5)
      ->ReportAggregatesOnly(true);
}

// main() of a program whose benchmarks need nothing but a running core.
inline int runWithCore(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  QVBenchCore core;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace qv::bench
