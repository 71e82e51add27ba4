#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

namespace qv {

// One entry of the system's list of interface addresses.
struct QVInterfaceAddress {
  // The interface's name, after the host's renaming (see
  // QVSystemInterfaceAddressSource::setInterfaceNameMap).
  std::string name;
  // The interface's IFF_* flags.
  uint32_t flags = 0;
  // The address family (AF_INET, AF_INET6, ...), AF_UNSPEC for an entry
  // without an address.
  int family = AF_UNSPEC;
  // The socket address as the system lays it out: a sockaddr_in for
  // AF_INET, a sockaddr_in6 for AF_INET6, empty for any other family.
  std::vector<uint8_t> address;
};

}  // namespace qv
