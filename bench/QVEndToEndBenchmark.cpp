// The whole road on 127.0.0.1: two threads post ten-field messages through
// the core, one flush cycle carries them to a local HTTP server (JSON with
// gzip on and off, and URL-encoded GETs, one per message), and the clock
// stops when the cycle reports completion. Then the flush of a ~1 MB payload
// on its own, against its floor: one raw deflate of the same bytes plus the
// round trip of an empty post.
#include <benchmark/benchmark.h>
#include <sys/prctl.h>
#include <zlib.h>

#include <time.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include "QVBenchCore.h"
#include "QVBenchMessage.h"
#include "qvcore/platform/QVHttpSession.h"
#include "qvcore/platform/QVMutableURLRequest.h"
#include "support/QVTestHttpServer.h"

namespace qv::bench {
namespace {

using Clock = std::chrono::steady_clock;

const std::string kJsonModule = "EndToEndJson";
const std::string kUrlModule = "EndToEndUrl";
constexpr uint64_t kOneMegabyteMessages = 4000;

QVBenchCore* environment = nullptr;
test::QVTestHttpServer* server = nullptr;

// The bytes of a request as it crossed the wire.
std::size_t wireBytes(const test::QVRecordedRequest& request) {
  std::size_t bytes = request.method.size() + request.target.size() + request.version.size() + 4;
  for (const auto& [name, value] : request.headers) bytes += name.size() + value.size() + 4;
  return bytes + 2 + request.body.size();
}

std::size_t wireBytesSince(std::size_t first) {
  const auto requests = server->requests();
  std::size_t bytes = 0;
  for (std::size_t i = first; i < requests.size(); ++i) bytes += wireBytes(requests[i]);
  return bytes;
}

// Flushes and waits, bounded, for the cycle to report completion. The wait
// blocks until the server has recorded the requests the cycle sends, and
// only then polls for the short rest: a waiter that polled all along would
// wake tens of thousands of times a second and take a core's share from the
// flush it measures.
bool flushAndWait(std::size_t requestsAfter) {
  const auto service = QVQueueService::sharedInstance();
  const uint64_t before = service->completedFlushCycles();
  QVCore::sharedInstance()->flushQueues();
  server->waitForRequests(requestsAfter, std::chrono::seconds(120));
  const auto limit = Clock::now() + std::chrono::seconds(120);
  while (service->completedFlushCycles() == before) {
    if (Clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(20));
  }
  return true;
}

void postRange(const std::string& module, uint64_t from, uint64_t to) {
  const auto core = QVCore::sharedInstance();
  for (uint64_t i = from; i < to; ++i) {
    core->postMessageForModuleNameWithSessionID(QVBenchMessage::make(i), module, std::nullopt);
  }
}

void postFromTwoThreads(const std::string& module, uint64_t count) {
  std::thread other(postRange, module, 0, count / 2);
  postRange(module, count / 2, count);
  other.join();
}

// CPU time of the whole process: the flush, HTTP and server threads, as a
// figure that other processes on the machine disturb less than wall time.
double processCpuSeconds() {
  timespec now{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// A JSON queue goes out in one post a cycle, a URL-encoded one in a GET for
// each message.
void BM_EndToEnd(benchmark::State& state, const std::string& module, bool gzip,
                 bool requestPerMessage) {
  const auto count = static_cast<uint64_t>(state.range(0));
  environment->setCompression(gzip);
  const std::size_t firstRequest = server->requests().size();
  std::size_t requests = firstRequest;
  for (auto _ : state) {
    requests += requestPerMessage ? count : 1;
    const auto start = Clock::now();
    postFromTwoThreads(module, count);
    if (!flushAndWait(requests)) state.SkipWithError("the flush cycle did not complete");
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
  const double messages = static_cast<double>(state.iterations() * count);
  state.SetItemsProcessed(static_cast<int64_t>(messages));
  state.counters["wire_bytes_per_message"] =
      static_cast<double>(wireBytesSince(firstRequest)) / messages;
}

// The payload of kOneMegabyteMessages queued messages, as the flush writes it.
std::string oneMegabytePayload() {
  postRange(kJsonModule, 0, kOneMegabyteMessages);
  const auto snapshot = QVQueue::initWithQueue(environment->liveQueue(kJsonModule));
  environment->emptyQueue(kJsonModule);
  return snapshot->toJson();
}

void BM_FlushOneMegabyte(benchmark::State& state) {
  environment->setCompression(true);
  const std::size_t firstRequest = server->requests().size();
  std::size_t requests = firstRequest;
  double cpuSeconds = 0;
  for (auto _ : state) {
    postRange(kJsonModule, 0, kOneMegabyteMessages);
    const auto start = Clock::now();
    const double cpuStart = processCpuSeconds();
    if (!flushAndWait(++requests)) state.SkipWithError("the flush cycle did not complete");
    cpuSeconds += processCpuSeconds() - cpuStart;
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
  state.counters["cpu_us_per_flush"] = cpuSeconds * 1e6 / static_cast<double>(state.iterations());
  state.counters["payload_bytes"] = static_cast<double>(oneMegabytePayload().size());
  state.counters["wire_bytes"] =
      static_cast<double>(wireBytesSince(firstRequest)) / static_cast<double>(state.iterations());
}

void BM_RawDeflateOneMegabyte(benchmark::State& state) {
  const std::string data = oneMegabytePayload();
  std::string output(deflateBound(nullptr, static_cast<uLong>(data.size())) + 32, '\0');
  for (auto _ : state) {
    const auto start = Clock::now();
    z_stream stream{};
    deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = reinterpret_cast<Bytef*>(output.data());
    stream.avail_out = static_cast<uInt>(output.size());
    if (deflate(&stream, Z_FINISH) != Z_STREAM_END) state.SkipWithError("deflate did not finish");
    deflateEnd(&stream);
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
  state.counters["payload_bytes"] = static_cast<double>(data.size());
}

// One empty POST through the library's HTTP session and back.
void BM_EmptyPostRoundTrip(benchmark::State& state) {
  const auto request = QVMutableURLRequest::requestWithURL(server->url("/empty"));
  request->setHTTPMethod("POST");
  request->setTimeoutInterval(30);
  for (auto _ : state) {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false, ok = false;
    const auto start = Clock::now();
    QVHttpSession::shared()->uploadTaskWithRequest(
        *request, std::make_shared<const std::string>(),
        [&](std::optional<QVHttpResponse> response, std::optional<QVHttpError> error) {
          std::lock_guard lock(mutex);
          ok = response && !error && response->statusCode == 200;
          finished = true;
          done.notify_all();
        });
    std::unique_lock lock(mutex);
    done.wait_for(lock, std::chrono::seconds(30), [&] { return finished; });
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    if (!ok) state.SkipWithError("the empty post failed");
  }
}

void endToEnd(benchmark::internal::Benchmark* b) {
  b->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->Iterations(2)
      ->Repetitions(3)
      ->ReportAggregatesOnly(true);
}

void flushFloor(benchmark::internal::Benchmark* b) {
  b->UseManualTime()->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);
}

BENCHMARK_CAPTURE(BM_EndToEnd, json_gzip, kJsonModule, true, false)->Arg(50000)->Apply(endToEnd);
BENCHMARK_CAPTURE(BM_EndToEnd, json_plain, kJsonModule, false, false)->Arg(50000)->Apply(endToEnd);
BENCHMARK_CAPTURE(BM_EndToEnd, urlencoded_gzip, kUrlModule, true, true)->Arg(2000)->Apply(endToEnd);
BENCHMARK_CAPTURE(BM_EndToEnd, urlencoded_plain, kUrlModule, false, true)
    ->Arg(2000)
    ->Apply(endToEnd);
BENCHMARK(BM_FlushOneMegabyte)->Apply(flushFloor)->Iterations(20);
BENCHMARK(BM_RawDeflateOneMegabyte)->Apply(flushFloor);
BENCHMARK(BM_EmptyPostRoundTrip)->Apply(flushFloor);

}  // namespace
}  // namespace qv::bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  // Short sleeps while waiting for a flush end when asked, not 50 us later.
  ::prctl(PR_SET_TIMERSLACK, 1UL);
  qv::test::QVTestHttpServer server;
  qv::bench::QVBenchCore core;
  core.addModule(qv::bench::kJsonModule, {{"PostMessageUrl", server.url("/json")}});
  core.addModule(qv::bench::kUrlModule,
                 {{"PostMessageUrl", server.url("/url")}, {"URLEncoded", true}});
  qv::bench::environment = &core;
  qv::bench::server = &server;
  benchmark::RunSpecifiedBenchmarks();
  qv::bench::environment = nullptr;
  qv::bench::server = nullptr;
  benchmark::Shutdown();
  return 0;
}
