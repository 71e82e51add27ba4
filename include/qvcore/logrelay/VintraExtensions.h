#pragma once

#include <string>

#include "qvcore/QVExport.h"

namespace qv {

// The log relay as every object reaches it: code anywhere may post text to
// the developer log tool without naming the client class.
class QV_EXPORT VintraExtensions {
 public:
  // The same as VintraZANLogClient::postToZANVintraSDKTool.
  static void postToZANVintraSDKTool(const std::string& text);
};

}  // namespace qv
