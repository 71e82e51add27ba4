#include "qvcore/platform/QVClock.h"

namespace qv {

QVClock::~QVClock() = default;

QVClock::ListenerId QVClock::addListener(Listener) { return 0; }

void QVClock::removeListener(ListenerId) {}

}  // namespace qv
