#pragma once
// The gateway kernel driver's interface as the device's 32-bit kernel defines it. The request
// numbers carry the 4-byte size of the device's pointers; they are given as numbers on purpose
// and must not be rebuilt with _IOR/_IOW on a 64-bit build host.

#include <cstddef>
#include <cstdint>

namespace gw {

inline constexpr const char* kControlNode = "/dev/tarn-gw";
inline constexpr const char* kRouteNodePrefix = "canoip";
inline constexpr const char* kRouteNodeFormat = "/dev/%s%d";
inline constexpr const char* kDeviceName = "tarn-gw";  // in /proc/devices
inline constexpr const char* kModuleName = "tarn_gw";  // in /proc/modules

// Requests on the control node.
inline constexpr unsigned long kGetForwardDefaults = 0x80045194;
inline constexpr unsigned long kGetCanLinkInfo = 0x800451F4;

// Requests on a route node.
inline constexpr unsigned long kAddRoute = 0x400450C8;
inline constexpr unsigned long kDeleteRoute = 0x50C9;
inline constexpr unsigned long kRunRoute = 0x50CA;
inline constexpr unsigned long kHaltRoute = 0x50CB;
inline constexpr unsigned long kGetRoute = 0x800450CC;
inline constexpr unsigned long kGetRouteStats = 0x800450CD;
inline constexpr unsigned long kResetRouteStats = 0x50CE;
inline constexpr unsigned long kSetFilters = 0x40045A58;
inline constexpr unsigned long kSetJoinedFilters = 0x40045A59;

// Link state of one CAN interface (request kGetCanLinkInfo); little-endian, 76 bytes.
struct CanLinkInfo {
    char name[16];
    uint32_t reserved16;
    uint32_t flags;     // bit 0: interface up
    uint32_t state;     // SocketCAN controller state
    uint32_t ctrlMode;  // bit 0 loopback, bit 1 listen-only, bit 2 triple sampling
    uint32_t reserved32[2];
    // From here the layout of SocketCAN's struct can_bittiming.
    uint32_t bitrate;
    uint32_t samplePoint;  // tenths of a percent
    uint32_t tq;
    uint32_t propSeg;
    uint32_t phaseSeg1;
    uint32_t phaseSeg2;
    uint32_t sjw;
    uint32_t brp;
    uint32_t reserved72;
};
static_assert(sizeof(CanLinkInfo) == 76);
static_assert(offsetof(CanLinkInfo, flags) == 20 && offsetof(CanLinkInfo, state) == 24);
static_assert(offsetof(CanLinkInfo, ctrlMode) == 28 && offsetof(CanLinkInfo, bitrate) == 40);
static_assert(offsetof(CanLinkInfo, samplePoint) == 44 && offsetof(CanLinkInfo, tq) == 48);
static_assert(offsetof(CanLinkInfo, propSeg) == 52 && offsetof(CanLinkInfo, phaseSeg1) == 56);
static_assert(offsetof(CanLinkInfo, phaseSeg2) == 60 && offsetof(CanLinkInfo, sjw) == 64);
static_assert(offsetof(CanLinkInfo, brp) == 68);

inline constexpr uint32_t kCanLinkUp = 1u << 0;
inline constexpr uint32_t kCtrlLoopback = 1u << 0;
inline constexpr uint32_t kCtrlListenOnly = 1u << 1;
inline constexpr uint32_t kCtrlTripleSampling = 1u << 2;

// The filter list handed to a route node: a count followed by identifier/mask pairs, with
// SocketCAN's identifier bits.
inline constexpr uint32_t kExtendedFrame = 0x80000000u;
inline constexpr uint32_t kInvertedFilter = 0x20000000u;
inline constexpr uint32_t kIdentifierBits = 0x1FFFFFFFu;

struct MaskEntry {
    uint32_t id;
    uint32_t mask;
};
static_assert(sizeof(MaskEntry) == 8 && offsetof(MaskEntry, mask) == 4);

inline constexpr std::size_t kDriverRouteSize = 448;
inline constexpr std::size_t kForwardDefaultsSize = 76;
inline constexpr std::size_t kRouteInfoSize = 140;

}  // namespace gw
