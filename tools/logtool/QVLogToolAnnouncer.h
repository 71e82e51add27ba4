#pragma once

#include <avahi-client/client.h>
#include <avahi-client/publish.h>
#include <avahi-common/thread-watch.h>

#include <cstdint>
#include <functional>
#include <string>

namespace qv {

// Announces "_brevantlogservice._tcp." on a port through the Avahi daemon,
// with an entry group on an Avahi threaded poll. It waits for a daemon that
// is not running yet, and takes another name when its own is taken on the
// network. Status lines go to standard error. When the announcement cannot
// go on (the daemon went away, the group failed), it calls fatal with the
// reason, on Avahi's thread.
class QVLogToolAnnouncer {
 public:
  static constexpr const char* kServiceType = "_brevantlogservice._tcp";

  QVLogToolAnnouncer(std::string name, uint16_t port,
                     std::function<void(const std::string&)> fatal);
  ~QVLogToolAnnouncer();
  QVLogToolAnnouncer(const QVLogToolAnnouncer&) = delete;
  QVLogToolAnnouncer& operator=(const QVLogToolAnnouncer&) = delete;

  // False, with error set, when Avahi cannot even be set up.
  bool start(std::string& error);

 private:
  static void clientChanged(AvahiClient* client, AvahiClientState state, void* userdata);
  static void groupChanged(AvahiEntryGroup* group, AvahiEntryGroupState state, void* userdata);
  void announce(AvahiClient* client);
  void rename();

  std::string name_;
  const uint16_t port_;
  std::function<void(const std::string&)> fatal_;
  AvahiThreadedPoll* poll_ = nullptr;
  AvahiClient* client_ = nullptr;
  // Touched on Avahi's thread only, once started.
  AvahiEntryGroup* group_ = nullptr;
};

}  // namespace qv
