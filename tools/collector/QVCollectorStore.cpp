#include "QVCollectorStore.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "QVCollectorStatement.h"
#include "qvcore/platform/QVValue.h"

namespace qv::collector {

namespace {

constexpr int kSchemaVersion = 2;

constexpr const char* kSchema = R"(
CREATE TABLE requests (
  id            INTEGER PRIMARY KEY AUTOINCREMENT,
  received_at   INTEGER NOT NULL,  -- milliseconds since 1970, UTC
  method        TEXT NOT NULL,
  path          TEXT NOT NULL,     -- percent-encoded, as in the request line
  query         TEXT NOT NULL,     -- after the first "?", as sent
  headers       TEXT NOT NULL,     -- JSON array of [name, value]
  body          BLOB NOT NULL,     -- as received
  status        INTEGER NOT NULL,  -- what the collector answered
  encoding      TEXT NOT NULL,     -- identity, gzip, deflate, or as named
  kind          TEXT NOT NULL,     -- json, urlencoded, empty, bytes, refused
  inflated      BLOB,              -- the body inflated, when it was compressed
  query_fields  TEXT,              -- the query as a JSON dictionary
  messages      INTEGER NOT NULL,
  raw_bytes     INTEGER NOT NULL,
  decoded_bytes INTEGER NOT NULL,
  problem       TEXT NOT NULL      -- empty when the payload fits the format
);
)";

// Version 2: the totals per module (the request's path), counted as each
// request is added; a file of version 1 has them counted once here.
constexpr const char* kTotals = R"(
CREATE TABLE totals (
  module            TEXT PRIMARY KEY,
  requests          INTEGER NOT NULL,
  messages          INTEGER NOT NULL,
  raw_bytes         INTEGER NOT NULL,
  decoded_bytes     INTEGER NOT NULL,
  accepted_requests INTEGER NOT NULL,
  accepted_messages INTEGER NOT NULL
);
INSERT INTO totals SELECT path, count(*), total(messages), total(raw_bytes),
  total(decoded_bytes), total(status BETWEEN 200 AND 299),
  total(CASE WHEN status BETWEEN 200 AND 299 THEN messages ELSE 0 END)
  FROM requests GROUP BY path;
)";

constexpr const char* kCount = R"(
INSERT INTO totals VALUES (?1, 1, ?2, ?3, ?4, ?5, ?5 * ?2)
ON CONFLICT (module) DO UPDATE SET requests = requests + 1, messages = messages + ?2,
  raw_bytes = raw_bytes + ?3, decoded_bytes = decoded_bytes + ?4,
  accepted_requests = accepted_requests + ?5, accepted_messages = accepted_messages + ?5 * ?2
)";

constexpr const char* kBriefColumns =
    "id, received_at, method, path, query, status, encoding, kind, messages, raw_bytes, "
    "decoded_bytes, problem";

std::string headersJson(const QVCollectorRequest::Headers& headers) {
  QVValue list = QVValue::array();
  for (const auto& [name, value] : headers) list.push_back({name, value});
  return list.dump(-1, ' ', false, QVValue::error_handler_t::replace);
}

QVCollectorRequest::Headers headersFrom(const std::string& text) {
  QVCollectorRequest::Headers headers;
  const QVValue list = QVValue::parse(text, nullptr, false);
  if (!list.is_array()) return headers;
  for (const QVValue& pair : list) {
    if (pair.size() == 2 && pair[0].is_string() && pair[1].is_string()) {
      headers.emplace_back(pair[0].get<std::string>(), pair[1].get<std::string>());
    }
  }
  return headers;
}

}  // namespace

QVCollectorStore::QVCollectorStore(const std::string& path, Mode mode) {
  if (mode == Mode::kCreate) createFile(path);
  const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX |
                    (mode == Mode::kCreate ? SQLITE_OPEN_CREATE : 0);
  if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
    const std::string why = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    throw std::runtime_error("cannot open " + path + ": " + why);
  }
  try {
    sqlite3_busy_timeout(db_, 5000);
    execute("PRAGMA journal_mode=WAL");
    migrate();
  } catch (...) {
    sqlite3_close(db_);
    throw;
  }
}

QVCollectorStore::~QVCollectorStore() { sqlite3_close(db_); }

void QVCollectorStore::execute(const char* sql) const {
  char* error = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &error) == SQLITE_OK) return;
  const std::string why = error ? error : sqlite3_errmsg(db_);
  sqlite3_free(error);
  throw std::runtime_error("SQLite: " + why);
}

void QVCollectorStore::createFile(const std::string& path) {
  // SQLite creates its file as 0644 less the umask, and its -wal and -shm
  // files as the database is; requests may hold tokens and cookies.
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  std::filesystem::path made;
  for (const auto& part : folder) {
    made /= part;
    if (::mkdir(made.c_str(), 0700) == 0) ::chmod(made.c_str(), 0700);  // whatever the umask
  }
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
  ::fchmod(fd, 0600);
  ::close(fd);
}

