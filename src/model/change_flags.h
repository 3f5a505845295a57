#pragma once
#include <array>
#include <cstdint>

// One flag per group instance: instance 0 of a group is the group as a whole and lies at the
// group's base place; instance k (record k - 1) lies k places after it.
namespace flag {
inline constexpr unsigned General = 0;
inline constexpr unsigned Host = 1;
inline constexpr unsigned Lan = 2;
inline constexpr unsigned Wlan = 4;
inline constexpr unsigned Can = 5;
inline constexpr unsigned Route = 8;
inline constexpr unsigned Unused = 17;  // nothing sets or applies it
inline constexpr unsigned Filter = 18;
inline constexpr unsigned Gui = 51;
inline constexpr unsigned DhcpServer = 52;
inline constexpr unsigned Count = 53;
}  // namespace flag

struct ChangeFlags {
    std::array<uint8_t, flag::Count> place;

    // Places outside the table are ignored, so a handler may pass an unchecked instance.
    void mark(unsigned base, unsigned instance = 0) {
        if (base + instance < place.size()) place[base + instance] = 1;
    }
    bool isSet(unsigned base, unsigned instance = 0) const {
        return base + instance < place.size() && place[base + instance] != 0;
    }
    void clearAll() { place.fill(0); }
    void setAll() { place.fill(1); }
};
