#include "QVLogToolAnnouncer.h"

#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>

#include <cstdio>
#include <utility>

namespace qv {

QVLogToolAnnouncer::QVLogToolAnnouncer(std::string name, uint16_t port,
                                       std::function<void(const std::string&)> fatal)
    : name_(std::move(name)), port_(port), fatal_(std::move(fatal)) {}

QVLogToolAnnouncer::~QVLogToolAnnouncer() {
  if (poll_) avahi_threaded_poll_stop(poll_);
  // Freeing the client frees its group, which withdraws the announcement.
  if (client_) avahi_client_free(client_);
  if (poll_) avahi_threaded_poll_free(poll_);
}

bool QVLogToolAnnouncer::start(std::string& error) {
  poll_ = avahi_threaded_poll_new();
  if (!poll_) {
    error = "Avahi's poll thread cannot be made";
    return false;
  }
  int failure = 0;
  // The first state change is reported from inside avahi_client_new, which
  // is why clientChanged works with the client it is given.
  client_ = avahi_client_new(avahi_threaded_poll_get(poll_), AVAHI_CLIENT_NO_FAIL, &clientChanged,
                             this, &failure);
  if (!client_) {
    error = std::string("Avahi client: ") + avahi_strerror(failure);
    return false;
  }
  if (avahi_threaded_poll_start(poll_) < 0) {
    error = "Avahi's poll thread cannot be started";
    return false;
  }
  return true;
}

void QVLogToolAnnouncer::clientChanged(AvahiClient* client, AvahiClientState state,
                                       void* userdata) {
  auto* self = static_cast<QVLogToolAnnouncer*>(userdata);
  switch (state) {
    case AVAHI_CLIENT_S_RUNNING:
      self->announce(client);
      break;
    case AVAHI_CLIENT_S_COLLISION:
    case AVAHI_CLIENT_S_REGISTERING:
      // The host's own name is being settled; announce again once it is.
      if (self->group_) avahi_entry_group_reset(self->group_);
      break;
    case AVAHI_CLIENT_CONNECTING:
      std::fprintf(stderr, "qvcore-logtool: waiting for the Avahi daemon\n");
      break;
    case AVAHI_CLIENT_FAILURE:
      self->fatal_(std::string("Avahi: ") + avahi_strerror(avahi_client_errno(client)));
      break;
  }
}

void QVLogToolAnnouncer::announce(AvahiClient* client) {
  if (!group_) group_ = avahi_entry_group_new(client, &groupChanged, this);
  if (!group_) {
    return fatal_(std::string("Avahi entry group: ") + avahi_strerror(avahi_client_errno(client)));
  }
  if (!avahi_entry_group_is_empty(group_)) return;
  const int added = avahi_entry_group_add_service(group_, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                  static_cast<AvahiPublishFlags>(0), name_.c_str(),
                                                  kServiceType, nullptr, nullptr, port_, nullptr);
  if (added == AVAHI_ERR_COLLISION) return rename();
  if (added < 0 || avahi_entry_group_commit(group_) < 0) {
    fatal_(std::string("Avahi cannot announce \"") + name_ +
           "\": " + avahi_strerror(avahi_client_errno(client)));
  }
}

void QVLogToolAnnouncer::rename() {
  char* alternative = avahi_alternative_service_name(name_.c_str());
  std::fprintf(stderr, "qvcore-logtool: \"%s\" is taken, trying \"%s\"\n", name_.c_str(),
               alternative);
  name_ = alternative;
  avahi_free(alternative);
  avahi_entry_group_reset(group_);
  announce(avahi_entry_group_get_client(group_));
}

void QVLogToolAnnouncer::groupChanged(AvahiEntryGroup* group, AvahiEntryGroupState state,
                                      void* userdata) {
  auto* self = static_cast<QVLogToolAnnouncer*>(userdata);
  if (state == AVAHI_ENTRY_GROUP_ESTABLISHED) {
    std::fprintf(stderr, "qvcore-logtool: announced \"%s\" (%s.) on port %u\n", self->name_.c_str(),
                 kServiceType, static_cast<unsigned>(self->port_));
  } else if (state == AVAHI_ENTRY_GROUP_COLLISION) {
    self->rename();
  } else if (state == AVAHI_ENTRY_GROUP_FAILURE) {
    AvahiClient* client = avahi_entry_group_get_client(group);
    self->fatal_(std::string("Avahi entry group: ") + avahi_strerror(avahi_client_errno(client)));
  }
}

}  // namespace qv
