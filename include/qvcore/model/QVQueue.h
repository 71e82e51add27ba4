#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "qvcore/QVExport.h"
#include "qvcore/core/QVLifecycleObject.h"
#include "qvcore/model/QVMessage.h"
#include "qvcore/model/QVSession.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// One module's messages, grouped by session, and the payload they are posted
// as: {"messageVersion": "6.0.0.0", "serialNumber": n, "sessions": [...]}.
// Sessions are kept, and serialised, in the order in which they were made.
// Every operation is safe from any thread; one small mutex guards the
// sessions and the current session, and is never held while other code
// runs (sessions are made, closed and serialised outside it) but a
// session's append of a posted message: posters of one module then meet at
// one lock only. Its lock is taken before a session's, never after.
//
// Flushing goes: snapshot = initWithQueue(live); live->flush(); send the
// snapshot's toJson(). The snapshot shares the session objects; flush drops
// from the live queue exactly the sessions that the snapshot took, closing
// them, so every message that a post accepts ends up either in that
// snapshot or still in the live queue. A post that meets a session closed
// under it starts a fresh session of the same identifier in the live queue.
class QV_EXPORT QVQueue {
 public:
  // Session identifier and session, in the order in which the sessions were
  // made.
  using SessionList = std::vector<std::pair<std::string, std::shared_ptr<QVSession>>>;

  // init: no sessions, serial number 1, current session the core's.
  QVQueue();
  ~QVQueue();
  QVQueue(const QVQueue&) = delete;
  QVQueue& operator=(const QVQueue&) = delete;

  static std::shared_ptr<QVQueue> initForModule(std::shared_ptr<QVLifecycleObject> module);
  // A queue read back from the cache: toJson() answers jsonPayload as it is,
  // whatever is posted to the queue afterwards. messageCount is how many
  // messages the payload carries, for the delivery ledger.
  static std::shared_ptr<QVQueue> initWithJSONAndModule(std::string jsonPayload,
                                                        std::shared_ptr<QVLifecycleObject> module,
                                                        std::size_t messageCount = 1);
  // The copy that is sent while the live queue fills again: the same session
  // objects, serial number, current session identifier and module; a start
  // time of 0 and no cached text. Marks the sessions taken, for the next
  // flush of other. Null for a null queue.
  static std::shared_ptr<QVQueue> initWithQueue(const std::shared_ptr<QVQueue>& other);

  // Adds the message to the session of sessionID (absent: the current
  // session), made if it is new, which becomes the current session. False
  // when there is no message, no identifier (absent with no current
  // session, or empty), or the add fails.
  bool postMessageToSessionID(std::shared_ptr<QVMessage> message,
                              std::optional<std::string> sessionID);
  // The session of sessionID (absent: the current one), made when it is new;
  // null when there is no usable identifier. Leaves the current session as
  // it was.
  std::shared_ptr<QVSession> sessionForID(const std::optional<std::string>& sessionID);

  // Each session's jsonDictionary(), in the order of the sessions.
  QVValue jsonSerializedSessions() const;
  QVValue jsonDictionary() const;
  // The cached text when there is one, else the payload. The payload is
  // never empty: values JSON cannot carry are written as null and text that
  // is not UTF-8 has each bad sequence replaced by U+FFFD, so one module's
  // bad value never empties the body that carries every other message.
  std::string toJson() const;
  // The same, the writing of the payload shown to watcher (see
  // QVSession::appendJson); a cached text is answered without it.
  std::string toJson(QVSession::TextWatcher* watcher) const;

  // Keeps text as the answer of the next toJson(), once, after which the
  // payload is written anew: the flush writes a payload while compressing
  // it and hands the connection that very text.
  void keepPayload(std::string text);

  // Drops the sessions that the last initWithQueue took (all of them when
  // none was taken since the previous flush), closes them, and adds 1 to the
  // serial number. Sessions made after that snapshot stay for the next one.
  void flush();

