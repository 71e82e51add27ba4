#include "logrelay/QVLogRelayBuffer.h"

#include <algorithm>

namespace qv {

bool QVLogRelayBuffer::add(const std::string& text) {
  std::string note;
  if (dropped_ > 0) note = "(" + std::to_string(dropped_) + " log lines dropped)\n";
  const size_t waiting = size();
  if (waiting > 0 && waiting + note.size() + text.size() > capacity_) {
    ++dropped_;
    return false;
  }
  // Written bytes are let go only here, so consume() stays cheap.
  bytes_.erase(0, written_);
  written_ = 0;
  bytes_ += note;
  bytes_ += text;
  dropped_ = 0;
  return true;
}

const uint8_t* QVLogRelayBuffer::data() const {
  return reinterpret_cast<const uint8_t*>(bytes_.data()) + written_;
}

void QVLogRelayBuffer::consume(size_t count) { written_ += std::min(count, size()); }

void QVLogRelayBuffer::clear() {
  bytes_.clear();
  written_ = 0;
}

}  // namespace qv
