#include "model/names.h"

#include <array>
#include <span>

namespace {

constexpr std::array<GroupInfo, kGroupCount> kGroups{{
    {"General information", 1},
    {"Host information", 1},
    {"LAN information", 2},
    {"WLAN information", 1},
    {"CAN information", 3},
    {"Route information", 9},
    {"Status information", 1},
    {"BT information", 1},
    {"GUI information", 1},
    {"Filter information", 33},
}};

// Each row is indexed by sub-index + 1: place 0 holds a placeholder, so a sub-index of n shows
// the name at place n + 1.
constexpr std::string_view kPlaceholder = "off by one";

constexpr std::string_view kGeneralNames[] = {
    kPlaceholder,         "SW version",      "HW version",      "Order number", "Serial number",
    "Device description", "KL15 power down", "Gateway version", "Lighttpd port"};
constexpr std::string_view kHostNames[] = {kPlaceholder, "Host name", "User name"};
// The interface's parameters (f2 = 1); the group's own two, "IF cnt" and "Prefix", share their
// sub-indices with the first two.
constexpr std::string_view kLanNames[] = {
    kPlaceholder, "IF name",     "DHCP usage",  "IPv4",          "Subnetmask",
    "IPv6",       "IPv4Gateway", "IPv6Gateway", "IPv6 net bits", "MAC Address"};
// Likewise the interface's parameters.
constexpr std::string_view kWlanNames[] = {kPlaceholder,
                                           "IF name",
                                           "SSID",
                                           "Encryption usage",
                                           "Encryption type",
                                           "Key type",
                                           "Key",
                                           "Supported modes",
                                           "mode",
                                           "DHCP usage",
                                           "IPv4",
                                           "Subnetmask",
                                           "IPv6",
                                           "IPv4Gateway",
                                           "IPv6Gateway",
                                           "IPv6 net bits",
                                           "MAC Address"};
constexpr std::string_view kCanNames[] = {
    kPlaceholder,   "IF name",          "active",   "bitrate",           "listen only",
    "auto resume",  "BR reg set",       "loopback", "oneshot",           "triple sampling",
    "sample point", "manual BR config", "real BR",  "real sample point", "can state"};
constexpr std::string_view kRouteNames[] = {
    kPlaceholder,    "RT name",       "state",          "route type",
    "if 1",          "if 2",          "if proto 1",     "if proto 2",
    "if dest 1",     "if dest 2",     "if dest type 1", "if dest type 2",
    "fpp",           "TCP DELAY",     "display index",  "authorized peer cnt",
    "reset stats",   "CAN packets",   "CAN msgs",       "CAN errors",
    "CAN dropped",   "CAN retry ok",  "LAN packets",    "LAN msgs",
    "LAN errors",    "LAN discarded", "LAN dropped",    "RxBuffer Len",
    "RxBuffer Size", "FPP stats",     "Rerty delay",    "Rerty count",
    "TCP connected", "No control",    "filter list",    "unify filters",
    "join filters"};
constexpr std::string_view kStatusNames[] = {kPlaceholder};
constexpr std::string_view kBtNames[] = {kPlaceholder};
constexpr std::string_view kGuiNames[] = {kPlaceholder};
constexpr std::string_view kFilterNames[] = {kPlaceholder,          "Show filter kind",
                                             "Show filter type",    "Show filter term",
                                             "Show filter comment", "Show filter name"};

constexpr std::array<std::span<const std::string_view>, kGroupCount> kDisplayNames{
    kGeneralNames, kHostNames,   kLanNames, kWlanNames, kCanNames,
    kRouteNames,   kStatusNames, kBtNames,  kGuiNames,  kFilterNames};

}  // namespace

GroupInfo groupInfo(unsigned f1) {
    return f1 < kGroups.size() ? kGroups[f1] : GroupInfo{};
}

std::string_view displayName(unsigned f1, unsigned sub) {
    if (f1 >= kDisplayNames.size()) return {};
    const auto row = kDisplayNames[f1];
    return sub + 1 < row.size() ? row[sub + 1] : std::string_view{};
}
