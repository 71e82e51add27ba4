#include "qvcore/platform/QVLog.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace qv {

namespace {

// Never destroyed, so that a line logged while the process exits still finds
// its sink.
struct SinkSlot {
  std::mutex mutex;
  std::shared_ptr<const QVLog::Sink> sink;
};

SinkSlot& slot() {
  static auto* instance = new SinkSlot;
  return *instance;
}

std::shared_ptr<const QVLog::Sink> currentSink() {
  std::lock_guard lock(slot().mutex);
  return slot().sink;
}

// One write(2) for the whole line, so that lines of several threads do not
// interleave (short lines on a pipe are written whole).
void writeToStandardError(std::string line) {
  if (line.empty() || line.back() != '\n') line += '\n';
  const char* data = line.data();
  size_t left = line.size();
  while (left > 0) {
    const ssize_t written = ::write(STDERR_FILENO, data, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    data += written;
    left -= static_cast<size_t>(written);
  }
}

// -1 until the environment was read.
std::atomic<int> debugEnabled{-1};

}  // namespace

bool QVLog::isDebugEnabled() {
  int enabled = debugEnabled.load(std::memory_order_relaxed);
  if (enabled < 0) {
    const char* text = std::getenv("QVCORE_DEBUG");
    int expected = -1;
    debugEnabled.compare_exchange_strong(expected, text && std::string(text) == "1" ? 1 : 0);
    enabled = debugEnabled.load(std::memory_order_relaxed);
  }
  return enabled == 1;
}

void QVLog::setDebugEnabled(bool enabled) {
  debugEnabled.store(enabled ? 1 : 0, std::memory_order_relaxed);
}

void QVLog::debug(const std::string& line) {
  if (isDebugEnabled()) log("QVCore debug: " + line);
}

void QVLog::log(const std::string& line) {
  // Called without the lock, so a sink may log or replace itself.
  if (auto sink = currentSink()) {
    (*sink)(line);
  } else {
    writeToStandardError(line);
  }
}

void QVLog::logFormat(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list measure;
  va_copy(measure, args);
  const int length = std::vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  std::string line;
  if (length > 0) {
    line.resize(static_cast<size_t>(length));
    std::vsnprintf(line.data(), line.size() + 1, format, args);
  }
  va_end(args);
  log(line);
}

void QVLog::setSink(Sink sink) {
  auto replacement = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
  std::shared_ptr<const Sink> previous;
  {
    std::lock_guard lock(slot().mutex);
    previous = std::exchange(slot().sink, std::move(replacement));
  }
  // previous is released here, outside the lock: destroying a sink may run
  // arbitrary code.
}

}  // namespace qv
