#pragma once
#include <netinet/in.h>

#include <cstdint>

inline constexpr const char* kLanBaseName = "eth";
// The WLAN interface's kernel base name: the driver names a station "eth", a micro AP "uap".
inline constexpr const char* kWlanStationBaseName = "eth";
inline constexpr const char* kWlanApBaseName = "uap";

enum WlanMode : uint8_t { WLAN_MODE_STATION = 0, WLAN_MODE_ADHOC = 1, WLAN_MODE_UAP = 2 };

// One wired Ethernet interface.
struct LanInterface {
    char IfName[128];
    uint32_t Index;  // appended to BaseName for the kernel's name; never assigned
    uint8_t UseDHCP;
    in_addr IPv4;
    in_addr Subnetmask;
    in6_addr IPv6;
    int32_t Netbitsv6;
    in_addr IPv4Gw;
    in6_addr IPv6Gw;
    char MAC[24];
    char BaseName[32];
};

// The wireless interface (station or micro AP).
struct WlanInterface {
    char IfName[128];
    uint32_t Index;
    uint8_t UseDHCP;
    in_addr IPv4;
    in_addr Subnetmask;
    in6_addr IPv6;
    uint8_t Netbitsv6;
    in_addr IPv4Gw;
    in6_addr IPv6Gw;
    char MAC[24];
    char SSID[33];
    uint8_t Encryption;
    uint8_t EncryptionType;
    uint8_t KeyType;
    char Key[65];
    uint8_t SupportedModes;
    uint8_t Mode;  // 0 station, 1 ad-hoc station, 2 micro AP
    char BaseName[32];
};

// The platform file shared with the device's start-up scripts.
struct PlatformConfig {
    uint8_t wlan_mode;  // WLAN_MODE_UAP, else a station
    uint8_t regcode;
    in_addr ip_address;
    char udhcpd_conf[127];
};

struct DhcpServerConfig {
    uint8_t active;
    in_addr start_addr;
    in_addr end_addr;
    uint8_t max_leases;
};
