#pragma once

#include <cstdint>
#include <functional>
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
// server writes. Failures throw std::runtime_error.
class QVCollectorStore {
 public:
  struct Summary {
    int64_t requests = 0;
    int64_t messages = 0;
    int64_t rawBytes = 0;      // payload bytes as they travelled
    int64_t decodedBytes = 0;  // the same once inflated or percent-decoded
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
  static QVCollectorRecord briefRow(const QVCollectorStatement& row);
  static QVCollectorRecord fullRow(const QVCollectorStatement& row);

  sqlite3* db_ = nullptr;
  mutable std::mutex mutex_;
};

}  // namespace qv::collector
