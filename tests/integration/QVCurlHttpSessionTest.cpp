#include "platform/http/QVCurlHttpSession.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <cmath>
#include <future>

#include "qvcore/platform/QVFileSystem.h"
#include "support/QVTempFolder.h"
#include "support/QVTestHttpServer.h"

namespace qv {
namespace {

struct Outcome {
  std::optional<QVHttpResponse> response;
  std::optional<QVHttpError> error;
};

class QVCurlHttpSessionTest : public ::testing::Test {
 protected:
  static std::future<Outcome> send(QVCurlHttpSession& session, const QVMutableURLRequest& request) {
    auto promise = std::make_shared<std::promise<Outcome>>();
    session.dataTaskWithRequest(request, [promise](auto response, auto error) {
      promise->set_value(Outcome{std::move(response), std::move(error)});
    });
    return promise->get_future();
  }
  static Outcome await(std::future<Outcome> future) {
    EXPECT_EQ(future.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    return future.get();
  }

  test::QVTestHttpServer server_;
};

TEST_F(QVCurlHttpSessionTest, TimeOutIsTheRequestsSecondsRoundedUpAndAlwaysBounded) {
  EXPECT_EQ(QVCurlHttpSession::timeoutMilliseconds(1.0), 1000);
  EXPECT_EQ(QVCurlHttpSession::timeoutMilliseconds(0.0001), 1);  // never 0, which is no limit
  EXPECT_EQ(QVCurlHttpSession::timeoutMilliseconds(0), 60000);
  EXPECT_EQ(QVCurlHttpSession::timeoutMilliseconds(NAN), 60000);
  EXPECT_EQ(QVCurlHttpSession::timeoutMilliseconds(INFINITY), INT_MAX);
}

// A slow upload that keeps moving outlasts the time-out and succeeds; a
// transfer with nothing moving fails as timed out.
TEST_F(QVCurlHttpSessionTest, TimeOutLimitsTheTimeWithoutProgressNotTheWholeTransfer) {
  test::QVTestHttpServer slowReader(4096);
  slowReader.addReply(test::QVTestReply::of(test::QVTestReply::Kind::kTrickle));
  slowReader.addReply(test::QVTestReply::of(test::QVTestReply::Kind::kStall));
  QVCurlHttpSession session;
  QVMutableURLRequest request(slowReader.url("/slow"));
  request.setHTTPMethod("POST");
  request.setTimeoutInterval(0.5);
  // About 40 reads 40 ms apart: three times the time-out in all, each gap a
  // tenth of it or less, which leaves room for a loaded machine.
  const auto body = std::make_shared<const std::string>(40 * test::QVTestReply::kTrickleBytes, 'x');
  request.setHTTPBody(body);
  const Outcome slow = await(send(session, request));
  EXPECT_FALSE(slow.error) << slow.error->message;
  ASSERT_TRUE(slow.response);
  EXPECT_EQ(slow.response->statusCode, 200);
  EXPECT_EQ(slowReader.request(0).body.size(), body->size());

  const Outcome stalled = await(send(session, request));
  ASSERT_TRUE(stalled.error);
  EXPECT_EQ(stalled.error->code, CURLE_OPERATION_TIMEDOUT);
  EXPECT_FALSE(stalled.response);
}

TEST_F(QVCurlHttpSessionTest, DestroyingTheSessionCancelsWhatIsUnfinished) {
  server_.addReply(test::QVTestReply::of(test::QVTestReply::Kind::kStall));
  auto session = std::make_unique<QVCurlHttpSession>();
  auto future = send(*session, QVMutableURLRequest(server_.url("/stall")));
  ASSERT_TRUE(server_.waitForRequests(1));
  session.reset();
  EXPECT_EQ(await(std::move(future)).error.value_or(QVHttpError{}).code, QVHttpError::kCancelled);
}

// Cookies with an expiry survive a restart in the data folder; session
// cookies do not.
TEST_F(QVCurlHttpSessionTest, PersistentCookiesAreKeptInTheDataFolderAcrossARestart) {
  test::QVTempFolder folder;
  QVFileSystem::setHomeDirectory(folder.at("home"));
  server_.addReply(test::QVTestReply::answer(
      200, {{"Set-Cookie", "kept=1; Max-Age=3600; Path=/"}, {"Set-Cookie", "temp=2; Path=/"}}));
  {
    QVCurlHttpSession first;
    await(send(first, QVMutableURLRequest(server_.url("/set"))));
    await(send(first, QVMutableURLRequest(server_.url("/same"))));
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
  await(send(restarted, QVMutableURLRequest(server_.url("/after"))));
  EXPECT_EQ(server_.request(2).header("Cookie").value_or(""), "kept=1");
  QVFileSystem::setHomeDirectory("");
}

TEST_F(QVCurlHttpSessionTest, UnsafeHeadersAndSchemesAreLeftOutAndCookieHandlingCanBeOff) {
  server_.addReply(test::QVTestReply::answer(418, {{"Set-Cookie", "sid=abc; Path=/"}}));
  QVCurlHttpSession session;
  QVMutableURLRequest request(server_.url("/h"));
  request.setValueForHTTPHeaderField("v\r\nX-Injected: 1", "X-Split");
  request.setValueForHTTPHeaderField("v", "Bad Name");
  request.setValueForHTTPHeaderField("", "X-Empty");
  request.setHTTPShouldHandleCookies(false);
  const Outcome first = await(send(session, request));
  ASSERT_TRUE(first.response);
  EXPECT_FALSE(first.error);
  EXPECT_EQ(first.response->statusCode, 418);
  EXPECT_EQ(first.response->valueForHTTPHeaderField("set-cookie"), "sid=abc; Path=/");
  await(send(session, request));

  const auto sent = server_.request(1);
  EXPECT_EQ(sent.headers.size(), 2u);  // Host and X-Empty
  EXPECT_EQ(sent.header("X-Empty"), "");
  EXPECT_EQ(sent.headerCount("Cookie"), 0u);  // the store was not used

  const Outcome file = await(send(session, QVMutableURLRequest("file:///etc/hostname")));
  EXPECT_FALSE(file.response);
  EXPECT_TRUE(file.error) << "only http and https are fetched";
}

}  // namespace
}  // namespace qv
