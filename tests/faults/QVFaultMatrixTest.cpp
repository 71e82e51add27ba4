// The fault matrix: messages posted through QVCore by several modules, with
// "HasToPersistLocalCache" on, meet a server that fails in one way per row,
// on the JSON path (gzip) and on the URL-encoded path. Once the server is
// well and the next flush has run, the server must hold every accepted
// message, each once, except the messages of a post that the server took in
// but whose answer never reached the client: those arrive exactly twice.
#include <gtest/gtest.h>

#include <map>

#include "qvcore/platform/QVRunLoop.h"
#include "support/QVCollectedPosts.h"
#include "support/QVTestHost.h"

namespace qv {
namespace {

using namespace std::chrono_literals;
using test::Offsets;
using test::QVTestReply;
using test::sorted;

enum class Path { kJson, kUrlEncoded };

struct FaultRow {
  const char* name;
  // The server's reply to the first request (then 200); none: nothing
  // listens during the first cycle, the server comes up after.
  std::optional<QVTestReply> firstReply;
  double postTimeout;   // "PostMessageTimeout", seconds
  bool firstPostFails;  // the client counts the first post failed and keeps it on disk
  bool answerLost;      // the server took the first post in; its answer never came back
};

using Kind = QVTestReply::Kind;
const FaultRow kRows[] = {
    {"Status500", QVTestReply::answer(500), 2, true, false},
    {"Status503", QVTestReply::answer(503, {{"Retry-After", "1"}}), 2, true, false},
    {"Status400", QVTestReply::answer(400), 2, true, false},
    // Every status from 200 to 399 counts as delivered and no redirect is
    // followed: the server that answered 302 has the post, and it is sent
    // neither again nor to the Location.
    {"Status302", QVTestReply::answer(302, {{"Location", "/elsewhere"}}), 2, false, false},
    {"TimeOut", QVTestReply::of(Kind::kStall), 1, true, true},
    {"ResetWhileAnswering", QVTestReply::of(Kind::kResetWhileAnswering), 2, true, true},
    // The server crashed after taking the post in: it hangs up, no answer.
    {"ClosedWithoutAnswer", QVTestReply::of(Kind::kClose), 2, true, true},
    {"ResetWhileReading", QVTestReply::of(Kind::kResetWhileReading), 2, true, false},
    {"Refused", std::nullopt, 2, true, false},
    // The answer waits until more messages are posted and flushed.
    {"SlowServer", QVTestReply::of(Kind::kHoldThenAnswer), 30, false, false},
};

// Failure messages show the row by its name.
void PrintTo(const FaultRow& row, std::ostream* out) { *out << row.name; }

const std::vector<std::string> kModules = {"Alpha", "Beta", "Gamma"};
constexpr int kPerModule = 2;

class QVFaultMatrixTest : public ::testing::TestWithParam<std::tuple<FaultRow, Path>> {
 protected:
  void TearDown() override { core_->disable(); }

  const FaultRow& row() const { return std::get<0>(GetParam()); }
  bool json() const { return std::get<1>(GetParam()) == Path::kJson; }
  bool refusing() const { return !row().firstReply; }

  void startCore() {
    if (!refusing()) server_.addReply(*row().firstReply);
    std::map<std::string, QVValue> modules;
    for (const auto& name : kModules)
      modules[name] = {{"PostMessageUrl", server_.url("/collect")}, {"URLEncoded", !json()}};
    ASSERT_TRUE(host_.startCore({{"PostMessageLevelWiFi", 3},
                                 {"PostMessageTimeout", row().postTimeout},
                                 {"CompressPostMessage", json()},
                                 {"HasToPersistLocalCache", true}},
                                modules));
  }
  // Every post must be taken: a level-3 gate admits them all.
  void postBatch() {
    for (const auto& name : kModules) {
      for (int i = 0; i < kPerModule; ++i) {
        accepted_.push_back(accepted_.size() + 1);
        EXPECT_TRUE(
            core_->postMessageForModuleName(test::messageWithOffset(accepted_.back()), name));
      }
    }
  }

