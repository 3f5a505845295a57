#pragma once
struct ConfigModel;

inline constexpr const char* kUbootEnvPath = "/tmp/uboot_env";
inline constexpr const char* kBoardInfoPath = "/proc/boardinfo";

// Fills the identity and version texts of the General record from the build, the boot
// loader's environment and the board information. 0, or -1 when either file cannot be opened
// (the texts then hold their defaults).
[[nodiscard]] int readDeviceIdentity(ConfigModel& model);
