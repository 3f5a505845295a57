#pragma once
// The daemon's whole configuration in memory, with the state that lives beside it for the
// daemon's lifetime: change flags, session state and the stamps of the live-state readers.

#include <array>
#include <cstdint>
#include <type_traits>

#include "can/can_interface.h"
#include "filters/filter.h"
#include "model/change_flags.h"
#include "model/general_records.h"
#include "network/network_records.h"
#include "routing/route_record.h"
#include "sys/gateway_driver.h"

// Records the model stores, and how many of them the handlers, loader and writer serve (the
// WLAN interfaces served are a build setting of their own: network/wlan_count.h).
inline constexpr unsigned kLanRecords = 2;
inline constexpr unsigned kWlanRecords = 1;
inline constexpr unsigned kCanRecords = 3;
inline constexpr unsigned kRouteRecords = 9;
inline constexpr unsigned kLanServed = 1;
inline constexpr unsigned kCanServed = 2;
inline constexpr unsigned kRoutesServed = 8;

struct SessionState {
    uint8_t answerAddress;  // every answer's queue message type
    uint32_t startArgument;
    int32_t announcedWrites;
    int32_t readCount;
    int32_t writeCount;
    uint32_t counter;  // one more at every START_SESSION, never reset
    uint8_t temporary;
    uint8_t permanent;
    uint8_t noSessionOpen;
};

// The session counter at the last refresh of each kind of live state.
struct RefreshStamps {
    uint32_t host;
    uint32_t can;
    uint32_t lan;
    uint32_t wlan;
    uint32_t routes;
    uint8_t routesChanged;
};

inline constexpr uint32_t kNeverRefreshed = 0xFFFFFFFF;
inline constexpr uint8_t kNoWlanMode = 0xFF;  // the previous WLAN mode before start-up sets it

struct ConfigModel {
    GeneralRecord general;
    std::array<LanInterface, kLanRecords> lan;
    WlanInterface wlan;
    std::array<CanInterface, kCanRecords> can;
    std::array<RouteRecord, kRouteRecords> routes;
    ForwardDefaults forwardDefaults;
    BtRecord bt;
    GuiRecord gui;
    PlatformConfig platform;
    FilterTable filters;
    DhcpServerConfig dhcp;

    ChangeFlags changed;
    SessionState session;
    RefreshStamps stamps;
    uint8_t rebootRequested;
    uint8_t previousWlanMode;   // the WLAN mode at start, then before each accepted mode write
    uint32_t wlanChangeIpOnly;  // 1: the session's WLAN writes changed the static address only
};
static_assert(std::is_trivially_copyable_v<ConfigModel> &&
              std::is_trivially_default_constructible_v<ConfigModel>);

// A zero-filled model with the session and refresh state of a freshly started daemon;
// nullptr when memory is short.
ConfigModel* allocateModel();
// Releases the model and nulls the pointer, so that a second release does nothing.
void releaseModel(ConfigModel*& model);
// Puts a model back into the freshly allocated state.
void resetModel(ConfigModel& model);
// Marks what the start-up applies: every group instance the file fills, and the active routes.
void markForStartApply(ConfigModel& model);
