// Serialising a queue of ten-field messages (QVQueue::toJson) against the
// floor of writing the same tree, built once, with nlohmann::json::dump.
#include <benchmark/benchmark.h>

#include <string>

#include "QVBenchCore.h"
#include "QVBenchPayload.h"

namespace qv::bench {
namespace {

void BM_QueueToJson(benchmark::State& state) {
  const QVBenchPayload payload(static_cast<uint64_t>(state.range(0)));
  std::size_t bytes = 0;
  for (auto _ : state) {
    const std::string json = payload.queue()->toJson();
    bytes += json.size();
    benchmark::DoNotOptimize(json.data());
  }
  if (bytes == 0) state.SkipWithError("empty payload");
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

void BM_DumpFloor(benchmark::State& state) {
  const QVBenchPayload payload(static_cast<uint64_t>(state.range(0)));
  const QVValue tree = payload.queue()->jsonDictionary();
  // The same payload, but for the client environment, which is read afresh
  // at each serialisation and may differ in a figure or two.
  QVValue written = QVValue::parse(payload.queue()->toJson(), nullptr, false);
  QVValue expected = tree;
  for (auto* v : {&written, &expected}) {
    if (v->is_object() && v->contains("sessions")) {
      for (auto& session : (*v)["sessions"]) session["clientEnvironment"] = nullptr;
    }
  }
  if (written != expected) state.SkipWithError("toJson wrote another payload");
  std::size_t bytes = 0;
  for (auto _ : state) {
    const std::string json = tree.dump();
    bytes += json.size();
    benchmark::DoNotOptimize(json.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

BENCHMARK(BM_QueueToJson)->Apply(payloadSizes);
BENCHMARK(BM_DumpFloor)->Apply(payloadSizes);

}  // namespace
}  // namespace qv::bench

int main(int argc, char** argv) { return qv::bench::runWithCore(argc, argv); }
