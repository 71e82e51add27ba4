#include "qvcore/logrelay/VintraExtensions.h"

#include "qvcore/logrelay/VintraZANLogClient.h"

namespace qv {

void VintraExtensions::postToZANVintraSDKTool(const std::string& text) {
  VintraZANLogClient::postToZANVintraSDKTool(text);
}

}  // namespace qv
