#pragma once

#include <memory>

#include "qvcore/QVExport.h"
#include "qvcore/model/QVMessage.h"
#include "qvcore/platform/QVNotification.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// The sending side of the JSON test log, through which a host's test harness
// sees, as dictionaries, the messages that sessions accept. It is switched
// on by the environment variable "QV_JSON_Logging" and speaks through the
// notification of the same name, posted on the main run loop.
//
// The notification's object is a std::shared_ptr<const QVValue> holding the
// message's JSON dictionary, and its sender is that dictionary's address:
// the sender is the dictionary itself, kept alive by the object for as long
// as any copy of the notification lives. Observers register for any sender.
class QV_EXPORT QVTestingHelper {
 public:
  // The name of both the environment variable and the notification.
  static constexpr const char* kJsonLoggingName = "QV_JSON_Logging";

  // When "QV_JSON_Logging" reads as the integer 1 and message is present,
  // posts to the main run loop a task that, when it runs, asks the message
  // for its jsonDictionary() and posts that as the notification. The
  // dictionary is built then, not now, so a message changed in between is
  // logged as changed. Otherwise does nothing. The variable is read at every
  // call, as a decimal integer parse would read it: unset is 0, "01" is 1.
  // A std::exception from jsonDictionary() is swallowed on the main loop and
  // nothing is posted for that message; other exceptions reach the pump.
  // Returns at once; callable from any thread.
  static void logForTesting(std::shared_ptr<QVMessage> message);

  // The dictionary that a notification of the log carries; null for a
  // notification that carries none.
  static std::shared_ptr<const QVValue> jsonDictionaryOfNotification(
      const QVNotification& notification);
};

}  // namespace qv
