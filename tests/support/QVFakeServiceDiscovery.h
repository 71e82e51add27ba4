#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "qvcore/platform/QVInputStream.h"
#include "qvcore/platform/QVNetService.h"
#include "qvcore/platform/QVNetServiceBrowser.h"
#include "qvcore/platform/QVOutputStream.h"
#include "qvcore/platform/QVServiceDiscovery.h"

namespace qv {
class QVRunLoop;
}

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
    ptrdiff_t write(const uint8_t* buffer, size_t maxLength) override;
    bool hasSpaceAvailable() const override { return true; }
    std::string description() const override { return describe("FakeOutputStream"); }
    // The tool went away: end-of-stream comes, and writes fail from now on.
    void endFromPeer();

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
    std::string description() const override { return describe("FakeInputStream"); }
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
    bool getInputStreamOutputStream(std::shared_ptr<QVInputStream>& inputStream,
                                    std::shared_ptr<QVOutputStream>& outputStream) override;

    // The resolve under way ends with these addresses, or fails.
    void answer(std::vector<AddressData> addresses);
    void failToResolve();

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
                                         const std::string& domain) override;
    void stop() override;

    // An instance appears; the delegate hears of it if the search is still
    // on when the event runs.
    std::shared_ptr<Service> find(const std::string& name);

    std::string type;
    std::string domain;
    bool searching = false;

   private:
    QVRunLoop& loop_;
  };

  std::shared_ptr<QVNetServiceBrowser> makeServiceBrowser(QVRunLoop& loop) override;

  std::vector<std::shared_ptr<Browser>> browsers;
};

// The bytes of a sockaddr_in for a.b.c.d and port.
QVNetService::AddressData ipv4Address(uint8_t a, uint8_t b, uint8_t c, uint8_t d,
                                      uint16_t port = 4567);

}  // namespace qv::test
