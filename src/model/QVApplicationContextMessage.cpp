#include "qvcore/model/QVApplicationContextMessage.h"

#include <exception>

#include "platform/host/QVSwallowed.h"
#include "qvcore/core/QVCoreHelper.h"
#include "qvcore/model/QVMessageConstants.h"
#include "qvcore/platform/QVKeyedArchiver.h"
#include "qvcore/platform/QVKeyedUnarchiver.h"

namespace qv {

using OptionalString = QVApplicationContextMessage::OptionalString;

QVApplicationContextMessage::QVApplicationContextMessage() : QVMessage(PlainInit{}) {
  superInitWrapper();
}

// Deliberately not QVMessage(coder): the base's archived fields are neither
// written nor read by this class, so offset and log level come from init.
QVApplicationContextMessage::QVApplicationContextMessage(const QVKeyedUnarchiver& coder)
    : QVApplicationContextMessage() {
  decodeWithCoder(coder);
}

void QVApplicationContextMessage::superInitWrapper() { applyInit(); }

QVApplicationContextMessage::QVApplicationContextMessage(int64_t contextType, OptionalString name,
                                                         OptionalString referrer)
    : QVApplicationContextMessage(contextType, std::move(name), std::move(referrer), "", "") {}

// Not the full initialiser: that one would stamp the set date for a non-zero
// type, and this one leaves it 0.
QVApplicationContextMessage::QVApplicationContextMessage(int64_t contextType, OptionalString name,
                                                         OptionalString referrer,
                                                         OptionalString klassName,
                                                         OptionalString referrerKlassName)
    : QVApplicationContextMessage() {
  setContextType(contextType);
  setName(std::move(name));
  setReferrer(std::move(referrer));
  setKlassName(std::move(klassName));
  setReferrerKlassName(std::move(referrerKlassName));
}

QVApplicationContextMessage::QVApplicationContextMessage(
    int64_t contextType, OptionalString name, OptionalString referrer, OptionalString klassName,
    OptionalString referrerKlassName, uint64_t currentScreenId, uint64_t currentScreenIdSetDate,
    uint64_t previousScreenId, uint64_t previousScreenIdSetDate)
    : QVApplicationContextMessage(contextType, std::move(name), std::move(referrer),
                                  std::move(klassName), std::move(referrerKlassName)) {
  // Intended asymmetry: only a type-0 context keeps a caller-supplied set
  // date; every other type is stamped with the time of its creation.
  setCurrentScreenIdSetDate(contextType != 0 ? QVCoreHelper::sharedInstance()->now()
                                             : currentScreenIdSetDate);
  setCurrentScreenId(currentScreenId);
  setPreviousScreenId(previousScreenId);
  setPreviousScreenIdSetDate(previousScreenIdSetDate);
}

std::shared_ptr<QVApplicationContextMessage> QVApplicationContextMessage::initWithTypeNameReferrer(
    int64_t contextType, OptionalString name, OptionalString referrer) {
  return std::make_shared<QVApplicationContextMessage>(contextType, std::move(name),
                                                       std::move(referrer));
}

std::shared_ptr<QVApplicationContextMessage>
QVApplicationContextMessage::initWithTypeNameReferrerKlassNameReferrerKlassName(
    int64_t contextType, OptionalString name, OptionalString referrer, OptionalString klassName,
    OptionalString referrerKlassName) {
  return std::make_shared<QVApplicationContextMessage>(contextType, std::move(name),
                                                       std::move(referrer), std::move(klassName),
                                                       std::move(referrerKlassName));
}

std::shared_ptr<QVApplicationContextMessage> QVApplicationContextMessage::
    initWithTypeNameReferrerKlassNameReferrerKlassNameCurrentScreenIdCurrentScreenIdSetDatePreviousScreenIdPreviousScreenIdSetDate(
        int64_t contextType, OptionalString name, OptionalString referrer, OptionalString klassName,
        OptionalString referrerKlassName, uint64_t currentScreenId, uint64_t currentScreenIdSetDate,
        uint64_t previousScreenId, uint64_t previousScreenIdSetDate) {
  return std::make_shared<QVApplicationContextMessage>(
      contextType, std::move(name), std::move(referrer), std::move(klassName),
      std::move(referrerKlassName), currentScreenId, currentScreenIdSetDate, previousScreenId,
      previousScreenIdSetDate);
}

uint64_t QVApplicationContextMessage::timeSinceStart() const {
  return QVCoreHelper::sharedInstance()->now() - currentScreenIdSetDate();
}

// Deliberately does not chain to QVMessage::encodeWithCoder: archives of this
// class have never carried offset and log level.
void QVApplicationContextMessage::encodeWithCoder(QVKeyedArchiver& coder) const {
  try {
    coder.encodeInt64ForKey(contextType(), KeyQVApplicationContextType);
    coder.encodeObjectForKey(name(), KeyQVApplicationContextName);
    coder.encodeObjectForKey(referrer(), KeyQVApplicationContextReferrer);
    coder.encodeObjectForKey(klassName(), KeyQVApplicationContextKlassName);
    coder.encodeObjectForKey(referrerKlassName(), KeyQVApplicationContextReferrerKlassName);
    coder.encodeUInt64ForKey(currentScreenId(), KeyQVApplicationContextCurrentScreenId);
    coder.encodeUInt64ForKey(currentScreenIdSetDate(),
                             KeyQVApplicationContextCurrentScreenIdSetDate);
    coder.encodeUInt64ForKey(previousScreenId(), KeyQVApplicationContextPreviousScreenId);
    coder.encodeUInt64ForKey(previousScreenIdSetDate(),
                             KeyQVApplicaitonContextPreviousScreenIdSetDate);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // The archive keeps what was written before the refused key.
  }
}

void QVApplicationContextMessage::decodeWithCoder(const QVKeyedUnarchiver& coder) {
  try {
    setContextType(coder.decodeInt64ForKey(KeyQVApplicationContextType));
    setName(coder.decodeObjectForKey(KeyQVApplicationContextName));
    setReferrer(coder.decodeObjectForKey(KeyQVApplicationContextReferrer));
    setKlassName(coder.decodeObjectForKey(KeyQVApplicationContextKlassName));
    setReferrerKlassName(coder.decodeObjectForKey(KeyQVApplicationContextReferrerKlassName));
    setCurrentScreenId(coder.decodeUInt64ForKey(KeyQVApplicationContextCurrentScreenId));
    setCurrentScreenIdSetDate(
        coder.decodeUInt64ForKey(KeyQVApplicationContextCurrentScreenIdSetDate));
    setPreviousScreenId(coder.decodeUInt64ForKey(KeyQVApplicationContextPreviousScreenId));
    setPreviousScreenIdSetDate(
        coder.decodeUInt64ForKey(KeyQVApplicaitonContextPreviousScreenIdSetDate));
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // A damaged archive yields the fields read before the damage.
  }
}

int64_t QVApplicationContextMessage::contextType() const { return contextType_.load(); }

void QVApplicationContextMessage::setContextType(int64_t v) { contextType_.store(v); }

OptionalString QVApplicationContextMessage::lockedRead(const OptionalString& field) const {
  std::lock_guard lock(stringsMutex_);
  return field;
}

void QVApplicationContextMessage::lockedWrite(OptionalString& field, OptionalString value) {
  std::lock_guard lock(stringsMutex_);
  field = std::move(value);
}

OptionalString QVApplicationContextMessage::name() const { return lockedRead(name_); }

void QVApplicationContextMessage::setName(OptionalString v) { lockedWrite(name_, std::move(v)); }

OptionalString QVApplicationContextMessage::referrer() const { return lockedRead(referrer_); }

void QVApplicationContextMessage::setReferrer(OptionalString v) {
  lockedWrite(referrer_, std::move(v));
}

OptionalString QVApplicationContextMessage::klassName() const { return lockedRead(klassName_); }

void QVApplicationContextMessage::setKlassName(OptionalString v) {
  lockedWrite(klassName_, std::move(v));
}

OptionalString QVApplicationContextMessage::referrerKlassName() const {
  return lockedRead(referrerKlassName_);
}

void QVApplicationContextMessage::setReferrerKlassName(OptionalString v) {
  lockedWrite(referrerKlassName_, std::move(v));
}

uint64_t QVApplicationContextMessage::currentScreenId() const { return currentScreenId_.load(); }

void QVApplicationContextMessage::setCurrentScreenId(uint64_t v) { currentScreenId_.store(v); }

uint64_t QVApplicationContextMessage::currentScreenIdSetDate() const {
  return currentScreenIdSetDate_.load();
}

void QVApplicationContextMessage::setCurrentScreenIdSetDate(uint64_t v) {
  currentScreenIdSetDate_.store(v);
}

uint64_t QVApplicationContextMessage::previousScreenId() const { return previousScreenId_.load(); }

void QVApplicationContextMessage::setPreviousScreenId(uint64_t v) { previousScreenId_.store(v); }

uint64_t QVApplicationContextMessage::previousScreenIdSetDate() const {
  return previousScreenIdSetDate_.load();
}

void QVApplicationContextMessage::setPreviousScreenIdSetDate(uint64_t v) {
  previousScreenIdSetDate_.store(v);
}

}  // namespace qv
