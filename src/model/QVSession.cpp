#include "qvcore/model/QVSession.h"

#include <exception>
#include <string_view>
#include <utility>

#include "model/QVJsonWriter.h"
#include "platform/host/QVSwallowed.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/core/QVCoreHelper.h"
#include "qvcore/model/QVClientEnvironment.h"
#include "qvcore/model/QVCoreExtensions.h"
#include "qvcore/model/QVTestingHelper.h"

namespace qv {

namespace {

// ,"key": (the comma only after the first member); keys here are plain ASCII.
void writeKey(std::string& out, bool& first, std::string_view key) {
  if (!first) out += ',';
  first = false;
  out += '"';
  out += key;
  out += "\":";
}

// Room for the rest of a session's messages, judged by its first one, so
// that a large payload is not copied again at every doubling of its text.
void reserveFor(std::string& out, std::size_t perMessage, std::size_t messages) {
  const std::size_t wanted = out.size() + perMessage * messages + perMessage * messages / 8;
  if (wanted > out.capacity()) out.reserve(wanted);
}

}  // namespace

// The payload's writer: a value JSON cannot carry becomes null and text that
// is not UTF-8 is mended, so that one module's bad value never empties the
// payload that carries every other message.
struct QVSession::Writer {
  explicit Writer(std::string& text) : out(text), json(text, QVJsonWriter::Unwritable::kNull) {}

  std::string& out;
  QVJsonWriter json;
  // How many messages the text holds once written.
  std::size_t messages = 0;
};

QVSession::QVSession()
    : startTime_(QVCoreHelper::sharedInstance()->now()),
      coreSessionID_(QVCore::sharedInstance()->currentSessionID()) {}

QVSession::QVSession(std::string sessionID) : QVSession() { sessionID_ = std::move(sessionID); }

std::shared_ptr<QVSession> QVSession::initWithSessionID(std::string sessionID) {
  return std::make_shared<QVSession>(std::move(sessionID));
}

QVSession::~QVSession() = default;

bool QVSession::addMessage(std::shared_ptr<QVMessage> message) {
  if (!message || !fileMessage(message)) return false;
  // Outside the lock: the log only queues a task, and posters of this
  // session should not wait for it. One thread's messages still reach the
  // log in the order in which they were added.
  logAdded(std::move(message));
  return true;
}

bool QVSession::fileMessage(const std::shared_ptr<QVMessage>& message) {
  if (!message) return false;
  std::lock_guard lock(mutex_);
  if (closed_.load(std::memory_order_relaxed)) return false;
  messages_.push_back(message);
  return true;
}

void QVSession::logAdded(std::shared_ptr<QVMessage> message) {
  QVTestingHelper::logForTesting(std::move(message));
}

void QVSession::close() {
  std::lock_guard lock(mutex_);
  closed_.store(true, std::memory_order_release);
}

bool QVSession::isClosed() const { return closed_.load(std::memory_order_acquire); }

// A closed session's list is final and is walked in place; an open one is
// copied so that posters are not held up while the dictionaries are made.
const QVSession::MessageList& QVSession::messagesToWrite(MessageList& copy) const {
  std::lock_guard lock(mutex_);
  if (closed_.load(std::memory_order_relaxed)) return messages_;
  copy = messages_;
  return copy;
}

QVValue QVSession::jsonSerializedMessages() const {
  MessageList copy;
  const MessageList* list = &messagesToWrite(copy);
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
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // What was set before the failure is the answer.
  }
  return dict;
}

std::string QVSession::toJson() const { return QVCoreExtensions::toJson(jsonDictionary()); }

bool QVSession::appendJson(std::string& out, std::size_t* messagesWritten) const {
  const std::size_t start = out.size();
  try {
    Writer writer(out);
    writeMembers(writer);
    if (messagesWritten) *messagesWritten = writer.messages;
    return true;
  } catch (...) {
    noteSwallowed(__func__);
    // Out of memory: the session is left out, the text as it was.
    out.resize(start);
    return false;
  }
}

// The same members, in the same order and with the same omissions, as
// jsonDictionary(), written straight into the text: each message's
// dictionary lives only while it is written, so a large queue never exists
// as one tree.
void QVSession::writeMembers(Writer& writer) const {
  std::string& out = writer.out;
  std::optional<std::string> id, coreID;
  {
    std::lock_guard lock(mutex_);
    id = sessionID_;
    coreID = coreSessionID_;
  }
  bool first = true;
  out += '{';
  if (id) {
    writeKey(out, first, "id");
    writer.json.string(*id);
  }
  writeKey(out, first, "startTime");
  out += std::to_string(static_cast<int64_t>(startTime_));
  QVValue environment;
  try {
    environment = QVClientEnvironment().jsonDictionary();
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // As in jsonDictionary(): the members set before the failure.
    out += '}';
    return;
  }
  writeKey(out, first, "clientEnvironment");
  writer.json.value(environment);
  const std::size_t beforeMessages = out.size();
  writeKey(out, first, "messages");
  if (!writeMessages(writer)) {
    out.resize(beforeMessages);
    out += '}';
    return;
  }
  if (coreID) {
    writeKey(out, first, "QVCoreSessionID");
    writer.json.string(*coreID);
  }
  out += '}';
}

// False when a message's jsonDictionary() threw, which ends the session's
// members before "messages", as jsonDictionary() does.
bool QVSession::writeMessages(Writer& writer) const {
  std::string& out = writer.out;
  MessageList copy;
  const MessageList* list = &messagesToWrite(copy);
  out += '[';
  bool first = true;
  for (const auto& message : *list) {
    QVValue dict;
    try {
      dict = message->jsonDictionary();
    } catch (const std::exception& e) {
      noteSwallowed(__func__, e);
      return false;
    }
    if (first) {
      const std::size_t before = out.size();
      writer.json.value(dict);
      reserveFor(out, out.size() - before + 1, list->size());
      first = false;
      continue;
    }
    out += ',';
    writer.json.value(dict);
  }
  out += ']';
  writer.messages = list->size();
  return true;
}

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
