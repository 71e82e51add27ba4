// Feeds arbitrary bytes to the keyed-archive reader, the way archived
// messages come back from storage. Besides not crashing, hanging or leaking,
// every decoder must either answer or raise QVArchiveException, and a
// message read from an archive must read back the same after being archived
// again.

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>

#include "qvcore/model/QVApplicationContextMessage.h"
#include "qvcore/model/QVMessage.h"
#include "qvcore/model/QVMessageConstants.h"
#include "qvcore/platform/QVArchiveException.h"
#include "qvcore/platform/QVKeyedArchiver.h"
#include "qvcore/platform/QVKeyedUnarchiver.h"

namespace {

using qv::QVKeyedUnarchiver;

// Every way of reading each key, so that a value of any type meets every
// decoder; a wrong type may only raise the archive's own exception.
void decodeEverything(const QVKeyedUnarchiver& coder) {
  for (const char* key : {qv::KeyQVMessageOffset, qv::KeyQVMessageLogLevel,
                          qv::KeyQVApplicationContextType, qv::KeyQVApplicationContextName,
                          qv::KeyQVApplicationContextCurrentScreenId, "", "missing"}) {
    const std::string k = key;
    // An archive that is not valid holds no keys.
    if (!coder.isValid() && coder.containsValueForKey(k)) __builtin_trap();
    try {
      coder.decodeInt64ForKey(k);
      coder.decodeUInt64ForKey(k);
      coder.decodeBoolForKey(k);
      coder.decodeDoubleForKey(k);
    } catch (const qv::QVArchiveException&) {
    }
    try {
      coder.decodeObjectForKey(k);
    } catch (const qv::QVArchiveException&) {
    }
  }
}

void checkMessage(std::span<const uint8_t> bytes) {
  auto message = QVKeyedUnarchiver::unarchiveObjectWithData<qv::QVMessage>(bytes);
  if (!message) return;
  const auto again = qv::QVKeyedArchiver::archivedDataWithRootObject(*message);
  auto copy = QVKeyedUnarchiver::unarchiveObjectWithData<qv::QVMessage>(again);
  if (!copy || copy->offset() != message->offset() || copy->logLevel() != message->logLevel()) {
    __builtin_trap();
  }
}

void checkContextMessage(std::span<const uint8_t> bytes) {
  using qv::QVApplicationContextMessage;
  auto message = QVKeyedUnarchiver::unarchiveObjectWithData<QVApplicationContextMessage>(bytes);
  if (!message) return;
  const auto again = qv::QVKeyedArchiver::archivedDataWithRootObject(*message);
  auto copy = QVKeyedUnarchiver::unarchiveObjectWithData<QVApplicationContextMessage>(again);
  if (!copy || copy->contextType() != message->contextType() || copy->name() != message->name() ||
      copy->referrer() != message->referrer() || copy->klassName() != message->klassName() ||
      copy->referrerKlassName() != message->referrerKlassName() ||
      copy->currentScreenId() != message->currentScreenId() ||
      copy->currentScreenIdSetDate() != message->currentScreenIdSetDate() ||
      copy->previousScreenId() != message->previousScreenId() ||
      copy->previousScreenIdSetDate() != message->previousScreenIdSetDate()) {
    __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::span<const uint8_t> bytes(data, size);
  decodeEverything(QVKeyedUnarchiver(bytes));
  checkMessage(bytes);
  checkContextMessage(bytes);
  return 0;
}
