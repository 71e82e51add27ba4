// A long run of many posting threads: four threads post through the core to
// three modules while the flush timer fires and another thread flushes by
// hand, both on the dispatch queue and on its own thread, switching
// compression on and off as it goes. A server on 127.0.0.1 must end up
// with every accepted message exactly once, at its own module's address.
//
// QVCORE_SOAK_MESSAGES sets how many messages are posted in all (default
// 100,000; scripts/long-tests.sh runs a million).
#include <gtest/gtest.h>

#include <atomic>
#include <iostream>
#include <map>
#include <thread>

#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVSerialQueue.h"
#include "support/QVCollectedPosts.h"
#include "support/QVTestHost.h"

namespace qv {
namespace {

using namespace std::chrono_literals;

constexpr uint64_t kThreads = 4;
// The session identifiers that the module with sessions of its own cycles
// through; every thread posts to each of them, so an identifier whose
// session a flush has just closed is met again at once.
constexpr uint64_t kSessionIds = 5;

uint64_t soakMessages() {
  const char* text = std::getenv("QVCORE_SOAK_MESSAGES");
  const uint64_t count = text ? std::strtoull(text, nullptr, 10) : 0;
  return count > 0 ? count : 100000;
}

// The three kinds of module a message may go to. A URL-encoded module sends
// one GET per message, so it gets one message in a hundred, which is about
// what such a module carries beside the bulk of the traffic.
enum Module { kCurrentSession, kOwnSessions, kQuery, kModuleCount };
const char* const kNames[kModuleCount] = {"SoakCurrent", "SoakSessions", "SoakQuery"};

Module moduleOf(uint64_t index) {
  if (index % 100 == 99) return kQuery;
  return index % 2 ? kOwnSessions : kCurrentSession;
}

std::string pathOf(Module module) { return std::string("/") + kNames[module]; }

class QVSoakTest : public ::testing::Test {
 protected:
  void TearDown() override { core_->disable(); }

  void start() {
    std::map<std::string, QVValue> modules;
    for (int module = 0; module < kModuleCount; ++module) {
      modules[kNames[module]] = {{"PostMessageUrl", server_.url(pathOf(Module(module)))},
                                 {"URLEncoded", module == kQuery}};
    }
    ASSERT_TRUE(host_.startCore({{"PostMessageLevelWiFi", 3},
                                 {"PostMessageTimeout", 30},
                                 {"ManualPostEnabled", false},
                                 {"DoPostOnIntervals", true},
                                 {"PostMessageTimeIntervals", 0.01},
                                 {"CompressPostMessage", true},
                                 {"HasToPersistLocalCache", true}},
                                modules));
    ASSERT_TRUE(service_->flushTimer());
  }

  // Each thread posts its own share of the messages, to every module; the
  // offset of message i is i + 1, so each one is known on arrival.
  void postFrom(uint64_t thread) {
    const uint64_t end = total_ * (thread + 1) / kThreads;
    for (uint64_t index = total_ * thread / kThreads; index < end; ++index) {
      const Module module = moduleOf(index);
      auto message = test::messageWithOffset(index + 1);
      const bool accepted =
          module == kOwnSessions
              ? core_->postMessageForModuleNameWithSessionID(
                    std::move(message), kNames[module], "S" + std::to_string(index % kSessionIds))
              : core_->postMessageForModuleName(std::move(message), kNames[module]);
      accepted_[index] = accepted;
    }
    ++finished_;
  }

  // Until the posters are done: flushes through the dispatch queue and on
  // this thread in turn, and switches compression for the flushes after.
  void flushByHand() {
    for (uint64_t round = 0; posting_.load(); ++round) {
      round % 2 ? service_->flushQueues() : core_->flushQueues();
      core_->updateConfigForModuleNameWithData("QVCore", {{"CompressPostMessage", round % 4 < 2}});
      std::this_thread::sleep_for(1ms);
    }
  }

