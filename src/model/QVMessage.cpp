#include "qvcore/model/QVMessage.h"

#include <exception>

#include "platform/host/QVSwallowed.h"
#include "qvcore/model/QVCoreExtensions.h"
#include "qvcore/model/QVMessageConstants.h"
#include "qvcore/platform/QVKeyedArchiver.h"
#include "qvcore/platform/QVKeyedUnarchiver.h"

namespace qv {

namespace {
constexpr std::size_t kReservedFields = 16;
}  // namespace

QVMessage::QVMessage(PlainInit) {}

QVMessage::QVMessage() : QVMessage(PlainInit{}) { applyInit(); }

QVMessage::QVMessage(const QVKeyedUnarchiver& coder) : QVMessage(PlainInit{}) {
  try {
    setOffset(coder.decodeUInt64ForKey(KeyQVMessageOffset));
    setLogLevel(static_cast<int32_t>(coder.decodeInt64ForKey(KeyQVMessageLogLevel)));
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // A damaged archive yields the fields read before the damage.
  }
}

QVMessage::~QVMessage() = default;

void QVMessage::applyInit() {
  setOffset(0);
  setLogLevel(1);
}

QVValue QVMessage::jsonDictionary() const {
  QVValue dict = QVValue::object();
  // Room for a subclass's fields, so that they are added without the
  // dictionary growing step by step, for every message of every payload.
  dict.get_ref<QVValue::object_t&>().reserve(kReservedFields);
  dict["offset"] = offset();
  return dict;
}

std::string QVMessage::toJson() const { return QVCoreExtensions::toJson(jsonDictionary()); }

void QVMessage::encodeWithCoder(QVKeyedArchiver& coder) const {
  try {
    coder.encodeUInt64ForKey(offset(), KeyQVMessageOffset);
    coder.encodeInt64ForKey(logLevel(), KeyQVMessageLogLevel);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // The archive keeps what was written before the refused key.
  }
}

uint64_t QVMessage::offset() const { return offset_.load(std::memory_order_relaxed); }

void QVMessage::setOffset(uint64_t offset) { offset_.store(offset, std::memory_order_relaxed); }

int32_t QVMessage::logLevel() const { return logLevel_.load(std::memory_order_relaxed); }

void QVMessage::setLogLevel(int32_t logLevel) {
  logLevel_.store(logLevel, std::memory_order_relaxed);
}

}  // namespace qv
