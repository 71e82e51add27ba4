#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVValue.h"

namespace qv {

// Why the core let a message go after it had accepted it or read it back
// from the cache.
enum class QVDropReason : std::size_t {
  // A failed post's queue could not be written to the cache (no folder, a
  // full disk, a folder that is a symbolic link, its module gone).
  kCacheWriteFailed,
  // A failed post's queue, while the core's "HasToPersistLocalCache" is off.
  kCachingOff,
  // A cache file that could not be read or is not a queue the service wrote.
  // Its messages cannot be known; it counts as one.
  kCacheFileUnreadable,
  // A cache file whose name names no module the core knows.
  kUnknownModule,
  // A URL-encoded payload that can never be a request (not a dictionary,
  // nothing to encode, a value JSON cannot carry).
  kRequestNotBuildable,
  // Left out of its payload because its module could not describe it (its
  // jsonDictionary threw), with the messages after it in the same session,
  // or because memory ran out while its session was written.
  kInvalidMessage,
  kCount
};

// "cacheWriteFailed", "cachingOff", "cacheFileUnreadable", "unknownModule",
// "requestNotBuildable", "invalidMessage".
QV_EXPORT const char* dropReasonName(QVDropReason reason);

// What became of one module's messages, each count a number of messages.
// At any quiet moment (no post being made, no flush running) the counts
// balance: accepted + recovered = sent + cached + dropped + queued + inFlight.
// A failed post counts under failed and then under cached or dropped, so
// failed is not part of the balance.
struct QV_EXPORT QVLedgerCounts {
  uint64_t accepted = 0;   // admitted by the gate and queued
  uint64_t refused = 0;    // refused by the gate, or for another reason
  uint64_t sent = 0;       // in a post answered with a success status
  uint64_t failed = 0;     // in a post that failed
  uint64_t cached = 0;     // written to a cache file
  uint64_t recovered = 0;  // read back from a cache file
  std::array<uint64_t, static_cast<std::size_t>(QVDropReason::kCount)> dropped{};
  uint64_t queued = 0;    // in memory, not in a post
  uint64_t inFlight = 0;  // in the post under way

  uint64_t droppedTotal() const;
  bool balances() const;
  // {"accepted": n, ..., "dropped": {"<reason>": n, ...}, "queued": n,
  //  "inFlight": n, "balanced": true}
  QVValue jsonValue() const;
};

// The ledger of every module the core has counted, by module class name.
struct QV_EXPORT QVLedgerSnapshot {
  std::map<std::string, QVLedgerCounts> modules;

  bool balances() const;
  // {"<module>": {...}, ...}
  QVValue jsonValue() const;
  // jsonValue() as one line of text.
  std::string toJson() const;
};

}  // namespace qv
