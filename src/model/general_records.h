#pragma once
#include <cstddef>
#include <cstdint>

// The identity texts hold up to 32 characters read from the device's files; host and user
// name up to 64.
inline constexpr std::size_t kIdentityChars = 32;
inline constexpr std::size_t kHostTextChars = 64;

// Identity, description, host and routing-general values of the device.
struct GeneralRecord {
    // Identity and version texts, filled at start and served read-only.
    char orderNumber[kIdentityChars + 1];
    char serialNumber[kIdentityChars + 1];
    char hwVersion[kIdentityChars + 1];
    char bspVersion[kIdentityChars + 1];
    char swVersion[32];
    char buildDate[16];
    char buildTime[16];

    char Description[512];
    uint8_t KL15pwdn;  // 1: KL15 power down enabled
    char hostName[kHostTextChars + 1];
    char userName[kHostTextChars + 1];

    uint32_t LighttpdPort;
    uint8_t UseNTP;
    char NTPServer[128];

    // Routing as a whole (section FWD_GEN).
    uint32_t Count;  // number of active routes
    uint32_t CANoIPdPort;
};

struct BtRecord {
    char name[32];
    uint8_t flags;
};

// Which information pages the web front end shows, in the order of the GUI parameters.
struct GuiRecord {
    uint8_t show[9];
};
