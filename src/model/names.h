#pragma once
// Names of the groups and of their parameters, for diagnostic output of requests only; the
// request path never uses them.

#include <string_view>

inline constexpr unsigned kGroupCount = 10;

struct GroupInfo {
    std::string_view name;
    unsigned instances;
};

// nullptr-free: an unknown group yields an empty name and no instances.
GroupInfo groupInfo(unsigned f1);

// The display name of parameter `sub` of group `f1` (the sub-index that selects the
// parameter: f2 for single-instance groups, f3 for the others); empty when there is none.
std::string_view displayName(unsigned f1, unsigned sub);
