#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "qvcore/QVExport.h"
#include "qvcore/platform/QVInterfaceAddress.h"

namespace qv {

// Where the core learns the addresses of the device's interfaces. The
// system's list is the default; tests install a source whose entries they
// choose.
class QV_EXPORT QVInterfaceAddressSource {
 public:
  virtual ~QVInterfaceAddressSource();

  // Every entry, in the system's order; none when the list cannot be read.
  virtual std::optional<std::vector<QVInterfaceAddress>> interfaceAddresses() = 0;

  // The source that the core uses: the one set, else the system's.
  static std::shared_ptr<QVInterfaceAddressSource> shared();
  // A null source goes back to the system's.
  static void setShared(std::shared_ptr<QVInterfaceAddressSource> source);
};

}  // namespace qv
