#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qvcore/QVExport.h"

namespace qv {

class QVRunLoop;
class QVStreamDelegate;

// One direction of a byte connection. What happens to a stream reaches its
// delegate as an event, run as a task on the loop the stream is scheduled in.
// Events that happen before the stream is scheduled wait for it, so a stream
// may be opened first and scheduled next without losing its first events.
// A stream is used from the thread of its loop; its events may arise anywhere.
class QV_EXPORT QVByteStream : public std::enable_shared_from_this<QVByteStream> {
 public:
  // Bits, so that a delegate may test for several at once.
  enum Event : uint64_t {
    kEventNone = 0,
    kEventOpenCompleted = 1,
    kEventHasBytesAvailable = 2,
    kEventHasSpaceAvailable = 4,
    kEventErrorOccurred = 8,
    kEventEndEncountered = 16,
  };

  enum Status : uint64_t {
    kStatusNotOpen = 0,
    kStatusOpening = 1,
    kStatusOpen = 2,
    kStatusReading = 3,
    kStatusWriting = 4,
    kStatusAtEnd = 5,
    kStatusClosed = 6,
    kStatusError = 7,
  };

  virtual ~QVByteStream();

  virtual void open() = 0;
  // No event follows a close.
  virtual void close() = 0;

  Status streamStatus() const;
  // What went wrong when the status is kStatusError; empty otherwise.
  std::string streamError() const;

  // The delegate is held weakly, as the delegate usually owns the stream.
  void setDelegate(std::weak_ptr<QVStreamDelegate> delegate);
  std::shared_ptr<QVStreamDelegate> delegate() const;

  // Events go to loop from now on; loop must outlive the scheduling.
  void scheduleInRunLoop(QVRunLoop& loop);

  // "<ClassName: 0x...>", for log lines.
  virtual std::string description() const;

 protected:
  std::string describe(const char* className) const;
  // kStatusClosed is final: once closed, a stream stays closed and this
  // answers false.
  bool setStatus(Status status, std::string error = {});
  // Safe from any thread, but not from a constructor (the stream must
  // already be owned by a shared_ptr).
  void deliverEvent(Event event);

 private:
  void handOver(Event event);

  mutable std::mutex mutex_;
  Status status_ = kStatusNotOpen;
  std::string error_;
  std::weak_ptr<QVStreamDelegate> delegate_;
  QVRunLoop* loop_ = nullptr;
  std::vector<Event> pending_;
};

}  // namespace qv
