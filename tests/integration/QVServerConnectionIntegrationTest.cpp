// QVServerConnection over the real libcurl session against a real server on
// 127.0.0.1: what arrives on the wire, and how every outcome is reported;
// and the libcurl session's own time-out, cancelling, cookies and checks.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <cmath>
#include <future>

#include "platform/http/QVCurlHttpSession.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVCookieProvider.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/core/QVHttpHeadersProvider.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/platform/QVFileSystem.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/queue/QVConnectionDelegate.h"
#include "qvcore/queue/QVQueueService.h"
#include "qvcore/queue/QVServerConnection.h"
#include "support/QVGzip.h"
#include "support/QVTempFolder.h"
#include "support/QVTestHttpServer.h"
#include "support/QVTestModule.h"

namespace qv {
namespace {

using namespace std::chrono_literals;
using Headers = std::vector<std::pair<std::string, std::string>>;
using test::QVTestReply;

// A module with headers and cookies of its own for each post.
struct PostingModule : test::QVTestModule, QVHttpHeadersProvider, QVCookieProvider {
  using QVTestModule::QVTestModule;
  QVValue httpHeadersForSessionIdAndJson(const std::string& sessionId,
                                         const std::string&) override {
    std::lock_guard lock(mutex);
    askedSessionIds.push_back(sessionId);
    return headers;
  }
  void addCookiesToRequest(QVMutableURLRequest& request) override {
    if (!cookie.empty()) request.setValueForHTTPHeaderField(cookie, "Cookie");
  }
  QVValue headers = QVValue::object();
  std::string cookie;
  std::vector<std::string> askedSessionIds;
  std::mutex mutex;
};

// Records the outcomes of a connection, which may arrive on another thread.
struct RecordingDelegate : QVConnectionDelegate {
  using Outcome = std::pair<std::shared_ptr<QVQueue>, bool>;  // the queue, and success
  void flushCompletedForQueue(const std::shared_ptr<QVQueue>& queue) override {
    record({queue, true});
  }
  void flushFailedForQueue(const std::shared_ptr<QVQueue>& queue) override {
    record({queue, false});
  }
  std::shared_ptr<QVMutableURLRequest> beforeFlushingRequestForQueue(
      const std::shared_ptr<QVMutableURLRequest>& request,
      const std::shared_ptr<QVQueue>&) override {
    return rewrite ? rewrite(request) : nullptr;
  }
  std::vector<Outcome> outcomes() const {
    std::lock_guard lock(mutex);
    return recorded;
  }
  bool waitForOutcomes(size_t count) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 30s, [&] { return recorded.size() >= count; });
  }
  void record(Outcome outcome) {
    if (onOutcome) onOutcome(outcome);  // on the thread that reports it
    std::lock_guard lock(mutex);
    recorded.push_back(std::move(outcome));
    changed.notify_all();
  }

  std::function<std::shared_ptr<QVMutableURLRequest>(const std::shared_ptr<QVMutableURLRequest>&)>
      rewrite;
  std::function<void(const Outcome&)> onOutcome;
  mutable std::mutex mutex;
  std::condition_variable changed;
  std::vector<Outcome> recorded;
};

class QVServerConnectionIntegrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QVCore::sharedInstance()->setUserAgentFromBrowser();
    configureModule(QVValue::object());
    connection_ = QVServerConnection::initWithDelegate(delegate_);
  }

  // The module's items, with "PostMessageUrl" the server's unless given.
  void configureModule(QVValue items, const QVValue& core = {{"PostMessageTimeout", 10}}) {
    if (!items.contains("PostMessageUrl")) items["PostMessageUrl"] = server_.url("/collect");
    QVConfigService::sharedInstance()->setConfigurations(
        {{"QVCore", std::make_shared<QVValue>(core)},
         {module_->className(), std::make_shared<QVValue>(items)}});
  }
  std::shared_ptr<QVQueue> queue(std::string json) {
    return QVQueue::initWithJSONAndModule(std::move(json), module_);
  }
  // Posts as the queue service does: to the module's "PostMessageUrl".
  void post(const std::shared_ptr<QVQueue>& queue) {
    const auto config = QVConfigService::sharedInstance();
    const auto url = config->getConfigItemForLifecycleObject("PostMessageUrl", module_);
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
    EXPECT_EQ(outcomes.back().first, posted);
    EXPECT_FALSE(connection_->isBusy());
    return outcomes.back().second;
  }
  struct Outcome {
    std::optional<QVHttpResponse> response;
    std::optional<QVHttpError> error;
  };
  // Sends on a session of the test's own and waits for the outcome.
  static Outcome send(QVCurlHttpSession& session, const QVMutableURLRequest& request) {
    return await(start(session, request));
  }
  static std::future<Outcome> start(QVCurlHttpSession& session,
                                    const QVMutableURLRequest& request) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    session.dataTaskWithRequest(request, [promise](auto response, auto error) {
      promise->set_value(Outcome{std::move(response), std::move(error)});
    });
    return promise->get_future();
  }
  static Outcome await(std::future<Outcome> future) {
    EXPECT_EQ(future.wait_for(30s), std::future_status::ready);
    return future.get();
  }
  Headers fixedHeaders() const {
    return {{"Host", "127.0.0.1:" + std::to_string(server_.port())},
            {"User-Agent", QVCore::sharedInstance()->getUserAgentFromBrowser()},
            {"X-QVCORE", "Lib/2.0.0.81"}};
  }

  test::QVTestHttpServer server_;
  std::shared_ptr<PostingModule> module_ = std::make_shared<PostingModule>("WireModule", "");
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  std::shared_ptr<QVServerConnection> connection_;
};

