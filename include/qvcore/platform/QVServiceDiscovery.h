#pragma once

#include <memory>

#include "qvcore/QVExport.h"

namespace qv {

class QVNetServiceBrowser;
class QVRunLoop;

// DNS-based service discovery: the browsers it makes find service instances,
// which resolve to addresses and hand out byte streams to them. The process
// uses the system's mDNS daemon through Avahi; tests install a fake.
class QV_EXPORT QVServiceDiscovery {
 public:
  virtual ~QVServiceDiscovery();

  // A browser whose events, and those of the services it finds, run as
  // tasks on loop, which must outlive them.
  virtual std::shared_ptr<QVNetServiceBrowser> makeServiceBrowser(QVRunLoop& loop) = 0;

  // The discovery in use: the one set, else Avahi's, made on first use and
  // never destroyed.
  static std::shared_ptr<QVServiceDiscovery> shared();
  // A null discovery goes back to Avahi's.
  static void setShared(std::shared_ptr<QVServiceDiscovery> discovery);
};

}  // namespace qv
