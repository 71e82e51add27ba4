#include "platform/net/QVNetlinkRoutes.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/net/QVNetlinkSocket.h"
#include "qvcore/platform/QVReachabilityFlags.h"

namespace qv {
namespace {

// Addresses that stand for the internet: the kernel's route to them is the
// one that traffic to the internet would take. Asking sends nothing.
constexpr std::array<uint8_t, 4> kInternetIPv4{1, 1, 1, 1};
constexpr std::array<uint8_t, 16> kInternetIPv6{0x26, 0x06, 0x47, 0x00, 0x47, 0x00, 0,    0,
                                                0,    0,    0,    0,    0,    0,    0x11, 0x11};

// Names that cellular modem drivers give their links.
constexpr std::string_view kCellularPrefixes[] = {"wwan", "rmnet", "ccmni"};
// Link kinds (IFLA_INFO_KIND) that only modems' drivers create.
constexpr std::string_view kCellularKinds[] = {"wwan", "rmnet"};

struct Route {
  uint8_t type = RTN_UNSPEC;
  int outputInterface = 0;
  bool viaGateway = false;
};

std::vector<uint8_t> makeRequest(uint16_t type, const void* body, size_t size) {
  std::vector<uint8_t> bytes(NLMSG_SPACE(size));
  auto* header = reinterpret_cast<nlmsghdr*>(bytes.data());
  header->nlmsg_len = NLMSG_LENGTH(size);
  header->nlmsg_type = type;
  header->nlmsg_flags = NLM_F_REQUEST;
  std::memcpy(NLMSG_DATA(header), body, size);
  return bytes;
}

void addAttribute(std::vector<uint8_t>& bytes, uint16_t type, const void* data, size_t size) {
  const size_t offset = NLMSG_ALIGN(reinterpret_cast<nlmsghdr*>(bytes.data())->nlmsg_len);
  bytes.resize(offset + RTA_SPACE(size));
  auto* attribute = reinterpret_cast<rtattr*>(bytes.data() + offset);
  attribute->rta_type = type;
  attribute->rta_len = RTA_LENGTH(size);
  std::memcpy(RTA_DATA(attribute), data, size);
  reinterpret_cast<nlmsghdr*>(bytes.data())->nlmsg_len = offset + RTA_LENGTH(size);
}

std::vector<uint8_t> routeRequest(const QVNetlinkDestination& destination) {
  const bool v4 = destination.family == AF_INET;
  rtmsg body{};
  body.rtm_family = static_cast<uint8_t>(destination.family);
  body.rtm_dst_len = v4 ? 32 : 128;
  auto request = makeRequest(RTM_GETROUTE, &body, sizeof body);
  const uint8_t* address = destination.address.data();
  if (destination.internet) address = v4 ? kInternetIPv4.data() : kInternetIPv6.data();
  addAttribute(request, RTA_DST, address, v4 ? 4 : 16);
  if (destination.scopeId != 0) {
    addAttribute(request, RTA_OIF, &destination.scopeId, sizeof destination.scopeId);
  }
  return request;
}

std::vector<uint8_t> linkRequest(int index) {
  ifinfomsg body{};
  body.ifi_family = AF_UNSPEC;
  body.ifi_index = index;
  return makeRequest(RTM_GETLINK, &body, sizeof body);
}

Route parseRoute(std::vector<uint8_t>& message) {
  Route route;
  auto* header = reinterpret_cast<nlmsghdr*>(message.data());
  if (header->nlmsg_type != RTM_NEWROUTE || header->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) {
    return route;
  }
  auto* body = static_cast<rtmsg*>(NLMSG_DATA(header));
  route.type = body->rtm_type;
  int left = static_cast<int>(RTM_PAYLOAD(header));
  for (auto* attribute = RTM_RTA(body); RTA_OK(attribute, left);
       attribute = RTA_NEXT(attribute, left)) {
    if (attribute->rta_type == RTA_OIF && RTA_PAYLOAD(attribute) >= sizeof(uint32_t)) {
      uint32_t index = 0;
      std::memcpy(&index, RTA_DATA(attribute), sizeof index);
      route.outputInterface = static_cast<int>(index);
    } else if (attribute->rta_type == RTA_GATEWAY || attribute->rta_type == RTA_VIA) {
      route.viaGateway = true;
    }
  }
  return route;
}

std::string attributeText(const rtattr* attribute) {
  const char* text = static_cast<const char*>(RTA_DATA(attribute));
  return std::string(text, strnlen(text, RTA_PAYLOAD(attribute)));
}

// The driver's name for the kind of link, nested in IFLA_LINKINFO; empty for
// links of no kind (those of hardware drivers).
std::string linkKind(const rtattr* linkInfo) {
  int left = static_cast<int>(RTA_PAYLOAD(linkInfo));
  for (auto* nested = static_cast<const rtattr*>(RTA_DATA(linkInfo)); RTA_OK(nested, left);
       nested = RTA_NEXT(nested, left)) {
    if (nested->rta_type == IFLA_INFO_KIND) return attributeText(nested);
  }
  return {};
}

QVNetlinkLink parseLink(std::vector<uint8_t>& message) {
  QVNetlinkLink link;
  auto* header = reinterpret_cast<nlmsghdr*>(message.data());
  if (header->nlmsg_type != RTM_NEWLINK || header->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) {
    return link;
  }
  auto* body = static_cast<ifinfomsg*>(NLMSG_DATA(header));
  link.index = body->ifi_index;
  link.type = body->ifi_type;
  link.flags = body->ifi_flags;
  int left = static_cast<int>(IFLA_PAYLOAD(header));
  for (auto* attribute = IFLA_RTA(body); RTA_OK(attribute, left);
       attribute = RTA_NEXT(attribute, left)) {
    if (attribute->rta_type == IFLA_IFNAME) {
      link.name = attributeText(attribute);
    } else if (attribute->rta_type == IFLA_LINKINFO) {
      link.kind = linkKind(attribute);
    }
  }
  return link;
}

std::optional<std::string> readSmallFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  char buffer[4096];
  const ssize_t got = ::read(fd, buffer, sizeof buffer);
  ::close(fd);
  if (got < 0) return std::nullopt;
  return std::string(buffer, static_cast<size_t>(got));
}

// The kernel marks the links of cellular modems with the device type "wwan".
// sysfs shows the links of the network namespace that mounted it, which need
// not be ours, so it counts only when it knows the link by the same index.
bool sysfsSaysCellular(const QVNetlinkLink& link) {
  if (link.name.empty() || link.name.find('/') != std::string::npos || link.name[0] == '.') {
    return false;
  }
  const std::string folder = "/sys/class/net/" + link.name + "/";
  const auto index = readSmallFile(folder + "ifindex");
  if (!index || *index != std::to_string(link.index) + "\n") return false;
  const auto uevent = readSmallFile(folder + "uevent");
  return uevent && ("\n" + *uevent).find("\nDEVTYPE=wwan\n") != std::string::npos;
}

// A link carries traffic when it is up and the kernel counts it operational
// (IFF_RUNNING: carrier present, or a link that cannot tell). Routes over a
// link that lost its carrier stay in the table, so the route alone is not
// enough. Loopback leads nowhere else.
bool carriesTraffic(const QVNetlinkLink& link) {
  const unsigned needed = IFF_UP | IFF_RUNNING;
  return (link.flags & needed) == needed && (link.flags & IFF_LOOPBACK) == 0;
}

uint32_t flagsOver(const Route& route, const QVNetlinkLink& link,
                   const QVNetlinkDestination& destination) {
  if (!carriesTraffic(link)) return 0;
  uint32_t flags = kQVReachabilityFlagsReachable;
  // The internet is never on a link of this machine, whatever the route.
  if (!route.viaGateway && !destination.internet) flags |= kQVReachabilityFlagsIsDirect;
  if (netlinkLinkIsCellular(link)) flags |= kQVReachabilityFlagsIsWWAN;
  return flags;
}

// The route to destination and the link it leaves by: none when the kernel
// cannot be asked, a route of type RTN_UNSPEC when there is none.
std::optional<std::pair<Route, QVNetlinkLink>> routeAndLink(
    QVNetlinkSocket& socket, const QVNetlinkDestination& destination) {
  auto routeReply = socket.transact(routeRequest(destination));
  if (!routeReply) return std::nullopt;
  // An error is the kernel's answer that there is no way there.
  if (routeReply->error != 0) return std::pair(Route(), QVNetlinkLink());
  const Route route = parseRoute(routeReply->message);
  if (route.type != RTN_UNICAST) return std::pair(route, QVNetlinkLink());
  auto linkReply = socket.transact(linkRequest(route.outputInterface));
  if (!linkReply) return std::nullopt;
  if (linkReply->error != 0) return std::pair(Route(), QVNetlinkLink());  // gone in between
  return std::pair(route, parseLink(linkReply->message));
}

std::optional<uint32_t> flagsOfFamily(QVNetlinkSocket& socket,
                                      const QVNetlinkDestination& destination) {
  const auto found = routeAndLink(socket, destination);
  if (!found) return std::nullopt;
  const auto& [route, link] = *found;
  if (route.type == RTN_LOCAL) {
    if (destination.internet) return 0u;
    return kQVReachabilityFlagsReachable | kQVReachabilityFlagsIsLocalAddress |
           kQVReachabilityFlagsIsDirect;
  }
  // Blackhole, unreachable and prohibit routes lead nowhere.
  if (route.type != RTN_UNICAST) return 0u;
  return flagsOver(route, link, destination);
}

// The internet in the other family: a machine may reach it over IPv6 alone,
// or over IPv4 alone, whichever unspecified address stood for it.
QVNetlinkDestination otherFamily(QVNetlinkDestination destination) {
  destination.family = destination.family == AF_INET ? AF_INET6 : AF_INET;
  return destination;
}

}  // namespace

