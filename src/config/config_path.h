#pragma once
// Which configuration file is loaded and stored.

inline constexpr const char* kDefaultConfigPath = "/mnt/user/kiv_config.ini";
inline constexpr unsigned kMaxPathLength = 127;

// -1 (and nothing changes) when the path is longer than kMaxPathLength.
[[nodiscard]] int setConfigPath(const char* path);
const char* configPath();
