#pragma once

// What a core posted to a QVTestHttpServer, read back as the collector reads
// it, and the core's own account of it: shared by the suites that run a whole
// core against a scripted server (faults, soak). Needs the collector library.
#include <algorithm>
#include <string>

#include "QVCollectorDecoder.h"
#include "QVCollectorRecord.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/model/QVQueue.h"
#include "qvcore/queue/QVServerConnection.h"
#include "support/QVQueueServiceTestSupport.h"
#include "support/QVTestHttpServer.h"

namespace qv::test {

inline collector::QVCollectorRecord collected(const QVRecordedRequest& sent, int status = 200) {
  collector::QVCollectorRecord record;
  record.request = {sent.method, sent.path(), sent.query(), sent.headers, sent.body};
  record.decoded = collector::QVCollectorDecoder::decode(record.request);
  record.status = status;
  return record;
}

inline Offsets sorted(Offsets offsets) {
  std::sort(offsets.begin(), offsets.end());
  return offsets;
}

// The offsets a decoded payload holds: a queue's sessions, or the one
// message of a URL-encoded post.
inline Offsets offsetsOf(const collector::QVCollectorRecord& record) {
  const std::string* text = record.payloadText();
  const QVValue payload = text ? QVValue::parse(*text, nullptr, false) : QVValue();
  if (!payload.is_object()) return {};
  if (payload.contains("sessions")) return offsetsIn(*text);
  if (payload.contains("offset") && payload["offset"].is_number()) return {payload["offset"]};
  return {};
}

// No module queue holds a message, the send list is empty, no post is under
// way and no file waits in the cache folder.
inline bool nothingLeftToSend(const QVQueueService& service) {
  for (const auto& [name, queue] : service.moduleQueues()) {
    if (!queue->isEmpty()) return false;
  }
  const auto connection = service.serverConnection();
  return service.cachedQueues().empty() && (!connection || !connection->isBusy()) &&
         namesIn(service.cachedQueuesDirectory()).empty();
}

// The counts of one module, or of all of them summed, as one line.
inline std::string ledgerLine(const QVLedgerSnapshot& ledger, const std::string& module = "") {
  const char* names[] = {"accepted", "sent", "failed", "cached", "recovered", "dropped", "left"};
  uint64_t sums[7] = {};
  for (const auto& [name, c] : ledger.modules) {
    const uint64_t left = c.queued + c.inFlight;
    const uint64_t counts[7] = {c.accepted,  c.sent,           c.failed, c.cached,
                                c.recovered, c.droppedTotal(), left};
    for (int i = 0; i < 7 && (module.empty() || name == module); ++i) sums[i] += counts[i];
  }
  std::string line;
  for (int i = 0; i < 7; ++i) line += (i ? " " : "") + (names[i] + (" " + std::to_string(sums[i])));
  return line;
}

}  // namespace qv::test
