#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVCoding.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

class QVKeyedUnarchiver;

// One record that a module hands to the core for sending. Modules subclass
// it, add their fields to jsonDictionary(), and archive them after the base's
// fields with the keys of QVMessageConstants. Held as
// std::shared_ptr<QVMessage>; fields may be read and set from any thread.
class QV_EXPORT QVMessage : public QVCoding {
 public:
  // init: offset 0, log level 1.
  QVMessage();
  // initWithCoder: starts from zeroed fields rather than from init, so a
  // missing log level reads as 0. Reading stops at the first key that does
  // not hold a number, keeping the fields read before it.
  explicit QVMessage(const QVKeyedUnarchiver& coder);
  ~QVMessage() override;
  QVMessage(const QVMessage&) = delete;
  QVMessage& operator=(const QVMessage&) = delete;

  // {"offset": offset}. The log level only gates posting and is never sent.
  virtual QVValue jsonDictionary() const;
  // JSON text of whatever jsonDictionary() the object's class returns.
  std::string toJson() const;

  // Writes offset as unsigned under KeyQVMessageOffset, then the log level as
  // signed under KeyQVMessageLogLevel; stops at a key the archiver refuses.
  void encodeWithCoder(QVKeyedArchiver& coder) const override;

  uint64_t offset() const;
  void setOffset(uint64_t offset);
  int32_t logLevel() const;
  void setLogLevel(int32_t logLevel);

 protected:
  // The root object's plain initialisation: every field zero.
  struct PlainInit {};
  explicit QVMessage(PlainInit);
  // What init does to a receiver.
  void applyInit();

 private:
  std::atomic<uint64_t> offset_{0};
  std::atomic<int32_t> logLevel_{0};
};

}  // namespace qv
