#include "platform/discovery/QVAvahiNetService.h"

#include <avahi-common/error.h>
#include <netinet/in.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <utility>

#include "platform/discovery/QVAvahiServiceDiscovery.h"
#include "platform/net/QVSocketConnection.h"
#include "platform/net/QVSocketInputStream.h"
#include "platform/net/QVSocketOutputStream.h"
#include "qvcore/platform/QVNetServiceDelegate.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {

namespace {

template <typename SocketAddress>
QVNetService::AddressData bytesOf(const SocketAddress& address) {
  const auto* first = reinterpret_cast<const uint8_t*>(&address);
  return QVNetService::AddressData(first, first + sizeof address);
}

QVNetService::AddressData socketAddress(const AvahiAddress& address, uint16_t port,
                                        AvahiIfIndex interface) {
  if (address.proto == AVAHI_PROTO_INET) {
    sockaddr_in ipv4{};
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(port);
    ipv4.sin_addr.s_addr = address.data.ipv4.address;
    return bytesOf(ipv4);
  }
  sockaddr_in6 ipv6{};
  ipv6.sin6_family = AF_INET6;
  ipv6.sin6_port = htons(port);
  std::memcpy(ipv6.sin6_addr.s6_addr, address.data.ipv6.address, 16);
  // A link-local address means nothing without its link.
  if (IN6_IS_ADDR_LINKLOCAL(&ipv6.sin6_addr) && interface > 0) {
    ipv6.sin6_scope_id = static_cast<uint32_t>(interface);
  }
  return bytesOf(ipv6);
}

}  // namespace

QVAvahiNetService::QVAvahiNetService(std::shared_ptr<QVAvahiServiceDiscovery> discovery,
                                     QVRunLoop& loop, AvahiIfIndex interface,
                                     AvahiProtocol protocol, std::string name, std::string type,
                                     std::string domain)
    : discovery_(std::move(discovery)),
      loop_(loop),
      interface_(interface),
      protocol_(protocol),
      name_(std::move(name)),
      type_(std::move(type)),
      domain_(std::move(domain)) {}

QVAvahiNetService::~QVAvahiNetService() { freeResolver(); }

void QVAvahiNetService::resolveWithTimeout(double timeoutSeconds) {
  stop();
  const uint64_t resolve = ++resolve_;
  resolving_ = true;
  std::string error;
  {
    QVAvahiServiceDiscovery::Lock lock(*discovery_);
    if (AvahiClient* client = discovery_->client()) {
      resolver_ = avahi_service_resolver_new(client, interface_, protocol_, name_.c_str(),
                                             type_.c_str(), domain_.c_str(), AVAHI_PROTO_UNSPEC,
                                             static_cast<AvahiLookupFlags>(0), &resolved, this);
    }
    if (!resolver_) error = discovery_->lastError();
  }
  std::weak_ptr<QVNetService> weak = weak_from_this();
  if (!resolver_) {
    loop_.post([weak, resolve, error] {
      auto self = std::static_pointer_cast<QVAvahiNetService>(weak.lock());
      if (self) self->finish(resolve, error, {}, {}, 0);
    });
    return;
  }
  if (!(timeoutSeconds > 0) || !std::isfinite(timeoutSeconds)) return;
  const auto timeout = std::chrono::duration_cast<QVRunLoop::Duration>(
      std::chrono::duration<double>(timeoutSeconds));
  loop_.postAfter(timeout, [weak, resolve] {
    auto self = std::static_pointer_cast<QVAvahiNetService>(weak.lock());
    if (self) self->finish(resolve, "the resolve timed out", {}, {}, 0);
  });
}

void QVAvahiNetService::stop() {
  resolving_ = false;
  ++resolve_;
  freeResolver();
}

void QVAvahiNetService::freeResolver() {
  QVAvahiServiceDiscovery::Lock lock(*discovery_);
  if (resolver_) avahi_service_resolver_free(std::exchange(resolver_, nullptr));
}

void QVAvahiNetService::resolved(AvahiServiceResolver*, AvahiIfIndex interface, AvahiProtocol,
                                 AvahiResolverEvent event, const char*, const char*, const char*,
                                 const char* hostName, const AvahiAddress* address, uint16_t port,
                                 AvahiStringList*, AvahiLookupResultFlags, void* userdata) {
  auto* self = static_cast<QVAvahiNetService*>(userdata);
  const uint64_t resolve = self->resolve_;
  std::string error;
  AddressData data;
  if (event == AVAHI_RESOLVER_FOUND && address) {
    data = socketAddress(*address, port, interface);
  } else {
    // Inside the callback Avahi's lock is held already.
    error = avahi_strerror(avahi_client_errno(self->discovery_->client()));
  }
  std::weak_ptr<QVNetService> weak = self->weak_from_this();
  self->loop_.post([weak, resolve, error = std::move(error), data = std::move(data),
                    host = std::string(hostName ? hostName : ""), port]() mutable {
    auto service = std::static_pointer_cast<QVAvahiNetService>(weak.lock());
    if (service) service->finish(resolve, std::move(error), std::move(data), std::move(host), port);
  });
}

void QVAvahiNetService::finish(uint64_t resolve, std::string error, AddressData address,
                               std::string hostName, uint16_t port) {
  if (!resolving_ || resolve != resolve_) return;
  resolving_ = false;
  freeResolver();
  auto delegate = this->delegate();
  if (!error.empty()) {
    if (delegate) delegate->netServiceDidNotResolve(shared_from_this(), error);
    return;
  }
  {
    std::lock_guard lock(mutex_);
    addresses_ = {std::move(address)};
    hostName_ = std::move(hostName);
    port_ = port;
  }
  if (delegate) delegate->netServiceDidResolveAddress(shared_from_this());
}

std::vector<QVNetService::AddressData> QVAvahiNetService::addresses() const {
  std::lock_guard lock(mutex_);
  return addresses_;
}

std::string QVAvahiNetService::hostName() const {
  std::lock_guard lock(mutex_);
  return hostName_;
}

uint16_t QVAvahiNetService::port() const {
  std::lock_guard lock(mutex_);
  return port_;
}

bool QVAvahiNetService::getInputStreamOutputStream(std::shared_ptr<QVInputStream>& inputStream,
                                                   std::shared_ptr<QVOutputStream>& outputStream) {
  const std::vector<AddressData> known = addresses();
  if (known.empty()) {
    inputStream.reset();
    outputStream.reset();
    return false;
  }
  auto [input, output] = QVSocketConnection::makeStreams(known.front());
  inputStream = std::move(input);
  outputStream = std::move(output);
  return true;
}

}  // namespace qv
