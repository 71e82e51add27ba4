#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace qv::collector {

// A prepared SQLite statement, finalised when it goes. Failures throw
// std::runtime_error with SQLite's message.
class QVCollectorStatement {
 public:
  QVCollectorStatement(sqlite3* db, std::string_view sql);
  ~QVCollectorStatement();
  QVCollectorStatement(const QVCollectorStatement&) = delete;
  QVCollectorStatement& operator=(const QVCollectorStatement&) = delete;

  // Parameters are numbered from 1. Text is copied; blobs are not, so their
  // bytes must outlive the last step().
  QVCollectorStatement& bind(int index, int64_t value);
  QVCollectorStatement& bindText(int index, std::string_view text);
  QVCollectorStatement& bindBlob(int index, std::string_view bytes);
  QVCollectorStatement& bindOptionalBlob(int index, const std::optional<std::string>& bytes);

  // True while there is a row to read; false once done.
  bool step();

  // Columns are numbered from 0.
  int64_t integer(int column) const;
  std::string text(int column) const;
  std::optional<std::string> optionalBytes(int column) const;

 private:
  void check(int status) const;

  sqlite3* db_;
  sqlite3_stmt* statement_ = nullptr;
};

}  // namespace qv::collector
