#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qv {

// The bytes that the log relay has taken but the tool has not yet: bounded,
// so that a tool that stops reading costs memory up to the bound and then
// texts, never the main loop's time. A text that does not fit is dropped
// whole and counted; the next text taken carries the count in front of it.
class QVLogRelayBuffer {
 public:
  static constexpr size_t kCapacity = 256 * 1024;

  explicit QVLogRelayBuffer(size_t capacity = kCapacity) : capacity_(capacity) {}

  // Takes text, with the note of earlier drops in front, when it fits or
  // when nothing is waiting (so one text larger than the bound still goes
  // out whole); else drops and counts it. Answers whether it was taken.
  bool add(const std::string& text);
  // What is waiting to be written, from the first byte not yet written.
  const uint8_t* data() const;
  size_t size() const { return bytes_.size() - written_; }
  // The stream took count bytes.
  void consume(size_t count);
  // Everything waiting is lost (the stream failed).
  void clear();
  uint64_t dropped() const { return dropped_; }

 private:
  size_t capacity_;
  std::string bytes_;
  size_t written_ = 0;
  uint64_t dropped_ = 0;
};

}  // namespace qv