void QVCollectorStore::migrate() {
  QVCollectorStatement version(db_, "PRAGMA user_version");
  version.step();
  const int64_t found = version.integer(0);
  if (found == kSchemaVersion) return;
  if (found < 0 || found > kSchemaVersion) {
    throw std::runtime_error("the database has schema " + std::to_string(found) +
                             ", this collector knows " + std::to_string(kSchemaVersion));
  }
  execute("BEGIN");
  if (found < 1) execute(kSchema);
  execute(kTotals);
  execute(("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str());
  execute("COMMIT");
}

int64_t QVCollectorStore::add(const QVCollectorRecord& record) {
  std::lock_guard lock(mutex_);
  execute("BEGIN IMMEDIATE");
  try {
    insert(record);
    const int64_t id = sqlite3_last_insert_rowid(db_);
    count(record);
    execute("COMMIT");
    return id;
  } catch (...) {
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
}

void QVCollectorStore::count(const QVCollectorRecord& record) {
  QVCollectorStatement upsert(db_, kCount);
  upsert.bindText(1, record.request.path).bind(2, record.decoded.messages);
  upsert.bind(3, record.decoded.rawBytes).bind(4, record.decoded.decodedBytes);
  upsert.bind(5, record.status >= 200 && record.status <= 299 ? 1 : 0);
  upsert.step();
}

void QVCollectorStore::insert(const QVCollectorRecord& record) {
  QVCollectorStatement insert(
      db_,
      "INSERT INTO requests (received_at, method, path, query, headers, body, status, encoding,"
      " kind, inflated, query_fields, messages, raw_bytes, decoded_bytes, problem)"
      " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
  const QVCollectorRequest& request = record.request;
  const QVCollectorDecoded& decoded = record.decoded;
  insert.bind(1, record.receivedAt).bindText(2, request.method).bindText(3, request.path);
  insert.bindText(4, request.query).bindText(5, headersJson(request.headers));
  insert.bindBlob(6, request.body).bind(7, record.status).bindText(8, decoded.encoding);
  insert.bindText(9, decoded.kind).bindOptionalBlob(10, decoded.inflated);
  insert.bindOptionalBlob(11, decoded.queryFields).bind(12, decoded.messages);
  insert.bind(13, decoded.rawBytes).bind(14, decoded.decodedBytes);
  insert.bindText(15, decoded.problem);
  insert.step();
}

std::vector<QVCollectorRecord> QVCollectorStore::recent(int64_t limit) const {
  std::lock_guard lock(mutex_);
  QVCollectorStatement select(
      db_, std::string("SELECT ") + kBriefColumns + " FROM requests ORDER BY id DESC LIMIT ?");
  select.bind(1, limit);
  std::vector<QVCollectorRecord> records;
  while (select.step()) records.push_back(briefRow(select));
  return records;
}

std::optional<QVCollectorRecord> QVCollectorStore::find(int64_t id) const {
  std::lock_guard lock(mutex_);
  QVCollectorStatement select(
      db_, std::string("SELECT ") + kBriefColumns +
               ", headers, body, inflated, query_fields FROM requests WHERE id = ?");
  select.bind(1, id);
  if (!select.step()) return std::nullopt;
  return fullRow(select);
}

void QVCollectorStore::forEach(const std::function<void(const QVCollectorRecord&)>& visit) const {
  std::lock_guard lock(mutex_);
  QVCollectorStatement select(
      db_, std::string("SELECT ") + kBriefColumns +
               ", headers, body, inflated, query_fields FROM requests ORDER BY id");
  while (select.step()) visit(fullRow(select));
}

QVCollectorStore::Summary QVCollectorStore::summary() const {
  std::lock_guard lock(mutex_);
  QVCollectorStatement select(db_,
                              "SELECT module, requests, messages, raw_bytes, decoded_bytes,"
                              " accepted_requests, accepted_messages FROM totals");
  Summary summary;
  while (select.step()) {
    const Totals module{select.integer(1), select.integer(2), select.integer(3),
                        select.integer(4), select.integer(5), select.integer(6)};
    summary.modules[select.text(0)] = module;
    summary.requests += module.requests;
    summary.messages += module.messages;
    summary.rawBytes += module.rawBytes;
    summary.decodedBytes += module.decodedBytes;
    summary.acceptedRequests += module.acceptedRequests;
    summary.acceptedMessages += module.acceptedMessages;
  }
  return summary;
}

QVCollectorRecord QVCollectorStore::briefRow(const QVCollectorStatement& row) {
  QVCollectorRecord record;
  record.id = row.integer(0);
  record.receivedAt = row.integer(1);
  record.request.method = row.text(2);
  record.request.path = row.text(3);
  record.request.query = row.text(4);
  record.status = static_cast<int>(row.integer(5));
  record.decoded.encoding = row.text(6);
  record.decoded.kind = row.text(7);
  record.decoded.messages = row.integer(8);
  record.decoded.rawBytes = row.integer(9);
  record.decoded.decodedBytes = row.integer(10);
  record.decoded.problem = row.text(11);
  return record;
}

QVCollectorRecord QVCollectorStore::fullRow(const QVCollectorStatement& row) {
  QVCollectorRecord record = briefRow(row);
  record.request.headers = headersFrom(row.text(12));
  record.request.body = row.text(13);
  record.decoded.inflated = row.optionalBytes(14);
  record.decoded.queryFields = row.optionalBytes(15);
  return record;
}

}  // namespace qv::collector
