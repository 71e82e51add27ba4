// QVServerConnection over the real libcurl session against a real server on
// 127.0.0.1: what arrives on the wire, and how every outcome is reported.
#include <gtest/gtest.h>

#include "QVCollectorDecoder.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/queue/QVServerConnection.h"
#include "support/QVConnectionTestSupport.h"
#include "support/QVFieldsMessage.h"
#include "support/QVGzip.h"
#include "support/QVTestHttpServer.h"

namespace qv {
namespace {

using Headers = std::vector<std::pair<std::string, std::string>>;
using test::QVTestReply;

using FieldsMessage = test::QVFieldsMessage;

class QVServerConnectionIntegrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QVCore::sharedInstance()->setUserAgentFromBrowser();
    configureModule(QVValue::object());
    connection_ = QVServerConnection::initWithDelegate(delegate_);
  }

  // The module's items, with "PostMessageUrl" the server's unless given.
  void configureModule(QVValue items, double timeout = 10) {
    if (!items.contains("PostMessageUrl")) items["PostMessageUrl"] = server_.url("/collect");
    test::configure(*module_, items, {{"PostMessageTimeout", timeout}});
  }
  std::shared_ptr<QVQueue> queue(std::string json) {
    return QVQueue::initWithJSONAndModule(std::move(json), module_);
  }
  // Posts as the queue service does: to the module's "PostMessageUrl".
  void post(const std::shared_ptr<QVQueue>& queue) {
    auto url = QVConfigService::sharedInstance()->getConfigItemForLifecycleObject("PostMessageUrl",
                                                                                  module_);
    connection_->postQueueToURL(queue, url->get<std::string>());
  }
  // Posts and waits for the outcome; true for success.
  bool postAndWait(std::string json) { return postAndWait(queue(std::move(json))); }
  bool postAndWait(const std::shared_ptr<QVQueue>& posted) {
    const size_t before = delegate_->outcomes().size();
    post(posted);
    EXPECT_TRUE(delegate_->waitForOutcomes(before + 1));
    const auto outcomes = delegate_->outcomes();
    EXPECT_EQ(outcomes.size(), before + 1);
    EXPECT_EQ(outcomes.back().queue, posted);
    EXPECT_FALSE(connection_->isBusy());
    return outcomes.back().succeeded;
  }
  static std::string userAgent() { return QVCore::sharedInstance()->getUserAgentFromBrowser(); }

  test::QVTestHttpServer server_;
  std::shared_ptr<test::QVPostingModule> module_ =
      std::make_shared<test::QVPostingModule>("WireModule", "");
  std::shared_ptr<test::QVRecordingDelegate> delegate_ =
      std::make_shared<test::QVRecordingDelegate>();
  std::shared_ptr<QVServerConnection> connection_;
};

TEST_F(QVServerConnectionIntegrationTest, JsonPostCarriesExactlyItsHeadersAndTheCompressedBody) {
  // Compression as the queue service installs it; a module header last.
  delegate_->rewrite = test::compressBody;
  module_->headers = {{"X-Module", 5}, {"X-Skipped", QVValue::array()}};
  std::string json = R"({"sessions":[)";
  for (int i = 0; i < 200; ++i) json += R"({"screen":"Checkout","n":)" + std::to_string(i) + "},";
  json.back() = ']';
  EXPECT_TRUE(postAndWait(json + "}"));

  const auto sent = server_.request(0);
  EXPECT_EQ(sent.method + " " + sent.target + " " + sent.version, "POST /collect HTTP/1.1");
  EXPECT_EQ(sent.headers, (Headers{{"Host", "127.0.0.1:" + std::to_string(server_.port())},
                                   {"Accept", "*/*"},
                                   {"Accept-Encoding", "gzip, deflate"},
                                   {"Content-Type", "text/json; charset=UTF-8"},
                                   {"Content-Length", std::to_string(sent.body.size())},
                                   {"User-Agent", userAgent()},
                                   {"X-QVCORE", "Lib/2.0.0.81"},
                                   {"X-Module", "5"},
                                   {"Content-Encoding", "gzip"}}));
  EXPECT_LT(sent.body.size(), json.size());
  EXPECT_EQ(test::gunzip(sent.body), json + "}");
}

// A bodiless GET with only its two headers; nested values and null travel in
// the query as escaped JSON text, and the collector reads them back.
TEST_F(QVServerConnectionIntegrationTest, UrlEncodedPostIsABodilessGetTheCollectorReadsBack) {
  configureModule({{"URLEncoded", true}, {"PostMessageUrl", server_.url("/collect?k=1")}});
  EXPECT_TRUE(postAndWait(R"({"screen":"Home Page","n":5,"ul":"a/b"})"));
  const auto sent = server_.request(0);
  EXPECT_EQ(sent.method, "GET");
  EXPECT_EQ(sent.path(), "/collect");
  EXPECT_EQ(sent.query(), "k=1?screen=Home%20Page&n=5&ul=a/b");
  EXPECT_EQ(sent.headers, (Headers{{"Host", "127.0.0.1:" + std::to_string(server_.port())},
                                   {"User-Agent", userAgent()},
                                   {"X-QVCORE", "Lib/2.0.0.81"}}));
  EXPECT_TRUE(sent.body.empty());

  configureModule({{"URLEncoded", true}});
  EXPECT_TRUE(
      postAndWait(R"({"offset":1,"obj":{"k":"v&w/x"},"list":[1,"a b",2.0],"none":null,"w":2.0})"));
  const auto nested = server_.request(1);
  const collector::QVCollectorDecoded decoded =
      collector::QVCollectorDecoder::decode({"GET", nested.path(), nested.query(), {}, ""});
  EXPECT_EQ(decoded.problem, "");
  ASSERT_TRUE(decoded.queryFields);
  EXPECT_EQ(QVValue::parse(*decoded.queryFields),
            QVValue::parse(R"({"offset":1,"obj":{"k":"v&w/x"},"list":[1,"a b",2],)"
                           R"("none":null,"w":2})"));
  EXPECT_NE(nested.query().find("&w=2"), std::string::npos) << nested.query();
}

