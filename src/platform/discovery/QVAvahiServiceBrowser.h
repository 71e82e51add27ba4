#pragma once

#include <avahi-client/lookup.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "qvcore/platform/QVNetServiceBrowser.h"

namespace qv {

class QVAvahiServiceDiscovery;
class QVRunLoop;

// A search through an Avahi service browser. Avahi's callbacks only post;
// the delegate is told on the loop, and a search number kept with each event
// lets the loop drop events of a search that has since stopped.
class QVAvahiServiceBrowser final : public QVNetServiceBrowser {
 public:
  QVAvahiServiceBrowser(std::shared_ptr<QVAvahiServiceDiscovery> discovery, QVRunLoop& loop);
  ~QVAvahiServiceBrowser() override;

  void searchForServicesOfTypeInDomain(const std::string& type, const std::string& domain) override;
  void stop() override;

 private:
  struct Found;

  static void browsed(AvahiServiceBrowser* browser, AvahiIfIndex interface, AvahiProtocol protocol,
                      AvahiBrowserEvent event, const char* name, const char* type,
                      const char* domain, AvahiLookupResultFlags flags, void* userdata);
  void post(uint64_t search, std::function<void(QVAvahiServiceBrowser&)> step);
  void tellFound(const Found& found, bool removed);
  void freeBrowser();

  std::shared_ptr<QVAvahiServiceDiscovery> discovery_;
  QVRunLoop& loop_;
  // Under Avahi's lock.
  AvahiServiceBrowser* browser_ = nullptr;
  // Changed on the loop's thread, read by Avahi's.
  std::atomic<uint64_t> search_{0};
  bool searching_ = false;
};

}  // namespace qv