// The queue service's own rewrite compresses; what must arrive follows the
// rule as stated here, with zlib itself: the gzip form when strictly shorter.
TEST_F(QVServerConnectionIntegrationTest, JsonPostCarriesItsHeadersTheShorterBodyAndCookies) {
  configureModule(QVValue::object(), {{"CompressPostMessage", true}});
  delegate_->rewrite = [](const std::shared_ptr<QVMutableURLRequest>& request) {
    return QVQueueService::sharedInstance()->beforeFlushingRequestForQueue(request, nullptr);
  };
  // Scalars are written plain and replace a fixed header of the same name;
  // other values are left out.
  module_->headers = QVValue::parse(
      R"({"content-type":"application/json","X-Count":5,"X-Ratio":2.5,"X-Whole":2.0,"X-Flag":true,
          "X-List":[1],"X-Dict":{"a":1},"X-None":null})");
  // 399 is the last status that counts as delivered (400 is a row of the
  // fault matrix).
  server_.addReply(QVTestReply::answer(399, {{"Set-Cookie", "sid=abc; Path=/"}}));
  std::string large = R"({"sessions":[)";
  for (int i = 0; i < 200; ++i) large += R"({"screen":"Checkout","n":)" + std::to_string(i) + "},";
  large.back() = ']';
  const std::vector<std::string> bodies = {large + "}", "{}"};
  for (size_t i = 0; i < bodies.size(); ++i) {
    SCOPED_TRACE(bodies[i].size());
    module_->cookie = i == 0 ? "" : "mod=1";
    EXPECT_TRUE(postAndWait(bodies[i]));
    auto sent = server_.request(i);
    EXPECT_EQ(sent.method + " " + sent.target + " " + sent.version, "POST /collect HTTP/1.1");
    const std::string gzipped = test::gzip(bodies[i]);
    const bool shorter = gzipped.size() < bodies[i].size();
    EXPECT_EQ(sent.body, shorter ? gzipped : bodies[i]);
    Headers expected = fixedHeaders();
    expected.insert(expected.begin() + 1, {{"Accept", "*/*"},
                                           {"Accept-Encoding", "gzip, deflate"},
                                           {"content-type", "application/json"},
                                           {"Content-Length", std::to_string(sent.body.size())}});
    expected.insert(expected.end(),
                    {{"X-Count", "5"}, {"X-Ratio", "2.5"}, {"X-Whole", "2"}, {"X-Flag", "1"}});
    if (shorter) expected.emplace_back("Content-Encoding", "gzip");
    // The server's cookie comes back in one line with the module's.
    const std::string cookie = sent.header("Cookie").value_or("");
    EXPECT_TRUE(i == 0 ? cookie.empty() : cookie == "mod=1; sid=abc" || cookie == "sid=abc; mod=1")
        << cookie;
    std::erase_if(sent.headers, [](const auto& header) { return header.first == "Cookie"; });
    EXPECT_EQ(sent.headers, expected);
  }
  // Asked with the session of the queue, which is the core's.
  EXPECT_EQ(module_->askedSessionIds,
            std::vector<std::string>(2, QVCore::sharedInstance()->currentSessionID()));
}

// A bodiless GET with only its fixed headers, the query after the URL's own
// (how values are escaped, and that the collector reads them back, is for
// the encoder's and the decoder's own tests).
TEST_F(QVServerConnectionIntegrationTest, UrlEncodedPostIsABodilessGetAndBadPayloadsFailAtOnce) {
  module_->headers = QVValue::array({"X-Not", "a dictionary"});  // ignored
  configureModule({{"URLEncoded", true}, {"PostMessageUrl", server_.url("/collect?k=1")}});
  EXPECT_TRUE(postAndWait(R"({"screen":"Home Page","n":5,"ul":"a/b"})"));
  const auto sent = server_.request(0);
  EXPECT_EQ(sent.method + " " + sent.path(), "GET /collect");
  EXPECT_EQ(sent.query(), "k=1?screen=Home%20Page&n=5&ul=a/b");
  EXPECT_EQ(sent.headers, fixedHeaders());
  EXPECT_TRUE(sent.body.empty());

  // Bad input fails without reaching the server: a payload that is no
  // dictionary or has nothing to encode (a nested value travels escaped).
  for (const char* bad : {"{not json", "[1,2]", "{}"}) EXPECT_FALSE(postAndWait(bad)) << bad;
  configureModule({{"PostMessageUrl", "not a url"}});
  EXPECT_FALSE(postAndWait("{}"));
  EXPECT_EQ(server_.requests().size(), 1u);
}

