#include "platform/discovery/QVAvahiServiceBrowser.h"

#include <avahi-common/error.h>

#include <utility>

#include "platform/discovery/QVAvahiNetService.h"
#include "platform/discovery/QVAvahiServiceDiscovery.h"
#include "qvcore/platform/QVNetServiceBrowserDelegate.h"
#include "qvcore/platform/QVRunLoop.h"

namespace qv {

namespace {

// Avahi writes DNS-SD names without the final dot.
std::string withoutFinalDot(std::string name) {
  if (!name.empty() && name.back() == '.') name.pop_back();
  return name;
}

}  // namespace

struct QVAvahiServiceBrowser::Found {
  AvahiIfIndex interface;
  AvahiProtocol protocol;
  std::string name;
  std::string type;
  std::string domain;
};

QVAvahiServiceBrowser::QVAvahiServiceBrowser(std::shared_ptr<QVAvahiServiceDiscovery> discovery,
                                             QVRunLoop& loop)
    : discovery_(std::move(discovery)), loop_(loop) {}

QVAvahiServiceBrowser::~QVAvahiServiceBrowser() { freeBrowser(); }

void QVAvahiServiceBrowser::searchForServicesOfTypeInDomain(const std::string& type,
                                                            const std::string& domain) {
  freeBrowser();
  const uint64_t search = ++search_;
  searching_ = true;
  std::string error;
  {
    QVAvahiServiceDiscovery::Lock lock(*discovery_);
    if (AvahiClient* client = discovery_->client()) {
      browser_ = avahi_service_browser_new(
          client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, withoutFinalDot(type).c_str(),
          withoutFinalDot(domain).c_str(), static_cast<AvahiLookupFlags>(0), &browsed, this);
    }
    if (!browser_) error = discovery_->lastError();
  }
  if (!browser_) {
    searching_ = false;
    return post(search, [error](QVAvahiServiceBrowser& self) {
      if (auto delegate = self.delegate()) {
        delegate->netServiceBrowserDidNotSearch(self.shared_from_this(), error);
      }
    });
  }
  post(search, [](QVAvahiServiceBrowser& self) {
    if (auto delegate = self.delegate())
      delegate->netServiceBrowserWillSearch(self.shared_from_this());
  });
}

void QVAvahiServiceBrowser::stop() {
  if (!searching_) return;
  searching_ = false;
  freeBrowser();
  ++search_;
  // Told even though the search has stopped, as the only news of it.
  std::weak_ptr<QVNetServiceBrowser> weak = weak_from_this();
  loop_.post([weak] {
    auto self = weak.lock();
    if (!self) return;
    if (auto delegate = self->delegate()) delegate->netServiceBrowserDidStopSearch(self);
  });
}

void QVAvahiServiceBrowser::freeBrowser() {
  QVAvahiServiceDiscovery::Lock lock(*discovery_);
  if (browser_) avahi_service_browser_free(std::exchange(browser_, nullptr));
}

void QVAvahiServiceBrowser::post(uint64_t search,
                                 std::function<void(QVAvahiServiceBrowser&)> step) {
  std::weak_ptr<QVNetServiceBrowser> weak = weak_from_this();
  loop_.post([weak, search, step = std::move(step)] {
    auto self = std::static_pointer_cast<QVAvahiServiceBrowser>(weak.lock());
    if (self && self->search_ == search) step(*self);
  });
}

void QVAvahiServiceBrowser::browsed(AvahiServiceBrowser*, AvahiIfIndex interface,
                                    AvahiProtocol protocol, AvahiBrowserEvent event,
                                    const char* name, const char* type, const char* domain,
                                    AvahiLookupResultFlags, void* userdata) {
  auto* self = static_cast<QVAvahiServiceBrowser*>(userdata);
  const uint64_t search = self->search_;
  if (event == AVAHI_BROWSER_NEW || event == AVAHI_BROWSER_REMOVE) {
    Found found{interface, protocol, name, type, domain};
    const bool removed = event == AVAHI_BROWSER_REMOVE;
    self->post(search, [found = std::move(found), removed](QVAvahiServiceBrowser& browser) {
      browser.tellFound(found, removed);
    });
  } else if (event == AVAHI_BROWSER_FAILURE) {
    // Inside the callback Avahi's lock is held already.
    std::string error = avahi_strerror(avahi_client_errno(self->discovery_->client()));
    self->post(search, [error](QVAvahiServiceBrowser& browser) {
      browser.searching_ = false;
      if (auto delegate = browser.delegate()) {
        delegate->netServiceBrowserDidNotSearch(browser.shared_from_this(), error);
      }
    });
  }
}

void QVAvahiServiceBrowser::tellFound(const Found& found, bool removed) {
  auto delegate = this->delegate();
  if (!delegate || !searching_) return;
  auto service = std::make_shared<QVAvahiNetService>(
      discovery_, loop_, found.interface, found.protocol, found.name, found.type, found.domain);
  // Avahi tells of one instance at a time, with no word of what follows.
  if (removed) {
    delegate->netServiceBrowserDidRemoveServiceMoreComing(shared_from_this(), service, false);
  } else {
    delegate->netServiceBrowserDidFindServiceMoreComing(shared_from_this(), service, false);
  }
}

}  // namespace qv