  // With the timer stopped, flushes until nothing is left to send: no module
  // queue holds a message, the send list is empty and no file waits in the
  // cache folder. A mark queued behind a flush on the serial dispatch queue
  // says that flush has put everything on the send list.
  bool drain() {
    service_->stopFlushTimer();
    for (int round = 0; round < 10; ++round) {
      auto cut = std::make_shared<std::atomic<bool>>(false);
      core_->flushQueues();
      service_->flushDispatchQueue()->async([cut] { *cut = true; });
      if (!QVRunLoop::main().runUntil([&] { return *cut && service_->cachedQueues().empty(); },
                                      600s)) {
        return false;
      }
      if (test::nothingLeftToSend(*service_)) return true;
    }
    return false;
  }
  // How often the server received each message, decoded as the collector
  // decodes it, checking on the way that every request was whole and
  // reached its module's address.
  std::vector<uint32_t> receivedCounts() {
    std::vector<uint32_t> counts(total_, 0);
    const auto requests = server_.requests();
    for (const auto& sent : requests) {
      const auto record = test::collected(sent);
      const test::Offsets offsets = test::offsetsOf(record);
      EXPECT_TRUE(record.decoded.problem.empty() && !offsets.empty()) << sent.target;
      for (const uint64_t offset : offsets) {
        const bool known = offset > 0 && offset <= total_;
        if (known && sent.path() == pathOf(moduleOf(offset - 1))) ++counts[offset - 1];
        if (!known || sent.path() != pathOf(moduleOf(offset - 1))) note("misrouted", offset);
      }
    }
    std::cout << "soak: " << total_ << " messages in " << requests.size() << " requests\n";
    return counts;
  }
  // The first few offsets of each kind of wrong.
  void note(const std::string& wrong, uint64_t offset) {
    if (wrong_[wrong].size() < 5) wrong_[wrong].push_back(offset);
  }

  test::QVTestHttpServer server_;
  test::QVTestHost host_{"com.example.soak"};
  std::shared_ptr<QVCore> core_ = QVCore::sharedInstance();
  std::shared_ptr<QVQueueService> service_ = QVQueueService::sharedInstance();

  const uint64_t total_ = soakMessages();
  std::vector<char> accepted_ = std::vector<char>(total_, 0);  // one writer per element
  std::atomic<bool> posting_{true};
  std::atomic<uint64_t> finished_{0};  // posting threads done
  std::map<std::string, test::Offsets> wrong_;
};

TEST_F(QVSoakTest, EveryAcceptedMessageArrivesExactlyOnceWhileFlushesRace) {
  start();
  std::thread flusher([this] { flushByHand(); });
  std::vector<std::thread> posters;
  for (uint64_t thread = 0; thread < kThreads; ++thread)
    posters.emplace_back([this, thread] { postFrom(thread); });
  // The main loop runs the flush timer while the posters work.
  const bool posted = QVRunLoop::main().runUntil([&] { return finished_ == kThreads; }, 3600s);
  for (auto& poster : posters) poster.join();
  posting_ = false;
  flusher.join();
  ASSERT_TRUE(posted);
  ASSERT_TRUE(drain()) << "the queues never emptied";

  // Every accepted message arrived once at its module's address, nothing
  // else arrived, and the client's own account agrees, module by module.
  const std::vector<uint32_t> counts = receivedCounts();
  std::vector<uint64_t> acceptedBy(kModuleCount, 0);
  for (uint64_t index = 0; index < total_; ++index) {
    acceptedBy[moduleOf(index)] += accepted_[index] != 0;
    if (accepted_[index] && counts[index] == 0) note("lost", index + 1);
    if (counts[index] > 1) note("duplicated", index + 1);
    if (!accepted_[index] && counts[index] > 0) note("unasked", index + 1);
  }
  EXPECT_EQ(wrong_, (std::map<std::string, test::Offsets>{}));
  const QVLedgerSnapshot ledger = core_->ledgerSnapshot();
  EXPECT_TRUE(ledger.balances()) << ledger.toJson();
  uint64_t counted = 0;
  for (int module = 0; module < kModuleCount; ++module) {
    const std::string a = std::to_string(acceptedBy[module]);
    EXPECT_EQ(test::ledgerLine(ledger, kNames[module]),
              "accepted " + a + " sent " + a + " failed 0 cached 0 recovered 0 dropped 0 left 0");
    counted += ledger.modules.at(kNames[module]).refused;
  }
  // Wi-Fi level 3 admits every message; a post is refused only when flushes
  // close its session under it on every attempt, which is rare.
  std::cout << "soak: " << counted << " posts refused\n";
  EXPECT_LT(counted, total_ / 2);
  counted += acceptedBy[kCurrentSession] + acceptedBy[kOwnSessions] + acceptedBy[kQuery];
  EXPECT_EQ(counted, total_) << "every post counted once, accepted or refused";
}

}  // namespace
}  // namespace qv
