#pragma once

namespace qv {

class QVMessage;

// Whether a message may be posted: its level, never 0, against the core's
// raw limit for the network in use ("PostMessageLevelWiFi" on Wi-Fi,
// "PostMessageLevelCellular" otherwise). A missing limit is 0 and lets
// nothing pass. Asked on every post, from any thread.
class QVPostingGate {
 public:
  static bool admits(const QVMessage* message);
};

}  // namespace qv
