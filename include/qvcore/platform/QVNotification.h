#pragma once

#include <any>
#include <optional>
#include <string>

#include "qvcore/platform/QVValue.h"

namespace qv {

// One posted notification. sender is the identity that observers may filter
// on; object carries the sender's data when a notification hands one over
// (the JSON test log posts a dictionary as its object).
struct QVNotification {
  std::string name;
  const void* sender = nullptr;
  std::any object;
  std::optional<QVValue> userInfo;
};

}  // namespace qv
