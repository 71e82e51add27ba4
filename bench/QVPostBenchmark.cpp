// Posting a base message through the core's gate into a module's queue: one
// thread, two threads on one module, two threads on two modules. Times are
// wall-clock per message over all threads, so a lower figure with two
// threads means more messages per second. Every case runs with the host's
// reachability, or with --qv_netlink the system's own, which the gate reads
// on every post; run both to compare them.
#include <benchmark/benchmark.h>

#include <memory>
#include <optional>
#include <string>

#include "QVBenchCore.h"
#include "qvcore/model/QVMessage.h"

namespace qv::bench {
namespace {

const std::string kFirst = "PostBenchFirst";
const std::string kSecond = "PostBenchSecond";
const std::optional<std::string> kCurrentSession;

QVBenchCore* environment = nullptr;

std::size_t queuedMessages(const std::string& name) {
  const auto queue = environment->liveQueue(name);
  if (!queue) return 0;
  std::size_t count = 0;
  for (const auto& entry : queue->sessions()) count += entry.second->messageCount();
  return count;
}

// Every run starts from empty queues, so that the queue grows only by the
// messages of one run; its final length is reported as "queued".
void emptyQueues(const benchmark::State&) {
  environment->emptyQueue(kFirst);
  environment->emptyQueue(kSecond);
}

void reportQueued(benchmark::State& state) {
  if (state.thread_index() != 0) return;
  state.counters["queued"] = static_cast<double>(queuedMessages(kFirst) + queuedMessages(kSecond));
}

// A module posts a fresh message object each time; one object per thread
// posted again and again keeps the allocator out of the figure, which is
// the core's path alone.
void BM_PostThroughCore(benchmark::State& state, bool modulePerThread) {
  const std::string& name = modulePerThread && state.thread_index() == 1 ? kSecond : kFirst;
  const auto core = QVCore::sharedInstance();
  const auto message = std::make_shared<QVMessage>();
  bool accepted = true;
  for (auto _ : state) {
    accepted &= core->postMessageForModuleNameWithSessionID(message, name, kCurrentSession);
  }
  if (!accepted) state.SkipWithError("a post was refused");
  state.SetItemsProcessed(state.iterations());
  reportQueued(state);
}

// The same with a new message made for every post, as a module does.
void BM_MakeAndPostThroughCore(benchmark::State& state) {
  const auto core = QVCore::sharedInstance();
  bool accepted = true;
  for (auto _ : state) {
    accepted &= core->postMessageForModuleNameWithSessionID(std::make_shared<QVMessage>(), kFirst,
                                                            kCurrentSession);
  }
  if (!accepted) state.SkipWithError("a post was refused");
  state.SetItemsProcessed(state.iterations());
  reportQueued(state);
}

// The parts of the path on their own: the gate, and the queue's add.
void BM_GateOnly(benchmark::State& state) {
  const auto core = QVCore::sharedInstance();
  const auto message = std::make_shared<QVMessage>();
  for (auto _ : state) benchmark::DoNotOptimize(core->canPostMessage(message.get()));
  state.SetItemsProcessed(state.iterations());
}

void BM_QueueOnly(benchmark::State& state) {
  const auto core = QVCore::sharedInstance();
  const auto message = std::make_shared<QVMessage>();
  core->postMessageForModuleNameWithSessionID(message, kFirst, kCurrentSession);
  const auto queue = environment->liveQueue(kFirst);
  bool accepted = queue != nullptr;
  for (auto _ : state) accepted &= queue->postMessageToSessionID(message, kCurrentSession);
  if (!accepted) state.SkipWithError("a post was refused");
  state.SetItemsProcessed(state.iterations());
  reportQueued(state);
}

void configure(benchmark::internal::Benchmark* b) {
  b->Setup(emptyQueues)->UseRealTime()->Repetitions(5)->ReportAggregatesOnly(true)->MinTime(0.3);
}

BENCHMARK_CAPTURE(BM_PostThroughCore, one_thread, false)->Apply(configure);
BENCHMARK_CAPTURE(BM_PostThroughCore, two_threads_one_module, false)->Apply(configure)->Threads(2);
BENCHMARK_CAPTURE(BM_PostThroughCore, two_threads_two_modules, true)->Apply(configure)->Threads(2);
BENCHMARK(BM_MakeAndPostThroughCore)->Apply(configure);
BENCHMARK(BM_GateOnly)->Apply(configure);
BENCHMARK(BM_GateOnly)->Apply(configure)->Threads(2);
BENCHMARK(BM_QueueOnly)->Apply(configure);

}  // namespace
}  // namespace qv::bench

// --qv_netlink: reachability from the system (netlink) rather than from the
// host, which is what the gate reads on every post.
bool takeNetlinkFlag(int& argc, char** argv) {
  bool netlink = false;
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--qv_netlink") {
      netlink = true;
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  return netlink;
}

int main(int argc, char** argv) {
  const bool netlink = takeNetlinkFlag(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::AddCustomContext("reachability", netlink ? "netlink" : "host");
  qv::bench::QVBenchCore core(false, !netlink);
  const qv::QVValue items = {{"PostMessageUrl", "http://127.0.0.1:9/unused"}};
  core.addModule(qv::bench::kFirst, items);
  core.addModule(qv::bench::kSecond, items);
  qv::bench::environment = &core;
  benchmark::RunSpecifiedBenchmarks();
  qv::bench::environment = nullptr;
  benchmark::Shutdown();
  return 0;
}
