#pragma once
// The daemon's own version and build stamp, and the product it was built for.

inline constexpr const char* kSoftwareVersion = "1.5.5";
inline constexpr const char* kBuildDate = "Jan 25 2017";
inline constexpr const char* kBuildTime = "13:37:14";
inline constexpr const char* kProductOrderNumber = "GWMD-310275";
