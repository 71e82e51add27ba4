#pragma once

#include <avahi-client/client.h>
#include <avahi-common/thread-watch.h>

#include <memory>
#include <mutex>
#include <string>

#include "qvcore/platform/QVServiceDiscovery.h"

namespace qv {

// DNS-SD through the Avahi daemon (over the D-Bus system bus). One Avahi
// client runs on a threaded poll of its own, started on first use; every
// Avahi callback runs on that thread, and what it learns is posted to the
// run loop of the browser or service concerned. The client is made with
// AVAHI_CLIENT_NO_FAIL, so that making it never fails for want of a daemon;
// a search asked for while no daemon serves fails with
// netServiceBrowserDidNotSearch, and the next search tries again.
class QVAvahiServiceDiscovery final : public QVServiceDiscovery,
                                      public std::enable_shared_from_this<QVAvahiServiceDiscovery> {
 public:
  QVAvahiServiceDiscovery();
  ~QVAvahiServiceDiscovery() override;
  QVAvahiServiceDiscovery(const QVAvahiServiceDiscovery&) = delete;
  QVAvahiServiceDiscovery& operator=(const QVAvahiServiceDiscovery&) = delete;

  std::shared_ptr<QVNetServiceBrowser> makeServiceBrowser(QVRunLoop& loop) override;

  // Holds Avahi's lock, which every use of an Avahi object from outside
  // Avahi's thread needs. Never taken inside an Avahi callback: those run
  // under it already, and the lock does not nest.
  class Lock {
   public:
    explicit Lock(QVAvahiServiceDiscovery& discovery);
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    AvahiThreadedPoll* poll_;
  };

  // The client, started on the first call; null when Avahi could not even
  // be set up. Use it under a Lock.
  AvahiClient* client();
  // Why the last Avahi call failed, for a delegate. Under a Lock.
  std::string lastError();

 private:
  void start();

  std::once_flag started_;
  AvahiThreadedPoll* poll_ = nullptr;
  AvahiClient* client_ = nullptr;
  std::string startError_;
};

}  // namespace qv
