// The collector as a server: what it answers, what it keeps of each request,
// and what "dump" prints back from the file.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>
#include <sstream>
#include <thread>

#include "QVCollectorDump.h"
#include "QVCollectorOptions.h"
#include "QVCollectorServer.h"
#include "qvcore/queue/QVDataCompression.h"
#include "support/QVTempFolder.h"

namespace qv::collector {
namespace {

const std::string kPayload =
    R"({"messageVersion":"6.0.0.0","serialNumber":4,"sessions":[{"id":"S1","startTime":1700000000000,)"
    R"("clientEnvironment":{"osType":"Linux"},"messages":[{"offset":1,"screen":"Home"},{"offset":2}]}]})";

// A request written byte for byte, answered on a connection of its own.
std::string sendRaw(int port, const std::string& bytes) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  timeval bound{30, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
  std::string answer;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size())) {
    char buffer[4096];
    for (ssize_t got; (got = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) answer.append(buffer, got);
  }
  ::close(fd);
  return answer;
}

class QVCollectorServerTest : public ::testing::Test {
 protected:
  void start(QVCollectorReplyPolicy& policy) {
    server_ = std::make_unique<QVCollectorServer>(*store_, policy, log_);
    port_ = server_->bind(0);
    ASSERT_GT(port_, 0);
    server_->start();
  }
  httplib::Client client() const { return httplib::Client("127.0.0.1", port_); }
  QVCollectorRecord record(int64_t id) const {
    auto found = store_->find(id);
    EXPECT_TRUE(found) << id;
    return found.value_or(QVCollectorRecord{});
  }

  test::QVTempFolder folder_;
  std::string path_ = folder_.at("collector.sqlite");
  std::unique_ptr<QVCollectorStore> store_ = std::make_unique<QVCollectorStore>(path_);
  std::ostringstream log_;
  std::unique_ptr<QVCollectorServer> server_;
  int port_ = 0;
};

TEST_F(QVCollectorServerTest, FailFirstAnswers500ThenTheChosenStatusAndOwnPagesAreNotKept) {
  QVCollectorReplyPolicy policy(302, 2);
  start(policy);
  auto http = client();
  std::vector<int> answered;
  for (int i = 0; i < 4; ++i) {
    auto response = http.Post("/collect", kPayload, "text/json");
    ASSERT_TRUE(response);
    answered.push_back(response->status);
    EXPECT_FALSE(response->has_header("Location"));
  }
  EXPECT_EQ(answered, (std::vector<int>{500, 500, 302, 302}));
  for (const char* own :
       {"/_qv/", "/_qv/api/requests", "/_qv/api/summary", "/_qv/api/requests/1"}) {
    auto response = http.Get(own);
    ASSERT_TRUE(response) << own;
    EXPECT_EQ(response->status, 200) << own;
  }
  EXPECT_EQ(http.Get("/_qv/api/requests/99")->status, 404);

  auto list = QVValue::parse(http.Get("/_qv/api/requests")->body);
  ASSERT_EQ(list.size(), 4u);
  std::vector<int> stored;
  for (const auto& entry : list) stored.push_back(entry["status"]);
  EXPECT_EQ(stored, (std::vector<int>{302, 302, 500, 500}));  // newest first
  EXPECT_EQ(list[0]["id"], 4);
  EXPECT_EQ(list[0]["messages"], 2);
  EXPECT_EQ(list[0]["ok"], true);
}

TEST_F(QVCollectorServerTest, EveryRequestIsKeptWithItsHeadersInOrderAndItsBodyUntouched) {
  QVCollectorReplyPolicy policy;
  start(policy);
  // A gzip header, then a deflate block of the reserved type.
  const std::string garbage = std::string("\x1f\x8b\x08\0\0\0\0\0\0\x03\xff garbage", 18);
  EXPECT_EQ(sendRaw(port_,
                    "POST /p?x=1 HTTP/1.1\r\nhost: here\r\nZeta: 1\r\nContent-Encoding: gzip\r\n"
                    "Content-Type: application/x-www-form-urlencoded\r\nAlpha:  2 \r\n"
                    "Alpha: 3\r\nContent-Length: " +
                        std::to_string(garbage.size()) + "\r\nConnection: close\r\n\r\n" + garbage)
                .substr(0, 15),
            "HTTP/1.1 200 OK");
  for (const char* method : {"PUT", "DELETE", "OPTIONS", "TRACE"}) {
    sendRaw(port_, std::string(method) +
                       " /m HTTP/1.1\r\nHost: h\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
  }
  const std::string longQuery(9000, 'q');
  sendRaw(port_, "GET /long?" + longQuery + " HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n");
  server_->stop();

  const QVCollectorRecord first = record(1);
  EXPECT_EQ(first.request.headers,
            (QVCollectorRequest::Headers{{"host", "here"},
                                         {"Zeta", "1"},
                                         {"Content-Encoding", "gzip"},
                                         {"Content-Type", "application/x-www-form-urlencoded"},
                                         {"Alpha", "2"},
                                         {"Alpha", "3"},
                                         {"Content-Length", std::to_string(garbage.size())},
                                         {"Connection", "close"}}));
  EXPECT_EQ(first.request.body, garbage);
  EXPECT_EQ(first.request.path + "?" + first.request.query, "/p?x=1");
  EXPECT_EQ(first.decoded.problem, "gzip stream is damaged");
  EXPECT_EQ(first.status, 200);

  std::vector<std::string> methods;
  for (int64_t id = 2; id <= 6; ++id) methods.push_back(record(id).request.method);
  EXPECT_EQ(methods, (std::vector<std::string>{"PUT", "DELETE", "OPTIONS", "TRACE", "GET"}));
  EXPECT_EQ(record(5).decoded.kind, "refused");
  const QVCollectorRecord tooLong = record(6);
  EXPECT_EQ(tooLong.decoded.kind, "refused");
  EXPECT_EQ(tooLong.status, 414);
  EXPECT_EQ(tooLong.request.query, longQuery);
  EXPECT_FALSE(store_->find(7));
}

TEST_F(QVCollectorServerTest, PostsFromManyThreadsAreAllKept) {
  QVCollectorReplyPolicy policy(200, 5);
  start(policy);
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([this] {
      auto http = client();
      for (int i = 0; i < 10; ++i) EXPECT_TRUE(http.Post("/c", kPayload, "text/json"));
    });
  }
  for (auto& thread : threads) thread.join();
  server_->stop();
  const auto records = store_->recent(1000);
  std::set<int64_t> ids;
  int failed = 0;
  for (const auto& each : records) {
    ids.insert(each.id);
    failed += each.status == 500;
  }
  EXPECT_EQ(ids.size(), 60u);
  EXPECT_EQ(failed, 5);
  EXPECT_EQ(store_->summary().messages, 120);
}

TEST_F(QVCollectorServerTest, DumpReadsEveryRequestBackFromTheFile) {
  QVCollectorReplyPolicy policy;
  start(policy);
  auto http = client();
  const std::string gzip =
      *QVDataCompression::compressData(std::make_shared<std::string>(kPayload));
  ASSERT_TRUE(http.Post("/c", {{"Content-Encoding", "gzip"}}, gzip, "text/json"));
  const std::string query = "offset=9&screen=Two%20Words";
  ASSERT_TRUE(http.Get("/c?" + query));
  server_->stop();
  store_.reset();

  const QVCollectorStore reopened(path_, QVCollectorStore::Mode::kExisting);
  std::ostringstream text, json, summary;
  QVCollectorDump::print(reopened, QVCollectorDump::Format::kText, text);
  QVCollectorDump::print(reopened, QVCollectorDump::Format::kJson, json);
  QVCollectorDump::print(reopened, QVCollectorDump::Format::kSummary, summary);

  const std::string lines = text.str();
  for (const std::string& expected :
       {"  decoded: json (gzip), 2 messages, " + std::to_string(gzip.size()) + " bytes raw, " +
            std::to_string(kPayload.size()) + " decoded\n",
        std::string("  check: ok\n"), std::string("    Content-Encoding: gzip\n"),
        std::string("    session \"S1\""),
        std::string("        {\"offset\":1,\"screen\":\"Home\"}\n"),
        std::string("    screen = Two Words\n")}) {
    EXPECT_NE(lines.find(expected), std::string::npos) << expected << "\nin:\n" << lines;
  }
  const QVValue all = QVValue::parse(json.str());
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0]["id"], 1);
  EXPECT_EQ(all[0]["payload"], QVValue::parse(kPayload));
  EXPECT_EQ(all[1]["payload"], (QVValue{{"offset", 9}, {"screen", "Two Words"}}));
  EXPECT_EQ(summary.str(),
            "requests: 2\nmessages: 3\nbytes on the wire: " +
                std::to_string(gzip.size() + query.size()) + "\nbytes after decoding: " +
                std::to_string(kPayload.size() + all[1]["payload"].dump().size()) + "\n");
  EXPECT_THROW(QVCollectorStore(folder_.at("missing.sqlite"), QVCollectorStore::Mode::kExisting),
               std::runtime_error);
}

