#pragma once
// How many WLAN interfaces the daemon serves. The build sets it (CFGD_WLAN_IF_COUNT, 0 on the
// device: the WLAN group then answers its general part only and its interface part stays
// dormant). Only the sources that the build compiles once per count may include this header;
// any other source that includes it fails to compile, so that no part of a daemon can be built
// with a count other than the rest.

#ifndef CFGD_WLAN_IF_COUNT
#error "CFGD_WLAN_IF_COUNT is given by the build to the sources it builds once per count"
#endif

inline constexpr unsigned WLAN_IF_COUNT = CFGD_WLAN_IF_COUNT;

// Instances the apply step walks from the WLAN change-flag place: the group as a whole, then
// one per interface.
inline constexpr unsigned kWlanApplyInstances = 1 + WLAN_IF_COUNT;
