// A posting process killed at a random moment loses nothing that reached the
// disk cache or the server. A child process posts numbered messages to a
// server that refuses many posts, so that failed queues go to the cache while
// it runs, and is killed with SIGKILL. Every cache file it leaves must be a
// whole queue; a second child reads them back and sends them, after which the
// server holds every message they held and the cache folder is empty.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include "qvcore/platform/QVRunLoop.h"
#include "support/QVCollectedPosts.h"
#include "support/QVCrashTestSupport.h"

namespace qv {
namespace {

using namespace std::chrono_literals;
using test::Offsets;
using test::offsetsIn;
using test::sorted;

constexpr const char* kModule = "KillPoster";
// "post URL BASE" or "recover URL CACHED", set only for the test's own children.
constexpr const char* kChildVariable = "QVTEST_KILL_CHILD";

uint64_t numberFromEnvironment(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  return text && *text ? std::strtoull(text, nullptr, 10) : fallback;
}

// Posts numbered messages until killed, pumping the main loop so that the
// flush timer fires, and flushing by hand now and then. Bounded, so that a
// child whose parent has gone still ends.
void postUntilKilled(QVCore& core, uint64_t base) {
  const auto end = std::chrono::steady_clock::now() + 20s;
  for (uint64_t n = 0; std::chrono::steady_clock::now() < end; ++n) {
    core.postMessageForModuleName(test::messageWithOffset(base + n), kModule);
    if (n % 16 == 15) QVRunLoop::main().runFor(1ms);
    if (n % 256 == 255) core.flushQueues();
  }
}

// Reads the cache back and sends it; the core must count each of the
// cached messages recovered and sent, and nothing else.
void sendWhatWasCached(QVCore& core, uint64_t cached) {
  auto service = QVQueueService::sharedInstance();
  service->flushQueues();
  EXPECT_TRUE(QVRunLoop::main().runUntil(
      [&] { return service->completedFlushCycles() > 0 || test::nothingLeftToSend(*service); },
      60s))
      << "the recovered queues were not all sent";
  const std::string n = std::to_string(cached);
  EXPECT_EQ(test::ledgerLine(core.ledgerSnapshot(), kModule),
            "accepted 0 sent " + n + " failed 0 cached 0 recovered " + n + " dropped 0 left 0");
}

TEST(QVKillChild, Run) {
  const char* child = std::getenv(kChildVariable);
  if (!child) GTEST_SKIP() << "runs only as a child process of the kill test";
  std::istringstream words(child);
  std::string mode, url;
  uint64_t number = 0;
  words >> mode >> url >> number;
  const test::QVCrashFolder folder;
  // A generous time-out, so that a slow machine never fails a post that the
  // server has answered; short timer flushes only while posting.
  QVValue items{{"PostMessageTimeout", 30}};
  if (mode == "post") {
    items.update(QVValue{{"ManualPostEnabled", false},
                         {"DoPostOnIntervals", true},
                         {"PostMessageTimeIntervals", 0.01}});
  }
  auto module = std::make_shared<test::QVTestModule>(kModule, "");
  test::configureCore(folder.at("home"), {{module, {{"PostMessageUrl", url}}}}, items);
  auto core = QVCore::sharedInstance();
  ASSERT_TRUE(core->enable() && core->enableModule(kModule));
  mode == "post" ? postUntilKilled(*core, number) : sendWhatWasCached(*core, number);
}

class QVKillTest : public ::testing::Test {
 protected:
  // The shell line that runs this executable again as the child case with
  // that task, its output going to the log.
  std::string child(const std::string& task, const std::string& runner = "") const {
    return "exec " + runner + "env " + kChildVariable + "='" + task + "' " +
           std::filesystem::read_symlink("/proc/self/exe").string() +
           " --gtest_filter=QVKillChild.Run >" + log_ + " 2>&1";
  }

