// The collector as a server: what it answers, what it keeps of each request,
// and what "dump" prints back from the file.
#include <gtest/gtest.h>
#include <httplib.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
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

// The SQL run on the collector's file through a connection of its own.
void runSql(const std::string& path, const char* sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
}

std::string gzip(const std::string& text) {
  return *QVDataCompression::compressData(std::make_shared<std::string>(text));
}

std::string print(const QVCollectorStore& store, QVCollectorDump::Format format) {
  std::ostringstream out;
  QVCollectorDump::print(store, format, out);
  return out.str();
}

class QVCollectorServerTest : public ::testing::Test {
 protected:
  void start(int status = 200, int64_t failFirst = 0, QVCollectorLimits limits = {}) {
    policy_.emplace(status, failFirst);
    server_ = std::make_unique<QVCollectorServer>(*store_, *policy_, log_, std::move(limits));
    port_ = server_->bind(0);
    ASSERT_GT(port_, 0);
    server_->start();
  }
  httplib::Client client() const { return httplib::Client("127.0.0.1", port_); }
  std::string host() const { return "Host: 127.0.0.1:" + std::to_string(port_) + "\r\n"; }
  std::string closing() const { return host() + "Connection: close\r\n"; }
  // The status line answered to the raw request.
  std::string send(const std::string& request) const {
    const std::string answer = test::exchange(port_, request);
    return answer.substr(0, answer.find('\r'));
  }
  int post(const std::string& path, const std::string& body = kPayload,
           const httplib::Headers& headers = {}) const {
    auto response = client().Post(path, headers, body, "text/json");
    EXPECT_TRUE(response) << path;
    return response ? response->status : 0;
  }
  QVCollectorRecord record(int64_t id) const {
    auto found = store_->find(id);
    EXPECT_TRUE(found) << id;
    return found.value_or(QVCollectorRecord{});
  }

  test::QVTempFolder folder_;
  std::string path_ = folder_.at("collector.sqlite");
  std::unique_ptr<QVCollectorStore> store_ = std::make_unique<QVCollectorStore>(path_);
  std::optional<QVCollectorReplyPolicy> policy_;
  std::ostringstream log_;
  std::unique_ptr<QVCollectorServer> server_;
  int port_ = 0;
};

TEST_F(QVCollectorServerTest, FailFirstAnswers500ThenTheChosenStatusAndOwnPagesAreNotKept) {
  start(302, 2);
  auto http = client();
  std::vector<int> answered;
  for (int i = 0; i < 4; ++i) {
    auto response = http.Post("/collect", kPayload, "text/json");
    ASSERT_TRUE(response);
    answered.push_back(response->status);
    EXPECT_FALSE(response->has_header("Location"));
  }
  EXPECT_EQ(answered, (std::vector<int>{500, 500, 302, 302}));
  for (const char* own : {"/_qv/", "/_qv/api/requests", "/_qv/api/summary", "/_qv/api/requests/1"})
    EXPECT_EQ(http.Get(own)->status, 200) << own;
  EXPECT_EQ(http.Get("/_qv/api/requests/99")->status, 404);

  std::string stored;  // id, status, messages, ok; newest first
  for (const auto& e : QVValue::parse(http.Get("/_qv/api/requests")->body)) {
    stored += e["id"].dump() + " " + e["status"].dump() + " " + e["messages"].dump() + " " +
              e["ok"].dump() + ", ";
  }
  EXPECT_EQ(stored, "4 302 2 true, 3 302 2 true, 2 500 2 true, 1 500 2 true, ");
}

