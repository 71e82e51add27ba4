#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVCoding.h"

namespace qv {

// Writes typed values under string keys and yields them as a binary property
// list whose root dictionary holds each value under its key. Property lists
// have no signed integers, so signed values are stored as the bits of their
// two's complement and QVKeyedUnarchiver reads them back as such.
//
// Writing a key again replaces its value. Keys and strings must be valid
// UTF-8 without NUL characters, since the property-list writer would alter
// them silently; anything else raises QVArchiveException and leaves the
// archive unchanged.
class QV_EXPORT QVKeyedArchiver {
 public:
  QVKeyedArchiver();
  ~QVKeyedArchiver();
  QVKeyedArchiver(const QVKeyedArchiver&) = delete;
  QVKeyedArchiver& operator=(const QVKeyedArchiver&) = delete;

  void encodeInt64ForKey(int64_t value, const std::string& key);
  void encodeUInt64ForKey(uint64_t value, const std::string& key);
  void encodeBoolForKey(bool value, const std::string& key);
  void encodeDoubleForKey(double value, const std::string& key);
  // The objects of these archives are strings. An absent string writes
  // nothing, so it reads back as absent.
  void encodeObjectForKey(const std::optional<std::string>& value, const std::string& key);

  // The binary property list of everything written so far; empty if the
  // writer fails.
  std::vector<uint8_t> archivedData() const;

  static std::vector<uint8_t> archivedDataWithRootObject(const QVCoding& root);

 private:
  struct Rep;  // the property-list dictionary being written
  std::unique_ptr<Rep> rep_;
};

}  // namespace qv
