// A posting process killed at a random moment loses nothing that reached the
// disk cache or the server. A child process posts numbered messages to a
// server that refuses many posts, so that failed queues go to the cache while
// it runs, and is killed with SIGKILL. Every cache file it leaves must be a
// whole queue; a second child reads them back and sends them, after which the
// server holds every message they held and the cache folder is empty.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "qvcore/core/QVCore.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/queue/QVServerConnection.h"
#include "support/QVCrashTestSupport.h"
#include "support/QVTestHttpServer.h"

extern char** environ;

namespace qv {
namespace {

using namespace std::chrono_literals;
using test::Offsets;
using test::offsetsIn;

constexpr const char* kModule = "KillPoster";
// Set only in the environment of the test's own child processes.
constexpr const char* kModeVariable = "QVTEST_KILL_MODE";
constexpr const char* kUrlVariable = "QVTEST_KILL_URL";
constexpr const char* kBaseVariable = "QVTEST_KILL_BASE";

uint64_t numberFromEnvironment(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  return text && *text ? std::strtoull(text, nullptr, 10) : fallback;
}

// ---- the child's side -------------------------------------------------------

// Posts numbered messages until killed, pumping the main loop so that the
// flush timer fires, and flushing by hand now and then. Bounded, so that a
// child whose parent has gone still ends.
void postUntilKilled(QVCore& core, uint64_t base) {
  QVRunLoop& loop = QVRunLoop::main();
  const auto end = std::chrono::steady_clock::now() + 20s;
  for (uint64_t n = 0; std::chrono::steady_clock::now() < end; ++n) {
    core.postMessageForModuleName(test::messageWithOffset(base + n), kModule);
    if (n % 16 == 15) loop.runFor(1ms);
    if (n % 256 == 255) core.flushQueues();
  }
}

// Reads the cache back and sends it, returning once that cycle has ended.
void sendWhatWasCached() {
  auto service = QVQueueService::sharedInstance();
  service->flushQueues();
  const bool ended = QVRunLoop::main().runUntil(
      [&] {
        auto connection = service->serverConnection();
        return service->completedFlushCycles() > 0 ||
               (service->cachedQueues().empty() && connection && !connection->isBusy());
      },
      60s);
  EXPECT_TRUE(ended) << "the recovered queues were not all sent";
}

TEST(QVKillTest, Child) {
  const char* mode = std::getenv(kModeVariable);
  if (!mode) GTEST_SKIP() << "runs only as a child process of the kill test";
  const test::QVCrashFolder folder;
  const bool posting = std::string(mode) == "post";
  // Short timer flushes and manual ones while posting; only the flush below
  // while recovering. A generous time-out, so that a slow machine never
  // fails a post that the server has answered.
  QVValue coreItems{{"PostMessageTimeout", 30}};
  if (posting) {
    coreItems.update(QVValue{{"ManualPostEnabled", false},
                             {"DoPostOnIntervals", true},
                             {"PostMessageTimeIntervals", 0.01}});
  }
  auto module = std::make_shared<test::QVTestModule>(kModule, "");
  test::configureCore(folder.at("home"),
                      {{module, {{"PostMessageUrl", std::getenv(kUrlVariable)}}}}, coreItems);
  auto core = QVCore::sharedInstance();
  ASSERT_TRUE(core->enable());
  ASSERT_TRUE(core->enableModule(kModule));
  if (posting) {
    postUntilKilled(*core, numberFromEnvironment(kBaseVariable, 0));
    return;
  }
  sendWhatWasCached();
  // The parent compares the recovering child's own account with the server.
  const QVLedgerSnapshot ledger = core->ledgerSnapshot();
  EXPECT_TRUE(ledger.balances()) << ledger.toJson();
  std::cout << "ledger " << ledger.toJson() << std::endl;
}

// ---- the parent's side ------------------------------------------------------

// Starts this executable again as the child case, with the variables added
// to the environment and its output going to log.
pid_t spawnChild(const std::vector<std::string>& variables, const std::string& log) {
  std::vector<std::string> environment(variables);
  for (char** entry = environ; *entry; ++entry) environment.emplace_back(*entry);
  std::vector<char*> envp;
  for (auto& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::string self = "/proc/self/exe", filter = "--gtest_filter=QVKillTest.Child";
  char* argv[] = {self.data(), filter.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  pid_t pid = -1;
  const int error = ::posix_spawn(&pid, self.c_str(), &actions, nullptr, argv, envp.data());
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? pid : -1;
}

// The child's wait status; a child still running after bound is killed.
int awaitChild(pid_t pid, std::chrono::seconds bound) {
  int status = 0;
  for (const auto end = std::chrono::steady_clock::now() + bound;
       std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(5ms)) {
    if (::waitpid(pid, &status, WNOHANG) == pid) return status;
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, &status, 0);
  ADD_FAILURE() << "a child process did not end by itself";
  return status;
}

struct Tally {
  uint64_t posted = 0;        // per child, one more than the highest number seen
  uint64_t cachedAtKill = 0;  // messages in the cache files a kill left
  uint64_t cacheFiles = 0;
  uint64_t recovered = 0;                // messages the recovering child sent
  uint64_t unfinished = 0;               // entries of writes that a kill interrupted
  std::map<uint64_t, int> acknowledged;  // message to the 200 answers carrying it

  uint64_t duplicates() const {
    uint64_t count = 0;
    for (const auto& [offset, answers] : acknowledged) count += answers - 1;
    return count;
  }
};

// The messages in the files that the queue service would read back as
// queues: those named after a module. Each must be whole, and named as a
// finished write is; anything else is an unfinished write.
Offsets cachedMessages(const std::string& folder, Tally& tally) {
  static const std::regex cacheFileName(std::string(kModule) + R"(_\d+\.\d{6}\.json)");
  Offsets offsets;
  for (const auto& name : test::namesIn(folder)) {
    if (name.substr(0, name.find('_')) != kModule) {
      ++tally.unfinished;
      continue;
    }
    ++tally.cacheFiles;
    EXPECT_TRUE(std::regex_match(name, cacheFileName)) << name << ": an unfinished write";
    const std::string text =
        QVFileSystem::contentsAtPath(folder + "/" + name, 1 << 30).value_or("");
    const Offsets found = offsetsIn(text);
    EXPECT_FALSE(found.empty()) << name << " is not a whole queue: " << text.substr(0, 300);
    offsets.insert(offsets.end(), found.begin(), found.end());
  }
  return offsets;
}

// Every message of the requests from index first on, each request a whole
// queue; counted as acknowledged where the server answered 200.
Offsets receivedMessages(const std::vector<test::QVRecordedRequest>& requests, size_t first,
                         const std::vector<bool>& refused, Tally& tally) {
  Offsets all;
  for (size_t k = first; k < requests.size(); ++k) {
    const Offsets found = offsetsIn(requests[k].body);
    EXPECT_FALSE(found.empty()) << "not a whole queue: " << requests[k].body.substr(0, 300);
    for (uint64_t offset : found) {
      if (k >= refused.size() || !refused[k]) ++tally.acknowledged[offset];
    }
    all.insert(all.end(), found.begin(), found.end());
  }
  return all;
}

class QVKillRun {
 public:
  QVKillRun(uint64_t seed, test::QVCrashFolder& folder) : random_(seed), folder_(folder) {}

  void iterate(uint64_t iteration) {
    const uint64_t base = (iteration + 1) << 32;
    test::QVTestHttpServer server;
    const std::vector<bool> refused = refuseAtRandom(server);
    ASSERT_NO_FATAL_FAILURE(postAndKill(server.url("/collect"), base, server));
    const Offsets cached = cachedMessages(cacheFolder(), tally_);
    tally_.cachedAtKill += cached.size();
    ASSERT_NO_FATAL_FAILURE(recover());
    Offsets recovered = receivedMessages(recovery_.requests(), recoveryRequests_, {}, tally_);
    recoveryRequests_ = recovery_.requests().size();
    tally_.recovered += recovered.size();
    EXPECT_EQ(sorted(recovered), sorted(cached)) << "what the cache held is what was sent";
    const QVValue ledger = recoveryLedger();
    EXPECT_EQ(ledger.value("recovered", uint64_t{0}), cached.size()) << ledger.dump();
    EXPECT_EQ(ledger.value("sent", uint64_t{0}), recovered.size()) << ledger.dump();
    EXPECT_EQ(test::namesIn(cacheFolder()), std::vector<std::string>{})
        << "recovery empties the cache folder";
    Offsets seen = receivedMessages(server.requests(), 0, refused, tally_);
    seen.insert(seen.end(), cached.begin(), cached.end());
    if (!seen.empty()) tally_.posted += *std::max_element(seen.begin(), seen.end()) - base + 1;
  }

  const Tally& tally() const { return tally_; }

 private:
  std::string cacheFolder() const { return folder_.at("home") + "/Documents/QVCoreCachedQueues"; }

  // The server refuses a share of the posts, drawn anew for each child.
  std::vector<bool> refuseAtRandom(test::QVTestHttpServer& server) {
    std::bernoulli_distribution refuses(std::uniform_real_distribution<>(0.3, 1.0)(random_));
    std::vector<bool> refused(2000);
    for (size_t k = 0; k < refused.size(); ++k) {
      refused[k] = refuses(random_);
      server.addReply(test::QVTestReply::answer(refused[k] ? 500 : 200));
    }
    return refused;
  }

  void postAndKill(const std::string& url, uint64_t base, const test::QVTestHttpServer& server) {
    const pid_t child =
        spawnChild({std::string(kModeVariable) + "=post", std::string(kUrlVariable) + "=" + url,
                    std::string(kBaseVariable) + "=" + std::to_string(base)},
                   folder_.at("post.log"));
    ASSERT_GT(child, 0);
    const bool posting = server.waitForRequests(1, std::chrono::seconds(20));
    if (posting) std::this_thread::sleep_for(std::chrono::microseconds(killDelay_(random_)));
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(posting) << "the child never posted:\n" << log("post.log");
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << log("post.log");
  }

  void recover() {
    const pid_t child = spawnChild({std::string(kModeVariable) + "=recover",
                                    std::string(kUrlVariable) + "=" + recovery_.url("/recover")},
                                   folder_.at("recover.log"));
    ASSERT_GT(child, 0);
    const int status = awaitChild(child, std::chrono::seconds(90));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << log("recover.log");
  }

  // The module's counts, as the last recovering child printed them.
  QVValue recoveryLedger() const {
    const std::string text = log("recover.log");
    const auto line = text.rfind("ledger ");
    EXPECT_NE(line, std::string::npos) << text;
    if (line == std::string::npos) return QVValue::object();
    const QVValue all = QVValue::parse(text.substr(line + 7, text.find('\n', line) - line - 7));
    return all.value(kModule, QVValue::object());
  }
  std::string log(const std::string& name) const {
    return QVFileSystem::contentsAtPath(folder_.at(name), 1 << 20).value_or("");
  }
  static Offsets sorted(Offsets offsets) {
    std::sort(offsets.begin(), offsets.end());
    return offsets;
  }

  std::mt19937_64 random_;
  std::uniform_int_distribution<int> killDelay_{0, 120000};  // microseconds
  test::QVCrashFolder& folder_;
  test::QVTestHttpServer recovery_;  // answers every post with 200
  size_t recoveryRequests_ = 0;
  Tally tally_;
};

TEST(QVKillTest, AKilledPosterLosesNothingThatReachedTheCacheOrTheServer) {
  const uint64_t seed = numberFromEnvironment("QVCORE_KILL_SEED", std::random_device{}());
  const uint64_t iterations = numberFromEnvironment("QVCORE_KILL_ITERATIONS", 50);
  std::cout << "kill test seed " << seed << " (QVCORE_KILL_SEED repeats it)" << std::endl;
  test::QVCrashFolder folder;
  QVKillRun run(seed, folder);
  for (uint64_t iteration = 0; iteration < iterations && !HasFatalFailure(); ++iteration) {
    SCOPED_TRACE("iteration " + std::to_string(iteration) + " of seed " + std::to_string(seed));
    run.iterate(iteration);
  }
  const Tally& tally = run.tally();
  std::cout << "kill test: " << iterations << " iterations, " << tally.posted
            << " messages posted, " << tally.cachedAtKill << " cached at kill (in "
            << tally.cacheFiles << " files, " << tally.unfinished << " unfinished writes), "
            << tally.recovered << " recovered, " << tally.duplicates() << " duplicates"
            << std::endl;
  // A queue goes to the cache only when its post failed, and a cache file is
  // deleted as it is read back, before its post: no message can be answered
  // 200 twice.
  EXPECT_EQ(tally.duplicates(), 0u);
  // Most kills find failed queues in the cache; with many kills, none at all
  // means that failed queues are no longer cached.
  if (iterations >= 10) {
    EXPECT_GT(tally.cachedAtKill, 0u) << "no kill found anything cached";
  }
}

}  // namespace
}  // namespace qv