TEST_F(QVCollectorServerTest, EveryRequestIsKeptWithItsHeadersInOrderAndItsBodyUntouched) {
  start();
  // A gzip header, then a deflate block of the reserved type.
  const std::string garbage = std::string("\x1f\x8b\x08\0\0\0\0\0\0\x03\xff garbage", 18);
  const std::string kept = "host: localhost:" + std::to_string(port_) +
                           "\r\nZeta: 1\r\nContent-Encoding: gzip\r\n"
                           "Content-Type: application/x-www-form-urlencoded\r\nAlpha: 2\r\n"
                           "Alpha: 3\r\nContent-Length: 18\r\nConnection: close\r\n";
  std::string head = "POST /p?x=1 HTTP/1.1\r\n" + kept;
  head.replace(head.find("Alpha: 2"), 8, "Alpha:  2 ");
  EXPECT_EQ(send(head + "\r\n" + garbage), "HTTP/1.1 200 OK");
  for (const char* method : {"PUT", "DELETE", "OPTIONS", "TRACE"}) {
    send(std::string(method) + " /m HTTP/1.1\r\n" + closing() + "Content-Length: 0\r\n\r\n");
  }
  const std::string longQuery(9000, 'q');
  send("GET /long?" + longQuery + " HTTP/1.1\r\n" + closing() + "\r\n");
  server_->stop();

  const QVCollectorRecord first = record(1);
  std::string headers;
  for (const auto& [name, value] : first.request.headers) headers += name + ": " + value + "\r\n";
  EXPECT_EQ(headers, kept);
  EXPECT_EQ(first.request.body, garbage);
  EXPECT_EQ(first.request.path + "?" + first.request.query, "/p?x=1");
  EXPECT_EQ(first.decoded.problem, "gzip stream is damaged");
  EXPECT_EQ(first.status, 200);
  std::vector<std::string> methods;
  for (int64_t id = 2; id <= 6; ++id) methods.push_back(record(id).request.method);
  EXPECT_EQ(methods, (std::vector<std::string>{"PUT", "DELETE", "OPTIONS", "TRACE", "GET"}));
  EXPECT_EQ(record(5).decoded.kind, "refused");
  const QVCollectorRecord tooLong = record(6);
  EXPECT_EQ(tooLong.decoded.kind + " " + std::to_string(tooLong.status), "refused 414");
  EXPECT_EQ(tooLong.request.query, longQuery);
  EXPECT_FALSE(store_->find(7));
}

TEST_F(QVCollectorServerTest, PostsFromManyThreadsAreAllKept) {
  start(200, 5);
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([this] {
      for (int i = 0; i < 10; ++i) post("/c");
    });
  }
  for (auto& thread : threads) thread.join();
  server_->stop();
  const auto summary = store_->summary();
  EXPECT_EQ(summary.requests, 60);
  EXPECT_EQ(summary.acceptedRequests, 55);
  EXPECT_EQ(summary.messages, 120);
}

TEST_F(QVCollectorServerTest, DumpReadsEveryRequestBackFromTheFile) {
  start(200, 1);
  auto http = client();
  const std::string zipped = gzip(kPayload);
  post("/c", zipped, {{"Content-Encoding", "gzip"}});
  const std::string query = "offset=9&screen=Two%20Words";
  ASSERT_TRUE(http.Get("/c?" + query));
  ASSERT_TRUE(http.Get("/clicks?offset=10"));
  const std::string served = http.Get("/_qv/api/summary")->body;
  server_->stop();
  store_.reset();

  const QVCollectorStore reopened(path_, QVCollectorStore::Mode::kExisting);
  const std::string lines = print(reopened, QVCollectorDump::Format::kText);
  for (const std::string& expected :
       {"  decoded: json (gzip), 2 messages, " + std::to_string(zipped.size()) + " bytes raw, " +
            std::to_string(kPayload.size()) + " decoded\n",
        std::string("  check: ok\n"), std::string("    Content-Encoding: gzip\n"),
        std::string("    session \"S1\""),
        std::string("        {\"offset\":1,\"screen\":\"Home\"}\n"),
        std::string("    screen = Two Words\n")}) {
    EXPECT_NE(lines.find(expected), std::string::npos) << expected << "\nin:\n" << lines;
  }
  const QVValue all = QVValue::parse(print(reopened, QVCollectorDump::Format::kJson));
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0]["id"], 1);
  EXPECT_EQ(all[0]["payload"], QVValue::parse(kPayload));
  EXPECT_EQ(all[1]["payload"], (QVValue{{"offset", 9}, {"screen", "Two Words"}}));
  const size_t raw = zipped.size() + query.size() + 9;
  const size_t decoded = kPayload.size() + all[1]["payload"].dump().size() + 13;
  EXPECT_EQ(print(reopened, QVCollectorDump::Format::kSummary),
            "requests: 3\nmessages: 4\nbytes on the wire: " + std::to_string(raw) +
                "\nbytes after decoding: " + std::to_string(decoded) +
                "\nmodule /c: 2 requests, 3 messages; answered 2xx: 1 requests,"
                " 1 messages\nmodule /clicks: 1 requests, 1 messages; answered 2xx:"
                " 1 requests, 1 messages\n");
  // The page's summary and dump's give the same totals, per module too.
  const QVValue totals = QVValue::parse(print(reopened, QVCollectorDump::Format::kSummaryJson));
  EXPECT_EQ(totals, QVValue::parse(served));
  EXPECT_EQ(totals["modules"]["/c"]["acceptedMessages"], 1);
  // A file of the collector before per-module totals has them counted once.
  runSql(path_, "DROP TABLE totals; PRAGMA user_version = 1");
  const QVCollectorStore migrated(path_, QVCollectorStore::Mode::kExisting);
  EXPECT_EQ(QVValue::parse(print(migrated, QVCollectorDump::Format::kSummaryJson)), totals);
  EXPECT_THROW(QVCollectorStore(folder_.at("missing.sqlite"), QVCollectorStore::Mode::kExisting),
               std::runtime_error);
}

