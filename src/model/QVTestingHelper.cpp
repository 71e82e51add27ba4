#include "qvcore/model/QVTestingHelper.h"

#include <cstdlib>
#include <exception>

#include "platform/host/QVSwallowed.h"
#include "qvcore/platform/QVNotificationCenter.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {

namespace {

bool isLoggingSwitchedOn() {
  const char* value = std::getenv(QVTestingHelper::kJsonLoggingName);
  return value && std::strtol(value, nullptr, 10) == 1;
}

// Runs on the host's main loop, so a module's jsonDictionary that fails must
// not escape into the host's pump: a std::exception is swallowed and the
// message is not logged, as every other module hook treats one. Anything
// else thrown passes on, as it does from the other hooks.
void postJsonDictionaryOf(const QVMessage& message) {
  QVValue dictionary;
  try {
    dictionary = message.jsonDictionary();
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return;
  }
  if (dictionary.is_null()) return;
  auto shared = std::make_shared<const QVValue>(std::move(dictionary));
  QVNotification notification;
  notification.name = QVTestingHelper::kJsonLoggingName;
  notification.sender = shared.get();
  notification.object = std::move(shared);
  QVNotificationCenter::defaultCenter().post(notification);
}

}  // namespace

void QVTestingHelper::logForTesting(std::shared_ptr<QVMessage> message) {
  if (!message || !isLoggingSwitchedOn()) return;
  QVRunLoop::main().post([message = std::move(message)] { postJsonDictionaryOf(*message); });
}

std::shared_ptr<const QVValue> QVTestingHelper::jsonDictionaryOfNotification(
    const QVNotification& notification) {
  const auto* dictionary = std::any_cast<std::shared_ptr<const QVValue>>(&notification.object);
  return dictionary ? *dictionary : nullptr;
}

}  // namespace qv
