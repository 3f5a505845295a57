#pragma once
// The build's profile (CMake option CFGD_HARDENED): the legacy daemon as the device has always
// behaved, or the hardened one that closes its hazards.

#ifndef CFGD_HARDENED
#define CFGD_HARDENED 0
#endif

// Not inline: each translation unit sees the value of its own build.
constexpr bool kHardened = CFGD_HARDENED != 0;
