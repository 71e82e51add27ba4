#include "qvcore/platform/QVByteStream.h"

#include <cstdio>
#include <utility>

#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVStreamDelegate.h"

namespace qv {

QVByteStream::~QVByteStream() = default;

QVByteStream::Status QVByteStream::streamStatus() const {
  std::lock_guard lock(mutex_);
  return status_;
}

std::string QVByteStream::streamError() const {
  std::lock_guard lock(mutex_);
  return error_;
}

void QVByteStream::setDelegate(std::weak_ptr<QVStreamDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

std::shared_ptr<QVStreamDelegate> QVByteStream::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void QVByteStream::scheduleInRunLoop(QVRunLoop& loop) {
  std::vector<Event> waiting;
  {
    std::lock_guard lock(mutex_);
    loop_ = &loop;
    waiting.swap(pending_);
  }
  for (Event event : waiting) deliverEvent(event);
}

std::string QVByteStream::description() const { return describe("QVByteStream"); }

std::string QVByteStream::describe(const char* className) const {
  char text[96];
  std::snprintf(text, sizeof text, "<%s: %p>", className, static_cast<const void*>(this));
  return text;
}

bool QVByteStream::setStatus(Status status, std::string error) {
  std::lock_guard lock(mutex_);
  if (status_ == kStatusClosed) return false;
  status_ = status;
  error_ = std::move(error);
  return true;
}

void QVByteStream::deliverEvent(Event event) {
  QVRunLoop* loop = nullptr;
  {
    std::lock_guard lock(mutex_);
    if (!loop_) {
      pending_.push_back(event);
      return;
    }
    loop = loop_;
  }
  std::weak_ptr<QVByteStream> weak = weak_from_this();
  loop->post([weak, event] {
    if (auto self = weak.lock()) self->handOver(event);
  });
}

void QVByteStream::handOver(Event event) {
  {
    // A stream closed after the event arose says nothing more.
    std::lock_guard lock(mutex_);
    if (status_ == kStatusClosed || !loop_) return;
  }
  if (auto listener = delegate()) listener->streamHandleEvent(shared_from_this(), event);
}

}  // namespace qv
