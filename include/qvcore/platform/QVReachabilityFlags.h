#pragma once

#include <cstdint>

namespace qv {

// The bits of a reachability flag word, the word that a QVReachabilityTarget
// answers. The values are those of the mobile platforms' reachability flags,
// so a host on such a platform may hand its own word over unchanged.
inline constexpr uint32_t kQVReachabilityFlagsReachable = 0x2;
inline constexpr uint32_t kQVReachabilityFlagsConnectionRequired = 0x4;
inline constexpr uint32_t kQVReachabilityFlagsConnectionOnTraffic = 0x8;
inline constexpr uint32_t kQVReachabilityFlagsInterventionRequired = 0x10;
inline constexpr uint32_t kQVReachabilityFlagsConnectionOnDemand = 0x20;
inline constexpr uint32_t kQVReachabilityFlagsIsLocalAddress = 0x10000;
inline constexpr uint32_t kQVReachabilityFlagsIsDirect = 0x20000;
inline constexpr uint32_t kQVReachabilityFlagsIsWWAN = 0x40000;

}  // namespace qv
