#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "qvcore/QVExport.h"
#include "qvcore/model/QVMessage.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// The messages that one module posted under one session identifier, in the
// order of arrival, as they go into one entry of a queue's payload. Held as
// std::shared_ptr<QVSession>: a queue and the snapshots taken of it share
// their sessions. Every operation is safe from any thread.
//
// A session is open until it is closed, which its queue does when a flush
// drops it. A closed session keeps its messages for the snapshot that sends
// them, but refuses new ones: an add racing with the flush either lands
// before the close, and is sent with the snapshot, or answers false. Nothing
// can add to a session that is being destroyed, since adding needs a
// reference that keeps it alive; closing is what stands for destruction.
//
// While open, each posting thread files into a lane of its own, so that
// threads posting to one session share no lock and no list; a number drawn
// from the session's counter at each add orders the lanes' messages, and
// every reader (and the close, once for all) sees them merged in that
// order: each thread's own order, and an add that began after another had
// returned comes after it.
class QV_EXPORT QVSession {
 public:
  using MessageList = std::vector<std::shared_ptr<QVMessage>>;
  // One posting thread's messages in one session; defined in the source.
  class Lane;

  // init: starts now, records the core's current session identifier, has no
  // identifier of its own.
  QVSession();
  // initWithSessionID:
  explicit QVSession(std::string sessionID);
  static std::shared_ptr<QVSession> initWithSessionID(std::string sessionID);
  ~QVSession();
  QVSession(const QVSession&) = delete;
  QVSession& operator=(const QVSession&) = delete;

  // Appends the message and hands it to the JSON test log. False for no
  // message or a closed session.
  bool addMessage(std::shared_ptr<QVMessage> message);
  // addMessage() in two steps, for a queue that files the message while it
  // holds its own lock: fileMessage() appends the message (false for none
  // or a closed session), and logAdded(), called once no lock is
  // held, hands it to the JSON test log.
  bool fileMessage(const std::shared_ptr<QVMessage>& message);
  static void logAdded(std::shared_ptr<QVMessage> message);
  // The calling thread's lane, made on its first add; null once closed. A
  // poster may keep it and file through it without asking the session
  // again: fileInLane() answers false once the session has been closed.
  std::shared_ptr<Lane> laneForThisThread();
  static bool fileInLane(Lane& lane, const std::shared_ptr<QVMessage>& message);

  // Refuses every later add; the messages stay. Closing twice is harmless.
  void close();
  bool isClosed() const;

  // Each message's jsonDictionary(), in arrival order.
  QVValue jsonSerializedMessages() const;
  // {"id", "startTime", "clientEnvironment", "messages", "QVCoreSessionID"},
  // the identifiers left out when absent. The client environment describes
  // the device now, not when the session began. A message whose
  // jsonDictionary() throws ends the dictionary with the keys set so far.
  QVValue jsonDictionary() const;
  std::string toJson() const;
  // Appends the JSON text of jsonDictionary() to out without building the
  // session's tree (a queue's payload is written this way). Unlike toJson(),
  // it always writes: NaN, infinity and binary data become null and each
  // sequence that is not UTF-8 becomes U+FFFD, so one bad value costs
  // itself, not the payload. False, with out as it was, only when memory
  // runs out. messagesWritten, when given, receives how many messages the
  // text holds: none when a message's jsonDictionary() threw.
  //
  // A watcher, when given, is shown the text after each message and told of
  // every cut back, so that it can take finished stretches (to compress
  // them) while the rest is still being written.
  class TextWatcher {
   public:
    virtual ~TextWatcher() = default;
    // out has grown; text before out.size() stays unless cut() says so.
    virtual void grew(const std::string& out) = 0;
    // out was cut back to size, dropping what was written after it.
    virtual void cut(std::size_t size) = 0;
  };
  bool appendJson(std::string& out, std::size_t* messagesWritten = nullptr,
                  TextWatcher* watcher = nullptr) const;

  std::optional<std::string> coreSessionID() const;
  void setCoreSessionID(std::optional<std::string> coreSessionID);
  std::optional<std::string> sessionID() const;
  void setSessionID(std::optional<std::string> sessionID);
  // Milliseconds since 1970 when the session was made.
  uint64_t startTime() const { return startTime_; }
  // A copy of the list, so that it can be walked while adds go on.
  MessageList messages() const;
  std::size_t messageCount() const;

 private:
  // The JSON writer of appendJson(); its details stay in the source file.
  struct Writer;
  void writeMembers(Writer& writer) const;
  bool writeMessages(Writer& writer) const;
  // The messages to serialise: the list itself once closed, else a copy.
  const MessageList& messagesToWrite(MessageList& copy) const;
  // The lanes' messages in posting order; mutex_ held. The
  // close moves them out of the lanes, which it empties next.
  enum class Merge { kCopy, kMove };
  MessageList mergedLocked(Merge how) const;
  // Marks every lane closed, all at once, so that no add lands in one lane
  // after another's was refused; mutex_ held.
  void closeLanesLocked();

  const uint64_t startTime_;
  mutable std::mutex mutex_;
  // Set under mutex_ and never cleared; read without it only as a hint by
  // the queue's lookups. Once set, messages_ no longer changes, so readers
  // may walk it without the lock.
  std::atomic<bool> closed_{false};
  // The merged messages, filled by close().
  MessageList messages_;
  // The open session's lanes, one per thread that added.
  std::vector<std::shared_ptr<Lane>> lanes_;
  // Set, under mutex_, when a second thread adds: from then on every add in
  // every lane is stamped, so that the lanes can be merged in posting order.
  std::atomic<bool> sharedByThreads_{false};
  std::optional<std::string> coreSessionID_;
  std::optional<std::string> sessionID_;
};

}  // namespace qv
