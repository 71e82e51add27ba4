#pragma once

#include <memory>
#include <string>

#include "qvcore/QVExport.h"

namespace qv {

class QVNetService;

// Hears how the resolve of a service ended. Both default to doing nothing.
class QV_EXPORT QVNetServiceDelegate {
 public:
  virtual ~QVNetServiceDelegate() = default;
  virtual void netServiceDidResolveAddress(const std::shared_ptr<QVNetService>& sender) {
    (void)sender;
  }
  virtual void netServiceDidNotResolve(const std::shared_ptr<QVNetService>& sender,
                                       const std::string& error) {
    (void)sender;
    (void)error;
  }
};

}  // namespace qv
