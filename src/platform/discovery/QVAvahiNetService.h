#pragma once

#include <avahi-client/lookup.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qvcore/platform/QVNetService.h"

namespace qv {

class QVAvahiServiceDiscovery;
class QVRunLoop;

// A service instance that an Avahi browser found, resolved through an Avahi
// service resolver on the interface and protocol it was seen on. The first
// answer ends the resolve; the time-out runs on the service's loop.
class QVAvahiNetService final : public QVNetService {
 public:
  // type and domain as Avahi writes them, without the final dot.
  QVAvahiNetService(std::shared_ptr<QVAvahiServiceDiscovery> discovery, QVRunLoop& loop,
                    AvahiIfIndex interface, AvahiProtocol protocol, std::string name,
                    std::string type, std::string domain);
  ~QVAvahiNetService() override;

  std::string name() const override { return name_; }
  std::string type() const override { return type_ + "."; }
  std::string domain() const override { return domain_ + "."; }

  void resolveWithTimeout(double timeoutSeconds) override;
  void stop() override;

  std::vector<AddressData> addresses() const override;
  std::string hostName() const override;
  uint16_t port() const override;
  bool getInputStreamOutputStream(std::shared_ptr<QVInputStream>& inputStream,
                                  std::shared_ptr<QVOutputStream>& outputStream) override;
  std::string description() const override { return describe("QVAvahiNetService"); }

 private:
  static void resolved(AvahiServiceResolver* resolver, AvahiIfIndex interface,
                       AvahiProtocol protocol, AvahiResolverEvent event, const char* name,
                       const char* type, const char* domain, const char* hostName,
                       const AvahiAddress* address, uint16_t port, AvahiStringList* txt,
                       AvahiLookupResultFlags flags, void* userdata);
  void finish(uint64_t resolve, std::string error, AddressData address, std::string hostName,
              uint16_t port);
  void freeResolver();

  std::shared_ptr<QVAvahiServiceDiscovery> discovery_;
  QVRunLoop& loop_;
  const AvahiIfIndex interface_;
  const AvahiProtocol protocol_;
  const std::string name_;
  const std::string type_;
  const std::string domain_;

  // Under Avahi's lock.
  AvahiServiceResolver* resolver_ = nullptr;
  // Changed on the loop's thread, read by Avahi's.
  std::atomic<uint64_t> resolve_{0};
  bool resolving_ = false;

  mutable std::mutex mutex_;
  std::vector<AddressData> addresses_;
  std::string hostName_;
  uint16_t port_ = 0;
};

}  // namespace qv