TEST_F(QVCollectorServerTest, BodiesPastTheLimitsAre413AndTheCollectorGoesOn) {
  start(200, 0, {1 << 20, 1 << 20, 10, {}});
  const std::string tooLarge = "HTTP/1.1 413 Payload Too Large";
  // Refused from its head alone: the body is never sent, nor waited for.
  EXPECT_EQ(send("POST /big HTTP/1.1\r\n" + host() + "Content-Length: 1048577\r\n\r\n"), tooLarge);
  std::string chunked =
      "POST /chunked HTTP/1.1\r\n" + host() + "Transfer-Encoding: chunked\r\n\r\n";
  for (int i = 0; i < 24; ++i) chunked += "10000\r\n" + std::string(64 << 10, 'x') + "\r\n";
  EXPECT_EQ(send(chunked + "0\r\n\r\n"), tooLarge);
  // A few kilobytes that inflate past the limit.
  const std::string bomb = gzip(std::string((1 << 20) + 1, ' '));
  EXPECT_EQ(post("/bomb", bomb, {{"Content-Encoding", "gzip"}}), 413);
  EXPECT_EQ(post("/fits"), 200);
  server_->stop();

  const auto records = store_->recent(10);
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[1].request.path, "/bomb");
  EXPECT_EQ(records[1].status, 413);
  EXPECT_EQ(records[1].decoded.problem, "gzip body inflates past 1048576 bytes");
  EXPECT_FALSE(record(records[1].id).decoded.inflated);
  EXPECT_EQ(records[3].decoded.kind + " " + std::to_string(records[3].status), "refused 413");
}

TEST_F(QVCollectorServerTest, ARequestThatWasNotStoredIsAnswered503) {
  start();
  runSql(path_,
         "CREATE TRIGGER full BEFORE INSERT ON requests"
         " BEGIN SELECT RAISE(FAIL, 'database or disk is full'); END");
  EXPECT_EQ(post("/c"), 503);
  runSql(path_, "DROP TRIGGER full");
  EXPECT_EQ(post("/c"), 200);
  server_->stop();
  EXPECT_NE(log_.str().find("-> 503  (not stored: SQLite: database or disk is full)"),
            std::string::npos)
      << log_.str();
  EXPECT_EQ(store_->summary().requests, 1);
}

TEST_F(QVCollectorServerTest, WhatAClientSentReachesTheTerminalEscaped) {
  start();
  send("GET /\x1b[2J?offset=1&screen=%1B%5D0%3Btitle%07 HTTP/1.1\r\n" + host() +
       "X-Note: \x1b[31mred\xc2\x9b" + "1m\r\nConnection: close\r\n\r\n");
  server_->stop();
  const std::string dump = print(*store_, QVCollectorDump::Format::kText);
  const std::string json = print(*store_, QVCollectorDump::Format::kJson);
  for (const std::string& printed : {log_.str(), dump}) {
    EXPECT_EQ(printed.find('\x1b'), std::string::npos) << printed;
    EXPECT_NE(printed.find("/\\x1b[2J"), std::string::npos) << printed;
  }
  // JSON stays JSON: the same characters, written as escapes.
  EXPECT_EQ(json.find_first_of("\x1b\x9b"), std::string::npos) << json;
  EXPECT_EQ(QVValue::parse(json)[0]["headers"][1][1],
            "\x1b[31mred\xc2\x9b"
            "1m");
  EXPECT_NE(dump.find("X-Note: \\x1b[31mred\\xc2\\x9b1m\n"), std::string::npos);
  EXPECT_NE(dump.find("screen = \\x1b]0;title\\x07\n"), std::string::npos);
}

