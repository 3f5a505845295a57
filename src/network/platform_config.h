#pragma once
// The platform file: key=value lines shared with the device's start-up scripts, which take the
// WLAN driver's region code, the WLAN mode (station or micro AP), the AP's address and the DHCP
// server's configuration file from it.

#include <cstddef>

#include "network/network_records.h"

struct ConfigModel;

inline constexpr const char* kPlatformConfigPath = "/mnt/user/platform.config";

// Fills `config` from the file, key by key; what the file does not say stays as it was.
// -1 when the file cannot be opened (nothing changes), else 0.
int readPlatformConfig(PlatformConfig& config);
// Rewrites the file from `config`, unless the file already says the same; -1 when it cannot be
// opened for writing, else 0.
int writePlatformConfig(const PlatformConfig& config);
// Both exist and agree in mode, address and DHCP server file. The region code is not compared:
// it belongs to the device, and a differing one alone never rewrites the file.
bool platform_cfg_equivalent(const PlatformConfig* a, const PlatformConfig* b);
// Rebuilds the model's platform record from the WLAN interface and the DHCP server record; the
// region code stays as read. 0.
int updatePlatformConfig(ConfigModel& model);
