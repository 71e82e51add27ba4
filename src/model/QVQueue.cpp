#include "qvcore/model/QVQueue.h"

#include <algorithm>
#include <exception>
#include <iterator>

#include "platform/host/QVSwallowed.h"
#include "platform/runloop/QVPublished.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVCoreExtensions.h"

namespace qv {

namespace {

// A post files under the queue's lock into a live session, which no flush
// can close before the lock is let go, so the first attempt lands; a post
// whose session was found closed all the same tries again, a bounded number
// of times.
constexpr int kPostAttempts = 3;

std::atomic<uint64_t> queueNumbers{0};

// The lanes a posting thread filed into last, by queue: while the queue's
// current session stays, a post goes straight to the lane and writes
// nothing that another posting thread reads or writes.
struct KeptLane {
  uint64_t queue = 0;
  uint64_t moves = 0;
  std::string sessionID;
  std::shared_ptr<QVSession::Lane> lane;
};
thread_local QVRecentEntries<KeptLane> keptLanes;

auto keptFor(uint64_t queue) {
  return [queue](const KeptLane& kept) { return kept.queue == queue && kept.lane; };
}

}  // namespace

QVQueue::QVQueue() : QVQueue(std::nullopt, QVCore::sharedInstance()->currentSessionID()) {}

QVQueue::QVQueue(std::optional<std::string> jsonPayload, std::string currentSessionID,
                 std::size_t carriedMessages)
    : id_(queueNumbers.fetch_add(1, std::memory_order_relaxed) + 1),
      jsonPayload_(std::move(jsonPayload)),
      carriedMessages_(carriedMessages),
      currentSessionID_(std::move(currentSessionID)) {}

QVQueue::~QVQueue() = default;

std::shared_ptr<QVQueue> QVQueue::initForModule(std::shared_ptr<QVLifecycleObject> module) {
  auto queue = std::make_shared<QVQueue>();
  queue->module_ = module;
  return queue;
}

std::shared_ptr<QVQueue> QVQueue::initWithJSONAndModule(std::string jsonPayload,
                                                        std::shared_ptr<QVLifecycleObject> module,
                                                        std::size_t messageCount) {
  std::shared_ptr<QVQueue> queue(new QVQueue(
      std::move(jsonPayload), QVCore::sharedInstance()->currentSessionID(), messageCount));
  queue->module_ = module;
  return queue;
}

std::shared_ptr<QVQueue> QVQueue::initWithQueue(const std::shared_ptr<QVQueue>& other) {
  if (!other) return nullptr;
  SessionList taken;
  std::string currentSessionID;
  std::weak_ptr<QVLifecycleObject> module;
  int32_t serialNumber;
  {
    // The serial number too, so that a flush cannot fall between the two.
    std::lock_guard lock(other->mutex_);
    serialNumber = other->serialNumber();
    taken = other->sessions_;
    currentSessionID = other->currentSessionID_;
    module = other->module_;
    other->snapshotCut_ = taken.size();
  }
  std::shared_ptr<QVQueue> copy(new QVQueue(std::nullopt, std::move(currentSessionID)));
  copy->serialNumber_.store(serialNumber);
  copy->module_ = std::move(module);
  copy->sessions_ = std::move(taken);
  copy->reindexLocked();  // not yet shared, so the lock is not needed
  return copy;
}

bool QVQueue::postMessageToSessionID(std::shared_ptr<QVMessage> message,
                                     std::optional<std::string> sessionID) {
  if (!message) return false;
  try {
    if (fileThroughKeptLane(message, sessionID)) {
      QVSession::logAdded(std::move(message));
      return true;
    }
    for (int attempt = 0; attempt < kPostAttempts; ++attempt) {
      const Filing filing = fileInSession(message, sessionID);
      if (filing == Filing::filed) {
        QVSession::logAdded(std::move(message));
        return true;
      }
      if (filing == Filing::refused) return false;
    }
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // Out of memory while filing the message: it is not accepted.
  }
  return false;
}

// Posting threads of one module meet here: the message is filed while the
// queue's lock is held, so a post takes one contended lock and copies no
// reference to the session (whose count every poster would write). The
// session cannot be closed by a flush meanwhile: a flush drops it from the
// index under this lock first, and a session made here is filed into before
// the lock is let go, so that a post never loses its message to a storm of
// flushes. The lock order is queue, then session; no path takes them the
// other way.
QVQueue::Filing QVQueue::fileInSession(const std::shared_ptr<QVMessage>& message,
                                       const std::optional<std::string>& sessionID) {
  std::unique_lock lock(mutex_);
  const std::shared_ptr<QVSession> session = liveSessionLocked(lock, sessionID, true);
  if (!session) return Filing::refused;
  auto lane = session->laneForThisThread();
  if (!lane || !QVSession::fileInLane(*lane, message)) return Filing::closed;
  keepLaneLocked(std::move(lane));
  return Filing::filed;
}

bool QVQueue::fileThroughKeptLane(const std::shared_ptr<QVMessage>& message,
                                  const std::optional<std::string>& sessionID) const {
  const KeptLane* kept = keptLanes.find(keptFor(id_));
  if (!kept) return false;
  // Read before the lane is used: a flush or a change of the current
  // session moves it first, and a lane closed meanwhile refuses the add.
  if (kept->moves != moves_.load(std::memory_order_acquire)) return false;
  if (sessionID && *sessionID != kept->sessionID) return false;
  return QVSession::fileInLane(*kept->lane, message);
}

void QVQueue::keepLaneLocked(std::shared_ptr<QVSession::Lane> lane) const {
  keptLanes.slotFor(keptFor(id_)) = {id_, moves_.load(std::memory_order_relaxed), currentSessionID_,
                                     std::move(lane)};
}

std::shared_ptr<QVSession> QVQueue::sessionForID(const std::optional<std::string>& sessionID) {
  try {
    std::unique_lock lock(mutex_);
    return liveSessionLocked(lock, sessionID, false);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return nullptr;
  }
}

// A new session reads the core and the clock, which must not run under the
// lock, so the lock is let go while it is made; a session that another
// thread made meanwhile wins.
std::shared_ptr<QVSession> QVQueue::liveSessionLocked(std::unique_lock<std::mutex>& lock,
                                                      const std::optional<std::string>& sessionID,
                                                      bool makeCurrent) {
  const std::string& wanted = sessionID ? *sessionID : currentSessionID_;
  if (wanted.empty()) return nullptr;
  const bool isCurrent = &wanted == &currentSessionID_ || wanted == currentSessionID_;
  if (isCurrent && currentSession_ && !currentSession_->isClosed()) return currentSession_;
  std::string id = wanted;  // wanted may be currentSessionID_, which may change meanwhile
  std::shared_ptr<QVSession> session = findLocked(id);
  if (!session) {
    lock.unlock();
    auto fresh = QVSession::initWithSessionID(id);
    lock.lock();
    session = findLocked(id);
    if (!session) {
      session = std::move(fresh);
      insertLocked(id, session);
      currentSessionStartTime_.store(session->startTime(), std::memory_order_relaxed);
    }
  }
  if (makeCurrent || id == currentSessionID_) {
    currentSessionID_ = std::move(id);
    currentSession_ = session;
    movedLocked();
  }
  return session;
}

std::shared_ptr<QVSession> QVQueue::findLocked(const std::string& id) const {
  auto it = index_.find(id);
  if (it == index_.end() || it->second->isClosed()) return nullptr;
  return it->second;
}

void QVQueue::insertLocked(const std::string& id, std::shared_ptr<QVSession> session) {
  // A closed session under the same identifier leaves the list, and the new
  // one goes to the end, past what the last snapshot took.
  auto old = std::find_if(sessions_.begin(), sessions_.end(),
                          [&](const auto& entry) { return entry.first == id; });
  if (old != sessions_.end()) {
    const auto position = static_cast<std::size_t>(old - sessions_.begin());
    if (snapshotCut_ && position < *snapshotCut_) --*snapshotCut_;
    sessions_.erase(old);
  }
  index_[id] = session;
  sessions_.emplace_back(id, std::move(session));
}

void QVQueue::reindexLocked() {
  index_.clear();
  index_.reserve(sessions_.size());
  for (const auto& [id, session] : sessions_) index_.emplace(id, session);
  auto it = index_.find(currentSessionID_);
  currentSession_ = it == index_.end() ? nullptr : it->second;
  movedLocked();
}

QVValue QVQueue::jsonSerializedSessions() const {
  std::vector<std::shared_ptr<QVSession>> sessions;
  {
    std::lock_guard lock(mutex_);
    sessions.reserve(sessions_.size());
    for (const auto& entry : sessions_) sessions.push_back(entry.second);
  }
  QVValue array = QVValue::array();
  array.get_ref<QVValue::array_t&>().reserve(sessions.size());
  for (const auto& session : sessions) array.push_back(session->jsonDictionary());
  return array;
}

QVValue QVQueue::jsonDictionary() const {
  QVValue dict = QVValue::object();
  try {
    dict["messageVersion"] = "6.0.0.0";
    dict["serialNumber"] = serialNumber();
    dict["sessions"] = jsonSerializedSessions();
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // What was set before the failure is the answer.
  }
  return dict;
}

std::string QVQueue::toJson() const { return toJson(nullptr); }

std::string QVQueue::toJson(QVSession::TextWatcher* watcher) const {
  {
    std::lock_guard lock(mutex_);
    if (keptPayload_) {
      std::string text = std::move(*keptPayload_);
      keptPayload_.reset();
      return text;
    }
  }
  // A queue read back from the cache is sent again exactly as it was stored.
  if (jsonPayload_) return *jsonPayload_;
  try {
    std::size_t written = 0;
    std::string text = writeJson(written, watcher);
    messagesInPayload_.store(written, std::memory_order_relaxed);
    return text;
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    // Out of memory: still a payload, never an empty body.
    if (watcher) watcher->cut(0);
    messagesInPayload_.store(0, std::memory_order_relaxed);
    return emptyPayload(serialNumber());
  }
}

void QVQueue::keepPayload(std::string text) {
  std::lock_guard lock(mutex_);
  keptPayload_ = std::move(text);
}

std::string QVQueue::emptyPayload(int32_t serial) {
  try {
    return R"({"messageVersion":"6.0.0.0","serialNumber":)" + std::to_string(serial) +
           R"(,"sessions":[]})";
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return "";
  }
}

// The text of jsonDictionary(), written session by session instead of from
// one tree: a queue of many messages would otherwise be built whole, then
// written, then freed, which costs several times the writing itself.
std::string QVQueue::writeJson(std::size_t& written, QVSession::TextWatcher* watcher) const {
  // Read before the sessions, in the order jsonDictionary() reads them.
  const int32_t serial = serialNumber();
  std::vector<std::shared_ptr<QVSession>> sessions;
  {
    std::lock_guard lock(mutex_);
    sessions.reserve(sessions_.size());
    for (const auto& entry : sessions_) sessions.push_back(entry.second);
  }
  std::string out = R"({"messageVersion":"6.0.0.0","serialNumber":)";
  out += std::to_string(serial);
  out += R"(,"sessions":[)";
  bool first = true;
  for (const auto& session : sessions) {
    // A session always writes, bad values mended; only running out of
    // memory leaves one out, and the others still go.
    const std::size_t before = out.size();
    if (!first) out += ',';
    std::size_t messages = 0;
    if (session->appendJson(out, &messages, watcher)) {
      written += messages;
      first = false;
    } else {
      out.resize(before);
      if (watcher) watcher->cut(before);
    }
  }
  out += "]}";
  return out;
}

void QVQueue::flush() {
  SessionList dropped;
  {
    std::lock_guard lock(mutex_);
    const std::size_t cut = std::min(snapshotCut_.value_or(sessions_.size()), sessions_.size());
    if (cut == sessions_.size()) {
      dropped.swap(sessions_);
      index_.clear();
    } else {
      const auto end = sessions_.begin() + static_cast<std::ptrdiff_t>(cut);
      dropped.assign(std::make_move_iterator(sessions_.begin()), std::make_move_iterator(end));
      sessions_.erase(sessions_.begin(), end);
      for (const auto& entry : dropped) index_.erase(entry.first);
    }
    snapshotCut_.reset();
    if (currentSession_ && !index_.contains(currentSessionID_)) currentSession_.reset();
    movedLocked();
    serialNumber_.fetch_add(1, std::memory_order_relaxed);
  }
  // Closed outside the queue's lock; an add that slips in before its
  // session is closed still goes out with the snapshot that holds it.
  for (const auto& entry : dropped) entry.second->close();
}

std::shared_ptr<QVLifecycleObject> QVQueue::module() const {
  std::lock_guard lock(mutex_);
  return module_.lock();
}

void QVQueue::setModule(const std::shared_ptr<QVLifecycleObject>& module) {
  std::lock_guard lock(mutex_);
  module_ = module;
}

QVQueue::SessionList QVQueue::sessions() const {
  std::lock_guard lock(mutex_);
  return sessions_;
}

void QVQueue::setSessions(SessionList sessions) {
  SessionList unique;
  unique.reserve(sessions.size());
  std::unordered_map<std::string, std::size_t> positions;
  for (auto& entry : sessions) {
    if (!entry.second) continue;
    auto [it, isNew] = positions.try_emplace(entry.first, unique.size());
    if (isNew) {
      unique.push_back(std::move(entry));
    } else {
      unique[it->second].second = std::move(entry.second);
    }
  }
  std::lock_guard lock(mutex_);
  sessions_ = std::move(unique);
  snapshotCut_.reset();
  reindexLocked();
}

std::size_t QVQueue::messageCount() const {
  if (jsonPayload_) return carriedMessages_;
  std::size_t count = 0;
  for (const auto& entry : sessions()) count += entry.second->messageCount();
  return count;
}

std::size_t QVQueue::messagesInPayload() const {
  if (jsonPayload_) return carriedMessages_;
  const std::size_t written = messagesInPayload_.load(std::memory_order_relaxed);
  return written == kNoPayloadYet ? messageCount() : written;
}

std::size_t QVQueue::sessionCount() const {
  std::lock_guard lock(mutex_);
  return sessions_.size();
}

std::optional<std::string> QVQueue::currentSessionID() const {
  std::lock_guard lock(mutex_);
  if (currentSessionID_.empty()) return std::nullopt;
  return currentSessionID_;
}

uint64_t QVQueue::currentSessionStartTime() const {
  return currentSessionStartTime_.load(std::memory_order_relaxed);
}

int32_t QVQueue::serialNumber() const { return serialNumber_.load(std::memory_order_relaxed); }

void QVQueue::setSerialNumber(int32_t serialNumber) {
  serialNumber_.store(serialNumber, std::memory_order_relaxed);
}

}  // namespace qv
