#include "qvcore/platform/QVReachabilityTarget.h"

namespace qv {

QVReachabilityTarget::~QVReachabilityTarget() = default;

}  // namespace qv
