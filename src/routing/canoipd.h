#pragma once
// The CAN-over-IP helper daemon that runs beside the gateway driver.

struct ConfigModel;

inline constexpr const char* kCanoipdPath = "/home/tarn/canoip/canoipd";

enum class CanoipdMode : int { Start = 0, Stop = 1, Restart = 2 };

// Starts, stops or restarts (stop, then start) the helper through the shell. 0, or -1 for an
// unknown mode.
int controlCanoipd(int mode, const ConfigModel& model);

// Whether the helper was last started (hardened profile) with the command line the model gives
// it now: the device name, the port and the LAN interface. Always false in the legacy profile,
// which keeps no record.
bool canoipdStartedWith(const ConfigModel& model);
