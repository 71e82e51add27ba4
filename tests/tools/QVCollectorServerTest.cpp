// The collector as a server: what it answers, what it keeps of each request,
// and what "dump" prints back from the file.
#include <gtest/gtest.h>
#include <httplib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sqlite3.h>
#include <sys/stat.h>

#include <atomic>
#include <set>
#include <sstream>
#include <thread>

#include "QVCollectorDump.h"
#include "QVCollectorOptions.h"
#include "QVCollectorServer.h"
#include "qvcore/queue/QVDataCompression.h"
#include "support/QVLoopback.h"
#include "support/QVTempFolder.h"

namespace qv::collector {
namespace {

const std::string kPayload =
    R"({"messageVersion":"6.0.0.0","serialNumber":4,"sessions":[{"id":"S1","startTime":1700000000000,)"
    R"("clientEnvironment":{"osType":"Linux"},"messages":[{"offset":1,"screen":"Home"},{"offset":2}]}]})";

using test::connectLoopback;
const auto sendRaw = test::exchange;

std::string statusLine(const std::string& answer) { return answer.substr(0, answer.find('\r')); }

// The SQL run on the collector's file through a connection of its own.
void runSql(const std::string& path, const char* sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

class QVCollectorServerTest : public ::testing::Test {
 protected:
  void start(QVCollectorReplyPolicy& policy, QVCollectorLimits limits = {}) {
    server_ = std::make_unique<QVCollectorServer>(*store_, policy, log_, std::move(limits));
    port_ = server_->bind(0);
    ASSERT_GT(port_, 0);
    server_->start();
  }
  httplib::Client client() const { return httplib::Client("127.0.0.1", port_); }
  std::string host() const { return "Host: 127.0.0.1:" + std::to_string(port_) + "\r\n"; }
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
  EXPECT_EQ(
      sendRaw(port_, "POST /p?x=1 HTTP/1.1\r\nhost: localhost:" + std::to_string(port_) +
                         "\r\nZeta: 1\r\nContent-Encoding: gzip\r\n"
                         "Content-Type: application/x-www-form-urlencoded\r\nAlpha:  2 \r\n"
                         "Alpha: 3\r\nContent-Length: " +
                         std::to_string(garbage.size()) + "\r\nConnection: close\r\n\r\n" + garbage)
          .substr(0, 15),
      "HTTP/1.1 200 OK");
  for (const char* method : {"PUT", "DELETE", "OPTIONS", "TRACE"}) {
    sendRaw(port_, std::string(method) + " /m HTTP/1.1\r\n" + host() +
                       "Content-Length: 0\r\nConnection: close\r\n\r\n");
  }
  const std::string longQuery(9000, 'q');
  sendRaw(port_, "GET /long?" + longQuery + " HTTP/1.1\r\n" + host() + "Connection: close\r\n\r\n");
  server_->stop();

  const QVCollectorRecord first = record(1);
  EXPECT_EQ(first.request.headers,
            (QVCollectorRequest::Headers{{"host", "localhost:" + std::to_string(port_)},
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
  QVCollectorReplyPolicy policy(200, 1);
  start(policy);
  auto http = client();
  const std::string gzip =
      *QVDataCompression::compressData(std::make_shared<std::string>(kPayload));
  ASSERT_TRUE(http.Post("/c", {{"Content-Encoding", "gzip"}}, gzip, "text/json"));
  const std::string query = "offset=9&screen=Two%20Words";
  ASSERT_TRUE(http.Get("/c?" + query));
  ASSERT_TRUE(http.Get("/clicks?offset=10"));
  const std::string served = http.Get("/_qv/api/summary")->body;
  server_->stop();
  store_.reset();

  const QVCollectorStore reopened(path_, QVCollectorStore::Mode::kExisting);
  std::ostringstream text, json, summary, summaryJson;
  QVCollectorDump::print(reopened, QVCollectorDump::Format::kText, text);
  QVCollectorDump::print(reopened, QVCollectorDump::Format::kJson, json);
  QVCollectorDump::print(reopened, QVCollectorDump::Format::kSummary, summary);
  QVCollectorDump::print(reopened, QVCollectorDump::Format::kSummaryJson, summaryJson);

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
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0]["id"], 1);
  EXPECT_EQ(all[0]["payload"], QVValue::parse(kPayload));
  EXPECT_EQ(all[1]["payload"], (QVValue{{"offset", 9}, {"screen", "Two Words"}}));
  const int64_t raw = static_cast<int64_t>(gzip.size() + query.size());
  const int64_t decoded = static_cast<int64_t>(kPayload.size() + all[1]["payload"].dump().size());
  const int64_t clicks = all[2]["payload"].dump().size();
  EXPECT_EQ(summary.str(),
            "requests: 3\nmessages: 4\nbytes on the wire: " + std::to_string(raw + 9) +
                "\nbytes after decoding: " + std::to_string(decoded + clicks) +
                "\nmodule /c: 2 requests, 3 messages; answered 2xx: 1 requests,"
                " 1 messages\nmodule /clicks: 1 requests, 1 messages; answered 2xx:"
                " 1 requests, 1 messages\n");
  // The page's summary and dump's give the same totals, per module too.
  const QVValue totals = QVValue::parse(summaryJson.str());
  EXPECT_EQ(totals, QVValue::parse(served));
  EXPECT_EQ(totals["modules"]["/c"]["messages"], 3);
  EXPECT_EQ(totals["modules"]["/c"]["acceptedMessages"], 1);
  EXPECT_EQ(totals["modules"]["/clicks"]["acceptedRequests"], 1);
  EXPECT_EQ(totals["acceptedMessages"], 2);
  // A file of the collector before per-module totals has them counted once.
  runSql(path_, "DROP TABLE totals; PRAGMA user_version = 1");
  std::ostringstream migrated;
  QVCollectorDump::print(QVCollectorStore(path_, QVCollectorStore::Mode::kExisting),
                         QVCollectorDump::Format::kSummaryJson, migrated);
  EXPECT_EQ(QVValue::parse(migrated.str()), totals);
  EXPECT_THROW(QVCollectorStore(folder_.at("missing.sqlite"), QVCollectorStore::Mode::kExisting),
               std::runtime_error);
}

TEST_F(QVCollectorServerTest, BodiesPastTheLimitsAre413AndTheCollectorGoesOn) {
  QVCollectorReplyPolicy policy;
  QVCollectorLimits limits;
  limits.maxBodyBytes = 1 << 20;
  limits.maxInflatedBytes = 1 << 20;
  start(policy, limits);
  // Refused from its head alone: the body is never sent, nor waited for.
  EXPECT_EQ(statusLine(sendRaw(
                port_, "POST /big HTTP/1.1\r\n" + host() + "Content-Length: 1048577\r\n\r\n")),
            "HTTP/1.1 413 Payload Too Large");
  const std::string chunk(64 << 10, 'x');
  std::string chunked =
      "POST /chunked HTTP/1.1\r\n" + host() + "Transfer-Encoding: chunked\r\n\r\n";
  for (int i = 0; i < 24; ++i) chunked += "10000\r\n" + chunk + "\r\n";
  EXPECT_EQ(statusLine(sendRaw(port_, chunked + "0\r\n\r\n")), "HTTP/1.1 413 Payload Too Large");
  // A few kilobytes that inflate past the limit.
  const std::string bomb = *QVDataCompression::compressData(
      std::make_shared<std::string>(std::string((1 << 20) + 1, ' ')));
  auto http = client();
  auto inflated = http.Post("/bomb", {{"Content-Encoding", "gzip"}}, bomb, "text/json");
  ASSERT_TRUE(inflated);
  EXPECT_EQ(inflated->status, 413);
  auto fits = http.Post("/fits", kPayload, "text/json");
  ASSERT_TRUE(fits);
  EXPECT_EQ(fits->status, 200);
  server_->stop();

  const auto records = store_->recent(10);
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[1].request.path, "/bomb");
  EXPECT_EQ(records[1].status, 413);
  EXPECT_EQ(records[1].decoded.problem, "gzip body inflates past 1048576 bytes");
  EXPECT_FALSE(record(records[1].id).decoded.inflated);
  EXPECT_EQ(records[3].status, 413);
  EXPECT_EQ(records[3].decoded.kind, "refused");
}

TEST_F(QVCollectorServerTest, ARequestThatWasNotStoredIsAnswered503) {
  QVCollectorReplyPolicy policy;
  start(policy);
  runSql(path_,
         "CREATE TRIGGER full BEFORE INSERT ON requests"
         " BEGIN SELECT RAISE(FAIL, 'database or disk is full'); END");
  auto http = client();
  auto refused = http.Post("/c", kPayload, "text/json");
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->status, 503);
  runSql(path_, "DROP TRIGGER full");
  auto taken = http.Post("/c", kPayload, "text/json");
  ASSERT_TRUE(taken);
  EXPECT_EQ(taken->status, 200);
  server_->stop();
  const std::string log = log_.str();
  EXPECT_NE(log.find("-> 503  (not stored: SQLite: database or disk is full)"), std::string::npos)
      << log;
  EXPECT_EQ(store_->summary().requests, 1);
}

TEST_F(QVCollectorServerTest, WhatAClientSentReachesTheTerminalEscaped) {
  QVCollectorReplyPolicy policy;
  start(policy);
  sendRaw(port_, "GET /\x1b[2J?offset=1&screen=%1B%5D0%3Btitle%07 HTTP/1.1\r\n" + host() +
                     "X-Note: \x1b[31mred\xc2\x9b" + "1m\r\nConnection: close\r\n\r\n");
  server_->stop();
  std::ostringstream dump, json;
  QVCollectorDump::print(*store_, QVCollectorDump::Format::kText, dump);
  QVCollectorDump::print(*store_, QVCollectorDump::Format::kJson, json);
  for (const std::string& printed : {log_.str(), dump.str()}) {
    EXPECT_EQ(printed.find('\x1b'), std::string::npos) << printed;
    EXPECT_NE(printed.find("/\\x1b[2J"), std::string::npos) << printed;
  }
  // JSON stays JSON: the same characters, written as escapes.
  EXPECT_EQ(json.str().find_first_of("\x1b\x9b"), std::string::npos) << json.str();
  EXPECT_EQ(QVValue::parse(json.str())[0]["headers"][1][1],
            "\x1b[31mred\xc2\x9b"
            "1m");
  EXPECT_NE(dump.str().find("X-Note: \\x1b[31mred\\xc2\\x9b1m\n"), std::string::npos);
  EXPECT_NE(dump.str().find("screen = \\x1b]0;title\\x07\n"), std::string::npos);
}

TEST_F(QVCollectorServerTest, OnlyThisCollectorsHostAndOriginAndPlainLengthsAreTaken) {
  QVCollectorReplyPolicy policy;
  QVCollectorLimits limits;
  limits.hostNames = {"devbox"};
  start(policy, limits);
  const std::string port = std::to_string(port_);
  const auto answer = [this](const std::string& head) {
    return statusLine(
        sendRaw(port_, "POST /w HTTP/1.1\r\n" + head + "Connection: close\r\n\r\n{}"));
  };
  const std::string two = "Content-Length: 2\r\n";
  for (const std::string& host : {"127.0.0.1:" + port, "localhost:" + port, "devbox:" + port}) {
    EXPECT_EQ(answer("Host: " + host + "\r\n" + two), "HTTP/1.1 200 OK") << host;
  }
  for (const std::string& host :
       {"attacker.example:" + port, std::string("127.0.0.1:1"), std::string("127.0.0.1")}) {
    EXPECT_EQ(answer("Host: " + host + "\r\n" + two), "HTTP/1.1 421 Misdirected Request") << host;
  }
  EXPECT_EQ(answer(host() + "Origin: http://127.0.0.1:" + port + "\r\n" + two), "HTTP/1.1 200 OK");
  for (const char* origin : {"http://attacker.example", "null", "https://127.0.0.1:1"}) {
    EXPECT_EQ(answer(host() + "Origin: " + origin + "\r\n" + two), "HTTP/1.1 403 Forbidden")
        << origin;
  }
  for (const std::string& framing :
       {two + two, std::string("Content-Length: 2x\r\n"), std::string("Content-Length: +2\r\n"),
        two + "Transfer-Encoding: chunked\r\n"}) {
    EXPECT_EQ(answer(host() + framing), "HTTP/1.1 400 Bad Request") << framing;
  }
  auto http = client();
  for (const char* path : {"/_qv/", "/_qv/api/summary", "/_qv/api/requests/1/body"}) {
    auto response = http.Get(path);
    ASSERT_TRUE(response) << path;
    EXPECT_EQ(response->get_header_value("X-Content-Type-Options"), "nosniff") << path;
  }
  server_->stop();
  EXPECT_EQ(store_->summary().acceptedRequests, 4);
  EXPECT_EQ(store_->recent(1)[0].decoded.problem,
            "Content-Length and Transfer-Encoding are both given");
}

TEST_F(QVCollectorServerTest, ClientsThatTrickleTheirRequestsAreCutOffAndOthersServed) {
  QVCollectorReplyPolicy policy;
  QVCollectorLimits limits;
  limits.requestTimeoutSeconds = 1;
  start(policy, limits);
  // More slow clients than the server has threads, each sending a byte of
  // its body every 200 ms (for 40 s at most).
  std::vector<int> slow;
  for (int i = 0; i < 20; ++i) {
    slow.push_back(connectLoopback(port_));
    const std::string head = "POST /slow HTTP/1.1\r\n" + host() + "Content-Length: 200\r\n\r\n";
    test::sendAll(slow.back(), head);
  }
  std::atomic<bool> done{false};
  std::thread trickle([&] {
    for (int i = 0; i < 200 && !done; ++i) {
      for (int fd : slow) ::send(fd, "x", 1, MSG_NOSIGNAL);
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
  });
  auto http = client();
  http.set_read_timeout(20, 0);
  auto response = http.Post("/fast", kPayload, "text/json");
  done = true;
  trickle.join();
  ASSERT_TRUE(response);
  EXPECT_EQ(response->status, 200);
  int cutOff = 0;
  for (int fd : slow) {
    cutOff += !test::receiveUntil(fd, "\r\n").empty();  // an answer, then the end
    ::close(fd);
  }
  EXPECT_EQ(cutOff, 20);
}

TEST_F(QVCollectorServerTest, TheFileAndTheFoldersItMakesAreTheUsersAlone) {
  const mode_t before = ::umask(0);
  const std::string nested = folder_.at("a/b/collector.sqlite");
  const auto mode = [](const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 0777;
  };
  QVCollectorStore store(nested);
  store.add(QVCollectorRecord{});
  ::umask(before);
  EXPECT_EQ(mode(folder_.at("a")), 0700u);
  EXPECT_EQ(mode(folder_.at("a/b")), 0700u);
  EXPECT_EQ(mode(nested), 0600u);
  EXPECT_EQ(mode(nested + "-wal"), 0600u);
}

TEST(QVCollectorOptionsTest, CommandLineAndDefaultDatabase) {
  std::string error;
  auto parse = [&error](std::vector<const char*> words) {
    words.insert(words.begin(), "qvcore-collector");
    error.clear();
    return QVCollectorOptions::parse(static_cast<int>(words.size()),
                                     const_cast<char**>(words.data()), error);
  };
  auto serve = parse({"--port", "8080", "--status", "503", "--fail-first", "3", "--delay", "10",
                      "--max-body", "100", "--max-inflated", "200", "--timeout", "3", "--host-name",
                      "devbox"});
  ASSERT_TRUE(serve) << error;
  EXPECT_EQ(serve->limits.maxBodyBytes, 100);
  EXPECT_EQ(serve->limits.maxInflatedBytes, 200);
  EXPECT_EQ(serve->limits.requestTimeoutSeconds, 3);
  EXPECT_EQ(serve->limits.hostNames, std::vector<std::string>{"devbox"});
  const auto defaults = parse({})->limits;
  EXPECT_EQ(defaults.maxBodyBytes, 64 << 20);
  EXPECT_EQ(defaults.maxInflatedBytes, 64 << 20);
  EXPECT_EQ(defaults.requestTimeoutSeconds, 10);
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
                                                        {"--max-body", "0"},
                                                        {"--timeout", "0"},
                                                        {"dump", "--timeout", "1"},
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
