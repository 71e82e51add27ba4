#include "qvcore/model/QVSession.h"

#include <charconv>
#include <cmath>
#include <exception>
#include <string_view>
#include <utility>

#include "qvcore/core/QVCore.h"
#include "qvcore/core/QVCoreHelper.h"
#include "qvcore/model/QVClientEnvironment.h"
#include "qvcore/model/QVCoreExtensions.h"
#include "qvcore/model/QVTestingHelper.h"

namespace qv {

namespace {

// Raised when a value met on the way cannot be written as JSON.
struct NotJson {};

// Text the JSON writer copies as it is: printable ASCII with nothing to
// escape. Most keys and values of a payload are such text, and copying it
// skips the writer's byte-by-byte UTF-8 check.
bool isPlainText(std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte >= 0x7F || byte == '"' || byte == '\\') return false;
  }
  return true;
}

// ,"key": (the comma only after the first member); keys here are plain ASCII.
void writeKey(std::string& out, bool& first, std::string_view key) {
  if (!first) out += ',';
  first = false;
  out += '"';
  out += key;
  out += "\":";
}

template <typename Integer>
void appendInteger(std::string& out, Integer value) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  out.append(digits, end);
}

// Room for the rest of a session's messages, judged by its first one, so
// that a large payload is not copied again at every doubling of its text.
void reserveFor(std::string& out, std::size_t perMessage, std::size_t messages) {
  const std::size_t wanted = out.size() + perMessage * messages + perMessage * messages / 8;
  if (wanted > out.capacity()) out.reserve(wanted);
}

}  // namespace

// Appends JSON text to one string, exactly as dump() would write it, but
// refuses what dump() would change silently (NaN, infinity, binary data)
// and, for a message, without walking its dictionary twice: the flat
// members that make up most messages are checked as they are written.
struct QVSession::Writer {
  using Serializer = nlohmann::detail::serializer<QVValue>;

  explicit Writer(std::string& text)
      : out(text),
        serializer(nlohmann::detail::output_adapter<char, std::string>(text), ' ',
                   QVValue::error_handler_t::strict) {}

  // Any value; throws NotJson for one JSON cannot carry, and the
  // serializer's exception for text that is not UTF-8.
  void value(const QVValue& v) {
    if (!QVCoreExtensions::isJsonCapable(v)) throw NotJson{};
    serializer.dump(v, false, false, 0);
  }

  // A message's dictionary, member by member.
  void message(const QVValue& dict) {
    if (!dict.is_object()) {
      value(dict);
      return;
    }
    out += '{';
    bool first = true;
    for (const auto& [name, member] : dict.get_ref<const QVValue::object_t&>()) {
      if (!first) out += ',';
      first = false;
      key(name);
      out += ':';
      flatValue(member);
    }
    out += '}';
  }

  std::string& out;
  Serializer serializer;

 private:
  void quoted(const std::string& s) {
    out += '"';
    out += s;
    out += '"';
  }

  void key(const std::string& s) {
    if (isPlainText(s)) {
      quoted(s);
    } else {
      serializer.dump(QVValue(s), false, false, 0);
    }
  }

  // Scalars written directly where the text is bound to be the same;
  // containers and floating-point numbers go through the full check.
  void flatValue(const QVValue& v) {
    switch (v.type()) {
      case QVValue::value_t::string:
        if (isPlainText(v.get_ref<const std::string&>())) {
          quoted(v.get_ref<const std::string&>());
        } else {
          serializer.dump(v, false, false, 0);
        }
        return;
      case QVValue::value_t::number_integer:
        appendInteger(out, v.get_ref<const QVValue::number_integer_t&>());
        return;
      case QVValue::value_t::number_unsigned:
        appendInteger(out, v.get_ref<const QVValue::number_unsigned_t&>());
        return;
      case QVValue::value_t::boolean:
        out += v.get_ref<const QVValue::boolean_t&>() ? "true" : "false";
        return;
      case QVValue::value_t::null:
        out += "null";
        return;
      default:
        value(v);
        return;
    }
  }
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
  } catch (const std::exception&) {
    // What was set before the failure is the answer.
  }
  return dict;
}

std::string QVSession::toJson() const { return QVCoreExtensions::toJson(jsonDictionary()); }

bool QVSession::appendJson(std::string& out) const {
  const std::size_t start = out.size();
  try {
    Writer writer(out);
    writeMembers(writer);
    return true;
  } catch (...) {
    // Not JSON (a non-finite number, binary data, text that is not UTF-8),
    // or out of memory: the caller's whole text is void.
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
    writer.value(QVValue(std::move(*id)));
  }
  writeKey(out, first, "startTime");
  out += std::to_string(static_cast<int64_t>(startTime_));
  QVValue environment;
  try {
    environment = QVClientEnvironment().jsonDictionary();
  } catch (const std::exception&) {
    // As in jsonDictionary(): the members set before the failure.
    out += '}';
    return;
  }
  writeKey(out, first, "clientEnvironment");
  writer.value(environment);
  const std::size_t beforeMessages = out.size();
  writeKey(out, first, "messages");
  if (!writeMessages(writer)) {
    out.resize(beforeMessages);
    out += '}';
    return;
  }
  if (coreID) {
    writeKey(out, first, "QVCoreSessionID");
    writer.value(QVValue(std::move(*coreID)));
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
    } catch (const std::exception&) {
      return false;
    }
    if (first) {
      const std::size_t before = out.size();
      writer.message(dict);
      reserveFor(out, out.size() - before + 1, list->size());
      first = false;
      continue;
    }
    out += ',';
    writer.message(dict);
  }
  out += ']';
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
