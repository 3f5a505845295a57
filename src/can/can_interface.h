#pragma once
#include <cstdint>

struct BitTiming {
    uint32_t tq;  // time quantum in ns
    uint32_t prop_seg;
    uint32_t phase_seg1;
    uint32_t phase_seg2;
    uint32_t sjw;
    uint32_t brp;
};

// Limits of the configured values, shared by the requests and the configuration loader.
inline constexpr uint32_t kMinBaudrate = 5000;
inline constexpr uint32_t kMaxBaudrate = 1000000;
inline constexpr uint32_t kMaxSamplepoint = 1000;  // tenths of a percent
inline constexpr unsigned kCanIfNameMaxChars = 127;

// Kernel interface name of every CAN interface without its zero-based index ("can0", "can1").
inline constexpr const char* kCanBaseName = "can";

// One CAN controller of the device.
struct CanInterface {
    char IfName[128];
    uint8_t Active;
    uint32_t Baudrate;         // configured bit rate in bit/s
    uint32_t RealBaudrate;     // as the driver reports it
    uint32_t Samplepoint;      // tenths of a percent
    uint32_t RealSamplepoint;  // as the driver reports it
    uint8_t Listenonly;
    uint8_t Autoresume;
    BitTiming timing;
    uint8_t Loopback;
    uint8_t Oneshot;
    uint8_t Triplesampling;
    uint8_t BerrReporting;  // nothing sets it; it stays off
    uint8_t CanState;
    uint8_t ManBr;  // 1: bit timing from the register values, 0: from Baudrate and Samplepoint
    char BaseName[38];
};
