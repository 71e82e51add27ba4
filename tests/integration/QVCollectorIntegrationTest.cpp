// The library's own server connection (libcurl) posting real queues to the
// collector on 127.0.0.1, read back through the collector's JSON API.
#include <gtest/gtest.h>
#include <httplib.h>
#include <stdlib.h>

#include <sstream>

#include "QVCollectorServer.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/queue/QVServerConnection.h"
#include "support/QVConnectionTestSupport.h"
#include "support/QVTempFolder.h"

namespace qv::collector {
namespace {

class ScreenMessage : public QVMessage {
 public:
  explicit ScreenMessage(std::string screen) : screen_(std::move(screen)) {}
  QVValue jsonDictionary() const override {
    QVValue dict = QVMessage::jsonDictionary();
    dict["screen"] = screen_;
    return dict;
  }

 private:
  std::string screen_;
};

class QVCollectorIntegrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"}) {
      ::unsetenv(name);
    }
    QVCore::sharedInstance()->setUserAgentFromBrowser();
    port_ = server_.bind(0);
    ASSERT_GT(port_, 0);
    server_.start();
    connection_ = QVServerConnection::initWithDelegate(delegate_);
  }

  void configure(bool urlEncoded) {
    const std::string url = "http://127.0.0.1:" + std::to_string(port_) + "/collect";
    test::configure(*module_, {{"PostMessageUrl", url}, {"URLEncoded", urlEncoded}},
                    {{"PostMessageTimeout", 30}});
  }
  // A queue of the module with messages in two sessions.
  std::shared_ptr<QVQueue> queue(int messages) {
    auto queue = QVQueue::initForModule(module_);
    for (int i = 0; i < messages; ++i) {
      auto message = std::make_shared<ScreenMessage>("Screen " + std::to_string(i));
      message->setOffset(100 + i);
      queue->postMessageToSessionID(message, i % 2 ? "S-odd" : "S-even");
    }
    return queue;
  }
  void postAndWait(const std::shared_ptr<QVQueue>& queue) {
    const size_t before = delegate_->outcomes().size();
    const std::string url = "http://127.0.0.1:" + std::to_string(port_) + "/collect";
    connection_->postQueueToURL(queue, url);
    ASSERT_TRUE(delegate_->waitForOutcomes(before + 1));
    EXPECT_TRUE(delegate_->outcomes().back().succeeded);
  }
  QVValue api(const std::string& path) {
    httplib::Client client("127.0.0.1", port_);
    auto response = client.Get(path.c_str());
    EXPECT_TRUE(response && response->status == 200) << path;
    return response ? QVValue::parse(response->body) : QVValue();
  }

  test::QVTempFolder folder_;
  QVCollectorStore store_{folder_.at("collector.sqlite")};
  QVCollectorReplyPolicy policy_;
  std::ostringstream log_;
  QVCollectorServer server_{store_, policy_, log_};
  int port_ = 0;
  std::shared_ptr<test::QVPostingModule> module_ =
      std::make_shared<test::QVPostingModule>("CollectedModule", "");
  std::shared_ptr<test::QVRecordingDelegate> delegate_ =
      std::make_shared<test::QVRecordingDelegate>();
  std::shared_ptr<QVServerConnection> connection_;
};

TEST_F(QVCollectorIntegrationTest, GzipPlainAndUrlEncodedPostsArriveDecodedAndChecked) {
  configure(false);
  delegate_->rewrite = test::compressBody;
  postAndWait(queue(40));
  delegate_->rewrite = nullptr;
  postAndWait(queue(3));
  // What travels URL-encoded is one flat dictionary: a queue's nested
  // sessions are not URL text, so the library never builds that request.
  configure(true);
  postAndWait(QVQueue::initWithJSONAndModule(
      R"({"offset":7,"screen":"Check out & pay","ul":"a/b","n":5})", module_));

  // Newest first; what the module was asked with is the text that was sent.
  const QVValue list = api("/_qv/api/requests");
  ASSERT_EQ(list.size(), 3u) << log_.str();
  ASSERT_EQ(module_->askedJson.size(), 3u);
  const struct {
    std::string method, kind, encoding;
    int messages;
  } expected[] = {{"GET", "urlencoded", "identity", 1},
                  {"POST", "json", "identity", 3},
                  {"POST", "json", "gzip", 40}};
  for (size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(expected[i].encoding + " " + expected[i].kind);
    const QVValue brief = list[i];
    EXPECT_EQ(brief["method"], expected[i].method);
    EXPECT_EQ(brief["path"], "/collect");
    EXPECT_EQ(brief["kind"], expected[i].kind);
    EXPECT_EQ(brief["encoding"], expected[i].encoding);
    EXPECT_EQ(brief["messages"], expected[i].messages);
    EXPECT_EQ(brief["problem"], "");
    EXPECT_EQ(brief["status"], 200);

    const QVValue full = api("/_qv/api/requests/" + brief["id"].dump());
    EXPECT_EQ(full["payload"], QVValue::parse(module_->askedJson[2 - i]));
    bool libraryHeader = false;
    for (const auto& header : full["headers"]) libraryHeader |= header[0] == "X-QVCORE";
    EXPECT_TRUE(libraryHeader);
  }
  const QVValue gzip = list[2];
  EXPECT_LT(gzip["rawBytes"], gzip["decodedBytes"]);
  const QVValue summary = api("/_qv/api/summary");
  EXPECT_EQ(summary["requests"], 3);
  EXPECT_EQ(summary["messages"], 44);
}

}  // namespace
}  // namespace qv::collector