  // Every request the server read whole, decoded as the collector does,
  // with the status it answered (or meant to answer).
  std::vector<collector::QVCollectorRecord> records() const {
    std::vector<collector::QVCollectorRecord> out;
    for (const auto& sent : server_.requests()) out.push_back(test::collected(sent));
    if (!out.empty() && !refusing() && row().firstReply->kind == Kind::kAnswer)
      out[0].status = row().firstReply->status;
    return out;
  }
  // The offsets of every post the server kept (answered below 400), sorted.
  Offsets delivered() const {
    Offsets offsets;
    for (const auto& record : records()) {
      const Offsets some = record.status < 400 ? test::offsetsOf(record) : Offsets{};
      offsets.insert(offsets.end(), some.begin(), some.end());
    }
    return sorted(offsets);
  }

  test::QVTestHost host_{"com.example.faults"};
  test::QVTestHttpServer server_{0, !refusing()};
  std::shared_ptr<QVCore> core_ = QVCore::sharedInstance();
  std::shared_ptr<QVQueueService> service_ = QVQueueService::sharedInstance();
  Offsets accepted_;  // ascending, as posted
};

TEST_P(QVFaultMatrixTest, EveryAcceptedMessageArrivesAndOnlyALostAnswerDuplicates) {
  startCore();
  postBatch();
  core_->flushQueues();
  if (!refusing() && row().firstReply->kind == Kind::kHoldThenAnswer) {
    // More messages and flushes while the first post waits for its answer.
    ASSERT_TRUE(server_.waitForRequests(1));
    for (int round = 0; round < 2; ++round) {
      postBatch();
      core_->flushQueues();
    }
    server_.release();
  }
  auto& loop = QVRunLoop::main();
  ASSERT_TRUE(loop.runUntil([&] { return service_->completedFlushCycles() >= 1; }, 30s));
  const size_t perBatch = kModules.size() * (json() ? 1 : kPerModule);  // posts
  const size_t failedPosts = refusing() ? perBatch : row().firstPostFails ? 1 : 0;
  EXPECT_EQ(test::namesIn(service_->cachedQueuesDirectory()).size(), failedPosts)
      << "posts kept on disk after the first cycle";

  if (refusing()) server_.listen();
  postBatch();
  core_->flushQueues();
  const auto everythingDelivered = [&] {
    const Offsets got = delivered();
    return std::includes(got.begin(), got.end(), accepted_.begin(), accepted_.end()) &&
           test::nothingLeftToSend(*service_);
  };
  ASSERT_TRUE(loop.runUntil(everythingDelivered, 30s))
      << "delivered " << testing::PrintToString(delivered()) << " of "
      << testing::PrintToString(accepted_);

  const auto all = records();
  for (const auto& record : all) {
    const auto& decoded = record.decoded;
    EXPECT_EQ(decoded.kind + " " + decoded.encoding + " " + decoded.problem,
              json() ? "json gzip " : "urlencoded identity ");
  }
  const Offsets lostAnswer = row().answerLost ? sorted(test::offsetsOf(all.at(0))) : Offsets{};
  EXPECT_EQ(lostAnswer.empty(), !row().answerLost) << "the post whose answer was lost";
  // Every accepted message and nothing else, once; the post whose answer was
  // lost twice.
  Offsets expected = accepted_;
  expected.insert(expected.end(), lostAnswer.begin(), lostAnswer.end());
  EXPECT_EQ(delivered(), sorted(expected));
  // The client's own account: every accepted message sent once, the failed
  // posts' messages cached and read back, nothing dropped or left.
  const QVLedgerSnapshot ledger = core_->ledgerSnapshot();
  EXPECT_TRUE(ledger.balances()) << ledger.toJson();
  const std::string n = std::to_string(accepted_.size());
  const std::string c = std::to_string(failedPosts * (json() ? kPerModule : 1));
  EXPECT_EQ(test::ledgerLine(ledger), "accepted " + n + " sent " + n + " failed " + c + " cached " +
                                          c + " recovered " + c + " dropped 0 left 0");
}

std::string rowName(const testing::TestParamInfo<std::tuple<FaultRow, Path>>& info) {
  return std::get<0>(info.param).name +
         std::string(std::get<1>(info.param) == Path::kJson ? "_Json" : "_UrlEncoded");
}

INSTANTIATE_TEST_SUITE_P(Faults, QVFaultMatrixTest,
                         testing::Combine(testing::ValuesIn(kRows),
                                          testing::Values(Path::kJson, Path::kUrlEncoded)),
                         rowName);

}  // namespace
}  // namespace qv
