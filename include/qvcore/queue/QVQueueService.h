#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qvcore/QVExport.h"
#include "qvcore/core/QVLedgerSnapshot.h"
#include "qvcore/core/QVLifecycleObject.h"
#include "qvcore/queue/QVConnectionDelegate.h"

namespace qv {

class QVMessage;
class QVQueue;
class QVRepeatingTimer;
class QVSerialQueue;
class QVServerConnection;

// Holds one message queue per module and moves the queues to the modules'
// collection servers: the flush timer, the flush cycle on a serial queue
// labelled "<bundle id>.qvcore.flush", the files of unsent queues, and the
// one QVServerConnection, whose delegate it is.
//
// The flush cycle: flushQueues reads the cached files back onto the send
// list (cachedQueues), cuts every non-empty module queue onto it (a snapshot
// of the whole queue, or one entry per message for modules whose "URLEncoded"
// is on), and, when no post is in flight, posts the head. Each outcome, on
// the HTTP session's callback thread, removes that head (writing it to the
// cache first when it failed and "HasToPersistLocalCache" is on) and posts
// the next; a cycle that empties the list that way reports QVCore
// flushCompleted. One post is in flight at a time. A head whose module has no
// "PostMessageUrl" stays at the head and holds up the whole list.
//
// Cache files: "<module class name>_<seconds since 1970, %f>.json" in
// cachedQueuesDirectory(), holding the queue's JSON text, mode 0600 in a
// folder of mode 0700. Everything before the first "_" names the module, so
// a module class name with "_" never gets its files back.
//
// Threads: any thread may post; flushes run on the serial queue (and, for the
// terminate path, on the calling thread); outcomes arrive on the HTTP
// callback thread. Small internal mutexes guard the module queues, the send
// list, the connection, timer and dispatch queue fields, the cutting of a
// module queue, and the cache folder; none is held while other subsystems'
// code runs.
class QV_EXPORT QVQueueService : public QVLifecycleObject,
                                 public QVConnectionDelegate,
                                 public std::enable_shared_from_this<QVQueueService> {
 public:
  // Module class name to its live queue.
  using ModuleQueues = std::map<std::string, std::shared_ptr<QVQueue>>;
  // Oldest first; the head is the queue being posted or about to be.
  using SendList = std::vector<std::shared_ptr<QVQueue>>;

  // Made on first use, never destroyed.
  static std::shared_ptr<QVQueueService> sharedInstance();

  // ---- lifecycle --------------------------------------------------------

  std::string className() const override { return "QVQueueService"; }
  // Makes a new dispatch queue and connection, then starts the flush timer
  // and, only when that succeeds, creates the cache folder; the answer is
  // the last step's. The dispatch queue and connection stay even when the
  // answer is false (interval posting off), so asyncFlushQueues still
  // flushes.
  bool enable() override;
  // Drops the connection, timer and dispatch queue; always true. Queued
  // messages and the send list stay in memory for the next enable.
  bool disable() override;
  bool isEnabled() const override;
  void setEnabled(bool enabled);
  // The service has no configuration of its own.
  std::string settingsBundlePath() const override { return ""; }

  // ---- posting ----------------------------------------------------------

  // Adds the message to the queue of the module's class (made on first
  // use), under sessionID or, when absent, the queue's current session.
  // Works whether or not the service is enabled; the queue's answer. A
  // message accepted is counted in the module's ledger.
  bool postMessageForModuleWithSessionID(std::shared_ptr<QVMessage> message,
                                         const std::shared_ptr<QVLifecycleObject>& module,
                                         std::optional<std::string> sessionID);
  // Start of the current session of the module class's queue, in
  // milliseconds since 1970; 0 when it has no queue. Makes no queue.
  uint64_t getCurrentSessionStartTimeForModule(
      const std::shared_ptr<QVLifecycleObject>& module) const;
  // The core's "ManualPostEnabled" (default true); false when asking fails.
  bool isManualPostingEnabled() const;

  // ---- flush cycle ------------------------------------------------------

  // With manual posting: true and no timer. With "DoPostOnIntervals" off:
  // false. Otherwise a repeating timer on the calling thread's run loop,
  // every "PostMessageTimeIntervals" seconds (default 30, read now only),
  // firing asyncFlushQueues. A timer already held is replaced without being
  // invalidated, so it keeps firing.
  bool startFlushTimer();
  void stopFlushTimer();
  // Runs flushQueues on the dispatch queue; nothing when there is none.
  void asyncFlushQueues();
  // The whole flush, on the calling thread; nothing without a dispatch
  // queue (the service was never enabled, or was disabled).
  void flushQueues();
  // Cuts a module queue onto the send list as one snapshot.
  void flushQueue(const std::shared_ptr<QVQueue>& queue);
  // Cuts a module queue onto the send list as one entry per message, in
  // session and message order; the first starts posting before the rest are
  // appended.
  void flushURLQueue(const std::shared_ptr<QVQueue>& queue);
  // Posts the queue to its module's "PostMessageUrl"; without one, does
  // nothing and leaves the queue where it is.
  void flushCachedQueue(const std::shared_ptr<QVQueue>& queue);
  // Posts the head of the send list, or reports QVCore flushCompleted when
  // the list is empty. Heads whose posts fail before they leave are walked
  // in a loop, not by recursion: a call from inside another on the same
  // thread only tells the outer one to go on, so any number of them takes
  // a stack of constant depth.
  void continueFlush();
  // Removes the queue (by identity) from the send list and goes on.
  void flushFinishedForQueue(const std::shared_ptr<QVQueue>& queue);

  // QVConnectionDelegate
  void flushCompletedForQueue(const std::shared_ptr<QVQueue>& queue) override;
  void flushFailedForQueue(const std::shared_ptr<QVQueue>& queue) override;
  // A payload that can never be posted is dropped with one log line (the
  // module and the reason), never cached: read back, it would fail again at
  // every flush, for ever.
  void flushRejectedForQueue(const std::shared_ptr<QVQueue>& queue,
                             const std::string& reason) override;
  // Gzips the body when the core's "CompressPostMessage" is on and the
  // result is strictly shorter, setting "Content-Length" and
  // "Content-Encoding: gzip"; answers the same request, changed or not.
  std::shared_ptr<QVMutableURLRequest> beforeFlushingRequestForQueue(
      const std::shared_ptr<QVMutableURLRequest>& request,
      const std::shared_ptr<QVQueue>& queue) override;

  // ---- disk cache of unsent queues -------------------------------------

  // QVFileSystem::documentsDirectory() + "/QVCoreCachedQueues".
  std::string cachedQueuesDirectory() const;
  // True when the folder is there afterwards. The documents folder is made
  // first when missing (a phone's platform guarantees it; a Linux data
  // folder may not exist yet), then the cache folder alone, mode 0700.
  bool createCachedQueueFolder();
  // Cuts the module's live queue and writes what it held to the cache
  // (saveQueueToFile), counted as cached, so that the messages saved are
  // no longer in memory to be sent a second time should the process live
  // on. When the write fails they go onto the send list instead. False
  // when nothing was written.
  bool saveModuleQueueToFile(const std::shared_ptr<QVQueue>& queue);
  // Writes the queue's JSON text atomically, mode 0600, into the cache
  // folder, which must exist and not be a symbolic link (the read-back would
  // never look there). False when that fails, when the queue has no JSON
  // text, or when its module has gone (its file could never find it
  // again). Names never repeat within a process: a failure in the same
  // microsecond as the one before gets the next microsecond.
  bool saveQueueToFile(const std::shared_ptr<QVQueue>& queue);
  // Reads every regular file of the cache folder (in name order), deletes
  // it, and appends a queue for each whose module QVCore knows by the name's
  // first "_"-separated piece and whose text has the shape of what
  // saveQueueToFile writes (see QVCacheFileCheck.h); the others are dropped,
  // never posted. Nothing is followed through a symbolic link: a folder
  // that is one is not read at all, an entry that is one is removed (the
  // link, not its target). Folders, FIFOs and other special entries are
  // left alone, unread. A file over 64 MiB is deleted unread.
  void recoverSavedQueues();
  // QVCore's lifecycleObjectForName of the first "_"-separated piece of the
  // path's last component; null when there is none.
  std::shared_ptr<QVLifecycleObject> moduleFromFilePath(const std::string& path) const;
  // The file's text (none when it cannot be read as UTF-8, is not a regular
  // file, or is over 64 MiB, which is not read at all), after which the
  // file is deleted, read or not; a symbolic link is neither followed nor
  // deleted through, and only a regular file or a link itself is deleted.
  std::optional<std::string> recoverDataAtPath(const std::string& path);
  // The last chance to send before the application is suspended for good:
  // tells every queued module (QVAppTerminationObserver), flushes on the
  // calling thread, then runs the calling thread's run loop in steps of
  // 0.1 s for as long as a post is in flight. No overall time limit.
  void flushBRVApplicationWillTerminateQueues();

  // ---- delivery ledger ----------------------------------------------------

  // The counted outcomes of every module (see QVLedgerSnapshot), with what
  // is queued and in flight now: the messages of the live queues and of the
  // send list, the head counted in flight while its post is under way.
  QVLedgerSnapshot ledgerSnapshot() const;
  // Zeroes the counts, for tests. The balance holds again from a reset made
  // while nothing is queued or in flight.
  void resetLedger();

  // ---- accessors ---------------------------------------------------------

  // Snapshots; the queues in them are the live ones.
  ModuleQueues moduleQueues() const;
  SendList cachedQueues() const;
  // Null while disabled.
  std::shared_ptr<QVServerConnection> serverConnection() const;
  std::shared_ptr<QVRepeatingTimer> flushTimer() const;
  std::shared_ptr<QVSerialQueue> flushDispatchQueue() const;
  // How many cycles have reported flushCompleted since the process started.
  uint64_t completedFlushCycles() const;

  // Storage for modules; the core itself never reads them and enforces no
  // limit.
  uint64_t maxPostsPerActivationCounter() const;
  void setMaxPostsPerActivationCounter(uint64_t value);
  uint64_t maxBytesPerActivationCounter() const;
  void setMaxBytesPerActivationCounter(uint64_t value);
  uint64_t configItemMaxPostsPerActivationCounter() const;
  void setConfigItemMaxPostsPerActivationCounter(uint64_t value);
  uint64_t configItemMaxBytesPerActivationCounter() const;
  void setConfigItemMaxBytesPerActivationCounter(uint64_t value);

  QVQueueService(const QVQueueService&) = delete;
  QVQueueService& operator=(const QVQueueService&) = delete;
  ~QVQueueService() override;

 private:
  QVQueueService();

  // Private state lives behind the pointer, so that it can change without
  // changing this class's layout.
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace qv