TEST(QVCollectorOptionsTest, CommandLineAndDefaultDatabase) {
  std::string error;
  auto parse = [&error](std::vector<const char*> words) {
    words.insert(words.begin(), "qvcore-collector");
    error.clear();
    return QVCollectorOptions::parse(static_cast<int>(words.size()),
                                     const_cast<char**>(words.data()), error);
  };
  auto serve = parse({"--port", "8080", "--status", "503", "--fail-first", "3", "--delay", "10"});
  ASSERT_TRUE(serve) << error;
  EXPECT_EQ(serve->port, 8080);
  EXPECT_EQ(serve->status, 503);
  EXPECT_EQ(serve->failFirst, 3);
  EXPECT_EQ(serve->delayMs, 10);
  auto dump = parse({"dump", "--db", "x.sqlite", "--json"});
  ASSERT_TRUE(dump);
  EXPECT_EQ(dump->command, QVCollectorOptions::Command::kDump);
  EXPECT_EQ(dump->database, "x.sqlite");
  EXPECT_TRUE(dump->json);
  for (auto bad : std::vector<std::vector<const char*>>{{"--port", "70000"},
                                                        {"--status", "99"},
                                                        {"--status"},
                                                        {"--delay", "-1"},
                                                        {"dump", "--port", "1"},
                                                        {"dump", "--json", "--summary"},
                                                        {"--db", ""}}) {
    EXPECT_FALSE(parse(bad)) << bad[0];
    EXPECT_FALSE(error.empty());
  }

  ::setenv("QVCORE_HOME", "/q", 1);
  ::setenv("XDG_DATA_HOME", "/x", 1);
  ::setenv("HOME", "/h", 1);
  EXPECT_EQ(QVCollectorOptions::defaultDatabase(), "/q/collector.sqlite");
  ::unsetenv("QVCORE_HOME");
  EXPECT_EQ(QVCollectorOptions::defaultDatabase(), "/x/qvcore-collector/collector.sqlite");
  ::unsetenv("XDG_DATA_HOME");
  EXPECT_EQ(QVCollectorOptions::defaultDatabase(),
            "/h/.local/share/qvcore-collector/collector.sqlite");
}

}  // namespace
}  // namespace qv::collector
