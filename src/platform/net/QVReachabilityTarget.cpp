#include "qvcore/platform/QVReachabilityTarget.h"

namespace qv {

QVReachabilityTarget::~QVReachabilityTarget() = default;

std::optional<uint32_t> QVReachabilityTarget::publishedFlags() { return flags(); }

bool QVReachabilityTarget::awaitPublished(std::chrono::milliseconds) { return true; }

}  // namespace qv
