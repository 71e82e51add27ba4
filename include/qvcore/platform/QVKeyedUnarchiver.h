#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <type_traits>

#include "qvcore/QVExport.h"

namespace qv {

// Reads an archive made by QVKeyedArchiver. A key that is absent reads as
// nothing: 0, false, or an absent string. A key that holds a value of another
// kind raises QVArchiveException; numbers of any kind (integers, reals,
// booleans) convert into one another.
class QV_EXPORT QVKeyedUnarchiver {
 public:
  // Bytes that are not a binary property list with a dictionary at its root
  // give an unarchiver that is not valid and holds no keys.
  explicit QVKeyedUnarchiver(std::span<const uint8_t> data);
  ~QVKeyedUnarchiver();
  QVKeyedUnarchiver(const QVKeyedUnarchiver&) = delete;
  QVKeyedUnarchiver& operator=(const QVKeyedUnarchiver&) = delete;

  bool isValid() const;
  bool containsValueForKey(const std::string& key) const;

  // Integers come back as the 64 bits that were stored, so a value written
  // signed and read unsigned (or the reverse) is reinterpreted, not clamped.
  int64_t decodeInt64ForKey(const std::string& key) const;
  uint64_t decodeUInt64ForKey(const std::string& key) const;
  bool decodeBoolForKey(const std::string& key) const;
  double decodeDoubleForKey(const std::string& key) const;
  std::optional<std::string> decodeObjectForKey(const std::string& key) const;

  // An object of class T read from data with T's constructor taking a
  // QVKeyedUnarchiver, or null when data is not a readable archive.
  template <class T>
  static std::shared_ptr<T> unarchiveObjectWithData(std::span<const uint8_t> data) {
    static_assert(std::is_constructible_v<T, const QVKeyedUnarchiver&>,
                  "T needs a constructor taking const QVKeyedUnarchiver&");
    QVKeyedUnarchiver coder(data);
    if (!coder.isValid()) return nullptr;
    return std::make_shared<T>(coder);
  }

 private:
  struct Rep;  // the parsed property list; its root is null when not valid
  std::unique_ptr<Rep> rep_;
};

}  // namespace qv
