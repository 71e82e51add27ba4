#include "QVCollectorStatement.h"

#include <sqlite3.h>

#include <stdexcept>

namespace qv::collector {

QVCollectorStatement::QVCollectorStatement(sqlite3* db, std::string_view sql) : db_(db) {
  check(sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &statement_, nullptr));
}

QVCollectorStatement::~QVCollectorStatement() { sqlite3_finalize(statement_); }

QVCollectorStatement& QVCollectorStatement::bind(int index, int64_t value) {
  check(sqlite3_bind_int64(statement_, index, value));
  return *this;
}

QVCollectorStatement& QVCollectorStatement::bindText(int index, std::string_view text) {
  check(sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_TRANSIENT,
                            SQLITE_UTF8));
  return *this;
}

QVCollectorStatement& QVCollectorStatement::bindBlob(int index, std::string_view bytes) {
  // An empty view may have no data pointer, which SQLite would store as NULL.
  // Not copied: bodies run to tens of megabytes, and every caller binds,
  // steps and finishes while the bytes are still its own.
  static const char nothing = 0;
  check(sqlite3_bind_blob64(statement_, index, bytes.empty() ? &nothing : bytes.data(),
                            bytes.size(), SQLITE_STATIC));
  return *this;
}

QVCollectorStatement& QVCollectorStatement::bindOptionalBlob(
    int index, const std::optional<std::string>& bytes) {
  if (bytes) return bindBlob(index, *bytes);
  check(sqlite3_bind_null(statement_, index));
  return *this;
}

bool QVCollectorStatement::step() {
  const int status = sqlite3_step(statement_);
  if (status == SQLITE_ROW) return true;
  if (status == SQLITE_DONE) return false;
  check(status);
  return false;
}

int64_t QVCollectorStatement::integer(int column) const {
  return sqlite3_column_int64(statement_, column);
}

std::string QVCollectorStatement::text(int column) const {
  return optionalBytes(column).value_or("");
}

std::optional<std::string> QVCollectorStatement::optionalBytes(int column) const {
  if (sqlite3_column_type(statement_, column) == SQLITE_NULL) return std::nullopt;
  // Blob first, then bytes: the length belongs to the form just fetched.
  const auto* data = static_cast<const char*>(sqlite3_column_blob(statement_, column));
  const int size = sqlite3_column_bytes(statement_, column);
  return data ? std::string(data, static_cast<size_t>(size)) : std::string();
}

void QVCollectorStatement::check(int status) const {
  if (status == SQLITE_OK) return;
  throw std::runtime_error(std::string("SQLite: ") + sqlite3_errmsg(db_));
}

}  // namespace qv::collector