std::optional<QVNetlinkDestination> netlinkDestinationForAddress(const sockaddr* address) {
  if (!address) return std::nullopt;
  QVNetlinkDestination destination;
  destination.family = address->sa_family;
  if (address->sa_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
    std::memcpy(destination.address.data(), &v4->sin_addr, 4);
    destination.internet = v4->sin_addr.s_addr == htonl(INADDR_ANY);
    return destination;
  }
  if (address->sa_family == AF_INET6) {
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
    std::memcpy(destination.address.data(), &v6->sin6_addr, 16);
    destination.scopeId = v6->sin6_scope_id;
    destination.internet = IN6_IS_ADDR_UNSPECIFIED(&v6->sin6_addr);
    return destination;
  }
  return std::nullopt;
}

std::optional<QVNetlinkDestination> netlinkDestinationForNumericHost(const std::string& name) {
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  if (::inet_pton(AF_INET, name.c_str(), &v4.sin_addr) == 1) {
    return netlinkDestinationForAddress(reinterpret_cast<const sockaddr*>(&v4));
  }
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  if (::inet_pton(AF_INET6, name.c_str(), &v6.sin6_addr) == 1) {
    return netlinkDestinationForAddress(reinterpret_cast<const sockaddr*>(&v6));
  }
  return std::nullopt;
}