// A post while busy fails at once and the first goes on; an outcome
// callback may start the next post on its own thread, as the queue service's does.
TEST_F(QVServerConnectionIntegrationTest, PostWhileBusyFailsAtOnceAndCallbacksMayPostAgain) {
  server_.addReply(QVTestReply::of(QVTestReply::Kind::kHoldThenAnswer));
  auto first = queue(R"({"n":1})"), second = queue(R"({"n":2})"), third = queue(R"({"n":3})");
  delegate_->onOutcome = [&](const RecordingDelegate::Outcome& outcome) {
    if (outcome.first == first) post(third);
  };
  post(first);
  ASSERT_TRUE(server_.waitForRequests(1));
  post(second);
  EXPECT_TRUE(connection_->isBusy());
  server_.release();
  ASSERT_TRUE(delegate_->waitForOutcomes(3));
  EXPECT_EQ(delegate_->outcomes(), (std::vector<RecordingDelegate::Outcome>{
                                       {second, false}, {first, true}, {third, true}}));
  ASSERT_EQ(server_.requests().size(), 2u);
  EXPECT_EQ(server_.request(1).body, R"({"n":3})");
}

// A failure after the connection became busy leaves it busy: no outcome
// comes to clear it, and later posts are refused as while one is in flight.
TEST_F(QVServerConnectionIntegrationTest, ARewriteThatThrowsLeavesTheConnectionBusy) {
  delegate_->rewrite = [](const auto&) -> std::shared_ptr<QVMutableURLRequest> {
    throw std::runtime_error("rewrite failed");
  };
  EXPECT_NO_THROW(post(queue("{}")));
  EXPECT_TRUE(connection_->isBusy());
  EXPECT_TRUE(delegate_->outcomes().empty());
  const auto refused = queue("{}");
  post(refused);
  EXPECT_EQ(delegate_->outcomes(), (std::vector<RecordingDelegate::Outcome>{{refused, false}}));
  EXPECT_TRUE(server_.requests().empty());
}

// The connection holds neither its delegate nor its queue.
TEST_F(QVServerConnectionIntegrationTest, AnOutcomeWithNobodyToTellOnlyClearsBusy) {
  server_.addReply(QVTestReply::of(QVTestReply::Kind::kHoldThenAnswer));
  post(queue("{}"));
  ASSERT_TRUE(server_.waitForRequests(1));
  EXPECT_EQ(connection_->currentQueue(), nullptr);
  delegate_.reset();
  server_.release();
  EXPECT_TRUE(QVRunLoop::main().runUntil([&] { return !connection_->isBusy(); }, 30s));
}

// libcurl would ask a server before sending a body past a megabyte.
TEST_F(QVServerConnectionIntegrationTest, ALargeBodyGoesOutWholeWithoutWaitingForAContinue) {
  const std::string json = R"({"blob":")" + std::string(2 << 20, 'q') + "\"}";
  EXPECT_TRUE(postAndWait(json));
  const auto sent = server_.request(0);
  EXPECT_EQ(sent.headerCount("Expect"), 0u);
  EXPECT_TRUE(sent.body == json);
}

TEST_F(QVServerConnectionIntegrationTest, TimeOutIsTheRequestsSecondsRoundedUpAndAlwaysBounded) {
  EXPECT_EQ(QVCurlHttpSession::timeoutMilliseconds(1.0), 1000);
  EXPECT_EQ(QVCurlHttpSession::timeoutMilliseconds(0.0001), 1);  // never 0, which is no limit
  EXPECT_EQ(QVCurlHttpSession::timeoutMilliseconds(0), 60000);
  EXPECT_EQ(QVCurlHttpSession::timeoutMilliseconds(NAN), 60000);
  EXPECT_EQ(QVCurlHttpSession::timeoutMilliseconds(INFINITY), INT_MAX);
}

