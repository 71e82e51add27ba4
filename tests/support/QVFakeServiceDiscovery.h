#pragma once

#include <netinet/in.h>

#include <algorithm>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "qvcore/platform/QVInputStream.h"
#include "qvcore/platform/QVNetService.h"
#include "qvcore/platform/QVNetServiceBrowser.h"
#include "qvcore/platform/QVNetServiceBrowserDelegate.h"
#include "qvcore/platform/QVNetServiceDelegate.h"
#include "qvcore/platform/QVOutputStream.h"
#include "qvcore/platform/QVRunLoop.h"
#include "qvcore/platform/QVServiceDiscovery.h"
#include "qvcore/platform/QVStreamException.h"

namespace qv::test {

// DNS-SD and streams whose every happening the test causes. Like the real
// ones, they post their events to the browser's loop, so the test pumps it,
// and a stopped browser or service says nothing more. Not thread-safe apart
// from the posting: tests drive it from the main thread.
class QVFakeServiceDiscovery final : public QVServiceDiscovery {
 public:
  class OutputStream final : public QVOutputStream {
   public:
    void open() override {
      setStatus(kStatusOpen);
      deliverEvent(kEventOpenCompleted);
      deliverEvent(kEventHasSpaceAvailable);
    }
    void close() override { setStatus(kStatusClosed); }
    // Takes at most chunk bytes a call; raises while failure is set.
    ptrdiff_t write(const uint8_t* buffer, size_t maxLength) override {
      ++writeCalls;
      writerThreads.push_back(std::this_thread::get_id());
      if (failure) throw QVStreamException(*failure);
      const size_t taken = std::min(maxLength, chunk);
      written.append(reinterpret_cast<const char*>(buffer), taken);
      return static_cast<ptrdiff_t>(taken);
    }
    bool hasSpaceAvailable() const override { return true; }
    // The tool went away: end-of-stream comes, and writes fail from now on.
    void endFromPeer() {
      failure = "send: Broken pipe";
      setStatus(kStatusError, *failure);
      deliverEvent(kEventEndEncountered);
    }

    std::string written;
    size_t chunk = SIZE_MAX;
    std::optional<std::string> failure;
    size_t writeCalls = 0;
    std::vector<std::thread::id> writerThreads;
  };

  class InputStream final : public QVInputStream {
   public:
    void open() override {
      setStatus(kStatusOpen);
      deliverEvent(kEventOpenCompleted);
    }
    void close() override { setStatus(kStatusClosed); }
    ptrdiff_t read(uint8_t*, size_t) override { return 0; }
    bool hasBytesAvailable() const override { return false; }
  };

  class Service final : public QVNetService {
   public:
    Service(QVRunLoop& loop, std::string name) : loop_(loop), name_(std::move(name)) {}
    std::string name() const override { return name_; }
    std::string type() const override { return "_brevantlogservice._tcp."; }
    std::string domain() const override { return "local."; }
    void resolveWithTimeout(double seconds) override { timeout = seconds, resolving_ = true; }
    void stop() override { resolving_ = false; }
    std::vector<AddressData> addresses() const override { return addresses_; }
    std::string hostName() const override { return name_ + ".local."; }
    uint16_t port() const override { return 4567; }
    bool getInputStreamOutputStream(std::shared_ptr<QVInputStream>& in,
                                    std::shared_ptr<QVOutputStream>& out) override {
      if (addresses_.empty()) return false;
      in = input = std::make_shared<InputStream>();
      out = output = std::make_shared<OutputStream>();
      return true;
    }
    // The resolve under way ends with these addresses, or fails without.
    void answer(std::vector<AddressData> addresses) {
      auto self = std::static_pointer_cast<Service>(shared_from_this());
      loop_.post([self, addresses = std::move(addresses)] {
        auto delegate = self->delegate();
        if (!std::exchange(self->resolving_, false) || !delegate) return;
        self->addresses_ = addresses;
        if (addresses.empty()) return delegate->netServiceDidNotResolve(self, "timed out");
        delegate->netServiceDidResolveAddress(self);
      });
    }

    std::optional<double> timeout;
    std::shared_ptr<InputStream> input;
    std::shared_ptr<OutputStream> output;

   private:
    QVRunLoop& loop_;
    std::string name_;
    std::vector<AddressData> addresses_;
    bool resolving_ = false;
  };

  class Browser final : public QVNetServiceBrowser {
   public:
    explicit Browser(QVRunLoop& loop) : loop_(loop) {}
    void searchForServicesOfTypeInDomain(const std::string& type,
                                         const std::string& domain) override {
      searched = type + " " + domain;
      tell([](auto& delegate, auto& self) { delegate->netServiceBrowserWillSearch(self); });
    }
    void stop() override {
      if (std::exchange(searched, "").empty()) return;
      tell([](auto& delegate, auto& self) { delegate->netServiceBrowserDidStopSearch(self); });
    }
    // An instance appears; the delegate hears of it if the search is still
    // on when the event runs.
    std::shared_ptr<Service> find(const std::string& name) {
      auto service = std::make_shared<Service>(loop_, name);
      tell([service](auto& delegate, auto& self) {
        if (!self->searched.empty())
          delegate->netServiceBrowserDidFindServiceMoreComing(self, service, false);
      });
      return service;
    }

    std::string searched;  // "type domain" while searching

   private:
    template <typename Event>
    void tell(Event event) {
      auto self = std::static_pointer_cast<Browser>(shared_from_this());
      loop_.post([self, event] {
        if (auto delegate = self->delegate()) event(delegate, self);
      });
    }
    QVRunLoop& loop_;
  };

  std::shared_ptr<QVNetServiceBrowser> makeServiceBrowser(QVRunLoop& loop) override {
    return browsers.emplace_back(std::make_shared<Browser>(loop));
  }

  std::vector<std::shared_ptr<Browser>> browsers;
};

// The bytes of a sockaddr_in for a.b.c.d and port.
inline QVNetService::AddressData ipv4Address(uint8_t a, uint8_t b, uint8_t c, uint8_t d,
                                             uint16_t port = 4567) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(a << 24 | b << 16 | c << 8 | d);
  const auto* first = reinterpret_cast<const uint8_t*>(&address);
  return {first, first + sizeof address};
}

}  // namespace qv::test