// Text that is not UTF-8 in one message or a session ID costs neither the
// other messages nor the body; whole floats travel as integers.
TEST_F(QVServerConnectionIntegrationTest, OneBadMessageLeavesTheOthersAndNumbersAreWrittenPlain) {
  auto live = QVQueue::initForModule(module_);
  live->postMessageToSessionID(std::make_shared<FieldsMessage>(QVValue{{"screen", "Home"}}), "S1");
  live->postMessageToSessionID(std::make_shared<FieldsMessage>(QVValue{{"screen", "bad\xFF!"}}),
                               "S1");
  live->postMessageToSessionID(
      std::make_shared<FieldsMessage>(QVValue{{"w", 2.0}, {"f", 0.1}, {"e", 1e300}, {"z", -0.0}}),
      "S\xC3");
  EXPECT_TRUE(postAndWait(live));

  const std::string body = server_.request(0).body;
  const QVValue payload = QVValue::parse(body, nullptr, false);
  ASSERT_TRUE(payload.is_object()) << body;
  ASSERT_EQ(payload["sessions"].size(), 2u);
  const QVValue& first = payload["sessions"][0]["messages"];
  ASSERT_EQ(first.size(), 2u);
  EXPECT_EQ(first[0]["screen"], "Home");
  EXPECT_EQ(first[1]["screen"], "bad\xEF\xBF\xBD!");
  EXPECT_EQ(payload["sessions"][1]["id"], "S\xEF\xBF\xBD");
  EXPECT_NE(body.find(R"("w":2,"f":0.1,"e":1e+300,"z":0})"), std::string::npos) << body;
}

TEST_F(QVServerConnectionIntegrationTest, CookiesFromTheServerReturnInOneLineWithTheModules) {
  server_.addReply(test::QVTestReply::answer(200, {{"Set-Cookie", "sid=abc; Path=/"}}));
  EXPECT_TRUE(postAndWait("{}"));
  EXPECT_EQ(server_.request(0).headerCount("Cookie"), 0u);

  module_->cookie = "mod=1";
  EXPECT_TRUE(postAndWait("{}"));
  const auto sent = server_.request(1);
  ASSERT_EQ(sent.headerCount("Cookie"), 1u);
  const std::string cookie = *sent.header("Cookie");
  EXPECT_NE(cookie.find("sid=abc"), std::string::npos) << cookie;
  EXPECT_NE(cookie.find("mod=1"), std::string::npos) << cookie;
}

TEST_F(QVServerConnectionIntegrationTest, SecondPostWhileBusyFailsAtOnceAndTheFirstGoesOn) {
  server_.addReply(QVTestReply::of(QVTestReply::Kind::kHoldThenAnswer));
  auto first = queue(R"({"n":1})");
  auto second = queue(R"({"n":2})");
  post(first);
  ASSERT_TRUE(server_.waitForRequests(1));
  post(second);

  auto outcomes = delegate_->outcomes();
  ASSERT_EQ(outcomes.size(), 1u);
  EXPECT_FALSE(outcomes[0].succeeded);
  EXPECT_EQ(outcomes[0].queue, second);
  EXPECT_TRUE(connection_->isBusy());

  server_.release();
  ASSERT_TRUE(delegate_->waitForOutcomes(2));
  outcomes = delegate_->outcomes();
  EXPECT_TRUE(outcomes[1].succeeded);
  EXPECT_EQ(outcomes[1].queue, first);
  EXPECT_EQ(server_.requests().size(), 1u);
}

TEST_F(QVServerConnectionIntegrationTest, OutcomeCallbacksMayStartTheNextPost) {
  // As the queue service does: the next post starts on the callback thread.
  auto second = queue(R"({"n":2})");
  delegate_->onOutcome = [&](const test::QVRecordingDelegate::Outcome& outcome) {
    if (outcome.queue != second) post(second);
  };
  auto first = queue(R"({"n":1})");
  post(first);
  ASSERT_TRUE(delegate_->waitForOutcomes(2));
  EXPECT_TRUE(delegate_->outcomes()[1].succeeded);
  EXPECT_EQ(server_.request(1).body, R"({"n":2})");
}

TEST_F(QVServerConnectionIntegrationTest, BadInputGivesItsDefinedResult) {
  configureModule({{"PostMessageUrl", "not a url"}});
  EXPECT_FALSE(postAndWait("{}"));

  configureModule({{"URLEncoded", true}});
  EXPECT_FALSE(postAndWait("{not json"));
  EXPECT_EQ(server_.requests().size(), 0u);
}

TEST_F(QVServerConnectionIntegrationTest, FiftyMegabyteBodyArrivesWhole) {
  configureModule(QVValue::object(), 120);
  std::string json = R"({"blob":")";
  json.resize(50 * 1000 * 1000 - 2, 'q');
  json += "\"}";
  EXPECT_TRUE(postAndWait(json));

  const auto sent = server_.request(0);
  EXPECT_EQ(sent.headerCount("Expect"), 0u);
  EXPECT_EQ(sent.header("Content-Length"), std::to_string(json.size()));
  EXPECT_TRUE(sent.body == json);
}

}  // namespace
}  // namespace qv