QVNetlinkDestination netlinkInternetDestination() {
  QVNetlinkDestination destination;
  destination.internet = true;
  return destination;
}

std::optional<uint32_t> netlinkReachabilityFlags(const QVNetlinkDestination& destination) {
  QVNetlinkSocket socket;
  const auto flags = flagsOfFamily(socket, destination);
  if (!destination.internet || !flags || *flags != 0) return flags;
  return flagsOfFamily(socket, otherFamily(destination));
}

std::optional<QVNetlinkLink> netlinkInternetLink() {
  QVNetlinkSocket socket;
  QVNetlinkDestination destination = netlinkInternetDestination();
  for (int family : {AF_INET, AF_INET6}) {
    destination.family = family;
    const auto found = routeAndLink(socket, destination);
    if (!found) return std::nullopt;
    if (found->first.type == RTN_UNICAST && carriesTraffic(found->second)) return found->second;
  }
  return std::nullopt;
}

bool netlinkLinkIsCellular(const QVNetlinkLink& link) {
  const auto among = [](const auto& list, auto test) {
    return std::any_of(std::begin(list), std::end(list), test);
  };
  const std::string_view name = link.name;
  if (among(kCellularPrefixes, [&](std::string_view p) { return name.starts_with(p); })) {
    return true;
  }
  if (among(kCellularKinds, [&](std::string_view kind) { return link.kind == kind; })) return true;
  // Raw IP links (no link-layer header) are what modems' data channels are.
  return link.type == ARPHRD_RAWIP || sysfsSaysCellular(link);
}

}  // namespace qv