  // The module, or null when it has gone.
  std::shared_ptr<QVLifecycleObject> module() const;
  void setModule(const std::shared_ptr<QVLifecycleObject>& module);
  SessionList sessions() const;
  // Replaces the sessions as given, without closing those it drops. A
  // repeated identifier replaces the earlier entry's session in its place;
  // null sessions are left out.
  void setSessions(SessionList sessions);
  std::size_t sessionCount() const;
  // How many messages the queue holds: its sessions' messages, or what its
  // cached payload carries.
  std::size_t messageCount() const;
  // How many of them the last toJson() wrote (a message whose module cannot
  // describe it is left out); messageCount() until a payload is written.
  std::size_t messagesInPayload() const;
  bool isEmpty() const { return sessionCount() == 0; }
  // Identifier of the session that last received a message; none when empty.
  std::optional<std::string> currentSessionID() const;
  // Start of the session this queue made last; 0 until it makes one.
  uint64_t currentSessionStartTime() const;
  int32_t serialNumber() const;
  void setSerialNumber(int32_t serialNumber);

 private:
  QVQueue(std::optional<std::string> jsonPayload, std::string currentSessionID,
          std::size_t carriedMessages = 0);

  // The live session filed under id, or null; closed sessions count as none.
  std::shared_ptr<QVSession> findLocked(const std::string& id) const;
  // Files session under id, last; a closed session of that id leaves.
  void insertLocked(const std::string& id, std::shared_ptr<QVSession> session);
  void reindexLocked();
  // The payload, and how many messages it holds.
  std::string writeJson(std::size_t& written, QVSession::TextWatcher* watcher) const;
  // The payload of a queue without sessions.
  static std::string emptyPayload(int32_t serial);
  // The live session of sessionID (else of the current identifier), made
  // if there is none, with the lock let go meanwhile; null for no usable
  // identifier. It becomes the current session when makeCurrent is set or
  // its identifier is the current one.
  std::shared_ptr<QVSession> liveSessionLocked(std::unique_lock<std::mutex>& lock,
                                               const std::optional<std::string>& sessionID,
                                               bool makeCurrent);
  // What became of a message offered to a session.
  enum class Filing { filed, refused, closed };
  // Files the message in the live session of sessionID, made if there is
  // none, and makes it current; refused when there is no usable identifier.
  Filing fileInSession(const std::shared_ptr<QVMessage>& message,
                       const std::optional<std::string>& sessionID);
  // Files the message through the lane this thread kept for the current
  // session, when the queue has not changed its current session (or been
  // flushed) since; no lock of the queue's is taken.
  bool fileThroughKeptLane(const std::shared_ptr<QVMessage>& message,
                           const std::optional<std::string>& sessionID) const;
  // Keeps the lane the thread filed into; mutex_ held.
  void keepLaneLocked(std::shared_ptr<QVSession::Lane> lane) const;
  // A change of the current session or of the sessions; mutex_ held.
  void movedLocked() { moves_.fetch_add(1, std::memory_order_release); }

  // Names the queue in the posting threads' kept lanes.
  const uint64_t id_;
  // Moves whenever a kept lane may no longer be the current session's.
  std::atomic<uint64_t> moves_{0};
  const std::optional<std::string> jsonPayload_;
  const std::size_t carriedMessages_;  // by jsonPayload_
  static constexpr std::size_t kNoPayloadYet = static_cast<std::size_t>(-1);
  mutable std::atomic<std::size_t> messagesInPayload_{kNoPayloadYet};
  std::atomic<int32_t> serialNumber_{1};
  std::atomic<uint64_t> currentSessionStartTime_{0};

  mutable std::mutex mutex_;
  std::weak_ptr<QVLifecycleObject> module_;
  SessionList sessions_;
  std::unordered_map<std::string, std::shared_ptr<QVSession>> index_;
  // How many of the first sessions the last snapshot took, until a flush.
  std::optional<std::size_t> snapshotCut_;
  std::string currentSessionID_;
  mutable std::optional<std::string> keptPayload_;
  // index_[currentSessionID_] when that was last looked up; spares the hot
  // path a hash of the identifier.
  std::shared_ptr<QVSession> currentSession_;
};

}  // namespace qv
