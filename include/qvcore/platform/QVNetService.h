#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qvcore/QVExport.h"

namespace qv {

class QVInputStream;
class QVOutputStream;
class QVNetServiceDelegate;

// A service instance that a browser found: its name, type and domain, and,
// once resolved, its socket addresses. Its events run on the loop of the
// browser that found it, and it is used from that loop's thread.
class QV_EXPORT QVNetService : public std::enable_shared_from_this<QVNetService> {
 public:
  // A socket address as the system lays it out (a sockaddr_in or
  // sockaddr_in6, port included), in its raw bytes.
  using AddressData = std::vector<uint8_t>;

  virtual ~QVNetService();

  virtual std::string name() const = 0;
  // With the trailing dot of a DNS-SD name: "_http._tcp.", "local.".
  virtual std::string type() const = 0;
  virtual std::string domain() const = 0;

  // Held weakly.
  void setDelegate(std::weak_ptr<QVNetServiceDelegate> delegate);
  std::shared_ptr<QVNetServiceDelegate> delegate() const;

  // Looks up where the service is. The delegate hears
  // netServiceDidResolveAddress when an address is known, or
  // netServiceDidNotResolve on failure or when timeoutSeconds pass first
  // (measured on the service's loop; a time-out that is not positive never
  // passes).
  virtual void resolveWithTimeout(double timeoutSeconds) = 0;
  // Ends a resolve under way; its delegate hears nothing more of it.
  virtual void stop() = 0;

  // What the last resolve found; empty before.
  virtual std::vector<AddressData> addresses() const = 0;
  virtual std::string hostName() const = 0;
  virtual uint16_t port() const = 0;

  // Two unopened streams of one TCP connection to the resolved service.
  // False, with both left null, when the service has no address yet.
  virtual bool getInputStreamOutputStream(std::shared_ptr<QVInputStream>& inputStream,
                                          std::shared_ptr<QVOutputStream>& outputStream) = 0;

  // "<ClassName: 0x...> domain type name", for log lines.
  virtual std::string description() const;

 protected:
  std::string describe(const char* className) const;

 private:
  mutable std::mutex mutex_;
  std::weak_ptr<QVNetServiceDelegate> delegate_;
};

}  // namespace qv
