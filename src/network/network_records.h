#pragma once
#include <netinet/in.h>

#include <cstdint>

inline constexpr const char* kLanBaseName = "eth";

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
    uint8_t wlan_mode;  // 2 micro AP, 0 station
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