// A slow upload that keeps moving outlasts the time-out and succeeds; a
// transfer with nothing moving fails as timed out.
TEST_F(QVServerConnectionIntegrationTest, TimeOutLimitsTheTimeWithoutProgressNotTheWholeTransfer) {
  test::QVTestHttpServer slowReader(4096);
  slowReader.addReply(QVTestReply::of(QVTestReply::Kind::kTrickle));
  slowReader.addReply(QVTestReply::of(QVTestReply::Kind::kStall));
  QVCurlHttpSession session;
  QVMutableURLRequest request(slowReader.url("/slow"));
  request.setHTTPMethod("POST");
  request.setTimeoutInterval(0.5);
  // About 40 reads 40 ms apart: three times the time-out in all, each gap a
  // tenth of it or less, which leaves room for a loaded machine.
  const auto body = std::make_shared<const std::string>(40 * QVTestReply::kTrickleBytes, 'x');
  request.setHTTPBody(body);
  const Outcome slow = send(session, request);
  EXPECT_FALSE(slow.error) << slow.error->message;
  ASSERT_TRUE(slow.response);
  EXPECT_EQ(slow.response->statusCode, 200);
  EXPECT_EQ(slowReader.request(0).body.size(), body->size());

  const Outcome stalled = send(session, request);
  ASSERT_TRUE(stalled.error);
  EXPECT_EQ(stalled.error->code, CURLE_OPERATION_TIMEDOUT);
  EXPECT_FALSE(stalled.response);
}

TEST_F(QVServerConnectionIntegrationTest, DestroyingTheSessionCancelsWhatIsUnfinished) {
  server_.addReply(QVTestReply::of(QVTestReply::Kind::kStall));
  auto session = std::make_unique<QVCurlHttpSession>();
  auto future = start(*session, QVMutableURLRequest(server_.url("/stall")));
  ASSERT_TRUE(server_.waitForRequests(1));
  session.reset();
  EXPECT_EQ(await(std::move(future)).error.value_or(QVHttpError{}).code, QVHttpError::kCancelled);
}

// Cookies with an expiry survive a restart in the data folder; session
// cookies do not.
TEST_F(QVServerConnectionIntegrationTest, PersistentCookiesAreKeptInTheDataFolderAcrossARestart) {
  test::QVTempFolder folder;
  QVFileSystem::setHomeDirectory(folder.at("home"));
  server_.addReply(QVTestReply::answer(
      200, {{"Set-Cookie", "kept=1; Max-Age=3600; Path=/"}, {"Set-Cookie", "temp=2; Path=/"}}));
  {
    QVCurlHttpSession first;
    send(first, QVMutableURLRequest(server_.url("/set")));
    send(first, QVMutableURLRequest(server_.url("/same")));
    const std::string both = server_.request(1).header("Cookie").value_or("");
    EXPECT_TRUE(both == "kept=1; temp=2" || both == "temp=2; kept=1") << both;
  }
  struct stat file {
  }, home{};
  ASSERT_EQ(::stat(folder.at("home/QVCoreCookies.txt").c_str(), &file), 0);
  ASSERT_EQ(::stat(folder.at("home").c_str(), &home), 0);
  EXPECT_EQ(file.st_mode & 0777, 0600u);
  EXPECT_EQ(home.st_mode & 0777, 0700u);

  QVCurlHttpSession restarted;
  send(restarted, QVMutableURLRequest(server_.url("/after")));
  EXPECT_EQ(server_.request(2).header("Cookie").value_or(""), "kept=1");
  QVFileSystem::setHomeDirectory("");
}

TEST_F(QVServerConnectionIntegrationTest,
       UnsafeHeadersAndSchemesAreLeftOutAndCookieHandlingCanBeOff) {
  server_.addReply(QVTestReply::answer(418, {{"Set-Cookie", "sid=abc; Path=/"}}));
  QVCurlHttpSession session;
  QVMutableURLRequest request(server_.url("/h"));
  request.setValueForHTTPHeaderField("v\r\nX-Injected: 1", "X-Split");
  request.setValueForHTTPHeaderField("v", "Bad Name");
  request.setValueForHTTPHeaderField("", "X-Empty");
  request.setHTTPShouldHandleCookies(false);
  const Outcome first = send(session, request);
  ASSERT_TRUE(first.response);
  EXPECT_FALSE(first.error);
  EXPECT_EQ(first.response->statusCode, 418);
  EXPECT_EQ(first.response->valueForHTTPHeaderField("set-cookie"), "sid=abc; Path=/");
  send(session, request);

  const auto sent = server_.request(1);
  EXPECT_EQ(sent.headers.size(), 2u);  // Host and X-Empty
  EXPECT_EQ(sent.header("X-Empty"), "");
  EXPECT_EQ(sent.headerCount("Cookie"), 0u);  // the store was not used

  const Outcome file = send(session, QVMutableURLRequest("file:///etc/hostname"));
  EXPECT_FALSE(file.response);
  EXPECT_TRUE(file.error) << "only http and https are fetched";
}

}  // namespace
}  // namespace qv
