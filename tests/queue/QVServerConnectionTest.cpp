#include "qvcore/queue/QVServerConnection.h"

#include <gtest/gtest.h>

#include "qvcore/core/QVCore.h"
#include "support/QVConnectionTestSupport.h"
#include "support/QVFakeHttpSession.h"
#include "support/QVQueueServiceTestSupport.h"

namespace qv {
namespace {

using test::headersOf;

class QVServerConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QVHttpSession::setShared(session_);
    test::configure(*module_, {{"URLEncoded", false}});
    connection_ = QVServerConnection::initWithDelegate(delegate_);
  }
  void TearDown() override { QVHttpSession::setShared(nullptr); }

  std::shared_ptr<QVQueue> queue(std::string json) {
    return QVQueue::initWithJSONAndModule(std::move(json), module_);
  }
  // The outcomes reported so far, as success flags.
  std::vector<bool> outcomes() const {
    std::vector<bool> flags;
    for (const auto& outcome : delegate_->outcomes()) flags.push_back(outcome.succeeded);
    return flags;
  }

  std::shared_ptr<test::QVFakeHttpSession> session_ = std::make_shared<test::QVFakeHttpSession>();
  std::shared_ptr<test::QVPostingModule> module_ =
      std::make_shared<test::QVPostingModule>("PostingModule", "");
  std::shared_ptr<test::QVRecordingDelegate> delegate_ =
      std::make_shared<test::QVRecordingDelegate>();
  std::shared_ptr<QVServerConnection> connection_;
  const std::string url_ = "http://collector.test/collect";
};

TEST_F(QVServerConnectionTest, ModuleHeadersComeLastReplaceFixedOnesAndSkipNonScalars) {
  module_->headers = QVValue::parse(
      R"({"content-type":"application/json","X-Count":5,"X-Ratio":2.5,"X-Whole":2.0,"X-Flag":true,
          "X-List":[1],"X-Dict":{"a":1},"X-None":null})");
  module_->cookie = "mod=1";
  auto current = queue("{}");
  connection_->setCurrentQueue(current);
  auto request = connection_->requestForURLAndJsonWithSessionId(url_, "{}", std::nullopt);
  ASSERT_TRUE(request);
  const std::string fixed = "User-Agent: " + QVCore::sharedInstance()->getUserAgentFromBrowser() +
                            "|X-QVCORE: Lib/2.0.0.81|";
  EXPECT_EQ(headersOf(*request),
            "Accept: */*|Accept-Encoding: gzip, deflate|content-type: application/json|"
            "Content-Length: 2|" +
                fixed + "X-Count: 5|X-Ratio: 2.5|X-Whole: 2|X-Flag: 1|Cookie: mod=1|");
  // Without a session identifier the module is asked with the core's.
  EXPECT_EQ(module_->askedSessionIds, std::vector{QVCore::sharedInstance()->currentSessionID()});

  module_->headers = QVValue::array({"X-Not", "a dictionary"});
  request = connection_->urlEncodedRequestForURLAndJsonWithSessionId(url_, R"({"a":1})", "s-1");
  ASSERT_TRUE(request);
  EXPECT_EQ(headersOf(*request), fixed + "Cookie: mod=1|");
  EXPECT_EQ(module_->askedSessionIds.at(1), "s-1");
}

TEST_F(QVServerConnectionTest, PayloadsWithoutAUrlFormFailAtOnce) {
  test::configure(*module_, {{"URLEncoded", true}});
  // An array and an empty dictionary (a nested value travels escaped).
  for (const char* json : {"[1,2]", "{}"}) {
    connection_->postQueueToURL(queue(json), url_);
    EXPECT_FALSE(connection_->isBusy());
  }
  EXPECT_EQ(outcomes(), (std::vector{false, false}));
  EXPECT_EQ(session_->taskCount(), 0u);
}

// Only the edges of the range that counts as delivered (the statuses within
// it, on the wire, are rows of the fault matrix); an error or no response
// fails whatever the status.
TEST_F(QVServerConnectionTest, StatusesFrom200To399SucceedAndAnErrorOrNoResponseFails) {
  using Response = std::optional<QVHttpResponse>;
  const std::pair<Response, std::optional<QVHttpError>> rows[] = {
      {QVHttpResponse{199, {}}, {}},
      {QVHttpResponse{200, {}}, {}},
      {QVHttpResponse{399, {}}, {}},
      {QVHttpResponse{400, {}}, {}},
      {QVHttpResponse{200, {}}, QVHttpError{56, "reset"}},
      {std::nullopt, {}}};
  for (size_t i = 0; i < std::size(rows); ++i) {
    connection_->postQueueToURL(queue("{}"), url_);
    session_->complete(i, rows[i].first, rows[i].second);
    EXPECT_FALSE(connection_->isBusy());
  }
  EXPECT_EQ(outcomes(), (std::vector{false, true, true, false, false, false}));
}

TEST_F(QVServerConnectionTest, DelegateMayReplaceTheRequestAndItsOwnBodyIsUploaded) {
  auto replacement = std::make_shared<QVMutableURLRequest>("http://other.test/x");
  replacement->setHTTPBody(std::string("replaced"));
  std::shared_ptr<QVMutableURLRequest> offered;
  delegate_->rewrite = [&](const std::shared_ptr<QVMutableURLRequest>& request) {
    offered = request;
    return replacement;
  };
  auto posted = queue(R"({"n":1})");
  connection_->postQueueToURL(posted, url_);

  ASSERT_TRUE(offered);
  EXPECT_EQ(*offered->HTTPBody(), R"({"n":1})");
  ASSERT_EQ(session_->taskCount(), 1u);
  EXPECT_EQ(session_->task(0).request.URL(), "http://other.test/x");
  EXPECT_EQ(*session_->task(0).body, "replaced");
  session_->completeWithStatus(0, 204);
  EXPECT_EQ(delegate_->outcomes().at(0).queue, posted);
}

TEST_F(QVServerConnectionTest, ExceptionAfterBusyWasSetLeavesTheConnectionBusy) {
  delegate_->rewrite =
      [](const std::shared_ptr<QVMutableURLRequest>&) -> std::shared_ptr<QVMutableURLRequest> {
    throw std::runtime_error("rewrite failed");
  };
  EXPECT_NO_THROW(connection_->postQueueToURL(queue("{}"), url_));
  EXPECT_TRUE(connection_->isBusy());
  EXPECT_TRUE(outcomes().empty());

  connection_->postQueueToURL(queue("{}"), url_);  // refused, as while any post is in flight
  EXPECT_EQ(outcomes(), std::vector{false});
  EXPECT_EQ(session_->taskCount(), 0u);
}

TEST_F(QVServerConnectionTest, OutcomeWithoutDelegateOrQueueOnlyClearsBusy) {
  connection_->postQueueToURL(queue("{}"), url_);  // nobody else holds the queue
  EXPECT_EQ(connection_->currentQueue(), nullptr);
  delegate_.reset();
  session_->completeWithStatus(0, 200);
  EXPECT_FALSE(connection_->isBusy());
}

}  // namespace
}  // namespace qv
