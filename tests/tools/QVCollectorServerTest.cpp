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
#include "support/QVGzip.h"
#include "support/QVLoopback.h"
#include "support/QVTempFolder.h"

namespace qv::collector {
namespace {

using namespace std::string_literals;

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
  // Patient: the trickle test's post waits for a server thread to come free.
  httplib::Client client() const {
    httplib::Client http("127.0.0.1", port_);
    http.set_read_timeout(20, 0);
    return http;
  }
  std::string host() const { return "Host: 127.0.0.1:" + std::to_string(port_) + "\r\n"; }
  // The request line, the headers and the body as one request that closes.
  static std::string raw(const std::string& line, const std::string& headers,
                         const std::string& body = "") {
    return line + " HTTP/1.1\r\n" + headers + "Connection: close\r\n\r\n" + body;
  }
  int post(const std::string& path, const std::string& body = kPayload,
           const httplib::Headers& headers = {}) const {
    auto response = client().Post(path, headers, body, "text/json");
    EXPECT_TRUE(response) << path;
    return response ? response->status : 0;
  }
  test::QVTempFolder folder_;
  std::string path_ = folder_.at("collector.sqlite");
  std::unique_ptr<QVCollectorStore> store_ = std::make_unique<QVCollectorStore>(path_);
  std::optional<QVCollectorReplyPolicy> policy_;
  std::ostringstream log_;
  std::unique_ptr<QVCollectorServer> server_;
  int port_ = 0;
};

// Rows of raw requests, sent in turn to one collector (302 after two 500s,
// 1 MiB bodies, "devbox" as a name of its own): the status line each gets,
// and the start of what the store keeps of it ("" for the collector's own
// pages, which are not kept).
TEST_F(QVCollectorServerTest, EachRequestGetsThePolicysGatesOrLimitsAnswerAndIsKept) {
  start(302, 2, {1 << 20, 1 << 20, 10, {"devbox"}});
  const std::string me = host(), two = "Content-Length: 2\r\n", port = std::to_string(port_);
  const auto w = [](const std::string& headers) { return raw("POST /w", headers, "{}"); };
  const auto sized = [&](const std::string& line, const std::string& more,
                         const std::string& body) {
    return raw(line, me + more + "Content-Length: " + std::to_string(body.size()) + "\r\n", body);
  };
  const std::string payload = sized("POST /c", "", kPayload);
  const std::string bomb = test::gzip(std::string((1 << 20) + 1, ' '));  // a few KiB inflating past
  std::string chunked;
  for (int i = 0; i < 24; ++i) chunked += "10000\r\n" + std::string(64 << 10, 'x') + "\r\n";
  // A gzip header, then a deflate block of the reserved type, with headers
  // to keep as they came: in order, repeated, the value's blanks trimmed.
  const std::string garbage = std::string("\x1f\x8b\x08\0\0\0\0\0\0\x03\xff garbage", 18);
  const std::string sent = "host: localhost:" + port +
                           "\r\nZeta: 1\r\nContent-Encoding: gzip\r\n"
                           "Alpha:  2 \r\nAlpha: 3\r\nContent-Length: 18\r\n";
  const std::string big = "413 Payload Too Large", misdirected = "421 Misdirected Request";
  const struct {
    std::string request, status, kept;
  } rows[] = {
      {payload, "500 Internal Server Error", "json: "},
      {payload, "500 Internal Server Error", "json: "},
      {payload, "302 Found", "json: "},
      {raw("POST /p?x=1", sent, garbage), "302 Found", "bytes: gzip stream is damaged"},
      {raw("GET /_qv/api/requests/1", me), "200 OK", ""},
      {raw("GET /_qv/api/requests/99", me), "404 Not Found", ""},
      {w("Host: localhost:" + port + "\r\n" + two), "302 Found", "json"},
      {w("Host: devbox:" + port + "\r\n" + two), "302 Found", "json"},
      {w("Host: attacker.example:" + port + "\r\n" + two), misdirected, "refused"},
      {w("Host: 127.0.0.1:1\r\n" + two), misdirected, "refused"},
      {w("Host: 127.0.0.1\r\n" + two), misdirected, "refused"},
      {w(me + two + "Origin: http://127.0.0.1:" + port + "\r\n"), "302 Found", "json"},
      {w(me + two + "Origin: http://attacker.example\r\n"), "403 Forbidden", "refused"},
      {w(me + two + "Origin: null\r\n"), "403 Forbidden", "refused"},
      {w(me + two + "Origin: https://127.0.0.1:1\r\n"), "403 Forbidden", "refused"},
      {w(me + two + two), "400 Bad Request", "refused"},
      {w(me + "Content-Length: 2x\r\n"), "400 Bad Request", "refused"},
      {w(me + "Content-Length: +2\r\n"), "400 Bad Request", "refused"},
      {w(me + two + "Transfer-Encoding: chunked\r\n"), "400 Bad Request",
       "refused: Content-Length and Transfer-Encoding are both given"},
      // Refused from its head alone: the body is never sent, nor waited for.
      {raw("POST /big", me + "Content-Length: 1048577\r\n"), big, "refused"},
      {raw("POST /ch", me + "Transfer-Encoding: chunked\r\n", chunked + "0\r\n\r\n"), big,
       "refused"},
      {sized("POST /bomb", "Content-Encoding: gzip\r\n", bomb), big,
       "bytes: gzip body inflates past 1048576 bytes"},
      {raw("PUT /m", me + two, "{}"), "302 Found", "json"},
      {raw("TRACE /m", me), "400 Bad Request", "refused"},
      {raw("GET /long?" + std::string(9000, 'q'), me), "414 URI Too Long", "refused"},
  };
  std::vector<std::string> expected;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.request.substr(0, 120));
    const std::string answer = test::exchange(port_, row.request);
    EXPECT_EQ(answer.substr(0, answer.find('\r')), "HTTP/1.1 " + row.status);
    EXPECT_EQ(answer.find("\r\nLocation:"), std::string::npos) << "no redirect of its own";
    if (!row.kept.empty()) expected.push_back(row.status.substr(0, 4) + row.kept);
  }
  for (const char* own : {"/_qv/", "/_qv/api/summary", "/_qv/api/requests/1/body"})
    EXPECT_EQ(client().Get(own)->get_header_value("X-Content-Type-Options"), "nosniff") << own;
  server_->stop();
  std::vector<std::string> kept;  // as long as expected, to compare the starts
  store_->forEach([&](const QVCollectorRecord& r) {
    const std::string line =
        std::to_string(r.status) + " " + r.decoded.kind + ": " + r.decoded.problem;
    kept.push_back(
        line.substr(0, kept.size() < expected.size() ? expected[kept.size()].size() : 99));
  });
  EXPECT_EQ(kept, expected);
  const QVCollectorRecord garbled = store_->find(4).value_or(QVCollectorRecord{});
  std::string headers;
  for (const auto& [name, value] : garbled.request.headers) headers += name + ": " + value + "\r\n";
  EXPECT_EQ(headers + garbled.request.query + " " + garbled.request.body,
            std::string(sent).replace(sent.find("  2 "), 4, " 2") + "Connection: close\r\nx=1 " +
                garbage);
}

