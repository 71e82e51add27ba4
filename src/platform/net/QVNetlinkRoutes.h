#pragma once

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace qv {

// Where a netlink reachability target leads: an IPv4 or IPv6 address, or the
// internet at large.
struct QVNetlinkDestination {
  int family = AF_INET;
  std::array<uint8_t, 16> address{};  // the first 4 bytes for IPv4
  uint32_t scopeId = 0;               // the interface of an IPv6 link-local address
  bool internet = false;
};

// A link as the kernel describes it.
struct QVNetlinkLink {
  int index = 0;
  unsigned short type = 0;  // ARPHRD_*
  unsigned flags = 0;       // IFF_*
  std::string name;
  std::string kind;  // IFLA_INFO_KIND, empty for hardware links
};

// The destination of an IPv4 or IPv6 socket address; the unspecified address
// (0.0.0.0, ::) is the internet. None for any other family.
std::optional<QVNetlinkDestination> netlinkDestinationForAddress(const sockaddr* address);
// The destination of a host name that is an address in text ("10.0.0.1",
// "2001:db8::1"); none for any other name.
std::optional<QVNetlinkDestination> netlinkDestinationForNumericHost(const std::string& name);
QVNetlinkDestination netlinkInternetDestination();

// The reachability flags of destination as the kernel routes it right now;
// none when the kernel cannot be asked. The internet is asked about over
// IPv4, then, when that leads nowhere, over IPv6.
std::optional<uint32_t> netlinkReachabilityFlags(const QVNetlinkDestination& destination);

// The link that traffic to the internet leaves by (over IPv4, else over
// IPv6), when it is up and running; none otherwise or when the kernel cannot
// be asked.
std::optional<QVNetlinkLink> netlinkInternetLink();

// Whether link is a cellular modem's: by the names modem drivers give, the
// kinds only they create, a raw IP link type, or the kernel's device type
// "wwan" in sysfs.
bool netlinkLinkIsCellular(const QVNetlinkLink& link);

}  // namespace qv
