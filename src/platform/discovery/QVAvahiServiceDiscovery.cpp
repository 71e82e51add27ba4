#include "platform/discovery/QVAvahiServiceDiscovery.h"

#include <avahi-common/error.h>

#include "platform/discovery/QVAvahiServiceBrowser.h"

namespace qv {

QVAvahiServiceDiscovery::QVAvahiServiceDiscovery() = default;

QVAvahiServiceDiscovery::~QVAvahiServiceDiscovery() {
  if (!poll_) return;
  avahi_threaded_poll_stop(poll_);
  if (client_) avahi_client_free(client_);
  avahi_threaded_poll_free(poll_);
}

std::shared_ptr<QVNetServiceBrowser> QVAvahiServiceDiscovery::makeServiceBrowser(QVRunLoop& loop) {
  return std::make_shared<QVAvahiServiceBrowser>(shared_from_this(), loop);
}

void QVAvahiServiceDiscovery::start() {
  poll_ = avahi_threaded_poll_new();
  if (!poll_) {
    startError_ = "Avahi's poll thread cannot be made";
    return;
  }
  int error = 0;
  // Nothing to do on a change of state: each search asks for the state when
  // it starts. The callback also runs inside avahi_client_new, before
  // client_ is set, so it must not touch client_.
  auto ignoreState = [](AvahiClient*, AvahiClientState, void*) {};
  client_ = avahi_client_new(avahi_threaded_poll_get(poll_), AVAHI_CLIENT_NO_FAIL, ignoreState,
                             nullptr, &error);
  if (!client_) {
    startError_ = std::string("Avahi client: ") + avahi_strerror(error);
    return;
  }
  if (avahi_threaded_poll_start(poll_) < 0) {
    avahi_client_free(client_);
    client_ = nullptr;
    startError_ = "Avahi's poll thread cannot be started";
  }
}

AvahiClient* QVAvahiServiceDiscovery::client() {
  std::call_once(started_, [this] { start(); });
  return client_;
}

std::string QVAvahiServiceDiscovery::lastError() {
  AvahiClient* avahi = client();
  if (!avahi) return startError_;
  if (avahi_client_get_state(avahi) == AVAHI_CLIENT_CONNECTING) {
    return "the Avahi daemon is not running";
  }
  return std::string("Avahi: ") + avahi_strerror(avahi_client_errno(avahi));
}

QVAvahiServiceDiscovery::Lock::Lock(QVAvahiServiceDiscovery& discovery)
    : poll_((discovery.client(), discovery.poll_)) {
  if (poll_) avahi_threaded_poll_lock(poll_);
}

QVAvahiServiceDiscovery::Lock::~Lock() {
  if (poll_) avahi_threaded_poll_unlock(poll_);
}

}  // namespace qv
