#include "qvcore/model/QVSession.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <deque>
#include <exception>
#include <string_view>
#include <thread>
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

// A lane's next stamped message, for the merge.
struct LaneHead {
  uint64_t stamp;
  std::size_t lane;
  std::size_t index;
};

// Takes the lanes' stamped messages in the order of their stamps, lane by
// lane on a tie; heads holds each lane's first one.
template <class Lanes, class Take>
void takeByStamp(const Lanes& lanes, std::vector<LaneHead>& heads, Take&& take) {
  const auto later = [](const LaneHead& a, const LaneHead& b) {
    return a.stamp != b.stamp ? a.stamp > b.stamp : a.lane > b.lane;
  };
  std::make_heap(heads.begin(), heads.end(), later);
  while (!heads.empty()) {
    std::pop_heap(heads.begin(), heads.end(), later);
    LaneHead& head = heads.back();
    auto& lane = *lanes[head.lane];
    take(lane, head.index);
    if (++head.index == lane.sizeLocked()) {
      heads.pop_back();
      continue;
    }
    head.stamp = lane.stampLocked(head.index);
    std::push_heap(heads.begin(), heads.end(), later);
  }
}

}  // namespace

// One thread's adds to one session. While the session has had one posting
// thread only, its messages need no order beyond their place in the lane;
// once a second thread adds, every add in every lane is stamped, and the
// merge interleaves the lanes by stamp. Lanes are shared with the posting
// threads that keep them, and outlive their session closed and empty: a
// closed lane never reads the session again.
//
// The messages sit in a deque, whose blocks are never moved: a growing
// vector would copy the whole list at each doubling and hand its old block,
// large enough to be mapped on its own, back to the kernel, which stalls the
// other posting threads of the process while their address translations
// are flushed.
class alignas(64) QVSession::Lane {
 public:
  Lane(std::thread::id owner, const std::atomic<bool>& shared) : owner_(owner), shared_(&shared) {}

  std::thread::id owner() const { return owner_; }

  bool add(const std::shared_ptr<QVMessage>& message) {
    std::lock_guard lock(mutex_);
    if (closed_) return false;
    // Relaxed is enough: an add that began after another thread's add
    // returned sees the flag that thread's first add set.
    if (shared_->load(std::memory_order_relaxed)) stamps_.push_back(orderStamp());
    messages_.push_back(message);
    return true;
  }

  // The caller holds mutex() for the rest. The stamped messages are the
  // lane's last ones: once set, the session's flag stays.
  std::size_t unstampedLocked() const { return messages_.size() - stamps_.size(); }
  uint64_t stampLocked(std::size_t index) const { return stamps_[index - unstampedLocked()]; }
  std::shared_ptr<QVMessage>& messageLocked(std::size_t index) { return messages_[index]; }
  std::size_t sizeLocked() const { return messages_.size(); }
  void closeLocked() { closed_ = true; }
  void clearLocked() {
    std::deque<std::shared_ptr<QVMessage>>().swap(messages_);
    std::deque<uint64_t>().swap(stamps_);
  }
  std::mutex& mutex() const { return mutex_; }

 private:
  // The order of adds in different lanes. The monotonic clock moves on
  // between the return of one add and the start of another thread's next
  // add (handing over between two cores alone takes longer than a tick), so
  // a later add gets a later stamp without the threads sharing a cache line
  // that every add writes; equal stamps belong to adds that overlapped, and
  // either order is theirs. Where the clock is coarse, a counter shared by
  // every lane gives the stamps instead.
  static uint64_t orderStamp() {
    static const bool fineClock = [] {
      timespec resolution{};
      return clock_getres(CLOCK_MONOTONIC, &resolution) == 0 && resolution.tv_sec == 0 &&
             resolution.tv_nsec <= 1;
    }();
    if (fineClock) {
      return static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    }
    static std::atomic<uint64_t> counter{0};
    return counter.fetch_add(1, std::memory_order_relaxed);
  }

  const std::thread::id owner_;
  const std::atomic<bool>* const shared_;  // read only while open
  mutable std::mutex mutex_;
  bool closed_ = false;
  std::deque<std::shared_ptr<QVMessage>> messages_;
  std::deque<uint64_t> stamps_;
};

// The payload's writer: a value JSON cannot carry becomes null and text that
// is not UTF-8 is mended, so that one module's bad value never empties the
// payload that carries every other message.
struct QVSession::Writer {
  Writer(std::string& text, TextWatcher* textWatcher)
      : out(text), json(text, QVJsonWriter::Unwritable::kNull), watcher(textWatcher) {}

  void cutTo(std::size_t size) {
    out.resize(size);
    if (watcher) watcher->cut(size);
  }

