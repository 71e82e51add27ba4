#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QVCollectorRecord.h"

struct sqlite3;

namespace qv::collector {

class QVCollectorStatement;

// The requests the collector received, in one SQLite file. One connection,
// used under one mutex, since the HTTP server calls in from a thread pool;
// the file is in WAL mode so that "dump" in another process reads while the
// server writes. The totals are kept per module, in the transaction that
// adds each request, so that the page's summary (polled every 2 seconds)
// reads a row per module instead of every request ever stored. A module is
// known by the path it posts to: its "PostMessageUrl" names it, the payload
// does not. The file and the folders it creates are the user's alone.
// Failures throw std::runtime_error.
class QVCollectorStore {
 public:
  struct Totals {
    int64_t requests = 0;
    int64_t messages = 0;
    int64_t rawBytes = 0;      // payload bytes as they travelled
    int64_t decodedBytes = 0;  // the same once inflated or percent-decoded
    // Those answered 2xx: what a client counts as delivered.
    int64_t acceptedRequests = 0;
    int64_t acceptedMessages = 0;
  };
  struct Summary : Totals {
    std::map<std::string, Totals> modules;  // by path
  };

  enum class Mode { kCreate, kExisting };

  explicit QVCollectorStore(const std::string& path, Mode mode = Mode::kCreate);
  ~QVCollectorStore();
  QVCollectorStore(const QVCollectorStore&) = delete;
  QVCollectorStore& operator=(const QVCollectorStore&) = delete;

  // Stores the record as it is (its id is ignored) and answers the new id.
  int64_t add(const QVCollectorRecord& record);
  // The newest records first, without headers, bodies or decoded forms.
  std::vector<QVCollectorRecord> recent(int64_t limit) const;
  // One record in full.
  std::optional<QVCollectorRecord> find(int64_t id) const;
  // Every record in full, oldest first, one at a time.
  void forEach(const std::function<void(const QVCollectorRecord&)>& visit) const;
  Summary summary() const;

 private:
  void execute(const char* sql) const;
  void migrate();
  void insert(const QVCollectorRecord& record);
  void count(const QVCollectorRecord& record);
  static void createFile(const std::string& path);
  static QVCollectorRecord briefRow(const QVCollectorStatement& row);
  static QVCollectorRecord fullRow(const QVCollectorStatement& row);

  sqlite3* db_ = nullptr;
  mutable std::mutex mutex_;
};

}  // namespace qv::collector
