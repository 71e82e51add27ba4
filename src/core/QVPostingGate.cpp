#include "core/QVPostingGate.h"

#include <cstdint>
#include <exception>
#include <memory>

#include "platform/host/QVSwallowed.h"
#include "platform/runloop/QVPublished.h"
#include "qvcore/config/QVConfigKeys.h"
#include "qvcore/config/QVConfigService.h"
#include "qvcore/core/QVCore.h"
#include "qvcore/environment/QVNetworkManager.h"
#include "qvcore/model/QVMessage.h"

namespace qv {

namespace {

// The services are never destroyed, so the gate keeps one reference to each
// instead of copying a shared pointer (two atomic operations on a count that
// every posting thread shares) on every post.
const std::shared_ptr<QVConfigService>& configService() {
  static const auto* service =
      new std::shared_ptr<QVConfigService>(QVConfigService::sharedInstance());
  return *service;
}

// The core as the module whose configuration holds the posting levels.
const std::shared_ptr<QVLifecycleObject>& coreModule() {
  static const auto* core = new std::shared_ptr<QVLifecycleObject>(QVCore::sharedInstance());
  return *core;
}

// The environmental service answers Wi-Fi from this manager, which it never
// replaces; the gate asks it directly.
const QVNetworkManager& networkManager() {
  static const auto* manager =
      new std::shared_ptr<QVNetworkManager>(QVNetworkManager::sharedInstance());
  return **manager;
}

// The gate's limit for one network: the raw item, not the defaulted
// accessor, so that a missing limit is 0 and lets nothing pass (a level is
// never below 1); an item that cannot be read lets nothing pass either.
int64_t postingLimit(const char* key) {
  try {
    const auto item = configService()->getConfigItemForLifecycleObject(key, coreModule());
    return item ? QVValues::integerValue(*item) : 0;
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return 0;
  }
}

struct PostingLimits {
  int64_t wifi = 0;
  int64_t cellular = 0;
};

// Each thread keeps the two limits it read last, keyed by the configuration
// service's generation: reading them costs two locks, a map lookup and a
// copy of each item. A configuration that is not stored is not kept, so that
// every post tries to load it again, as a read would.
const PostingLimits& postingLimits() {
  const QVConfigService* config = configService().get();
  const uint64_t now = config->generation();
  return QVThreadCopy<PostingLimits>::of(config, now, [config, now](PostingLimits& limits) {
    limits = {postingLimit(QVConfigKeys::kPostMessageLevelWiFi),
              postingLimit(QVConfigKeys::kPostMessageLevelCellular)};
    const bool stored = config->isConfigStored(coreModule()->className());
    return stored && config->generation() == now ? now : uint64_t{0};
  });
}

}  // namespace

bool QVPostingGate::admits(const QVMessage* message) {
  if (!message) return false;
  try {
    // The level is compared as an unsigned 32-bit value widened to 64 bits.
    const auto level = static_cast<uint32_t>(message->logLevel());
    if (level == 0) return false;
    const bool wifi = networkManager().isConnectedViaWifi();
    const PostingLimits& limits = postingLimits();
    return static_cast<int64_t>(level) <= (wifi ? limits.wifi : limits.cellular);
  } catch (const std::exception& e) {
    noteSwallowed(__func__, e);
    return false;
  }
}

}  // namespace qv
