#include "qvcore/model/QVSession.h"

#include <exception>
#include <utility>

#include "qvcore/core/QVCore.h"
#include "qvcore/core/QVCoreHelper.h"
#include "qvcore/model/QVClientEnvironment.h"
#include "qvcore/model/QVCoreExtensions.h"
#include "qvcore/model/QVTestingHelper.h"

namespace qv {

QVSession::QVSession()
    : startTime_(QVCoreHelper::sharedInstance()->now()),
      coreSessionID_(QVCore::sharedInstance()->currentSessionID()) {}

QVSession::QVSession(std::string sessionID) : QVSession() { sessionID_ = std::move(sessionID); }

std::shared_ptr<QVSession> QVSession::initWithSessionID(std::string sessionID) {
  return std::make_shared<QVSession>(std::move(sessionID));
}

QVSession::~QVSession() = default;

bool QVSession::addMessage(std::shared_ptr<QVMessage> message) {
  if (!message) return false;
  {
    std::lock_guard lock(mutex_);
    if (closed_.load(std::memory_order_relaxed)) return false;
    messages_.push_back(message);
  }
  // Outside the lock: the log only queues a task, and posters of this
  // session should not wait for it. One thread's messages still reach the
  // log in the order in which they were added.
  QVTestingHelper::logForTesting(std::move(message));
  return true;
}

void QVSession::close() {
  std::lock_guard lock(mutex_);
  closed_.store(true, std::memory_order_release);
}

bool QVSession::isClosed() const { return closed_.load(std::memory_order_acquire); }

QVValue QVSession::jsonSerializedMessages() const {
  // A closed session's list is final and is walked in place; an open one is
  // copied so that posters are not held up while the dictionaries are made.
  MessageList copy;
  const MessageList* list = &messages_;
  {
    std::lock_guard lock(mutex_);
    if (!closed_.load(std::memory_order_relaxed)) {
      copy = messages_;
      list = &copy;
    }
  }
  QVValue array = QVValue::array();
  array.get_ref<QVValue::array_t&>().reserve(list->size());
  for (const auto& message : *list) array.push_back(message->jsonDictionary());
  return array;
}

QVValue QVSession::jsonDictionary() const {
  QVValue dict = QVValue::object();
  try {
    std::optional<std::string> id, coreID;
    {
      std::lock_guard lock(mutex_);
      id = sessionID_;
      coreID = coreSessionID_;
    }
    QVValues::setValueForKey(dict, "id", std::move(id));
    dict["startTime"] = static_cast<int64_t>(startTime_);
    dict["clientEnvironment"] = QVClientEnvironment().jsonDictionary();
    dict["messages"] = jsonSerializedMessages();
    QVValues::setValueForKey(dict, "QVCoreSessionID", std::move(coreID));
  } catch (const std::exception&) {
    // What was set before the failure is the answer.
  }
  return dict;
}

std::string QVSession::toJson() const { return QVCoreExtensions::toJson(jsonDictionary()); }

std::optional<std::string> QVSession::coreSessionID() const {
  std::lock_guard lock(mutex_);
  return coreSessionID_;
}

void QVSession::setCoreSessionID(std::optional<std::string> coreSessionID) {
  std::lock_guard lock(mutex_);
  coreSessionID_ = std::move(coreSessionID);
}

std::optional<std::string> QVSession::sessionID() const {
  std::lock_guard lock(mutex_);
  return sessionID_;
}

void QVSession::setSessionID(std::optional<std::string> sessionID) {
  std::lock_guard lock(mutex_);
  sessionID_ = std::move(sessionID);
}

QVSession::MessageList QVSession::messages() const {
  std::lock_guard lock(mutex_);
  return messages_;
}

std::size_t QVSession::messageCount() const {
  std::lock_guard lock(mutex_);
  return messages_.size();
}

}  // namespace qv
