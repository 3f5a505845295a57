#pragma once
// The network command layer: every change of the network goes through one shell command line
// of at most 249 characters, whose exit status is not looked at; and the two kernel queries
// that read an interface's MAC address and IPv4 address.

#include <netinet/in.h>

#include <cstddef>
#include <cstdio>

inline constexpr std::size_t kNwCommandChars = 249;
inline constexpr std::size_t kMacTextSize = 24;
inline constexpr const char* kResolvConfPath = "/etc/resolv.conf";
inline constexpr const char* kDhcpClientScript = "/etc/init.d/udhcpc.sh";
inline constexpr const char* kDhcpServerScript = "/etc/init.d/S41udhcpd.sh";

// Answers of the network groups to an address text that does not convert (with f1 and f2).
inline constexpr const char* kFalseAddressFormat = "false address %d %d";
inline constexpr const char* kFalseSubnetmaskFormat = "false subnetmask %d %d";

// The kernel's name of an interface: its record's BaseName followed by its Index ("eth0",
// "uap0"), at most 126 characters.
inline constexpr std::size_t kInterfaceNameChars = 126;
struct InterfaceName {
    template <typename Record>
    explicit InterfaceName(const Record& record) {
        std::snprintf(text, sizeof text, "%s%u", record.BaseName, record.Index);
    }
    char text[kInterfaceNameChars + 1];
};

// Commands of the service operations: 0 start, 2 restart, any other value stop.
enum NwCommand : int { NW_START = 0, NW_STOP = 1, NW_RESTART = 2 };

int nw_update_ip_cfg(const char* ifName, in_addr address, in_addr netmask);
// Replaces the default route, unless the gateway reads as none ("0.0." at its start).
int nw_update_default_route(const char* ifName, in_addr gateway);
// Makes the gateway the only name server; -1 when `gateway` is null, the file cannot be
// written or nothing was written.
int nw_update_resolv_conf(const in_addr* gateway);
int nw_dhcp_client(int command, const char* ifName, const char* hostName);
// 0 and 2 start ntpd, any other value stops it.
int nw_ntp(int command, const char* server);
int nw_dhcp_server(int command);
int nw_ifconfig_down(const char* baseName, int index);
int nw_ifconfig_up(const char* baseName, int index, in_addr address);

// "%02X:..." of the interface's hardware address; "00:00:00:00:00:00" when the query fails.
int nw_get_mac(const char* ifName, char (&mac)[kMacTextSize]);
// The interface's IPv4 address; 0.0.0.0 when the query fails.
int nw_get_ipv4(const char* ifName, in_addr& address);
