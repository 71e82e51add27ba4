#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace qv {

// A socket of the kernel's routing interface (rtnetlink). It is non-blocking
// and closed on exec, and every wait on it is bounded, so that nothing that
// uses it can hang on the kernel.
class QVNetlinkSocket {
 public:
  // The kernel's answer to one request: an error number (0 for none) or the
  // one message that answers it.
  struct Reply {
    int error = 0;
    std::vector<uint8_t> message;
  };

  // A socket for requests, or one that also hears the multicast groups
  // given (RTMGRP_* bits). isOpen() tells whether the kernel gave one.
  explicit QVNetlinkSocket(uint32_t groups = 0);
  ~QVNetlinkSocket();
  QVNetlinkSocket(const QVNetlinkSocket&) = delete;
  QVNetlinkSocket& operator=(const QVNetlinkSocket&) = delete;

  bool isOpen() const { return fd_ >= 0; }
  int fd() const { return fd_; }

  // Sends request (a whole netlink message; its sequence number is filled in)
  // and answers the kernel's reply; none when the socket fails or the kernel
  // says nothing in time.
  std::optional<Reply> transact(std::vector<uint8_t> request);

  // Reads and discards everything queued. True when anything was there,
  // including messages the kernel dropped for want of room.
  bool drain();

 private:
  std::optional<Reply> awaitReply(uint32_t sequence);

  int fd_ = -1;
  uint32_t sequence_ = 0;
};

}  // namespace qv
