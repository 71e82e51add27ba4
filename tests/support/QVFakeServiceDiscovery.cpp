#include "QVFakeServiceDiscovery.h"

#include <netinet/in.h>

#include <algorithm>
#include <utility>

#include "qvcore/platform/QVNetServiceBrowserDelegate.h"
#include "qvcore/platform/QVNetServiceDelegate.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVStreamException.h"

namespace qv::test {

ptrdiff_t QVFakeServiceDiscovery::OutputStream::write(const uint8_t* buffer, size_t maxLength) {
  ++writeCalls;
  writerThreads.push_back(std::this_thread::get_id());
  if (failure) throw QVStreamException(*failure);
  const size_t taken = std::min(maxLength, chunk);
  written.append(reinterpret_cast<const char*>(buffer), taken);
  return static_cast<ptrdiff_t>(taken);
}

void QVFakeServiceDiscovery::OutputStream::endFromPeer() {
  failure = "send: Broken pipe";
  setStatus(kStatusError, *failure);
  deliverEvent(kEventEndEncountered);
}

void QVFakeServiceDiscovery::Service::answer(std::vector<AddressData> addresses) {
  auto self = std::static_pointer_cast<Service>(shared_from_this());
  loop_.post([self, addresses = std::move(addresses)] {
    if (!std::exchange(self->resolving_, false)) return;
    self->addresses_ = addresses;
    if (auto delegate = self->delegate()) delegate->netServiceDidResolveAddress(self);
  });
}

void QVFakeServiceDiscovery::Service::failToResolve() {
  auto self = std::static_pointer_cast<Service>(shared_from_this());
  loop_.post([self] {
    if (!std::exchange(self->resolving_, false)) return;
    if (auto delegate = self->delegate()) delegate->netServiceDidNotResolve(self, "timed out");
  });
}

bool QVFakeServiceDiscovery::Service::getInputStreamOutputStream(
    std::shared_ptr<QVInputStream>& inputStream, std::shared_ptr<QVOutputStream>& outputStream) {
  if (addresses_.empty()) return false;
  input = std::make_shared<InputStream>();
  output = std::make_shared<OutputStream>();
  inputStream = input;
  outputStream = output;
  return true;
}

void QVFakeServiceDiscovery::Browser::searchForServicesOfTypeInDomain(const std::string& type,
                                                                      const std::string& domain) {
  this->type = type;
  this->domain = domain;
  searching = true;
  auto self = shared_from_this();
  loop_.post([self] {
    if (auto delegate = self->delegate()) delegate->netServiceBrowserWillSearch(self);
  });
}

void QVFakeServiceDiscovery::Browser::stop() {
  if (!std::exchange(searching, false)) return;
  auto self = shared_from_this();
  loop_.post([self] {
    if (auto delegate = self->delegate()) delegate->netServiceBrowserDidStopSearch(self);
  });
}

std::shared_ptr<QVFakeServiceDiscovery::Service> QVFakeServiceDiscovery::Browser::find(
    const std::string& name) {
  auto service = std::make_shared<Service>(loop_, name);
  auto self = std::static_pointer_cast<Browser>(shared_from_this());
  loop_.post([self, service] {
    if (!self->searching) return;
    if (auto delegate = self->delegate()) {
      delegate->netServiceBrowserDidFindServiceMoreComing(self, service, false);
    }
  });
  return service;
}

std::shared_ptr<QVNetServiceBrowser> QVFakeServiceDiscovery::makeServiceBrowser(QVRunLoop& loop) {
  browsers.push_back(std::make_shared<Browser>(loop));
  return browsers.back();
}

QVNetService::AddressData ipv4Address(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(a << 24 | b << 16 | c << 8 | d);
  const auto* first = reinterpret_cast<const uint8_t*>(&address);
  return {first, first + sizeof address};
}

}  // namespace qv::test