TEST_F(QVCollectorServerTest, PostsFromManyThreadsAreAllKeptAndOneNotStoredIsAnswered503) {
  start(200, 5);
  runSql(path_,
         "CREATE TRIGGER full BEFORE INSERT ON requests"
         " BEGIN SELECT RAISE(FAIL, 'database or disk is full'); END");
  EXPECT_EQ(post("/c"), 503);  // in the place of the first 500
  runSql(path_, "DROP TRIGGER full");
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([this] {
      for (int i = 0; i < 10; ++i) post("/c");
    });
  }
  for (auto& thread : threads) thread.join();
  server_->stop();
  EXPECT_NE(log_.str().find("-> 503  (not stored: SQLite: database or disk is full)"),
            std::string::npos)
      << log_.str();
  const auto summary = store_->summary();
  EXPECT_EQ(std::to_string(summary.requests) + " requests, " +
                std::to_string(summary.acceptedRequests) + " accepted, " +
                std::to_string(summary.messages) + " messages",
            "60 requests, 56 accepted, 120 messages");
}

TEST_F(QVCollectorServerTest, DumpReadsEveryRequestBackFromTheFile) {
  start(200, 1);
  auto http = client();
  const std::string zipped = test::gzip(kPayload);
  post("/c", zipped, {{"Content-Encoding", "gzip"}});
  const std::string query = "offset=9&screen=Two%20Words";
  ASSERT_TRUE(http.Get("/c?" + query));
  ASSERT_TRUE(http.Get("/clicks?offset=10"));
  const std::string served = http.Get("/_qv/api/summary")->body;
  server_->stop();
  store_.reset();

  const QVCollectorStore reopened(path_, QVCollectorStore::Mode::kExisting);
  const std::string lines = print(reopened, QVCollectorDump::Format::kText);
  const std::string sizes = std::to_string(zipped.size()) + " bytes raw, " +
                            std::to_string(kPayload.size()) + " decoded\n";
  for (const std::string& expected :
       {"  decoded: json (gzip), 2 messages, " + sizes, "  check: ok\n"s,
        "    Content-Encoding: gzip\n"s, "    session \"S1\""s,
        "        {\"offset\":1,\"screen\":\"Home\"}\n"s, "    screen = Two Words\n"s}) {
    EXPECT_NE(lines.find(expected), std::string::npos) << expected << "\nin:\n" << lines;
  }
  const QVValue all = QVValue::parse(print(reopened, QVCollectorDump::Format::kJson));
  ASSERT_EQ(all.size(), 3u);
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

TEST_F(QVCollectorServerTest, WhatAClientSentReachesTheTerminalEscaped) {
  start();
  test::exchange(port_, "GET /\x1b[2J?offset=1&screen=%1B%5D0%3Btitle%07 HTTP/1.1\r\n" + host() +
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

TEST_F(QVCollectorServerTest, ClientsThatTrickleTheirRequestsAreCutOffAndOthersServed) {
  start(200, 0, {64 << 20, 64 << 20, 1, {}});
  // More slow clients than the server has threads, each sending a byte of
  // its body every 200 ms (for 40 s at most).
  std::vector<int> slow(20);
  for (int& fd : slow) {
    fd = test::connectLoopback(port_);
    test::sendAll(fd, "POST /slow HTTP/1.1\r\n" + host() + "Content-Length: 200\r\n\r\n");
  }
  std::atomic<bool> done{false};
  std::thread trickle([&] {
    for (int i = 0; i < 200 && !done; ++i) {
      for (int fd : slow) ::send(fd, "x", 1, MSG_NOSIGNAL);
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
  });
  EXPECT_EQ(post("/fast"), 200);
  done = true;
  trickle.join();
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

TEST(QVCollectorOptionsTest, OutOfRangeOrMisplacedOptionsAreRefusedAndTheDatabaseHasAHome) {
  const std::vector<std::string> rows[] = {
      {"--port", "70000"},     {"--status", "99"},  {"--status"},
      {"--delay", "-1"},       {"--max-body", "0"}, {"--timeout", "0"},
      {"dump", "--port", "1"}, {"--db", ""},        {"dump", "--timeout", "1"}};
  for (std::vector<std::string> words : rows) {
    words.insert(words.begin(), "qvcore-collector");
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    std::string error;
    EXPECT_FALSE(QVCollectorOptions::parse(static_cast<int>(argv.size()), argv.data(), error));
    EXPECT_FALSE(error.empty()) << words[1];
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