TEST_F(QVCollectorServerTest, OnlyThisCollectorsHostAndOriginAndPlainLengthsAreTaken) {
  start(200, 0, {64 << 20, 64 << 20, 10, {"devbox"}});
  const std::string port = std::to_string(port_), two = "Content-Length: 2\r\n";
  const std::string me = host() + two;
  const struct {
    std::string head, status;
  } rows[] = {
      {"Host: 127.0.0.1:" + port + "\r\n" + two, "200 OK"},
      {"Host: localhost:" + port + "\r\n" + two, "200 OK"},
      {"Host: devbox:" + port + "\r\n" + two, "200 OK"},
      {"Host: attacker.example:" + port + "\r\n" + two, "421 Misdirected Request"},
      {"Host: 127.0.0.1:1\r\n" + two, "421 Misdirected Request"},
      {"Host: 127.0.0.1\r\n" + two, "421 Misdirected Request"},
      {me + "Origin: http://127.0.0.1:" + port + "\r\n", "200 OK"},
      {me + "Origin: http://attacker.example\r\n", "403 Forbidden"},
      {me + "Origin: null\r\n", "403 Forbidden"},
      {me + "Origin: https://127.0.0.1:1\r\n", "403 Forbidden"},
      {me + two, "400 Bad Request"},
      {host() + "Content-Length: 2x\r\n", "400 Bad Request"},
      {host() + "Content-Length: +2\r\n", "400 Bad Request"},
      {me + "Transfer-Encoding: chunked\r\n", "400 Bad Request"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(send("POST /w HTTP/1.1\r\n" + row.head + "Connection: close\r\n\r\n{}"),
              "HTTP/1.1 " + row.status)
        << row.head;
  }
  for (const char* path : {"/_qv/", "/_qv/api/summary", "/_qv/api/requests/1/body"}) {
    EXPECT_EQ(client().Get(path)->get_header_value("X-Content-Type-Options"), "nosniff") << path;
  }
  server_->stop();
  EXPECT_EQ(store_->summary().acceptedRequests, 4);
  EXPECT_EQ(store_->recent(1)[0].decoded.problem,
            "Content-Length and Transfer-Encoding are both given");
}

TEST_F(QVCollectorServerTest, ClientsThatTrickleTheirRequestsAreCutOffAndOthersServed) {
  start(200, 0, {64 << 20, 64 << 20, 1, {}});
  // More slow clients than the server has threads, each sending a byte of
  // its body every 200 ms (for 40 s at most).
  std::vector<int> slow;
  for (int i = 0; i < 20; ++i) {
    slow.push_back(test::connectLoopback(port_));
    test::sendAll(slow.back(), "POST /slow HTTP/1.1\r\n" + host() + "Content-Length: 200\r\n\r\n");
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
  EXPECT_EQ(response ? response->status : 0, 200);
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
  QVCollectorStore store(nested);
  store.add(QVCollectorRecord{});
  ::umask(before);
  std::string modes;  // the write-ahead log exists while the store is open
  for (const std::string& path : {folder_.at("a"), folder_.at("a/b"), nested, nested + "-wal"}) {
    struct stat info {};
    modes += ::stat(path.c_str(), &info) == 0 ? std::to_string(info.st_mode & 0777) + " " : "? ";
  }
  EXPECT_EQ(modes, "448 448 384 384 ");  // 0700 0700 0600 0600
}

TEST(QVCollectorOptionsTest, CommandLineAndDefaultDatabase) {
  std::string error;
  auto parse = [&error](const std::string& line) {  // words separated by single spaces
    std::vector<std::string> words{"qvcore-collector"};
    for (size_t at = 0, end = 0; !line.empty() && end != std::string::npos; at = end + 1) {
      end = line.find(' ', at);
      words.push_back(line.substr(at, end - at));
    }
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    error.clear();
    return QVCollectorOptions::parse(static_cast<int>(argv.size()), argv.data(), error);
  };
  const auto show = [](const QVCollectorOptions& o) {
    const QVCollectorLimits& l = o.limits;
    std::ostringstream out;
    out << o.port << " " << o.status << " " << o.failFirst << " " << o.delayMs << " "
        << l.maxBodyBytes << " " << l.maxInflatedBytes << " " << l.requestTimeoutSeconds << " "
        << (l.hostNames.empty() ? "-" : l.hostNames[0]) << " " << o.database << " " << o.json
        << (o.command == QVCollectorOptions::Command::kDump ? " dump" : " serve");
    return out.str();
  };
  const auto serve = parse(
      "--port 8080 --status 503 --fail-first 3 --delay 10 --max-body 100 --max-inflated 200 "
      "--timeout 3 --host-name devbox");
  ASSERT_TRUE(serve) << error;
  EXPECT_EQ(show(*serve), "8080 503 3 10 100 200 3 devbox  0 serve");
  EXPECT_EQ(show(*parse("")), "0 200 0 0 67108864 67108864 10 -  0 serve");
  EXPECT_EQ(show(*parse("dump --db x.sqlite --json")),
            "0 200 0 0 67108864 67108864 10 - x.sqlite 1 dump");
  for (const char* bad : {"--port 70000", "--status 99", "--status", "--delay -1", "dump --port 1",
                          "--max-body 0", "--timeout 0", "dump --timeout 1", "--db "}) {
    EXPECT_FALSE(parse(bad)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
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
