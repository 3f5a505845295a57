#pragma once
// The CAN-over-IP helper daemon that runs beside the gateway driver.

struct ConfigModel;

inline constexpr const char* kCanoipdPath = "/home/tarn/canoip/canoipd";

enum class CanoipdMode : int { Start = 0, Stop = 1, Restart = 2 };

// Starts, stops or restarts (stop, then start) the helper through the shell. 0, or -1 for an
// unknown mode.
int controlCanoipd(int mode, const ConfigModel& model);
