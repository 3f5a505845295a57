#pragma once
// The DHCP server's configuration file, written from the DHCP server record when the record
// is stored.

#include "network/network_records.h"

inline constexpr const char* kDhcpdConfigPath = "/mnt/user/udhcpd.conf";

// Writes the server file: the first and the last address handed out and the interface the
// server runs on. `platform` is accepted and not used. 0, or -1 when the file cannot be opened.
int nw_write_dhcpd_config(const DhcpServerConfig& dhcp, const PlatformConfig& platform);
