#pragma once
#include <cstdint>
#include <cstring>

#include "sys/gateway_driver.h"

// RouteFlags bits of the daemon's route header.
inline constexpr uint32_t kRouteActive = 1u << 0;    // configured on
inline constexpr uint32_t kRouteInDriver = 1u << 1;  // exists in the driver
inline constexpr uint32_t kRouteRunning = 1u << 2;
inline constexpr uint32_t kRouteUnifyFilters = 1u << 4;
inline constexpr uint32_t kRouteJoinFilters = 1u << 5;

inline constexpr uint8_t kNoDriverNode = 255;

// One route: the daemon's header followed by the image handed to the driver as it stands.
struct RouteRecord {
    uint32_t RouteFlags;
    uint8_t DrvIndex;  // node "/dev/canoip<DrvIndex>"; kNoDriverNode and above: none yet
    char RtInfo[129];
    alignas(4) uint8_t image[gw::kDriverRouteSize];
    uint8_t DispIdx;
};

// Little-endian words of the driver image, as the device's kernel lays them out.
inline uint32_t imageWord(const RouteRecord& route, std::size_t offset) {
    const uint8_t* p = route.image + offset;
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

inline void setImageWord(RouteRecord& route, std::size_t offset, uint32_t value) {
    uint8_t* p = route.image + offset;
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(value >> (8 * i));
}