  std::string& out;
  QVJsonWriter json;
  TextWatcher* watcher;
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

QVSession::~QVSession() {
  // Lanes kept by posting threads must not read the session any more.
  std::lock_guard lock(mutex_);
  closeLanesLocked();
}

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
  const std::shared_ptr<Lane> lane = laneForThisThread();
  return lane && lane->add(message);
}

std::shared_ptr<QVSession::Lane> QVSession::laneForThisThread() {
  const std::thread::id self = std::this_thread::get_id();
  std::lock_guard lock(mutex_);
  if (closed_.load(std::memory_order_relaxed)) return nullptr;
  for (const auto& lane : lanes_) {
    if (lane->owner() == self) return lane;
  }
  if (lanes_.size() == 1) sharedByThreads_.store(true, std::memory_order_relaxed);
  return lanes_.emplace_back(std::make_shared<Lane>(self, sharedByThreads_));
}

bool QVSession::fileInLane(Lane& lane, const std::shared_ptr<QVMessage>& message) {
  return message && lane.add(message);
}

void QVSession::logAdded(std::shared_ptr<QVMessage> message) {
  QVTestingHelper::logForTesting(std::move(message));
}

void QVSession::close() {
  std::lock_guard lock(mutex_);
  if (closed_.load(std::memory_order_relaxed)) return;
  closeLanesLocked();
  messages_ = mergedLocked(Merge::kMove);
  for (const auto& lane : lanes_) {
    std::lock_guard laneLock(lane->mutex());
    lane->clearLocked();
  }
  lanes_.clear();
  closed_.store(true, std::memory_order_release);
}

void QVSession::closeLanesLocked() {
  for (const auto& lane : lanes_) lane->mutex().lock();
  for (const auto& lane : lanes_) lane->closeLocked();
  for (const auto& lane : lanes_) lane->mutex().unlock();
}

// Every lane is locked while it is read, so that the copy is one moment of
// the session: an add either is in it or began after it. Only the first
// lane can hold unstamped messages, made before a second thread added, and
// they come first; the stamped ones are merged by stamp, lane by lane on a
// tie.
QVSession::MessageList QVSession::mergedLocked(Merge how) const {
  for (const auto& lane : lanes_) lane->mutex().lock();
  struct Unlock {
    const std::vector<std::shared_ptr<Lane>>& lanes;
    ~Unlock() {
      for (const auto& lane : lanes) lane->mutex().unlock();
    }
  } unlock{lanes_};
  MessageList merged;
  std::size_t total = 0;
  for (const auto& lane : lanes_) total += lane->sizeLocked();
  merged.reserve(total);
  const auto take = [&merged, how](Lane& lane, std::size_t index) {
    std::shared_ptr<QVMessage>& message = lane.messageLocked(index);
    if (how == Merge::kMove) {
      merged.push_back(std::move(message));
    } else {
      merged.push_back(message);
    }
  };
  std::vector<LaneHead> heads;
  for (std::size_t i = 0; i < lanes_.size(); ++i) {
    Lane& lane = *lanes_[i];
    const std::size_t unstamped = lane.unstampedLocked();
    for (std::size_t m = 0; m < unstamped; ++m) take(lane, m);
    if (unstamped < lane.sizeLocked()) heads.push_back({lane.stampLocked(unstamped), i, unstamped});
  }
  takeByStamp(lanes_, heads, take);
  return merged;
}

bool QVSession::isClosed() const { return closed_.load(std::memory_order_acquire); }

// A closed session's list is final and is walked in place; an open one is
// copied so that posters are not held up while the dictionaries are made.
const QVSession::MessageList& QVSession::messagesToWrite(MessageList& copy) const {
  std::lock_guard lock(mutex_);
  if (closed_.load(std::memory_order_relaxed)) return messages_;
  copy = mergedLocked(Merge::kCopy);
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

bool QVSession::appendJson(std::string& out, std::size_t* messagesWritten,
                           TextWatcher* watcher) const {
  const std::size_t start = out.size();
  try {
    Writer writer(out, watcher);
    writeMembers(writer);
    if (messagesWritten) *messagesWritten = writer.messages;
    return true;
  } catch (...) {
    noteSwallowed(__func__);
    // Out of memory: the session is left out, the text as it was.
    out.resize(start);
    if (watcher) watcher->cut(start);
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
    writer.cutTo(beforeMessages);
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
    if (writer.watcher) writer.watcher->grew(out);
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
  if (closed_.load(std::memory_order_relaxed)) return messages_;
  return mergedLocked(Merge::kCopy);
}

std::size_t QVSession::messageCount() const {
  std::lock_guard lock(mutex_);
  if (closed_.load(std::memory_order_relaxed)) return messages_.size();
  std::size_t count = 0;
  for (const auto& lane : lanes_) {
    std::lock_guard laneLock(lane->mutex());
    count += lane->sizeLocked();
  }
  return count;
}

}  // namespace qv
