// The gate's answer on the system's own reachability source while threads
// post: it reads what the source's watcher thread published, so a change is
// seen once the watcher has handled the kernel's report of it.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "qvcore/environment/QVNetworkManager.h"
#include "qvcore/environment/QVReachability.h"
#include "support/QVNetworkNamespace.h"

using namespace std::chrono_literals;

namespace qv {
namespace {

using test::QVNetworkNamespace;

// Threads that read the gate over and over, as posting threads do.
class GateReaders {
 public:
  GateReaders(std::function<bool()> gate, int count) : gate_(std::move(gate)), readers_(count) {
    for (auto& reader : readers_) threads_.emplace_back([this, &reader] { loop(reader); });
  }
  ~GateReaders() {
    stop_.store(true);
    for (auto& thread : threads_) thread.join();
  }

  // Each reader's answer from a read that began after this call.
  std::vector<bool> nextReads() {
    const uint64_t round = round_.fetch_add(1) + 1;
    std::vector<bool> answers;
    for (auto& reader : readers_) {
      while (reader.round.load(std::memory_order_acquire) != round) std::this_thread::yield();
      answers.push_back(reader.answer.load(std::memory_order_relaxed));
    }
    return answers;
  }

 private:
  struct Reader {
    std::atomic<uint64_t> round{0};
    std::atomic<bool> answer{false};
  };

  void loop(Reader& reader) {
    while (!stop_.load()) {
      const uint64_t round = round_.load(std::memory_order_acquire);
      reader.answer.store(gate_(), std::memory_order_relaxed);
      reader.round.store(round, std::memory_order_release);
    }
  }

  const std::function<bool()> gate_;
  std::vector<Reader> readers_;
  std::atomic<uint64_t> round_{0};
  std::atomic<bool> stop_{false};
  std::vector<std::thread> threads_;
};

// The monitor's notifier is scheduled on this thread's run loop, which never
// runs here: only the watcher thread can bring the gate's answer up to date.
// Route changes only: the kernel reports them before ip returns, whereas a
// link's carrier is settled later, on a schedule of its own.
void gateFollowsEachRouteChange(QVNetworkNamespace& net) {
  net.ip("link set lo up");
  net.addVethLink("eth0", "eth0peer", "10.200.0.1/24");
  net.ip("addr add 2001:db8::1/64 dev eth0 nodad");
  const auto manager = QVNetworkManager::sharedInstance();
  ASSERT_TRUE(manager->startNetworkMonitoring());
  const auto monitor = manager->networkMonitor();
  const struct {
    const char* change;
    bool wifi;
  } steps[] = {
      {"route add default via 10.200.0.2 dev eth0", true},
      {"route del default", false},
      {"-6 route add default via 2001:db8::2 dev eth0", true},
      {"route add default via 10.200.0.2 dev eth0", true},
      {"-6 route del default", true},
      {"route del default", false},
  };
  {
    GateReaders readers([&] { return manager->isConnectedViaWifi(); }, 2);
    EXPECT_EQ(readers.nextReads(), std::vector<bool>(2, false)) << "no route yet";
    for (const auto& step : steps) {
      net.ip(step.change);
      ASSERT_TRUE(monitor->awaitPublished(10s)) << step.change;
      EXPECT_EQ(readers.nextReads(), std::vector<bool>(2, step.wifi)) << step.change;
    }
  }
  // The watcher stops with the last reference to the monitor, without a hang.
  EXPECT_TRUE(manager->stopNetworkMonitoring());
}

TEST(QVNetlinkRouteChangeTest, PostingThreadsSeeEachChangeOnceTheWatcherHandledIt) {
  QVNetworkNamespace::run(QVNetworkNamespace::Kind::kLinks, gateFollowsEachRouteChange);
}

}  // namespace
}  // namespace qv
