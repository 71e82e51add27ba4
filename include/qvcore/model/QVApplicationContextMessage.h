#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/model/QVMessage.h"

namespace qv {

// A message that carries the application's screen context. Its JSON form is
// the base's; modules that send the context fields add them in their own
// subclasses. The field name klassName is the system's own spelling.
class QV_EXPORT QVApplicationContextMessage : public QVMessage {
 public:
  using OptionalString = std::optional<std::string>;

  // The base's init; numbers 0, strings absent.
  QVApplicationContextMessage();
  // initWithCoder: reads the nine context keys in archive order and stops at
  // the first one holding a value of the wrong kind. Offset and log level are
  // those of init, not the archive's.
  explicit QVApplicationContextMessage(const QVKeyedUnarchiver& coder);

  // The three initialisers, as constructors, so that a module's subclass
  // builds on them (and so on the creation-time rule of the full one):
  //   class ScreenMessage : public QVApplicationContextMessage {
  //    public:
  //     using QVApplicationContextMessage::QVApplicationContextMessage;
  //     QVValue jsonDictionary() const override;  // adds its own keys
  //   };
  // Class names "", the four numbers 0 whatever the type.
  QVApplicationContextMessage(int64_t contextType, OptionalString name, OptionalString referrer);
  // The four numbers 0 whatever the type.
  QVApplicationContextMessage(int64_t contextType, OptionalString name, OptionalString referrer,
                              OptionalString klassName, OptionalString referrerKlassName);
  // Every field from its argument, except that a contextType other than 0
  // takes the current time as currentScreenIdSetDate.
  QVApplicationContextMessage(int64_t contextType, OptionalString name, OptionalString referrer,
                              OptionalString klassName, OptionalString referrerKlassName,
                              uint64_t currentScreenId, uint64_t currentScreenIdSetDate,
                              uint64_t previousScreenId, uint64_t previousScreenIdSetDate);

  // The same initialisers as factories of this class.
  // Class names "", the four numbers 0 whatever the type.
  static std::shared_ptr<QVApplicationContextMessage> initWithTypeNameReferrer(
      int64_t contextType, OptionalString name, OptionalString referrer);
  // The four numbers 0 whatever the type.
  static std::shared_ptr<QVApplicationContextMessage>
  initWithTypeNameReferrerKlassNameReferrerKlassName(int64_t contextType, OptionalString name,
                                                     OptionalString referrer,
                                                     OptionalString klassName,
                                                     OptionalString referrerKlassName);
  // Every field from its argument, except that a contextType other than 0
  // takes the current time as currentScreenIdSetDate.
  static std::shared_ptr<QVApplicationContextMessage>
  initWithTypeNameReferrerKlassNameReferrerKlassNameCurrentScreenIdCurrentScreenIdSetDatePreviousScreenIdPreviousScreenIdSetDate(
      int64_t contextType, OptionalString name, OptionalString referrer, OptionalString klassName,
      OptionalString referrerKlassName, uint64_t currentScreenId, uint64_t currentScreenIdSetDate,
      uint64_t previousScreenId, uint64_t previousScreenIdSetDate);

  // Milliseconds from currentScreenIdSetDate to now, as an unsigned
  // difference (a set date in the future wraps around).
  uint64_t timeSinceStart() const;

  // Writes the nine context keys only; offset and log level are not archived.
  void encodeWithCoder(QVKeyedArchiver& coder) const override;

  int64_t contextType() const;
  void setContextType(int64_t contextType);
  OptionalString name() const;
  void setName(OptionalString name);
  OptionalString referrer() const;
  void setReferrer(OptionalString referrer);
  OptionalString klassName() const;
  void setKlassName(OptionalString klassName);
  OptionalString referrerKlassName() const;
  void setReferrerKlassName(OptionalString referrerKlassName);
  uint64_t currentScreenId() const;
  void setCurrentScreenId(uint64_t currentScreenId);
  uint64_t currentScreenIdSetDate() const;
  void setCurrentScreenIdSetDate(uint64_t currentScreenIdSetDate);
  uint64_t previousScreenId() const;
  void setPreviousScreenId(uint64_t previousScreenId);
  uint64_t previousScreenIdSetDate() const;
  void setPreviousScreenIdSetDate(uint64_t previousScreenIdSetDate);

 protected:
  // Runs the base's init on this receiver: offset 0, log level 1.
  void superInitWrapper();

 private:
  void decodeWithCoder(const QVKeyedUnarchiver& coder);
  // The four strings are read and written under one lock.
  OptionalString lockedRead(const OptionalString& field) const;
  void lockedWrite(OptionalString& field, OptionalString value);

  std::atomic<int64_t> contextType_{0};
  std::atomic<uint64_t> currentScreenId_{0};
  std::atomic<uint64_t> currentScreenIdSetDate_{0};
  std::atomic<uint64_t> previousScreenId_{0};
  std::atomic<uint64_t> previousScreenIdSetDate_{0};

  mutable std::mutex stringsMutex_;  // guards the four strings
  OptionalString name_;
  OptionalString referrer_;
  OptionalString klassName_;
  OptionalString referrerKlassName_;
};

}  // namespace qv
