#include "qvcore/core/QVCoreHelper.h"

#include <chrono>

namespace qv {

std::shared_ptr<QVCoreHelper> QVCoreHelper::sharedInstance() {
  static const auto instance = std::make_shared<QVCoreHelper>();
  return instance;
}

uint64_t QVCoreHelper::now() const {
  using namespace std::chrono;
  const double seconds = duration<double>(system_clock::now().time_since_epoch()).count();
  return static_cast<uint64_t>(seconds * 1000.0);
}

}  // namespace qv
