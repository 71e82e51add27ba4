// QVDataCompression::compressData of queue payloads against the floor of one
// raw zlib deflate with the same parameters (default level, gzip framing, a
// 32 KiB window, memory level 8) into a buffer sized beforehand.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <memory>
#include <string>

#include "QVBenchCore.h"
#include "QVBenchPayload.h"
#include "qvcore/queue/QVDataCompression.h"

namespace qv::bench {
namespace {

std::shared_ptr<const std::string> payloadOf(int64_t count) {
  return std::make_shared<const std::string>(
      QVBenchPayload(static_cast<uint64_t>(count)).queue()->toJson());
}

void BM_CompressData(benchmark::State& state) {
  const auto data = payloadOf(state.range(0));
  std::size_t out = 0;
  for (auto _ : state) {
    const auto compressed = QVDataCompression::compressData(data);
    out = compressed->size();
    benchmark::DoNotOptimize(compressed->data());
  }
  if (out >= data->size()) state.SkipWithError("not compressed");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data->size()));
  state.counters["ratio_out_in"] = static_cast<double>(out) / static_cast<double>(data->size());
}

void BM_RawDeflateFloor(benchmark::State& state) {
  const auto data = payloadOf(state.range(0));
  std::string output(deflateBound(nullptr, static_cast<uLong>(data->size())) + 32, '\0');
  std::size_t out = 0;
  for (auto _ : state) {
    z_stream stream{};
    deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data->data()));
    stream.avail_in = static_cast<uInt>(data->size());
    stream.next_out = reinterpret_cast<Bytef*>(output.data());
    stream.avail_out = static_cast<uInt>(output.size());
    if (deflate(&stream, Z_FINISH) != Z_STREAM_END) state.SkipWithError("deflate did not finish");
    out = stream.total_out;
    deflateEnd(&stream);
    benchmark::DoNotOptimize(output.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * data->size()));
  state.counters["ratio_out_in"] = static_cast<double>(out) / static_cast<double>(data->size());
}

BENCHMARK(BM_CompressData)->Apply(payloadSizes);
BENCHMARK(BM_RawDeflateFloor)->Apply(payloadSizes);

}  // namespace
}  // namespace qv::bench

int main(int argc, char** argv) { return qv::bench::runWithCore(argc, argv); }