  void iterate(uint64_t iteration) {
    const uint64_t base = (iteration + 1) << 32;
    test::QVTestHttpServer server;
    std::vector<bool> refused(2000);  // a share drawn anew for each child
    std::bernoulli_distribution refuses(std::uniform_real_distribution<>(0.3, 1.0)(random_));
    for (size_t k = 0; k < refused.size(); ++k) {
      refused[k] = refuses(random_);
      server.addReply(test::QVTestReply::answer(refused[k] ? 500 : 200));
    }
    // Killed at a random moment once it has posted.
    FILE* poster = ::popen(
        ("echo $$; " + child("post " + server.url("/c") + " " + std::to_string(base))).c_str(),
        "r");
    pid_t pid = 0;
    ASSERT_TRUE(poster && std::fscanf(poster, "%d", &pid) == 1);
    const bool posting = server.waitForRequests(1, 20s);
    if (posting) std::this_thread::sleep_for(std::chrono::microseconds(killDelay_(random_)));
    ::kill(pid, SIGKILL);
    int status = ::pclose(poster);
    ASSERT_TRUE(posting && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << log();

    const Offsets cached = cachedMessages();
    cachedAtKill_ += cached.size();
    const size_t before = recovery_.requests().size();
    const std::string task = "recover " + recovery_.url("/r") + " " + std::to_string(cached.size());
    status = std::system(child(task, "timeout -s KILL 90 ").c_str());
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << log();
    const Offsets recovered = received(recovery_.requests(), before, {});
    EXPECT_EQ(sorted(recovered), sorted(cached)) << "what the cache held is what was sent";
    EXPECT_EQ(test::namesIn(cacheFolder()), std::vector<std::string>{}) << "cache left over";
    Offsets seen = received(server.requests(), 0, refused);
    seen.insert(seen.end(), cached.begin(), cached.end());
    if (!seen.empty()) posted_ += *std::max_element(seen.begin(), seen.end()) - base + 1;
  }

  std::string cacheFolder() const { return folder_.at("home") + "/Documents/QVCoreCachedQueues"; }

  // The messages in the files the queue service would read back as queues
  // (named after the module): each a whole queue, named as a finished write.
  Offsets cachedMessages() const {
    static const std::regex finished(std::string(kModule) + R"(_\d+\.\d{6}\.json)");
    Offsets offsets;
    for (const auto& name : test::namesIn(cacheFolder())) {
      if (name.substr(0, name.find('_')) != kModule) continue;  // an unfinished write
      EXPECT_TRUE(std::regex_match(name, finished)) << name << ": an unfinished write";
      const std::string path = cacheFolder() + "/" + name;
      const std::string text = QVFileSystem::contentsAtPath(path, 1 << 30).value_or("");
      const Offsets found = offsetsIn(text);
      EXPECT_FALSE(found.empty()) << name << " is not a whole queue: " << text.substr(0, 300);
      offsets.insert(offsets.end(), found.begin(), found.end());
    }
    return offsets;
  }

  // Every message of the requests from index first on, each request a whole
  // queue; counted as acknowledged where the server answered 200.
  Offsets received(const std::vector<test::QVRecordedRequest>& requests, size_t first,
                   const std::vector<bool>& refused) {
    Offsets all;
    for (size_t k = first; k < requests.size(); ++k) {
      const Offsets found = offsetsIn(requests[k].body);
      EXPECT_FALSE(found.empty()) << "not a whole queue: " << requests[k].body.substr(0, 300);
      for (uint64_t offset : found) acknowledged_[offset] += k >= refused.size() || !refused[k];
      all.insert(all.end(), found.begin(), found.end());
    }
    return all;
  }
  std::string log() const { return QVFileSystem::contentsAtPath(log_, 1 << 20).value_or(""); }

  const uint64_t seed_ = numberFromEnvironment("QVCORE_KILL_SEED", std::random_device{}());
  std::mt19937_64 random_{seed_};
  std::uniform_int_distribution<int> killDelay_{0, 120000};  // microseconds
  test::QVCrashFolder folder_;
  const std::string log_ = folder_.at("child.log");
  test::QVTestHttpServer recovery_;  // answers every post with 200
  uint64_t posted_ = 0, cachedAtKill_ = 0;
  std::map<uint64_t, int> acknowledged_;  // message to the 200 answers carrying it
};

TEST_F(QVKillTest, AKilledPosterLosesNothingThatReachedTheCacheOrTheServer) {
  const uint64_t iterations = numberFromEnvironment("QVCORE_KILL_ITERATIONS", 50);
  std::cout << "kill test seed " << seed_ << " (QVCORE_KILL_SEED repeats it)" << std::endl;
  for (uint64_t i = 0; i < iterations && !HasFatalFailure(); ++i) {
    SCOPED_TRACE("iteration " + std::to_string(i) + " of seed " + std::to_string(seed_));
    iterate(i);
  }
  // A queue goes to the cache only when its post failed, and a cache file is
  // deleted as it is read back, before its post: no message can be answered
  // 200 twice.
  Offsets twice;
  for (const auto& [offset, answers] : acknowledged_) {
    if (answers > 1) twice.push_back(offset);
  }
  std::cout << "kill test: " << posted_ << " messages posted, " << cachedAtKill_
            << " cached at kill" << std::endl;
  EXPECT_EQ(twice, Offsets{});
  // With many kills, none finding failed queues in the cache means that they
  // are no longer cached.
  EXPECT_TRUE(iterations < 10 || cachedAtKill_ > 0) << "no kill found anything cached";
}

}  // namespace
}  // namespace qv
