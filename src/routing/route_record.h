#pragma once
// A route as the daemon keeps it, and the byte images the gateway driver exchanges with it.
// The images are the device kernel's layouts: little-endian, 32-bit words at fixed offsets.
// Every offset is checked at compile time, so a layout that differs on the 32-bit device or on
// a 64-bit build host cannot build.

#include <netinet/in.h>

#include <bit>
#include <cstddef>
#include <cstdint>

#include "sys/gateway_driver.h"

static_assert(std::endian::native == std::endian::little,
              "the driver's images are little-endian and used in place");
static_assert(sizeof(sockaddr_in) == 16 && offsetof(sockaddr_in, sin_port) == 2 &&
              offsetof(sockaddr_in, sin_addr) == 4);

// RouteFlags bits of the daemon's route header.
inline constexpr uint32_t kRouteActive = 1u << 0;    // configured on
inline constexpr uint32_t kRouteInDriver = 1u << 1;  // exists in the driver
inline constexpr uint32_t kRouteRunning = 1u << 2;
inline constexpr uint32_t kRouteUnifyFilters = 1u << 4;
inline constexpr uint32_t kRouteJoinFilters = 1u << 5;

// Bits of the driver image's flag word.
inline constexpr uint32_t kDrvRunRequest = 1u << 1;  // set: the route runs (or is to run)
inline constexpr uint32_t kDrvTcpConnected = 1u << 26;
inline constexpr uint32_t kDrvDefaultBit27 = 1u << 27;
inline constexpr uint32_t kDrvTcpDelay = 1u << 28;
inline constexpr uint32_t kDrvNoControl = 1u << 29;
inline constexpr uint32_t kDrvCan2Lan = 1u << 31;  // route type: set means CAN2LAN (type "0")
inline constexpr uint32_t kDrvHighByte = 0xFF000000u;

inline constexpr uint8_t kNoDriverNode = 255;

// The statistics block, in the driver's order.
namespace route_stat {
enum : unsigned {
    CanPackets,
    CanMsgs,
    CanErrors,
    CanDropped,
    CanRetryOk,
    LanPackets,
    LanMsgs,
    LanErrors,
    LanDropped,
    LanDiscarded,
    RxBufferLen,
    RxBufferSize,
    Count
};
}  // namespace route_stat
inline constexpr unsigned kFppStatCount = 64;

// The first 140 bytes of a route image: what the driver answers to "get route".
struct RouteInfo {
    uint32_t flags;
    char name[32];
    char interface1[16];
    uint32_t protocol2;
    sockaddr_in destination;  // port and address in network order
    uint32_t retryCount;
    uint32_t retryDelay;
    uint32_t default80;
    uint32_t default84;
    uint16_t fpp;
    uint8_t reserved90[10];
    uint32_t default100;
    uint32_t authorizedPeers;
    uint32_t cdm;  // the word at offset 108
    uint32_t reserved112;
    uint32_t default116;
    uint32_t default120;
    uint32_t default124;
    uint8_t reserved128[12];
};
static_assert(sizeof(RouteInfo) == gw::kRouteInfoSize);
static_assert(offsetof(RouteInfo, flags) == 0 && offsetof(RouteInfo, reserved128) == 128);
static_assert(offsetof(RouteInfo, name) == 4 && offsetof(RouteInfo, interface1) == 36);
static_assert(offsetof(RouteInfo, protocol2) == 52 && offsetof(RouteInfo, destination) == 56);
static_assert(offsetof(RouteInfo, retryCount) == 72 && offsetof(RouteInfo, retryDelay) == 76);
static_assert(offsetof(RouteInfo, default80) == 80 && offsetof(RouteInfo, default84) == 84);
static_assert(offsetof(RouteInfo, fpp) == 88 && offsetof(RouteInfo, default100) == 100);
static_assert(offsetof(RouteInfo, authorizedPeers) == 104 && offsetof(RouteInfo, cdm) == 108);
static_assert(offsetof(RouteInfo, default116) == 116 && offsetof(RouteInfo, default124) == 124);

// The whole image handed to the driver when a route is added.
struct DriverRoute {
    RouteInfo info;
    uint32_t stats[route_stat::Count];
    uint32_t fppStats[kFppStatCount];
    uint8_t reserved444[4];
};
static_assert(sizeof(DriverRoute) == gw::kDriverRouteSize);
static_assert(offsetof(DriverRoute, stats) == 140 && offsetof(DriverRoute, fppStats) == 188);
static_assert(offsetof(DriverRoute, reserved444) == 444);

// The driver's forwarding defaults; the daemon reads only the values below.
struct ForwardDefaults {
    uint16_t version[3];  // the gateway driver's version, in this order
    uint8_t reserved6[34];
    uint16_t at40;
    uint8_t reserved42[4];
    uint16_t at46;
    uint16_t at48;
    uint16_t at50;
    uint8_t reserved52[12];
    uint32_t at64;
    uint32_t at68;
    uint32_t at72;
};
static_assert(sizeof(ForwardDefaults) == gw::kForwardDefaultsSize);
static_assert(offsetof(ForwardDefaults, at40) == 40 && offsetof(ForwardDefaults, at46) == 46);
static_assert(offsetof(ForwardDefaults, at48) == 48 && offsetof(ForwardDefaults, at50) == 50);
static_assert(offsetof(ForwardDefaults, at64) == 64 && offsetof(ForwardDefaults, at68) == 68);
static_assert(offsetof(ForwardDefaults, version) == 0 && offsetof(ForwardDefaults, at72) == 72);

// The characters of a route's name that a write keeps (RtInfo holds one more than the
// device ever used).
inline constexpr std::size_t kRtInfoChars = 127;

// One route: the daemon's header followed by the image handed to the driver as it stands.
struct RouteRecord {
    uint32_t RouteFlags;
    uint8_t DrvIndex;  // node "/dev/canoip<DrvIndex>"; kNoDriverNode and above: none yet
    char RtInfo[129];
    DriverRoute image;
    uint8_t DispIdx;
};
static_assert(offsetof(RouteRecord, image) % 4 == 0);
